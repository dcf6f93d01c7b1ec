// kelo-cloud for integrators: the merchant fixture on its command line, and the control routes
// under "/_sim/" as an HTTPS client sees them.
#include "cloudcontrol.h"
#include "replyoutcome.h"
#include "testcloud.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QTemporaryDir>
#include <QWebSocket>
#include <QtTest>

#include <memory>

namespace {

using Outcome = ReplyOutcome;

Outcome finish(QNetworkReply* reply)
{
    return finishReply(reply);
}

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

/// A control answer as the routes write it: compact JSON and a new line.
QByteArray answer(const QJsonObject& object)
{
    return compact(object) + '\n';
}

const QString merchant = QStringLiteral("M01");

/// kelo-cloud run with @p arguments in private data and CA directories.
class Tool
{
public:
    explicit Tool(const QStringList& arguments)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_DATA_HOME", dir.path());
        env.insert("XDG_RUNTIME_DIR", dir.path()); // private, as Qt Gui wants it
        process.setProcessEnvironment(env);
        const QStringList command = QStringLiteral(KELO_CLOUD_TOOL_COMMAND).split('|');
        process.start(command.first(),
                      command.mid(1) + QStringList{"--ca-dir", dir.path()} + arguments);
    }
    ~Tool()
    {
        process.terminate();
        process.waitForFinished(15000);
    }
    /// Exit status once it ended by itself, or -1.
    int exitCode()
    {
        if (!process.waitForFinished(15000) || process.exitStatus() != QProcess::NormalExit)
            return -1;
        return process.exitCode();
    }
    QString caPath() const { return dir.path() + "/ca.pem"; }

    QTemporaryDir dir;
    QProcess process;
};

} // namespace

class TestSimulator : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanup();

    void printedFixtureIsTheBuiltInOne();
    void badFixtureStopsTheTool_data();
    void badFixtureStopsTheTool();
    void customFixtureIsServed();

    void invoicePaidPushesPaymentSuccess();
    void pushReachesTheDevicesNamed_data();
    void pushReachesTheDevicesNamed();
    void faultKinds_data();
    void faultKinds();
    void faultOnRootDoesNotBlockControl();
    void refusals_data();
    void refusals();
    void pongsOffAndOn();
    void dropSocketsClosesThemAll();
    void downThenBackOnSamePort();

private:
    QNetworkReply* get(const QString& pathAndQuery, int transferTimeout = 0);
    QNetworkReply* post(const QString& path, const QByteArray& form);
    /// Posts @p form to the control route @p route and expects @p status.
    QJsonObject control(const QString& route, const QByteArray& form, int status = 200);
    /// The "dt" of the merchant's answer to a form POST.
    QJsonObject api(const QString& path, const QString& cm, const QJsonObject& dt,
                    const QString& tk = {});
    /// Opens @p socket as device @p devid with a good session and signature.
    bool openSocket(QWebSocket& socket, const QString& devid);
    QString fixtureFile(const QJsonObject& fixture, const QString& name);

    TestCloud cloud;
    std::unique_ptr<kelocloud::CloudControl> controlRoutes;
    std::unique_ptr<QNetworkAccessManager> nam;
    QTemporaryDir files;
    QByteArray printedFixture;
};

void TestSimulator::initTestCase()
{
    QVERIFY(cloud.start());
    controlRoutes = std::make_unique<kelocloud::CloudControl>(cloud.server());
    nam = std::make_unique<QNetworkAccessManager>();
    Tool printer({"--print-fixture"});
    QCOMPARE(printer.exitCode(), 0);
    printedFixture = printer.process.readAllStandardOutput();
    QCOMPARE(printer.process.readAllStandardError(), QByteArray());
}

void TestSimulator::cleanup()
{
    cloud->clearScripts();
    cloud->clearExchanges();
    cloud->setAnswerPings(true);
    cloud->dropWebSockets();
    QTRY_COMPARE(cloud->webSocketCount(), 0);
}

QNetworkReply* TestSimulator::get(const QString& pathAndQuery, int transferTimeout)
{
    QNetworkRequest request(cloud.url(pathAndQuery));
    request.setTransferTimeout(transferTimeout);
    return nam->get(request);
}

QNetworkReply* TestSimulator::post(const QString& path, const QByteArray& form)
{
    QNetworkRequest request(cloud.url(path));
    request.setHeader(QNetworkRequest::ContentTypeHeader, "application/x-www-form-urlencoded");
    return nam->post(request, form);
}

