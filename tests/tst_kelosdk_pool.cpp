// The SDK object's one connection pool: its requests share kept-alive connections, keep no
// cookie, and an invoice's "create" never goes out on a reused connection nor twice, even when
// the server closes connections at the worst moment. Lifetimes of requests, pool and
// notification client against each other.
#include "httpbase.h"
#include "httpbase2.h"
#include "kelosdkfixture.h"
#include "logcapture.h"
#include "signalrecorder.h"

#include <QElapsedTimer>
#include <QPointer>

namespace {

/// The connections that @p exchanges came on, each once, in order of first use.
QList<quint64> connectionsOf(const QList<CloudExchange>& exchanges)
{
    QList<quint64> seen;
    for (const CloudExchange& e : exchanges)
        if (!seen.contains(e.connection))
            seen.append(e.connection);
    return seen;
}

/// The server closes every kept-alive connection when its next request arrives (that request
/// is handled but not answered), for the rest of the test.
void closeEveryReusedConnection(TestCloud& cloud)
{
    CloudReply idleClose;
    idleClose.fault = CloudReply::Fault::CloseReused;
    cloud->scriptReply("/kelo/", QString(), idleClose, 1000000);
}

/// Sends the parameters of the form body @p body again, in their order, as a form POST of
/// @p request (HttpParams writes the body in QUrlQuery's PrettyDecoded form, read back here).
template <class Request> void postOwn(Request& request, const QByteArray& body)
{
    const auto items = QUrlQuery(QString::fromUtf8(body)).queryItems(QUrl::PrettyDecoded);
    for (int i = 0; i < items.size(); ++i)
        request.addParameter(items.at(i).first, items.at(i).second, i == 0);
    request.process(HTTP_POST);
}

/// The notification session fetches of device @p devid (the clients of earlier SDK objects live
/// on and fetch theirs too).
QList<CloudExchange> sessionFetches(TestCloud& cloud, const QString& devid)
{
    QList<CloudExchange> mine;
    for (const CloudExchange& e :
         cloud->exchanges("/kelo/api/common", QStringLiteral("get_ws_session")))
        if (QJsonDocument::fromJson(e.param(QStringLiteral("dt")).toUtf8())
                .object()
                .value(QStringLiteral("devid"))
                .toString() == devid)
            mine.append(e);
    return mine;
}

} // namespace

class TestPool : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QVERIFY(f.startCloud()); }
    void cleanupTestCase() { f.sdk.reset(); }

    void requestsShareOneConnection();
    void createGoesOnAConnectionOfItsOwn();
    void createConnectsAgainWhenTheConnectionStalls_data();
    void createConnectsAgainWhenTheConnectionStalls();
    void ownObjectsKeepTheirOwnManager();
    void noCookieIsKeptOrSent();
    void createWithoutAnswerIsSentOnce_data();
    void createWithoutAnswerIsSentOnce();
    void createBytesAsBefore();
    void everyRequestOnceAgainstIdleCloses_data();
    void everyRequestOnceAgainstIdleCloses();
    void noReplyOutlivesItsRequest();
    void sdkGoesFirstWithRequestsOut();
    void sessionFetchEndsWithTheObject();
    void deadRequestDropsIdleConnectionsAfterThoseInFlight();

private:
    SdkFixture f;
};

void TestPool::requestsShareOneConnection()
{
    Kelosdk& sdk = f.newSdk();
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    for (int i = 1; i <= 4; ++i) {
        sdk.tableRequest();
        QVERIFY(QTest::qWaitFor([&] { return seen["tableRequestDone"].count() == i; }, kWait));
    }
    sdk.tableFoodsRequest(3);
    QVERIFY(seen["tableFoodsDone"].wait(kWait));

    const QList<CloudExchange> api = f.cloud->exchanges("/kelo/api/");
    // The notification session, four table lists and a table's foods: one connection.
    QCOMPARE(api.size(), 6);
    QCOMPARE(connectionsOf(api).size(), 1);
    QCOMPARE(api.last().onConnection, 6);
    QCOMPARE(seen.fired(), (QStringList{"tableRequestDone x4", "tableFoodsDone x1"}));
}

