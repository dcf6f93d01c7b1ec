// kelo-terminal: the touch-screen point-of-sale terminal, a Qt Quick application over the QML
// module Kelo. Staff login, the menu with the dishes' pictures, the tables, a table's bill and
// e-wallet payment by QR code, against a Kelo cloud (by default the local simulator).
//
//   kelo-terminal --server 127.0.0.1:8443 --ca ~/.local/share/kelo-cloud/ca.pem
//   kelo-terminal ... --screenshots DIR    walks the whole day offscreen, one PNG per screen
//   kelo-terminal --server 192.168.1.20:8443 --ca ca.pem --simulator --control-token TOKEN
//                                          against a kelo-cloud on the shop's LAN
//   kelo-terminal ... --lang vi|en         Vietnamese or English (default: the system locale's)
//   kelo-terminal ... --ui-map FILE        keeps FILE up to date with where the window's named
//                                          parts are on the screen, for a driver that taps them
//
// Text fields open the on-screen keyboard (Qt Virtual Keyboard) in the screens' language;
// QT_IM_MODULE, when set, chooses another input method.
#include "terminallanguage.h"
#include "terminalshell.h"
#include "terminaluimap.h"

#include <QCommandLineParser>
#include <QDir>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlContext>
#include <QQuickWindow>
#include <QTextStream>

#include <memory>

namespace {

QString defaultCaPath()
{
    const QString dataHome =
        qEnvironmentVariable("XDG_DATA_HOME", QDir::homePath() + QStringLiteral("/.local/share"));
    return dataHome + QStringLiteral("/kelo-cloud/ca.pem");
}

bool walksOffscreen(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (qstrcmp(argv[i], "--screenshots") == 0 || qstrncmp(argv[i], "--screenshots=", 14) == 0)
            return true;
    }
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    // The screenshot walk needs no display and draws with the software renderer, so that the
    // pictures are the same on every machine.
    if (walksOffscreen(argc, argv)) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        QQuickWindow::setSceneGraphBackend(
            QStringLiteral("software")); // the name both Qt majors take
    }
    // The on-screen keyboard: Qt Virtual Keyboard's input context, drawn by the InputPanel inside
    // the window (main.qml), so that it is part of the window on eglfs, linuxfb and in the
    // screenshots. A user who chose another input method keeps it.
    if (!qEnvironmentVariableIsSet("QT_IM_MODULE"))
        qputenv("QT_IM_MODULE", "qtvirtualkeyboard");
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    // qtquickcontrols2.conf names Qt 5's flat "Default" style, which Qt 6 calls "Basic".
    if (!qEnvironmentVariableIsSet("QT_QUICK_CONTROLS_STYLE"))
        qputenv("QT_QUICK_CONTROLS_STYLE", "Basic");
