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
const char* const kinds[] = {"HttpBase", "HttpBase2"};

/// One request object with spies on both outcome signals. It outlives the event-loop passes of
/// its test, so an HttpBase here is destroyed after its reply's deferred deletion has run.
template <class Request> struct Exchange
{
    explicit Exchange(const QUrl& url, bool debug = false) : request(url, nullptr, debug) {}

    void add(const Pairs& params)
    {
        for (const auto& param : params)
            request.addParameter(param.first, param.second, &param == &params.first());
    }
    /// Waits until the request has ended one way or the other.
    bool ended()
    {
        return QTest::qWaitFor([this] { return done.count() + error.count() > 0; });
    }
    QByteArray body() const { return done.isEmpty() ? "<none>" : done[0][0].toByteArray(); }
    int code() const { return error.isEmpty() ? -1 : error[0][0].toInt(); }
    QString message() const { return error.isEmpty() ? QString() : error[0][1].toString(); }

    Request request;
    QSignalSpy done{&request, &Request::done};
    QSignalSpy error{&request, &Request::error};
};

/// Runs @p test with a tag of the class named in the row's "kind" column.
template <class Test> void forKind(Test test)
{
    QFETCH(QByteArray, kind);
    if (kind == "HttpBase")
        test(static_cast<HttpBase*>(nullptr));
    else
        test(static_cast<HttpBase2*>(nullptr));
}
#define KIND(tag) std::remove_pointer_t<decltype(tag)>

/// Adds the "kind" column; with @p rows, also one plain row per class.
void kindColumn(bool rows = false)
{
    QTest::addColumn<QByteArray>("kind");
    if (rows)
        for (const char* kind : kinds)
            QTest::newRow(kind) << QByteArray(kind);
}

/// Starts the row "<kind>: <name>".
QTestData& row(const char* kind, const char* name)
{
    return QTest::addRow("%s: %s", kind, name) << QByteArray(kind);
}

/// Swallows deferred deletions of the objects it watches, counting them.
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
Q_DECLARE_METATYPE(HTTP_PROCESS)

class TestHttpBase : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void metaObjectInterface_data() { kindColumn(true); }
    void metaObjectInterface();
    void wire_data();
    void wire();
    void contentType_data();
    void contentType();
    void userAgent_data();
    void userAgent();
    void credentials_data();
    void credentials();
    void outcomes_data();
    void outcomes();
    void nothingStarted_data() { kindColumn(true); }
    void nothingStarted();
    void cancelAborts_data() { kindColumn(true); }
    void cancelAborts();
    void debugLines_data() { kindColumn(true); }
    void debugLines();
    void replyLifetime_data() { kindColumn(true); }
    void replyLifetime();
    void ownerReleasesFromHandler_data() { kindColumn(true); }
    void ownerReleasesFromHandler();

private:
    TestCloud cloud;
};

void TestHttpBase::initTestCase()
{
    QVERIFY(cloud.start());
    cloud->putFile("/transport/ok", "hello", "text/plain");
    cloud->putFile("/transport/auth", "welcome", "text/plain");
}

void TestHttpBase::init()
{
    cloud->clearScripts();
    cloud->clearExchanges();
}

void TestHttpBase::metaObjectInterface()
{
    forKind([](auto tag) {
        const QMetaObject& meta = KIND(tag)::staticMetaObject;
        QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
        QTEST(QByteArray(meta.className()), "kind");
        QList<QByteArray> methods;
        for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
            const QMetaMethod method = meta.method(i);
            methods << QByteArray::number(method.methodType()) + ' ' + method.typeName() + ' ' +
                           method.methodSignature() + ' ' + method.parameterNames().join(',');
        }
        const QList<QByteArray> expected{
            "1 void done(QVariant) outputObject",
            "1 void error(int,QString) errorCode,errorMessage",
            "2 QNetworkReply* process(HTTP_PROCESS,QIODevice*) processType,iostream",
            "2 QNetworkReply* process(HTTP_PROCESS) processType",
            "2 QNetworkReply* process() ",
            "2 void finished() "};
        QCOMPARE(methods, expected);
    });
}

