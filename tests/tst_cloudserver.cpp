// The local cloud as its clients see it over HTTPS: the merchant's rules that no SDK test sees
// (the SDK passes the answers through), the control routes under "/_sim/" (each fault happens as
// named, each route answers and refuses as it says, and with a required token only to it), and the
// development CA.
#include "cloudcontrol.h"
#include "replyoutcome.h"
#include "testcloud.h"
#include "testwait.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMetaEnum>
#include <QNetworkAccessManager>
#include <QTemporaryDir>
#include <QWebSocket>
#include <QtTest>

#include <memory>

namespace {

const QString kItems = QStringLiteral("/kelo/api/item/?cm=getlist&dt=%7B%7D");
/// The merchant's menu, as the SDK asks for it.
const QString kMenu =
    QStringLiteral("/kelo/api/item/?cm=getlist&dt=%7B%22merchant_code%22%3A%22M01%22%7D");

/// "<error> <status>" of a finished reply, e.g. "RemoteHostClosedError 200".
QString errorAndStatus(const ReplyOutcome& outcome)
{
    const auto errors = QMetaEnum::fromType<QNetworkReply::NetworkError>();
    return QStringLiteral("%1 %2").arg(errors.valueToKey(outcome.error)).arg(outcome.status);
}

QString refused(int err, const char* msg, int status = 200)
{
    return QStringLiteral(R"(%1 {"dt":{},"err":%2,"msg":"%3"})").arg(status).arg(err).arg(msg);
}

QString success(const char* dt)
{
    return QStringLiteral(R"(200 {"dt":%1,"err":0,"msg":"success"})").arg(dt);
}

/// "create" for device D9 as the SDK writes it.
QString create(const char* description = "Table 3", const char* amount = "150000")
{
    return QStringLiteral(R"(/kelo/api/invoice/ create {"amount":"%1","description":"%2",)"
                          R"("devid":"D9","merchant_code":"M01","payment_method":"1"})")
        .arg(amount, description);
}

/// The value of @p key in the "dt" of the answer "<status> <body>".
QString dtValue(const QString& answer, const char* key)
{
    return QJsonDocument::fromJson(answer.section(' ', 1).toUtf8())["dt"][key].toString();
}

} // namespace

class TestCloudServer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void refusals_data();
    void refusals();
    void invoiceLifecycle();
    void mergeThenPayFreesTables();
    void faults_data();
    void faults();
    void faultsNeverLockTheControlOut();
    void chunkedAndStreamedBodies_data();
    void chunkedAndStreamedBodies();
    void socketRoutes();
    void downForSecondsThenBackOnSamePort();
    void caIsKeptAcrossRuns();
    void keyOfTheOptionsOrTheEnvironment();
    void controlAnswersOnlyToItsToken_data();
    void controlAnswersOnlyToItsToken();
    void madeTokensAreRandomAndUrlSafe();

private:
    ReplyOutcome get(const QString& target, int transferTimeout = 0)
    {
        QNetworkRequest request(cloud.url(target));
        request.setTransferTimeout(transferTimeout);
        return finishReply(nam->get(request));
    }
    /// "<status> <body>" of the answer to a POST of @p form to @p route, or to "GET <route>".
    QString control(const QString& route, const QByteArray& form = {})
    {
        QNetworkRequest request(cloud.url(route.section(' ', -1)));
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/x-www-form-urlencoded");
        const ReplyOutcome outcome =
            finishReply(route.startsWith("GET ") ? nam->get(request) : nam->post(request, form));
        return QString::number(outcome.status) + ' ' + QString::fromUtf8(outcome.body).trimmed();
    }
    /// The merchant's answer to "<path> <cm> <dt>", posted as a form.
    QString api(const QString& call, const QString& tk = {})
    {
        return control(call.section(' ', 0, 0),
                       "cm=" + call.section(' ', 1, 1).toUtf8() + "&tk=" + tk.toUtf8() +
                           "&dt=" + QUrl::toPercentEncoding(call.section(' ', 2)));
    }
    /// The session that "get_session" or "get_ws_session" issues to @p devid.
    QString session(const char* cm, const QString& devid)
    {
        const bool invoice = cm == QByteArray("get_session");
        return dtValue(api(QStringLiteral(R"(/kelo/api/%1 %2 {"devid":"%3","merchant_code":"M01"})")
                               .arg(invoice ? "invoice/" : "common", cm, devid)),
                       invoice ? "invoice_session" : "ws_session");
    }
    /// The SDK signs "create" with "%1%2" filled by two successive arg() calls.
    QString sign(const QString& call, const QString& session)
    {
        return cloud->state().sign(
            QStringLiteral("%1%2").arg(call.section(' ', 2)).arg(session).toUtf8());
    }
    bool openSocket(QWebSocket& socket, const QString& devid)
    {
        const QString ws = session("get_ws_session", devid);
        const QString tk = cloud->state().sign(("M01" + devid + ws).toUtf8());
        QSignalSpy connected(&socket, &QWebSocket::connected);
        socket.open(QUrl("wss://" + cloud.hostPort() + "/kelo/ntf/?appuser=M01&devid=" + devid +
                         "&ws_session=" + ws + "&tk=" + tk));
        return connected.wait(kWait);
    }

    TestCloud cloud;
    std::unique_ptr<kelocloud::CloudControl> routes;
    std::unique_ptr<QNetworkAccessManager> nam;
};