#endif
    QGuiApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("kelo"));
    QCoreApplication::setApplicationName(QStringLiteral("kelo-terminal"));
    // The system locale's language from the start, so that --help is written in it too.
    TerminalLanguage language;
    language.use(TerminalLanguage::forLocale(QLocale::system()));

    QCommandLineParser parser;
    parser.setApplicationDescription(QCoreApplication::translate(
        "main", "The Kelo touch-screen terminal: staff login, menu, tables, bills and e-wallet QR "
                "payments against a Kelo cloud. Start the local cloud first (kelo-cloud) and pass "
                "its address and CA, or use tools/run-terminal.sh, which starts both."));
    parser.addHelpOption();
    const QCommandLineOption server(
        {QStringLiteral("s"), QStringLiteral("server")},
        QCoreApplication::translate("main",
                                    "Cloud address host:port (default: $KELO_SERVER_HOST)."),
        QStringLiteral("host:port"), qEnvironmentVariable("KELO_SERVER_HOST"));
    const QCommandLineOption ca(
        QStringLiteral("ca"),
        QCoreApplication::translate("main",
                                    "CA certificate of the cloud (default: $KELO_CA or %1).")
            .arg(defaultCaPath()),
        QStringLiteral("file"), qEnvironmentVariable("KELO_CA", defaultCaPath()));
    const QCommandLineOption merchant(QStringLiteral("merchant"),
                                      QCoreApplication::translate("main", "Merchant id."),
                                      QStringLiteral("id"), QStringLiteral("M01"));
    const QCommandLineOption machine(QStringLiteral("machine"),
                                     QCoreApplication::translate("main", "Terminal name."),
                                     QStringLiteral("name"), QStringLiteral("POS-1"));
    const QCommandLineOption simulator(
        QStringLiteral("simulator"),
        QCoreApplication::translate(
            "main", "The cloud is kelo-cloud: offer to play the customer's e-wallet."));
    const QCommandLineOption screenshots(
        QStringLiteral("screenshots"),
        QCoreApplication::translate(
            "main", "Walk the whole day offscreen against the simulator, write one PNG per "
                    "screen into DIR, then quit (status 0 when every step succeeded)."),
        QStringLiteral("DIR"));
    const QCommandLineOption controlToken(
        QStringLiteral("control-token"),
        QCoreApplication::translate(
            "main", "kelo-cloud's control token, for playing the customer against a kelo-cloud "
                    "on a LAN address (it prints the token at start; default: "
                    "$KELO_CLOUD_CONTROL_TOKEN; none is needed on 127.0.0.1)."),
        QStringLiteral("token"), qEnvironmentVariable("KELO_CLOUD_CONTROL_TOKEN"));
    const QCommandLineOption lang(
        QStringLiteral("lang"),
        QCoreApplication::translate(
            "main", "Language of the screens: vi or en (default: the system locale's, now %1).")
            .arg(language.code()),
        QStringLiteral("vi|en"));
    const QCommandLineOption uiMap(
        QStringLiteral("ui-map"),
        QCoreApplication::translate(
            "main", "Keep FILE up to date with where the window's buttons, fields and keyboard "
                    "keys are on the screen (JSON), for a test that taps them from outside."),
        QStringLiteral("FILE"));
    parser.addOptions(
        {server, ca, merchant, machine, simulator, screenshots, controlToken, lang, uiMap});
    parser.process(app);
    if (parser.isSet(lang) && !language.use(parser.value(lang))) {
        QTextStream(stderr) << QCoreApplication::translate(
                                   "main", "kelo-terminal: unknown language %1 (vi or en)\n")
                                   .arg(parser.value(lang));
        return 2;
    }

    TerminalShell::Settings settings;
    settings.serverHost = parser.value(server);
    settings.caFile = parser.value(ca);
    settings.merchantId = parser.value(merchant);
    settings.machineName = parser.value(machine);
    settings.screenshotDir = parser.value(screenshots);
    settings.simulator = parser.isSet(simulator) || parser.isSet(screenshots);
    settings.controlToken = parser.value(controlToken).toUtf8();
    if (settings.serverHost.isEmpty()) {
        QTextStream(stderr) << QCoreApplication::translate(
            "main", "kelo-terminal: no cloud address: pass --server host:port or set "
                    "KELO_SERVER_HOST\n");
        return 2;
    }
    TerminalShell shell(settings);

    QQmlApplicationEngine engine;
#ifdef KELO_QML_BUILD_DIR
    // Run from the build tree: the module Kelo next to it. Installed, Qt's import path has it.
    if (QDir(QStringLiteral(KELO_QML_BUILD_DIR "/Kelo")).exists())
        engine.addImportPath(QStringLiteral(KELO_QML_BUILD_DIR));
#endif
    engine.rootContext()->setContextProperty(QStringLiteral("shell"), &shell);
    language.setEngine(&engine);
    engine.rootContext()->setContextProperty(QStringLiteral("language"), &language);
    engine.load(QUrl(QStringLiteral("qrc:/kelo-terminal/main.qml")));
    auto* window = engine.rootObjects().isEmpty()
                       ? nullptr
                       : qobject_cast<QQuickWindow*>(engine.rootObjects().first());
    if (!window) {
        QTextStream(stderr) << QCoreApplication::translate(
            "main", "kelo-terminal: the user interface did not load\n");
        return 1;
    }
    shell.setWindow(window);
    std::unique_ptr<TerminalUiMap> map;
    if (parser.isSet(uiMap))
        map = std::make_unique<TerminalUiMap>(window, parser.value(uiMap));
    return app.exec();
}