// GET: the parameters are the whole query; POST: a form body, the URL's query kept; PUT: the
// device as body, the parameters as the query.
void TestHttpBase::wire_data()
{
    kindColumn();
    QTest::addColumn<HTTP_PROCESS>("method");
    QTest::addColumn<QString>("url");
    QTest::addColumn<Pairs>("params");
    QTest::addColumn<QByteArray>("target");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("contentType");
    const QByteArray none, form("application/x-www-form-urlencoded"), device("raw\0bytes", 9);
    for (const char* kind : kinds) {
        row(kind, "GET without parameters drops the query")
            << HTTP_GET << "/transport/wire?old=1" << Pairs{} << QByteArray("/transport/wire")
            << none << none;
        row(kind, "GET replaces the query")
            << HTTP_GET << "/transport/wire?old=1&x=2" << Pairs{{"a", "1"}}
            << QByteArray("/transport/wire?a=1") << none << none;
        row(kind, "GET keeps list order and duplicates")
            << HTTP_GET << "/transport/wire/?"
            << Pairs{{"cm", "getlist"}, {"k", "2"}, {"k", "1"}, {"dt", json}}
            << QByteArray("/transport/wire/?cm=getlist&k=2&k=1&dt=%7B%22a%22:%22b%20c%22%7D")
            << none << none;
        row(kind, "POST sends a form")
            << HTTP_POST << "/transport/wire?own=1" << Pairs{{"cm", "getlist"}, {"dt", json}}
            << QByteArray("/transport/wire?own=1")
            << QByteArray("cm=getlist&dt=%7B%22a%22:%22b c%22%7D") << form;
        row(kind, "PUT streams the device")
            << HTTP_PUT << "/transport/wire?own=1" << Pairs{{"cm", "upload"}}
            << QByteArray("/transport/wire?cm=upload") << device << none;
    }
}

void TestHttpBase::wire()
{
    forKind([this](auto tag) {
        QFETCH(HTTP_PROCESS, method);
        QFETCH(QString, url);
        QFETCH(Pairs, params);
        QFETCH(QByteArray, contentType);
        cloud->scriptReply("/transport/wire", QString(), CloudReply{200, "answer", {}, 0, {}});
        QBuffer device;
        device.setData("raw\0bytes", 9);
        QVERIFY(device.open(QIODevice::ReadOnly));
        Exchange<KIND(tag)> exchange(cloud.url(QStringLiteral("/elsewhere")));
        exchange.request.setUrl(cloud.url(url));
        exchange.request.setUrl(QUrl(QStringLiteral("http://[::1"))); // invalid: ignored
        exchange.add(params);
        QVERIFY(exchange.request.process(method, &device));
        QVERIFY(exchange.ended());

        QCOMPARE(exchange.error.count(), 0);
        QCOMPARE(exchange.done.count(), 1);
        QCOMPARE(exchange.body(), QByteArray("answer"));
        const auto sent = cloud->exchanges();
        QCOMPARE(sent.size(), 1);
        QCOMPARE(sent[0].method, QList<QByteArray>({"GET", "POST", "PUT"})[method]);
        QTEST(sent[0].target, "target");
        QTEST(sent[0].body, "body");
        QCOMPARE(sent[0].hasHeader("Content-Type"), !contentType.isEmpty());
        QCOMPARE(sent[0].header("Content-Type"), contentType);
        QCOMPARE(sent[0].params().queryItems(QUrl::FullyDecoded), params);
    });
}

// post() only ever asks for a form; the other types are checked on the built request.
void TestHttpBase::contentType_data()
{
    kindColumn();
    QTest::addColumn<CONTENT_TYPE>("type");
    QTest::addColumn<QList<QByteArray>>("headers");
    QTest::addColumn<QByteArray>("value");
    const QList<QByteArray> contentType{"Content-Type"};
    for (const char* kind : kinds) {
        row(kind, "none") << CONTENT_NONE << QList<QByteArray>() << QByteArray();
        row(kind, "form") << CONTENT_FORM << contentType
                          << QByteArray("application/x-www-form-urlencoded");
        row(kind, "json") << CONTENT_JSON << contentType << QByteArray("application/json");
    }
}

