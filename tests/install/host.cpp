// Ten lines of host: trust the simulator's CA, construct the SDK, wait for the cloud connection.
#include <kelo/kelosdk.h>

#include <QCoreApplication>
#include <QSslConfiguration>
#include <QTimer>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setCaCertificates(tls.caCertificates() +
                          QSslCertificate::fromPath(qEnvironmentVariable("KELO_CA")));
    QSslConfiguration::setDefaultConfiguration(tls);
    Kelosdk sdk(QStringLiteral("M01"), QStringLiteral("POS-1"), false);
    QObject::connect(&sdk, &Kelosdk::cloudConnectionChange, &app, [](bool up) {
        if (up)
            QCoreApplication::exit(0);
    });
    QTimer::singleShot(20000, &app, [] { QCoreApplication::exit(1); });
    return app.exec();
}
