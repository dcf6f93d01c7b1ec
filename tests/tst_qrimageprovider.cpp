// The "kelo-qr" image provider through the whole QML path: an Image whose source is the
// documented address, drawn by the software renderer, and read back by zbarimg.
#include "testwait.h"

#include <QDir>
#include <QGuiApplication>
#include <QProcess>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickView>
#include <QScreen>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

class TestQrImageProvider : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void readsBackAsThePayload_data();
    void readsBackAsThePayload();
    void nothingToDraw_data();
    void nothingToDraw();

private:
    // An Image of "image://kelo-qr/" + encodeURIComponent(payload), sized @p side.
    QQuickItem* show(QQuickView& view, const QString& payload, int side);
    QTemporaryDir dir;
    QString zbarimg;
};

void TestQrImageProvider::initTestCase()
{
    QVERIFY(dir.isValid());
    zbarimg = QStandardPaths::findExecutable("zbarimg");
    QVERIFY2(!zbarimg.isEmpty(), "zbarimg is missing: run tools/install-deps.sh");
    QFile qml(dir.filePath("qr.qml"));
    QVERIFY(qml.open(QIODevice::WriteOnly));
    qml.write("import QtQuick 2.15\nimport Kelo 1.0\n"
              "Rectangle { width: 480; height: 480; color: \"white\"\n"
              "  Image { objectName: \"qr\"; x: 10; y: 10; smooth: false\n"
              "          sourceSize: Qt.size(side, side)\n"
              "          source: \"image://kelo-qr/\" + encodeURIComponent(payload) } }\n");
}

QQuickItem* TestQrImageProvider::show(QQuickView& view, const QString& payload, int side)
{
    view.engine()->addImportPath(KELO_QML_BUILD_DIR);
    view.rootContext()->setContextProperty("payload", payload);
    view.rootContext()->setContextProperty("side", side);
    view.setSource(QUrl::fromLocalFile(dir.filePath("qr.qml")));
    view.show();
    return view.rootObject() ? view.rootObject()->findChild<QQuickItem*>("qr") : nullptr;
}

void TestQrImageProvider::readsBackAsThePayload_data()
{
    QTest::addColumn<QString>("payload");
    QTest::addColumn<int>("side");
    QTest::newRow("invoice") << "kelopay://pay?merchant=M01&invoice=INV%23000001&amount=150000"
                             << 300;
    QTest::newRow("address delimiters") << "a#b?c=d&e=f/g;h" << 300;
    QTest::newRow("percent signs") << "100% sure, 50%25 off +plus" << 200;
    QTest::newRow("non-ASCII") << QString::fromUtf8("Bàn 3 – cà phê") << 300;
    QTest::newRow("long") << QString(400, QLatin1Char('x')) + "#end" << 460;
}

void TestQrImageProvider::readsBackAsThePayload()
{
    QFETCH(QString, payload);
    QFETCH(int, side);
    QQuickView view;
    QQuickItem* image = show(view, payload, side);
    QVERIFY2(image, qPrintable(view.errors().isEmpty() ? "" : view.errors().first().toString()));
    QTRY_COMPARE(image->property("status").toInt(), 1); // Image.Ready
    // Whole pixels per module: as large as the requested size allows, never larger.
    const int width = image->property("implicitWidth").toInt();
    QVERIFY2(width <= side && width > side * 2 / 3, qPrintable(QString::number(width)));
    QVERIFY(QTest::qWaitForWindowExposed(&view));
    QTest::qWait(100); // the frame with the image

    const QString png = dir.filePath("qr.png");
    QVERIFY(view.screen()->grabWindow(view.winId()).save(png, "PNG"));
    QProcess reader;
    reader.start(zbarimg, {"--raw", "-q", png});
    QVERIFY(reader.waitForFinished(2 * kWait));
    QCOMPARE(reader.exitCode(), 0);
    QCOMPARE(QString::fromUtf8(reader.readAllStandardOutput()).chopped(1), payload);
}

void TestQrImageProvider::nothingToDraw_data()
{
    QTest::addColumn<QString>("payload");
    QTest::newRow("empty") << QString();
    QTest::newRow("too long for a QR code") << QString(8000, QLatin1Char('y'));
}

void TestQrImageProvider::nothingToDraw()
{
    QFETCH(QString, payload);
    QQuickView view;
    QQuickItem* image = show(view, payload, 300);
    QVERIFY(image);
    QTRY_COMPARE(image->property("status").toInt(), 3); // Image.Error
}

QTEST_MAIN(TestQrImageProvider)
#include "tst_qrimageprovider.moc"
