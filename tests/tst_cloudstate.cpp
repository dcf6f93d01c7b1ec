// The simulated merchant of the local cloud, called directly (no network).
#include "cloudstate.h"

#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMessageAuthenticationCode>
#include <QTemporaryDir>
#include <QtTest>

#include <thread>

using kelocloud::CloudState;

namespace {

const QByteArray kKey = "0123456789abcdefghijABCDEFGHIJ01";
const QString kImgBase = QStringLiteral("https://127.0.0.1:4443");

QJsonObject parse(const QByteArray& text)
{
    return QJsonDocument::fromJson(text).object();
}
QString json(const QJsonObject& o)
{
    return QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Compact));
}

const QJsonObject call(CloudState& state, const QByteArray& path, const QString& cm,
                       const QString& dt, const QString& tk = {})
{
    return parse(state.handle(path, cm, tk, dt, kImgBase).body);
}
const QJsonObject invoiceCall(CloudState& state, const QString& cm, const QJsonObject& dt)
{
    return call(state, "/kelo/api/invoice/", cm, json(dt));
}

QString hmacHex(const QByteArray& text)
{
    return QString::fromLatin1(
        QMessageAuthenticationCode::hash(text, kKey, QCryptographicHash::Sha256).toHex());
}

/// The signature as the SDK computes it: "%1%2" filled by two successive arg() calls.
QString clientSignature(const QString& dt, const QString& session)
{
    return hmacHex(QStringLiteral("%1%2").arg(dt).arg(session).toUtf8());
}

QString tumipayDt(const QString& devid, const QString& amount, const QString& description)
{
    return json({{"amount", amount},
                 {"description", description},
                 {"devid", devid},
                 {"items", QJsonArray{QJsonObject{{"information", "Bill 17"}}}},
                 {"machine_name", "POS-1"},
                 {"merchant_code", "M01"},
                 {"payment_method", "1"}});
}

} // namespace

class TestCloudState : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void answers_data();
    void answers();
    void menuLists_data();
    void menuLists();
    void createChecksSignature_data();
    void createChecksSignature();
    void cancelMatchesCodeWithoutHash();
    void paidInvoiceNoticesItsDevice();
    void mergeMovesOrdersAndPaymentFreesTable();
    void webSocketAdmission_data();
    void webSocketAdmission();
    void fixtureErrorsNameFileAndField_data();
    void fixtureErrorsNameFileAndField();
    void fixtureReplacesMerchant();
    void picturesArePngPerDish();
    void concurrentCallsKeepEveryOrder();

private:
    std::unique_ptr<CloudState> state;
    QString openInvoice(const QString& devid, QJsonObject* reply = nullptr);
};

void TestCloudState::init()
{
    state.reset(new CloudState);
    state->setSecretKey(kKey);
}

QString TestCloudState::openInvoice(const QString& devid, QJsonObject* reply)
{
    const QJsonObject session = invoiceCall(
        *state, "get_session", {{"devid", devid}, {"food_order", ""}, {"merchant_code", "M01"}});
    const QString dt = tumipayDt(devid, "150000", "Table 3");
    const QJsonObject created =
        call(*state, "/kelo/api/invoice/", "create", dt,
             clientSignature(dt, session["dt"]["invoice_session"].toString()));
    if (reply)
        *reply = created;
    return created["dt"]["invoice_code"].toString();
}

