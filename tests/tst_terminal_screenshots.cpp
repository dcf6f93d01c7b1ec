// The touch-screen terminal's day (kelo-terminal --screenshots DIR) against the local cloud, once
// in English and once in Vietnamese (--lang), each against a cloud of its own: every screen is
// written, none is blank, the menu shows the fixture's own pictures pixel for pixel, the QR code
// of the invoice screen reads back as the invoice's payload, the two languages' screens differ
// where there is text, and the on-screen keyboard: the name typed by tapping its keys, the field
// being typed in above it, its layout in the screens' language.
#include "cloudcontrol.h"
#include "screenchecks.h"
#include "testcloud.h"
#include "testwait.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

#include <map>
#include <memory>

namespace {

const QStringList kScreens{"01-login",      "01b-login-keyboard", "02-login-error",
                           "03-menu",       "04-tables",          "05-bill",
                           "06-invoice-qr", "06-notice-late",     "07-paid"};
const QString kKeyboardScreen = QStringLiteral("01b-login-keyboard");

const QStringList kLanguages{"en", "vi"};

} // namespace

// One walk of the day: its cloud, its screenshots and how the terminal ended.
struct Day
{
    TestCloud cloud{TestCloud::Untrusted}; // the terminal trusts the CA itself (--ca)
    std::unique_ptr<kelocloud::CloudControl> control;
    QTemporaryDir shots;
    QTemporaryDir data;
    QByteArray output;
    int status = -1;

    QImage screen(const QString& name) const
    {
        return QImage(QDir(shots.path()).filePath(name + ".png"));
    }
    // What the walk measured on screen @p name (<name>.json); empty if nothing.
    QJsonObject note(const QString& name) const
    {
        QFile file(QDir(shots.path()).filePath(name + ".json"));
        return file.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(file.readAll()).object()
                                              : QJsonObject();
    }
};

class TestTerminalScreenshots : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void everyScreenIsWritten_data() { languages(); }
    void everyScreenIsWritten();
    void noScreenIsBlank_data();
    void noScreenIsBlank();
    void menuShowsTheFixturePictures_data() { languages(); }
    void menuShowsTheFixturePictures();
    void invoiceQrReadsAsThePayload_data() { languages(); }
    void invoiceQrReadsAsThePayload();
    void theDayReachedTheCloud_data() { languages(); }
    void theDayReachedTheCloud();
    void theLanguagesDiffer_data();
    void theLanguagesDiffer();
    void keyboardLeavesTheFieldVisible_data() { languages(); }
    void keyboardLeavesTheFieldVisible();
    void bannerStaysAboveTheKeyboard_data() { languages(); }
    void bannerStaysAboveTheKeyboard();
    void keyboardTypedTheName_data() { languages(); }
    void keyboardTypedTheName();
    void keyboardIsInTheScreensLanguage_data() { languages(); }
    void keyboardIsInTheScreensLanguage();

private:
    static void languages()
    {
        QTest::addColumn<QString>("lang");
        for (const QString& lang : kLanguages)
            QTest::newRow(qPrintable(lang)) << lang;
    }

    std::map<QString, std::unique_ptr<Day>> days;
};

void TestTerminalScreenshots::initTestCase()
{
    // One after the other: the walks are heavy for a busy machine.
    for (const QString& lang : kLanguages) {
        auto day = std::make_unique<Day>();
        QVERIFY(day->cloud.start());
        day->control = std::make_unique<kelocloud::CloudControl>(day->cloud.server());
        QVERIFY(day->shots.isValid() && day->data.isValid());

        QProcess terminal;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_DATA_HOME", day->data.path()); // a picture cache of its own, empty
        terminal.setProcessEnvironment(env);
        terminal.setProcessChannelMode(QProcess::MergedChannels);
        terminal.start(KELO_TERMINAL,
                       {"--server", day->cloud.hostPort(), "--ca", day->cloud->caCertificatePath(),
                        "--lang", lang, "--screenshots", day->shots.path()});
        QVERIFY2(terminal.waitForStarted(), qPrintable(terminal.errorString()));
        // The walk runs while this thread waits: the cloud serves from its own thread.
        QVERIFY(terminal.waitForFinished(8 * kWait));
        day->output = terminal.readAll();
        day->status = terminal.exitStatus() == QProcess::NormalExit ? terminal.exitCode() : -1;
        days[lang] = std::move(day);
    }
}