void TestCloudServer::initTestCase()
{
    QVERIFY(cloud.start());
    routes = std::make_unique<kelocloud::CloudControl>(cloud.server());
    nam = std::make_unique<QNetworkAccessManager>();
}

void TestCloudServer::cleanup()
{
    cloud->clearScripts();
    cloud->clearExchanges();
    cloud->setAnswerPings(true);
    cloud->dropWebSockets();
    QTRY_COMPARE(cloud->webSocketCount(), 0);
}

void TestCloudServer::refusals_data()
{
    QTest::addColumn<QString>("request"); // "<path> <cm> <dt>", or a control route and its form
    QTest::addColumn<QString>("signer");  // whose invoice session signs a "create"
    QTest::addColumn<QString>("expected");
    const auto row = [](const char* name, const QString& request, const QString& expected,
                        const char* signer = "") {
        QTest::newRow(name) << request << signer << expected;
    };
    const QString login = R"(/kelo/api/login/ %1 {"merchant_code":"%2","p":"%3","u":"%4"})";
    row("wrong password", login.arg("waiter_login", "M01", "x", "mai"),
        refused(210, "wrong user name or password"));
    row("waiter at the cashier login", login.arg("cashier_login", "M01", "mai123", "mai"),
        refused(211, "role not allowed for this login"));
    row("merge into itself",
        R"(/kelo/api/invoice/ merge_table {"from_tableid":2,"merchant_code":"M01","to_tableid":2})",
        refused(221, "cannot merge a table into itself"));
    row("create signed with another device's session", create(), refused(231, "bad signature"),
        "D7");
    row("create without tk", create(), refused(230, "missing signature"));
    row("create of 0", create("Table 3", "0"), refused(233, "invalid invoice amount"), "D9");
    // "/kelo/api/invoice" (no slash) serves "cancel" only.
    row("cancel of an unknown invoice",
        R"(/kelo/api/invoice cancel {"invoice_code":"INV999999","merchant_code":"M01"})",
        refused(240, "unknown invoice"));
    row("cancel with a slash",
        R"(/kelo/api/invoice/ cancel {"invoice_code":"INV000001","merchant_code":"M01"})",
        refused(201, "unknown operation"));
    row("unknown path", "/kelo/api/nothing/ getlist {}", refused(200, "unknown path", 404));

    const auto route = [&](const char* path, const char* form, int status, const char* error) {
        const QByteArray body = QJsonDocument(QJsonObject{{"error", error}, {"ok", false}})
                                    .toJson(QJsonDocument::Compact);
        row(error, QString(path) + '?' + form, QString::number(status) + ' ' + body);
    };
    route("/_sim/nothing", "", 404, "unknown control route /_sim/nothing (see kelo-cloud --help)");
    route("GET /_sim/push", "", 405, "/_sim/push takes POST");
    route("/_sim/invoice/paid", "", 400, "invoice_code is missing");
    route("/_sim/push", "devid=dev-z&text=x", 404, "device dev-z has no notification socket");
    route("/_sim/fault", "path=/_sim/state&kind=empty", 400, "faults never apply to /_sim/");
    route("/_sim/fault", "path=/&kind=slow", 400,
          "kind must be one of delay, drop, reset, never, idle-close, status, garbage, empty, not "
          "\"slow\"");
    route("/_sim/fault", "path=/&kind=status&status=200", 400,
          "status must be an integer from 400 to 599, not \"200\"");
    route("/_sim/fault", "path=/&kind=delay", 400, "a delay needs ms above 0");
    route("/_sim/pongs", "answer=2", 400, "answer must be 0 or 1");
    route("/_sim/down", "", 400, "seconds is missing");
}

