// HttpBase and HttpBase2 against the local cloud over TLS: what goes on the wire, how every
// started request ends in exactly one of done() and error(), the log lines and reply lifetime.
// Every case runs for both classes (rows "HttpBase: ..." and "HttpBase2: ...").
#include "httpbase.h"
#include "httpbase2.h"
#include "logcapture.h"
#include "testcloud.h"

#include <QBuffer>
#include <QPointer>
#include <QtTest>

using kelocloud::CloudReply;

namespace {
using Pairs = QList<QPair<QString, QString>>;

const QString json = QStringLiteral("{\"a\":\"b c\"}");

/// One request object with spies on both outcome signals. It outlives the event-loop passes of
/// its test, so an HttpBase here is destroyed after its reply's deferred deletion has run.
template <class Request> struct Exchange
{
    explicit Exchange(const QUrl& url, bool debug = false) : request(url, nullptr, debug) {}

    void add(const Pairs& params)
    {
        bool first = true;
        for (const auto& param : params) {
            request.addParameter(param.first, param.second, first);
            first = false;
        }
    }
    /// Waits until the request has ended one way or the other.
    bool ended()
    {
        return QTest::qWaitFor([this] { return done.count() + error.count() > 0; });
    }
    QByteArray body() const
    {
        return done.isEmpty() ? "<no done>" : done.at(0).at(0).toByteArray();
    }
    int code() const { return error.isEmpty() ? -1 : error.at(0).at(0).toInt(); }
    QString message() const { return error.isEmpty() ? QString() : error.at(0).at(1).toString(); }

    Request request;
    QSignalSpy done{&request, &Request::done};
    QSignalSpy error{&request, &Request::error};
};

/// Swallows deferred deletions of the object it watches, counting them.
class DeletionWatch : public QObject
{
public:
    int requested = 0;

protected:
    bool eventFilter(QObject*, QEvent* event) override
    {
        if (event->type() != QEvent::DeferredDelete)
            return false;
        ++requested;
        return true;
    }
};
} // namespace

Q_DECLARE_METATYPE(CONTENT_TYPE)

#define DISPATCH(test)                                                                             \
    do {                                                                                           \
        QFETCH(QByteArray, kind);                                                                  \
        if (kind == "HttpBase")                                                                    \
            test<HttpBase>();                                                                      \
        else                                                                                       \
            test<HttpBase2>();                                                                     \
    } while (false)

class TestHttpBase : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();

    void metaObjectInterface_data() { kindColumn(true); }
    void metaObjectInterface() { DISPATCH(metaObjectInterface); }
    void getReplacesTheQuery_data();
    void getReplacesTheQuery() { DISPATCH(getReplacesTheQuery); }
    void postSendsAForm_data() { kindColumn(true); }
    void postSendsAForm() { DISPATCH(postSendsAForm); }
    void putStreamsTheDevice_data() { kindColumn(true); }
    void putStreamsTheDevice() { DISPATCH(putStreamsTheDevice); }
    void contentType_data();
    void contentType() { DISPATCH(contentType); }
    void userAgent_data();
    void userAgent() { DISPATCH(userAgent); }
    void credentials_data();
    void credentials() { DISPATCH(credentials); }
    void serverAnswers_data();
    void serverAnswers() { DISPATCH(serverAnswers); }
    void transportFailures_data();
    void transportFailures() { DISPATCH(transportFailures); }
    void nothingStarted_data() { kindColumn(true); }
    void nothingStarted() { DISPATCH(nothingStarted); }
    void cancelAborts_data() { kindColumn(true); }
    void cancelAborts() { DISPATCH(cancelAborts); }
    void debugLines_data() { kindColumn(true); }
    void debugLines() { DISPATCH(debugLines); }
    void replyLifetime_data() { kindColumn(true); }
    void replyLifetime() { DISPATCH(replyLifetime); }
    void ownerReleasesFromHandler_data() { kindColumn(true); }
    void ownerReleasesFromHandler() { DISPATCH(ownerReleasesFromHandler); }

private:
    template <class R> void metaObjectInterface();
    template <class R> void getReplacesTheQuery();
    template <class R> void postSendsAForm();
    template <class R> void putStreamsTheDevice();
    template <class R> void contentType();
    template <class R> void userAgent();
    template <class R> void credentials();
    template <class R> void serverAnswers();
    template <class R> void transportFailures();
    template <class R> void nothingStarted();
    template <class R> void cancelAborts();
    template <class R> void debugLines();
    template <class R> void replyLifetime();
    template <class R> void ownerReleasesFromHandler();

    /// Adds the "kind" column; with @p rows, also one plain row per class.
    static void kindColumn(bool rows = false);
    /// Starts a row "<kind>: <name>" and fills its kind column.
    static QTestData& row(const char* kind, const char* name);
    QList<kelocloud::CloudExchange> received(const QByteArray& path);

    TestCloud cloud;
};

