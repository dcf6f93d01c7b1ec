// Reading replies and notifications: codes, outputs, and outputs left alone on every failure.
#include "libcmn.h"

#include <QJsonDocument>
#include <QtTest>

#include <climits>

namespace {

// Every output starts with one of these; a case expecting it means "not written".
const QString textSentinel("<untouched>");
const int idSentinel = 99;
const QJsonObject dtSentinel{{"sentinel", true}};

QString compact(const QJsonObject& object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

} // namespace

class TestLibcmnParsers : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void unreadableTextChangesNothing_data();
    void unreadableTextChangesNothing();
    void errMsg_data();
    void errMsg();
    void notifyMsg_data();
    void notifyMsg();
    void notifyDt_data();
    void notifyDt();
    void userId_data();
    void userId();
    void sesId_data();
    void sesId();
    void wsSid_data();
    void wsSid();
    void invoiceQR_data();
    void invoiceQR();
};

void TestLibcmnParsers::unreadableTextChangesNothing_data()
{
    QTest::addColumn<QString>("json");
    const char* const replyBody = R"({"err":0,"type":1,"msg":"m","dt":{"invoice_code":"X",)"
                                  R"("staff_id":1,"staff_name":"n","invoice_session":"s",)"
                                  R"("ws_session":"w","tptranstoken":"t","appid":2}})";
    QTest::newRow("empty") << QString();
    QTest::newRow("null") << QString("null");
    QTest::newRow("number") << QString("42");
    QTest::newRow("string") << QString(R"("{\"err\":0}")");
    QTest::newRow("array") << QString("[1]");
    QTest::newRow("reply inside an array") << QString("[%1]").arg(replyBody);
    QTest::newRow("unterminated") << QString(replyBody).chopped(1);
    QTest::newRow("garbage after") << QString(replyBody) + " x";
    QTest::newRow("single quotes") << QString("{'err':0,'msg':'m'}");
    QTest::newRow("trailing comma") << QString(replyBody).replace("}}", "},}");
}

void TestLibcmnParsers::unreadableTextChangesNothing()
{
    QFETCH(QString, json);
    QString msg = textSentinel, code = textSentinel, name = textSentinel, token = textSentinel;
    QJsonObject dt = dtSentinel;
    int id = idSentinel;

    QCOMPARE(Libcmn::getErrMsg(json, &msg), -1);
    QCOMPARE(Libcmn::getNotifyMsg(json), QString());
    QCOMPARE(Libcmn::getNotifyDt(json, code, dt), -1);
    QCOMPARE(Libcmn::getUserId(json, id, name), -1);
    QCOMPARE(Libcmn::getSesId(json, token), -1);
    QCOMPARE(Libcmn::parseWsSid(json, &token), -1);
    QCOMPARE(Libcmn::getInvoiceQR(json, msg, code, &token, &id), -1);

    for (const QString* output : {&msg, &code, &name, &token})
        QCOMPARE(*output, textSentinel);
    QCOMPARE(dt, dtSentinel);
    QCOMPARE(id, idSentinel);
}

void TestLibcmnParsers::errMsg_data()
{
    QTest::addColumn<QString>("json");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("msg");
    const auto row = [](const char* name, const char* json, int code, const QString& msg) {
        QTest::newRow(name) << QString::fromUtf8(json) << code << msg;
    };
    row("success", R"({"err":0,"msg":"ok"})", 0, "ok");
    row("refusal", R"({"err":5,"msg":"busy","dt":{}})", 5, "busy");
    row("message without code", R"({"msg":"x"})", -1, "x");
    row("code as text reads as success", R"({"err":"3"})", 0, textSentinel);
    row("fractional code and numeric message", R"({"err":2.5,"msg":7})", 0, "");
    row("null code and message", R"({"err":null,"msg":null})", 0, "");
    row("code beyond int", R"({"err":1e10})", 0, textSentinel);
    row("lowest code", R"({"err":-2147483648,"msg":"é\n"})", INT_MIN, QString::fromUtf8("é\n"));
    row("empty object", "{}", -1, textSentinel);
    row("keys are case-sensitive", R"({"ERR":1,"Msg":"x"})", -1, textSentinel);
    row("white space around", " \n{ \"err\" : 4 }\r\n", 4, textSentinel);
}

void TestLibcmnParsers::errMsg()
{
    QFETCH(QString, json);
    QFETCH(int, code);
    QFETCH(QString, msg);
    QString read = textSentinel;
    QCOMPARE(Libcmn::getErrMsg(json, &read), code);
    QCOMPARE(read, msg);
    QCOMPARE(Libcmn::getErrMsg(json, nullptr), code);
}

void TestLibcmnParsers::notifyMsg_data()
{
    QTest::addColumn<QString>("json");
    QTest::addColumn<QString>("msg");
    QTest::newRow("event word") << QString(R"({"type":1,"msg":"payment_success","dt":{}})")
                                << QString("payment_success");
    QTest::newRow("no msg") << QString(R"({"type":2,"dt":{"invoice_code":"A1"}})") << QString();
    QTest::newRow("msg not a text") << QString(R"({"msg":5})") << QString();
    QTest::newRow("escapes") << QString(R"({"msg":"x\u00e9\"\/"})") << QString::fromUtf8("xé\"/");
}