QJsonObject TestSimulator::control(const QString& route, const QByteArray& form, int status)
{
    const Outcome outcome = finish(post(route, form));
    if (outcome.status != status)
        qWarning("%s answered %d: %s", qPrintable(route), outcome.status, outcome.body.data());
    return outcome.status == status ? QJsonDocument::fromJson(outcome.body).object()
                                    : QJsonObject{{"unexpected status", outcome.status}};
}

QJsonObject TestSimulator::api(const QString& path, const QString& cm, const QJsonObject& dt,
                               const QString& tk)
{
    QByteArray form = "cm=" + cm.toUtf8();
    if (!tk.isEmpty())
        form += "&tk=" + tk.toUtf8();
    form += "&dt=" + QUrl::toPercentEncoding(QString::fromUtf8(compact(dt)));
    return QJsonDocument::fromJson(finish(post(path, form)).body)["dt"].toObject();
}

bool TestSimulator::openSocket(QWebSocket& socket, const QString& devid)
{
    const QString session = api("/kelo/api/common", "get_ws_session",
                                {{"devid", devid}, {"merchant_code", merchant}})["ws_session"]
                                .toString();
    const QString tk = cloud->state().sign((merchant + devid + session).toUtf8());
    QSignalSpy connected(&socket, &QWebSocket::connected);
    socket.open(QUrl(QStringLiteral("wss://%1/kelo/ntf/?appuser=%2&devid=%3&ws_session=%4&tk=%5")
                         .arg(cloud.hostPort(), merchant, devid, session, tk)));
    return connected.wait(15000);
}

QString TestSimulator::fixtureFile(const QJsonObject& fixture, const QString& name)
{
    QFile file(files.filePath(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(fixture).toJson()) <= 0)
        return {};
    return file.fileName();
}

// --- the fixture on the command line ---------------------------------------------------------

void TestSimulator::printedFixtureIsTheBuiltInOne()
{
    QFile builtIn(":/kelocloud/restaurant.json");
    QVERIFY(builtIn.open(QIODevice::ReadOnly));
    QCOMPARE(printedFixture, builtIn.readAll());

    QFile printed(files.filePath("printed.json"));
    QVERIFY(printed.open(QIODevice::WriteOnly));
    printed.write(printedFixture);
    printed.close();
    kelocloud::CloudState state;
    QString error;
    QVERIFY2(state.loadFixture(printed.fileName(), &error), qPrintable(error));
}

void TestSimulator::badFixtureStopsTheTool_data()
{
    QTest::addColumn<QByteArray>("content"); // empty: the printed fixture with "change" applied
    QTest::addColumn<QString>("change");
    QTest::addColumn<QString>("where"); // what the message names after the file

    QTest::newRow("bad JSON") << QByteArray("{\n  \"merchant\": {\"code\": \"M01\",\n") << QString()
                              << "line 3";
    QTest::newRow("missing field") << QByteArray() << "drop staff[1].user"
                                   << "staff[1].user";
    QTest::newRow("wrong type") << QByteArray() << "menu[2].price as text"
                                << "menu[2].price";
}

