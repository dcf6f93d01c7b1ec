// The SDK object itself: construction, notification hookup, busy release, logging, lifetime.
#include "logcapture.h"
#include "tst_kelosdk_fixture.h"

#include <QMetaMethod>
#include <QNetworkReply>
#include <QRegularExpression>

namespace {

const QByteArray kLoginReply = R"({"dt":{"staff_id":4,"staff_name":"Anna"},"err":0,"msg":"ok"})";

// Every signal of one object except the connection state, whose timing is the network's.
class SignalRecorder
{
public:
    explicit SignalRecorder(QObject* object)
    {
        const QMetaObject* meta = object->metaObject();
        for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
            const QMetaMethod method = meta->method(i);
            if (method.methodType() == QMetaMethod::Signal &&
                method.name() != "cloudConnectionChange")
                spies.append(std::make_shared<QSignalSpy>(object, method));
        }
    }
    QList<QList<QVariantList>> record() const
    {
        QList<QList<QVariantList>> all;
        for (const auto& spy : spies)
            all.append(*spy);
        return all;
    }

private:
    QList<std::shared_ptr<QSignalSpy>> spies;
};

QStringList sdkLines(const LogCapture& log)
{
    QStringList lines;
    for (const QString& line : log.lines(QtDebugMsg))
        if (line.contains(QLatin1String("KELOSDK>> ")) ||
            line.contains(QLatin1String("KELOSSDK>> ")))
            lines.append(line);
    return lines;
}

} // namespace

class TestKelosdk : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QVERIFY(f.startCloud()); }
    void cleanupTestCase() { f.sdk.reset(); }

    void opensTheNotificationChannelAsItsDevice();
    void eachObjectIsItsOwnDevice();
    void logsOnlyWhenAskedAndSignalsAlike();
    void networkErrorSlotFreesEveryKind();
    void untrustedServerEndsInATlsError();
    void outlivedByItsNotificationClient(); // last: it drops every socket of the cloud

private:
    void runDay(Kelosdk& sdk);
    SdkFixture f;
};

void TestKelosdk::opensTheNotificationChannelAsItsDevice()
{
    Kelosdk& sdk = f.newSdk();
    QSignalSpy connection(&sdk, SIGNAL(cloudConnectionChange(bool)));
    QVERIFY(connection.wait(kWait));
    QCOMPARE(connection.constFirst(), QVariantList{true});

    const QString devid = f.device;
    QVERIFY(QRegularExpression(QStringLiteral("^[0-9a-f]{32}$")).match(devid).hasMatch());
    const CloudExchange session =
        f.cloud->exchanges("/kelo/api/common", QStringLiteral("get_ws_session")).constFirst();
    QCOMPARE(session.param(QStringLiteral("dt")),
             QStringLiteral(R"({"devid":"%1","merchant_code":"M01"})").arg(devid));
    QVERIFY(QTest::qWaitFor([&] { return f.cloud->connectedDevices().contains(devid); }, kWait));
    const kelocloud::CloudUpgrade upgrade = f.cloud->upgrades().constLast();
    QCOMPARE(upgrade.query.queryItemValue(QStringLiteral("appuser")), QStringLiteral("M01"));
    QCOMPARE(upgrade.query.queryItemValue(QStringLiteral("devid")), devid);
    QVERIFY(upgrade.accepted);
}

void TestKelosdk::eachObjectIsItsOwnDevice()
{
    f.newSdk();
    Kelosdk second(QString::fromLatin1(kMerchant), QString::fromLatin1(kMerchant), false);
    const QString secondDevice = f.newDevice();
    const QRegularExpression hex32(QStringLiteral("^[0-9a-f]{32}$"));
    QVERIFY2(hex32.match(f.device).hasMatch(), qPrintable(f.device));
    QVERIFY2(hex32.match(secondDevice).hasMatch(), qPrintable(secondDevice));
    QVERIFY(secondDevice != f.device);
}

