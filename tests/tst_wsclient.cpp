// The notification client against the local cloud over TLS: session fetch, signed connect,
// frame forwarding, keep-alive pings and the reconnect watchdog. The client's own 3 s tick and
// 1 s watchdog set the pace; every wait here is on an event, bounded far beyond that pace.
#include "kelolimits_p.h"
#include "kelosdk.h"
#include "logcapture.h"
#include "testcloud.h"
#include "testwait.h"
#include "wsclient.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QUuid>
#include <QtTest>

#include <sys/wait.h>
#include <unistd.h>

using kelocloud::CloudReply;

namespace {

const QString merchant = QStringLiteral("M01");
const QByteArray commonApi = "/kelo/api/common";
const QString sessionWord = QStringLiteral("get_ws_session");

CloudReply answer(const QByteArray& body, int delayMs = 0)
{
    return CloudReply{200, body, {}, delayMs, {}};
}

CloudReply never()
{
    CloudReply reply;
    reply.fault = CloudReply::Fault::NeverAnswer;
    return reply;
}

/// {"msg":"<word>","pad":"..."} of exactly @p bytes in UTF-8, padded with @p pad.
QByteArray notice(const char* word, qint64 bytes, const QString& pad = QStringLiteral("x"))
{
    QByteArray text = QByteArray(R"({"msg":")") + word + R"(","pad":")";
    const QByteArray piece = pad.toUtf8();
    while (text.size() + piece.size() + 2 <= bytes)
        text += piece;
    text += QByteArray(bytes - text.size() - 2, 'x') + "\"}";
    return text;
}

/// A client with spies on its signals; counts its keep-alive ticks (an event filter sees its
/// timer events before it does) and the tick count at each closed().
struct Watched : QObject
{
    Watched(WSClient* c) : client(c) { client->installEventFilter(this); }
    ~Watched() override
    {
        client->stop();
        client->wait();
        delete client;
    }
    bool eventFilter(QObject*, QEvent* event) override
    {
        ticks += event->type() == QEvent::Timer;
        return false;
    }
    bool startAndConnect()
    {
        client->start();
        return connected.wait(kWait);
    }

    WSClient* client;
    QSignalSpy connected{client, &WSClient::connected};
    QSignalSpy closed{client, &WSClient::closed};
    QSignalSpy text{client, &WSClient::textMessageReceived};
    int ticks = 0;
    QList<int> closedAtTick;
    QMetaObject::Connection tickOfClose =
        connect(client, &WSClient::closed, this, [this] { closedAtTick << ticks; });
};

} // namespace

class TestWSClient : public QObject
{
    Q_OBJECT
    TestCloud cloud;
    QString devid;
    int upgradesBefore = 0;

