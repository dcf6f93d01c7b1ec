// The local cloud as Qt clients see it: TLS trust, request records, scripted answers and faults,
// the notification WebSocket, outages, the CA files and the standalone tool.
#include "replyoutcome.h"
#include "testcloud.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QSslSocket>
#include <QTemporaryDir>
#include <QWebSocket>
#include <QtTest>

#include <memory>

using kelocloud::CloudOptions;
using kelocloud::CloudReply;
using kelocloud::CloudServer;
using Fault = kelocloud::CloudReply::Fault;

namespace {

using Outcome = ReplyOutcome;

Outcome finish(QNetworkReply* reply)
{
    return finishReply(reply);
}

CloudReply fault(Fault kind, const QByteArray& body = {})
{
    CloudReply reply;
    reply.fault = kind;
    reply.body = body;
    return reply;
}

const QString merchant = QStringLiteral("M01");

} // namespace

class TestCloudServer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanup();

    void getIsAnsweredAndRecorded_data();
    void getIsAnsweredAndRecorded();
    void formPostIsRecorded();
    void scriptsMatchInOrderByPathAndCm_data();
    void scriptsMatchInOrderByPathAndCm();
    void scriptedStatusHeadersAndBody();
    void putFileIsServed();
    void malformedRequestGets400();

    void faultsEndInNetworkErrors_data();
    void faultsEndInNetworkErrors();
    void neverAnswerHoldsUntilAbort();
    void delayedAnswerDoesNotBlockOthers();
    void untrustedServerFailsTls();

    void upgradeAdmission_data();
    void upgradeAdmission();
    void pushReachesOnlyItsDevice();
    void pingsStopBeingAnsweredWhenSwitchedOff();
    void dropWebSocketsClosesAbruptly();
    void outageAndComeBackOnSamePort();

    void caIsReusedOnlyWhenAsked();
    void stopIsSafeInAnyState();
    void standaloneToolPrintsItsAddressAndQuitsOnSigterm();

private:
    QNetworkReply* get(const QString& pathAndQuery, const QByteArray& probe = {});
    QNetworkReply* post(const QString& path, const QByteArray& form);
    QString wsSession(const QString& devid);
    QUrl socketUrl(const QString& devid, const QString& session, const QString& tk) const;
    /// Opens @p socket as device @p devid with a good session and signature.
    bool openSocket(QWebSocket& socket, const QString& devid);

    TestCloud cloud;
    std::unique_ptr<QNetworkAccessManager> nam;
};

void TestCloudServer::initTestCase()
{
    QVERIFY(cloud.start());
    QVERIFY(cloud->isUp());
    QVERIFY(cloud->port() > 0);
    nam = std::make_unique<QNetworkAccessManager>();
}

void TestCloudServer::cleanup()
{
    cloud->clearScripts();
    cloud->clearExchanges();
    cloud->setAnswerPings(true);
    cloud->setRefuseUpgrades(false);
    cloud->dropWebSockets();
    QTRY_COMPARE(cloud->webSocketCount(), 0);
}

QNetworkReply* TestCloudServer::get(const QString& pathAndQuery, const QByteArray& probe)
{
    QNetworkRequest request(cloud.url(pathAndQuery));
    if (!probe.isEmpty())
        request.setRawHeader("X-Probe", probe);
    return nam->get(request);
}

QNetworkReply* TestCloudServer::post(const QString& path, const QByteArray& form)
{
    QNetworkRequest request(cloud.url(path));
    request.setHeader(QNetworkRequest::ContentTypeHeader, "application/x-www-form-urlencoded");
    return nam->post(request, form);
}

QString TestCloudServer::wsSession(const QString& devid)
{
    const QByteArray dt = QJsonDocument(QJsonObject{{"devid", devid}, {"merchant_code", merchant}})
                              .toJson(QJsonDocument::Compact);
    QUrlQuery form;
    form.addQueryItem("cm", "get_ws_session");
    form.addQueryItem("dt", QString::fromUtf8(dt));
    const Outcome outcome = finish(post("/kelo/api/common", form.query().toUtf8()));
    return QJsonDocument::fromJson(outcome.body)["dt"]["ws_session"].toString();
}

