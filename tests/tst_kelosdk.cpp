// The SDK object itself: its device and notification channel, each request kind's wire form and
// busy guard, logging, lifetime. Login and payment flows: tst_kelosdk_login and _payment;
// transport faults: tst_faultmatrix.
#include "logcapture.h"
#include "sdkkinds.h"
#include "signalrecorder.h"
#include "tst_kelosdk_fixture.h"

#include <QRegularExpression>

#include <array>

namespace {

const QByteArray kLoginReply = R"({"dt":{"staff_id":4,"staff_name":"Anna"},"err":0,"msg":"ok"})";
// The menu reply travels through the picture cache; an empty list comes back as it went.
const QByteArray kEmptyMenu = R"({"dt":{"items":[],"last_update":5},"err":0,"msg":"ok"})";
const QRegularExpression kHex32(QStringLiteral("^[0-9a-f]{32}$"));

} // namespace

class TestKelosdk : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QVERIFY(f.startCloud()); }
    void cleanupTestCase() { f.sdk.reset(); }

    void opensTheNotificationChannelAsItsOwnDevice();
    void sendsEachKindOneAtATime_data();
    void sendsEachKindOneAtATime();
    void menuStaysBusyUntilThePicturesAreThrough();
    void logsOnlyWhenAskedAndSignalsAlike();
    void outlivedByItsNotificationClient(); // last: it drops every socket of the cloud

private:
    void runDay(Kelosdk& sdk);
    SdkFixture f;
};

void TestKelosdk::opensTheNotificationChannelAsItsOwnDevice()
{
    Kelosdk& sdk = f.newSdk();
    QSignalSpy connection(&sdk, SIGNAL(cloudConnectionChange(bool)));
    QVERIFY(connection.wait(kWait));
    QCOMPARE(connection.constFirst(), QVariantList{true});

    const QString devid = f.device;
    QVERIFY2(kHex32.match(devid).hasMatch(), qPrintable(devid));
    const CloudExchange session =
        f.cloud->exchanges("/kelo/api/common", QStringLiteral("get_ws_session")).constFirst();
    QCOMPARE(session.param(QStringLiteral("dt")),
             QStringLiteral(R"({"devid":"%1","merchant_code":"M01"})").arg(devid));
    QVERIFY(QTest::qWaitFor([&] { return f.cloud->connectedDevices().contains(devid); }, kWait));
    const kelocloud::CloudUpgrade upgrade = f.cloud->upgrades().constLast();
    QCOMPARE(upgrade.query.queryItemValue(QStringLiteral("appuser")), QStringLiteral("M01"));
    QCOMPARE(upgrade.query.queryItemValue(QStringLiteral("devid")), devid);
    QVERIFY(upgrade.accepted);

    // A second object of the same merchant is another device.
    Kelosdk second(QString::fromLatin1(kMerchant), QString::fromLatin1(kMerchant), false);
    const QString secondDevice = f.newDevice();
    QVERIFY2(kHex32.match(secondDevice).hasMatch(), qPrintable(secondDevice));
    QVERIFY(secondDevice != devid);
}

void TestKelosdk::sendsEachKindOneAtATime_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<QString>("dt");

    const auto row = [](const char* kind, const char* dt) {
        QTest::newRow(kind) << QByteArray(kind) << QString::fromLatin1(dt);
    };
    // The table list is asked for with the menu's message, on purpose. Nobody is logged in.
    row("menu", R"({"item_status":1,"merchant_code":"M01"})");
    row("tables", R"({"item_status":1,"merchant_code":"M01"})");
    row("food order",
        R"({"amount":5,"items":[],"merchant_code":"M01","staff_id":-1,"table_id":3})");
    row("table foods", R"({"merchant_code":"M01","table_id":3})");
    row("merge", R"({"from_tableid":3,"merchant_code":"M01","to_tableid":4})");
    row("payment", R"({"amount":5,"merchant_code":"M01","staff_id":-1,"table_id":3})");
}

// A second request while the first is out is refused with the kind's busy code, except for the
// tables and the payment, whose kind is held only while the request is built. Each answer is
// handed back as it came.
void TestKelosdk::sendsEachKindOneAtATime()
{
    QFETCH(QByteArray, kind);
    QFETCH(QString, dt);
    const SdkKind& k = sdkKind(kind);

    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply(k.path, k.cm, replyWith(kEmptyMenu), 2);
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    k.call(sdk);
    k.call(sdk);
    const int sent = k.busy.isEmpty() ? 2 : 1;
    QTRY_COMPARE_WITH_TIMEOUT(seen[k.done].size(), sent, kWait);
    for (const QVariantList& done : qAsConst(seen[k.done]))
        QCOMPARE(done, QVariantList{QString::fromUtf8(kEmptyMenu)});
    if (!k.busy.isEmpty())
        QCOMPARE(seen["keloappError"].constFirst(), k.busy);
    const QString doneCount = QStringLiteral("%1 x%2").arg(QString::fromLatin1(k.done)).arg(sent);
    QCOMPARE(seen.fired(), (k.busy.isEmpty() ? QStringList{doneCount}
                                             : QStringList{"keloappError x1", doneCount}));

    const QList<CloudExchange> requests = f.cloud->exchanges(k.path, k.cm);
    QCOMPARE(requests.size(), sent);
    for (const CloudExchange& request : requests) {
        QCOMPARE(request.method, QByteArray("GET"));
        QVERIFY2(request.target.startsWith(k.path + "?cm=" + k.cm.toUtf8() + "&dt="),
                 request.target);
        QCOMPARE(request.params().queryItems().size(), 2);
        QCOMPARE(request.param(QStringLiteral("dt")), dt);
        QVERIFY(!request.hasHeader("Content-Type"));
    }
}