void TestCloudServer::refusals()
{
    QFETCH(QString, request);
    QFETCH(QString, signer);
    QFETCH(QString, expected);
    if (request.contains("/_sim/")) {
        QCOMPARE(control(request.section('?', 0, 0), request.section('?', 1).toUtf8()), expected);
        return;
    }
    const QString own = session("get_session", "D9"); // D9 holds a session in every row
    const QString tk = signer.isEmpty()
                           ? QString()
                           : sign(request, signer == "D9" ? own : session("get_session", signer));
    QCOMPARE(api(request, tk), expected);
}

void TestCloudServer::invoiceLifecycle()
{
    // The only test that creates invoices: their codes start at INV#000001.
    QWebSocket socket;
    QVERIFY(openSocket(socket, "D9"));
    QSignalSpy texts(&socket, &QWebSocket::textMessageReceived);
    const QString request = create("50%1 off"), tk = sign(request, session("get_session", "D9"));
    // The SDK sends the "dt" of "create" percent-encoded once more; curl need not.
    QString first = api(
        request.section(' ', 0, 1) + ' ' + QUrl::toPercentEncoding(request.section(' ', 2)), tk);
    QCOMPARE(first.replace(dtValue(first, "tptranstoken"), "<token>"),
             R"(200 {"dt":{"amount":150000,"appid":1,"invoice_code":"INV#000001","qr_code":)"
             R"("kelopay://pay?merchant=M01&invoice=INV%23000001&amount=150000",)"
             R"("tptranstoken":"<token>"},"err":0,"msg":"success"})");
    const QString second = api(request, tk), token = dtValue(second, "tptranstoken");
    QCOMPARE(dtValue(second, "invoice_code"), "INV#000002");
    const QString state = R"(200 {"devices":["D9"],"merchant_code":"M01","ok":true,)"
                          R"("open_invoices":%1,"port":%2,"requests":%3,"sockets":1})";
    QString summary = control("GET /_sim/state"); // counts itself among the requests
    QCOMPARE(summary, state.arg(2).arg(cloud->port()).arg(cloud->exchanges().size()));

    // Codes match with or without their "#"; a closed invoice stays closed.
    const QString cancel =
        R"(/kelo/api/invoice cancel {"invoice_code":"INV000001","merchant_code":"M01"})";
    QCOMPARE(api(cancel), success(R"({"invoice_code":"INV#000001","status":"cancelled"})"));
    QCOMPARE(api(cancel), refused(241, "invoice is not open"));
    QCOMPARE(control("/_sim/invoice/paid", "invoice_code=INV000001"),
             R"(404 {"error":"no open invoice INV000001","ok":false})");
    QCOMPARE(control("/_sim/invoice/paid", "invoice_code=INV000002"),
             R"(200 {"invoice_code":"INV000002","ok":true,"sockets":1})");
    QTRY_COMPARE(texts.count(), 1);
    QCOMPARE(texts.first().first().toString(),
             R"({"dt":{"amount":150000,"appid":1,"description":"50%1 off",)"
             R"("invoice_code":"INV#000002","merchant_code":"M01","tptranstoken":")" +
                 token + R"("},"err":0,"msg":"payment_success","type":1})");
    QCOMPARE(api(QString(cancel).replace("000001", "000002")), refused(241, "invoice is not open"));
    summary = control("GET /_sim/state");
    QCOMPARE(summary, state.arg(0).arg(cloud->port()).arg(cloud->exchanges().size()));
}

