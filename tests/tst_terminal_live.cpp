// The terminal in a real X window: kelo-terminal on an X server of the test's own (Xvfb, with the
// xcb platform and Qt Quick's usual renderer) against the local cloud, driven by X pointer events
// alone (xdotool, through the server's XTEST extension, as a touch screen's driver sends them).
// Where to tap comes from the terminal's --ui-map; what happened is read back from the screen
// (the X server's frame buffer) and from the cloud's books. The steps are one cashier's day and
// run in order: log in on the on-screen keyboard, add two dishes, send the order, open the
// table's bill, take an e-wallet payment and see it paid.
#include "cloudcontrol.h"
#include "screenchecks.h"
#include "testcloud.h"
#include "testwait.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <functional>
#include <memory>

namespace {

const QStringList kLiveScreens{"live-01-login-keyboard", "live-02-menu", "live-03-order-sent",
                               "live-04-bill",           "live-05-qr",   "live-06-paid"};
// The on-screen keyboard's key that switches between letters and digits (Qt::Key_Context1).
const QString kSymbolsKey = QStringLiteral("key#%1").arg(int(Qt::Key_Context1));
const QString kEnterKey = QStringLiteral("key:\n");
// How long a finger stays on the glass, and where the pointer rests between taps: the top right
// corner, over the header's background, so that no screenshot has it over what it checks.
constexpr double kTapSeconds = 0.05;
const QPoint kPointerRest(1023, 0);
// A moment for the last frame to reach the frame buffer before a screenshot.
constexpr int kSettleMs = 400;

// The screen of an X server started with -fbdir: its frame buffer is an XWD file, kept up to date
// by the server (a 32-bit TrueColor ZPixmap on a little-endian machine: Format_RGB32 as it is).
QImage frameBuffer(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray xwd = file.readAll();
    if (xwd.size() < 100)
        return {};
    const auto field = [&xwd](int index) {
        return qFromBigEndian<quint32>(xwd.constData() + 4 * index);
    };
    const quint32 headerSize = field(0), width = field(4), height = field(5), byteOrder = field(7),
                  bitsPerPixel = field(11), bytesPerLine = field(12), colours = field(19);
    const qint64 pixels = qint64(headerSize) + qint64(colours) * 12;
    if (bitsPerPixel != 32 || byteOrder != 0 /* LSBFirst */ ||
        xwd.size() < pixels + qint64(bytesPerLine) * height)
        return {};
    return QImage(reinterpret_cast<const uchar*>(xwd.constData() + pixels), int(width), int(height),
                  int(bytesPerLine), QImage::Format_RGB32)
        .copy();
}

QRect rectOf(const QJsonObject& item)
{
    return QRectF(item.value("x").toDouble(), item.value("y").toDouble(),
                  item.value("width").toDouble(), item.value("height").toDouble())
        .toAlignedRect();
}

QJsonObject dataOf(const kelocloud::CloudExchange& exchange)
{
    return QJsonDocument::fromJson(
               QUrl::fromPercentEncoding(exchange.param("dt").toUtf8()).toUtf8())
        .object();
}

} // namespace

class TestTerminalLive : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void logInOnTheKeyboard();
    void orderTwoDishes();
    void openTheTablesBill();
    void payByEwallet();
    void liveScreensAreDrawn_data();
    void liveScreensAreDrawn();
    void qrCodeReadsAsThePayload();
    void theDayReachedTheCloud();

private:
    // The named item of the window's map as it is on screen now; empty when it is not there.
    QJsonObject item(const QString& name) const;
    // Waits until item @p name is on screen (and @p holds for it); false after @p ms.
    bool waitFor(const QString& name, const std::function<bool(const QJsonObject&)>& holds = {},
                 int ms = kWait);
    // A finger's tap on the middle of item @p name, once it is on screen and enabled.
    bool tap(const QString& name);
    // Taps @p text out on the on-screen keyboard, switching to its digits and back as needed.
    bool type(const QString& text);
    bool xdotool(const QStringList& commands);
    // Waits for the screen to settle, then writes it as <name>.png among the live screenshots.
    bool shoot(const QString& name);
    QImage shot(const QString& name) const;
    QString why();

    TestCloud cloud{TestCloud::Untrusted}; // the terminal trusts the CA itself (--ca)
    std::unique_ptr<kelocloud::CloudControl> control;
    QTemporaryDir work;
    QString shots;
    QProcess xserver;
    QProcess terminal;
    QString display;
};