void TestKelosdk::menuStaysBusyUntilThePicturesAreThrough()
{
    Kelosdk& sdk = f.newSdk();
    const QByteArray menu =
        QStringLiteral(
            R"({"dt":{"img_host":"%1","items":[{"img_crc":"1700000000123","img_path":"/pics/7.png","item_id":7}],"last_update":1},"err":0})")
            .arg(f.cloud.baseUrl())
            .toUtf8();
    f.cloud->scriptReply("/kelo/api/item/", QStringLiteral("getlist"), replyWith(menu));
    f.cloud->scriptReply("/pics/7.png", QString(), faultReply(CloudReply::Fault::NeverAnswer));
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});

    sdk.foodsRequest();
    QVERIFY(f.waitExchanges("/pics/7.png", QString(), 1)); // the reply is in, the picture not
    sdk.foodsRequest();
    QCOMPARE(seen["keloappError"].constFirst(), (QVariantList{102, "kelo process food busy!"}));

    // A food order has its own bit, although its refusal shares code 102.
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("confirm_order"), replyWith("{}"));
    sdk.foodOrderRequest({});
    QVERIFY(seen["foodOrderRequestDone"].wait(kWait));

    // Only the host's reset ends a download that never finishes.
    sdk.onNetworkError(99, QStringLiteral("host gave up"));
    f.cloud->scriptReply("/kelo/api/item/", QStringLiteral("getlist"), replyWith(kEmptyMenu));
    sdk.foodsRequest();
    QVERIFY(seen["foodsRequestDone"].wait(kWait));
    QCOMPARE(seen["foodsRequestDone"].constFirst(), QVariantList{QString::fromUtf8(kEmptyMenu)});
    QCOMPARE(seen.fired(), (QStringList{"networkError x1", "keloappError x1", "foodsRequestDone x1",
                                        "foodOrderRequestDone x1"}));
    QCOMPARE(f.cloud->exchanges("/kelo/api/item/", QStringLiteral("getlist")).size(), 2);
}

// A short day that passes through every log line of the object (the menu with no pictures).
void TestKelosdk::runDay(Kelosdk& sdk)
{
    const QList<std::array<const char*, 3>> replies{
        {"/kelo/api/login/", "client_login", kLoginReply.constData()},
        {"/kelo/api/table/", "getlist", "[1]"},
        {"/kelo/api/invoice/", "merge_table", ""},
        {"/kelo/api/invoice/", "payment", "{}"},
        {"/kelo/api/invoice/", "confirm_order", "{}"},
        {"/kelo/api/invoice/", "get_order_list", "[]"},
        {"/kelo/api/item/", "getlist", R"({"dt":{"items":[]},"err":0})"},
        {"/kelo/api/invoice/", "get_session", R"({"dt":{"invoice_session":"S1"},"err":0})"},
        {"/kelo/api/invoice/", "create", R"({"dt":{"invoice_code":"X1"},"err":0})"},
        {"/kelo/api/invoice", "cancel", "{}"}};
    for (const auto& reply : replies)
        f.cloud->scriptReply(reply[0], QString::fromLatin1(reply[1]), replyWith(reply[2]));

    // Each step waits for its answer, so that the lines come in a fixed order.
    const auto step = [&](const std::function<void()>& call, const char* signal) {
        QSignalSpy done(&sdk, signal);
        call();
        return done.wait(kWait);
    };
    int id = 0;
    QString name;
    sdk.userName(id, name);
    QVERIFY(step([&] { sdk.userLogin("anna", "pw"); }, SIGNAL(userLoginDone(int, QString))));
    QVERIFY(sdk.userIslogged());
    QVERIFY(sdk.userName(id, name));
    QVERIFY(step([&] { sdk.tableRequest(); }, SIGNAL(tableRequestDone(QString))));
    QVERIFY(step([&] { sdk.tableMergeRequest(3, 7); }, SIGNAL(tableMergeDone(QString))));
    QVERIFY(step([&] { sdk.paymentRequest(3, 100); }, SIGNAL(paymentDone(QString))));
    QVERIFY(step([&] { sdk.foodOrderRequest({}); }, SIGNAL(foodOrderRequestDone(QString))));
    QVERIFY(step([&] { sdk.tableFoodsRequest(5); }, SIGNAL(tableFoodsDone(QString))));
    QVERIFY(step([&] { sdk.foodsRequest(); }, SIGNAL(foodsRequestDone(QString))));
    sdk.tumipayCancel(QStringLiteral("nope"));
    QVERIFY(step([&] { sdk.tumipayRequest(5, "d", "i"); }, SIGNAL(tumiQRInvoiceCode(QString))));
    sdk.tumipayCancel("X1");
    QVERIFY(step([&] { sdk.tumipayCancel("X1"); }, SIGNAL(tumipayCancelDone(QString))));
    sdk.wssNotify(QStringLiteral(R"({"msg":"hello"})"));
    sdk.onNetworkError(7, QStringLiteral("x"));
    sdk.userLogout();
}