QUrl TestCloudServer::socketUrl(const QString& devid, const QString& session,
                                const QString& tk) const
{
    return QUrl(QStringLiteral("wss://%1/kelo/ntf/?appuser=%2&devid=%3&ws_session=%4&tk=%5")
                    .arg(cloud.hostPort(), merchant, devid, session, tk));
}

bool TestCloudServer::openSocket(QWebSocket& socket, const QString& devid)
{
    const QString session = wsSession(devid);
    QSignalSpy connected(&socket, &QWebSocket::connected);
    socket.open(
        socketUrl(devid, session, cloud->state().sign((merchant + devid + session).toUtf8())));
    return connected.wait(15000);
}

void TestCloudServer::getIsAnsweredAndRecorded_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QByteArray>("query");
    QTest::addColumn<bool>("hasQuery");
    QTest::addColumn<int>("status");

    QTest::newRow("api with query")
        << "/kelo/api/item/?cm=getlist&dt=%7B%22a%22%3A1%7D" << QByteArray("/kelo/api/item/")
        << QByteArray("cm=getlist&dt=%7B%22a%22%3A1%7D") << true << 200;
    QTest::newRow("api, empty query")
        << "/kelo/api/login/?" << QByteArray("/kelo/api/login/") << QByteArray() << true << 200;
    QTest::newRow("api, no query")
        << "/kelo/api/invoice" << QByteArray("/kelo/api/invoice") << QByteArray() << false << 200;
    QTest::newRow("unknown path") << "/elsewhere/x?y=1" << QByteArray("/elsewhere/x")
                                  << QByteArray("y=1") << true << 404;
}

void TestCloudServer::getIsAnsweredAndRecorded()
{
    QFETCH(QString, target);
    QFETCH(QByteArray, path);
    QFETCH(QByteArray, query);
    QFETCH(bool, hasQuery);
    QFETCH(int, status);

    const Outcome outcome = finish(get(target, "probe-1"));
    QCOMPARE(outcome.status, status);
    QCOMPARE(outcome.error,
             status == 200 ? QNetworkReply::NoError : QNetworkReply::ContentNotFoundError);
    const auto exchanges = cloud->exchanges();
    QCOMPARE(exchanges.size(), 1);
    const kelocloud::CloudExchange& exchange = exchanges.first();
    QCOMPARE(exchange.method, QByteArray("GET"));
    QCOMPARE(exchange.target, target.toUtf8());
    QCOMPARE(exchange.path, path);
    QCOMPARE(exchange.query, query);
    QCOMPARE(exchange.hasQuery, hasQuery);
    QCOMPARE(exchange.header("x-probe"), QByteArray("probe-1"));
    QCOMPARE(exchange.header("Host"), cloud.hostPort().toUtf8());
    QVERIFY(!exchange.hasHeader("Content-Type"));
    QCOMPARE(exchange.headers.first().first, QByteArray("Host")); // Qt sends Host first
    if (status == 200) // the merchant answered with its envelope, whatever it made of the call
        QVERIFY(QJsonDocument::fromJson(outcome.body).object().contains(QStringLiteral("err")));
}

void TestCloudServer::formPostIsRecorded()
{
    const QByteArray form =
        "cm=get_ws_session&dt=%7B%22devid%22%3A%22D%201%22%2C%22merchant_code%22%3A%22M01%22%7D";
    const Outcome outcome = finish(post("/kelo/api/common", form));
    QCOMPARE(outcome.error, QNetworkReply::NoError);
    QVERIFY(!QJsonDocument::fromJson(outcome.body)["dt"]["ws_session"].toString().isEmpty());

    const auto exchanges = cloud->exchanges("/kelo/api/common", "get_ws_session");
    QCOMPARE(exchanges.size(), 1);
    QCOMPARE(exchanges.first().method, QByteArray("POST"));
    QCOMPARE(exchanges.first().body, form);
    QCOMPARE(exchanges.first().hasQuery, false);
    QCOMPARE(exchanges.first().header("Content-Type"),
             QByteArray("application/x-www-form-urlencoded"));
    QCOMPARE(exchanges.first().param("dt"),
             QStringLiteral(R"({"devid":"D 1","merchant_code":"M01"})"));
    QCOMPARE(cloud->exchanges("/kelo/api/common", "other").size(), 0);
}

