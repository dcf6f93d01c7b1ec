// kelo-demo: a point-of-sale host application's day against a Kelo cloud (by default the local
// simulator kelo-cloud). Written the way an integrator writes a host: trust the server's CA,
// point the SDK at the server, create one Kelosdk and drive it through its signals.
#include "demoday.h"
#include "simulatorcontrol.h"

#include <kelo/kelosdk.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTextStream>

namespace {

QString defaultCaPath()
{
    const QString dataHome =
        qEnvironmentVariable("XDG_DATA_HOME", QDir::homePath() + QStringLiteral("/.local/share"));
    return dataHome + QStringLiteral("/kelo-cloud/ca.pem");
}

// The cloud's certificate authority joins the system ones; verification stays fully on.
bool trustCertificateAuthority(const QString& path)
{
    const QList<QSslCertificate> cas = QSslCertificate::fromPath(path, QSsl::Pem);
    if (cas.isEmpty())
        return false;
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setCaCertificates(tls.caCertificates() + cas);
    QSslConfiguration::setDefaultConfiguration(tls);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("kelo"));
    QCoreApplication::setApplicationName(QStringLiteral("kelo-demo"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Runs a point-of-sale terminal's day through the Kelo SDK: login, menu with pictures, "
        "tables, order, merge, payment, e-wallet invoice with QR code, cancel, logout.\n"
        "Start the local cloud first (kelo-cloud) and pass its address and CA."));
    parser.addHelpOption();
    const QCommandLineOption server(
        {QStringLiteral("s"), QStringLiteral("server")},
        QStringLiteral("Cloud address host:port (default: $KELO_SERVER_HOST)."),
        QStringLiteral("host:port"), qEnvironmentVariable("KELO_SERVER_HOST"));
    const QCommandLineOption ca(
        QStringLiteral("ca"),
        QStringLiteral("CA certificate of the cloud (default: $KELO_CA or %1).")
            .arg(defaultCaPath()),
        QStringLiteral("file"), qEnvironmentVariable("KELO_CA", defaultCaPath()));
    const QCommandLineOption merchant(QStringLiteral("merchant"), QStringLiteral("Merchant id."),
                                      QStringLiteral("id"), QStringLiteral("M01"));
    const QCommandLineOption machine(QStringLiteral("machine"), QStringLiteral("Terminal name."),
                                     QStringLiteral("name"), QStringLiteral("POS-1"));
    const QCommandLineOption user(QStringLiteral("user"), QStringLiteral("Waiter's user name."),
                                  QStringLiteral("name"), QStringLiteral("mai"));
    const QCommandLineOption password(QStringLiteral("password"),
                                      QStringLiteral("Waiter's password."), QStringLiteral("text"),
                                      QStringLiteral("mai123"));
    const QCommandLineOption debug(QStringLiteral("debug"),
                                   QStringLiteral("Turn on the SDK's log lines."));
    parser.addOptions({server, ca, merchant, machine, user, password, debug});
    parser.process(app);

    QTextStream err(stderr);
    const QString hostPort = parser.value(server);
    if (hostPort.isEmpty()) {
        err << "kelo-demo: no cloud address: pass --server host:port or set KELO_SERVER_HOST\n";
        return 2;
    }
    if (!trustCertificateAuthority(parser.value(ca))) {
        err << "kelo-demo: cannot read a CA certificate from " << parser.value(ca) << '\n';
        return 2;
    }
    // The SDK reads the server address when it is constructed.
    qputenv("KELO_SERVER_HOST", hostPort.toUtf8());

    Kelosdk sdk(parser.value(merchant), parser.value(machine), parser.isSet(debug));
    SimulatorControl simulator(hostPort);
    DemoDay::Settings settings;
    settings.user = parser.value(user);
    settings.password = parser.value(password);
    DemoDay day(sdk, simulator, settings);
    QObject::connect(&day, &DemoDay::finished, &app, &QCoreApplication::exit);
    day.start();
    return app.exec();
}