void TestHttpBase::contentType()
{
    forKind([this](auto tag) {
        QFETCH(CONTENT_TYPE, type);
        const QUrl url = cloud.url(QStringLiteral("/transport/ok?own=1"));
        KIND(tag) request(url, nullptr, false);
        request.addParameter(QStringLiteral("a"), 1, true);
        const QNetworkRequest built = request.createRequest(type, HTTP_POST);
        QTEST(built.rawHeaderList(), "headers");
        QTEST(built.rawHeader("Content-Type"), "value");
        QCOMPARE(built.url(), url);
    });
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

void TestHttpBase::userAgent()
{
    forKind([this](auto tag) {
        QFETCH(QString, agent);
        Exchange<KIND(tag)> exchange(cloud.url(QStringLiteral("/transport/ok")));
        exchange.request.setAgentname(QStringLiteral("Leftover/1.0"));
        exchange.request.setAgentname(agent);
        QCOMPARE(exchange.request.createRequest(CONTENT_NONE, HTTP_GET).hasRawHeader("User-Agent"),
                 !agent.isEmpty());
        exchange.request.process(HTTP_GET);
        QVERIFY(exchange.ended());
        QCOMPARE(exchange.done.count(), 1);
        const auto sent = cloud->exchanges();
        QCOMPARE(sent.size(), 1);
        if (agent.isEmpty()) // Qt then sends its own
            QVERIFY(sent[0].header("User-Agent") != "Leftover/1.0");
        else
            QCOMPARE(sent[0].header("User-Agent"), agent.toUtf8());
    });
}

// The credentials ride in the URL; Qt answers the server's challenge with them, if both are set.
void TestHttpBase::credentials_data()
{
    kindColumn();
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("password");
    QTest::addColumn<QByteArray>("authorization"); // of the second attempt; empty: none made
    const QByteArray special = "Basic " + QByteArray("u ser:p@ss:w/rd%41").toBase64();
    for (const char* kind : kinds) {
        row(kind, "both") << "user"
                          << "pass" << QByteArray("Basic dXNlcjpwYXNz");
        row(kind, "taken as decoded") << "u ser"
                                      << "p@ss:w/rd%41" << special;
        row(kind, "no password") << "user"
                                 << "" << QByteArray();
        row(kind, "no user") << ""
                             << "pass" << QByteArray();
    }
}

void TestHttpBase::credentials()
{
    forKind([this](auto tag) {
        QFETCH(QString, user);
        QFETCH(QString, password);
        QFETCH(QByteArray, authorization);
        const CloudReply challenge{401, "who?", {{"WWW-Authenticate", "Basic realm=\"k\""}}, 0, {}};
        cloud->scriptReply("/transport/auth", QString(), challenge);
        Exchange<KIND(tag)> exchange(cloud.url(QStringLiteral("/transport/auth")));
        exchange.request.setUsernamePassword(user, password);
        exchange.request.process(HTTP_GET);
        QVERIFY(exchange.ended());

        const auto sent = cloud->exchanges();
        QCOMPARE(sent.value(0).hasHeader("Authorization"), false);
        QCOMPARE(sent.size(), authorization.isEmpty() ? 1 : 2);
        QCOMPARE(sent.value(1).header("Authorization"), authorization);
        QCOMPARE(exchange.done.count(), authorization.isEmpty() ? 0 : 1);
        QCOMPARE(exchange.error.count(), authorization.isEmpty() ? 1 : 0);
        if (authorization.isEmpty())
            QCOMPARE(exchange.code(), int(QNetworkReply::AuthenticationRequiredError));
        else
            QCOMPARE(exchange.body(), QByteArray("welcome"));
    });
}

// Failures always write the critical line, whatever the debug flag; successes write nothing.
void TestHttpBase::outcomes_data()
{
    kindColumn();
    QTest::addColumn<QString>("server"); // "cloud" (answer scripted), "refused" or "stranger"
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<int>("code"); // 0: done() with the answer
    for (const char* kind : kinds) {
        row(kind, "404, body dropped") << "cloud" << 404 << QByteArray("gone") << 203;
        row(kind, "500") << "cloud" << 500 << QByteArray("{\"err\":1}") << 401;
        row(kind, "200, empty body") << "cloud" << 200 << QByteArray() << 0;
        row(kind, "201, NUL bytes undecoded") << "cloud" << 201 << QByteArray("a\0\xff", 3) << 0;
        row(kind, "connection refused") << "refused" << 0 << QByteArray() << 1;
        row(kind, "server not trusted") << "stranger" << 0 << QByteArray() << 6;
    }
}

void TestHttpBase::outcomes()
{
    forKind([this](auto tag) {
        QFETCH(QString, server);
        QFETCH(int, status);
        QFETCH(QByteArray, answer);
        QFETCH(int, code);
        TestCloud stranger(TestCloud::Untrusted);
        QUrl url = cloud.url(QStringLiteral("/transport/answer"));
        if (server == "refused")
            url.setPort(1);
        if (server == "stranger") {
            QVERIFY(stranger.start());
            url = stranger.url(QStringLiteral("/transport/answer"));
        }
        cloud->scriptReply("/transport/answer", QString(), CloudReply{status, answer, {}, 0, {}});
        LogCapture log;
        Exchange<KIND(tag)> exchange(url);
        exchange.add({{"cm", "getlist"}});
        exchange.request.process(HTTP_GET);
        QVERIFY(exchange.ended());

        QCOMPARE(exchange.done.count(), code ? 0 : 1);
        QCOMPARE(exchange.error.count(), code ? 1 : 0);
        QCOMPARE(log.lines(QtDebugMsg), QStringList());
        if (code) {
            QCOMPARE(exchange.code(), code);
            const QString line = QStringLiteral("\"//error:%1, msg:%2\"").arg(code);
            QCOMPARE(log.lines(QtCriticalMsg), QStringList(line.arg(exchange.message())));
        } else {
            QCOMPARE(exchange.done[0][0].userType(), int(QMetaType::QByteArray));
            QCOMPARE(exchange.body(), answer);
            QCOMPARE(log.lines(QtCriticalMsg), QStringList());
        }
        if (server == "stranger")
            QCOMPARE(stranger->exchanges().size(), 0);
    });
}

// An unknown method or a PUT without a device starts nothing and never signals.
void TestHttpBase::nothingStarted()
{
    forKind([this](auto tag) {
        Exchange<KIND(tag)> exchange(cloud.url(QStringLiteral("/transport/ok")));
        exchange.request.cancel(); // nothing to abort yet
        QCOMPARE(exchange.request.process(static_cast<HTTP_PROCESS>(7)), nullptr);
        QCOMPARE(exchange.request.put(nullptr), nullptr);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("invalid nullptr parameter"));
        QCOMPARE(exchange.request.process(HTTP_PUT), nullptr);
        exchange.request.finished(); // no reply recorded: nothing to report
        QCoreApplication::processEvents();
        QCOMPARE(exchange.done.count(), 0);
        QCOMPARE(exchange.error.count(), 0);
        QCOMPARE(cloud->exchanges().size(), 0);
    });
}