void TestCloudServer::scriptsMatchInOrderByPathAndCm_data()
{
    // Scripts registered in order: 501 for cm=a once, 502 for any cm twice, 503 under /other/.
    QTest::addColumn<QStringList>("requests"); // path?cm=
    QTest::addColumn<QList<int>>("statuses");

    QTest::newRow("cm script first, then the catch-all twice, then normal")
        << QStringList{"/kelo/api/item/?cm=a", "/kelo/api/item/?cm=a", "/kelo/api/item/?cm=b",
                       "/kelo/api/item/?cm=a"}
        << QList<int>{501, 502, 502, 200};
    QTest::newRow("another cm skips the cm script")
        << QStringList{"/kelo/api/item/?cm=b", "/kelo/api/item/?cm=a", "/kelo/api/item/?cm=c",
                       "/kelo/api/item/?cm=c"}
        << QList<int>{502, 501, 502, 200};
    QTest::newRow("prefix decides")
        << QStringList{"/other/x", "/othe", "/other/"} << QList<int>{503, 404, 404};
    QTest::newRow("cm decoded before matching")
        << QStringList{"/kelo/api/table/?cm=%61"} << QList<int>{501};
}

void TestCloudServer::scriptsMatchInOrderByPathAndCm()
{
    QFETCH(QStringList, requests);
    QFETCH(QList<int>, statuses);
    CloudReply reply;
    reply.status = 501;
    cloud->scriptReply("/kelo/api/", "a", reply);
    reply.status = 502;
    cloud->scriptReply("/kelo/api/", {}, reply, 2);
    reply.status = 503;
    cloud->scriptReply("/other/", {}, reply);

    QList<int> seen;
    for (const QString& request : requests)
        seen.append(finish(get(request)).status);
    QCOMPARE(seen, statuses);
}

void TestCloudServer::scriptedStatusHeadersAndBody()
{
    CloudReply redirect;
    redirect.status = 302;
    redirect.headers = {{"Location", "https://127.0.0.1:1/moved"}};
    cloud->scriptReply("/kelo/api/login/", "client_login", redirect);
    CloudReply refusal;
    refusal.status = 200;
    refusal.body = R"({"err":7,"msg":"refused"})";
    cloud->scriptReply("/kelo/api/login/", {}, refusal);

    const Outcome first = finish(get("/kelo/api/login/?cm=client_login"));
    QCOMPARE(first.status, 302);
    QCOMPARE(first.location, QByteArray("https://127.0.0.1:1/moved"));
    const Outcome second = finish(get("/kelo/api/login/?cm=client_login"));
    QCOMPARE(second.status, 200);
    QCOMPARE(second.body, refusal.body);
}

void TestCloudServer::putFileIsServed()
{
    const QByteArray png = QByteArray("\x89PNG\r\n\x1a\n", 8) + QByteArray(3000, 'p');
    cloud->putFile("/img/a.png", png);
    QNetworkReply* reply = get("/img/a.png");
    QSignalSpy finished(reply, &QNetworkReply::finished);
    QVERIFY(finished.wait(15000));
    QCOMPARE(reply->header(QNetworkRequest::ContentTypeHeader).toString(), QString("image/png"));
    QCOMPARE(reply->readAll(), png);
    reply->deleteLater();
    QCOMPARE(finish(get("/img/a.png?v=2")).body, png); // the query does not matter
    QCOMPARE(finish(get("/img/b.png")).status, 404);
}

void TestCloudServer::malformedRequestGets400()
{
    QSslSocket socket;
    socket.connectToHostEncrypted("127.0.0.1", cloud->port());
    QVERIFY(socket.waitForEncrypted(15000));
    socket.write("NOT HTTP AT ALL\r\n\r\n");
    QSignalSpy disconnected(&socket, &QSslSocket::disconnected);
    QVERIFY(disconnected.wait(15000));
    QVERIFY2(socket.readAll().startsWith("HTTP/1.1 400 Bad Request\r\n"), "no 400 answer");
    QCOMPARE(cloud->exchanges().size(), 0);
    QCOMPARE(finish(get("/kelo/api/item/")).error, QNetworkReply::NoError);
}

