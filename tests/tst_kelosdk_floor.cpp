// Menu, food order, tables, ordered foods and table merge through the SDK object.
#include "tst_kelosdk_fixture.h"

#include <QNetworkReply>

namespace {

// The menu reply travels through the picture cache; an empty list comes back as it went.
const QByteArray kEmptyMenu = R"({"dt":{"items":[],"last_update":5},"err":0,"msg":"ok"})";

// One request kind of this suite, with its busy refusal.
struct Flow
{
    const char* name;
    SdkCall call;
    QByteArray path;
    QString cm;
    QByteArray doneSignal;
    int busyCode;
    QString busyText;
};

QList<Flow> floorFlows()
{
    return {
        {"menu", [](Kelosdk& s) { s.foodsRequest(); }, "/kelo/api/item/", "getlist",
         SIGNAL(foodsRequestDone(QString)), 102, "kelo process food busy!"},
        {"food order", [](Kelosdk& s) { s.foodOrderRequest({}); }, "/kelo/api/invoice/",
         "confirm_order", SIGNAL(foodOrderRequestDone(QString)), 102,
         "kelo process food order busy!"},
        {"tables", [](Kelosdk& s) { s.tableRequest(); }, "/kelo/api/table/", "getlist",
         SIGNAL(tableRequestDone(QString)), 110, "kelo process table busy"},
        {"table foods", [](Kelosdk& s) { s.tableFoodsRequest(1); }, "/kelo/api/invoice/",
         "get_order_list", SIGNAL(tableFoodsDone(QString)), 111,
         "kelo process ordered foods list information detail!"},
        {"merge", [](Kelosdk& s) { s.tableMergeRequest(1, 2); }, "/kelo/api/invoice/",
         "merge_table", SIGNAL(tableMergeDone(QString)), 112, "kelo process merge table!"},
    };
}

void addFlowColumns()
{
    QTest::addColumn<SdkCall>("call");
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QString>("cm");
    QTest::addColumn<QByteArray>("doneSignal");
}

} // namespace

class TestFloorFlows : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QVERIFY(f.startCloud()); }
    void cleanupTestCase() { f.sdk.reset(); }

    void sendsTheRequestAndHandsBackTheReply_data();
    void sendsTheRequestAndHandsBackTheReply();
    void refusesASecondRequestOfTheSameKind_data();
    void refusesASecondRequestOfTheSameKind();
    void transportErrorFreesTheKindAtOnce_data();
    void transportErrorFreesTheKindAtOnce();
    void menuStaysBusyUntilThePicturesAreThrough();
    void twoTableRequestsInARowAreBothSent();
    void emptyMergeReplyIsASuccess();

private:
    SdkFixture f;
};

void TestFloorFlows::sendsTheRequestAndHandsBackTheReply_data()
{
    QTest::addColumn<SdkCall>("call");
    QTest::addColumn<QByteArray>("target");
    QTest::addColumn<QString>("cm");
    QTest::addColumn<QString>("dt");
    QTest::addColumn<QByteArray>("doneSignal");
    QTest::addColumn<QByteArray>("reply");

    const QJsonObject order{{"table_id", 2},
                            {"amount", 150000},
                            {"items", QJsonArray{QJsonObject{{"id", 1}, {"qty", 2}}}},
                            {"note", "x"}};
    QTest::newRow("menu") << SdkCall([](Kelosdk& s) { s.foodsRequest(); })
                          << QByteArray("/kelo/api/item/?") << "getlist"
                          << R"({"item_status":1,"merchant_code":"M01"})"
                          << QByteArray(SIGNAL(foodsRequestDone(QString))) << kEmptyMenu;
    QTest::newRow("food order, nobody logged in")
        << SdkCall([order](Kelosdk& s) { s.foodOrderRequest(order); })
        << QByteArray("/kelo/api/invoice/?") << "confirm_order"
        << R"({"amount":150000,"items":[{"id":1,"qty":2}],"merchant_code":"M01","staff_id":-1,"table_id":2})"
        << QByteArray(SIGNAL(foodOrderRequestDone(QString)))
        << QByteArray(R"({"err":0,"msg":"order ok"})");
    QTest::newRow("tables") << SdkCall([](Kelosdk& s) { s.tableRequest(); })
                            << QByteArray("/kelo/api/table/?") << "getlist"
                            << R"({"item_status":1,"merchant_code":"M01"})"
                            << QByteArray(SIGNAL(tableRequestDone(QString)))
                            << QByteArray(R"({"dt":{"tables":[{"id":1}]},"err":0})");
    QTest::newRow("table foods") << SdkCall([](Kelosdk& s) { s.tableFoodsRequest(-5); })
                                 << QByteArray("/kelo/api/invoice/?") << "get_order_list"
                                 << R"({"merchant_code":"M01","table_id":-5})"
                                 << QByteArray(SIGNAL(tableFoodsDone(QString)))
                                 << QByteArray("not even json");
    QTest::newRow("merge") << SdkCall([](Kelosdk& s) { s.tableMergeRequest(3, 7); })
                           << QByteArray("/kelo/api/invoice/?") << "merge_table"
                           << R"({"from_tableid":3,"merchant_code":"M01","to_tableid":7})"
                           << QByteArray(SIGNAL(tableMergeDone(QString)))
                           << QByteArray(R"({"err":9,"msg":"table busy"})");
}

