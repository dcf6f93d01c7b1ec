// What goes out: request texts, byte for byte, and signatures, checked against OpenSSL's
// HMAC-SHA-256 with this build's key.
#include "libcmn.h"

#include <QJsonDocument>
#include <QtTest>

#include <climits>
#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace {

const QByteArray buildKey(KELO_TEST_SECRET_KEY);
// The development key of the build options; signatures recorded with it come from
// `printf '%s' <text> | openssl dgst -sha256 -hmac <key>`.
const QByteArray developmentKey("kLoDev7Qm2Xa9Rt4Vb8Nc3Zp6Wy1Hs5J");

QString opensslHmac(const QString& text)
{
    const QByteArray message = text.toUtf8();
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), buildKey.constData(), buildKey.size(),
         reinterpret_cast<const unsigned char*>(message.constData()), size_t(message.size()), mac,
         &length);
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(mac), int(length)).toHex());
}

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
    void builders()
    {
        QFETCH(QString, actual);
        QTEST(actual, "expected");
    }
};

// The plain texts of every request are compared on the wire by the SDK's own suites; here are
// the cases with something to get wrong: escaping, integer limits, type coercion, marks.
void TestLibcmnBuilders::builders_data()
{
    QTest::addColumn<QString>("actual");
    QTest::addColumn<QString>("expected");
    const QString aw = utf8(awkward);
    row("msg", Libcmn::buildMsg(INT_MIN, aw), withAwkward(R"({"err":-2147483648,"msg":%1})"));
    row("merge", Libcmn::formatMergetable(aw, INT_MAX, INT_MIN),
        withAwkward(R"({"from_tableid":2147483647,"merchant_code":%1,"to_tableid":-2147483648})"));
    row("tumipay result",
        Libcmn::buildTumipayResponeMsg(
            -1, aw, object(R"({"z":[null,{"b":1,"a":"é"}],"amount":12.5,"ok":false})")),
        withAwkward(
            R"({"dt":{"amount":12.5,"ok":false,"z":[null,{"a":"é","b":1}]},"err":-1,"msg":%1})"));

    // Only the three members the server knows; items passed on as they are.
    row("order",
        Libcmn::formatRequestOrder("M", 4, object(R"({"table_id":2,"amount":150000,"note":"x",
                       "items":[1,"a",null,true,[],{"z":{"y":"ü"},"a":2.5}]})")),
        utf8(R"({"amount":150000,"items":[1,"a",null,true,[],{"a":2.5,"z":{"y":"ü"}}],)"
             R"("merchant_code":"M","staff_id":4,"table_id":2})"));
    row("order: int limits kept, beyond them 0",
        Libcmn::formatRequestOrder(
            "M", INT_MAX, object(R"({"table_id":-2147483648,"amount":2147483648,"items":{}})")),
        R"({"amount":0,"items":[],"merchant_code":"M","staff_id":2147483647,"table_id":-2147483648})");
    row("order: texts and fractions read as 0",
        Libcmn::formatRequestOrder("M", -1, object(R"({"table_id":"2","amount":12.5})")),
        R"({"amount":0,"items":[],"merchant_code":"M","staff_id":-1,"table_id":0})");

    // The amount is a C long: 32 bits on the terminals, 64 bits on development machines.
    const bool wide = sizeof(long) == 8;
    const QString tumipay(
        R"({"amount":"%1","description":"","devid":"","items":[{"information":""}],)"
        R"("machine_name":"","merchant_code":"","payment_method":"1"})");
    row("tumipay long max", Libcmn::formatTumipay("", "", "", LONG_MAX, "", ""),
        tumipay.arg(wide ? "9223372036854775807" : "2147483647"));
    row("tumipay long min", Libcmn::formatTumipay("", "", "", LONG_MIN, "", ""),
        tumipay.arg(wide ? "-9223372036854775808" : "-2147483648"));

    row("key", Libcmn::keloSecretkey(), QString::fromLatin1(buildKey));
    const QString nul = QString::fromUtf8("a\0b", 3), aw2 = utf8("Bàn 3 ☕");
    row("hmac, nul inside", Libcmn::HMacSha256(nul), opensslHmac(nul));
    row("hmac, utf-8", Libcmn::HMacSha256(aw2), opensslHmac(aw2));
    if (buildKey == developmentKey) {
        row("hmac, recorded", Libcmn::HMacSha256("MDS"),
            "80bd5745461b49801efa1353294dd9293d040334f4d4facda1c96e9507a50e68");
        row("hmac, recorded utf-8", Libcmn::HMacSha256(aw2),
            "4ecc1c2b296107965d558055faed78e404ba159cdecde3b143220ca33eed44ab");
    }
    // The values go out as they are, undecoded and unescaped; the signature covers them joined.
    row("ws connect string",
        Libcmn::formatWsConnectString("wss://h:8443/ntf/", "M 1&x=y", "{D&9}", utf8(" S%20 😀")),
        utf8("wss://h:8443/ntf/?appuser=M 1&x=y&devid={D&9}&ws_session= S%20 😀&tk=") +
            opensslHmac(utf8("M 1&x=y{D&9} S%20 😀")));

    row("cancel: only ASCII marks go, spaces stay",
        Libcmn::formatInvoiceCancel(utf8(" #ﾃ 1# ＃x/%1"), "#M"),
        utf8(R"({"invoice_code":" ﾃ 1 ＃x/%1","merchant_code":"#M"})"));
}

QTEST_GUILESS_MAIN(TestLibcmnBuilders)
#include "tst_libcmn_builders.moc"