void TestCloudServer::faultsEndInNetworkErrors_data()
{
    QTest::addColumn<int>("fault");
    QTest::addColumn<int>("times");
    QTest::addColumn<int>("error");
    // Qt sends a request again (three times at most) when the connection closes before any
    // byte of the answer, so a reset before the headers must be scripted four times to be seen.
    QTest::newRow("reset before headers")
        << int(Fault::ResetBeforeHeaders) << 4 << int(QNetworkReply::RemoteHostClosedError);
    QTest::newRow("reset mid body")
        << int(Fault::ResetMidBody) << 1 << int(QNetworkReply::RemoteHostClosedError);
}

void TestCloudServer::faultsEndInNetworkErrors()
{
    QFETCH(int, fault);
    QFETCH(int, times);
    QFETCH(int, error);
    cloud->scriptReply("/kelo/api/item/", "getlist", ::fault(Fault(fault), QByteArray(4000, 'b')),
                       times);
    const Outcome outcome = finish(get("/kelo/api/item/?cm=getlist"));
    QCOMPARE(int(outcome.error), error);
    QCOMPARE(cloud->exchanges().size(), times);
    // The server keeps serving, on a fresh connection.
    QCOMPARE(finish(get("/kelo/api/item/?cm=getlist")).error, QNetworkReply::NoError);
}

void TestCloudServer::neverAnswerHoldsUntilAbort()
{
    cloud->scriptReply("/kelo/api/table/", {}, fault(Fault::NeverAnswer));
    QNetworkReply* reply = get("/kelo/api/table/?cm=gettables");
    QSignalSpy finished(reply, &QNetworkReply::finished);
    QTRY_COMPARE(cloud->exchanges().size(), 1);
    QCOMPARE(finished.count(), 0);
    reply->abort();
    QCOMPARE(finished.count(), 1);
    QCOMPARE(finish(reply).error, QNetworkReply::OperationCanceledError);
}

void TestCloudServer::delayedAnswerDoesNotBlockOthers()
{
    CloudReply slow;
    slow.delayMs = 1500;
    slow.body = "slow";
    cloud->scriptReply("/kelo/api/item/", {}, slow);
    QNetworkReply* first = get("/kelo/api/item/?cm=getlist");
    QTRY_COMPARE(cloud->exchanges().size(), 1);
    const Outcome second = finish(get("/kelo/api/table/?cm=gettables"));
    QCOMPARE(second.error, QNetworkReply::NoError);
    QVERIFY(!first->isFinished());
    const Outcome delayed = finish(first);
    QCOMPARE(delayed.error, QNetworkReply::NoError);
    QCOMPARE(delayed.body, QByteArray("slow"));
}

void TestCloudServer::untrustedServerFailsTls()
{
    TestCloud other(TestCloud::Untrusted);
    QVERIFY(other.start());
    QVERIFY(other->caCertificatePem() != cloud->caCertificatePem());
    QNetworkAccessManager manager;
    QNetworkReply* reply = manager.get(QNetworkRequest(other.url("/kelo/api/item/?cm=getlist")));
    QSignalSpy sslErrors(reply, &QNetworkReply::sslErrors);
    const Outcome outcome = finish(reply);
    QCOMPARE(outcome.error, QNetworkReply::SslHandshakeFailedError);
    QCOMPARE(sslErrors.count(), 1);
    QCOMPARE(other->exchanges().size(), 0);

    QWebSocket socket;
    QSignalSpy connected(&socket, &QWebSocket::connected);
    QSignalSpy sslSocketErrors(&socket, &QWebSocket::sslErrors);
    QSignalSpy disconnected(&socket, &QWebSocket::disconnected);
    socket.open(QUrl("wss://" + other.hostPort() + "/kelo/ntf/?appuser=M"));
    QVERIFY(disconnected.wait(15000));
    QCOMPARE(connected.count(), 0);
    QCOMPARE(sslSocketErrors.count(), 1);
    QCOMPARE(other->exchanges().size(), 0);
    QCOMPARE(other->upgrades().size(), 0);
}