static const char* const kinds[] = {"HttpBase", "HttpBase2"};

void TestHttpBase::kindColumn(bool rows)
{
    QTest::addColumn<QByteArray>("kind");
    if (rows)
        for (const char* kind : kinds)
            QTest::newRow(kind) << QByteArray(kind);
}

QTestData& TestHttpBase::row(const char* kind, const char* name)
{
    return QTest::addRow("%s: %s", kind, name) << QByteArray(kind);
}

QList<kelocloud::CloudExchange> TestHttpBase::received(const QByteArray& path)
{
    QList<kelocloud::CloudExchange> matching;
    for (const auto& exchange : cloud.server().exchanges())
        if (exchange.path == path)
            matching.append(exchange);
    return matching;
}

void TestHttpBase::initTestCase()
{
    QVERIFY(cloud.start());
    cloud->putFile("/transport/ok", "hello", "text/plain");
    cloud->putFile("/transport/ok/", "hello/", "text/plain");
    cloud->putFile("/transport/auth", "welcome", "text/plain");
}

void TestHttpBase::init()
{
    cloud->clearScripts();
    cloud->clearExchanges();
}

template <class R> void TestHttpBase::metaObjectInterface()
{
    const QMetaObject& meta = R::staticMetaObject;
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QTEST(QByteArray(meta.className()), "kind");
    const QList<QByteArray> expected{
        "done(QVariant)",        "error(int,QString)", "process(HTTP_PROCESS,QIODevice*)",
        "process(HTTP_PROCESS)", "process()",          "finished()"};
    QList<QByteArray> signatures, names;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        signatures << method.methodSignature();
        names << method.parameterNames().join(',') + ' ' + method.typeName() + ' ' +
                     QByteArray::number(method.methodType());
    }
    QCOMPARE(signatures, expected);
    const QList<QByteArray> expectedNames{"outputObject void 1",
                                          "errorCode,errorMessage void 1",
                                          "processType,iostream QNetworkReply* 2",
                                          "processType QNetworkReply* 2",
                                          " QNetworkReply* 2",
                                          " void 2"};
    QCOMPARE(names, expectedNames);
}

void TestHttpBase::getReplacesTheQuery_data()
{
    kindColumn();
    QTest::addColumn<QString>("url");
    QTest::addColumn<Pairs>("params");
    QTest::addColumn<QByteArray>("target");
    QTest::addColumn<QByteArray>("body");
    for (const char* kind : kinds) {
        row(kind, "no parameters drop the URL's query")
            << "/transport/ok?old=1" << Pairs{} << QByteArray("/transport/ok")
            << QByteArray("hello");
        row(kind, "parameters replace the URL's query")
            << "/transport/ok?old=1&x=2" << Pairs{{"a", "1"}} << QByteArray("/transport/ok?a=1")
            << QByteArray("hello");
        row(kind, "list order and duplicates on the wire")
            << "/transport/ok/?" << Pairs{{"cm", "getlist"}, {"k", "2"}, {"k", "1"}, {"dt", json}}
            << QByteArray("/transport/ok/?cm=getlist&k=2&k=1&dt=%7B%22a%22:%22b%20c%22%7D")
            << QByteArray("hello/");
    }
}

template <class R> void TestHttpBase::getReplacesTheQuery()
{
    QFETCH(QString, url);
    QFETCH(Pairs, params);
    Exchange<R> exchange(cloud.url(QStringLiteral("/elsewhere")));
    exchange.request.setUrl(cloud.url(url));
    exchange.request.setUrl(QUrl(QStringLiteral("http://[::1"))); // invalid: ignored
    exchange.add(params);
    QVERIFY(exchange.request.process(HTTP_GET));
    QVERIFY(exchange.ended());

    QCOMPARE(exchange.error.count(), 0);
    QCOMPARE(exchange.done.count(), 1);
    QTEST(exchange.body(), "body");
    const auto sent = cloud->exchanges();
    QCOMPARE(sent.size(), 1);
    QCOMPARE(sent[0].method, QByteArray("GET"));
    QTEST(sent[0].target, "target");
    QCOMPARE(sent[0].hasHeader("Content-Type"), false);
    QCOMPARE(sent[0].params().queryItems(QUrl::FullyDecoded), params);
}