void TestFloorFlows::sendsTheRequestAndHandsBackTheReply()
{
    QFETCH(SdkCall, call);
    QFETCH(QByteArray, target);
    QFETCH(QString, cm);
    QFETCH(QString, dt);
    QFETCH(QByteArray, doneSignal);
    QFETCH(QByteArray, reply);

    Kelosdk& sdk = f.newSdk();
    const QByteArray path = target.left(target.size() - 1);
    f.cloud->scriptReply(path, cm, replyWith(reply));
    QSignalSpy done(&sdk, doneSignal.constData());
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));
    QSignalSpy netError(&sdk, SIGNAL(networkError(int, QString)));

    call(sdk);
    QVERIFY(done.wait(kWait));
    QCOMPARE(done.constFirst().at(0).toString(), QString::fromUtf8(reply));

    const QList<CloudExchange> sent = f.cloud->exchanges(path, cm);
    QCOMPARE(sent.size(), 1);
    const CloudExchange& request = sent.constFirst();
    QCOMPARE(request.method, QByteArray("GET"));
    QCOMPARE(request.path, path);
    QVERIFY2(request.target.startsWith(target + "cm=" + cm.toUtf8() + "&dt="), request.target);
    QCOMPARE(request.params().queryItems().size(), 2);
    QCOMPARE(request.param(QStringLiteral("dt")), dt);
    QVERIFY(!request.hasHeader("Content-Type"));
    QCOMPARE(done.size(), 1);
    QCOMPARE(appError.size(), 0);
    QCOMPARE(netError.size(), 0);
}

void TestFloorFlows::refusesASecondRequestOfTheSameKind_data()
{
    addFlowColumns();
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("text");
    // The table list holds its bit only while the request is built (see below).
    for (const Flow& flow : floorFlows())
        if (flow.busyCode != 110)
            QTest::newRow(flow.name) << flow.call << flow.path << flow.cm << flow.doneSignal
                                     << flow.busyCode << flow.busyText;
}

void TestFloorFlows::refusesASecondRequestOfTheSameKind()
{
    QFETCH(SdkCall, call);
    QFETCH(QByteArray, path);
    QFETCH(QString, cm);
    QFETCH(QByteArray, doneSignal);
    QFETCH(int, code);
    QFETCH(QString, text);

    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply(path, cm, replyWith(kEmptyMenu));
    QSignalSpy done(&sdk, doneSignal.constData());
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));

    call(sdk);
    QCOMPARE(appError.size(), 0);
    call(sdk);
    QCOMPARE(appError.size(), 1);
    QCOMPARE(appError.constFirst(), (QVariantList{code, text}));

    QVERIFY(done.wait(kWait));
    QCOMPARE(f.cloud->exchanges(path, cm).size(), 1);
    QCOMPARE(done.size(), 1);
    QCOMPARE(appError.size(), 1);
}

void TestFloorFlows::transportErrorFreesTheKindAtOnce_data()
{
    addFlowColumns();
    QTest::addColumn<CloudReply>("failure");
    QTest::addColumn<int>("code");

    for (const Flow& flow : floorFlows()) {
        QTest::addRow("%s, 500", flow.name)
            << flow.call << flow.path << flow.cm << flow.doneSignal << replyWith("oops", 500)
            << int(QNetworkReply::InternalServerError);
        QTest::addRow("%s, reset", flow.name)
            << flow.call << flow.path << flow.cm << flow.doneSignal
            << faultReply(CloudReply::Fault::ResetBeforeHeaders)
            << int(QNetworkReply::RemoteHostClosedError);
    }
}