void TestCloudState::answers_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QString>("cm");
    QTest::addColumn<QString>("dt");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("expected");

    const auto row = [](const char* name, const char* path, const char* cm, const char* dt,
                        const char* expected, int status = 200) {
        QTest::newRow(name) << QByteArray(path) << cm << dt << status << expected;
    };
    const char* login = "/kelo/api/login/";
    const char* invoice = "/kelo/api/invoice/";
    row("client login", login, "client_login",
        R"({"merchant_code":"M01","p":"kiosk123","u":"kiosk"})",
        R"({"dt":{"staff_id":1,"staff_name":"Order Kiosk"},"err":0,"msg":"success"})");
    row("waiter login", login, "waiter_login", R"({"merchant_code":"M01","p":"mai123","u":"mai"})",
        R"({"dt":{"staff_id":2,"staff_name":"Mai Nguyen"},"err":0,"msg":"success"})");

    row("cashier login", login, "cashier_login",
        R"({"merchant_code":"M01","p":"bao123","u":"bao"})",
        R"({"dt":{"staff_id":3,"staff_name":"Bao Tran"},"err":0,"msg":"success"})");
    row("wrong password", login, "waiter_login", R"({"merchant_code":"M01","p":"x","u":"mai"})",
        R"({"dt":{},"err":210,"msg":"wrong user name or password"})");
    row("unknown user", login, "waiter_login", R"({"merchant_code":"M01","p":"mai123","u":"ma"})",
        R"({"dt":{},"err":210,"msg":"wrong user name or password"})");
    row("role not allowed", login, "cashier_login",
        R"({"merchant_code":"M01","p":"mai123","u":"mai"})",
        R"({"dt":{},"err":211,"msg":"role not allowed for this login"})");
    row("unknown merchant", login, "waiter_login",
        R"({"merchant_code":"M02","p":"mai123","u":"mai"})",
        R"({"dt":{},"err":203,"msg":"unknown merchant"})");
    row("password missing", login, "waiter_login", R"({"merchant_code":"M01","u":"mai"})",
        R"({"dt":{},"err":204,"msg":"invalid field: p"})");
    row("tables", "/kelo/api/table/", "getlist", R"({"item_status":1,"merchant_code":"M01"})",
        R"({"dt":{"tables":[)"
        R"({"amount":0,"order_count":0,"status":"free","table_id":1,"table_name":"Table 1"},)"
        R"({"amount":188000,"order_count":1,"status":"occupied","table_id":2,"table_name":"Table 2"},)"
        R"({"amount":0,"order_count":0,"status":"free","table_id":3,"table_name":"Table 3"},)"
        R"({"amount":0,"order_count":0,"status":"free","table_id":4,"table_name":"Table 4"},)"
        R"({"amount":95000,"order_count":1,"status":"occupied","table_id":5,"table_name":"Terrace 1"},)"
        R"({"amount":0,"order_count":0,"status":"free","table_id":6,"table_name":"Terrace 2"}]},)"
        R"("err":0,"msg":"success"})");
    row("order", invoice, "confirm_order",
        R"({"amount":65000,"items":[{"item_id":1,"qty":1}],"merchant_code":"M01","staff_id":2,"table_id":2})",
        R"({"dt":{"amount":65000,"order_id":3,"table_amount":253000,"table_id":2},"err":0,"msg":"success"})");
    row("order at unknown table", invoice, "confirm_order",
        R"({"amount":1,"items":[],"merchant_code":"M01","staff_id":2,"table_id":99})",
        R"({"dt":{},"err":220,"msg":"unknown table"})");
    row("order by nobody", invoice, "confirm_order",
        R"({"amount":1,"items":[],"merchant_code":"M01","staff_id":-1,"table_id":1})",
        R"({"dt":{},"err":212,"msg":"unknown staff"})");
    row("table id as text", invoice, "confirm_order",
        R"({"amount":1,"items":[],"merchant_code":"M01","staff_id":2,"table_id":"1"})",
        R"({"dt":{},"err":204,"msg":"invalid field: table_id"})");
    row("order list", invoice, "get_order_list", R"({"merchant_code":"M01","table_id":5})",
        R"({"dt":{"amount":95000,"items":[{"item_id":5,"qty":1},{"item_id":2,"qty":1}],)"
        R"("orders":[{"amount":95000,"items":[{"item_id":5,"qty":1},{"item_id":2,"qty":1}],)"
        R"("order_id":2,"staff_id":2}],"table_id":5,"table_name":"Terrace 1"},"err":0,"msg":"success"})");
    row("order list of unknown table", invoice, "get_order_list",
        R"({"merchant_code":"M01","table_id":-3})", R"({"dt":{},"err":220,"msg":"unknown table"})");
    row("merge into itself", invoice, "merge_table",
        R"({"from_tableid":2,"merchant_code":"M01","to_tableid":2})",
        R"({"dt":{},"err":221,"msg":"cannot merge a table into itself"})");
    row("merge unknown table", invoice, "merge_table",
        R"({"from_tableid":2,"merchant_code":"M01","to_tableid":7})",
        R"({"dt":{},"err":220,"msg":"unknown table"})");
    row("pay unknown table", invoice, "payment",
        R"({"amount":5,"merchant_code":"M01","staff_id":3,"table_id":0})",
        R"({"dt":{},"err":220,"msg":"unknown table"})");
    row("session without devid", invoice, "get_session",
        R"({"food_order":"","merchant_code":"M01"})",
        R"({"dt":{},"err":204,"msg":"invalid field: devid"})");
    row("cancel unknown invoice", "/kelo/api/invoice", "cancel",
        R"({"invoice_code":"INV000001","merchant_code":"M01"})",
        R"({"dt":{},"err":240,"msg":"unknown invoice"})");
    row("cancel with trailing slash", invoice, "cancel",
        R"({"invoice_code":"INV000001","merchant_code":"M01"})",
        R"({"dt":{},"err":201,"msg":"unknown operation"})");
    row("operation of another path", "/kelo/api/item/", "confirm_order", "{}",
        R"({"dt":{},"err":201,"msg":"unknown operation"})");
    row("dt not json", "/kelo/api/item/", "getlist", "{oops",
        R"({"dt":{},"err":202,"msg":"dt is not a JSON object"})");

    row("unknown path", "/kelo/api/nothing/", "getlist", "{}",
        R"({"dt":{},"err":200,"msg":"unknown path"})", 404);
}