void TestPool::createGoesOnAConnectionOfItsOwn()
{
    Kelosdk& sdk = f.newSdk();
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    const int openBefore = f.cloud->openInvoiceCount();
    sdk.tableRequest();
    QVERIFY(seen["tableRequestDone"].wait(kWait));
    sdk.tumipayRequest(5, QStringLiteral("Table 3"), QStringLiteral("Bill 17"));
    QVERIFY(seen["tumiQRInvoiceCode"].wait(kWait));

    const QList<CloudExchange> session =
        f.cloud->exchanges("/kelo/api/invoice/", QStringLiteral("get_session"));
    const QList<CloudExchange> create =
        f.cloud->exchanges("/kelo/api/invoice/", QStringLiteral("create"));
    const QList<CloudExchange> tables = f.cloud->exchanges("/kelo/api/table/");
    QCOMPARE(session.size(), 1);
    QCOMPARE(create.size(), 1);
    // "get_session" reuses the pool's connection; "create" opens one that nothing else used.
    QCOMPARE(session.first().connection, tables.first().connection);
    QVERIFY(session.first().onConnection > 1);
    QCOMPARE(create.first().onConnection, 1);
    QCOMPARE(connectionsOf(f.cloud->exchanges()).count(create.first().connection), 1);
    for (const CloudExchange& e : f.cloud->exchanges())
        if (e.param(QStringLiteral("cm")) != QLatin1String("create"))
            QVERIFY(e.connection != create.first().connection);
    QCOMPARE(seen.fired(), (QStringList{"tableRequestDone x1", "tumiQRInvoiceCode x1"}));
    QCOMPARE(f.cloud->openInvoiceCount(), openBefore + 1);
    sdk.tumipayCancel(QJsonDocument::fromJson(seen["tumiQRInvoiceCode"].first().at(0).toByteArray())
                          .object()
                          .value(QStringLiteral("dt"))
                          .toObject()
                          .value(QStringLiteral("invoice_code"))
                          .toString());
    QVERIFY(seen["tumipayCancelDone"].wait(kWait));
    QCOMPARE(f.cloud->openInvoiceCount(), openBefore);
}

void TestPool::createConnectsAgainWhenTheConnectionStalls_data()
{
    QTest::addColumn<int>("stalled"); // connections the server accepts and never reads
    QTest::addColumn<int>("idleMs");  // the request's idle deadline
    QTest::addColumn<bool>("created");
    QTest::addColumn<int>("retries"); // "connecting again" warnings
    // The link came back during the first try: the second connection carries the request.
    QTest::newRow("one stalled connection") << 1 << 20000 << true << 1;
    // It never does: the tries end on the idle deadline counted from the first one (7 s, not
    // 7 s after the last try): tries at 0 and 3 s, none at 6 s with 1 s left.
    QTest::newRow("link never back") << 1000 << 7000 << false << 1;
}

// Over TLS nothing of the request leaves before the handshake ends, so a fresh connection that
// does not come up is given up and the create goes out on a new one; it still reaches the
// server no more than once.
void TestPool::createConnectsAgainWhenTheConnectionStalls()
{
    QFETCH(int, stalled);
    QFETCH(int, idleMs);
    QFETCH(bool, created);
    QFETCH(int, retries);
    Kelosdk& sdk = f.newSdk();
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    QVERIFY(QTest::qWaitFor([&] { return f.cloud->connectedDevices().contains(f.device); }, kWait));
    sdk.tableRequest(); // "get_session" then goes on this warm connection
    QVERIFY(seen["tableRequestDone"].wait(kWait));
    sdk.setRequestIdleTimeout(idleMs);
    const int createsBefore =
        f.cloud->exchanges("/kelo/api/invoice/", QStringLiteral("create")).size();

    LogCapture log;
    f.cloud->stallConnections(stalled);
    QElapsedTimer sent;
    sent.start();
    sdk.tumipayRequest(5, QStringLiteral("Table 3"), QStringLiteral("Bill 17"));
    QVERIFY(QTest::qWaitFor(
        [&] { return seen["tumiQRInvoiceCode"].count() + seen["networkError"].count() > 0; },
        kWait));
    const qint64 took = sent.elapsed();
    f.cloud->stallConnections(0);

    const int creates =
        f.cloud->exchanges("/kelo/api/invoice/", QStringLiteral("create")).size() - createsBefore;
    QCOMPARE(creates, created ? 1 : 0);
    QCOMPARE(log.count(QStringLiteral("connecting again (nothing of the request was sent)")),
             retries);
    if (created) {
        QCOMPARE(seen.fired(), (QStringList{"tableRequestDone x1", "tumiQRInvoiceCode x1"}));
    } else {
        QCOMPARE(seen.fired(), (QStringList{"networkError x1", "tableRequestDone x1"}));
        QCOMPARE(seen["networkError"].first().at(0).toInt(), 4);
        QCOMPARE(seen["networkError"].first().at(1).toString(),
                 QStringLiteral("no answer from the server for 7 s"));
        // Not 3 s later, as a deadline started again with the second try would end it.
        QVERIFY2(took < idleMs + 2000, qPrintable(QString::number(took)));
    }
}