void TestCloudServer::mergeThenPayFreesTables()
{
    // The fixture holds order 1 at table 2 (188000) and order 2 at table 5 (95000); no other
    // test places orders.
    const QString invoice = "/kelo/api/invoice/ ";
    QCOMPARE(api(invoice + R"(confirm_order {"amount":65000,"items":[],"merchant_code":"M01",)"
                           R"("staff_id":2,"table_id":2})"),
             success(R"({"amount":65000,"order_id":3,"table_amount":253000,"table_id":2})"));
    const QString merge =
        invoice + R"(merge_table {"from_tableid":2,"merchant_code":"M01","to_tableid":5})";
    QCOMPARE(api(merge), success(R"({"amount":348000,"from_tableid":2,"moved":2,"to_tableid":5})"));
    // The cashier's amount is taken as paid, whatever the bill.
    QCOMPARE(
        api(invoice + R"(payment {"amount":1,"merchant_code":"M01","staff_id":3,"table_id":5})"),
        success(R"({"amount":1,"payment_id":1,"table_id":5,"total":348000})"));
    QCOMPARE(
        api(invoice + R"(get_order_list {"merchant_code":"M01","table_id":5})"),
        success(R"({"amount":0,"items":[],"orders":[],"table_id":5,"table_name":"Terrace 1"})"));
    // Merging a free table is not an error: nothing moves.
    QCOMPARE(api(merge), success(R"({"amount":0,"from_tableid":2,"moved":0,"to_tableid":5})"));
}

void TestCloudServer::faults_data()
{
    QTest::addColumn<QByteArray>("form"); // path=/kelo/api/item/ and cm=getlist are added
    QTest::addColumn<int>("transferTimeout");
    QTest::addColumn<QString>("outcome"); // "<error> <status> <requests the server saw>"
    QTest::addColumn<QByteArray>("body"); // "normal": the merchant's own answer; null: unchecked
    const auto row = [](const char* name, const char* form, const char* outcome,
                        const QByteArray& body, int transferTimeout = 0) {
        QTest::newRow(name) << QByteArray(form) << transferTimeout << outcome << body;
    };
    row("delay", "kind=delay&ms=600", "NoError 200 1", "normal");
    // Qt sends a request again (three times at most) on a reset before any byte of the answer.
    row("drop, 4 times", "kind=drop&times=4", "RemoteHostClosedError 0 4", "");
    row("reset mid-body", "kind=reset", "RemoteHostClosedError 200 1", QByteArray());
    row("never answered", "kind=never", "OperationCanceledError 0 1", "", 800);
    // The request comes on the connection that set the fault: handled, closed unanswered, and
    // sent again by Qt on a new connection, which is answered.
    row("idle-close", "kind=idle-close", "NoError 200 2", "normal");
    row("status 404", "kind=status&status=404", "ContentNotFoundError 404 1",
        "kelo-cloud: simulated error 404\n");
    row("status, 500 by default", "kind=status", "InternalServerError 500 1",
        "kelo-cloud: simulated error 500\n");
    row("garbage", "kind=garbage", "NoError 200 1",
        "<html><body>502 kelo-cloud garbage {\"err\":</body></html>\n");
    row("empty", "kind=empty", "NoError 200 1", "");
}

void TestCloudServer::faults()
{
    QFETCH(QByteArray, form);
    QFETCH(int, transferTimeout);
    QFETCH(QString, outcome);
    QFETCH(QByteArray, body);
    const ReplyOutcome normal = get(kItems);
    const QByteArray cm = form.contains("cm=") ? "" : "&cm=getlist";
    QVERIFY(control("/_sim/fault", "path=/kelo/api/item/&" + form + cm).startsWith("200 "));
    cloud->clearExchanges();

    QElapsedTimer clock;
    clock.start();
    const ReplyOutcome faulty = get(kItems, transferTimeout);
    QCOMPARE(errorAndStatus(faulty) + ' ' + QString::number(cloud->exchanges().size()), outcome);
    if (!body.isNull())
        QCOMPARE(faulty.body, body == "normal" ? normal.body : body);
    if (form.contains("ms=")) // a delayed answer may come late, never early
        QVERIFY(clock.elapsed() >= 600);
    if (form.contains("idle-close")) {
        QVERIFY(cloud->exchanges().first().onConnection > 1);
        QCOMPARE(cloud->exchanges().last().onConnection, 1);
    }
    QCOMPARE(get(kItems).body, normal.body); // used up
}

void TestCloudServer::chunkedAndStreamedBodies_data()
{
    QTest::addColumn<bool>("chunked");
    QTest::addColumn<qint64>("streamBytes");
    QTest::addColumn<QByteArray>("lengthHeader"); // what the answer declares
    QTest::addColumn<int>("size");
    QTest::newRow("whole, chunked") << true << qint64(0) << QByteArray() << 13;
    QTest::newRow("streamed with length")
        << false << qint64(200000) << QByteArray("200000") << 200000;
    QTest::newRow("streamed, chunked") << true << qint64(200000) << QByteArray() << 200000;
}