void TestTerminalLive::initTestCase()
{
    for (const char* tool : {"Xvfb", "xdotool", "zbarimg"})
        QVERIFY2(!QStandardPaths::findExecutable(tool).isEmpty(),
                 qPrintable(QString("%1 is missing: run tools/install-deps.sh").arg(tool)));
    QVERIFY(work.isValid());
    QVERIFY(cloud.start());
    control = std::make_unique<kelocloud::CloudControl>(cloud.server());
    shots = qEnvironmentVariable("KELO_LIVE_SHOTS", work.filePath("shots"));
    QVERIFY(QDir().mkpath(shots));

    // The X server picks a free display itself and names it on standard output; a screen the
    // size of the terminal's, its frame buffer in a file, no TCP, and no pointer drawn (a touch
    // screen shows none).
    xserver.start("Xvfb", {"-displayfd", "1", "-screen", "0", "1024x600x24", "-nolisten", "tcp",
                           "-nocursor", "-fbdir", work.path()});
    QVERIFY2(xserver.waitForStarted(), qPrintable(xserver.errorString()));
    QTRY_VERIFY_WITH_TIMEOUT(xserver.canReadLine() || xserver.state() != QProcess::Running, kWait);
    display = ":" + QString::fromLatin1(xserver.readLine()).trimmed();
    QVERIFY2(display.size() > 1, xserver.readAllStandardError().constData());

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("DISPLAY", display);
    env.insert("QT_QPA_PLATFORM", "xcb");
    env.insert("XDG_DATA_HOME", work.filePath("data")); // a picture cache of its own, empty
    env.remove("QT_QUICK_BACKEND");
    terminal.setProcessEnvironment(env);
    terminal.setProcessChannelMode(QProcess::MergedChannels);
    terminal.start(KELO_TERMINAL,
                   {"--server", cloud.hostPort(), "--ca", cloud->caCertificatePath(), "--lang",
                    "en", "--simulator", "--ui-map", work.filePath("map.json")});
    QVERIFY2(terminal.waitForStarted(), qPrintable(terminal.errorString()));
    QVERIFY2(waitFor("userField"), qPrintable(why()));
    QVERIFY(xdotool(
        {"mousemove", QString::number(kPointerRest.x()), QString::number(kPointerRest.y())}));
}

void TestTerminalLive::cleanupTestCase()
{
    for (QProcess* process : {&terminal, &xserver}) {
        process->terminate();
        if (!process->waitForFinished(kWait))
            process->kill();
        process->waitForFinished();
    }
}

void TestTerminalLive::logInOnTheKeyboard()
{
    // The role first, then each field is tapped and typed in on the keys; the keyboard's Enter
    // in the password field logs in.
    QVERIFY2(tap("role.cashier"), qPrintable(why()));
    QVERIFY2(waitFor("role.cashier", [](const QJsonObject& o) { return o["checked"].toBool(); }),
             qPrintable(why()));
    QVERIFY2(tap("userField"), qPrintable(why()));
    QVERIFY2(type("bao"), qPrintable(why()));
    QVERIFY2(waitFor("userField", [](const QJsonObject& o) { return o["text"] == "bao"; }),
             qPrintable(why()));
    QVERIFY2(tap("passwordField"), qPrintable(why()));
    QVERIFY2(type("bao123"), qPrintable(why()));
    // Typed in, the password field stays above the keyboard.
    const QJsonObject field = item("passwordField");
    const QJsonObject keyboard = item("inputPanel");
    QVERIFY2(!keyboard.isEmpty(), "the keyboard is not up");
    QVERIFY2(rectOf(field).bottom() < rectOf(keyboard).top(),
             qPrintable(QString("the password field ends at y=%1, the keyboard starts at y=%2")
                            .arg(rectOf(field).bottom())
                            .arg(rectOf(keyboard).top())));
    // The window's map says where the password field is, never what was typed in it.
    QVERIFY(!item("passwordField").contains("text"));
    QFile map(work.filePath("map.json"));
    QVERIFY(map.open(QIODevice::ReadOnly));
    QVERIFY(!map.readAll().contains("bao123"));
    QVERIFY(shoot("live-01-login-keyboard"));
    QVERIFY2(tap(kEnterKey), qPrintable(why()));
    QVERIFY2(waitFor("rail.menu"), qPrintable(why()));
    QVERIFY2(waitFor("logout"), qPrintable(why()));
    QVERIFY2(item("inputPanel").isEmpty() || rectOf(item("inputPanel")).top() >= 600,
             "the keyboard stayed up after the login");
}