// A short day that passes through every log line of the object (the menu with no pictures).
void TestKelosdk::runDay(Kelosdk& sdk)
{
    auto& cloud = f.cloud.server();
    cloud.scriptReply("/kelo/api/login/", QStringLiteral("client_login"), replyWith(kLoginReply));
    cloud.scriptReply("/kelo/api/table/", QStringLiteral("getlist"), replyWith("[1]"));
    cloud.scriptReply("/kelo/api/invoice/", QStringLiteral("merge_table"), replyWith(""));
    cloud.scriptReply("/kelo/api/invoice/", QStringLiteral("payment"), replyWith("{}"));
    cloud.scriptReply("/kelo/api/invoice/", QStringLiteral("confirm_order"), replyWith("{}"));
    cloud.scriptReply("/kelo/api/invoice/", QStringLiteral("get_order_list"), replyWith("[]"));
    cloud.scriptReply("/kelo/api/item/", QStringLiteral("getlist"),
                      replyWith(R"({"dt":{"items":[]},"err":0})"));
    cloud.scriptReply("/kelo/api/invoice/", QStringLiteral("get_session"),
                      replyWith(R"({"dt":{"invoice_session":"S1"},"err":0})"));
    cloud.scriptReply("/kelo/api/invoice/", QStringLiteral("create"),
                      replyWith(R"({"dt":{"invoice_code":"X1"},"err":0})"));
    cloud.scriptReply("/kelo/api/invoice", QStringLiteral("cancel"), replyWith("{}"));

    const auto waitFor = [&](const char* signal) {
        QSignalSpy spy(&sdk, signal);
        return spy.wait(kWait);
    };
    int id = 0;
    QString name;
    sdk.userName(id, name);
    sdk.userLogin(QStringLiteral("anna"), QStringLiteral("pw"));
    QVERIFY(waitFor(SIGNAL(userLoginDone(int, QString))));
    QVERIFY(sdk.userIslogged());
    QVERIFY(sdk.userName(id, name));
    sdk.tableRequest();
    QVERIFY(waitFor(SIGNAL(tableRequestDone(QString))));
    sdk.tableMergeRequest(3, 7);
    QVERIFY(waitFor(SIGNAL(tableMergeDone(QString))));
    sdk.paymentRequest(3, 100);
    QVERIFY(waitFor(SIGNAL(paymentDone(QString))));
    sdk.foodOrderRequest({});
    QVERIFY(waitFor(SIGNAL(foodOrderRequestDone(QString))));
    sdk.tableFoodsRequest(5);
    QVERIFY(waitFor(SIGNAL(tableFoodsDone(QString))));
    sdk.foodsRequest();
    QVERIFY(waitFor(SIGNAL(foodsRequestDone(QString))));
    sdk.tumipayCancel(QStringLiteral("nope"));
    sdk.tumipayRequest(5, QStringLiteral("d"), QStringLiteral("i"));
    QVERIFY(waitFor(SIGNAL(tumiQRInvoiceCode(QString))));
    sdk.tumipayCancel(QStringLiteral("X1"));
    sdk.tumipayCancel(QStringLiteral("X1"));
    QVERIFY(waitFor(SIGNAL(tumipayCancelDone(QString))));
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
        SignalRecorder recorder(&sdk);
        runDay(sdk);
        if (QTest::currentTestFailed())
            return;
        signalsByRun.append(recorder.record());
        if (!debug) {
            QCOMPARE(sdkLines(log), QStringList());
            continue;
        }
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
        QCOMPARE(sdkLines(log), expected);
    }
    QCOMPARE(signalsByRun.at(1), signalsByRun.at(0));
}

void TestKelosdk::networkErrorSlotFreesEveryKind()
{
    Kelosdk& sdk = f.newSdk();
    const QList<QPair<QByteArray, QString>> held{
        {"/kelo/api/item/", "getlist"},           {"/kelo/api/invoice/", "confirm_order"},
        {"/kelo/api/invoice/", "get_order_list"}, {"/kelo/api/invoice/", "merge_table"},
        {"/kelo/api/login/", "client_login"},     {"/kelo/api/invoice/", "get_session"},
    };
    for (const auto& request : held)
        f.cloud->scriptReply(request.first, request.second,
                             faultReply(CloudReply::Fault::NeverAnswer), 2);
    const auto callAll = [&sdk] {
        sdk.foodsRequest();
        sdk.foodOrderRequest({});
        sdk.tableFoodsRequest(1);
        sdk.tableMergeRequest(1, 2);
        sdk.userLogin(QStringLiteral("u"), QStringLiteral("p"));
        sdk.tumipayRequest(1, QString(), QString());
    };
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));
    QSignalSpy netError(&sdk, SIGNAL(networkError(int, QString)));

    callAll();
    QCOMPARE(appError.size(), 0);
    callAll();
    QCOMPARE(appError.size(), int(held.size()));
    QList<int> codes;
    for (const QVariantList& refusal : qAsConst(appError))
        codes.append(refusal.at(0).toInt());
    QCOMPARE(codes, (QList<int>{102, 102, 111, 112, 106, 103}));

    sdk.onNetworkError(42, QStringLiteral("cable out"));
    QCOMPARE(netError.size(), 1);
    QCOMPARE(netError.constFirst(), (QVariantList{42, "cable out"}));
    callAll();
    QCOMPARE(appError.size(), int(held.size()));
    for (const auto& request : held)
        QVERIFY2(f.waitExchanges(request.first, request.second, 2), qPrintable(request.second));
}

void TestKelosdk::untrustedServerEndsInATlsError()
{
    TestCloud untrusted(TestCloud::Untrusted);
    QVERIFY(untrusted.start());
    untrusted.pointSdkHere();
    Kelosdk sdk(QString::fromLatin1(kMerchant), QString::fromLatin1(kMachine), false);
    f.cloud.pointSdkHere();
    QSignalSpy netError(&sdk, SIGNAL(networkError(int, QString)));
    QSignalSpy done(&sdk, SIGNAL(tableRequestDone(QString)));

    sdk.tableRequest();
    QVERIFY(netError.wait(kWait));
    QCOMPARE(netError.constFirst().at(0).toInt(), int(QNetworkReply::SslHandshakeFailedError));
    QVERIFY(!netError.constFirst().at(1).toString().isEmpty());
    QCOMPARE(done.size(), 0);
    QCOMPARE(untrusted->exchanges().size(), 0);
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