    std::unique_ptr<Watched> watch(bool debug = false)
    {
        return std::make_unique<Watched>(
            new WSClient(QUrl(QStringLiteral("wss://%1/kelo/ntf/").arg(cloud.hostPort())),
                         cloud.url("/kelo/api/common"), merchant, devid, debug, nullptr));
    }
    QList<kelocloud::CloudUpgrade> upgrades() { return cloud->upgrades().mid(upgradesBefore); }
    QString upgradeSession(int i) { return upgrades().value(i).query.queryItemValue("ws_session"); }
    int sessionFetches() { return cloud->exchanges(commonApi, sessionWord).size(); }

private Q_SLOTS:
    void initTestCase() { QVERIFY(cloud.start()); }
    void init()
    {
        QVERIFY(cloud->isUp() || cloud->comeBack());
        cloud->setAnswerPings(true);
        cloud->clearScripts();
        cloud->clearExchanges();
        upgradesBefore = cloud->upgrades().size();
        devid = QUuid::createUuid().toString(QUuid::Id128);
    }
    void connectsWithSignedSessionQuietly()
    {
        LogCapture log;
        auto w = watch(false);
        QVERIFY(w->startAndConnect());
        QCOMPARE(cloud->exchanges(commonApi, sessionWord).value(0).method, QByteArray("POST"));
        QCOMPARE(upgrades().size(), 1);
        QVERIFY(upgrades()[0].accepted);
        const QString session = upgradeSession(0);
        const QString tk = cloud->state().sign((merchant + devid + session).toUtf8());
        QCOMPARE(
            upgrades()[0].query.query(QUrl::FullyDecoded),
            QStringLiteral("appuser=M01&devid=%1&ws_session=%2&tk=%3").arg(devid, session, tk));
        QVERIFY(!session.isEmpty());
        w->client->sendTextMessage("hello");
        QCOMPARE(log.lines(), QStringList()); // debug off: not one line, whatever happens
    }
    void fetchInFlightBlocksFurtherFetches()
    {
        cloud->scriptReply(commonApi, sessionWord,
                           answer(R"({"dt":{"ws_session":"S-late"},"err":0})", 1500));
        auto w = watch();
        w->client->start();
        emit w->client->reconnect();
        emit w->client->reconnect();
        w->client->getSession();
        // The late answer is used (the server refuses its made-up session); a second fetch would
        // have reached the server long before.
        QTRY_COMPARE(upgrades().size(), 1);
        QCOMPARE(upgradeSession(0), QString("S-late"));
        QCOMPARE(sessionFetches(), 1);
        QCOMPARE(w->connected.count(), 0);
    }
    // The server goes away and comes back: the client reconnects on a fresh session (the fetches
    // that fail meanwhile, at the transport and refused, open nothing) and forwards frames
    // unchanged, whatever they hold; with debug on, not through the logging slot ("Message
    // received:").
    void slow_outageReconnectsWithFreshSession()
    {
        auto w = watch(true);
        QVERIFY(w->startAndConnect());
        LogCapture log;
        cloud->goDown();
        QVERIFY(w->closed.wait());
        QTRY_VERIFY_WITH_TIMEOUT(log.count("//error:") > 0, kWait);
        cloud->scriptReply(commonApi, sessionWord, answer(R"({"err":5,"msg":"busy"})"));
        QVERIFY(cloud->comeBack());
        QTRY_COMPARE_WITH_TIMEOUT(w->connected.count(), 2, kWait);
        QCOMPARE(sessionFetches(), 3);
        QCOMPARE(upgrades().size(), 2);
        QVERIFY(upgrades()[1].accepted);
        QVERIFY(upgradeSession(1) != upgradeSession(0));
        QTRY_VERIFY(cloud->connectedDevices().contains(devid));
        const QList<QByteArray> frames{u8"{\"msg\":\"Café 北京 🍜 ß\",\"type\":1}", QByteArray(),
                                       QByteArray(70000, 'x')};
        for (const QByteArray& frame : frames)
            QVERIFY(cloud->pushText(devid, frame));
        QTRY_COMPARE(w->text.count(), frames.size());
        for (int i = 0; i < frames.size(); ++i)
            QCOMPARE(w->text[i][0].toString(), QString::fromUtf8(frames[i]));
        QCOMPARE(log.count("Message received:"), 0);
    }
    void slow_pongTimeoutClosesOnFourthTick()
    {
        auto w = watch();
        QVERIFY(w->startAndConnect());
        const int last = w->ticks;
        cloud->setAnswerPings(false);
        // Later fetches fail, so only the ticks speak while the connection is down.
        cloud->scriptReply(commonApi, sessionWord, answer(R"({"err":5})"), 100);
        QTRY_VERIFY_WITH_TIMEOUT(w->closedAtTick.contains(last + 5), kWait);
        // Tick 4 closes (the socket's disconnect passes through once more); the next tick declares
        // the connection closed again.
        QCOMPARE(w->closedAtTick, QList<int>({last + 4, last + 4, last + 5}));
        QCOMPARE(w->connected.count(), 1);
    }
    void slow_pongAfterTwoMissedPingsKeepsConnection()
    {
        auto w = watch();
        QVERIFY(w->startAndConnect());
        const int last = w->ticks;
        cloud->setAnswerPings(false);
        QTRY_COMPARE_WITH_TIMEOUT(w->ticks, last + 2, kWait);
        cloud->setAnswerPings(true); // the third ping is answered
        QTRY_COMPARE_WITH_TIMEOUT(w->ticks, last + 4, kWait);
        QCOMPARE(w->closed.count(), 0);
        QCOMPARE(upgrades().size(), 1);
    }
    // A session fetch that the server takes and never answers is given up at its deadline: only
    // then does the next fetch go out (one fetch at a time), and the channel comes up.
    void slow_stalledSessionFetchIsGivenUp()
    {
        cloud->scriptReply(commonApi, sessionWord, never());
        auto w = watch();
        QElapsedTimer clock;
        clock.start();
        w->client->start();
        QTRY_COMPARE_WITH_TIMEOUT(sessionFetches(), 2, 2 * kWait);
        QVERIFY(clock.elapsed() >= kelo_limits::SessionFetchDeadlineMs);
        QTRY_COMPARE_WITH_TIMEOUT(w->connected.count(), 1, kWait - int(clock.elapsed()));
        qInfo("connected %lld ms after the stalled fetch went out", clock.elapsed());
        QCOMPARE(sessionFetches(), 2);
        QCOMPARE(upgrades().size(), 1);
        QCOMPARE(w->closed.count(), 0);
    }
    // An opening handshake that the server never answers is given up at its deadline, even when
    // no fresh session can be had meanwhile (which would replace it); once the server answers
    // again the channel is up within 30 s.
    void slow_stalledHandshakeIsGivenUp()
    {
        CloudReply first;
        first.normalAnswer = true;
        cloud->scriptReply(commonApi, sessionWord, first);
        cloud->scriptReply(commonApi, sessionWord, answer(R"({"err":5})"), 1000);
        cloud->scriptReply("/kelo/ntf/", {}, never());
        auto w = watch();
        QElapsedTimer clock;
        clock.start();
        w->client->start();
        QVERIFY(w->closed.wait(2 * kWait)); // the stalled socket is aborted
        QVERIFY(clock.elapsed() >= kelo_limits::HandshakeDeadlineMs);
        QCOMPARE(upgrades().size(), 1);
        cloud->clearScripts();
        clock.restart();
        QTRY_COMPARE_WITH_TIMEOUT(w->connected.count(), 1, kWait);
        qInfo("connected %lld ms after the server answered again", clock.elapsed());
        QCOMPARE(upgrades().size(), 2);
        QVERIFY(upgrades()[1].accepted);
    }
    // stop() ends a sleeping watchdog at once (it used to be terminated inside its sleep).
    void stopEndsTheWatchdogAtOnce()
    {
        auto w = watch();
        QVERIFY(w->startAndConnect());
        QVERIFY(w->client->isRunning());
        QElapsedTimer clock;
        clock.start();
        w->client->stop();
        QVERIFY(w->client->wait(kWait));
        qInfo("watchdog ended %lld ms after stop()", clock.elapsed());
        QVERIFY(clock.elapsed() < kelo_limits::WatchdogPeriodMs / 2);
        QCOMPARE(w->closed.count(), 0);
    }
    // A slow but legitimate opening handshake (a lossy 4G link) is left to finish within its
    // deadline: the watchdog, which looks every second while the channel is down, starts no new
    // session meanwhile (one would restart the handshake, which then never completes).
    void slow_slowHandshakeIsNotRestarted()
    {
        CloudReply slowUpgrade;
        slowUpgrade.normalAnswer = true;
        slowUpgrade.delayMs = kelo_limits::HandshakeDeadlineMs - 1500;
        QVERIFY(slowUpgrade.delayMs >= 3 * kelo_limits::WatchdogPeriodMs);
        cloud->scriptReply("/kelo/ntf/", {}, slowUpgrade);
        auto w = watch();
        QElapsedTimer clock;
        clock.start();
        QVERIFY(w->startAndConnect());
        qInfo("connected %lld ms after start", clock.elapsed());
        QTest::qWait(kelo_limits::WatchdogPeriodMs * 2); // a late restart would show by now
        QCOMPARE(sessionFetches(), 1);
        QCOMPARE(upgrades().size(), 1);
        QCOMPARE(w->connected.count(), 1);
        QCOMPARE(w->closed.count(), 0);
    }
    void oversizedNoticeIsDroppedAndChannelReopens_data()
    {
        QTest::addColumn<qint64>("bytes");
        QTest::addColumn<QString>("pad");
        QTest::addColumn<bool>("oneFrame");
        QTest::addColumn<QString>("dropped"); // the reason logged, which tells the caps apart
        const qint64 cap = kelo_limits::DefaultMaxNotificationBytes;
        const QString euro(QChar(0x20AC)); // 3 bytes in UTF-8, 1 unit in UTF-16
        QTest::newRow("over, 4 KiB frames")
            << cap + 1 << "x" << false << "Received message is too big.";
        QTest::newRow("over, one frame") << cap + 1 << "x" << true << "Maximum framesize exceeded.";
        QTest::newRow("over, 3-byte characters")
            << cap + 1 << euro << false << "Received message is too big in UTF-8.";
        QTest::newRow("at the cap, 4 KiB frames") << cap << "x" << false << QString();
        QTest::newRow("at the cap, one frame") << cap << "x" << true << QString();
        QTest::newRow("at the cap, 3-byte characters") << cap << euro << false << QString();
    }
    // Over the cap (the default, in UTF-8 bytes): never forwarded; the socket closes and opens
    // again at once on a fresh session, and the next notice arrives. At the cap: forwarded
    // unchanged, the socket stays.
    void oversizedNoticeIsDroppedAndChannelReopens()
    {
        QFETCH(qint64, bytes);
        QFETCH(QString, pad);
        QFETCH(bool, oneFrame);
        QFETCH(QString, dropped);
        const bool over = !dropped.isEmpty();
        const QByteArray big = notice("big", bytes, pad);
        QCOMPARE(big.size(), bytes);
        LogCapture log;
        auto w = watch();
        QCOMPARE(w->client->maxMessageSize(), kelo_limits::DefaultMaxNotificationBytes);
        QVERIFY(w->startAndConnect());
        QTRY_VERIFY(cloud->connectedDevices().contains(devid));
        // Without its watchdog, only the client's own reopen brings the channel back.
        w->client->stop();
        QVERIFY(w->client->wait(kWait));
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(oneFrame ? cloud->pushWholeFrame(devid, big) : cloud->pushToDevice(devid, big), 1);
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
        // Qt 6's WebSockets fail the connection on a text frame that ends inside a character
        // (frames of 4 KiB split the 3-byte ones), although the whole message is valid UTF-8: the
        // notice is lost whatever its size and the socket closes; the watchdog reopens it later.
        if (pad != QLatin1String("x") && !oneFrame) {
            QTRY_COMPARE_WITH_TIMEOUT(w->closed.count(), 1, kWait);
            QTest::qWait(500);
            QCOMPARE(w->text.count(), 0);
            QCOMPARE(w->connected.count(), 1);
            QCOMPARE(log.lines(QtWarningMsg).filter("WebSocket notice dropped: "), QStringList());
            return;
        }
#endif
        if (over) {
            QTRY_COMPARE_WITH_TIMEOUT(w->connected.count(), 2, kWait);
            qInfo("connected again %lld ms after the push", clock.elapsed());
            QCOMPARE(sessionFetches(), 2);
            QCOMPARE(upgrades().size(), 2);
            QVERIFY(upgradeSession(1) != upgradeSession(0));
            QVERIFY(w->closed.count() >= 1);
            QTRY_VERIFY(cloud->connectedDevices().contains(devid));
        }
        const QByteArray next = notice("next", 20);
        QVERIFY(cloud->pushText(devid, next));
        QTRY_COMPARE(w->text.count(), over ? 1 : 2);
        QCOMPARE(w->text.last()[0].toString(), QString::fromUtf8(next));
        if (!over) {
            QCOMPARE(w->text[0][0].toString(), QString::fromUtf8(big));
            QCOMPARE(w->closed.count(), 0);
            QCOMPARE(upgrades().size(), 1);
        }
        QCOMPARE(log.lines(QtWarningMsg).filter("WebSocket notice dropped: "),
                 over ? QStringList{"WebSocket notice dropped: " + dropped} : QStringList());
    }
    // The SDK never deletes its client: the watchdog must not outlive the host's application.
    // The probe is this program again, started with fork and exec rather than QProcess: under
    // qemu-user QProcess cannot start children at all, and a cross build runs the probe through
    // the same emulator as the test (KELO_TEST_EMULATOR, words separated by "|").
    void watchdogEndsWithApplication()
    {
        QList<QByteArray> words = QByteArray(KELO_TEST_EMULATOR).split('|');
        words.removeAll(QByteArray());
        words.append(QFile::encodeName(QCoreApplication::applicationFilePath()));
        std::vector<char*> argv;
        for (QByteArray& word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        qputenv("KELO_WS_EXIT_PROBE", "1");
        const pid_t pid = fork();
        if (pid == 0) {
            execvp(argv[0], argv.data());
            _exit(127);
        }
        qunsetenv("KELO_WS_EXIT_PROBE");
        QVERIFY(pid > 0);
        int status = 0;
        QCOMPARE(waitpid(pid, &status, 0), pid);
        QVERIFY2(WIFEXITED(status), "the probe crashed");
        QCOMPARE(WEXITSTATUS(status), 0);
    }
    // Last: the SDK's client is never deleted and stays on this cloud. The SDK's cap reaches its
    // client: a notice one byte over it gives no notify(), only the channel going down and up.
    void sdkCapReachesTheChannel()
    {
        cloud.pointSdkHere();
        auto sdk = std::make_unique<Kelosdk>(merchant, QStringLiteral("POS-1"), false);
        QSignalSpy change(sdk.get(), &Kelosdk::cloudConnectionChange);
        QSignalSpy notify(sdk.get(), &Kelosdk::notify);
        QSignalSpy paid(sdk.get(), &Kelosdk::tumipayRequestDone);
        QVERIFY(change.wait(kWait));
        const QString sdkDevice = QJsonDocument::fromJson(cloud->exchanges(commonApi, sessionWord)
                                                              .value(0)
                                                              .param(QStringLiteral("dt"))
                                                              .toUtf8())
                                      .object()
                                      .value(QStringLiteral("devid"))
                                      .toString();
        QTRY_VERIFY(cloud->connectedDevices().contains(sdkDevice));
        sdk->setMaxNotificationSize(64);
        QCOMPARE(sdk->maxNotificationSize(), qint64(64));
        QVERIFY(cloud->pushText(sdkDevice, notice("payment_success", 65)));
        QTRY_COMPARE_WITH_TIMEOUT(change.count(), 3, kWait);
        QCOMPARE(change.at(1), QVariantList{false});
        QCOMPARE(change.at(2), QVariantList{true});
        QTRY_VERIFY(cloud->connectedDevices().contains(sdkDevice));
        QVERIFY(cloud->pushText(sdkDevice, notice("hello", 64)));
        QTRY_COMPARE(notify.count(), 1);
        QCOMPARE(notify.at(0), QVariantList{"hello"});
        QCOMPARE(paid.count(), 0);
    }
};

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsSet("KELO_WS_EXIT_PROBE")) {
        // A host in miniature that leaves its client running when its application goes away;
        // port 1 refuses every connection, so the watchdog keeps retrying as in an outage.
        WSClient* client = nullptr;
        {
            QCoreApplication app(argc, argv);
            client = new WSClient(QUrl("wss://127.0.0.1:1/kelo/ntf/"),
                                  QUrl("https://127.0.0.1:1/kelo/api/common"), merchant, "D1",
                                  false, nullptr);
            client->start();
        }
        const bool watchdogOutlivedApplication = client->isRunning();
        delete client;
        return watchdogOutlivedApplication ? 1 : 0;
    }
    QCoreApplication app(argc, argv);
    TestWSClient test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_wsclient.moc"
