// The notification client against the local cloud over TLS: session fetch, signed connect,
// frame forwarding, keep-alive pings and the reconnect watchdog.
#include "logcapture.h"
#include "testcloud.h"
#include "wsclient.h"

#include <QProcess>
#include <QTimer>
#include <QUuid>
#include <QtTest>

#include <memory>

using kelocloud::CloudReply;
using kelocloud::CloudUpgrade;

namespace {

const QString merchant = QStringLiteral("M01");
const QByteArray commonApi = "/kelo/api/common";
const QString sessionWord = QStringLiteral("get_ws_session");

struct StopAndDelete
{
    void operator()(WSClient* client) const
    {
        client->stop();
        client->wait();
        delete client;
    }
};
using Client = std::unique_ptr<WSClient, StopAndDelete>;

// Counts the client's keep-alive ticks: event filters see its timer events before it does.
class TickCounter : public QObject
{
public:
    explicit TickCounter(QObject* client) { client->installEventFilter(this); }
    int ticks = 0;

protected:
    bool eventFilter(QObject*, QEvent* event) override
    {
        if (event->type() == QEvent::Timer)
            ++ticks;
        return false;
    }
};

CloudReply answer(int status, const QByteArray& body)
{
    CloudReply reply;
    reply.status = status;
    reply.body = body;
    return reply;
}

} // namespace

class TestWSClient : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void forwardsFramesUnchanged_data();
    void forwardsFramesUnchanged();
    void connectsWithSignedSessionQuietly();
    void refusedUpgradeNeverConnects_data();
    void refusedUpgradeNeverConnects();
    void fetchInFlightBlocksFurtherFetches();
    void slow_failedSessionFetchRetriedByWatchdog_data();
    void slow_failedSessionFetchRetriedByWatchdog();
    void slow_outageReconnectsWithFreshSession();
    void slow_pongTimeoutClosesOnFourthTick();
    void slow_pongAfterTwoMissedPingsKeepsConnection();
    void watchdogEndsWithApplication();

private:
    Client makeClient(bool debug = false);
    QList<CloudUpgrade> newUpgrades() { return cloud->upgrades().mid(upgradesBefore); }
    int sessionFetches() { return cloud->exchanges(commonApi, sessionWord).size(); }

    TestCloud cloud;
    QString devid;
    int upgradesBefore = 0;
};

Client TestWSClient::makeClient(bool debug)
{
    return Client(new WSClient(QUrl(QStringLiteral("wss://%1/kelo/ntf/").arg(cloud.hostPort())),
                               cloud.url(QStringLiteral("/kelo/api/common")), merchant, devid,
                               debug, nullptr));
}

void TestWSClient::initTestCase()
{
    QVERIFY(cloud.start());
}

void TestWSClient::init()
{
    if (!cloud->isUp())
        QVERIFY(cloud->comeBack());
    cloud->setAnswerPings(true);
    cloud->clearScripts();
    cloud->clearExchanges();
    upgradesBefore = cloud->upgrades().size();
    devid = QUuid::createUuid().toString(QUuid::Id128);
}

void TestWSClient::forwardsFramesUnchanged_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::newRow("notification") << QByteArray(
        R"({"dt":{"invoice_code":"I-7"},"err":0,"msg":"payment_success","type":1})");
    QTest::newRow("non-ASCII") << QByteArray(u8"{\"msg\":\"Café 北京 🍜 ß\"}");
    QTest::newRow("not JSON") << QByteArray("plain text & \"quotes\"\n\ttabs");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("70 kB") << QByteArray(70000, 'x');
}

void TestWSClient::forwardsFramesUnchanged()
{
    QFETCH(QByteArray, frame);
    LogCapture log;
    Client client = makeClient(true);
    QSignalSpy connectedSpy(client.get(), &WSClient::connected);
    QSignalSpy closedSpy(client.get(), &WSClient::closed);
    QSignalSpy textSpy(client.get(), &WSClient::textMessageReceived);
    client->start();
    QVERIFY(connectedSpy.wait(10000));
    QTRY_VERIFY(cloud->connectedDevices().contains(devid));
    QVERIFY(cloud->pushText(devid, frame));
    QVERIFY(textSpy.wait());
    QCOMPARE(textSpy.count(), 1);
    QCOMPARE(textSpy.at(0).at(0).toString(), QString::fromUtf8(frame));
    QCOMPARE(connectedSpy.count(), 1);
    QCOMPARE(closedSpy.count(), 0);
    // Frames bypass the logging slot.
    QCOMPARE(log.count(QStringLiteral("Message received:")), 0);
}