void TestCloudServer::upgradeAdmission_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("good signature") << "good" << true;
    QTest::newRow("bad signature") << "bad tk" << false;
    QTest::newRow("unknown session") << "unknown session" << false;
    QTest::newRow("upgrades refused") << "refuse" << false;
    QTest::newRow("scripted answer") << "scripted" << false;
}

void TestCloudServer::upgradeAdmission()
{
    QFETCH(QString, how);
    QFETCH(bool, accepted);
    const QString devid = "d1";
    QString session = wsSession(devid);
    QString tk = cloud->state().sign((merchant + devid + session).toUtf8());
    if (how == "bad tk")
        tk = cloud->state().sign("something else");
    if (how == "unknown session") {
        session = "0123456789abcdef0123456789abcdef";
        tk = cloud->state().sign((merchant + devid + session).toUtf8());
    }
    cloud->setRefuseUpgrades(how == "refuse");
    if (how == "scripted")
        cloud->scriptReply("/kelo/ntf/", {}, CloudReply());
    cloud->clearExchanges();

    QWebSocket socket;
    QSignalSpy connected(&socket, &QWebSocket::connected);
    QSignalSpy disconnected(&socket, &QWebSocket::disconnected);
    QSignalSpy errors(&socket, QOverload<QAbstractSocket::SocketError>::of(&QWebSocket::error));
    socket.open(socketUrl(devid, session, tk));
    QVERIFY(accepted ? connected.wait(15000) : disconnected.wait(15000));
    QCOMPARE(connected.count(), accepted ? 1 : 0);
    QCOMPARE(errors.isEmpty(), accepted);
    QTRY_COMPARE(cloud->webSocketCount(), accepted ? 1 : 0);
    QCOMPARE(cloud->connectedDevices(), accepted ? QStringList{devid} : QStringList());

    const auto upgrades = cloud->upgrades();
    QCOMPARE(upgrades.size(), 1);
    QCOMPARE(upgrades.first().accepted, accepted);
    QCOMPARE(upgrades.first().query.queryItemValue("appuser"), merchant);
    QCOMPARE(upgrades.first().query.queryItemValue("ws_session"), session);
    QCOMPARE(upgrades.first().query.queryItemValue("tk"), tk);
    const auto exchanges = cloud->exchanges("/kelo/ntf/");
    QCOMPARE(exchanges.size(), 1);
    QCOMPARE(exchanges.first().header("Upgrade").toLower(), QByteArray("websocket"));
}

void TestCloudServer::pushReachesOnlyItsDevice()
{
    QWebSocket first;
    QWebSocket second;
    QVERIFY(openSocket(first, "dev-a"));
    QVERIFY(openSocket(second, "dev-b"));
    QTRY_COMPARE(cloud->webSocketCount(), 2);
    QStringList devices = cloud->connectedDevices();
    devices.sort();
    QCOMPARE(devices, QStringList({"dev-a", "dev-b"}));

    QSignalSpy firstTexts(&first, &QWebSocket::textMessageReceived);
    QSignalSpy secondTexts(&second, &QWebSocket::textMessageReceived);
    const QByteArray notice = R"({"dt":{"invoice_code":"é1"},"err":0,"msg":"","type":"x"})";
    QVERIFY(cloud->pushText("dev-a", notice));
    QVERIFY(!cloud->pushText("dev-c", "nobody"));
    QCOMPARE(cloud->pushAll("to all"), 2);
    QTRY_COMPARE(firstTexts.count(), 2);
    QTRY_COMPARE(secondTexts.count(), 1);
    QCOMPARE(firstTexts.at(0).at(0).toString(), QString::fromUtf8(notice));
    QCOMPARE(firstTexts.at(1).at(0).toString(), QString("to all"));
    QCOMPARE(secondTexts.at(0).at(0).toString(), QString("to all"));

    // A client's normal close takes its socket off the list.
    first.close();
    QTRY_COMPARE(cloud->connectedDevices(), QStringList{"dev-b"});
}