void TestCloudState::answers()
{
    QFETCH(QByteArray, path);
    QFETCH(QString, cm);
    QFETCH(QString, dt);
    QFETCH(int, status);
    QFETCH(QString, expected);
    const CloudState::Answer answer = state->handle(path, cm, {}, dt, kImgBase);
    QCOMPARE(answer.status, status);
    QCOMPARE(answer.contentType, QByteArray("application/json"));
    QCOMPARE(QString::fromUtf8(answer.body), expected);
}

void TestCloudState::menuLists_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<QString>("item");
    QTest::newRow("first") << 0
                           << R"({"img_crc":"1700000000123","img_path":"/img/items/1.png",)"
                              R"("item_id":1,"item_name":"Beef noodle soup","price":65000})";
    QTest::newRow("last") << 7
                          << R"({"img_crc":"1700000700000","img_path":"/img/items/8.png",)"
                             R"("item_id":8,"item_name":"Iced milk coffee","price":29000})";
}

void TestCloudState::menuLists()
{
    QFETCH(int, index);
    QFETCH(QString, item);
    const QJsonObject reply =
        call(*state, "/kelo/api/item/", "getlist", R"({"item_status":1,"merchant_code":"M01"})");
    QCOMPARE(reply["err"].toInt(-1), 0);
    const QJsonObject dt = reply["dt"].toObject();
    QCOMPARE(dt["img_host"].toString(), kImgBase);
    QCOMPARE(dt["last_update"].toDouble(), 1700000700000.0); // the newest picture stamp
    QCOMPARE(dt["items"].toArray().size(), 8);
    QCOMPARE(json(dt["items"][index].toObject()), item);
}

void TestCloudState::createChecksSignature_data()
{
    QTest::addColumn<QString>("description");
    QTest::addColumn<QString>("amount");
    QTest::addColumn<QString>("signing"); // good, concatenated, other session, none
    QTest::addColumn<bool>("encoded");    // dt percent-encoded once more, as the SDK sends it
    QTest::addColumn<int>("err");
    QTest::addColumn<QString>("msg");

    QTest::newRow("good") << "Table 3"
                          << "150000"
                          << "good" << true << 0 << "success";
    QTest::newRow("good, decoded by transport") << "Table 3"
                                                << "150000"
                                                << "good" << false << 0 << "success";
    QTest::newRow("marker in text, two-step") << "Bill %1 now"
                                              << "150000"
                                              << "good" << true << 0 << "success";
    QTest::newRow("marker in text, concatenated")
        << "Bill %1 now"
        << "150000"
        << "concatenated" << true << 231 << "bad signature";
    QTest::newRow("session of another device") << "Table 3"
                                               << "150000"
                                               << "other session" << true << 231 << "bad signature";
    QTest::newRow("tk missing") << "Table 3"
                                << "150000"
                                << "none" << true << 230 << "missing signature";
    QTest::newRow("amount zero") << "Table 3"
                                 << "0"
                                 << "good" << true << 233 << "invalid invoice amount";
}