void TestPool::ownObjectsKeepTheirOwnManager()
{
    f.newSdk();
    f.cloud->clearExchanges();
    // A host's own objects, one after the other, each with its own manager: never a shared
    // connection, not even with the SDK object's.
    for (int i = 0; i < 3; ++i) {
        HttpBase own(f.cloud.url(QStringLiteral("/kelo/api/table/?")), nullptr, false);
        QSignalSpy done(&own, &HttpBase::done);
        QSignalSpy error(&own, &HttpBase::error);
        own.addParameter(QStringLiteral("cm"), QStringLiteral("getlist"), true);
        own.process(HTTP_GET);
        QVERIFY(done.wait(kWait));
        QCOMPARE(error.count(), 0);
    }
    const QList<CloudExchange> tables = f.cloud->exchanges("/kelo/api/table/");
    QCOMPARE(tables.size(), 3);
    QCOMPARE(connectionsOf(tables).size(), 3);
    for (const CloudExchange& e : tables)
        QCOMPARE(e.onConnection, 1);
}

void TestPool::noCookieIsKeptOrSent()
{
    Kelosdk& sdk = f.newSdk();
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    CloudReply withCookie = replyWith(R"({"dt":{},"err":0,"msg":"ok"})");
    withCookie.headers = {{"Set-Cookie", "kelo_sid=abc123; Path=/"},
                          {"Set-Cookie", "kelo_other=x; Path=/kelo; Max-Age=3600"}};
    f.cloud->scriptReply("/kelo/api/table/", QString(), withCookie);
    sdk.tableRequest();
    QVERIFY(seen["tableRequestDone"].wait(kWait));
    sdk.tableRequest();
    QVERIFY(QTest::qWaitFor([&] { return seen["tableRequestDone"].count() == 2; }, kWait));
    sdk.tumipayRequest(5, QStringLiteral("Table 3"), QStringLiteral("Bill 17"));
    QVERIFY(seen["tumiQRInvoiceCode"].wait(kWait));

    const QList<CloudExchange> all = f.cloud->exchanges("/kelo/api/");
    QCOMPARE(all.size(), 5); // notification session, two tables, session, create
    for (const CloudExchange& e : all)
        QVERIFY2(!e.hasHeader("Cookie"), e.header("Cookie").constData());
    QCOMPARE(seen.fired(), (QStringList{"tableRequestDone x2", "tumiQRInvoiceCode x1"}));
}

void TestPool::createWithoutAnswerIsSentOnce_data()
{
    QTest::addColumn<SdkCall>("create");
    QTest::newRow("the invoice chain") << SdkCall([](Kelosdk& sdk) {
        sdk.tumipayRequest(5, QStringLiteral("Table 3"), QStringLiteral("Bill 17"));
    });
    QTest::newRow("a host's own session") << SdkCall([](Kelosdk& sdk) {
        sdk.tumipayTransfers(QStringLiteral("S1"), 5, QStringLiteral("Table 3"),
                             QStringLiteral("Bill 17"));
    });
}

