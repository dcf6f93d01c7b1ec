// What the SDK must never do: talk to a server it cannot verify (HTTPS or WSS), or write a
// password or the signing key into the log.
#include "kelosdk.h"
#include "libcmn.h"
#include "logcapture.h"
#include "testcloud.h"
#include "wsclient.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QNetworkReply>
#include <QStandardPaths>
#include <QUuid>
#include <QtTest>

#include <memory>

using kelocloud::CloudReply;
Q_DECLARE_METATYPE(CloudReply)

namespace {

const QString kPassword = QStringLiteral("Tr0ub4dor-kelo-7731");

CloudReply answer(const QByteArray& body, int status = 200)
{
    CloudReply reply;
    reply.status = status;
    reply.body = body;
    return reply;
}

struct StopAndDelete
{
    void operator()(WSClient* client) const
    {
        client->stop();
        client->wait();
        delete client;
    }
};

} // namespace

class TestSecurity : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void httpsRefusesAnUnverifiedServer();
    void wssRefusesAnUnverifiedServer_data();
    void wssRefusesAnUnverifiedServer();
    void secretsNeverReachTheLog_data();
    void secretsNeverReachTheLog();

private:
    TestCloud cloud;
    TestCloud untrusted{TestCloud::Untrusted};
};

void TestSecurity::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY(cloud.start());
    QVERIFY(untrusted.start());
    cloud.pointSdkHere();
}

void TestSecurity::httpsRefusesAnUnverifiedServer()
{
    untrusted.pointSdkHere();
    Kelosdk sdk(QStringLiteral("M01"), QStringLiteral("POS-1"), false);
    cloud.pointSdkHere();
    QSignalSpy netError(&sdk, SIGNAL(networkError(int, QString)));
    QSignalSpy login(&sdk, SIGNAL(userLoginDone(int, QString)));
    QSignalSpy qr(&sdk, SIGNAL(tumiQRInvoiceCode(QString)));
    QSignalSpy connection(&sdk, SIGNAL(cloudConnectionChange(bool)));

    // A GET with the password in its query and the POST of the invoice chain.
    sdk.userLogin(QStringLiteral("anna"), kPassword);
    sdk.tumipayRequest(5, QStringLiteral("Table 3"), QStringLiteral("Bill"));
    QTRY_COMPARE(netError.size(), 2);
    for (const QVariantList& error : qAsConst(netError))
        QCOMPARE(error, (QVariantList{int(QNetworkReply::SslHandshakeFailedError),
                                      QStringLiteral("SSL handshake failed")}));
    QCOMPARE(login.size(), 0);
    QCOMPARE(qr.size(), 0);
    QCOMPARE(connection.count(QVariantList{true}), 0);
    // Not one request (nor the notification session) got through the handshake.
    QCOMPARE(untrusted->exchanges().size(), 0);
    QCOMPARE(untrusted->upgrades().size(), 0);
}

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
    TestCloud& socketServer = trustedSocket ? cloud : untrusted;
    cloud->clearExchanges();
    untrusted->clearExchanges();
    const int upgradesBefore = socketServer->upgrades().size();
    const QString devid = QUuid::createUuid().toString(QUuid::Id128);
    LogCapture log;
    std::unique_ptr<WSClient, StopAndDelete> client(
        new WSClient(QUrl(QStringLiteral("wss://%1/kelo/ntf/").arg(socketServer.hostPort())),
                     cloud.url(QStringLiteral("/kelo/api/common")), QStringLiteral("M01"), devid,
                     true, nullptr));
    QSignalSpy connected(client.get(), &WSClient::connected);
    client->start();

    // The session comes from the trusted API server in both rows.
    QTRY_VERIFY(!cloud->exchanges("/kelo/api/common", QStringLiteral("get_ws_session")).isEmpty());
    if (trustedSocket) {
        QTRY_COMPARE_WITH_TIMEOUT(connected.size(), 1, 10000);
        QCOMPARE(socketServer->upgrades().size(), upgradesBefore + 1);
        return;
    }
    // The socket reports its failed handshake; nothing reached the untrusted server.
    QTRY_VERIFY_WITH_TIMEOUT(log.count(QStringLiteral("WSError: ")) > 0, 10000);
    // QDebug prints this enumerator by name or, in some Qt builds, by number.
    const int handshake = QAbstractSocket::SslHandshakeFailedError;
    QVERIFY2(log.count(QStringLiteral("SslHandshakeFailedError")) +
                     log.count(QStringLiteral("SocketError(%1)").arg(handshake)) >
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
        << answer(R"({"dt":{"staff_id":4,"staff_name":"Anna"},"err":0,"msg":"ok"})");
    QTest::newRow("refused login") << answer(R"({"err":3,"msg":"wrong password"})");
    // Qt's error text for a 500 names the request URL, whose query carries the password.
    QTest::newRow("login answered 500") << answer("", 500);
}

// The whole working day with every log line on: login, menu, tables, order, the signed invoice
// chain (the key signs it) and the signed notification connect.
void TestSecurity::secretsNeverReachTheLog()
{
    QFETCH(CloudReply, loginReply);
    cloud->clearScripts();
    LogCapture log;
    {
        Kelosdk sdk(QStringLiteral("M01"), QStringLiteral("POS-1"), true);
        QSignalSpy connection(&sdk, SIGNAL(cloudConnectionChange(bool)));
        QSignalSpy ended(&sdk, SIGNAL(userLoginDone(int, QString)));
        QSignalSpy netError(&sdk, SIGNAL(networkError(int, QString)));
        QSignalSpy foods(&sdk, SIGNAL(foodsRequestDone(QString)));
        QSignalSpy tables(&sdk, SIGNAL(tableRequestDone(QString)));
        QSignalSpy order(&sdk, SIGNAL(foodOrderRequestDone(QString)));
        QSignalSpy qr(&sdk, SIGNAL(tumiQRInvoiceCode(QString)));
        QVERIFY(connection.wait(10000));

        cloud->scriptReply("/kelo/api/login/", QStringLiteral("client_login"), loginReply);
        sdk.userLogin(QStringLiteral("anna"), kPassword);
        QTRY_COMPARE(ended.size() + netError.size(), 1);
        sdk.foodsRequest();
        sdk.tableRequest();
        sdk.foodOrderRequest(QJsonObject{{"table_id", 3}, {"amount", 5}, {"items", QJsonArray()}});
        sdk.tumipayRequest(5, QStringLiteral("Table 3"), QStringLiteral("Bill"));
        QTRY_VERIFY(!foods.isEmpty() && !tables.isEmpty() && !order.isEmpty() && !qr.isEmpty());
    }

    const QStringList lines = log.lines();
    QVERIFY(lines.size() > 10); // the debug lines are really on
    const QStringList forms{kPassword, QString::fromLatin1(QUrl::toPercentEncoding(kPassword))};
    QStringList leaks;
    for (const QString& line : lines) {
        QVERIFY2(!line.contains(Libcmn::keloSecretkey()), qPrintable(line));
        for (const QString& form : forms)
            if (line.contains(form))
                leaks << line;
    }
    QVERIFY2(leaks.isEmpty(), qPrintable(leaks.join('\n')));
}

QTEST_GUILESS_MAIN(TestSecurity)
#include "tst_security.moc"