void TestSimulator::badFixtureStopsTheTool()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, change);
    QFETCH(QString, where);
    if (content.isEmpty()) {
        QJsonObject fixture = QJsonDocument::fromJson(printedFixture).object();
        if (change.startsWith("drop")) {
            QJsonArray staff = fixture["staff"].toArray();
            QJsonObject waiter = staff[1].toObject();
            waiter.remove("user");
            staff[1] = waiter;
            fixture["staff"] = staff;
        } else {
            QJsonArray menu = fixture["menu"].toArray();
            QJsonObject dish = menu[2].toObject();
            dish["price"] = "cheap";
            menu[2] = dish;
            fixture["menu"] = menu;
        }
        content = QJsonDocument(fixture).toJson();
    }
    QFile file(files.filePath("bad.json"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
    file.close();

    QString error;
    kelocloud::CloudState state;
    QVERIFY(!state.loadFixture(file.fileName(), &error));
    QVERIFY2(error.startsWith(file.fileName() + ": " + where), qPrintable(error));

    Tool tool({"--port", "0", "--fixture", file.fileName()});
    QCOMPARE(tool.exitCode(), 2);
    QCOMPARE(QString::fromUtf8(tool.process.readAllStandardError()),
             "kelo-cloud: cannot load the fixture: " + error + "\n");
    QCOMPARE(tool.process.readAllStandardOutput(), QByteArray());
}

void TestSimulator::customFixtureIsServed()
{
    QJsonObject fixture = QJsonDocument::fromJson(printedFixture).object();
    fixture["merchant"] = QJsonObject{{"code", "M77"}, {"name", "Harbour Noodles"}};
    fixture["staff"] = QJsonArray{QJsonObject{
        {"id", 41}, {"name", "Tuan Le"}, {"user", "tuan"}, {"password", "t1"}, {"role", "waiter"}}};
    fixture.remove("orders");
    Tool tool({"--port", "0", "--fixture", fixtureFile(fixture, "custom.json")});
    QByteArray out;
    QTRY_VERIFY_WITH_TIMEOUT((out += tool.process.readAllStandardOutput()).count('\n') >= 2, 15000);
    const QRegularExpressionMatch listening =
        QRegularExpression("^kelo-cloud listening on (127\\.0\\.0\\.1:\\d+)\n").match(out);
    QVERIFY2(listening.hasMatch(), out.constData());
    QFile ca(tool.caPath());
    QVERIFY(ca.open(QIODevice::ReadOnly));
    trustCertificateAuthority(ca.readAll());

    const auto login = [&](const QString& merchantCode) {
        const QByteArray dt =
            compact({{"merchant_code", merchantCode}, {"p", "t1"}, {"u", "tuan"}});
        const QUrl url("https://" + listening.captured(1) + "/kelo/api/login/?cm=waiter_login&dt=" +
                       QUrl::toPercentEncoding(QString::fromUtf8(dt)));
        return finish(nam->get(QNetworkRequest(url))).body;
    };
    QCOMPARE(
        login("M77"),
        QByteArray(R"({"dt":{"staff_id":41,"staff_name":"Tuan Le"},"err":0,"msg":"success"})"));
    QCOMPARE(login("M01"), QByteArray(R"({"dt":{},"err":203,"msg":"unknown merchant"})"));
}

// --- control routes --------------------------------------------------------------------------

void TestSimulator::invoicePaidPushesPaymentSuccess()
{
    const QString devid = "dev-pay";
    QWebSocket socket;
    QVERIFY(openSocket(socket, devid));
    QSignalSpy texts(&socket, &QWebSocket::textMessageReceived);
    const QString session = api("/kelo/api/invoice/", "get_session",
                                {{"devid", devid}, {"merchant_code", merchant}})["invoice_session"]
                                .toString();
    const QByteArray dt = compact({{"amount", "150000"},
                                   {"description", "Table 5"},
                                   {"devid", devid},
                                   {"merchant_code", merchant},
                                   {"payment_method", "1"}});
    const QJsonObject created =
        api("/kelo/api/invoice/", "create", QJsonDocument::fromJson(dt).object(),
            cloud->state().sign(dt + session.toUtf8()));
    const QString code = created["invoice_code"].toString();
    QVERIFY2(code.contains('#'), qPrintable(code));

    QJsonObject summary{
        {"devices", QJsonArray{devid}}, {"merchant_code", merchant}, {"ok", true},
        {"open_invoices", 1},           {"port", cloud->port()},     {"sockets", 1}};
    Outcome state = finish(get("/_sim/state"));
    summary["requests"] = cloud->exchanges().size();
    QCOMPARE(state.body, answer(summary));

    const QByteArray form = "invoice_code=" + QUrl::toPercentEncoding(code);
    QCOMPARE(control("/_sim/invoice/paid", form),
             QJsonObject({{"invoice_code", code}, {"ok", true}, {"sockets", 1}}));
    QTRY_COMPARE(texts.count(), 1);
    const QJsonObject notice{{"dt", QJsonObject{{"amount", 150000},
                                                {"appid", 1},
                                                {"description", "Table 5"},
                                                {"invoice_code", code},
                                                {"merchant_code", merchant},
                                                {"tptranstoken", created["tptranstoken"]}}},
                             {"err", 0},
                             {"msg", "payment_success"},
                             {"type", 1}};
    QCOMPARE(texts.takeFirst().at(0).toString(), QString::fromUtf8(compact(notice)));

    // Paid once only.
    QCOMPARE(control("/_sim/invoice/paid", form, 404),
             QJsonObject({{"error", "no open invoice " + code}, {"ok", false}}));
    state = finish(get("/_sim/state"));
    summary["open_invoices"] = 0;
    summary["requests"] = cloud->exchanges().size();
    QCOMPARE(state.body, answer(summary));
    QCOMPARE(texts.count(), 0);
}

void TestSimulator::pushReachesTheDevicesNamed_data()
{
    QTest::addColumn<QString>("devid");
    QTest::addColumn<int>("status");
    QTest::addColumn<QJsonObject>("reply");
    QTest::addColumn<int>("toA");
    QTest::addColumn<int>("toB");

    QTest::newRow("one device") << "dev-a" << 200
                                << QJsonObject{{"devid", "dev-a"}, {"ok", true}, {"sockets", 1}}
                                << 1 << 0;
    QTest::newRow("every device") << "" << 200 << QJsonObject{{"ok", true}, {"sockets", 2}} << 1
                                  << 1;
    QTest::newRow("device without socket")
        << "dev-z" << 404
        << QJsonObject{{"error", "device dev-z has no notification socket"}, {"ok", false}} << 0
        << 0;
}

void TestSimulator::pushReachesTheDevicesNamed()
{
    QFETCH(QString, devid);
    QFETCH(int, status);
    QFETCH(QJsonObject, reply);
    QFETCH(int, toA);
    QFETCH(int, toB);
    QWebSocket a, b;
    QVERIFY(openSocket(a, "dev-a"));
    QVERIFY(openSocket(b, "dev-b"));
    QSignalSpy textsA(&a, &QWebSocket::textMessageReceived);
    QSignalSpy textsB(&b, &QWebSocket::textMessageReceived);

    const QString frame = R"({"dt":{"note":"a&b=c + é"},"err":0,"msg":"x","type":9})";
    const QByteArray form = "devid=" + devid.toUtf8() + "&text=" + QUrl::toPercentEncoding(frame);
    QCOMPARE(control("/_sim/push", form, status), reply);
    // A marker sent after the frame: once it is here, the frame would be too.
    QVERIFY(cloud->pushText("dev-a", "marker"));
    QVERIFY(cloud->pushText("dev-b", "marker"));
    QTRY_COMPARE(textsA.count(), toA + 1);
    QTRY_COMPARE(textsB.count(), toB + 1);
    if (toA)
        QCOMPARE(textsA.first().at(0).toString(), frame);
    if (toB)
        QCOMPARE(textsB.first().at(0).toString(), frame);
}

void TestSimulator::faultKinds_data()
{
    QTest::addColumn<QByteArray>("form");
    QTest::addColumn<int>("transferTimeout");
    QTest::addColumn<int>("error");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body"); // "normal": the merchant's own answer; null: not checked
    QTest::addColumn<int>("requests");    // seen by the server for that one client request

    const int none = QNetworkReply::NoError;
    const QByteArray normal = "normal";
    QTest::newRow("delay") << QByteArray("kind=delay&ms=600") << 0 << none << 200 << normal << 1;
    // Qt sends the request again after a reset before the answer: a single drop goes unseen.
    QTest::newRow("drop once") << QByteArray("kind=drop") << 0 << none << 200 << normal << 2;
    QTest::newRow("drop 4 times") << QByteArray("kind=drop&times=4") << 0
                                  << int(QNetworkReply::RemoteHostClosedError) << 0
                                  << QByteArray("") << 4;
    QTest::newRow("reset") << QByteArray("kind=reset") << 0
                           << int(QNetworkReply::RemoteHostClosedError) << 200 << QByteArray() << 1;
    QTest::newRow("never") << QByteArray("kind=never") << 800
                           << int(QNetworkReply::OperationCanceledError) << 0 << QByteArray("")
                           << 1;
    QTest::newRow("status 503") << QByteArray("kind=status&status=503") << 0
                                << int(QNetworkReply::ServiceUnavailableError) << 503
                                << QByteArray("kelo-cloud: simulated error 503\n") << 1;
    QTest::newRow("status default")
        << QByteArray("kind=status") << 0 << int(QNetworkReply::InternalServerError) << 500
        << QByteArray("kelo-cloud: simulated error 500\n") << 1;
    QTest::newRow("garbage") << QByteArray("kind=garbage") << 0 << none << 200
                             << QByteArray("<html><body>502 kelo-cloud garbage {\"err\":"
                                           "</body></html>\n")
                             << 1;
    QTest::newRow("empty") << QByteArray("kind=empty") << 0 << none << 200 << QByteArray("") << 1;
    QTest::newRow("another cm") << QByteArray("kind=empty&cm=other") << 0 << none << 200 << normal
                                << 1;
}

void TestSimulator::faultKinds()
{
    QFETCH(QByteArray, form);
    QFETCH(int, transferTimeout);
    QFETCH(int, error);
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    QFETCH(int, requests);
    const QString target = "/kelo/api/item/?cm=getlist&dt=%7B%7D";
    const Outcome normal = finish(get(target));
    QCOMPARE(normal.error, QNetworkReply::NoError);
    QVERIFY(!normal.body.isEmpty());

    QUrlQuery fields(QString::fromUtf8(form));
    fields.addQueryItem("path", "/kelo/api/item/");
    if (!fields.hasQueryItem("cm"))
        fields.addQueryItem("cm", "getlist");
    const QJsonObject set = control("/_sim/fault", fields.query().toUtf8());
    QCOMPARE(set["ok"], QJsonValue(true));
    QCOMPARE(set["kind"], QJsonValue(fields.queryItemValue("kind")));
    cloud->clearExchanges();

    QElapsedTimer clock;
    clock.start();
    const Outcome outcome = finish(get(target, transferTimeout));
    QCOMPARE(int(outcome.error), error);
    QCOMPARE(outcome.status, status);
    if (body == "normal")
        QCOMPARE(outcome.body, normal.body);
    else if (!body.isNull())
        QCOMPARE(outcome.body, body);
    QCOMPARE(cloud->exchanges("/kelo/api/item/").size(), requests);
    if (fields.hasQueryItem("ms")) // the answer can come late, never early
        QVERIFY(clock.elapsed() >= fields.queryItemValue("ms").toInt());

    // The fault is used up: the next request gets the merchant's answer.
    QCOMPARE(finish(get(target)).body, normal.body);
}

void TestSimulator::faultOnRootDoesNotBlockControl()
{
    QCOMPARE(control("/_sim/fault", "path=/&kind=never&times=100"), QJsonObject({{"cm", ""},
                                                                                 {"kind", "never"},
                                                                                 {"ms", 0},
                                                                                 {"ok", true},
                                                                                 {"path", "/"},
                                                                                 {"times", 100}}));
    QCOMPARE(finish(get("/kelo/api/item/?cm=getlist", 500)).error,
             QNetworkReply::OperationCanceledError);
    const Outcome state = finish(get("/_sim/state"));
    QCOMPARE(state.status, 200);
    QCOMPARE(QJsonDocument::fromJson(state.body)["ok"], QJsonValue(true));
    QCOMPARE(control("/_sim/pongs", "answer=1"), QJsonObject({{"answer", true}, {"ok", true}}));
}

void TestSimulator::refusals_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QString>("route");
    QTest::addColumn<QByteArray>("form");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("error");

    const QByteArray post = "POST";
    QTest::newRow("unknown route") << post << "/_sim/nothing" << QByteArray() << 404
                                   << "unknown control route /_sim/nothing (see kelo-cloud --help)";
    QTest::newRow("GET a POST route")
        << QByteArray("GET") << "/_sim/push" << QByteArray() << 405 << "/_sim/push takes POST";
    QTest::newRow("POST the state")
        << post << "/_sim/state" << QByteArray() << 405 << "/_sim/state takes GET";
    QTest::newRow("paid without code")
        << post << "/_sim/invoice/paid" << QByteArray() << 400 << "invoice_code is missing";
    QTest::newRow("paid unknown invoice")
        << post << "/_sim/invoice/paid" << QByteArray("invoice_code=INV%23999999") << 404
        << "no open invoice INV#999999";
    QTest::newRow("push without text")
        << post << "/_sim/push" << QByteArray("devid=") << 400 << "text is missing";
    QTest::newRow("fault on control")
        << post << "/_sim/fault" << QByteArray("path=/_sim/state&kind=empty") << 400
        << "faults never apply to /_sim/";
    QTest::newRow("fault without path")
        << post << "/_sim/fault" << QByteArray("kind=empty") << 400 << "path must start with \"/\"";
    QTest::newRow("fault unknown kind")
        << post << "/_sim/fault" << QByteArray("path=/&kind=slow") << 400
        << "kind must be one of delay, drop, reset, never, status, garbage, empty, not \"slow\"";
    QTest::newRow("fault status 200")
        << post << "/_sim/fault" << QByteArray("path=/&kind=status&status=200") << 400
        << "status must be an integer from 400 to 599, not \"200\"";
    QTest::newRow("fault 0 times")
        << post << "/_sim/fault" << QByteArray("path=/&kind=drop&times=0") << 400
        << "times must be an integer from 1 to 1000000, not \"0\"";
    QTest::newRow("delay without ms") << post << "/_sim/fault" << QByteArray("path=/&kind=delay")
                                      << 400 << "a delay needs ms above 0";
    QTest::newRow("pongs 2") << post << "/_sim/pongs" << QByteArray("answer=2") << 400
                             << "answer must be 0 or 1";
    QTest::newRow("down without seconds")
        << post << "/_sim/down" << QByteArray() << 400 << "seconds is missing";
    QTest::newRow("down 0 seconds") << post << "/_sim/down" << QByteArray("seconds=0") << 400
                                    << "seconds must be an integer from 1 to 86400, not \"0\"";
}