void TestWSClient::connectsWithSignedSessionQuietly()
{
    LogCapture log;
    Client client = makeClient(false);
    QSignalSpy connectedSpy(client.get(), &WSClient::connected);
    client->start();
    QVERIFY(connectedSpy.wait(10000));

    const auto fetches = cloud->exchanges(commonApi, sessionWord);
    QCOMPARE(fetches.size(), 1);
    QCOMPARE(fetches[0].method, QByteArray("POST"));
    QCOMPARE(fetches[0].param(QStringLiteral("dt")),
             QStringLiteral(R"({"devid":"%1","merchant_code":"M01"})").arg(devid));

    QCOMPARE(cloud->exchanges("/kelo/ntf/").size(), 1);
    const auto upgrades = newUpgrades();
    QCOMPARE(upgrades.size(), 1);
    QVERIFY(upgrades[0].accepted);
    const QString session = upgrades[0].query.queryItemValue(QStringLiteral("ws_session"));
    QVERIFY(!session.isEmpty());
    const QString tk = cloud->state().sign((merchant + devid + session).toUtf8());
    QCOMPARE(upgrades[0].query.query(QUrl::FullyDecoded),
             QStringLiteral("appuser=M01&devid=%1&ws_session=%2&tk=%3").arg(devid, session, tk));

    client->sendTextMessage(QStringLiteral("hello"));
    QCOMPARE(log.lines(), QStringList()); // debug off: not one line, whatever happens
}

void TestWSClient::refusedUpgradeNeverConnects_data()
{
    QTest::addColumn<QString>("session");
    QTest::newRow("unknown session") << QStringLiteral("0123456789abcdef");
    QTest::newRow("empty session") << QString();
}

void TestWSClient::refusedUpgradeNeverConnects()
{
    QFETCH(QString, session);
    LogCapture log;
    Client client = makeClient(true);
    QSignalSpy connectedSpy(client.get(), &WSClient::connected);
    client->openConnection(session); // signed correctly, but for a session the server never gave
    QTRY_VERIFY(
        log.lines().contains(QStringLiteral("WSError: QAbstractSocket::ConnectionRefusedError")));
    const auto upgrades = newUpgrades();
    QCOMPARE(upgrades.size(), 1);
    QVERIFY(!upgrades[0].accepted);
    QCOMPARE(upgrades[0].query.queryItemValue(QStringLiteral("ws_session")), session);
    QCOMPARE(connectedSpy.count(), 0);
}

void TestWSClient::fetchInFlightBlocksFurtherFetches()
{
    CloudReply slow = answer(200, R"({"dt":{"ws_session":"S-late"},"err":0,"msg":"ok"})");
    slow.delayMs = 1500;
    cloud->scriptReply(commonApi, sessionWord, slow);
    Client client = makeClient();
    client->start();
    emit client->reconnect();
    emit client->reconnect();
    client->getSession();
    // The late answer is used (the server refuses its made-up session); a second fetch would
    // have reached the server long before.
    QTRY_COMPARE(newUpgrades().size(), 1);
    QCOMPARE(newUpgrades()[0].query.queryItemValue(QStringLiteral("ws_session")),
             QStringLiteral("S-late"));
    QCOMPARE(sessionFetches(), 1);
}

void TestWSClient::slow_failedSessionFetchRetriedByWatchdog_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");
    QTest::newRow("refusal") << 200 << QByteArray(R"({"err":5,"msg":"busy"})");
    QTest::newRow("HTTP 500") << 500 << QByteArray();
}

void TestWSClient::slow_failedSessionFetchRetriedByWatchdog()
{
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    cloud->scriptReply(commonApi, sessionWord, answer(status, body));
    Client client = makeClient();
    QSignalSpy connectedSpy(client.get(), &WSClient::connected);
    QSignalSpy closedSpy(client.get(), &WSClient::closed);
    client->start();
    // The watchdog waits 6 s while the first fetch is busy, then 3 s, then fetches again.
    QVERIFY(connectedSpy.wait(15000));
    QCOMPARE(sessionFetches(), 2);
    const auto upgrades = newUpgrades();
    QCOMPARE(upgrades.size(), 1); // nothing was opened on the failed answer
    QVERIFY(upgrades[0].accepted);
    QCOMPARE(connectedSpy.count(), 1);
    QCOMPARE(closedSpy.count(), 0);
}