void TestCloudState::createChecksSignature()
{
    QFETCH(QString, description);
    QFETCH(QString, amount);
    QFETCH(QString, signing);
    QFETCH(bool, encoded);
    QFETCH(int, err);
    QFETCH(QString, msg);

    const auto session = [&](const QString& devid) {
        return invoiceCall(*state, "get_session",
                           {{"devid", devid},
                            {"food_order", ""},
                            {"merchant_code", "M01"}})["dt"]["invoice_session"]
            .toString();
    };
    const QString own = session("D9"), other = session("D7");
    QVERIFY(!own.isEmpty() && own != other);
    const QString dt = tumipayDt("D9", amount, description);
    const QString tk = signing == "good"            ? clientSignature(dt, own)
                       : signing == "concatenated"  ? hmacHex((dt + own).toUtf8())
                       : signing == "other session" ? clientSignature(dt, other)
                                                    : QString();
    const QString sent = encoded ? QString::fromLatin1(QUrl::toPercentEncoding(dt)) : dt;
    const QJsonObject reply = call(*state, "/kelo/api/invoice/", "create", sent, tk);
    QCOMPARE(reply["err"].toInt(-1), err);
    QCOMPARE(reply["msg"].toString(), msg);
    if (err != 0)
        return;
    const QJsonObject out = reply["dt"].toObject();
    QCOMPARE(out["invoice_code"].toString(), QStringLiteral("INV#000001"));
    QCOMPARE(out["qr_code"].toString(),
             QStringLiteral("kelopay://pay?merchant=M01&invoice=INV%23000001&amount=150000"));
    QCOMPARE(out["appid"].toInt(), 1);
    QCOMPARE(out["amount"].toInt(), 150000);
    QCOMPARE(out["tptranstoken"].toString().size(), 32);
}

void TestCloudState::cancelMatchesCodeWithoutHash()
{
    const QString code = openInvoice("D9");
    QCOMPARE(code, QStringLiteral("INV#000001"));
    const QString dt = R"({"invoice_code":"INV000001","merchant_code":"M01"})";
    QCOMPARE(
        json(call(*state, "/kelo/api/invoice", "cancel", dt)),
        R"({"dt":{"invoice_code":"INV#000001","status":"cancelled"},"err":0,"msg":"success"})");
    QCOMPARE(json(call(*state, "/kelo/api/invoice", "cancel", dt)),
             R"({"dt":{},"err":241,"msg":"invoice is not open"})");
    CloudState::Notice notice;
    QVERIFY(!state->markInvoicePaid(code, &notice));
}

void TestCloudState::paidInvoiceNoticesItsDevice()
{
    QJsonObject created;
    const QString code = openInvoice("D9", &created);
    CloudState::Notice notice;
    QVERIFY(!state->markInvoicePaid("INV#000002", &notice));
    QVERIFY(state->markInvoicePaid(code, &notice));
    QCOMPARE(notice.devid, QStringLiteral("D9"));
    const QString token = created.value("dt")["tptranstoken"].toString();
    QCOMPARE(
        QString::fromUtf8(notice.text),
        R"({"dt":{"amount":150000,"appid":1,"description":"Table 3","invoice_code":"INV#000001",)"
        R"("merchant_code":"M01","tptranstoken":")" +
            token + R"("},"err":0,"msg":"payment_success","type":1})");
    QVERIFY(!state->markInvoicePaid(code, &notice)); // paid once only
    QCOMPARE(call(*state, "/kelo/api/invoice", "cancel",
                  R"({"invoice_code":"INV000001","merchant_code":"M01"})")["err"]
                 .toInt(),
             241);
}

