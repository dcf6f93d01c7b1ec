// kelo-cloud: the local cloud for integrators, serving the HTTPS API, pictures and the
// notification WebSocket on 127.0.0.1 (or --listen ADDRESS) until SIGINT or SIGTERM, with its
// control routes (off loopback, only to the control token it prints at start). The network lab
// (tools/netlab) runs it with a made-up menu of any size.
#include "cloudcontrol.h"
#include "cloudserver.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QSaveFile>
#include <QSocketNotifier>
#include <QTextStream>
#include <QUrl>

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

/// The built-in fixture, as the simulated merchant loads it (a resource of the cloud library).
static QByteArray builtInFixture()
{
    Q_INIT_RESOURCE(fixtures);
    QFile file(QStringLiteral(":/kelocloud/restaurant.json"));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

namespace {

struct Settings
{
    kelocloud::CloudOptions cloud;
    QString fixture;           ///< empty: the built-in one
    bool printFixture = false; ///< write the built-in fixture to stdout and quit
    int dishes = -1;           ///< -1: the fixture's menu
    int pictureBytes = 0;      ///< 0: pictures as drawn
    QString exportDir;         ///< empty: no export
    QByteArray controlToken;   ///< empty: none given (one is made off loopback)
};

/// $XDG_DATA_HOME/kelo-cloud, or ~/.local/share/kelo-cloud: the CA stays the same across runs,
/// so a device or browser that trusts it once keeps trusting it.
QString defaultCaDir()
{
    QString base = QString::fromLocal8Bit(qgetenv("XDG_DATA_HOME"));
    if (base.isEmpty())
        base = QDir::homePath() + QStringLiteral("/.local/share");
    return base + QStringLiteral("/kelo-cloud");
}

const char* const description =
    "kelo-cloud, the local Kelo cloud simulator, plays one merchant's cloud on 127.0.0.1: the\n"
    "HTTPS API (logins, menu, tables, orders, payments, e-wallet invoices), the menu pictures\n"
    "and the notification WebSocket (wss://127.0.0.1:<port>/kelo/ntf/), so that a host\n"
    "application built on libkelo runs its whole day without the real cloud. It runs until\n"
    "interrupted (SIGINT or SIGTERM). At start it prints two lines:\n"
    "  kelo-cloud listening on 127.0.0.1:<port>\n"
    "  kelo-cloud CA certificate: <ca-dir>/ca.pem\n"
    "and a third when its control routes need a token (--listen off loopback):\n"
    "  kelo-cloud control token: <token>";

QString trustAndFixtureHelp(const QString& caPath)
{
    return QStringLiteral(
               "Trust: the server's certificate is signed by a development CA made on the first\n"
               "run and kept in the CA directory. Clients must trust that CA (never switch the\n"
               "certificate checks off): in a Qt host, before the first request,\n"
               "    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();\n"
               "    tls.addCaCertificates(QSslCertificate::fromPath(\"%1\"));\n"
               "    QSslConfiguration::setDefaultConfiguration(tls);\n"
               "and the SDK is pointed at the server with KELO_SERVER_HOST=127.0.0.1:<port>.\n"
               "With curl: --cacert %1.\n"
               "\n"
               "Fixture: the merchant (staff, menu, tables, orders already placed) comes from a\n"
               "JSON fixture, the built-in one or the file given with --fixture. Start from\n"
               "  kelo-cloud --print-fixture > my.json\n"
               "A fixture that breaks a rule stops kelo-cloud with exit status 2 and a message\n"
               "naming the file and the field. Orders placed, payments and invoices live in\n"
               "memory only.\n"
               "\n"
               "Signing key: the cloud checks the signatures of e-wallet invoices and of the\n"
               "notification connect with the key of the SDK build it serves. A library built\n"
               "with its own -DKELO_SECRET_KEY needs the same key here:\n"
               "  KELO_CLOUD_KEY=<key> kelo-cloud\n"
               "kelo-cloud holds no build's key itself; a bad key stops it with exit status 2.\n")
        .arg(caPath);
}

enum class Parsed
{
    Run,
    Exit,  ///< help shown
    Failed ///< error set
};

Parsed parseSettings(const QCoreApplication& app, Settings* settings, QString* error)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromUtf8(description));
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption port(QStringLiteral("port"),
                                  QStringLiteral("TCP port to listen on (0: any free port)."),
                                  QStringLiteral("N"), QStringLiteral("0"));
    const QCommandLineOption caDir(
        QStringLiteral("ca-dir"),
        QStringLiteral("Directory of ca.pem and ca.key, made there on the first run and reused "
                       "afterwards (default: %1).")
            .arg(defaultCaDir()),
        QStringLiteral("DIR"), defaultCaDir());
    const QCommandLineOption fixture(
        QStringLiteral("fixture"),
        QStringLiteral("The merchant's JSON fixture (default: the built-in one)."),
        QStringLiteral("FILE"));
    const QCommandLineOption printFixture(
        QStringLiteral("print-fixture"),
        QStringLiteral("Write the built-in fixture to standard output and quit."));
    const QCommandLineOption key(
        QStringLiteral("key"),
        QStringLiteral("The signing key of the SDK build that talks to this cloud (its "
                       "KELO_SECRET_KEY): 32 ASCII letters or digits. Default: the environment "
                       "variable KELO_CLOUD_KEY if set (preferred: a command line is visible to "
                       "other users), else the development key, which is the default of "
                       "KELO_SECRET_KEY."),
        QStringLiteral("KEY"));
    const QCommandLineOption listen(
        QStringLiteral("listen"),
        QStringLiteral("IPv4 address to listen on (default: 127.0.0.1). The server certificate "
                       "then names that address too, and the control routes answer there."),
        QStringLiteral("ADDRESS"));
    const QCommandLineOption dishes(
        QStringLiteral("dishes"),
        QStringLiteral("Replace the fixture's menu with N made-up dishes (\"Dish 1\" ...), "
                       "pictures at /pictures/dish-<id>.png."),
        QStringLiteral("N"));
    const QCommandLineOption pictureBytes(
        QStringLiteral("picture-bytes"),
        QStringLiteral("Make every picture a PNG of exactly B bytes (1 KiB to 16 MiB), distinct "
                       "per dish."),
        QStringLiteral("B"));
    const QCommandLineOption pictureHost(
        QStringLiteral("picture-host"),
        QStringLiteral("The menu's \"img_host\", e.g. https://198.18.0.2:9443 when another "
                       "server serves the pictures (default: this server)."),
        QStringLiteral("URL"));
    const QCommandLineOption exportPictures(
        QStringLiteral("export-pictures"),
        QStringLiteral("Write every picture of the menu under DIR at its img_path (for another "
                       "web server to serve), then serve as usual."),
        QStringLiteral("DIR"));
    const QCommandLineOption controlToken(
        QStringLiteral("control-token"),
        QStringLiteral("The token the control routes need (header X-Kelo-Control-Token), 16 to "
                       "128 of A-Z a-z 0-9 - _, on any address, 127.0.0.1 included. Default: the "
                       "environment variable KELO_CLOUD_CONTROL_TOKEN if set, else a random one "
                       "made at start when --listen is not a loopback address, else none."),
        QStringLiteral("TOKEN"));
    parser.addOptions({port, caDir, fixture, printFixture, key, listen, dishes, pictureBytes,
                       pictureHost, exportPictures, controlToken});
    if (!parser.parse(app.arguments())) {
        *error = parser.errorText();
        return Parsed::Failed;
    }
    if (parser.isSet(help) || parser.isSet(QStringLiteral("help-all"))) {
        const QString caPath = parser.value(caDir) + QStringLiteral("/ca.pem");
        QTextStream(stdout) << parser.helpText() << '\n'
                            << trustAndFixtureHelp(caPath) << '\n'
                            << kelocloud::CloudControl::usage(caPath);
        return Parsed::Exit;
    }

    bool ok = false;
    const uint portNumber = parser.value(port).toUInt(&ok);
    if (!ok || portNumber > 65535) {
        *error = QStringLiteral("invalid port: %1").arg(parser.value(port));
        return Parsed::Failed;
    }
    settings->cloud.port = quint16(portNumber);
    settings->cloud.caDir = parser.value(caDir);
    settings->cloud.reuseCa = true;
    settings->fixture = parser.value(fixture);
    settings->printFixture = parser.isSet(printFixture);
    if (parser.isSet(listen)) {
        const QHostAddress address(parser.value(listen));
        if (address.protocol() != QAbstractSocket::IPv4Protocol) {
            *error = QStringLiteral("--listen: not an IPv4 address: %1").arg(parser.value(listen));
            return Parsed::Failed;
        }
        settings->cloud.listenAddress = address.toString();
    }
    if (parser.isSet(dishes)) {
        settings->dishes = parser.value(dishes).toInt(&ok);
        if (!ok || settings->dishes < 0 || settings->dishes > 1000000) {
            *error =
                QStringLiteral("--dishes: expected 0 to 1000000, got %1").arg(parser.value(dishes));
            return Parsed::Failed;
        }
    }
    if (parser.isSet(pictureBytes)) {
        settings->pictureBytes = parser.value(pictureBytes).toInt(&ok);
        const QString problem = kelocloud::CloudState::pictureSizeProblem(settings->pictureBytes);
        if (!ok || !problem.isEmpty()) {
            *error = QStringLiteral("--picture-bytes: %1")
                         .arg(ok ? problem : QStringLiteral("not a number"));
            return Parsed::Failed;
        }
    }
    if (parser.isSet(pictureHost)) {
        const QUrl url(parser.value(pictureHost), QUrl::StrictMode);
        if (!url.isValid() || url.scheme() != QLatin1String("https") || url.host().isEmpty() ||
            !url.path().isEmpty() || url.hasQuery()) {
            *error = QStringLiteral("--picture-host: expected https://host[:port], got %1")
                         .arg(parser.value(pictureHost));
            return Parsed::Failed;
        }
        settings->cloud.pictureHost = parser.value(pictureHost);
    }
    settings->exportDir = parser.value(exportPictures);

    // The key is never built into the tool: it comes from here at every start.
    const bool keyOption = parser.isSet(key);
    const QByteArray keyValue = keyOption ? parser.value(key).toUtf8() : qgetenv("KELO_CLOUD_KEY");
    if (keyOption || !keyValue.isEmpty()) {
        const QString problem = kelocloud::CloudState::keyProblem(keyValue);
        if (!problem.isEmpty()) {
            *error = (keyOption ? QStringLiteral("--key: ") : QStringLiteral("KELO_CLOUD_KEY: ")) +
                     problem;
            return Parsed::Failed;
        }
    }
    const bool tokenOption = parser.isSet(controlToken);
    settings->controlToken =
        tokenOption ? parser.value(controlToken).toUtf8() : qgetenv("KELO_CLOUD_CONTROL_TOKEN");
    if (tokenOption || !settings->controlToken.isEmpty()) {
        const QString problem = kelocloud::CloudControl::tokenProblem(settings->controlToken);
        if (!problem.isEmpty()) {
            *error = (tokenOption ? QStringLiteral("--control-token: ")
                                  : QStringLiteral("KELO_CLOUD_CONTROL_TOKEN: ")) +
                     problem;
            return Parsed::Failed;
        }
    }
    settings->cloud.secretKey =
        keyValue.isEmpty() ? kelocloud::CloudState::developmentKey() : keyValue;
    return Parsed::Run;
}