template <class R> void TestHttpBase::postSendsAForm()
{
    cloud->scriptReply("/transport/form", QString(), CloudReply{200, "posted", {}, 0, {}});
    Exchange<R> exchange(cloud.url(QStringLiteral("/transport/form?own=1")));
    exchange.add({{"cm", "getlist"}, {"dt", json}});
    QVERIFY(exchange.request.process(HTTP_POST));
    QVERIFY(exchange.ended());

    QCOMPARE(exchange.error.count(), 0);
    QCOMPARE(exchange.done.count(), 1);
    QCOMPARE(exchange.body(), QByteArray("posted"));
    const auto sent = received("/transport/form");
    QCOMPARE(sent.size(), 1);
    QCOMPARE(sent[0].method, QByteArray("POST"));
    QCOMPARE(sent[0].target, QByteArray("/transport/form?own=1"));
    QCOMPARE(sent[0].body, QByteArray("cm=getlist&dt=%7B%22a%22:%22b c%22%7D"));
    QCOMPARE(sent[0].header("Content-Type"), QByteArray("application/x-www-form-urlencoded"));
    QCOMPARE(sent[0].param(QStringLiteral("dt")), json);
}

// A PUT carries the parameters in the URL query, the device as its body and no Content-Type.
template <class R> void TestHttpBase::putStreamsTheDevice()
{
    cloud->scriptReply("/transport/put", QString(), CloudReply{200, "stored", {}, 0, {}});
    QBuffer device;
    device.setData("raw\0bytes", 9);
    QVERIFY(device.open(QIODevice::ReadOnly));
    Exchange<R> exchange(cloud.url(QStringLiteral("/transport/put?own=1")));
    exchange.add({{"cm", "upload"}});
    QVERIFY(exchange.request.process(HTTP_PUT, &device));
    QVERIFY(exchange.ended());

    QCOMPARE(exchange.done.count(), 1);
    QCOMPARE(exchange.error.count(), 0);
    const auto sent = received("/transport/put");
    QCOMPARE(sent.size(), 1);
    QCOMPARE(sent[0].method, QByteArray("PUT"));
    QCOMPARE(sent[0].target, QByteArray("/transport/put?cm=upload"));
    QCOMPARE(sent[0].body, QByteArray("raw\0bytes", 9));
    QCOMPARE(sent[0].hasHeader("Content-Type"), false);
}

// Only the form type goes on the wire through post(); the others are checked on the request.
void TestHttpBase::contentType_data()
{
    kindColumn();
    QTest::addColumn<CONTENT_TYPE>("type");
    QTest::addColumn<QByteArray>("header");
    for (const char* kind : kinds) {
        row(kind, "none") << CONTENT_NONE << QByteArray();
        row(kind, "form") << CONTENT_FORM << QByteArray("application/x-www-form-urlencoded");
        row(kind, "json") << CONTENT_JSON << QByteArray("application/json");
    }
}

template <class R> void TestHttpBase::contentType()
{
    QFETCH(CONTENT_TYPE, type);
    QFETCH(QByteArray, header);
    R request(cloud.url(QStringLiteral("/transport/ok?own=1")), nullptr, false);
    request.addParameter(QStringLiteral("a"), 1, true);
    const QNetworkRequest built = request.createRequest(type, HTTP_POST);
    QCOMPARE(built.rawHeaderList(),
             header.isEmpty() ? QList<QByteArray>() : QList<QByteArray>{"Content-Type"});
    QCOMPARE(built.rawHeader("Content-Type"), header);
    QCOMPARE(built.url(), cloud.url(QStringLiteral("/transport/ok?own=1")));
}

void TestHttpBase::userAgent_data()
{
    kindColumn();
    QTest::addColumn<QString>("agent");
    for (const char* kind : kinds) {
        row(kind, "set") << QStringLiteral("KeloPOS/2.1 (armhf) caf\u00e9");
        row(kind, "cleared") << QString();
    }
}

template <class R> void TestHttpBase::userAgent()
{
    QFETCH(QString, agent);
    Exchange<R> exchange(cloud.url(QStringLiteral("/transport/ok")));
    exchange.request.setAgentname(QStringLiteral("Leftover/1.0"));
    exchange.request.setAgentname(agent);
    QCOMPARE(exchange.request.createRequest(CONTENT_NONE, HTTP_GET).hasRawHeader("User-Agent"),
             !agent.isEmpty());
    exchange.request.process(HTTP_GET);
    QVERIFY(exchange.ended());
    QCOMPARE(exchange.done.count(), 1);
    const auto sent = cloud->exchanges();
    QCOMPARE(sent.size(), 1);
    if (agent.isEmpty())
        QVERIFY(sent[0].header("User-Agent") != "Leftover/1.0");
    else
        QCOMPARE(sent[0].header("User-Agent"), agent.toUtf8());
}