void TestCloudServer::chunkedAndStreamedBodies()
{
    QFETCH(bool, chunked);
    QFETCH(qint64, streamBytes);
    QFETCH(QByteArray, lengthHeader);
    QFETCH(int, size);
    kelocloud::CloudReply scripted;
    scripted.body = "{\"err\":0,\"x\":1}";
    scripted.body.truncate(13);
    scripted.chunked = chunked;
    scripted.streamBytes = streamBytes;
    cloud->scriptReply("/kelo/api/item/", QString(), scripted);
    QNetworkReply* reply = nam->get(QNetworkRequest(cloud.url(kItems)));
    QSignalSpy finished(reply, &QNetworkReply::finished);
    QVERIFY(finished.wait(kWait));
    QCOMPARE(reply->error(), QNetworkReply::NoError);
    QCOMPARE(reply->rawHeader("Content-Length"), lengthHeader);
    QCOMPARE(reply->rawHeader("Transfer-Encoding"), chunked ? QByteArray("chunked") : QByteArray());
    const QByteArray body = reply->readAll();
    QCOMPARE(body.size(), size);
    if (streamBytes > 0)
        QCOMPARE(body.count('k'), size);
    reply->deleteLater();
}

void TestCloudServer::faultsNeverLockTheControlOut()
{
    QCOMPARE(control("/_sim/fault", "path=/&kind=never&times=100"),
             R"(200 {"cm":"","kind":"never","ms":0,"ok":true,"path":"/","times":100})");
    QCOMPARE(errorAndStatus(get(kItems, 500)), QStringLiteral("OperationCanceledError 0"));
    QCOMPARE(control("/_sim/pongs", "answer=1"), R"(200 {"answer":true,"ok":true})");
}

void TestCloudServer::socketRoutes()
{
    QWebSocket a, b;
    QVERIFY(openSocket(a, "dev-a"));
    QVERIFY(openSocket(b, "dev-b"));
    QSignalSpy textsA(&a, &QWebSocket::textMessageReceived);
    QSignalSpy textsB(&b, &QWebSocket::textMessageReceived);
    QSignalSpy pongs(&a, &QWebSocket::pong);
    QSignalSpy errors(&a, QOverload<QAbstractSocket::SocketError>::of(&QWebSocket::error));

    const QString frame = R"({"dt":{"note":"a&b=c + é"},"err":0,"msg":"x","type":9})";
    const QByteArray text = "&text=" + QUrl::toPercentEncoding(frame);
    QCOMPARE(control("/_sim/push", "devid=dev-a" + text),
             R"(200 {"devid":"dev-a","ok":true,"sockets":1})");
    QCOMPARE(control("/_sim/push", "devid=" + text), R"(200 {"ok":true,"sockets":2})");
    QVERIFY(cloud->pushText("dev-b", "last")); // frames keep their order on one socket
    QTRY_COMPARE(textsA.count(), 2);
    QTRY_COMPARE(textsB.count(), 2);
    const auto received = [](const QSignalSpy& spy) {
        return spy.at(0).at(0).toString() + '|' + spy.at(1).at(0).toString();
    };
    QCOMPARE(received(textsA), frame + '|' + frame);
    QCOMPARE(received(textsB), frame + "|last");

    QCOMPARE(control("/_sim/pongs", "answer=0"), R"(200 {"answer":false,"ok":true})");
    const int pings = cloud->pingCount();
    a.ping("unanswered");
    QTRY_COMPARE(cloud->pingCount(), pings + 1);
    // A pong would have been written before this text: once the text is here, none came.
    QVERIFY(cloud->pushText("dev-a", "after the ping"));
    QTRY_COMPARE(textsA.count(), 3);
    QCOMPARE(pongs.count(), 0);
    QCOMPARE(control("/_sim/pongs", "answer=1"), R"(200 {"answer":true,"ok":true})");
    a.ping("answered");
    QVERIFY(pongs.wait(kWait));
    QCOMPARE(pongs.count(), 1);
    QCOMPARE(pongs.first().at(1).toByteArray(), QByteArray("answered"));

    QCOMPARE(control("/_sim/drop-sockets"), R"(200 {"dropped":2,"ok":true})");
    QTRY_COMPARE(errors.count(), 1); // abrupt: no close handshake
    QCOMPARE(errors.first().at(0).value<QAbstractSocket::SocketError>(),
             QAbstractSocket::RemoteHostClosedError);
}

