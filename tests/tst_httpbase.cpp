// HttpBase and HttpBase2 against the local cloud over TLS: what goes on the wire, how every
// started request ends in exactly one of done() and error(), the log lines and reply lifetime.
// The whole suite runs once per class (its first line of output names the class).
#include "httpbase.h"
#include "httpbase2.h"
#include "logcapture.h"
#include "testcloud.h"

#include <QBuffer>
#include <QPointer>
#include <QtTest>

using kelocloud::CloudReply;
using Pairs = QList<QPair<QString, QString>>;
Q_DECLARE_METATYPE(HTTP_PROCESS)
Q_DECLARE_METATYPE(CloudReply)

/// The documented default cap on an answer's body.
constexpr qint64 kDefaultCap = 8 * 1024 * 1024;

namespace {

/// One request object with spies on both outcome signals.
template <class Request> struct Exchange
{
    explicit Exchange(const QUrl& url, bool debug = false) : request(url, nullptr, debug) {}
    /// Waits until the request has ended one way or the other.
    bool ended()
    {
        return QTest::qWaitFor([this] { return done.count() + error.count() > 0; });
    }
    /// "done <body>" or "error <code> <message>", a line per signal.
    QByteArray outcome() const
    {
        QByteArrayList lines;
        for (const QVariantList& args : done)
            lines << "done " + (args[0].userType() == QMetaType::QByteArray
                                    ? args[0].toByteArray()
                                    : QByteArray(args[0].typeName()));
        for (const QVariantList& args : error)
            lines << "error " + args[0].toByteArray() + ' ' + args[1].toString().toUtf8();
        return lines.join('\n');
    }

    Request request;
    QSignalSpy done{&request, &Request::done};
    QSignalSpy error{&request, &Request::error};
};

#define KIND(tag) std::remove_pointer_t<decltype(tag)>

} // namespace

class TestHttpBase : public QObject
{
    Q_OBJECT
    TestCloud cloud;
    const QByteArray kind;

