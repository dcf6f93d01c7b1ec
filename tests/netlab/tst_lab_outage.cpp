// A silent outage on the lab's shop Wi-Fi (no reset reaches either side): a request sent into it
// ends on its own deadline, whatever the outage's length, and the notification channel is back
// within seconds of the link's return. Runs on the terminal's side of the network lab
// (docs/netlab.md); outside the lab it is skipped.
//   bash tools/netlab/lab.sh run --profile wifi -- sh -c \
//     'ip netns exec "$KELO_LAB_TERM" env KELO_SERVER_HOST="$KELO_LAB_API"
//     _build/dev/tests/tst_lab_outage'
#include "kelosdk.h"
#include "signalrecorder.h"
#include "tempdatalocation.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QtTest>

namespace {

/// How long the link stays silent: longer than the request deadline, so only that can end it.
constexpr int kOutageMs = 30000;
/// When the request goes out, into the outage.
constexpr int kSentIntoOutageMs = 1000;
/// The functional bounds (the figures themselves are printed).
constexpr qint64 kRequestEndsWithinMs = 25000;
constexpr qint64 kChannelBackWithinMs = 6000;

bool wire(const QByteArray& command)
{
    QStringList args{QStringLiteral("ctl"), qEnvironmentVariable("KELO_LAB_WIRE_CTL")};
    for (const QByteArray& word : command.split(' '))
        args << QString::fromLatin1(word);
    return QProcess::execute(qEnvironmentVariable("KELO_LAB_WIRE"), args) == 0;
}

} // namespace

class TestLabOutage : public QObject
{
    Q_OBJECT
    TempDataLocation data;
    bool blackholed = false;

private Q_SLOTS:
    void initTestCase()
    {
        if (qEnvironmentVariableIsEmpty("KELO_LAB_WIRE") ||
            qEnvironmentVariableIsEmpty("KELO_LAB_CA"))
            QSKIP("needs the network lab (bash tools/netlab/lab.sh run -- ...)");
        QVERIFY(data.isValid());
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        tls.setCaCertificates(tls.caCertificates() +
                              QSslCertificate::fromPath(qEnvironmentVariable("KELO_LAB_CA")));
        QSslConfiguration::setDefaultConfiguration(tls);
    }
    void cleanup()
    {
        // The link is never left dead for whatever runs next in the lab.
        if (blackholed)
            wire("blackhole off");
        blackholed = false;
    }

    void requestEndsAndChannelReturns()
    {
        Kelosdk sdk(QStringLiteral("M01"), QStringLiteral("POS-1"), false);
        SignalRecorder seen(&sdk, {});
        QVERIFY(QTest::qWaitFor(
            [&] {
                return !seen["cloudConnectionChange"].isEmpty() &&
                       seen["cloudConnectionChange"].last().value(0).toBool();
            },
            30000));
        sdk.tableRequest(); // a warm pool: its kept-alive connection dies with the link
        QVERIFY(seen["tableRequestDone"].wait(30000));

        QVERIFY(wire("blackhole on"));
        blackholed = true;
        QElapsedTimer outage;
        outage.start();
        QTest::qWait(kSentIntoOutageMs);
        QElapsedTimer request;
        request.start();
        sdk.tableRequest();
        QVERIFY(QTest::qWaitFor([&] { return !seen["networkError"].isEmpty(); },
                                kOutageMs - kSentIntoOutageMs));
        const qint64 ended = request.elapsed();
        qInfo("request sent %d ms into the outage ended after %lld ms: %s", kSentIntoOutageMs,
              ended, qPrintable(seen["networkError"].first().value(1).toString()));
        QCOMPARE(seen["networkError"].first().value(0).toInt(), 4);
        QVERIFY2(ended <= kRequestEndsWithinMs, qPrintable(QString::number(ended)));
        // The channel noticed the outage (three missed pongs) before the link returns.
        QVERIFY(
            QTest::qWaitFor([&] { return !seen["cloudConnectionChange"].last().value(0).toBool(); },
                            int(qMax<qint64>(0, kOutageMs - outage.elapsed()))));
        QTest::qWait(int(qMax<qint64>(0, kOutageMs - outage.elapsed())));

        QVERIFY(wire("blackhole off"));
        blackholed = false;
        QElapsedTimer back;
        back.start();
        QVERIFY(QTest::qWaitFor(
            [&] { return seen["cloudConnectionChange"].last().value(0).toBool(); }, 30000));
        const qint64 up = back.elapsed();
        qInfo("channel up %lld ms after the link returned (outage %d ms)", up, kOutageMs);
        QVERIFY2(up <= kChannelBackWithinMs, qPrintable(QString::number(up)));
        QCOMPARE(seen["networkError"].size(), 1);

        // And requests work again at once.
        sdk.tableRequest();
        QVERIFY(QTest::qWaitFor([&] { return seen["tableRequestDone"].size() == 2; }, 10000));
    }
};

QTEST_GUILESS_MAIN(TestLabOutage)
#include "tst_lab_outage.moc"