void TestCloudState::mergeMovesOrdersAndPaymentFreesTable()
{
    const QJsonObject merged = invoiceCall(
        *state, "merge_table", {{"from_tableid", 2}, {"merchant_code", "M01"}, {"to_tableid", 5}});
    QCOMPARE(json(merged["dt"].toObject()),
             R"({"amount":283000,"from_tableid":2,"moved":1,"to_tableid":5})");
    const auto orderIds = [&](int table) {
        QList<int> ids;
        const QJsonObject list =
            invoiceCall(*state, "get_order_list", {{"merchant_code", "M01"}, {"table_id", table}});
        for (const QJsonValue& order : list["dt"]["orders"].toArray())
            ids.append(order["order_id"].toInt());
        return ids;
    };
    QCOMPARE(orderIds(2), QList<int>());
    QCOMPARE(orderIds(5), (QList<int>{2, 1}));

    const QJsonObject paid = invoiceCall(
        *state, "payment",
        {{"amount", 300000}, {"merchant_code", "M01"}, {"staff_id", 3}, {"table_id", 5}});
    QCOMPARE(json(paid["dt"].toObject()),
             R"({"amount":300000,"payment_id":1,"table_id":5,"total":283000})");
    QCOMPARE(orderIds(5), QList<int>());
    const QJsonObject tables =
        call(*state, "/kelo/api/table/", "getlist", R"({"item_status":1,"merchant_code":"M01"})");
    QCOMPARE(
        json(tables["dt"]["tables"][4].toObject()),
        R"({"amount":0,"order_count":0,"status":"free","table_id":5,"table_name":"Terrace 1"})");
}

void TestCloudState::webSocketAdmission_data()
{
    QTest::addColumn<QString>("appuser");
    QTest::addColumn<QString>("devid");
    QTest::addColumn<bool>("issuedSession");
    QTest::addColumn<bool>("goodTk");
    QTest::addColumn<bool>("admitted");
    QTest::newRow("good") << "M01"
                          << "D9" << true << true << true;
    QTest::newRow("bad tk") << "M01"
                            << "D9" << true << false << false;
    QTest::newRow("session not issued") << "M01"
                                        << "D9" << false << true << false;
    QTest::newRow("session of another device") << "M01"
                                               << "D7" << true << true << false;
    QTest::newRow("another merchant") << "M02"
                                      << "D9" << true << true << false;
}

void TestCloudState::webSocketAdmission()
{
    QFETCH(QString, appuser);
    QFETCH(QString, devid);
    QFETCH(bool, issuedSession);
    QFETCH(bool, goodTk);
    QFETCH(bool, admitted);
    const QJsonObject reply = call(*state, "/kelo/api/common", "get_ws_session",
                                   R"({"devid":"D9","merchant_code":"M01"})");
    QCOMPARE(reply["err"].toInt(-1), 0);
    const QString session =
        issuedSession ? reply["dt"]["ws_session"].toString() : QStringLiteral("never-issued");
    QCOMPARE(session.isEmpty(), false);
    const QString signedText = appuser + devid + session;
    const QString tk = hmacHex(goodTk ? signedText.toUtf8() : QByteArray("x"));
    QCOMPARE(state->admitWebSocket(appuser, devid, session, tk), admitted);
}

void TestCloudState::fixtureErrorsNameFileAndField_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("error");
    const QByteArray head =
        R"({"merchant":{"code":"M9","name":"N"},"staff":[],"tables":[{"id":1,"name":"T"}],)";
    const QByteArray dish =
        R"({"item_id":1,"item_name":"A","price":1,"img_path":"/a.png","img_crc":"1"})";
    QTest::newRow("item id as text")
        << head + R"("menu":[)" + dish + "," +
               QByteArray(dish).replace("\"item_id\":1", "\"item_id\":\"2\"") + "]}"
        << "menu[1].item_id: expected an integer";
    QTest::newRow("duplicate item id") << head + R"("menu":[)" + dish + "," + dish + "]}"
                                       << "menu[1].item_id: duplicate id 1";
    QTest::newRow("crc not digits")
        << head + R"("menu":[)" + QByteArray(dish).replace("\"1\"", "\"12a\"") + "]}"
        << "menu[0].img_crc: expected milliseconds since the epoch as decimal text";
    QTest::newRow("unknown role")
        << QByteArray(R"({"merchant":{"code":"M9","name":"N"},"menu":[],"tables":[],)"
                      R"("staff":[{"id":1,"name":"A","user":"a","password":"","role":"chef"}]})")
        << "staff[0].role: expected one of client, waiter, cashier";
    QTest::newRow("order at unknown table")
        << head + R"("menu":[],"orders":[{"table_id":4,"staff_id":1,"amount":0,"items":[]}]})"
        << "orders[0].table_id: no table with id 4";
    QTest::newRow("merchant missing")
        << QByteArray(R"({"staff":[]})") << "merchant: expected an object";
    QTest::newRow("tables not an array")
        << head.left(head.indexOf("\"tables\"")) + R"("menu":[],"tables":{}})"
        << "tables: expected an array";
    QTest::newRow("malformed") << QByteArray("{\n  \"merchant\": {\n    \"code\" \"M9\"}}")
                               << "line 3, column 13: missing name separator";
}