void TestCloudServer::downForSecondsThenBackOnSamePort()
{
    const quint16 port = cloud->port();
    QWebSocket socket;
    QVERIFY(openSocket(socket, "dev-o"));
    QSignalSpy disconnected(&socket, &QWebSocket::disconnected);
    // The answer comes whole before the outage.
    QCOMPARE(control("/_sim/down", "seconds=3"),
             QStringLiteral(R"(200 {"ok":true,"port":%1,"seconds":3})").arg(port));
    QTRY_COMPARE(disconnected.count(), 1);
    QCOMPARE(errorAndStatus(get(kItems)), QStringLiteral("ConnectionRefusedError 0"));
    QTRY_VERIFY_WITH_TIMEOUT(cloud->isUp(), kWait);
    QCOMPARE(cloud->port(), port);
    QCOMPARE(errorAndStatus(get(kItems)), QStringLiteral("NoError 200"));
}

void TestCloudServer::caIsKeptAcrossRuns()
{
    // A device that trusted the CA once keeps trusting it; its key stays private.
    QTemporaryDir dir;
    kelocloud::CloudOptions options;
    options.caDir = dir.path();
    const auto caOfARun = [&] {
        kelocloud::CloudServer server(options);
        return server.start() ? server.caCertificatePem() : QByteArray();
    };
    const QByteArray first = caOfARun();
    QVERIFY(!first.isEmpty());
    QCOMPARE(caOfARun(), first);
    QCOMPARE(QFile(dir.filePath("ca.key")).permissions(),
             QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadUser |
                 QFileDevice::WriteUser);
}

void TestCloudServer::keyOfTheOptionsOrTheEnvironment()
{
    // The library holds no build key: the in-process cloud takes it from its options, else from
    // KELO_CLOUD_KEY, else it signs with the development key.
    const QByteArray option = QByteArray("opt").leftJustified(32, '1'),
                     variable = QByteArray("env").leftJustified(32, '2');
    struct Unset
    {
        ~Unset() { qunsetenv("KELO_CLOUD_KEY"); }
    } unset;
    const auto keyOf = [](const QByteArray& optionKey, QString* error = nullptr) {
        kelocloud::CloudOptions options;
        options.secretKey = optionKey;
        kelocloud::CloudServer server(options);
        const bool started = server.start(error);
        return started ? server.state().secretKey() : QByteArray("not started");
    };
    qunsetenv("KELO_CLOUD_KEY");
    // Compared without printing: a wrong key here may be this build's.
    QVERIFY(keyOf({}) == KELO_TEST_DEVELOPMENT_KEY);
    QCOMPARE(keyOf(option), option);
    qputenv("KELO_CLOUD_KEY", variable);
    QCOMPARE(keyOf({}), variable);
    QCOMPARE(keyOf(option), option);

    QString error;
    qputenv("KELO_CLOUD_KEY", variable + '3');
    QCOMPARE(keyOf({}, &error), QByteArray("not started"));
    QCOMPARE(error, QStringLiteral("KELO_CLOUD_KEY: the signing key must be 32 ASCII letters or "
                                   "digits (got 33 characters)"));
    QCOMPARE(keyOf(QByteArray(option).replace(31, 1, "+"), &error), QByteArray("not started"));
    QCOMPARE(error, QStringLiteral("CloudOptions::secretKey: the signing key must be 32 ASCII "
                                   "letters or digits (character 32 is neither)"));

    kelocloud::CloudState state;
    QVERIFY(!state.setSecretKey("short"));
    QVERIFY(state.secretKey() == KELO_TEST_DEVELOPMENT_KEY);
}

