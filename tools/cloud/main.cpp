// kelo-cloud: the local cloud for integrators, serving the HTTPS API, pictures and the
// notification WebSocket on 127.0.0.1 until SIGINT or SIGTERM.
#include "cloudserver.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QSocketNotifier>
#include <QTextStream>

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Settings
{
    kelocloud::CloudOptions cloud;
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

bool parseSettings(const QCoreApplication& app, Settings* settings, QString* error)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "The local Kelo cloud: serves the HTTPS API, the menu pictures and the notification\n"
        "WebSocket on 127.0.0.1, with a development certificate authority (ca.pem) that\n"
        "clients must trust. Runs until interrupted (SIGINT or SIGTERM)."));
    parser.addHelpOption();
    const QCommandLineOption port(QStringLiteral("port"),
                                  QStringLiteral("TCP port to listen on (0: any free port)."),
                                  QStringLiteral("N"), QStringLiteral("0"));
    const QCommandLineOption caDir(
        QStringLiteral("ca-dir"),
        QStringLiteral("Directory of ca.pem and ca.key, made there on the first run and reused "
                       "afterwards (default: %1).")
            .arg(defaultCaDir()),
        QStringLiteral("DIR"), defaultCaDir());
    parser.addOption(port);
    parser.addOption(caDir);
    parser.process(app); // exits on --help and on unknown options

    bool ok = false;
    const uint portNumber = parser.value(port).toUInt(&ok);
    if (!ok || portNumber > 65535) {
        *error = QStringLiteral("invalid port: %1").arg(parser.value(port));
        return false;
    }
    settings->cloud.port = quint16(portNumber);
    settings->cloud.caDir = parser.value(caDir);
    settings->cloud.reuseCa = true;
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
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kelo-cloud"));
    QTextStream err(stderr);

    Settings settings;
    QString error;
    if (!parseSettings(app, &settings, &error)) {
        err << "kelo-cloud: " << error << '\n';
        return 2;
    }
    if (!quitOnSignals(&app)) {
        err << "kelo-cloud: cannot install the signal handlers\n";
        return 1;
    }

    kelocloud::CloudServer server(settings.cloud);
    if (!server.start(&error)) {
        err << "kelo-cloud: " << error << '\n';
        return 1;
    }
    QTextStream out(stdout);
    out << "kelo-cloud listening on " << server.hostPort() << '\n'
        << "kelo-cloud CA certificate: " << server.caCertificatePath() << '\n';
    out.flush();

    const int status = app.exec();
    server.stop();
    return status;
}