void TestCloudState::fixtureErrorsNameFileAndField()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, error);
    QTemporaryDir dir;
    const QString path = dir.filePath("fixture.json");
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
    file.close();
    QString message;
    QVERIFY(!state->loadFixture(path, &message));
    QCOMPARE(message, path + ": " + error);
    QCOMPARE(state->merchantCode(), QStringLiteral("M01")); // the old data stays
}

void TestCloudState::fixtureReplacesMerchant()
{
    QString message;
    QVERIFY(!state->loadFixture("/nonexistent/f.json", &message));
    QVERIFY2(message.startsWith("/nonexistent/f.json: cannot read: "), qPrintable(message));

    QTemporaryDir dir;
    QFile file(dir.filePath("small.json"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(R"({"merchant":{"code":"M9","name":"Nine"},"last_update":5,"menu":[],"tables":[],)"
               R"("staff":[{"id":7,"name":"Ann","user":"ann","password":"","role":"client"}]})");
    file.close();
    QVERIFY2(state->loadFixture(file.fileName(), &message), qPrintable(message));
    QCOMPARE(state->merchantCode(), QStringLiteral("M9"));
    QCOMPARE(json(call(*state, "/kelo/api/login/", "client_login",
                       R"({"merchant_code":"M9","p":"","u":"ann"})")),
             R"({"dt":{"staff_id":7,"staff_name":"Ann"},"err":0,"msg":"success"})");
    QCOMPARE(json(call(*state, "/kelo/api/item/", "getlist",
                       R"({"item_status":1,"merchant_code":"M9"})")),
             R"({"dt":{"img_host":")" + kImgBase +
                 R"(","items":[],"last_update":5},"err":0,"msg":"success"})");
    QVERIFY(state->picture("/img/items/1.png").isEmpty());
}

void TestCloudState::picturesArePngPerDish()
{
    const QJsonArray items = call(*state, "/kelo/api/item/", "getlist",
                                  R"({"item_status":1,"merchant_code":"M01"})")["dt"]["items"]
                                 .toArray();
    QSet<QByteArray> distinct;
    for (const QJsonValue& item : items) {
        const QByteArray path = item["img_path"].toString().toUtf8();
        const QByteArray png = state->picture(path);
        QImage image;
        QVERIFY2(image.loadFromData(png, "PNG"), path.constData());
        QVERIFY2(png.size() > 2000 && png.size() < 20000, qPrintable(QString::number(png.size())));
        QCOMPARE(state->picture(path), png);
        QCOMPARE(CloudState().picture(path), png); // the same fixture draws the same bytes
        distinct.insert(png);
    }
    QCOMPARE(distinct.size(), 8);
    QVERIFY(state->picture("/img/items/9.png").isEmpty());
    QVERIFY(state->picture("").isEmpty());
}

void TestCloudState::concurrentCallsKeepEveryOrder()
{
    const QString order =
        R"({"amount":10,"items":[],"merchant_code":"M01","staff_id":2,"table_id":1})";
    const auto placeOrders = [&] {
        for (int i = 0; i < 100; ++i) {
            state->handle("/kelo/api/invoice/", "confirm_order", {}, order, kImgBase);
            state->picture("/img/items/" + QByteArray::number(i % 8 + 1) + ".png");
        }
    };
    std::thread other(placeOrders);
    placeOrders();
    other.join();
    const QJsonObject list =
        invoiceCall(*state, "get_order_list", {{"merchant_code", "M01"}, {"table_id", 1}});
    QCOMPARE(list["dt"]["orders"].toArray().size(), 200);
    QCOMPARE(list["dt"]["amount"].toInt(), 2000);
}

QTEST_GUILESS_MAIN(TestCloudState)
#include "tst_cloudstate.moc"