void TestPool::createWithoutAnswerIsSentOnce()
{
    QFETCH(SdkCall, create);
    Kelosdk& sdk = f.newSdk();
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    // The server reads the whole "create" and closes the connection without a byte of answer;
    // were Qt to send it again, each attempt would meet the same end.
    f.scriptFailure("/kelo/api/invoice/", QStringLiteral("create"),
                    faultReply(CloudReply::Fault::ResetBeforeHeaders));
    create(sdk);
    QVERIFY(seen["networkError"].wait(kWait));
    QTest::qWait(500); // a resend would come now

    QCOMPARE(f.cloud->exchanges("/kelo/api/invoice/", QStringLiteral("create")).size(), 1);
    QCOMPARE(seen.fired(), QStringList{"networkError x1"});
    QCOMPARE(seen["networkError"].first(),
             (QVariantList{int(QNetworkReply::ContentReSendError),
                           "connection closed before the answer; the request was not sent again, "
                           "its outcome is unknown"}));
    // The chain ended: a new invoice may be asked for, and goes through.
    f.cloud->clearScripts();
    sdk.tumipayRequest(5, QStringLiteral("Table 3"), QStringLiteral("Bill 17"));
    QVERIFY(seen["tumiQRInvoiceCode"].wait(kWait));
    QCOMPARE(f.cloud->exchanges("/kelo/api/invoice/", QStringLiteral("create")).size(), 2);
}

void TestPool::createBytesAsBefore()
{
    Kelosdk& sdk = f.newSdk();
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    sdk.tumipayRequest(5, QStringLiteral("Tâble 3 & co"), QStringLiteral("Bill+17 %1"));
    QVERIFY(seen["tumiQRInvoiceCode"].wait(kWait));
    const CloudExchange create =
        f.cloud->exchanges("/kelo/api/invoice/", QStringLiteral("create")).first();

    // The same parameters through a host's own object, whose post() hands Qt a byte array.
    HttpBase2 own(f.cloud.url(QStringLiteral("/kelo/api/invoice/")), nullptr, false);
    QSignalSpy done(&own, &HttpBase2::done);
    postOwn(own, create.body);
    QVERIFY(done.wait(kWait));
    const QList<CloudExchange> both =
        f.cloud->exchanges("/kelo/api/invoice/", QStringLiteral("create"));
    QCOMPARE(both.size(), 2);
    const CloudExchange& before = both.last();
    QCOMPARE(create.method, before.method);
    QCOMPARE(create.target, before.target);
    QCOMPARE(create.body, before.body);
    QCOMPARE(create.headers, before.headers);
    QCOMPARE(create.header("Content-Type"), QByteArray("application/x-www-form-urlencoded"));
    QCOMPARE(create.header("Content-Length"), QByteArray::number(create.body.size()));
}

void TestPool::everyRequestOnceAgainstIdleCloses_data()
{
    QTest::addColumn<int>("rounds");
    QTest::newRow("one round") << 1;
    QTest::newRow("three rounds") << 3;
}