void TestHttpBase::cancelAborts()
{
    forKind([this](auto tag) {
        CloudReply hang;
        hang.fault = CloudReply::Fault::NeverAnswer;
        cloud->scriptReply("/transport/hang", QString(), hang);
        Exchange<KIND(tag)> exchange(cloud.url(QStringLiteral("/transport/hang")));
        exchange.request.process(HTTP_GET);
        QTRY_COMPARE(cloud->exchanges().size(), 1);
        exchange.request.cancel();
        QVERIFY(exchange.ended());
        QCOMPARE(exchange.done.count(), 0);
        QCOMPARE(exchange.error.count(), 1);
        QCOMPARE(exchange.code(), int(QNetworkReply::OperationCanceledError));
    });
}

void TestHttpBase::debugLines()
{
    forKind([this](auto tag) {
        LogCapture log;
        const QUrl url = cloud.url(QStringLiteral("/transport/ok?"));
        Exchange<KIND(tag)> exchange(url, true);
        exchange.add({{"cm", "getlist"}, {"dt", "a b&c"}});
        exchange.request.process(HTTP_GET);
        QVERIFY(exchange.ended());
        QCOMPARE(exchange.done.count(), 1);
        const QStringList expected{
            QStringLiteral("http2 url: \"%1cm=getlist&dt=a b&c\"").arg(url.toString()),
            QStringLiteral("respone data: \"hello\"")};
        QCOMPARE(log.lines(QtDebugMsg), expected);
    });
}

// HttpBase schedules the finished reply for deletion, HttpBase2 keeps it readable; both delete
// the recorded reply when destroyed.
void TestHttpBase::replyLifetime()
{
    forKind([this](auto tag) {
        auto* exchange = new Exchange<KIND(tag)>(cloud.url(QStringLiteral("/transport/ok")));
        QPointer<QNetworkReply> reply = exchange->request.process(HTTP_GET);
        QVERIFY(reply);
        DeletionWatch watch;
        reply->installEventFilter(&watch);
        QVERIFY(exchange->ended());
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);

        const bool keeps = std::is_same<KIND(tag), HttpBase2>::value;
        QCOMPARE(watch.requested, keeps ? 0 : 1);
        QVERIFY(reply);
        QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
        delete exchange;
        QVERIFY(reply.isNull());
    });
}

// What every owner does: release the request object from its done handler.
void TestHttpBase::ownerReleasesFromHandler()
{
    forKind([this](auto tag) {
        using R = KIND(tag);
        QPointer<R> request = new R(cloud.url(QStringLiteral("/transport/ok")), nullptr, false);
        QSignalSpy done(request.data(), &R::done);
        connect(request.data(), &R::done, request.data(), &QObject::deleteLater);
        QPointer<QNetworkReply> reply = request->process(HTTP_GET);
        QTRY_VERIFY(request.isNull());
        QVERIFY(reply.isNull());
        QCOMPARE(done.count(), 1);
    });
}

QTEST_GUILESS_MAIN(TestHttpBase)
#include "tst_httpbase.moc"