void TestLibcmnParsers::notifyMsg()
{
    QFETCH(QString, json);
    QFETCH(QString, msg);
    QCOMPARE(Libcmn::getNotifyMsg(json), msg);
}

void TestLibcmnParsers::notifyDt_data()
{
    QTest::addColumn<QString>("json");
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("invoiceCode");
    QTest::addColumn<QString>("dt");
    const auto row = [](const char* name, const char* json, int type, const QString& code,
                        const QString& dt) {
        QTest::newRow(name) << QString::fromUtf8(json) << type << code << dt;
    };
    const QString untouchedDt = compact(dtSentinel);
    row("without msg", R"({"type":2,"dt":{"invoice_code":"A1"}})", 2, "A1",
        R"({"invoice_code":"A1"})");
    row("payment", R"({"type":1,"msg":"payment_success","dt":{"invoice_code":"#X","amount":5}})", 1,
        "#X", R"({"amount":5,"invoice_code":"#X"})");
    row("read whatever err says", R"({"err":3,"type":4,"dt":{"invoice_code":"B"}})", 4, "B",
        R"({"invoice_code":"B"})");
    row("no type", R"({"dt":{"invoice_code":"C"}})", -1, "C", R"({"invoice_code":"C"})");
    row("type as text, no dt", R"({"type":"2"})", 0, textSentinel, untouchedDt);
    row("dt without code", R"({"type":2,"dt":{"x":[1]}})", 2, textSentinel, R"({"x":[1]})");
    row("dt an array", R"({"type":2,"dt":[{"invoice_code":"D"}]})", 2, textSentinel, "{}");
    row("dt null", R"({"type":2,"dt":null})", 2, textSentinel, "{}");
    row("code not a text", R"({"type":2,"dt":{"invoice_code":7}})", 2, "", R"({"invoice_code":7})");
}

void TestLibcmnParsers::notifyDt()
{
    QFETCH(QString, json);
    QFETCH(int, type);
    QFETCH(QString, invoiceCode);
    QFETCH(QString, dt);
    QString code = textSentinel;
    QJsonObject object = dtSentinel;
    QCOMPARE(Libcmn::getNotifyDt(json, code, object), type);
    QCOMPARE(code, invoiceCode);
    QCOMPARE(compact(object), dt);
}

void TestLibcmnParsers::userId_data()
{
    QTest::addColumn<QString>("json");
    QTest::addColumn<int>("code");
    QTest::addColumn<int>("staffId");
    QTest::addColumn<QString>("staffName");
    const auto row = [](const char* name, const char* json, int code, int id,
                        const QString& staffName) {
        QTest::newRow(name) << QString::fromUtf8(json) << code << id << staffName;
    };
    row("success", R"({"err":0,"dt":{"staff_id":12,"staff_name":"Anna"}})", 0, 12, "Anna");
    row("id as text", R"({"err":0,"dt":{"staff_id":"12"}})", 0, 0, textSentinel);
    row("fractional id, null name", R"({"err":0,"dt":{"staff_id":12.5,"staff_name":null}})", 0, 0,
        "");
    row("lowest id", R"({"err":0,"dt":{"staff_id":-2147483648,"staff_name":"Bé"}})", 0, INT_MIN,
        QString::fromUtf8("Bé"));
    row("no dt", R"({"err":0})", 0, idSentinel, textSentinel);
    row("empty dt", R"({"err":0,"dt":{}})", 0, idSentinel, textSentinel);
    row("dt not an object", R"({"err":0,"dt":"x"})", 0, idSentinel, textSentinel);
    row("refusal", R"({"err":6,"dt":{"staff_id":12,"staff_name":"A"}})", 6, idSentinel,
        textSentinel);
    row("no err", R"({"dt":{"staff_id":12,"staff_name":"A"}})", -1, idSentinel, textSentinel);
    row("err as text reads as success", R"({"err":"6","dt":{"staff_id":12}})", 0, 12, textSentinel);
}

void TestLibcmnParsers::userId()
{
    QFETCH(QString, json);
    QFETCH(int, code);
    QFETCH(int, staffId);
    QFETCH(QString, staffName);
    int id = idSentinel;
    QString name = textSentinel;
    QCOMPARE(Libcmn::getUserId(json, id, name), code);
    QCOMPARE(id, staffId);
    QCOMPARE(name, staffName);
}

void TestLibcmnParsers::sesId_data()
{
    QTest::addColumn<QString>("json");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("session");
    const auto row = [](const char* name, const char* json, int code, const QString& session) {
        QTest::newRow(name) << QString::fromUtf8(json) << code << session;
    };
    row("success", R"({"err":0,"dt":{"invoice_session":"S-42"}})", 0, "S-42");
    row("no dt", R"({"err":0})", 0, textSentinel);
    row("empty dt", R"({"err":0,"dt":{}})", -1, textSentinel);
    row("dt an array", R"({"err":0,"dt":[{"invoice_session":"S"}]})", -1, textSentinel);
    row("refusal", R"({"err":7,"dt":{"invoice_session":"S"}})", 7, textSentinel);
    row("no err", R"({"dt":{"invoice_session":"S"}})", -1, textSentinel);
    row("session not a text", R"({"err":0,"dt":{"invoice_session":5}})", 0, "");
}

void TestLibcmnParsers::sesId()
{
    QFETCH(QString, json);
    QFETCH(int, code);
    QFETCH(QString, session);
    QString read = textSentinel;
    QCOMPARE(Libcmn::getSesId(json, read), code);
    QCOMPARE(read, session);
}

void TestLibcmnParsers::wsSid_data()
{
    QTest::addColumn<QString>("json");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("session");
    const auto row = [](const char* name, const char* json, int code, const QString& session) {
        QTest::newRow(name) << QString::fromUtf8(json) << code << session;
    };
    row("success", R"({"err":0,"dt":{"ws_session":"W1"}})", 0, "W1");
    row("refusal is -1", R"({"err":7})", -1, textSentinel);
    row("refusal with session", R"({"err":7,"dt":{"ws_session":"W"}})", -1, textSentinel);
    row("no dt", R"({"err":0})", -1, textSentinel);
    row("empty dt", R"({"err":0,"dt":{}})", 0, textSentinel);
    row("dt null", R"({"err":0,"dt":null})", 0, textSentinel);
    row("no err", R"({"dt":{"ws_session":"W"}})", -1, textSentinel);
    row("err as text reads as success", R"({"err":"1","dt":{"ws_session":"W"}})", 0, "W");
    row("session null", R"({"err":0,"dt":{"ws_session":null}})", 0, "");
}

void TestLibcmnParsers::wsSid()
{
    QFETCH(QString, json);
    QFETCH(int, code);
    QFETCH(QString, session);
    QString read = textSentinel;
    QCOMPARE(Libcmn::parseWsSid(json, &read), code);
    QCOMPARE(read, session);
    QCOMPARE(Libcmn::parseWsSid(json, nullptr), code);
}

void TestLibcmnParsers::invoiceQR_data()
{
    QTest::addColumn<QString>("json");
    QTest::addColumn<bool>("optionals");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("msg");
    QTest::addColumn<QString>("invoiceCode");
    QTest::addColumn<QString>("token");
    QTest::addColumn<int>("appId");
    const auto row = [](const char* name, const char* json, bool optionals, int code,
                        const QString& msg, const QString& invoiceCode, const QString& token,
                        int appId) {
        QTest::newRow(name) << QString::fromUtf8(json) << optionals << code << msg << invoiceCode
                            << token << appId;
    };
    const QString u = textSentinel;
    const char* const full =
        R"({"err":0,"msg":"ok","dt":{"invoice_code":"X","tptranstoken":"T","appid":3}})";
    row("all outputs", full, true, 0, "ok", "X", "T", 3);
    row("optionals not asked", full, false, 0, "ok", "X", u, idSentinel);
    row("refusal hands back its text", R"({"err":4,"msg":"expired","dt":{"invoice_code":"X"}})",
        true, 4, "expired", u, u, idSentinel);
    row("no err", R"({"msg":"m","dt":{"invoice_code":"X"}})", true, -1, "m", u, u, idSentinel);
    row("no dt", R"({"err":0})", true, 0, u, u, u, idSentinel);
    row("empty dt", R"({"err":0,"dt":{}})", true, 0, u, u, u, idSentinel);
    row("wrong types", R"({"err":0,"msg":1,"dt":{"invoice_code":2,"tptranstoken":[],"appid":"3"}})",
        true, 0, "", "", "", 0);
    row("app id beyond int", R"({"err":0,"dt":{"appid":4294967296}})", true, 0, u, u, u, 0);
}

void TestLibcmnParsers::invoiceQR()
{
    QFETCH(QString, json);
    QFETCH(bool, optionals);
    QFETCH(int, code);
    QString msg = textSentinel, invoiceCode = textSentinel, token = textSentinel;
    int appId = idSentinel;
    QCOMPARE(Libcmn::getInvoiceQR(json, msg, invoiceCode, optionals ? &token : nullptr,
                                  optionals ? &appId : nullptr),
             code);
    QTEST(msg, "msg");
    QTEST(invoiceCode, "invoiceCode");
    QTEST(token, "token");
    QTEST(appId, "appId");
}

QTEST_GUILESS_MAIN(TestLibcmnParsers)
#include "tst_libcmn_parsers.moc"