// The credentials ride in the URL; Qt answers the server's challenge with them, if both are set.
void TestHttpBase::credentials_data()
{
    kindColumn();
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("password");
    QTest::addColumn<QByteArray>("authorization"); // of the second attempt; empty: none made
    for (const char* kind : kinds) {
        row(kind, "both") << "user"
                          << "pass" << QByteArray("Basic dXNlcjpwYXNz");
        row(kind, "decoded as given") << "u ser"
                                      << "p@ss:w/rd%41"
                                      << "Basic " + QByteArray("u ser:p@ss:w/rd%41").toBase64();
        row(kind, "no password") << "user"
                                 << "" << QByteArray();
        row(kind, "no user") << ""
                             << "pass" << QByteArray();
    }
}

template <class R> void TestHttpBase::credentials()
{
    QFETCH(QString, user);
    QFETCH(QString, password);
    QFETCH(QByteArray, authorization);
    cloud->scriptReply(
        "/transport/auth", QString(),
        CloudReply{401, "who?", {{"WWW-Authenticate", "Basic realm=\"kelo\""}}, 0, {}});
    Exchange<R> exchange(cloud.url(QStringLiteral("/transport/auth")));
    exchange.request.setUsernamePassword(user, password);
    exchange.request.process(HTTP_GET);
    QVERIFY(exchange.ended());

    const auto sent = cloud->exchanges();
    QCOMPARE(sent.value(0).hasHeader("Authorization"), false);
    if (authorization.isEmpty()) {
        QCOMPARE(sent.size(), 1);
        QCOMPARE(exchange.done.count(), 0);
        QCOMPARE(exchange.error.count(), 1);
        QCOMPARE(exchange.code(), int(QNetworkReply::AuthenticationRequiredError));
    } else {
        QCOMPARE(sent.size(), 2);
        QCOMPARE(sent[1].header("Authorization"), authorization);
        QCOMPARE(exchange.error.count(), 0);
        QCOMPARE(exchange.done.count(), 1);
        QCOMPARE(exchange.body(), QByteArray("welcome"));
    }
}

void TestHttpBase::serverAnswers_data()
{
    kindColumn();
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<int>("code"); // 0: done() with the answer
    for (const char* kind : kinds) {
        row(kind, "404 is an error, body dropped") << 404 << QByteArray("gone") << 203;
        row(kind, "500 is an error") << 500 << QByteArray("{\"err\":1}") << 401;
        row(kind, "200 with an empty body") << 200 << QByteArray() << 0;
        row(kind, "201 with NUL bytes, undecoded") << 201 << QByteArray("a\0\xff", 3) << 0;
    }
}

// Failures always write the critical line, whatever the debug flag; successes write nothing.
template <class R> void TestHttpBase::serverAnswers()
{
    QFETCH(int, status);
    QFETCH(QByteArray, answer);
    QFETCH(int, code);
    cloud->scriptReply("/transport/answer", QString(), CloudReply{status, answer, {}, 0, {}});
    LogCapture log;
    Exchange<R> exchange(cloud.url(QStringLiteral("/transport/answer")));
    exchange.request.process(HTTP_GET);
    QVERIFY(exchange.ended());

    QCOMPARE(exchange.done.count(), code ? 0 : 1);
    QCOMPARE(exchange.error.count(), code ? 1 : 0);
    QCOMPARE(log.lines(QtDebugMsg), QStringList());
    if (code) {
        QCOMPARE(exchange.code(), code);
        QVERIFY(exchange.message().contains(QStringLiteral("/transport/answer")));
        QCOMPARE(log.lines(QtCriticalMsg),
                 QStringList(
                     QStringLiteral("\"//error:%1, msg:%2\"").arg(code).arg(exchange.message())));
    } else {
        const QVariant body = exchange.done.at(0).at(0);
        QCOMPARE(body.userType(), int(QMetaType::QByteArray));
        QCOMPARE(body.toByteArray(), answer);
        QCOMPARE(log.lines(QtCriticalMsg), QStringList());
    }
}

void TestHttpBase::transportFailures_data()
{
    kindColumn();
    QTest::addColumn<bool>("untrusted");
    QTest::addColumn<int>("code");
    for (const char* kind : kinds) {
        row(kind, "connection refused") << false << int(QNetworkReply::ConnectionRefusedError);
        row(kind, "server not trusted") << true << int(QNetworkReply::SslHandshakeFailedError);
    }
}