    /// Runs @p test with a null pointer of this run's class.
    template <class Test> void forKind(Test test)
    {
        kind == "HttpBase" ? test(static_cast<HttpBase*>(nullptr))
                           : test(static_cast<HttpBase2*>(nullptr));
    }

public:
    explicit TestHttpBase(const char* kind) : kind(kind) {}

private Q_SLOTS:
    void initTestCase()
    {
        qInfo("request class: %s", kind.constData());
        QVERIFY(cloud.start());
        cloud->putFile("/transport/ok", "hello", "text/plain");
        cloud->putFile("/transport/x", "answer", "text/plain");
    }
    void init()
    {
        cloud->clearScripts();
        cloud->clearExchanges();
    }
    // GET: the parameters are the whole query; POST: a form body, the URL's query kept; PUT: the
    // device as body, the parameters as the query. The credentials ride in the URL, for Qt to
    // answer a challenge with. "sent" has a line "<method> <target> [<type>] <body>[ auth=<...>]"
    // for each request the server received. Failures always write the critical line, whatever the
    // debug flag; successes write nothing. The error text is logged and handed on: it never carries
    // the query or the credentials.
    void exchange_data()
    {
        // "cloud", "refused" (port 1) or "stranger" (a server this process does not trust)
        QTest::addColumn<QString>("server");
        QTest::addColumn<HTTP_PROCESS>("method");
        QTest::addColumn<QString>("url");
        QTest::addColumn<Pairs>("params");
        QTest::addColumn<CloudReply>("reply"); // to /transport/x
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<QByteArray>("outcome"); // "<url>" stands for the request's URL
        const auto row = [](const char* name, HTTP_PROCESS method, const char* url,
                            const Pairs& params, const QByteArray& sent, const QByteArray& outcome,
                            const CloudReply& reply = CloudReply{200, "answer", {}, 0, {}},
                            const char* server = "cloud") {
            QTest::newRow(name) << QString(server) << method << QString(url) << params << reply
                                << sent << outcome;
        };
        const QString json = QStringLiteral("{\"a\":\"b c\"}");
        const Pairs secret{{"p", "s3cret"}};
        row("GET without parameters drops the query", HTTP_GET, "/transport/x?old=1", {},
            "GET /transport/x [] ", "done answer");
        row("GET replaces the query, list order and duplicates kept", HTTP_GET,
            "/transport/x/?old=1", {{"cm", "getlist"}, {"k", "2"}, {"k", "1"}, {"dt", json}},
            "GET /transport/x/?cm=getlist&k=2&k=1&dt=%7B%22a%22:%22b%20c%22%7D [] ", "done answer");
        row("POST sends a form", HTTP_POST, "/transport/x?own=1", {{"cm", "getlist"}, {"dt", json}},
            "POST /transport/x?own=1 [application/x-www-form-urlencoded] "
            "cm=getlist&dt=%7B%22a%22:%22b c%22%7D",
            "done answer");
        row("PUT streams the device", HTTP_PUT, "/transport/x?own=1", {{"cm", "upload"}},
            QByteArray("PUT /transport/x?cm=upload [] raw\0bytes", 39), "done answer");
        row("401, answered with the credentials as given", HTTP_GET, "/transport/x", {},
            "GET /transport/x [] \nGET /transport/x []  auth=Basic " +
                QByteArray("u ser:p@ss:w/rd%41").toBase64(),
            "done answer",
            CloudReply{401, "who?", {{"WWW-Authenticate", "Basic realm=\"k\""}}, 0, {}});
        row("404, body dropped", HTTP_GET, "/transport/x", secret, "GET /transport/x?p=s3cret [] ",
            "error 203 Error transferring <url> - server replied: Not Found",
            CloudReply{404, "gone", {}, 0, {}});
        row("200, empty body", HTTP_GET, "/transport/x", {}, "GET /transport/x [] ", "done ",
            CloudReply{});
        row("201, NUL bytes undecoded", HTTP_GET, "/transport/x", {}, "GET /transport/x [] ",
            QByteArray("done a\0\xff", 8), CloudReply{201, {"a\0\xff", 3}, {}, 0, {}});
        row("cancelled", HTTP_GET, "/transport/x", secret, "GET /transport/x?p=s3cret [] ",
            "error 5 Operation canceled", CloudReply{0, {}, {}, 0, CloudReply::Fault::NeverAnswer});
        // Qt does not follow redirects here: the 3xx itself ends the request, whatever its body.
        for (int status : {301, 302, 303, 307, 308})
            for (const QByteArray& body : {QByteArray(), QByteArray(R"({"err":0})")}) {
                const QByteArray name = "HTTP " + QByteArray::number(status) +
                                        (body.isEmpty() ? ", empty body" : ", JSON body");
                row(name, HTTP_GET, "/transport/x", secret, "GET /transport/x?p=s3cret [] ",
                    "error 10 server answered HTTP " + QByteArray::number(status) +
                        " (a redirect), which is not followed",
                    CloudReply{status, body, {{"Location", "https://127.0.0.1:1/portal"}}, 0, {}});
            }
        row("connection refused", HTTP_GET, "/transport/x", secret, "",
            "error 1 Connection refused", {}, "refused");
        row("server not trusted", HTTP_GET, "/transport/x", secret, "",
            "error 6 " KELO_TEST_UNTRUSTED_TEXT, {}, "stranger");
    }
    void exchange()
    {
        forKind([this](auto tag) {
            QFETCH(QString, server);
            QFETCH(HTTP_PROCESS, method);
            QFETCH(QString, url);
            QFETCH(Pairs, params);
            QFETCH(CloudReply, reply);
            QFETCH(QByteArray, sent);
            QFETCH(QByteArray, outcome);
            TestCloud stranger(TestCloud::Untrusted);
            QVERIFY(server != "stranger" || stranger.start());
            QUrl target = (server == "stranger" ? stranger : cloud).url(url);
            if (server == "refused")
                target.setPort(1);
            cloud->scriptReply("/transport/x", QString(), reply);
            QBuffer device;
            device.setData("raw\0bytes", 9);
            QVERIFY(device.open(QIODevice::ReadOnly));
            LogCapture log;
            Exchange<KIND(tag)> exchange(cloud.url("/elsewhere"));
            exchange.request.setUrl(target);
            exchange.request.setUrl(QUrl("http://[::1")); // invalid: ignored
            exchange.request.setAgentname(QStringLiteral("KeloPOS/2.1 caf\u00e9"));
            exchange.request.setUsernamePassword("u ser", "p@ss:w/rd%41");
            for (const auto& param : params)
                exchange.request.addParameter(param.first, param.second, &param == &params.first());
            QVERIFY(exchange.request.process(method, &device));
            if (reply.fault == CloudReply::Fault::NeverAnswer) {
                QTRY_COMPARE(cloud->exchanges().size(), 1);
                exchange.request.cancel();
            }
            QVERIFY(exchange.ended());
            QCoreApplication::processEvents(); // a second signal would have come by now
            QCOMPARE(exchange.outcome(), outcome.replace("<url>", target.toEncoded()));

            QByteArrayList received;
            for (const auto& r : cloud->exchanges()) {
                received << r.method + ' ' + r.target + " [" + r.header("Content-Type") + "] " +
                                r.body +
                                (r.hasHeader("Authorization") ? " auth=" + r.header("Authorization")
                                                              : QByteArray());
                QCOMPARE(r.header("User-Agent"), QStringLiteral("KeloPOS/2.1 caf\u00e9").toUtf8());
                QCOMPARE(r.params().queryItems(QUrl::FullyDecoded), params);
            }
            QCOMPARE(received.join('\n'), sent);
            if (server == "stranger")
                QCOMPARE(stranger->exchanges().size(), 0);
            const QString text = QString::fromUtf8(outcome);
            const QString critical =
                "\"//error:" + text.section(' ', 1, 1) + ", msg:" + text.section(' ', 2) + '"';
            QCOMPARE(log.lines(QtCriticalMsg),
                     text.startsWith("error") ? QStringList(critical) : QStringList());
            QCOMPARE(log.lines(QtDebugMsg), QStringList());
        });
    }
    // The idle deadline: a request that gets no byte for that long ends in error(4) with the
    // library's own text, once (a late answer changes nothing); an answer within it, or any answer
    // with the deadline removed, is delivered. POST and GET alike.
    void idleDeadline_data()
    {
        QTest::addColumn<int>("deadline"); // ms; -1: the default, left alone
        QTest::addColumn<HTTP_PROCESS>("method");
        QTest::addColumn<CloudReply>("reply");
        QTest::addColumn<QByteArray>("outcome");
        const CloudReply never{0, {}, {}, 0, CloudReply::Fault::NeverAnswer};
        const CloudReply late{200, "late", {}, 900, {}};
        const CloudReply soon{200, "soon", {}, 50, {}};
        QTest::newRow("never answered, GET")
            << 300 << HTTP_GET << never
            << QByteArray("error 4 no answer from the server for 300 ms");
        QTest::newRow("never answered, POST")
            << 1000 << HTTP_POST << never
            << QByteArray("error 4 no answer from the server for 1 s");
        QTest::newRow("answered after the deadline")
            << 300 << HTTP_POST << late
            << QByteArray("error 4 no answer from the server for 300 ms");
        QTest::newRow("answered within the deadline")
            << 5000 << HTTP_GET << soon << QByteArray("done soon");
        QTest::newRow("no deadline") << 0 << HTTP_POST << late << QByteArray("done late");
        QTest::newRow("default") << -1 << HTTP_GET << late << QByteArray("done late");
    }
    void idleDeadline()
    {
        forKind([this](auto tag) {
            QFETCH(int, deadline);
            QFETCH(HTTP_PROCESS, method);
            QFETCH(CloudReply, reply);
            QFETCH(QByteArray, outcome);
            cloud->scriptReply("/transport/x", QString(), reply);
            Exchange<KIND(tag)> exchange(cloud.url("/transport/x"));
            QCOMPARE(exchange.request.idleTimeout(), 20000);
            if (deadline >= 0)
                exchange.request.setIdleTimeout(deadline);
            QVERIFY(exchange.request.process(method));
            QVERIFY(exchange.ended());
            // A second outcome (the late answer, the deadline firing again) would come by now.
            QTest::qWait(1200);
            QCOMPARE(exchange.outcome(), outcome);
            QCOMPARE(cloud->exchanges("/transport/x").size(), 1);
        });
    }
    // The cap on the answer's body: the request ends in error(299) as soon as the announced
    // length or the bytes received pass it; an answer exactly at the cap, or any answer with the
    // cap removed, is delivered whole.
    void replyCap_data()
    {
        QTest::addColumn<qint64>("cap"); // -1: the default
        QTest::addColumn<CloudReply>("reply");
        QTest::addColumn<QByteArray>("outcome"); // "done <size>" or "error <code> <text>"
        const qint64 mib = 1024 * 1024, def = kDefaultCap;
        const QByteArray overDefault = "error 299 reply larger than the limit of 8388608 bytes";
        const QByteArray over1000 = "error 299 reply larger than the limit of 1000 bytes";
        const auto streamed = [](qint64 bytes, bool chunked) {
            CloudReply reply;
            reply.streamBytes = bytes;
            reply.chunked = chunked;
            return reply;
        };
        QTest::newRow("at the default cap")
            << qint64(-1) << streamed(def, false) << QByteArray("done 8388608");
        QTest::newRow("at a set cap, chunked")
            << qint64(1000) << streamed(1000, true) << QByteArray("done 1000");
        QTest::newRow("one byte over, Content-Length")
            << qint64(1000) << streamed(1001, false) << over1000;
        // The server announces 1500 bytes and sends 750 before it resets: refused on the header.
        QTest::newRow("announced over, refused before the body")
            << qint64(1000)
            << CloudReply{200, QByteArray(1500, 'x'), {}, 0, CloudReply::Fault::ResetMidBody}
            << over1000;
        QTest::newRow("one byte over, chunked") << qint64(1000) << streamed(1001, true) << over1000;
        QTest::newRow("just over the default, chunked")
            << qint64(-1) << streamed(def + 1, true) << overDefault;
        QTest::newRow("200 MB, Content-Length")
            << qint64(-1) << streamed(200 * mib, false) << overDefault;
        QTest::newRow("200 MB, chunked") << qint64(-1) << streamed(200 * mib, true) << overDefault;
        QTest::newRow("cap removed, 12 MB")
            << qint64(0) << streamed(12 * mib, true) << QByteArray("done 12582912");
        QTest::newRow("404 over the cap")
            << qint64(1000) << CloudReply{404, QByteArray(5000, 'x'), {}, 0, {}} << over1000;
    }
    void replyCap()
    {
        forKind([this](auto tag) {
            QFETCH(qint64, cap);
            QFETCH(CloudReply, reply);
            QFETCH(QByteArray, outcome);
            cloud->scriptReply("/transport/x", QString(), reply);
            LogCapture log;
            Exchange<KIND(tag)> exchange(cloud.url("/transport/x"));
            QCOMPARE(exchange.request.maxReplySize(), kDefaultCap);
            if (cap >= 0)
                exchange.request.setMaxReplySize(cap);
            exchange.request.addParameter("p", "s3cret", true);
            const qint64 sentBefore = cloud->streamedBytes();
            QVERIFY(exchange.request.process(HTTP_GET));
            QVERIFY(exchange.ended());
            QCoreApplication::processEvents(); // a second signal would have come by now
            if (!exchange.done.isEmpty()) {
                const QByteArray body = exchange.done.constFirst().constFirst().toByteArray();
                QCOMPARE(body.count('k') + body.count('x'), body.size());
                QCOMPARE(exchange.done.size(), 1);
                QCOMPARE(exchange.error.size(), 0);
                QCOMPARE("done " + QByteArray::number(body.size()), outcome);
                QCOMPARE(log.lines(QtCriticalMsg), QStringList());
                return;
            }
            QCOMPARE(exchange.outcome(), outcome);
            QCOMPARE(log.lines(QtCriticalMsg),
                     QStringList("\"//error:299, msg:" + outcome.mid(10) + '"'));
            if (reply.streamBytes <= 0)
                return;
            // The connection is closed: the server stops well short of the 200 MB (what it wrote
            // before includes what the sockets' buffers took).
            qint64 sent = cloud->streamedBytes();
            QTRY_VERIFY_WITH_TIMEOUT(
                [&] {
                    const qint64 before = sent;
                    QTest::qWait(300);
                    sent = cloud->streamedBytes();
                    return sent == before;
                }(),
                20000);
            qInfo("the server sent %lld bytes in all", sent - sentBefore);
            QVERIFY2(sent - sentBefore < 4 * kDefaultCap, QByteArray::number(sent - sentBefore));
        });
    }
    // Every header the server sees, in order: the same whichever Qt major the library is built
    // with (Qt 6 would otherwise offer HTTP/2 and follow redirects itself).
    void sameHeadersWithEitherQt_data()
    {
        QTest::addColumn<HTTP_PROCESS>("method");
        QTest::addColumn<QByteArray>("headers");
        // The one difference: Qt 6 built with brotli and zstd (Debian's) offers them too, and
        // decodes them as it does gzip. Naming the encodings ourselves would turn that off.
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
        const QByteArray encodings = "zstd, br, gzip, deflate";
#else
        const QByteArray encodings = "gzip, deflate";
#endif
        const QByteArray tail = "connection: Keep-Alive|accept-encoding: " + encodings +
                                "|accept-language: <locale's>|user-agent: Mozilla/5.0";
        QTest::newRow("GET") << HTTP_GET << "host: <host>|" + tail;
        QTest::newRow("POST") << HTTP_POST
                              << "host: <host>|content-type: application/x-www-form-urlencoded|"
                                 "content-length: 4|" +
                                     tail;
    }
    void sameHeadersWithEitherQt()
    {
        forKind([this](auto tag) {
            QFETCH(HTTP_PROCESS, method);
            QFETCH(QByteArray, headers);
            Exchange<KIND(tag)> exchange(cloud.url("/transport/x"));
            exchange.request.addParameter("cm", "x", true);
            QVERIFY(exchange.request.process(method));
            QVERIFY(exchange.ended());
            const auto exchanges = cloud->exchanges(); // a copy: the loop below reads into it
            QCOMPARE(exchanges.size(), 1);
            QByteArrayList seen;
            for (const auto& header : exchanges.first().headers) {
                const QByteArray name = header.first.toLower();
                seen << name + ": " +
                            (name == "host"              ? QByteArray("<host>")
                             : name == "accept-language" ? QByteArray("<locale's>")
                                                         : header.second);
            }
            QCOMPARE(seen.join('|'), headers);
        });
    }
    // An owner may delete the request object (and with it the reply) from its error handler
    // outright, also when the answer was aborted for its size while Qt was delivering it.
    void ownerDeletesOnRefusal()
    {
        forKind([this](auto tag) {
            using R = KIND(tag);
            CloudReply reply;
            reply.streamBytes = 4 * kDefaultCap;
            reply.chunked = true;
            cloud->scriptReply("/transport/x", QString(), reply);
            QPointer<R> request = new R(cloud.url("/transport/x"), nullptr, false);
            request->setMaxReplySize(1000);
            QSignalSpy error(request.data(), &R::error);
            connect(request.data(), &R::error, request.data(), [&request] { delete request; });
            QPointer<QNetworkReply> answer = request->process(HTTP_GET);
            QTRY_VERIFY(request.isNull());
            QVERIFY(answer.isNull());
            QCOMPARE(error.size(), 1);
            QCOMPARE(error.constFirst().constFirst().toInt(), 299);
            QTest::qWait(50); // Qt's own signals of the aborted reply would land here
        });
    }
    // What the object adds to a request by itself (half a credential pair is none), and requests
    // that start nothing and never signal: an unknown method, a PUT without a device.
    void builtOrRefusedSendsNothing()
    {
        forKind([this](auto tag) {
            Exchange<KIND(tag)> exchange(cloud.url("/transport/ok"));
            exchange.request.setAgentname("Leftover/1.0");
            exchange.request.setAgentname(QString()); // Qt's own User-Agent then
            QNetworkRequest built = exchange.request.createRequest(CONTENT_JSON, HTTP_GET);
            QCOMPARE(built.rawHeaderList(), QList<QByteArray>({"Content-Type"}));
            QCOMPARE(built.rawHeader("Content-Type"), QByteArray("application/json"));
            exchange.request.setUsernamePassword("user", QString());
            built = exchange.request.createRequest(CONTENT_NONE, HTTP_GET);
            QCOMPARE(built.rawHeaderList().size(), 0);
            QCOMPARE(built.url(), cloud.url("/transport/ok"));

            exchange.request.cancel(); // nothing to abort yet
            QCOMPARE(exchange.request.process(static_cast<HTTP_PROCESS>(7)), nullptr);
            QCOMPARE(exchange.request.put(nullptr), nullptr);
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("invalid nullptr parameter"));
            QCOMPARE(exchange.request.process(HTTP_PUT), nullptr);
            exchange.request.finished(); // no reply recorded: nothing to report
            QCoreApplication::processEvents();
            QCOMPARE(exchange.outcome(), QByteArray());
            QCOMPARE(cloud->exchanges().size(), 0);
        });
    }
    // HttpBase deletes the finished reply on the next event-loop pass, HttpBase2 keeps it readable;
    // either deletes a reply still alive when destroyed, and never one already gone.
    void replyLifetime()
    {
        forKind([this](auto tag) {
            auto* exchange = new Exchange<KIND(tag)>(cloud.url("/transport/ok"));
            QPointer<QNetworkReply> reply = exchange->request.process(HTTP_GET);
            QVERIFY(reply);
            QVERIFY(exchange->ended());
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            const bool keeps = std::is_same<KIND(tag), HttpBase2>::value;
            QCOMPARE(reply.isNull(), !keeps);
            if (keeps)
                QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
            delete exchange;
            QVERIFY(reply.isNull());
        });
    }
    // What every owner does: release the request object from its done handler. With debug on,
    // the stored URL and raw parameters, then the answer, are logged.
    void debugOwnerReleasesFromHandler()
    {
        forKind([this](auto tag) {
            using R = KIND(tag);
            LogCapture log;
            const QUrl url = cloud.url("/transport/ok?");
            QPointer<R> request = new R(url, nullptr, true);
            request->addParameter("cm", "getlist", true);
            request->addParameter("dt", "a b&c", false);
            QSignalSpy done(request.data(), &R::done);
            connect(request.data(), &R::done, request.data(), &QObject::deleteLater);
            QPointer<QNetworkReply> reply = request->process(HTTP_GET);
            QTRY_VERIFY(request.isNull());
            QVERIFY(reply.isNull());
            QCOMPARE(done.count(), 1);
            QCOMPARE(log.lines(QtDebugMsg),
                     QStringList({"http2 url: \"" + url.toString() + "cm=getlist&dt=a b&c\"",
                                  "respone data: \"hello\""}));
        });
    }
};

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    int failed = 0;
    for (const char* kind : {"HttpBase", "HttpBase2"}) {
        TestHttpBase test(kind);
        failed += QTest::qExec(&test, argc, argv);
    }
    return failed;
}

#include "tst_httpbase.moc"