void TestFloorFlows::transportErrorFreesTheKindAtOnce()
{
    QFETCH(SdkCall, call);
    QFETCH(QByteArray, path);
    QFETCH(QString, cm);
    QFETCH(QByteArray, doneSignal);
    QFETCH(CloudReply, failure);
    QFETCH(int, code);

    Kelosdk& sdk = f.newSdk();
    f.scriptFailure(path, cm, failure);
    QSignalSpy done(&sdk, doneSignal.constData());
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));
    QSignalSpy netError(&sdk, SIGNAL(networkError(int, QString)));

    call(sdk);
    QVERIFY(netError.wait(kWait));
    QCOMPARE(netError.constFirst().at(0).toInt(), code);
    QVERIFY(!netError.constFirst().at(1).toString().isEmpty());
    QCOMPARE(done.size(), 0);

    // Accepted again straight away, and answered.
    f.cloud->clearScripts();
    f.cloud->scriptReply(path, cm, replyWith(kEmptyMenu));
    const int sent = f.cloud->exchanges(path, cm).size();
    call(sdk);
    QVERIFY(done.wait(kWait));
    QCOMPARE(f.cloud->exchanges(path, cm).size(), sent + 1);
    QCOMPARE(done.size(), 1);
    QCOMPARE(netError.size(), 1);
    QCOMPARE(appError.size(), 0);
}

void TestFloorFlows::menuStaysBusyUntilThePicturesAreThrough()
{
    Kelosdk& sdk = f.newSdk();
    const QByteArray menu =
        QStringLiteral(
            R"({"dt":{"img_host":"%1","items":[{"img_crc":"1700000000123","img_path":"/pics/7.png","item_id":7}],"last_update":1},"err":0})")
            .arg(f.cloud.baseUrl())
            .toUtf8();
    f.cloud->scriptReply("/kelo/api/item/", QStringLiteral("getlist"), replyWith(menu));
    f.cloud->scriptReply("/pics/7.png", QString(), faultReply(CloudReply::Fault::NeverAnswer));
    QSignalSpy done(&sdk, SIGNAL(foodsRequestDone(QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));
    QSignalSpy netError(&sdk, SIGNAL(networkError(int, QString)));

    sdk.foodsRequest();
    QVERIFY(f.waitExchanges("/pics/7.png", QString(), 1)); // the reply is in, the picture not
    sdk.foodsRequest();
    QCOMPARE(appError.size(), 1);
    QCOMPARE(appError.constFirst(), (QVariantList{102, "kelo process food busy!"}));

    // A food order has its own bit, although its refusal shares code 102.
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("confirm_order"), replyWith("{}"));
    QSignalSpy orderDone(&sdk, SIGNAL(foodOrderRequestDone(QString)));
    sdk.foodOrderRequest({});
    QVERIFY(orderDone.wait(kWait));

    sdk.onNetworkError(99, QStringLiteral("host gave up"));
    QCOMPARE(netError.size(), 1);
    QCOMPARE(netError.constFirst(), (QVariantList{99, "host gave up"}));
    f.cloud->scriptReply("/kelo/api/item/", QStringLiteral("getlist"), replyWith(kEmptyMenu));
    sdk.foodsRequest();
    QVERIFY(done.wait(kWait));
    QCOMPARE(done.constFirst().at(0).toString(), QString::fromUtf8(kEmptyMenu));
    QCOMPARE(done.size(), 1);
    QCOMPARE(appError.size(), 1);
    QCOMPARE(f.cloud->exchanges("/kelo/api/item/", QStringLiteral("getlist")).size(), 2);
}

void TestFloorFlows::twoTableRequestsInARowAreBothSent()
{
    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/table/", QStringLiteral("getlist"), replyWith("[1]"), 2);
    QSignalSpy done(&sdk, SIGNAL(tableRequestDone(QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));

    sdk.tableRequest();
    sdk.tableRequest();
    QTRY_COMPARE_WITH_TIMEOUT(done.size(), 2, kWait);
    QCOMPARE(done.at(0).at(0).toString(), QStringLiteral("[1]"));
    QCOMPARE(done.at(1).at(0).toString(), QStringLiteral("[1]"));
    QCOMPARE(f.cloud->exchanges("/kelo/api/table/", QStringLiteral("getlist")).size(), 2);
    QCOMPARE(appError.size(), 0);
}

void TestFloorFlows::emptyMergeReplyIsASuccess()
{
    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("merge_table"), replyWith(""));
    QSignalSpy done(&sdk, SIGNAL(tableMergeDone(QString)));

    sdk.tableMergeRequest(3, 7);
    QVERIFY(done.wait(kWait));
    QCOMPARE(done.size(), 1);
    QCOMPARE(done.constFirst().at(0).toString(),
             QStringLiteral(R"({"err":0,"msg":"table merge success!"})"));
}

QTEST_GUILESS_MAIN(TestFloorFlows)
#include "tst_kelosdk_floor.moc"