void TestTerminalScreenshots::everyScreenIsWritten()
{
    QFETCH(QString, lang);
    Day& day = *days.at(lang);
    QVERIFY2(day.status == 0, day.output.constData());
    QStringList written = QDir(day.shots.path()).entryList({"*.png"}, QDir::Files, QDir::Name);
    QStringList expected;
    for (const QString& name : kScreens)
        expected << name + ".png";
    QCOMPARE(written, expected);
}

void TestTerminalScreenshots::noScreenIsBlank_data()
{
    QTest::addColumn<QString>("lang");
    QTest::addColumn<QString>("name");
    for (const QString& lang : kLanguages)
        for (const QString& name : kScreens)
            QTest::newRow(qPrintable(lang + "/" + name)) << lang << name;
}

void TestTerminalScreenshots::noScreenIsBlank()
{
    QFETCH(QString, lang);
    QFETCH(QString, name);
    const QImage image = days.at(lang)->screen(name);
    QVERIFY2(!image.isNull(), qPrintable(name));
    QCOMPARE(image.size(), QSize(1024, 600));
    // A drawn screen: no colour covers nearly all of it, and there is text and detail.
    const QString blank = whyBlank(image);
    QVERIFY2(blank.isEmpty(), qPrintable(name + ": " + blank));
}

void TestTerminalScreenshots::menuShowsTheFixturePictures()
{
    QFETCH(QString, lang);
    Day& day = *days.at(lang);
    const QImage menu = day.screen("03-menu");
    QVERIFY(!menu.isNull());
    QSet<int> rows;
    for (int id = 1; id <= 8; ++id) {
        // The very picture the cloud serves for the dish, found whole in the menu screen.
        const QImage picture = QImage::fromData(
            day.cloud->state().picture(QString("/img/items/%1.png").arg(id).toUtf8()), "PNG");
        QVERIFY2(!picture.isNull(), qPrintable(QString("dish %1 has no picture").arg(id)));
        const QPoint at = findPicture(menu, picture);
        QVERIFY2(at.x() >= 0, qPrintable(QString("the picture of dish %1 is not on the menu "
                                                 "screen")
                                             .arg(id)));
        rows << at.y();
    }
    QCOMPARE(rows.size(), 2); // a grid: two rows of four
}

