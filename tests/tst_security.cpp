// What the SDK must never do: talk to a server it cannot verify, or write a password or the
// signing key into the log. Every request kind against an untrusted HTTPS server is a column of
// tst_faultmatrix; here the notification socket on a server of its own.
#include "kelosdkfixture.h"
#include "libcmn.h"
#include "logcapture.h"
#include "signalrecorder.h"
#include "wsclient.h"

#include <QUuid>

namespace {

const QString kPassword = QStringLiteral("Tr0ub4dor-kelo-7731");

} // namespace

class TestSecurity : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QVERIFY(f.startCloud() && untrusted.start()); }
    void wssRefusesAnUnverifiedServer_data();
    void wssRefusesAnUnverifiedServer();
    void secretsNeverReachTheLog_data();
    void secretsNeverReachTheLog();

private:
    SdkFixture f;
    TestCloud untrusted{TestCloud::Untrusted};
};

void TestSecurity::wssRefusesAnUnverifiedServer_data()
{
    QTest::addColumn<bool>("trustedSocket");
    // The control row shows that the same client does connect when both servers are trusted.
    QTest::newRow("trusted WebSocket server") << true;
    QTest::newRow("untrusted WebSocket server") << false;
}

void TestSecurity::wssRefusesAnUnverifiedServer()
{
    QFETCH(bool, trustedSocket);
    TestCloud& socketServer = trustedSocket ? f.cloud : untrusted;
    f.cloud->clearExchanges();
    untrusted->clearExchanges();
    const int upgradesBefore = socketServer->upgrades().size();
    LogCapture log;
    const auto stopAndDelete = [](WSClient* c) {
        c->stop();
        c->wait();
        delete c;
    };
    std::unique_ptr<WSClient, decltype(stopAndDelete)> client(
        new WSClient(QUrl(QStringLiteral("wss://%1/kelo/ntf/").arg(socketServer.hostPort())),
                     f.cloud.url(QStringLiteral("/kelo/api/common")),
                     QString::fromLatin1(kMerchant), QUuid::createUuid().toString(QUuid::Id128),
                     true, nullptr),
        stopAndDelete);
    QSignalSpy connected(client.get(), &WSClient::connected);
    client->start();

    // The session comes from the trusted API server in both rows.
    QVERIFY(f.waitExchanges("/kelo/api/common", QStringLiteral("get_ws_session"), 1));
    if (trustedSocket) {
        QVERIFY(connected.wait(kWait));
        QCOMPARE(socketServer->upgrades().size(), upgradesBefore + 1);
        return;
    }
    // The socket reports its failed handshake; nothing reached the untrusted server.
    QTRY_VERIFY_WITH_TIMEOUT(log.count(QStringLiteral("WSError: ")) > 0, kWait);
    // QDebug prints this enumerator by name or, in some Qt builds, by number.
    QVERIFY2(log.count(QStringLiteral("SslHandshakeFailedError")) +
                     log.count(QStringLiteral("SocketError(%1)")
                                   .arg(QAbstractSocket::SslHandshakeFailedError)) >
                 0,
             qPrintable(log.lines().join('\n')));
    QCOMPARE(connected.size(), 0);
    QCOMPARE(untrusted->upgrades().size(), upgradesBefore);
    QCOMPARE(untrusted->exchanges().size(), 0);
    QCOMPARE(untrusted->webSocketCount(), 0);
}

void TestSecurity::secretsNeverReachTheLog_data()
{
    QTest::addColumn<CloudReply>("loginReply");
    QTest::newRow("accepted login")
        << replyWith(R"({"dt":{"staff_id":4,"staff_name":"Anna"},"err":0,"msg":"ok"})");
    QTest::newRow("refused login") << replyWith(R"({"err":3,"msg":"wrong password"})");
    // Qt's error text for a 500 names the request URL, whose query carries the password.
    QTest::newRow("login answered 500") << replyWith("", 500);
}

// The whole working day with every log line on: login, menu, tables, order, the signed invoice
// chain (the key signs it) and the signed notification connect.
void TestSecurity::secretsNeverReachTheLog()
{
    QFETCH(CloudReply, loginReply);
    f.cloud->clearScripts();
    LogCapture log;
    {
        Kelosdk sdk(QString::fromLatin1(kMerchant), QString::fromLatin1(kMachine), true);
        QSignalSpy connection(&sdk, SIGNAL(cloudConnectionChange(bool)));
        SignalRecorder seen(&sdk, {"cloudConnectionChange"});
        QVERIFY(connection.wait(kWait));

        f.cloud->scriptReply("/kelo/api/login/", QStringLiteral("client_login"), loginReply);
        sdk.userLogin(QStringLiteral("anna"), kPassword);
        QTRY_COMPARE_WITH_TIMEOUT(seen["userLoginDone"].size() + seen["networkError"].size(), 1,
                                  kWait);
        sdk.foodsRequest();
        sdk.tableRequest();
        sdk.foodOrderRequest(QJsonObject{{"table_id", 3}, {"amount", 5}, {"items", QJsonArray()}});
        sdk.tumipayRequest(5, QStringLiteral("Table 3"), QStringLiteral("Bill"));
        const QString login = loginReply.status == 500 ? "networkError x1" : "userLoginDone x1";
        QTRY_COMPARE_WITH_TIMEOUT(
            seen.fired(),
            (QStringList{login, "foodsRequestDone x1", "foodOrderRequestDone x1",
                         "tableRequestDone x1", "tumiQRInvoiceCode x1"}),
            kWait);
    }

    const QStringList lines = log.lines();
    QVERIFY(lines.size() > 10); // the debug lines are really on
    const QStringList secrets{kPassword, QString::fromLatin1(QUrl::toPercentEncoding(kPassword)),
                              Libcmn::keloSecretkey()};
    QStringList leaks;
    for (const QString& line : lines)
        for (const QString& secret : secrets)
            if (line.contains(secret))
                leaks << line;
    QVERIFY2(leaks.isEmpty(), qPrintable(leaks.join('\n')));
}

QTEST_GUILESS_MAIN(TestSecurity)
#include "tst_security.moc"