void TestTerminalLive::orderTwoDishes()
{
    // The menu is drawn with every dish's picture, fetched into the cache, pixel for pixel.
    QImage menu;
    QSet<int> rows;
    const auto allPicturesShown = [&] {
        menu = frameBuffer(work.filePath("Xvfb_screen0"));
        rows.clear();
        for (int id = 1; id <= 8; ++id) {
            const QImage picture = QImage::fromData(
                cloud->state().picture(QString("/img/items/%1.png").arg(id).toUtf8()), "PNG");
            const QPoint at = findPicture(menu, picture);
            if (at.x() < 0)
                return false;
            rows << at.y();
        }
        return true;
    };
    QTRY_VERIFY_WITH_TIMEOUT(allPicturesShown(), kWait);
    QCOMPARE(rows.size(), 2); // a grid: two rows of four

    QVERIFY2(tap("dish.1"), qPrintable(why()));
    QVERIFY2(tap("dish.8"), qPrintable(why()));
    QVERIFY2(tap("dish.1"), qPrintable(why()));
    QVERIFY2(waitFor("sendOrder", [](const QJsonObject& o) { return o["enabled"].toBool(); }),
             qPrintable(why()));
    QVERIFY(shoot("live-02-menu"));
    QVERIFY2(tap("sendOrder"), qPrintable(why()));
    QVERIFY2(waitFor("banner", [](const QJsonObject& o) { return o["good"].toBool(); }),
             qPrintable(why()));
    QVERIFY(shoot("live-03-order-sent"));
}

void TestTerminalLive::openTheTablesBill()
{
    QVERIFY2(tap("rail.tables"), qPrintable(why()));
    QVERIFY2(waitFor("tableStatus.1", [](const QJsonObject& o) { return o["text"] == "1 order"; }),
             qPrintable(why()));
    QVERIFY2(tap("table.1"), qPrintable(why()));
    QVERIFY2(waitFor("payWallet", [](const QJsonObject& o) { return o["enabled"].toBool(); }),
             qPrintable(why()));
    QVERIFY(shoot("live-04-bill"));
}

void TestTerminalLive::payByEwallet()
{
    QVERIFY2(tap("payWallet"), qPrintable(why()));
    // The code is drawn once its picture has loaded: it has a size then.
    QVERIFY2(waitFor("qrCode", [](const QJsonObject& o) { return o["width"].toDouble() >= 200; }),
             qPrintable(why()));
    QVERIFY(shoot("live-05-qr"));
    // The customer's e-wallet pays (the dialog's simulator button): the payment notice closes the
    // dialog, the till settles the bill, the table is free again.
    QVERIFY2(tap("customerPays"), qPrintable(why()));
    QVERIFY2(waitFor("tableStatus.1", [](const QJsonObject& o) { return o["text"] == "Free"; }),
             qPrintable(why()));
    QVERIFY2(waitFor("banner",
                     [](const QJsonObject& o) {
                         return o["good"].toBool() && o["text"].toString().contains("e-wallet");
                     }),
             qPrintable(why()));
    QVERIFY2(item("qrDialog").isEmpty(), "the QR code is still up");
    QVERIFY(shoot("live-06-paid"));
}

void TestTerminalLive::liveScreensAreDrawn_data()
{
    QTest::addColumn<QString>("name");
    for (const QString& name : kLiveScreens)
        QTest::newRow(qPrintable(name)) << name;
}

void TestTerminalLive::liveScreensAreDrawn()
{
    QFETCH(QString, name);
    const QImage image = shot(name);
    QVERIFY2(!image.isNull(), qPrintable(name + " was not taken"));
    QCOMPARE(image.size(), QSize(1024, 600));
    const QString blank = whyBlank(image);
    QVERIFY2(blank.isEmpty(), qPrintable(name + ": " + blank));
}