void TestSimulator::refusals()
{
    QFETCH(QByteArray, method);
    QFETCH(QString, route);
    QFETCH(QByteArray, form);
    QFETCH(int, status);
    QFETCH(QString, error);
    const Outcome outcome = finish(method == "GET" ? get(route) : post(route, form));
    QCOMPARE(outcome.status, status);
    QCOMPARE(outcome.body, answer({{"error", error}, {"ok", false}}));
    QVERIFY(cloud->isUp());
    QCOMPARE(cloud->exchanges("/", {}).size(), 1); // nothing else happened
}

void TestSimulator::pongsOffAndOn()
{
    QWebSocket socket;
    QVERIFY(openSocket(socket, "dev-p"));
    QSignalSpy pongs(&socket, &QWebSocket::pong);
    QSignalSpy texts(&socket, &QWebSocket::textMessageReceived);

    QCOMPARE(control("/_sim/pongs", "answer=0"), QJsonObject({{"answer", false}, {"ok", true}}));
    const int pingsBefore = cloud->pingCount();
    socket.ping("unanswered");
    QTRY_COMPARE(cloud->pingCount(), pingsBefore + 1);
    // A pong would have been written before this text, so once the text is here none came.
    QVERIFY(cloud->pushText("dev-p", "after ping"));
    QVERIFY(texts.wait(15000));
    QCOMPARE(pongs.count(), 0);

    QCOMPARE(control("/_sim/pongs", "answer=1"), QJsonObject({{"answer", true}, {"ok", true}}));
    socket.ping("answered");
    QVERIFY(pongs.wait(15000));
    QCOMPARE(pongs.count(), 1);
    QCOMPARE(pongs.first().at(1).toByteArray(), QByteArray("answered"));
}

