#include "libcmn.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>
#include <QMessageAuthenticationCode>

namespace {

// Every request text travels as compact JSON: one line, keys in ascending order, UTF-8.
QString toCompactText(const QJsonObject& object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

// Reads a reply or notification; false (and @p object untouched) unless the text is an object.
bool parseObject(const QString& json, QJsonObject& object)
{
    const QJsonDocument document = QJsonDocument::fromJson(json.toUtf8());
    if (!document.isObject())
        return false;
    object = document.object();
    return true;
}

// The reply's result code: "err" as an integer (0 for a non-number), -1 when it is missing.
// A code sent as text or as a fraction therefore reads as 0, i.e. as success: every reader of
// the system is lenient in the same way, and it stays so.
int resultCode(const QJsonObject& reply)
{
    return reply.contains(QLatin1String("err")) ? reply.value(QLatin1String("err")).toInt(0) : -1;
}

// Copies @p key's text from @p object into @p out when the key is present.
void readText(const QJsonObject& object, QLatin1String key, QString& out)
{
    if (object.contains(key))
        out = object.value(key).toString();
}

QJsonObject payloadOf(const QJsonObject& reply)
{
    return reply.value(QLatin1String("dt")).toObject();
}

bool hasPayload(const QJsonObject& reply)
{
    return reply.contains(QLatin1String("dt"));
}

} // namespace

Libcmn::Libcmn() = default;

QString Libcmn::keloSecretkey()
{
    // The generated file appends the key one character at a time, so that neither the sources
    // nor the library ever hold it as one string.
    QString key;
    key.reserve(32);
#include "kelo_secretkey.inc"
    return key;
}

QString Libcmn::HMacSha256(const QString& data)
{
    const QByteArray mac = QMessageAuthenticationCode::hash(data.toUtf8(), keloSecretkey().toUtf8(),
                                                            QCryptographicHash::Sha256);
    return QString::fromLatin1(mac.toHex());
}

QString Libcmn::buildMsg(int err, const QString& msg)
{
    return toCompactText({{QStringLiteral("err"), QJsonValue(err)}, {QStringLiteral("msg"), msg}});
}

int Libcmn::getErrMsg(const QString& json, QString* msg)
{
    QJsonObject reply;
    if (!parseObject(json, reply))
        return -1;
    // The text is handed back even without a code: it helps the host explain the refusal.
    if (msg)
        readText(reply, QLatin1String("msg"), *msg);
    return resultCode(reply);
}

QString Libcmn::getNotifyMsg(const QString& json)
{
    QJsonObject notification;
    if (!parseObject(json, notification))
        return QString();
    return notification.value(QLatin1String("msg")).toString();
}

int Libcmn::getNotifyDt(const QString& json, QString& invoiceCode, QJsonObject& dt)
{
    QJsonObject notification;
    if (!parseObject(json, notification))
        return -1;
    const QLatin1String typeKey("type");
    const int type = notification.contains(typeKey) ? notification.value(typeKey).toInt(0) : -1;
    // Notifications carry their payload whatever their kind, so "dt" is read unconditionally.
    if (hasPayload(notification)) {
        dt = payloadOf(notification);
        readText(dt, QLatin1String("invoice_code"), invoiceCode);
    }
    return type;
}

QString Libcmn::formatLogin(const QString& merchantCode, const QString& user,
                            const QString& password)
{
    return toCompactText({{QStringLiteral("merchant_code"), merchantCode},
                          {QStringLiteral("u"), user},
                          {QStringLiteral("p"), password}});
}

int Libcmn::getUserId(const QString& json, int& staffId, QString& staffName)
{
    QJsonObject reply;
    if (!parseObject(json, reply))
        return -1;
    const int code = resultCode(reply);
    if (code != 0)
        return code;
    const QJsonObject dt = payloadOf(reply);
    if (dt.contains(QLatin1String("staff_id")))
        staffId = dt.value(QLatin1String("staff_id")).toInt(0);
    readText(dt, QLatin1String("staff_name"), staffName);
    return 0;
}

QString Libcmn::formatSession(const QString& merchantCode, const QString& devid)
{
    return toCompactText({{QStringLiteral("merchant_code"), merchantCode},
                          {QStringLiteral("devid"), devid},
                          {QStringLiteral("food_order"), QString()}});
}

int Libcmn::getSesId(const QString& json, QString& sesId)
{
    QJsonObject reply;
    if (!parseObject(json, reply))
        return -1;
    const int code = resultCode(reply);
    if (code != 0 || !hasPayload(reply))
        return code;
    // A payload without the session is a broken reply, unlike a reply without any payload.
    const QJsonObject dt = payloadOf(reply);
    if (!dt.contains(QLatin1String("invoice_session")))
        return -1;
    sesId = dt.value(QLatin1String("invoice_session")).toString();
    return 0;
}

QString Libcmn::formatWsSession(const QString& merchantCode, const QString& devid)
{
    return toCompactText(
        {{QStringLiteral("merchant_code"), merchantCode}, {QStringLiteral("devid"), devid}});
}

int Libcmn::parseWsSid(const QString& json, QString* wsSession)
{
    // A document that is not an object reads as an empty one, which has no "err": -1 as well.
    const QJsonObject reply = QJsonDocument::fromJson(json.toUtf8()).object();
    // The notification client only needs to know whether it may connect: every failure is -1.
    if (resultCode(reply) != 0 || !hasPayload(reply))
        return -1;
    if (wsSession)
        readText(payloadOf(reply), QLatin1String("ws_session"), *wsSession);
    return 0;
}

QString Libcmn::formatWsConnectString(const QString& base, const QString& appuser,
                                      const QString& devid, const QString& wsSession)
{
    // The values go out as they are: the server reads the query without decoding it.
    const QString signature = HMacSha256(appuser + devid + wsSession);
    return base + QLatin1String("?appuser=") + appuser + QLatin1String("&devid=") + devid +
           QLatin1String("&ws_session=") + wsSession + QLatin1String("&tk=") + signature;
}

QString Libcmn::formatRequestFoods(const QString& merchantCode)
{
    return toCompactText({{QStringLiteral("merchant_code"), merchantCode},
                          {QStringLiteral("item_status"), QJsonValue(1)}});
}

QString Libcmn::formatRequestOrder(const QString& merchantCode, int staffId,
                                   const QJsonObject& order)
{
    // Only the three members the server knows are passed on; the host's other members stay home.
    return toCompactText(
        {{QStringLiteral("merchant_code"), merchantCode},
         {QStringLiteral("staff_id"), QJsonValue(staffId)},
         {QStringLiteral("table_id"), QJsonValue(order.value(QLatin1String("table_id")).toInt(0))},
         {QStringLiteral("amount"), QJsonValue(order.value(QLatin1String("amount")).toInt(0))},
         {QStringLiteral("items"), order.value(QLatin1String("items")).toArray()}});
}

QString Libcmn::formatOrderlist(const QString& merchantCode, int tableId)
{
    return toCompactText({{QStringLiteral("merchant_code"), merchantCode},
                          {QStringLiteral("table_id"), QJsonValue(tableId)}});
}

QString Libcmn::formatMergetable(const QString& merchantCode, int fromTableId, int toTableId)
{
    return toCompactText({{QStringLiteral("merchant_code"), merchantCode},
                          {QStringLiteral("from_tableid"), QJsonValue(fromTableId)},
                          {QStringLiteral("to_tableid"), QJsonValue(toTableId)}});
}

QString Libcmn::formatTumipay(const QString& merchantCode, const QString& machineName,
                              const QString& devid, long amount, const QString& description,
                              const QString& information)
{
    // The invoice service takes the amount and the payment method as texts, unlike "payment".
    const QJsonObject item{{QStringLiteral("information"), information}};
    return toCompactText({{QStringLiteral("merchant_code"), merchantCode},
                          {QStringLiteral("machine_name"), machineName},
                          {QStringLiteral("devid"), devid},
                          {QStringLiteral("amount"), QString::number(amount, 10)},
                          {QStringLiteral("description"), description},
                          {QStringLiteral("payment_method"), QString::number(1, 10)},
                          {QStringLiteral("items"), QJsonArray{item}}});
}

int Libcmn::getInvoiceQR(const QString& json, QString& msg, QString& invoiceCode,
                         QString* transToken, int* appId)
{
    QJsonObject reply;
    if (!parseObject(json, reply))
        return -1;
    const int code = resultCode(reply);
    // The text comes back before the code is looked at: a refusal explains itself.
    readText(reply, QLatin1String("msg"), msg);
    if (code != 0 || !hasPayload(reply))
        return code;
    const QJsonObject dt = payloadOf(reply);
    readText(dt, QLatin1String("invoice_code"), invoiceCode);
    if (transToken)
        readText(dt, QLatin1String("tptranstoken"), *transToken);
    if (appId && dt.contains(QLatin1String("appid")))
        *appId = dt.value(QLatin1String("appid")).toInt(0);
    return 0;
}

QString Libcmn::formatInvoiceCancel(const QString& invoiceCode, const QString& merchantCode)
{
    // Invoice codes are shown to people as "#code"; the server knows them without the marks.
    return toCompactText(
        {{QStringLiteral("invoice_code"), QString(invoiceCode).remove(QLatin1Char('#'))},
         {QStringLiteral("merchant_code"), merchantCode}});
}

QString Libcmn::formatPayment(const QString& merchantCode, int tableId, int staffId, int amount)
{
    return toCompactText({{QStringLiteral("merchant_code"), merchantCode},
                          {QStringLiteral("table_id"), QJsonValue(tableId)},
                          {QStringLiteral("staff_id"), QJsonValue(staffId)},
                          {QStringLiteral("amount"), QJsonValue(amount)}});
}

QString Libcmn::buildTumipayResponeMsg(int err, const QString& msg, const QJsonObject& dt)
{
    return toCompactText({{QStringLiteral("err"), QJsonValue(err)},
                          {QStringLiteral("msg"), msg},
                          {QStringLiteral("dt"), dt}});
}