void TestPool::everyRequestOnceAgainstIdleCloses()
{
    QFETCH(int, rounds);
    Kelosdk& sdk = f.newSdk();
    SignalRecorder seen(&sdk, {"cloudConnectionChange", "notify"});
    const int openBefore = f.cloud->openInvoiceCount();
    closeEveryReusedConnection(f.cloud);

    // Each request waits for its outcome before the next one goes: its successor then meets a
    // connection that the pool keeps alive, which the server closes.
    QMap<QByteArray, int> sent;
    const auto step = [&](const QByteArray& signal, const std::function<void()>& call) {
        call();
        const int want = ++sent[signal];
        return QTest::qWaitFor(
            [&] {
                return seen[signal].count() == want || seen["networkError"].count() > 0 ||
                       seen["keloappError"].count() > 0;
            },
            kWait);
    };
    for (int round = 0; round < rounds; ++round) {
        QVERIFY(step("userLoginDone", [&] {
            sdk.userLogin(QStringLiteral("mai"), QStringLiteral("mai123"), Kelosdk::waiter);
        }));
        QVERIFY(step("tableRequestDone", [&] { sdk.tableRequest(); }));
        QVERIFY(step("tableFoodsDone", [&] { sdk.tableFoodsRequest(3); }));
        QVERIFY(step("foodOrderRequestDone", [&] {
            sdk.foodOrderRequest({{"table_id", 3}, {"amount", 5}, {"items", QJsonArray()}});
        }));
        QVERIFY(step("tableMergeDone", [&] { sdk.tableMergeRequest(3, 4); }));
        QVERIFY(step("paymentDone", [&] { sdk.paymentRequest(3, 5); }));
        QVERIFY(step("tumiQRInvoiceCode",
                     [&] { sdk.tumipayRequest(5, QStringLiteral("T"), QStringLiteral("B")); }));
        const QString code =
            QJsonDocument::fromJson(seen["tumiQRInvoiceCode"].last().at(0).toByteArray())
                .object()
                .value(QStringLiteral("dt"))
                .toObject()
                .value(QStringLiteral("invoice_code"))
                .toString();
        QVERIFY(!code.isEmpty());
        QVERIFY(step("tumipayCancelDone", [&] { sdk.tumipayCancel(code); }));
        sdk.userLogout();
    }
    QTest::qWait(300); // anything sent twice or answered late would show now
    const QString n = QString::number(rounds);
    QCOMPARE(
        seen.fired(),
        (QStringList{"userLoginDone x" + n, "userLogoutDone x" + n, "foodOrderRequestDone x" + n,
                     "tableRequestDone x" + n, "tableFoodsDone x" + n, "tableMergeDone x" + n,
                     "tumiQRInvoiceCode x" + n, "tumipayCancelDone x" + n, "paymentDone x" + n}));
    // Every invoice reached the server once and was booked once (and cancelled).
    QCOMPARE(f.cloud->exchanges("/kelo/api/invoice/", QStringLiteral("create")).size(), rounds);
    QCOMPARE(f.cloud->openInvoiceCount(), openBefore);
    // The fault did strike: requests were closed unanswered on reused connections, and Qt
    // sent each of them again on a new one.
    int closed = 0;
    for (const CloudExchange& e : f.cloud->exchanges("/kelo/api/"))
        closed += e.onConnection > 1 ? 1 : 0;
    QVERIFY2(closed >= 6 * rounds, qPrintable(QString::number(closed)));
    QCOMPARE(f.cloud->exchanges("/kelo/api/table/").size(), 2 * rounds);
}

void TestPool::noReplyOutlivesItsRequest()
{
    Kelosdk& sdk = f.newSdk();
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    // The pool is the SDK object's one manager; a failed request too must leave nothing in it.
    auto* pool = sdk.findChild<QNetworkAccessManager*>();
    QVERIFY(pool);
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("get_order_list"),
                         replyWith("{}", 500));
    sdk.tableRequest();
    sdk.tableFoodsRequest(3);
    sdk.tumipayRequest(5, QStringLiteral("T"), QStringLiteral("B"));
    QVERIFY(seen["tumiQRInvoiceCode"].wait(kWait));
    QVERIFY(QTest::qWaitFor([&] { return seen["tableRequestDone"].count() == 1; }, kWait));
    QVERIFY(QTest::qWaitFor([&] { return seen["networkError"].count() == 1; }, kWait));
    // The chain's object carried "get_session" through the pool and keeps its replies until it
    // goes: then the pool holds none of them any more.
    QTRY_COMPARE_WITH_TIMEOUT(pool->findChildren<QNetworkReply*>().size(), 0, kWait);
    QCOMPARE(seen.fired(),
             (QStringList{"networkError x1", "tableRequestDone x1", "tumiQRInvoiceCode x1"}));
}

void TestPool::sdkGoesFirstWithRequestsOut()
{
    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/table/", QString(), faultReply(CloudReply::Fault::NeverAnswer),
                         10);
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("get_session"),
                         faultReply(CloudReply::Fault::NeverAnswer), 10);
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    sdk.tableRequest();
    sdk.tableRequest();
    sdk.tumipayRequest(5, QStringLiteral("T"), QStringLiteral("B"));
    QVERIFY(f.waitExchanges("/kelo/api/table/", QString(), 2));
    QVERIFY(f.waitExchanges("/kelo/api/invoice/", QStringLiteral("get_session"), 1));
    // The request objects, the pool and its replies go with the object; nothing reports.
    f.sdk.reset();
    QTest::qWait(200);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCOMPARE(seen.fired(), QStringList());
}