void TestTerminalLive::qrCodeReadsAsThePayload()
{
    const QList<kelocloud::CloudExchange> creates =
        cloud->exchanges("/kelo/api/invoice/", QStringLiteral("create"));
    QCOMPARE(creates.size(), 1);
    const QString expected =
        QString("kelopay://pay?merchant=M01&invoice=INV%23000001&amount=%1")
            .arg(dataOf(creates.first()).value("amount").toVariant().toString());
    QString error;
    const QString read = readQrCode(QDir(shots).filePath("live-05-qr.png"), &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QCOMPARE(read, expected);
}

void TestTerminalLive::theDayReachedTheCloud()
{
    // One login, with the name typed on the keys.
    const QList<kelocloud::CloudExchange> logins =
        cloud->exchanges("/kelo/api/login/", "cashier_login");
    QCOMPARE(logins.size(), 1);
    QCOMPARE(dataOf(logins.first()).value("u").toString(), QString("bao"));
    // One order at table 1: the dishes tapped, dish 1 twice.
    const QList<kelocloud::CloudExchange> orders =
        cloud->exchanges("/kelo/api/invoice/", "confirm_order");
    QCOMPARE(orders.size(), 1);
    const QJsonObject order = dataOf(orders.first());
    QCOMPARE(order.value("table_id").toInt(), 1);
    QMap<int, int> quantities;
    for (const QJsonValue& line : order.value("items").toArray())
        quantities[line["item_id"].toInt()] += line["qty"].toInt();
    QCOMPARE(quantities, (QMap<int, int>{{1, 2}, {8, 1}}));
    // Its bill paid by e-wallet, nothing left open.
    QCOMPARE(cloud->exchanges("/kelo/api/invoice/", "payment").size(), 1);
    QCOMPARE(cloud->openInvoiceCount(), 0);
}

QJsonObject TestTerminalLive::item(const QString& name) const
{
    QFile file(work.filePath("map.json"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QJsonArray items =
        QJsonDocument::fromJson(file.readAll()).object().value("items").toArray();
    for (const QJsonValue& entry : items) {
        if (entry["name"].toString() == name)
            return entry.toObject();
    }
    return {};
}

bool TestTerminalLive::waitFor(const QString& name,
                               const std::function<bool(const QJsonObject&)>& holds, int ms)
{
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        const QJsonObject found = item(name);
        if (!found.isEmpty() && (!holds || holds(found)))
            return true;
        if (clock.elapsed() > ms || terminal.state() != QProcess::Running) {
            qWarning("waited %lld ms for %s", clock.elapsed(), qPrintable(name));
            return false;
        }
        QTest::qWait(50);
    }
}

bool TestTerminalLive::tap(const QString& name)
{
    if (!waitFor(name, [](const QJsonObject& o) { return o["enabled"].toBool(); }))
        return false;
    const QPoint middle = rectOf(item(name)).center();
    return xdotool({"mousemove", QString::number(middle.x()), QString::number(middle.y()),
                    "mousedown", "1", "sleep", QString::number(kTapSeconds), "mouseup", "1",
                    "mousemove", QString::number(kPointerRest.x()),
                    QString::number(kPointerRest.y())});
}

bool TestTerminalLive::type(const QString& text)
{
    for (const QChar letter : text) {
        const QString key = QStringLiteral("key:") + letter;
        // Letters and digits are on two layouts of the keyboard: the symbols key turns it over.
        if (!waitFor(key, {}, 2000) && (!tap(kSymbolsKey) || !waitFor(key)))
            return false;
        if (!tap(key))
            return false;
    }
    return true;
}

bool TestTerminalLive::xdotool(const QStringList& commands)
{
    QProcess tool;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("DISPLAY", display);
    tool.setProcessEnvironment(env);
    tool.setProcessChannelMode(QProcess::MergedChannels);
    tool.start("xdotool", commands);
    if (!tool.waitForFinished(kWait) || tool.exitStatus() != QProcess::NormalExit ||
        tool.exitCode() != 0) {
        qWarning("xdotool %s: %s", qPrintable(commands.join(' ')), tool.readAll().constData());
        return false;
    }
    return true;
}

bool TestTerminalLive::shoot(const QString& name)
{
    QTest::qWait(kSettleMs);
    const QImage screen = frameBuffer(work.filePath("Xvfb_screen0"));
    return !screen.isNull() && screen.save(QDir(shots).filePath(name + ".png"), "PNG");
}

QImage TestTerminalLive::shot(const QString& name) const
{
    return QImage(QDir(shots).filePath(name + ".png"));
}

QString TestTerminalLive::why()
{
    QFile file(work.filePath("map.json"));
    const QByteArray map = file.open(QIODevice::ReadOnly) ? file.readAll() : "no map";
    return QString("the terminal (%1) said: %2\nits window's map: %3")
        .arg(terminal.state() == QProcess::Running ? "running" : "ended")
        .arg(QString::fromUtf8(terminal.readAll()))
        .arg(QString::fromUtf8(map));
}

QTEST_GUILESS_MAIN(TestTerminalLive)
#include "tst_terminal_live.moc"