void TestKelosdk::logsOnlyWhenAskedAndSignalsAlike()
{
    QList<QList<QList<QVariantList>>> signalsByRun;
    for (const bool debug : {false, true}) {
        LogCapture log;
        Kelosdk& sdk = f.newSdk(debug);
        SignalRecorder recorder(&sdk, {"cloudConnectionChange"}); // timed by the network
        runDay(sdk);
        if (QTest::currentTestFailed())
            return;
        signalsByRun.append(recorder.all());
        const QStringList expected{
            R"(KELOSDK>> Welcome to KeloSDK! merchant-id: "M01" , machine-name: "POS-1")",
            "KELOSDK>> User name=, id=-1",
            "KELOSDK>> Login request, user name=anna",
            "KELOSDK>> User login done, data=" + QString::fromUtf8(kLoginReply),
            "KELOSDK>> User name=Anna, id=4",
            "KELOSDK>> User name=Anna, id=4",
            "KELOSDK>> Table request ...",
            "KELOSSDK>> Table request respone:[1]",
            "KELOSDK>> Merge table, from:3 to:7",
            "KELOSDK>> Merge table done, data=",
            "KELOSDK>> Payment request, table id=3, amount=100",
            "KELOSSDK>> Table request respone:{}",
            "KELOSDK>> Food Order request ...",
            "KELOSDK>> Food order done, data={}",
            "KELOSDK>> Foods order list ..., tableId=5",
            "KELOSDK>> Food order info detail, data=[]",
            "KELOSDK>> Foods request ...",
            "KELOSDK>> Foods data content dowloading ...",
            "KELOSDK>> Food request done!",
            "KELOSDK>> Cancel invoice code not existed!, invoice code=nope",
            "KELOSDK>> Tumipay request, money=5, description=d, detail=i",
            R"(KELOSDK>> Tumipay respone, data={"dt":{"invoice_code":"X1"},"err":0})",
            "KELOSDK>> Tumipay cancel, invoice code=X1",
            "KELOSDK>> Tumipay cancel, invoice code=X1",
            "KELOSDK>> Please waiting, system busy cancel process ...",
            "KELOSSDK>> Tumipay cancel respone:{}",
            R"(KELOSDK>> Server notify:{"msg":"hello"})",
            "KELOSDK>> Network error=7, msg=x",
            "KELOSDK>> User request logout",
        };
        QCOMPARE(log.lines(QtDebugMsg).filter(QRegularExpression(QStringLiteral("KELOS?SDK>> "))),
                 debug ? expected : QStringList());
    }
    QCOMPARE(signalsByRun.at(1), signalsByRun.at(0));
}

void TestKelosdk::outlivedByItsNotificationClient()
{
    f.cloud->clearExchanges();
    auto* sdk = new Kelosdk(QString::fromLatin1(kMerchant), QString::fromLatin1(kMachine), true);
    const QString devid = f.newDevice();
    QVERIFY(QTest::qWaitFor([&] { return f.cloud->connectedDevices().contains(devid); }, kWait));
    const auto upgradesOf = [&] {
        int n = 0;
        for (const kelocloud::CloudUpgrade& upgrade : f.cloud->upgrades())
            n += upgrade.query.queryItemValue(QStringLiteral("devid")) == devid;
        return n;
    };
    const int before = upgradesOf();
    delete sdk;

    // A frame, then the loss of the socket, then the client's reconnect: all after the SDK.
    QVERIFY(f.cloud->pushText(devid, R"({"dt":{"invoice_code":"A"},"msg":"payment_success"})"));
    QVERIFY(f.cloud->pushText(devid, R"({"msg":"hello"})"));
    f.cloud->dropWebSockets();
    QTRY_VERIFY_WITH_TIMEOUT(upgradesOf() > before, 2 * kWait);
}

QTEST_GUILESS_MAIN(TestKelosdk)
#include "tst_kelosdk.moc"