void TestPool::sessionFetchEndsWithTheObject()
{
    Kelosdk& sdk = f.newSdk();
    const QString device = f.device;
    QVERIFY(QTest::qWaitFor([&] { return f.cloud->connectedDevices().contains(device); }, kWait));
    sdk.tableRequest(); // the pool holds a connection
    QSignalSpy tables(&sdk, SIGNAL(tableRequestDone(QString)));
    QVERIFY(tables.wait(kWait));

    // The channel's next session fetch goes through the pool and is never answered; the SDK
    // object (its pool and its channel) goes while it is out.
    f.cloud->scriptReply("/kelo/api/common", QStringLiteral("get_ws_session"),
                         faultReply(CloudReply::Fault::NeverAnswer), 1000);
    const int asked = sessionFetches(f.cloud, device).size();
    QVERIFY(f.cloud->dropWebSockets() >= 1);
    QVERIFY(QTest::qWaitFor([&] { return sessionFetches(f.cloud, device).size() > asked; }, kWait));
    const CloudExchange pooled = sessionFetches(f.cloud, device).last();
    QCOMPARE(pooled.connection, f.cloud->exchanges("/kelo/api/table/").last().connection);
    {
        // The fetch ends with the object, at once (not at its own deadline): its request
        // object reports the abort.
        LogCapture log;
        f.sdk.reset();
        QCOMPARE(log.count(QStringLiteral("//error:5, msg:")), 1);
    }
    f.cloud->clearScripts();

    // Nothing of the object is left to fetch again: its watchdog (which would ask again within
    // a second or two) went with it, and the device never comes back.
    QTest::qWait(3000);
    QCOMPARE(sessionFetches(f.cloud, device).size(), asked + 1);
    QVERIFY(!f.cloud->connectedDevices().contains(device));
}

// A request that dies on its idle deadline tells that the link was dead: the pool's kept-alive
// connections are dropped and the next request opens a fresh one. Qt drops them by ending its
// network thread, which would strand a reply still in flight (Qt 5.15: it never finishes), so the
// drop waits until nothing runs: a slow answer in flight meanwhile arrives whole.
void TestPool::deadRequestDropsIdleConnectionsAfterThoseInFlight()
{
    Kelosdk& sdk = f.newSdk();
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    sdk.setRequestIdleTimeout(400);
    sdk.tableRequest();
    QVERIFY(seen["tableRequestDone"].wait(kWait));
    auto* pool = sdk.findChild<QNetworkAccessManager*>();
    QVERIFY(pool);

    // A slow answer in flight through the pool (no deadline of its own), on the warm connection.
    CloudReply slow = replyWith("slow body");
    slow.delayMs = 2000;
    f.cloud->scriptReply("/transport/slow", QString(), slow);
    QScopedPointer<QNetworkReply> inFlight(
        pool->get(QNetworkRequest(f.cloud.url("/transport/slow"))));
    QSignalSpy inFlightEnded(inFlight.data(), &QNetworkReply::finished);
    QVERIFY(
        QTest::qWaitFor([&] { return f.cloud->exchanges("/transport/slow").size() == 1; }, kWait));

    // A table list that is never answered: given up at its deadline, once.
    f.cloud->scriptReply("/kelo/api/table/", QStringLiteral("getlist"),
                         faultReply(CloudReply::Fault::NeverAnswer));
    sdk.tableRequest();
    QVERIFY(seen["networkError"].wait(kWait));
    QCOMPARE(seen["networkError"].constFirst(),
             (QVariantList{4, QStringLiteral("no answer from the server for 400 ms")}));

    // The slow answer was not stranded by the drop.
    QVERIFY(inFlightEnded.count() == 1 || inFlightEnded.wait(kWait));
    QCOMPARE(inFlight->error(), QNetworkReply::NoError);
    QCOMPARE(inFlight->readAll(), QByteArray("slow body"));
    const QList<quint64> before = connectionsOf(f.cloud->exchanges());

    // The next request goes on a connection of its own: the kept-alive one was dropped.
    sdk.tableRequest();
    QVERIFY(QTest::qWaitFor([&] { return seen["tableRequestDone"].count() == 2; }, kWait));
    const QList<CloudExchange> tables = f.cloud->exchanges("/kelo/api/table/");
    QCOMPARE(tables.size(), 3);
    QVERIFY2(!before.contains(tables.last().connection),
             qPrintable(QString::number(tables.last().onConnection)));
    QTest::qWait(800); // a second outcome of the dead request would come by now
    QCOMPARE(seen.fired(), (QStringList{"networkError x1", "tableRequestDone x2"}));
}

QTEST_MAIN(TestPool)
#include "tst_kelosdk_pool.moc"
