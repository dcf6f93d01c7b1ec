// The simulator's routes: each path and operation word, its handler and its answer codes.
#include "cloudstate.h"
#include "cloudstate_p.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QList>
#include <QMessageAuthenticationCode>
#include <QUrl>
#include <QUuid>

#include <algorithm>
#include <limits>

namespace kelocloud {

QString detail::hmac(const QByteArray& data, const QByteArray& key)
{
    return QString::fromLatin1(
        QMessageAuthenticationCode::hash(data, key, QCryptographicHash::Sha256).toHex());
}

namespace {

using namespace detail;

// Old sessions are forgotten beyond this many (a terminal fetches one per (re)connect).
constexpr int kMaxSessions = 512;

// ---------------------------------------------------------------------------------------------
// Answers.

enum Code
{
    Success = 0,
    UnknownPath = 200,
    UnknownOperation = 201,
    BadData = 202,
    UnknownMerchant = 203,
    InvalidField = 204,
    WrongCredentials = 210,
    RoleNotAllowed = 211,
    UnknownStaff = 212,
    UnknownTable = 220,
    SameTable = 221,
    MissingSignature = 230,
    BadSignature = 231,
    NoInvoiceSession = 232,
    BadAmount = 233,
    BadPaymentMethod = 234,
    UnknownInvoice = 240,
    InvoiceNotOpen = 241,
};

struct Reply
{
    int err = Success;
    QString msg = QStringLiteral("success");
    QJsonObject dt;
};

Reply refuse(Code code, const QString& msg)
{
    return {code, msg, {}};
}
Reply invalid(const char* key)
{
    return refuse(InvalidField, QStringLiteral("invalid field: ") + key);
}
Reply success(const QJsonObject& dt)
{
    return {Success, QStringLiteral("success"), dt};
}

/// One call as a handler sees it.
struct Call
{
    QString cm;
    QString tk;
    QString dtText; ///< the "dt" JSON text as the client wrote it
    QJsonObject dt;
    QString imgBase;
    QByteArray key;
};

QString randomToken()
{
    return QUuid::createUuid().toString(QUuid::Id128);
}

void remember(QList<QPair<QString, QString>>* sessions, const QString& a, const QString& b)
{
    sessions->append({a, b});
    if (sessions->size() > kMaxSessions)
        sessions->removeFirst();
}

bool readInt(const QJsonObject& dt, const char* key, qint64* out)
{
    return wholeNumber(dt.value(QLatin1String(key)), out);
}

bool readId(const QJsonObject& dt, const char* key, int* out)
{
    qint64 v = 0;
    if (!readInt(dt, key, &v) || v < std::numeric_limits<int>::min() ||
        v > std::numeric_limits<int>::max())
        return false;
    *out = int(v);
    return true;
}

bool readText(const QJsonObject& dt, const char* key, QString* out)
{
    const QJsonValue v = dt.value(QLatin1String(key));
    if (!v.isString() || v.toString().isEmpty())
        return false;
    *out = v.toString();
    return true;
}

// --- login -----------------------------------------------------------------------------------

Reply login(Books& b, const Call& c)
{
    if (!c.dt.value("u").isString())
        return invalid("u");
    if (!c.dt.value("p").isString())
        return invalid("p");
    const QString user = c.dt.value("u").toString();
    const auto it = std::find_if(b.fixture.staff.cbegin(), b.fixture.staff.cend(),
                                 [&](const StaffMember& s) { return s.user == user; });
    // Unknown user and wrong password give the same answer: nothing tells which users exist.
    if (it == b.fixture.staff.cend() || it->password != c.dt.value("p").toString())
        return refuse(WrongCredentials, QStringLiteral("wrong user name or password"));
    // "waiter_login" is for waiters only, and so on: each role logs in with its own word.
    if (c.cm != it->role + QLatin1String("_login"))
        return refuse(RoleNotAllowed, QStringLiteral("role not allowed for this login"));
    return success({{"staff_id", it->id}, {"staff_name", it->name}});
}

// --- menu and tables -------------------------------------------------------------------------

Reply menuList(Books& b, const Call& c)
{
    QJsonArray items;
    for (const Dish& dish : qAsConst(b.fixture.menu))
        items.append(QJsonObject{{"item_id", dish.id},
                                 {"item_name", dish.name},
                                 {"price", dish.price},
                                 {"img_path", dish.imgPath},
                                 {"img_crc", dish.imgCrc}});
    return success(
        {{"img_host", c.imgBase}, {"last_update", b.fixture.lastUpdate}, {"items", items}});
}

Reply tableList(Books& b, const Call&)
{
    QJsonArray tables;
    for (const Table& table : qAsConst(b.fixture.tables)) {
        const int count = b.orders.value(table.id).size();
        tables.append(QJsonObject{{"table_id", table.id},
                                  {"table_name", table.name},
                                  {"status", count ? "occupied" : "free"},
                                  {"order_count", count},
                                  {"amount", b.tableTotal(table.id)}});
    }
    return success({{"tables", tables}});
}

// --- orders ----------------------------------------------------------------------------------

Reply confirmOrder(Books& b, const Call& c)
{
    Order order;
    int tableId = 0;
    if (!readInt(c.dt, "amount", &order.amount) || order.amount < 0)
        return invalid("amount");
    if (!c.dt.value("items").isArray())
        return invalid("items");
    if (!readId(c.dt, "staff_id", &order.staffId))
        return invalid("staff_id");
    if (!readId(c.dt, "table_id", &tableId))
        return invalid("table_id");
    if (!b.table(tableId))
        return refuse(UnknownTable, QStringLiteral("unknown table"));
    if (!b.staff(order.staffId))
        return refuse(UnknownStaff, QStringLiteral("unknown staff"));
    order.items = c.dt.value("items").toArray();
    order.id = b.nextOrderId++;
    b.orders[tableId].append(order);
    return success({{"order_id", order.id},
                    {"table_id", tableId},
                    {"amount", order.amount},
                    {"table_amount", b.tableTotal(tableId)}});
}

Reply orderList(Books& b, const Call& c)
{
    int tableId = 0;
    if (!readId(c.dt, "table_id", &tableId))
        return invalid("table_id");
    const Table* table = b.table(tableId);
    if (!table)
        return refuse(UnknownTable, QStringLiteral("unknown table"));
    QJsonArray orders, foods;
    for (const Order& order : b.orders.value(tableId)) {
        orders.append(QJsonObject{{"order_id", order.id},
                                  {"staff_id", order.staffId},
                                  {"amount", order.amount},
                                  {"items", order.items}});
        for (const QJsonValue& food : order.items)
            foods.append(food);
    }
    return success({{"table_id", tableId},
                    {"table_name", table->name},
                    {"amount", b.tableTotal(tableId)},
                    {"orders", orders},
                    {"items", foods}});
}

Reply mergeTables(Books& b, const Call& c)
{
    int from = 0, to = 0;
    if (!readId(c.dt, "from_tableid", &from))
        return invalid("from_tableid");
    if (!readId(c.dt, "to_tableid", &to))
        return invalid("to_tableid");
    if (!b.table(from) || !b.table(to))
        return refuse(UnknownTable, QStringLiteral("unknown table"));
    if (from == to)
        return refuse(SameTable, QStringLiteral("cannot merge a table into itself"));
    // Merging a free table is not an error: there is simply nothing to move.
    const QList<Order> moved = b.orders.take(from);
    if (!moved.isEmpty())
        b.orders[to].append(moved);
    return success({{"from_tableid", from},
                    {"to_tableid", to},
                    {"moved", moved.size()},
                    {"amount", b.tableTotal(to)}});
}

Reply payTable(Books& b, const Call& c)
{
    qint64 amount = 0;
    int staffId = 0, tableId = 0;
    if (!readInt(c.dt, "amount", &amount) || amount < 0)
        return invalid("amount");
    if (!readId(c.dt, "staff_id", &staffId))
        return invalid("staff_id");
    if (!readId(c.dt, "table_id", &tableId))
        return invalid("table_id");
    if (!b.table(tableId))
        return refuse(UnknownTable, QStringLiteral("unknown table"));
    if (!b.staff(staffId))
        return refuse(UnknownStaff, QStringLiteral("unknown staff"));
    // The cashier's amount is taken as paid, whatever the bill: the till settles differences.
    const qint64 total = b.tableTotal(tableId);
    b.orders.remove(tableId);
    return success({{"payment_id", b.nextPayment++},
                    {"table_id", tableId},
                    {"amount", amount},
                    {"total", total}});
}

// --- e-wallet invoices -----------------------------------------------------------------------

Reply invoiceSession(Books& b, const Call& c)
{
    QString devid;
    if (!readText(c.dt, "devid", &devid))
        return invalid("devid");
    const QString session = randomToken();
    remember(&b.invoiceSessions, devid, session);
    return success({{"invoice_session", session}});
}

/// A decimal text (as the SDK sends it) or a JSON number; 0 if neither.
qint64 invoiceAmount(const QJsonValue& v)
{
    if (v.isString()) {
        bool ok = false;
        const qint64 amount = v.toString().toLongLong(&ok, 10);
        return ok ? amount : 0;
    }
    qint64 amount = 0;
    return wholeNumber(v, &amount) ? amount : 0;
}

Reply createInvoice(Books& b, const Call& c)
{
    QString devid;
    if (!readText(c.dt, "devid", &devid))
        return invalid("devid");
    if (c.tk.isEmpty())
        return refuse(MissingSignature, QStringLiteral("missing signature"));
    // The client signs "%1%2" filled by two successive arg() calls; the same is done here, so a
    // "%1" inside the text receives the session exactly as on the client's side.
    bool sessionIssued = false, signatureGood = false;
    for (const auto& issued : qAsConst(b.invoiceSessions)) {
        if (issued.first != devid)
            continue;
        sessionIssued = true;
        const QString signedText = QStringLiteral("%1%2").arg(c.dtText).arg(issued.second);
        signatureGood = signatureGood || hmac(signedText.toUtf8(), c.key) == c.tk;
    }
    if (!sessionIssued)
        return refuse(NoInvoiceSession, QStringLiteral("no invoice session for this device"));
    if (!signatureGood)
        return refuse(BadSignature, QStringLiteral("bad signature"));
    const qint64 amount = invoiceAmount(c.dt.value("amount"));
    if (amount <= 0)
        return refuse(BadAmount, QStringLiteral("invalid invoice amount"));
    if (invoiceAmount(c.dt.value("payment_method")) != 1)
        return refuse(BadPaymentMethod, QStringLiteral("unsupported payment method"));

    Invoice invoice;
    invoice.code = QStringLiteral("INV#%1").arg(b.nextInvoice++, 6, 10, QLatin1Char('0'));
    invoice.devid = devid;
    invoice.amount = amount;
    invoice.description = c.dt.value("description").toString();
    invoice.transToken = randomToken();
    b.invoices.append(invoice);
    const QString qr =
        QStringLiteral("kelopay://pay?merchant=%1&invoice=%2&amount=%3")
            .arg(QString::fromLatin1(QUrl::toPercentEncoding(b.fixture.merchantCode)),
                 QString::fromLatin1(QUrl::toPercentEncoding(invoice.code)))
            .arg(amount);
    return success({{"invoice_code", invoice.code},
                    {"qr_code", qr},
                    {"tptranstoken", invoice.transToken},
                    {"appid", kWalletAppId},
                    {"amount", amount}});
}

Reply cancelInvoice(Books& b, const Call& c)
{
    QString code;
    if (!readText(c.dt, "invoice_code", &code))
        return invalid("invoice_code");
    Invoice* invoice = b.invoice(code);
    if (!invoice)
        return refuse(UnknownInvoice, QStringLiteral("unknown invoice"));
    if (invoice->status != Invoice::Open)
        return refuse(InvoiceNotOpen, QStringLiteral("invoice is not open"));
    invoice->status = Invoice::Cancelled;
    return success({{"invoice_code", invoice->code}, {"status", "cancelled"}});
}

// --- notification sessions -------------------------------------------------------------------

Reply wsSession(Books& b, const Call& c)
{
    QString devid;
    if (!readText(c.dt, "devid", &devid))
        return invalid("devid");
    const QString session = randomToken();
    remember(&b.wsSessions, session, devid);
    return success({{"ws_session", session}});
}

struct Route
{
    const char* path;
    const char* cm;
    Reply (*run)(Books&, const Call&);
};

// Paths are exact: "/kelo/api/invoice" (no slash) serves "cancel" only, as the cloud does.
const Route routes[] = {
    {"/kelo/api/login/", "client_login", login},
    {"/kelo/api/login/", "waiter_login", login},
    {"/kelo/api/login/", "cashier_login", login},
    {"/kelo/api/item/", "getlist", menuList},
    {"/kelo/api/table/", "getlist", tableList},
    {"/kelo/api/invoice/", "confirm_order", confirmOrder},
    {"/kelo/api/invoice/", "get_order_list", orderList},
    {"/kelo/api/invoice/", "merge_table", mergeTables},
    {"/kelo/api/invoice/", "payment", payTable},
    {"/kelo/api/invoice/", "get_session", invoiceSession},
    {"/kelo/api/invoice/", "create", createInvoice},
    {"/kelo/api/invoice", "cancel", cancelInvoice},
    {"/kelo/api/common", "get_ws_session", wsSession},
};

QByteArray envelope(const Reply& reply)
{
    const QJsonObject body{{"err", reply.err}, {"msg", reply.msg}, {"dt", reply.dt}};
    return QJsonDocument(body).toJson(QJsonDocument::Compact);
}

/// The "dt" text as signed: "create" arrives percent-encoded once more, unless the transport
/// already decoded it (a JSON object text starts with "{", which the encoding never leaves).
QString signedDtText(const QString& cm, const QString& dt)
{
    if (cm == QLatin1String("create") && !dt.trimmed().startsWith('{'))
        return QUrl::fromPercentEncoding(dt.toUtf8());
    return dt;
}

} // namespace

CloudState::Answer CloudState::handle(const QByteArray& path, const QString& cm, const QString& tk,
                                      const QString& dt, const QString& imgBase)
{
    const auto answer = [](int status, const Reply& reply) {
        return Answer{status, envelope(reply), "application/json"};
    };
    const bool knownPath = std::any_of(std::begin(routes), std::end(routes),
                                       [&](const Route& r) { return path == r.path; });
    if (!knownPath)
        return answer(404, refuse(UnknownPath, QStringLiteral("unknown path")));
    const auto route = std::find_if(std::begin(routes), std::end(routes), [&](const Route& r) {
        return path == r.path && cm == QLatin1String(r.cm);
    });
    if (route == std::end(routes))
        return answer(200, refuse(UnknownOperation, QStringLiteral("unknown operation")));

    Call call{cm, tk, signedDtText(cm, dt), {}, imgBase, {}};
    const QJsonDocument doc = QJsonDocument::fromJson(call.dtText.toUtf8());
    if (!doc.isObject())
        return answer(200, refuse(BadData, QStringLiteral("dt is not a JSON object")));
    call.dt = doc.object();

    QMutexLocker lock(&mutex);
    call.key = key;
    if (!call.dt.value("merchant_code").isString())
        return answer(200, invalid("merchant_code"));
    if (call.dt.value("merchant_code").toString() != books->fixture.merchantCode)
        return answer(200, refuse(UnknownMerchant, QStringLiteral("unknown merchant")));
    return answer(200, route->run(*books, call));
}

} // namespace kelocloud