template <class R> void TestHttpBase::transportFailures()
{
    QFETCH(bool, untrusted);
    QFETCH(int, code);
    TestCloud stranger(TestCloud::Untrusted);
    QUrl url(QStringLiteral("https://127.0.0.1:1/transport/ok"));
    if (untrusted) {
        QVERIFY(stranger.start());
        url = stranger.url(QStringLiteral("/transport/ok"));
    }
    LogCapture log;
    Exchange<R> exchange(url);
    exchange.add({{"cm", "getlist"}});
    exchange.request.process(HTTP_POST);
    QVERIFY(exchange.ended());

    QCOMPARE(exchange.done.count(), 0);
    QCOMPARE(exchange.error.count(), 1);
    QCOMPARE(exchange.code(), code);
    QCOMPARE(log.count(QStringLiteral("//error:%1, msg:").arg(code)), 1);
    if (untrusted)
        QCOMPARE(stranger->exchanges().size(), 0);
}

// An unknown method or a PUT without a device starts nothing and never signals.
template <class R> void TestHttpBase::nothingStarted()
{
    Exchange<R> exchange(cloud.url(QStringLiteral("/transport/ok")));
    exchange.request.cancel(); // nothing to abort yet
    QCOMPARE(exchange.request.process(static_cast<HTTP_PROCESS>(7)), nullptr);
    QCOMPARE(exchange.request.put(nullptr), nullptr);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("invalid nullptr parameter"));
    QCOMPARE(exchange.request.process(HTTP_PUT), nullptr);
    exchange.request.finished(); // as if a stray reply had finished: nothing recorded
    QTest::qWait(0);
    QCOMPARE(exchange.done.count(), 0);
    QCOMPARE(exchange.error.count(), 0);
    QCOMPARE(cloud->exchanges().size(), 0);
}

template <class R> void TestHttpBase::cancelAborts()
{
    CloudReply hang;
    hang.fault = CloudReply::Fault::NeverAnswer;
    cloud->scriptReply("/transport/hang", QString(), hang);
    Exchange<R> exchange(cloud.url(QStringLiteral("/transport/hang")));
    exchange.request.process(HTTP_GET);
    QTRY_COMPARE(received("/transport/hang").size(), 1);
    exchange.request.cancel();
    QVERIFY(exchange.ended());
    QCOMPARE(exchange.done.count(), 0);
    QCOMPARE(exchange.error.count(), 1);
    QCOMPARE(exchange.code(), int(QNetworkReply::OperationCanceledError));
}

template <class R> void TestHttpBase::debugLines()
{
    LogCapture log;
    const QUrl url = cloud.url(QStringLiteral("/transport/ok/?"));
    Exchange<R> exchange(url, true);
    exchange.add({{"cm", "getlist"}, {"dt", "a b&c"}});
    exchange.request.process(HTTP_GET);
    QVERIFY(exchange.ended());
    QCOMPARE(exchange.done.count(), 1);
    const QStringList expected{
        QStringLiteral("http2 url: \"%1cm=getlist&dt=a b&c\"").arg(url.toString()),
        QStringLiteral("respone data: \"hello/\"")};
    QCOMPARE(log.lines(QtDebugMsg), expected);
}

// HttpBase schedules the finished reply for deletion, HttpBase2 keeps it readable; both delete
// the recorded reply when destroyed.
template <class R> void TestHttpBase::replyLifetime()
{
    auto* exchange = new Exchange<R>(cloud.url(QStringLiteral("/transport/ok")));
    QPointer<QNetworkReply> reply = exchange->request.process(HTTP_GET);
    QVERIFY(reply);
    DeletionWatch watch;
    reply->installEventFilter(&watch);
    QVERIFY(exchange->ended());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);

    const bool keeps = std::is_same<R, HttpBase2>::value;
    QCOMPARE(watch.requested, keeps ? 0 : 1);
    QVERIFY(reply);
    QVERIFY(reply->isFinished());
    QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
    delete exchange;
    QVERIFY(reply.isNull());
}

// What every owner does: release the request object from its done handler.
template <class R> void TestHttpBase::ownerReleasesFromHandler()
{
    QPointer<R> request = new R(cloud.url(QStringLiteral("/transport/ok")), nullptr, false);
    QSignalSpy done(request.data(), &R::done);
    connect(request.data(), &R::done, request.data(), &QObject::deleteLater);
    QPointer<QNetworkReply> reply = request->process(HTTP_GET);
    QTRY_VERIFY(request.isNull());
    QVERIFY(reply.isNull());
    QCOMPARE(done.count(), 1);
}

QTEST_GUILESS_MAIN(TestHttpBase)
#include "tst_httpbase.moc"