void TestSimulator::dropSocketsClosesThemAll()
{
    QWebSocket a, b;
    QVERIFY(openSocket(a, "dev-a"));
    QVERIFY(openSocket(b, "dev-b"));
    QSignalSpy goneA(&a, &QWebSocket::disconnected);
    QSignalSpy goneB(&b, &QWebSocket::disconnected);
    QCOMPARE(control("/_sim/drop-sockets", {}), QJsonObject({{"dropped", 2}, {"ok", true}}));
    QTRY_COMPARE(goneA.count(), 1);
    QTRY_COMPARE(goneB.count(), 1);
    QCOMPARE(cloud->webSocketCount(), 0);
    QCOMPARE(control("/_sim/drop-sockets", {}), QJsonObject({{"dropped", 0}, {"ok", true}}));
}

void TestSimulator::downThenBackOnSamePort()
{
    const quint16 port = cloud->port();
    QWebSocket socket;
    QVERIFY(openSocket(socket, "dev-o"));
    QSignalSpy disconnected(&socket, &QWebSocket::disconnected);

    // The answer comes whole before the outage.
    QCOMPARE(control("/_sim/down", "seconds=3"),
             QJsonObject({{"ok", true}, {"port", port}, {"seconds", 3}}));
    QTRY_COMPARE(disconnected.count(), 1);
    QVERIFY(!cloud->isUp());
    QCOMPARE(finish(get("/_sim/state")).error, QNetworkReply::ConnectionRefusedError);

    QTRY_VERIFY_WITH_TIMEOUT(cloud->isUp(), 15000);
    QCOMPARE(cloud->port(), port);
    const Outcome state = finish(get("/_sim/state"));
    QCOMPARE(state.error, QNetworkReply::NoError);
    QCOMPARE(QJsonDocument::fromJson(state.body)["port"], QJsonValue(port));
}

QTEST_GUILESS_MAIN(TestSimulator)
#include "tst_simulator.moc"