QTEST_GUILESS_MAIN(TestCloudServer)
void TestCloudServer::controlAnswersOnlyToItsToken_data()
{
    QTest::addColumn<QByteArray>("required"); // the token the control layer needs; empty: none
    QTest::addColumn<QByteArray>("sent");     // X-Kelo-Control-Token; null: no such header
    QTest::addColumn<QString>("route");       // a control route (a fault on the menu) or the API
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("error"); // the control answer's "error"; empty: none
    QTest::addColumn<bool>("faulted");  // the menu request after it gets the scripted 503

    const QByteArray token = "Tk_9-abcdefghijklmnopqrstuvwxyz0";
    const QString fault = QStringLiteral("/_sim/fault");
    const QString refusal = QStringLiteral(
        "this kelo-cloud's control routes need its control token (printed at its start) in the "
        "header X-Kelo-Control-Token");
    QByteArray lastChanged = token;
    lastChanged[lastChanged.size() - 1] = '1';
    const auto row = [&](const char* name, const QByteArray& required, const QByteArray& sent,
                         const QString& route, int status, const QString& error, bool faulted) {
        QTest::newRow(name) << required << sent << route << status << error << faulted;
    };
    row("loopback: none needed, none sent", {}, {}, fault, 200, {}, true);
    row("loopback: none needed, one sent anyway", {}, "whatever", fault, 200, {}, true);
    row("no token sent", token, {}, fault, 403, refusal, false);
    row("wrong token", token, "nottheright-token-at-all_1234567", fault, 403, refusal, false);
    row("last character differs", token, lastChanged, fault, 403, refusal, false);
    row("the token without its last character", token, token.chopped(1), fault, 403, refusal,
        false);
    row("the token and one more character", token, token + 'x', fault, 403, refusal, false);
    row("the token in other case", token, token.toLower(), fault, 403, refusal, false);
    row("right token", token, token, fault, 200, {}, true);
    // Refused before the route is looked up: 403, not 404.
    row("unknown route without the token", token, {}, "/_sim/nothing", 403, refusal, false);
    row("API without the token", token, {}, kMenu, 200, {}, false);
    row("API with a wrong token", token, "wrong", kMenu, 200, {}, false);
}

void TestCloudServer::controlAnswersOnlyToItsToken()
{
    QFETCH(QByteArray, required);
    QFETCH(QByteArray, sent);
    QFETCH(QString, route);
    QFETCH(int, status);
    QFETCH(QString, error);
    QFETCH(bool, faulted);
    // A cloud of its own: a scripted fault must not reach the other tests' server.
    TestCloud lan;
    QVERIFY(lan.start());
    kelocloud::CloudControl guarded(lan.server(), required);

    QNetworkRequest request(lan.url(route));
    if (!sent.isNull())
        request.setRawHeader(kelocloud::CloudControl::controlTokenHeader, sent);
    const bool isControl = route.startsWith(kelocloud::controlPathPrefix);
    request.setHeader(QNetworkRequest::ContentTypeHeader, "application/x-www-form-urlencoded");
    const ReplyOutcome answer =
        finishReply(isControl ? nam->post(request, "path=/kelo/api/item/&kind=status&status=503")
                              : nam->get(request));
    QCOMPARE(answer.status, status);
    const QJsonObject body = QJsonDocument::fromJson(answer.body).object();
    if (isControl) {
        QCOMPARE(body.value("ok").toBool(), status == 200);
        QCOMPARE(body.value("error").toString(), error);
    } else {
        QCOMPARE(body.value("err").toInt(-1), 0); // the menu, as the SDK gets it
        QVERIFY(!body.value("dt")["items"].toArray().isEmpty());
    }
    // A refused control request did nothing: the menu answers as before.
    QCOMPARE(finishReply(nam->get(QNetworkRequest(lan.url(kMenu)))).status, faulted ? 503 : 200);
}

void TestCloudServer::madeTokensAreRandomAndUrlSafe()
{
    // 500 tokens: 16000 draws from 64 symbols, each expected 250 times; a symbol never drawn
    // means a narrowed alphabet, a repeated token a weak source.
    QSet<QByteArray> tokens;
    QSet<char> symbols;
    for (int i = 0; i < 500; ++i) {
        const QByteArray token = kelocloud::CloudControl::makeToken();
        QCOMPARE(token.size(), 32);
        QCOMPARE(kelocloud::CloudControl::tokenProblem(token), QString());
        QVERIFY2(!tokens.contains(token), token.constData());
        tokens.insert(token);
        for (const char c : token)
            symbols.insert(c);
    }
    QCOMPARE(symbols.size(), 64);
}

#include "tst_cloudserver.moc"