void TestWSClient::slow_outageReconnectsWithFreshSession()
{
    Client client = makeClient(true);
    QSignalSpy connectedSpy(client.get(), &WSClient::connected);
    QSignalSpy closedSpy(client.get(), &WSClient::closed);
    client->start();
    QVERIFY(connectedSpy.wait(10000));

    LogCapture log;
    cloud->goDown();
    QVERIFY(closedSpy.wait());
    // A fetch tried during the outage fails at the transport.
    QTRY_VERIFY_WITH_TIMEOUT(log.count(QStringLiteral("//error:")) > 0, 15000);
    QVERIFY(cloud->comeBack());
    QTRY_COMPARE_WITH_TIMEOUT(connectedSpy.count(), 2, 10000);

    QCOMPARE(sessionFetches(), 2);
    const auto upgrades = newUpgrades();
    QCOMPARE(upgrades.size(), 2);
    QVERIFY(upgrades[1].accepted);
    QVERIFY(upgrades[1].query.queryItemValue(QStringLiteral("ws_session")) !=
            upgrades[0].query.queryItemValue(QStringLiteral("ws_session")));
}

void TestWSClient::slow_pongTimeoutClosesOnFourthTick()
{
    Client client = makeClient();
    TickCounter counter(client.get());
    QList<int> closedAtTick;
    connect(client.get(), &WSClient::closed, &counter, [&] { closedAtTick << counter.ticks; });
    QSignalSpy connectedSpy(client.get(), &WSClient::connected);
    client->start();
    QVERIFY(connectedSpy.wait(10000));
    const int last = counter.ticks;
    cloud->setAnswerPings(false);
    // Later fetches fail, so only the ticks speak while the connection is down.
    cloud->scriptReply(commonApi, sessionWord, answer(200, R"({"err":5})"), 100);

    QTRY_VERIFY_WITH_TIMEOUT(closedAtTick.contains(last + 6), 25000);
    // Tick 4 closes (and the socket's disconnect passes through once more); every later tick
    // declares the connection closed again.
    QCOMPARE(closedAtTick, QList<int>({last + 4, last + 4, last + 5, last + 6}));
    QCOMPARE(connectedSpy.count(), 1);
}

void TestWSClient::slow_pongAfterTwoMissedPingsKeepsConnection()
{
    Client client = makeClient();
    TickCounter counter(client.get());
    QSignalSpy connectedSpy(client.get(), &WSClient::connected);
    QSignalSpy closedSpy(client.get(), &WSClient::closed);
    client->start();
    QVERIFY(connectedSpy.wait(10000));
    const int last = counter.ticks;
    cloud->setAnswerPings(false);
    QTRY_COMPARE_WITH_TIMEOUT(counter.ticks, last + 2, 10000);
    cloud->setAnswerPings(true); // the third ping is answered
    QTRY_COMPARE_WITH_TIMEOUT(counter.ticks, last + 4, 10000);
    QCOMPARE(closedSpy.count(), 0);
    QCOMPARE(connectedSpy.count(), 1);
    QCOMPARE(newUpgrades().size(), 1);
}

// The SDK never deletes its client: the watchdog must not outlive the host's application.
void TestWSClient::watchdogEndsWithApplication()
{
    QProcess probe;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("KELO_WS_EXIT_PROBE"), QStringLiteral("1"));
    probe.setProcessEnvironment(env);
    probe.start(QCoreApplication::applicationFilePath(), QStringList());
    QVERIFY(probe.waitForFinished(30000));
    QCOMPARE(probe.exitStatus(), QProcess::NormalExit);
    QCOMPARE(probe.exitCode(), 0);
}

// A host in miniature that leaves its client running when its application object goes away.
static int runExitProbe(int argc, char** argv)
{
    WSClient* client = nullptr;
    {
        QCoreApplication app(argc, argv);
        // Port 1 refuses every connection, so the watchdog keeps retrying as in an outage.
        client = new WSClient(QUrl(QStringLiteral("wss://127.0.0.1:1/kelo/ntf/")),
                              QUrl(QStringLiteral("https://127.0.0.1:1/kelo/api/common")), merchant,
                              QStringLiteral("D1"), false, nullptr);
        client->start();
        QTimer::singleShot(500, &app, &QCoreApplication::quit);
        app.exec();
    }
    const bool watchdogOutlivedApplication = client->isRunning();
    delete client;
    return watchdogOutlivedApplication ? 1 : 0;
}

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsSet("KELO_WS_EXIT_PROBE"))
        return runExitProbe(argc, argv);
    QCoreApplication app(argc, argv);
    TestWSClient test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_wsclient.moc"