void TestCloudServer::pingsStopBeingAnsweredWhenSwitchedOff()
{
    QWebSocket socket;
    QVERIFY(openSocket(socket, "dev-p"));
    QSignalSpy pongs(&socket, &QWebSocket::pong);
    QSignalSpy texts(&socket, &QWebSocket::textMessageReceived);

    socket.ping("one");
    QVERIFY(pongs.wait(15000));
    QCOMPARE(pongs.last().at(1).toByteArray(), QByteArray("one"));

    cloud->setAnswerPings(false);
    const int pingsBefore = cloud->pingCount();
    socket.ping("two");
    QTRY_COMPARE(cloud->pingCount(), pingsBefore + 1);
    // A pong would have been written before this text, so once the text is here none came.
    QVERIFY(cloud->pushText("dev-p", "after ping"));
    QVERIFY(texts.wait(15000));
    QCOMPARE(pongs.count(), 1);
    QCOMPARE(cloud->webSocketCount(), 1);

    cloud->setAnswerPings(true);
    socket.ping("three");
    QVERIFY(pongs.wait(15000));
    QCOMPARE(pongs.count(), 2);
    QCOMPARE(pongs.last().at(1).toByteArray(), QByteArray("three"));
}

void TestCloudServer::dropWebSocketsClosesAbruptly()
{
    QWebSocket socket;
    QVERIFY(openSocket(socket, "dev-d"));
    QSignalSpy disconnected(&socket, &QWebSocket::disconnected);
    QSignalSpy errors(&socket, QOverload<QAbstractSocket::SocketError>::of(&QWebSocket::error));
    cloud->dropWebSockets();
    QVERIFY(disconnected.wait(15000));
    QCOMPARE(errors.count(), 1);
    QCOMPARE(errors.first().at(0).value<QAbstractSocket::SocketError>(),
             QAbstractSocket::RemoteHostClosedError);
    QCOMPARE(cloud->webSocketCount(), 0);
    QVERIFY(!cloud->pushText("dev-d", "gone"));
}

void TestCloudServer::outageAndComeBackOnSamePort()
{
    const quint16 port = cloud->port();
    QWebSocket socket;
    QVERIFY(openSocket(socket, "dev-o"));
    cloud->scriptReply("/kelo/api/table/", {}, fault(Fault::NeverAnswer));
    QNetworkReply* held = get("/kelo/api/table/");
    QTRY_COMPARE(cloud->exchanges("/kelo/api/table/").size(), 1);
    QSignalSpy disconnected(&socket, &QWebSocket::disconnected);

    cloud->goDown();
    QVERIFY(!cloud->isUp());
    // Qt sends the held request again after the reset, and finds the port closed.
    QCOMPARE(finish(held).error, QNetworkReply::ConnectionRefusedError);
    QTRY_COMPARE(disconnected.count(), 1);
    QCOMPARE(cloud->webSocketCount(), 0);
    QCOMPARE(finish(get("/kelo/api/item/")).error, QNetworkReply::ConnectionRefusedError);

    QVERIFY(cloud->comeBack());
    QVERIFY(cloud->isUp());
    QCOMPARE(cloud->port(), port);
    QCOMPARE(finish(get("/kelo/api/item/")).error, QNetworkReply::NoError);
    QVERIFY(cloud->comeBack()); // already up: nothing to do
}

void TestCloudServer::caIsReusedOnlyWhenAsked()
{
    QTemporaryDir dir;
    CloudOptions options;
    options.caDir = dir.path();
    QByteArray firstPem;
    {
        CloudServer server(options);
        QVERIFY(server.start());
        firstPem = server.caCertificatePem();
        QCOMPARE(server.caCertificatePath(), dir.filePath("ca.pem"));
        QVERIFY(QFileInfo(dir.filePath("ca.key")).isFile());
        QCOMPARE(QFileInfo(dir.filePath("ca.key")).permissions() & QFileDevice::ReadOther,
                 QFileDevice::Permissions());
    }
    {
        CloudServer server(options);
        QVERIFY(server.start());
        QCOMPARE(server.caCertificatePem(), firstPem);
    }
    options.reuseCa = false;
    CloudServer fresh(options);
    QVERIFY(fresh.start());
    QVERIFY(fresh.caCertificatePem() != firstPem);
    QFile written(dir.filePath("ca.pem"));
    QVERIFY(written.open(QIODevice::ReadOnly));
    QCOMPARE(written.readAll(), fresh.caCertificatePem());

    // A damaged key is replaced by a new CA, even when reuse is asked.
    fresh.stop();
    QFile key(dir.filePath("ca.key"));
    QVERIFY(key.open(QIODevice::WriteOnly | QIODevice::Truncate));
    key.write("garbage");
    key.close();
    options.reuseCa = true;
    CloudServer repaired(options);
    QVERIFY(repaired.start());
    QVERIFY(repaired.caCertificatePem() != fresh.caCertificatePem());
}

