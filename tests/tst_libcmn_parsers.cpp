// Reading replies and notifications: codes, outputs, and outputs left alone on every failure.
#include "libcmn.h"

#include <QJsonDocument>
#include <QtTest>

namespace {

// Runs one reader on @p json with every output preset ("~" for a text, 99 for an integer,
// {"sentinel":true} for an object, so that these mean "not written") and renders the result
// and the outputs as one text: "<result> | <output> | ...".
QString read(const QString& reader, const QString& json)
{
    QString a = "~", b = "~", c = "~";
    int id = 99;
    QJsonObject dt{{"sentinel", true}};
    QStringList out;
    if (reader == "all") { // every reader, a line each
        for (const char* one : {"errMsg", "notify", "userId", "sesId", "wsSid", "invoiceQR"})
            out << read(one, json);
        return out.join('\n');
    }
    if (reader == "errMsg") {
        out << QString::number(Libcmn::getErrMsg(json, &a)) << a;
        if (Libcmn::getErrMsg(json, nullptr) != out[0].toInt())
            out << "differs without output";
    } else if (reader == "notify") {
        const int type = Libcmn::getNotifyDt(json, a, dt);
        out << Libcmn::getNotifyMsg(json) << QString::number(type) << a
            << QJsonDocument(dt).toJson(QJsonDocument::Compact);
    } else if (reader == "userId") {
        out << QString::number(Libcmn::getUserId(json, id, a)) << QString::number(id) << a;
    } else if (reader == "sesId") {
        out << QString::number(Libcmn::getSesId(json, a)) << a;
    } else if (reader == "wsSid") {
        out << QString::number(Libcmn::parseWsSid(json, &a)) << a;
        if (Libcmn::parseWsSid(json, nullptr) != out[0].toInt())
            out << "differs without output";
    } else if (reader == "invoiceQR") { // with and without the optional outputs
        out << QString::number(Libcmn::getInvoiceQR(json, a, b, &c, &id)) << a << b << c
            << QString::number(id);
        QString msg = "~", code = "~";
        out << QString::number(Libcmn::getInvoiceQR(json, msg, code, nullptr, nullptr)) << msg
            << code;
    }
    return out.join(" | ");
}

} // namespace

class TestLibcmnParsers : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void readers_data();
    void readers()
    {
        QFETCH(QString, reader);
        QFETCH(QString, json);
        QTEST(read(reader, json), "expected");
    }
};

void TestLibcmnParsers::readers_data()
{
    QTest::addColumn<QString>("reader");
    QTest::addColumn<QString>("json");
    QTest::addColumn<QString>("expected");
    const auto row = [](const char* reader, const char* name, const QString& json,
                        const QString& expected) {
        QTest::addRow("%s: %s", reader, name) << QString(reader) << json << expected;
    };
    // Not one object: every reader fails and writes nothing.
    const QString reply = R"({"err":0,"type":1,"msg":"m","dt":{"invoice_code":"X","staff_id":1,)"
                          R"("staff_name":"n","invoice_session":"s","ws_session":"w",)"
                          R"("tptranstoken":"t","appid":2}})";
    const QString failed = "-1 | ~\n | -1 | ~ | {\"sentinel\":true}\n-1 | 99 | ~\n-1 | ~\n"
                           "-1 | ~\n-1 | ~ | ~ | ~ | 99 | -1 | ~ | ~";
    row("all", "empty", QString(), failed);
    row("all", "reply as a JSON string", R"("{\"err\":0}")", failed);
    row("all", "reply inside an array", "[" + reply + "]", failed);
    row("all", "garbage after", reply + " x", failed);
    // "err" reads as an integer, 0 for a non-number (success, leniently), -1 when missing.
    row("errMsg", "refusal", R"({"err":5,"msg":"busy","dt":{}})", "5 | busy");
    row("errMsg", "message without code", R"({"msg":"x"})", "-1 | x");
    row("errMsg", "code as text", R"({"err":"3"})", "0 | ~");
    row("errMsg", "fractional code, numeric message", R"({"err":2.5,"msg":7})", "0 | ");
    // msg | type | invoice code | dt
    row("notify", "payment", R"({"type":1,"msg":"payment_success","dt":{"invoice_code":"#X"}})",
        R"(payment_success | 1 | #X | {"invoice_code":"#X"})");
    row("notify", "err not looked at, no type", R"({"err":3,"dt":{"invoice_code":"B"}})",
        R"( | -1 | B | {"invoice_code":"B"})");
    row("notify", "type as text, no dt", R"({"type":"2"})", R"( | 0 | ~ | {"sentinel":true})");
    row("notify", "dt without code", R"({"type":2,"dt":{"x":1}})", R"( | 2 | ~ | {"x":1})");
    row("notify", "dt an array", R"({"type":2,"dt":[{"invoice_code":"D"}]})", " | 2 | ~ | {}");
    row("notify", "msg and code not texts", R"({"msg":5,"type":2,"dt":{"invoice_code":7}})",
        R"( | 2 |  | {"invoice_code":7})");

    // code | staff id | staff name: read only on success
    row("userId", "success", R"({"err":0,"dt":{"staff_id":12,"staff_name":"Anna"}})",
        "0 | 12 | Anna");
    row("userId", "id as text", R"({"err":0,"dt":{"staff_id":"12"}})", "0 | 0 | ~");
    row("userId", "no dt", R"({"err":0})", "0 | 99 | ~");
    row("userId", "refusal", R"({"err":6,"dt":{"staff_id":12,"staff_name":"A"}})", "6 | 99 | ~");
    // A payload without the session is broken, unlike a reply without a payload.
    row("sesId", "success", R"({"err":0,"dt":{"invoice_session":"S-42"}})", "0 | S-42");
    row("sesId", "no dt", R"({"err":0})", "0 | ~");
    row("sesId", "dt without session", R"({"err":0,"dt":{}})", "-1 | ~");
    row("sesId", "refusal", R"({"err":7,"dt":{"invoice_session":"S"}})", "7 | ~");
    // Every failure is -1: the client only needs to know whether it may connect.
    row("wsSid", "success", R"({"err":0,"dt":{"ws_session":"W1"}})", "0 | W1");
    row("wsSid", "refusal with session", R"({"err":7,"dt":{"ws_session":"W"}})", "-1 | ~");
    row("wsSid", "no dt", R"({"err":0})", "-1 | ~");
    row("wsSid", "dt without session", R"({"err":0,"dt":{}})", "0 | ~");
    row("wsSid", "err as text", R"({"err":"1","dt":{"ws_session":"W"}})", "0 | W");
    // code | msg | invoice code | token | app id, then code | msg | invoice code again
    row("invoiceQR", "all outputs",
        R"({"err":0,"msg":"ok","dt":{"invoice_code":"X","tptranstoken":"T","appid":3}})",
        "0 | ok | X | T | 3 | 0 | ok | X");
    row("invoiceQR", "refusal hands back its text",
        R"({"err":4,"msg":"expired","dt":{"invoice_code":"X"}})",
        "4 | expired | ~ | ~ | 99 | 4 | expired | ~");
    row("invoiceQR", "no dt", R"({"err":0})", "0 | ~ | ~ | ~ | 99 | 0 | ~ | ~");
    row("invoiceQR", "wrong types",
        R"({"err":0,"msg":1,"dt":{"invoice_code":2,"tptranstoken":[],"appid":"3"}})",
        "0 |  |  |  | 0 | 0 |  | ");
}

QTEST_GUILESS_MAIN(TestLibcmnParsers)
#include "tst_libcmn_parsers.moc"