/// Writes every picture of the menu to @p dir + its "img_path".
bool exportPictures(const kelocloud::CloudState& state, const QString& dir, QString* error)
{
    for (const QByteArray& path : state.picturePaths()) {
        const QString file = dir + QString::fromUtf8(path);
        QSaveFile out(file);
        if (!QDir().mkpath(QFileInfo(file).absolutePath()) || !out.open(QIODevice::WriteOnly) ||
            out.write(state.picture(path)) <= 0 || !out.commit()) {
            *error = QStringLiteral("cannot write %1").arg(file);
            return false;
        }
    }
    return true;
}

int signalPipe[2] = {-1, -1};

void onQuitSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

/// Turns SIGINT and SIGTERM into a clean quit of the event loop.
bool quitOnSignals(QCoreApplication* app)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPipe) != 0)
        return false;
    auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, app);
    QObject::connect(notifier, &QSocketNotifier::activated, app, &QCoreApplication::quit);
    struct sigaction action = {};
    action.sa_handler = onQuitSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return ::sigaction(SIGINT, &action, nullptr) == 0 &&
           ::sigaction(SIGTERM, &action, nullptr) == 0;
}

} // namespace

int main(int argc, char** argv)
{
    // The menu pictures are QImages written as PNG: Qt Gui without any window system, so a
    // core application does (a platform plugin would only add start-up time and exit leaks).
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kelo-cloud"));
    QTextStream err(stderr);

    Settings settings;
    QString error;
    switch (parseSettings(app, &settings, &error)) {
    case Parsed::Exit:
        return 0;
    case Parsed::Failed:
        err << "kelo-cloud: " << error << '\n';
        return 2;
    case Parsed::Run:
        break;
    }
    if (settings.printFixture) {
        QFile out;
        if (!out.open(stdout, QIODevice::WriteOnly) || out.write(builtInFixture()) <= 0)
            return 1;
        return 0;
    }
    if (!quitOnSignals(&app)) {
        err << "kelo-cloud: cannot install the signal handlers\n";
        return 1;
    }

    kelocloud::CloudServer server(settings.cloud);
    if (!settings.fixture.isEmpty() && !server.state().loadFixture(settings.fixture, &error)) {
        err << "kelo-cloud: cannot load the fixture: " << error << '\n';
        return 2;
    }
    if (settings.dishes >= 0 && !server.state().makeMenu(settings.dishes, &error)) {
        err << "kelo-cloud: " << error << '\n';
        return 2;
    }
    if (settings.pictureBytes > 0 &&
        !server.state().setPictureBytes(settings.pictureBytes, &error)) {
        err << "kelo-cloud: " << error << '\n';
        return 2;
    }
    if (!settings.exportDir.isEmpty() &&
        !exportPictures(server.state(), settings.exportDir, &error)) {
        err << "kelo-cloud: " << error << '\n';
        return 1;
    }
    // Anyone who reaches a non-loopback address could fake payments: there the control routes
    // answer only to a token.
    QByteArray controlToken = settings.controlToken;
    const QHostAddress listenAddress(settings.cloud.listenAddress.isEmpty()
                                         ? QStringLiteral("127.0.0.1")
                                         : settings.cloud.listenAddress);
    if (controlToken.isEmpty() && !listenAddress.isLoopback())
        controlToken = kelocloud::CloudControl::makeToken();
    kelocloud::CloudControl control(server, controlToken);
    if (!server.start(&error)) {
        err << "kelo-cloud: " << error << '\n';
        return 1;
    }
    QTextStream out(stdout);
    out << "kelo-cloud listening on " << server.hostPort() << '\n'
        << "kelo-cloud CA certificate: " << server.caCertificatePath() << '\n';
    if (!controlToken.isEmpty())
        out << "kelo-cloud control token: " << controlToken << '\n';
    out.flush();

    const int status = app.exec();
    server.stop();
    return status;
}
