// Request texts: every builder's whole output, byte for byte.
#include "libcmn.h"

#include <QJsonDocument>
#include <QtTest>

#include <climits>

namespace {

QJsonObject object(const char* json)
{
    return QJsonDocument::fromJson(json).object();
}

QString utf8(const char* text)
{
    return QString::fromUtf8(text);
}

// Texts that JSON has to escape or carry as UTF-8, and place markers a user might type.
const char* const awkward = "\"q\" \\ /\n\t\x01 Bàn 3 ☕😀 %1 #7 &";
// (not a raw literal: the meta-object compiler misreads escaped quotes inside those)
const char* const awkwardJson = "\"\\\"q\\\" \\\\ /\\n\\t\\u0001 Bàn 3 ☕😀 %1 #7 &\"";

QString withAwkward(const char* pattern)
{
    return utf8(pattern).arg(utf8(awkwardJson));
}

void row(const char* name, const QString& actual, const QString& expected)
{
    QTest::newRow(name) << actual << expected;
}

} // namespace

class TestLibcmnBuilders : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void builders_data();
    void builders();
    void tumipayAmountAtThePlatformLimits_data();
    void tumipayAmountAtThePlatformLimits();
};

void TestLibcmnBuilders::builders_data()
{
    QTest::addColumn<QString>("actual");
    QTest::addColumn<QString>("expected");
    const QString aw = utf8(awkward);

    row("msg", Libcmn::buildMsg(5, "busy"), R"({"err":5,"msg":"busy"})");
    row("msg empty", Libcmn::buildMsg(0, ""), R"({"err":0,"msg":""})");
    row("msg min", Libcmn::buildMsg(INT_MIN, aw), withAwkward(R"({"err":-2147483648,"msg":%1})"));
    row("msg max", Libcmn::buildMsg(INT_MAX, "x"), R"({"err":2147483647,"msg":"x"})");

    row("login", Libcmn::formatLogin("M01", "anna", "s3cret"),
        R"({"merchant_code":"M01","p":"s3cret","u":"anna"})");
    row("login empty password", Libcmn::formatLogin("M01", "anna", ""),
        R"({"merchant_code":"M01","p":"","u":"anna"})");
    row("login awkward", Libcmn::formatLogin(aw, aw, aw),
        withAwkward(R"({"merchant_code":%1,"p":%1,"u":%1})"));

    row("session", Libcmn::formatSession("M01", "D9"),
        R"({"devid":"D9","food_order":"","merchant_code":"M01"})");
    row("session awkward", Libcmn::formatSession(aw, ""),
        withAwkward(R"({"devid":"","food_order":"","merchant_code":%1})"));
    row("ws session", Libcmn::formatWsSession("M01", "D9"),
        R"({"devid":"D9","merchant_code":"M01"})");
    row("ws session awkward", Libcmn::formatWsSession("", aw),
        withAwkward(R"({"devid":%1,"merchant_code":""})"));

    row("foods", Libcmn::formatRequestFoods("M01"), R"({"item_status":1,"merchant_code":"M01"})");
    row("foods awkward", Libcmn::formatRequestFoods(aw),
        withAwkward(R"({"item_status":1,"merchant_code":%1})"));

    row("order",
        Libcmn::formatRequestOrder(
            "M", 4,
            object(R"({"table_id":2,"amount":150000,"items":[{"id":1,"qty":2}],"note":"x"})")),
        R"({"amount":150000,"items":[{"id":1,"qty":2}],"merchant_code":"M","staff_id":4,"table_id":2})");
    row("order empty", Libcmn::formatRequestOrder("", 0, {}),
        R"({"amount":0,"items":[],"merchant_code":"","staff_id":0,"table_id":0})");
    row("order wrong types",
        Libcmn::formatRequestOrder("M", -1,
                                   object(R"({"table_id":"2","amount":12.5,"items":{"id":1}})")),
        R"({"amount":0,"items":[],"merchant_code":"M","staff_id":-1,"table_id":0})");
    row("order out of int range",
        Libcmn::formatRequestOrder("M", INT_MIN,
                                   object(R"({"table_id":-2147483649,"amount":2147483648})")),
        R"({"amount":0,"items":[],"merchant_code":"M","staff_id":-2147483648,"table_id":0})");
    row("order int limits",
        Libcmn::formatRequestOrder(
            "M", INT_MAX, object(R"({"table_id":-2147483648,"amount":2147483647,"amount2":1})")),
        R"({"amount":2147483647,"items":[],"merchant_code":"M","staff_id":2147483647,"table_id":-2147483648})");
    row("order items untouched",
        Libcmn::formatRequestOrder(
            "M", 1,
            object(R"({"items":[1,"a",null,true,[],{"z":{"y":"ü"},"a":2.5}],"amount":true})")),
        utf8(
            R"({"amount":0,"items":[1,"a",null,true,[],{"a":2.5,"z":{"y":"ü"}}],"merchant_code":"M","staff_id":1,"table_id":0})"));

    row("order list", Libcmn::formatOrderlist("M01", 12),
        R"({"merchant_code":"M01","table_id":12})");
    row("order list negative", Libcmn::formatOrderlist("M01", -3),
        R"({"merchant_code":"M01","table_id":-3})");
    row("order list min", Libcmn::formatOrderlist("", INT_MIN),
        R"({"merchant_code":"","table_id":-2147483648})");

    row("merge", Libcmn::formatMergetable("M01", 3, 7),
        R"({"from_tableid":3,"merchant_code":"M01","to_tableid":7})");
    row("merge limits", Libcmn::formatMergetable(aw, INT_MAX, INT_MIN),
        withAwkward(R"({"from_tableid":2147483647,"merchant_code":%1,"to_tableid":-2147483648})"));

    row("tumipay", Libcmn::formatTumipay("M01", "POS-1", "D9", 150000, "Table 3", "Bill 17"),
        R"({"amount":"150000","description":"Table 3","devid":"D9","items":[{"information":"Bill 17"}],"machine_name":"POS-1","merchant_code":"M01","payment_method":"1"})");
    row("tumipay zero empty", Libcmn::formatTumipay("", "", "", 0, "", ""),
        R"({"amount":"0","description":"","devid":"","items":[{"information":""}],"machine_name":"","merchant_code":"","payment_method":"1"})");
    row("tumipay negative awkward", Libcmn::formatTumipay(aw, aw, aw, -5, aw, aw),
        withAwkward(
            R"({"amount":"-5","description":%1,"devid":%1,"items":[{"information":%1}],"machine_name":%1,"merchant_code":%1,"payment_method":"1"})"));

    row("cancel", Libcmn::formatInvoiceCancel("#A#12", "M"),
        R"({"invoice_code":"A12","merchant_code":"M"})");
    row("cancel keeps spaces", Libcmn::formatInvoiceCancel(" #A 1# ", " M "),
        R"({"invoice_code":" A 1 ","merchant_code":" M "})");
    row("cancel only marks", Libcmn::formatInvoiceCancel("###", ""),
        R"({"invoice_code":"","merchant_code":""})");
    row("cancel other characters kept", Libcmn::formatInvoiceCancel(utf8("ﾃ#%1 ＃x/"), "#M"),
        utf8(R"({"invoice_code":"ﾃ%1 ＃x/","merchant_code":"#M"})"));

    row("payment", Libcmn::formatPayment("M01", 3, 4, 150000),
        R"({"amount":150000,"merchant_code":"M01","staff_id":4,"table_id":3})");
    row("payment limits", Libcmn::formatPayment(aw, INT_MIN, -1, INT_MAX),
        withAwkward(
            R"({"amount":2147483647,"merchant_code":%1,"staff_id":-1,"table_id":-2147483648})"));

    row("tumipay result",
        Libcmn::buildTumipayResponeMsg(0, "payment_success", object(R"({"invoice_code":"X"})")),
        R"({"dt":{"invoice_code":"X"},"err":0,"msg":"payment_success"})");
    row("tumipay result empty", Libcmn::buildTumipayResponeMsg(-1, "", {}),
        R"({"dt":{},"err":-1,"msg":""})");
    row("tumipay result nested",
        Libcmn::buildTumipayResponeMsg(
            INT_MIN, aw, object(R"({"z":[null,{"b":1,"a":"é"}],"amount":12.5,"ok":false})")),
        withAwkward(
            R"({"dt":{"amount":12.5,"ok":false,"z":[null,{"a":"é","b":1}]},"err":-2147483648,"msg":%1})"));
}

void TestLibcmnBuilders::builders()
{
    QFETCH(QString, actual);
    QFETCH(QString, expected);
    QCOMPARE(actual, expected);
}

// The amount is a C long: 32 bits on the terminals, 64 bits on development machines.
void TestLibcmnBuilders::tumipayAmountAtThePlatformLimits_data()
{
    QTest::addColumn<qlonglong>("amount");
    QTest::addColumn<QString>("text");
    const bool wide = sizeof(long) == 8;
    QTest::newRow("long max") << qlonglong(LONG_MAX)
                              << QString(wide ? "9223372036854775807" : "2147483647");
    QTest::newRow("long min") << qlonglong(LONG_MIN)
                              << QString(wide ? "-9223372036854775808" : "-2147483648");
    QTest::newRow("int32 max") << qlonglong(INT32_MAX) << QString("2147483647");
    QTest::newRow("int32 min") << qlonglong(INT32_MIN) << QString("-2147483648");
    if (wide) {
        QTest::newRow("int32 max + 1") << qlonglong(INT32_MAX) + 1 << QString("2147483648");
        QTest::newRow("int32 min - 1") << qlonglong(INT32_MIN) - 1 << QString("-2147483649");
    }
}

void TestLibcmnBuilders::tumipayAmountAtThePlatformLimits()
{
    QFETCH(qlonglong, amount);
    QFETCH(QString, text);
    QCOMPARE(
        Libcmn::formatTumipay("M", "P", "D", long(amount), "d", "i"),
        QString(R"({"amount":"%1","description":"d","devid":"D","items":[{"information":"i"}],)"
                R"("machine_name":"P","merchant_code":"M","payment_method":"1"})")
            .arg(text));
}

QTEST_GUILESS_MAIN(TestLibcmnBuilders)
#include "tst_libcmn_builders.moc"