void TestCloudServer::stopIsSafeInAnyState()
{
    CloudServer server;
    server.stop();
    QCOMPARE(server.webSocketCount(), 0);
    QCOMPARE(server.pushAll("x"), 0);
    QVERIFY(!server.comeBack());
    QVERIFY(!server.isUp());
    QVERIFY(server.start());
    QVERIFY(server.start()); // already running
    const quint16 port = server.port();
    const QByteArray ca = server.caCertificatePem();
    server.stop();
    server.stop();
    QVERIFY(server.start()); // a restart keeps the address and the CA
    QCOMPARE(server.port(), port);
    QCOMPARE(server.caCertificatePem(), ca);
    server.stop();
    QVERIFY(!server.isUp());
    QCOMPARE(server.webSocketCount(), 0);
    // A held connection does not delay stopping.
    QVERIFY(server.start());
    trustCertificateAuthority(server.caCertificatePem());
    server.scriptReply("/", {}, fault(Fault::NeverAnswer));
    QNetworkReply* held = nam->get(QNetworkRequest(QUrl("https://" + server.hostPort() + "/x")));
    QTRY_COMPARE(server.exchanges().size(), 1);
    server.stop();
    QCOMPARE(finish(held).error, QNetworkReply::ConnectionRefusedError); // after Qt's retry
}

void TestCloudServer::standaloneToolPrintsItsAddressAndQuitsOnSigterm()
{
#ifndef KELO_CLOUD_TOOL_PATH
    QSKIP("kelo-cloud is not built");
#else
    QTemporaryDir dataHome;
    QProcess tool;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_DATA_HOME", dataHome.path());
    env.insert("XDG_RUNTIME_DIR", dataHome.path()); // private, as Qt Gui wants it
    tool.setProcessEnvironment(env);
    tool.start(KELO_CLOUD_TOOL_PATH, {"--port", "0"});
    QVERIFY(tool.waitForStarted());
    QByteArray out;
    QTRY_VERIFY_WITH_TIMEOUT((out += tool.readAllStandardOutput()).count('\n') >= 2, 15000);
    const QStringList lines = QString::fromUtf8(out).split('\n', Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), 2);
    const QRegularExpressionMatch listening =
        QRegularExpression("^kelo-cloud listening on (127\\.0\\.0\\.1:\\d+)$").match(lines[0]);
    QVERIFY2(listening.hasMatch(), qPrintable(lines[0]));
    const QString caPath = dataHome.path() + "/kelo-cloud/ca.pem";
    QCOMPARE(lines[1], "kelo-cloud CA certificate: " + caPath);

    QFile ca(caPath);
    QVERIFY(ca.open(QIODevice::ReadOnly));
    trustCertificateAuthority(ca.readAll());
    const QUrl url("https://" + listening.captured(1) + "/kelo/api/item/?cm=getlist");
    QCOMPARE(finish(nam->get(QNetworkRequest(url))).error, QNetworkReply::NoError);

    tool.terminate(); // SIGTERM
    QVERIFY(tool.waitForFinished(15000));
    QCOMPARE(tool.exitStatus(), QProcess::NormalExit);
    QCOMPARE(tool.exitCode(), 0);
    QCOMPARE(tool.readAllStandardError(), QByteArray());
#endif
}

QTEST_GUILESS_MAIN(TestCloudServer)
#include "tst_cloudserver.moc"