void TestTerminalScreenshots::invoiceQrReadsAsThePayload()
{
    QFETCH(QString, lang);
    Day& day = *days.at(lang);
    // The payload the cloud sent: its QR text for the one invoice of the day, whose amount the
    // terminal asked for in its signed "create" request.
    const QList<kelocloud::CloudExchange> creates =
        day.cloud->exchanges("/kelo/api/invoice/", QStringLiteral("create"));
    QCOMPARE(creates.size(), 1);
    const QJsonObject dt =
        QJsonDocument::fromJson(
            QUrl::fromPercentEncoding(creates.first().param("dt").toUtf8()).toUtf8())
            .object();
    const QString expected = QString("kelopay://pay?merchant=M01&invoice=INV%23000001&amount=%1")
                                 .arg(dt.value("amount").toVariant().toString());

    QString error;
    const QString read = readQrCode(QDir(day.shots.path()).filePath("06-invoice-qr.png"), &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QCOMPARE(read, expected);
}

void TestTerminalScreenshots::theDayReachedTheCloud()
{
    QFETCH(QString, lang);
    Day& day = *days.at(lang);
    // What the screens claim happened did happen on the server.
    QCOMPARE(day.cloud->exchanges("/kelo/api/login/", "cashier_login").size(), 2); // wrong, right
    QCOMPARE(day.cloud->exchanges("/kelo/api/invoice/", "confirm_order").size(), 1);
    QCOMPARE(day.cloud->exchanges("/kelo/api/invoice/", "payment").size(), 1);
    QCOMPARE(day.cloud->openInvoiceCount(), 0);
}

void TestTerminalScreenshots::theLanguagesDiffer_data()
{
    QTest::addColumn<QString>("name");
    for (const QString& name : kScreens)
        QTest::newRow(qPrintable(name)) << name;
}

void TestTerminalScreenshots::theLanguagesDiffer()
{
    // Every screen has words on it (buttons, titles, the header): the Vietnamese walk wrote
    // them in Vietnamese, so no screen of it is the English one.
    QFETCH(QString, name);
    const QImage en = days.at("en")->screen(name).convertToFormat(QImage::Format_RGB32);
    const QImage vi = days.at("vi")->screen(name).convertToFormat(QImage::Format_RGB32);
    QVERIFY(!en.isNull() && !vi.isNull());
    QCOMPARE(vi.size(), en.size());
    int differing = 0;
    for (int y = 0; y < en.height(); ++y)
        for (int x = 0; x < en.width(); ++x)
            differing += en.pixel(x, y) != vi.pixel(x, y);
    QVERIFY2(differing > 500, qPrintable(QString("%1: %2 pixels differ").arg(name).arg(differing)));
}

namespace {

QRect rect(const QJsonValue& value)
{
    const QJsonObject o = value.toObject();
    return QRectF(o.value("x").toDouble(), o.value("y").toDouble(), o.value("width").toDouble(),
                  o.value("height").toDouble())
        .toAlignedRect();
}

// How many pixels of @p area differ between @p a and @p b.
int differingPixels(const QImage& a, const QImage& b, const QRect& area)
{
    const QImage x = a.convertToFormat(QImage::Format_RGB32);
    const QImage y = b.convertToFormat(QImage::Format_RGB32);
    int differing = 0;
    for (int row = area.top(); row <= area.bottom(); ++row)
        for (int col = area.left(); col <= area.right(); ++col)
            differing += x.pixel(col, row) != y.pixel(col, row);
    return differing;
}

} // namespace

void TestTerminalScreenshots::keyboardLeavesTheFieldVisible()
{
    QFETCH(QString, lang);
    Day& day = *days.at(lang);
    const QJsonObject note = day.note(kKeyboardScreen);
    QVERIFY2(!note.isEmpty(), "the walk wrote no note of the keyboard screen");
    const QRect window(0, 0, 1024, 600);
    const QRect panel = rect(note.value("panel"));
    const QRect field = rect(note.value("field"));
    const QRect userField = rect(note.value("userField"));
    QCOMPARE(note.value("focused").toString(), QString("password"));
    // The keyboard is up, the whole width at the bottom of the window, a real part of it.
    QCOMPARE(panel.left(), 0);
    QCOMPARE(panel.width(), window.width());
    QCOMPARE(panel.bottom(), window.bottom());
    QVERIFY2(panel.height() >= 200, qPrintable(QString("panel %1 high").arg(panel.height())));
    // The field being typed in lies whole in the window, below the header (56) and above the
    // keyboard; so does the name field above it.
    for (const QRect& f : {field, userField}) {
        QVERIFY2(f.height() > 0 && f.top() >= 56 && window.contains(f),
                 qPrintable(QString("field at %1,%2 %3x%4")
                                .arg(f.x())
                                .arg(f.y())
                                .arg(f.width())
                                .arg(f.height())));
        QVERIFY2(f.bottom() < panel.top(),
                 qPrintable(QString("a field ends at y=%1, the keyboard starts at y=%2")
                                .arg(f.bottom())
                                .arg(panel.top())));
    }
    // While the name was typed, its field was the one in focus: above the keyboard too, and so
    // was the password field below it, for the finger that moves on to it (the keyboard would
    // take that tap otherwise); the screens had moved up for it.
    const QJsonObject whileTyped = note.value("whileTyped").toObject();
    QVERIFY(whileTyped.value("focused").toBool());
    for (const char* name : {"field", "next"}) {
        const QRect f = rect(whileTyped.value(name));
        QVERIFY2(f.height() > 0 && f.top() >= 56 && f.bottom() < panel.top(),
                 qPrintable(QString("while the name was typed, the %1 was at y=%2..%3, the "
                                    "keyboard starts at y=%4")
                                .arg(name)
                                .arg(f.top())
                                .arg(f.bottom())
                                .arg(panel.top())));
    }
    QVERIFY(whileTyped.value("shift").toDouble() > 0);
    // And the picture shows it: the keyboard where the note says (the login screen without it
    // is something else there), the field's box as on the login screen without the keyboard,
    // moved up.
    const QImage shot = day.screen(kKeyboardScreen);
    const QImage login = day.screen("01-login");
    QVERIFY(!shot.isNull() && !login.isNull());
    QVERIFY(differingPixels(shot, login, panel) > panel.width() * panel.height() / 2);
}

void TestTerminalScreenshots::bannerStaysAboveTheKeyboard()
{
    // A refused login while the keyboard is up (the cashier pressed its Enter key): the message
    // shows whole between the header and the keyboard, and covers neither field.
    QFETCH(QString, lang);
    const QJsonObject note = days.at(lang)->note(kKeyboardScreen);
    QVERIFY2(!note.isEmpty(), "the walk wrote no note of the keyboard screen");
    const QRect banner = rect(note.value("banner"));
    const QRect panel = rect(note.value("panel"));
    QVERIFY(!panel.isEmpty());
    QVERIFY2(
        banner.height() > 0 && banner.top() >= 56,
        qPrintable(QString("banner from y=%1, %2 high").arg(banner.top()).arg(banner.height())));
    QVERIFY2(banner.bottom() < panel.top(),
             qPrintable(QString("the banner ends at y=%1, the keyboard starts at y=%2")
                            .arg(banner.bottom())
                            .arg(panel.top())));
    for (const char* field : {"field", "userField"})
        QVERIFY2(!banner.intersects(rect(note.value(field))),
                 qPrintable(QString("the banner (y=%1..%2) covers the %3 (y=%4..%5)")
                                .arg(banner.top())
                                .arg(banner.bottom())
                                .arg(field)
                                .arg(rect(note.value(field)).top())
                                .arg(rect(note.value(field)).bottom())));
}

void TestTerminalScreenshots::keyboardTypedTheName()
{
    // The walk emptied the name field and tapped the keyboard's keys b, a, o: the field has
    // what was typed, letter for letter.
    QFETCH(QString, lang);
    const QJsonObject note = days.at(lang)->note(kKeyboardScreen);
    QVERIFY2(!note.isEmpty(), "the walk wrote no note of the keyboard screen");
    QCOMPARE(note.value("typed").toString(), QString("bao"));
    // ... and the logins that followed sent the typed name to the cloud.
    const QList<kelocloud::CloudExchange> logins =
        days.at(lang)->cloud->exchanges("/kelo/api/login/", "cashier_login");
    QVERIFY(!logins.isEmpty());
    for (const kelocloud::CloudExchange& login : logins) {
        const QJsonObject dt =
            QJsonDocument::fromJson(QUrl::fromPercentEncoding(login.param("dt").toUtf8()).toUtf8())
                .object();
        QCOMPARE(dt.value("u").toString(), QString("bao"));
    }
}

void TestTerminalScreenshots::keyboardIsInTheScreensLanguage()
{
    QFETCH(QString, lang);
    const QJsonObject note = days.at(lang)->note(kKeyboardScreen);
    QCOMPARE(note.value("locale").toString(), lang == "vi" ? QString("vi_VN") : QString("en_US"));
    // The two keyboards are not drawn alike (the space bar names its language).
    const QJsonObject en = days.at("en")->note(kKeyboardScreen);
    const QRect panel = rect(en.value("panel"));
    QVERIFY(!panel.isEmpty());
    QVERIFY(differingPixels(days.at("en")->screen(kKeyboardScreen),
                            days.at("vi")->screen(kKeyboardScreen), panel) > 100);
}

QTEST_GUILESS_MAIN(TestTerminalScreenshots)
#include "tst_terminal_screenshots.moc"
