#include "cloudstate.h"

#include <QBuffer>
#include <QColor>
#include <QCryptographicHash>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QList>
#include <QMessageAuthenticationCode>
#include <QUrl>
#include <QUuid>

#include <algorithm>
#include <cmath>
#include <limits>

// The resource lives in a static library: nothing would pull its object file in by itself.
static void initFixtureResource()
{
    Q_INIT_RESOURCE(fixtures);
}

namespace kelocloud {

namespace detail {

// ---------------------------------------------------------------------------------------------
// The merchant as the fixture describes it.

struct StaffMember
{
    int id = 0;
    QString name, user, password, role;
};

struct Dish
{
    int id = 0;
    QString name;
    qint64 price = 0;
    QString imgPath;
    QString imgCrc;
};

struct Table
{
    int id = 0;
    QString name;
};

struct Order
{
    int id = 0;
    int staffId = 0;
    qint64 amount = 0;
    QJsonArray items;
};

struct Fixture
{
    QString merchantCode, merchantName;
    qint64 lastUpdate = 0;
    QList<StaffMember> staff;
    QList<Dish> menu;
    QList<Table> tables;
    QList<QPair<int, Order>> orders; ///< table id, order
};

/// A whole JSON number within 53 bits (what a JSON number holds exactly).
bool wholeNumber(const QJsonValue& v, qint64* out)
{
    const double d = v.toDouble();
    if (!v.isDouble() || d != std::floor(d) || std::fabs(d) > 9007199254740992.0)
        return false;
    *out = qint64(d);
    return true;
}

// ---------------------------------------------------------------------------------------------
// Fixture reading: every problem names the file and the field, "f.json: menu[3].price: ...".

class FixtureReader
{
public:
    explicit FixtureReader(QString file) : file(std::move(file)) {}

    bool read(const QByteArray& text, Fixture* out)
    {
        QJsonParseError parseError;
        const QJsonDocument doc = QJsonDocument::fromJson(text, &parseError);
        if (parseError.error != QJsonParseError::NoError)
            return fail(QStringLiteral("%1: %2").arg(position(text, parseError.offset),
                                                     parseError.errorString()));
        if (!doc.isObject())
            return fail(QStringLiteral("expected a JSON object"));
        const QJsonObject root = doc.object();
        return readMerchant(root, out) && readStaff(root, out) && readMenu(root, out) &&
               readTables(root, out) && readOrders(root, out) && readLastUpdate(root, out);
    }

    QString error;

private:
    QString file;

    bool fail(const QString& problem)
    {
        error = QStringLiteral("%1: %2").arg(file, problem);
        return false;
    }
    bool fail(const QString& field, const QString& problem)
    {
        return fail(QStringLiteral("%1: %2").arg(field, problem));
    }

    static QString position(const QByteArray& text, int offset)
    {
        const QByteArray before = text.left(offset);
        const int line = before.count('\n') + 1;
        const int column = offset - (before.lastIndexOf('\n') + 1) + 1;
        return QStringLiteral("line %1, column %2").arg(line).arg(column);
    }

    bool text(const QJsonObject& o, const QString& at, const char* key, QString* out)
    {
        const QJsonValue v = o.value(QLatin1String(key));
        if (!v.isString() || v.toString().isEmpty())
            return fail(at + '.' + key, QStringLiteral("expected a non-empty text"));
        *out = v.toString();
        return true;
    }
    template <typename Int>
    bool integer(const QJsonObject& o, const QString& at, const char* key, Int* out)
    {
        qint64 v = 0;
        if (!wholeNumber(o.value(QLatin1String(key)), &v) || v < std::numeric_limits<Int>::min() ||
            v > std::numeric_limits<Int>::max())
            return fail(at + '.' + key, QStringLiteral("expected an integer"));
        *out = Int(v);
        return true;
    }
    bool nonNegative(const QJsonObject& o, const QString& at, const char* key, qint64* out)
    {
        if (!integer(o, at, key, out))
            return false;
        return *out >= 0 || fail(at + '.' + key, QStringLiteral("expected a non-negative number"));
    }
    /// Calls @p readOne for each element of the array @p key, each checked to be an object.
    template <typename F>
    bool each(const QJsonObject& root, const char* key, bool required, F readOne)
    {
        const QJsonValue v = root.value(QLatin1String(key));
        if (v.isUndefined() && !required)
            return true;
        if (!v.isArray())
            return fail(QLatin1String(key), QStringLiteral("expected an array"));
        const QJsonArray array = v.toArray();
        for (int i = 0; i < array.size(); ++i) {
            const QString at = QStringLiteral("%1[%2]").arg(QLatin1String(key)).arg(i);
            if (!array.at(i).isObject())
                return fail(at, QStringLiteral("expected an object"));
            if (!readOne(array.at(i).toObject(), at))
                return false;
        }
        return true;
    }

    bool readMerchant(const QJsonObject& root, Fixture* out)
    {
        if (!root.value("merchant").isObject())
            return fail(QStringLiteral("merchant"), QStringLiteral("expected an object"));
        const QJsonObject merchant = root.value("merchant").toObject();
        const QString at = QStringLiteral("merchant");
        return text(merchant, at, "code", &out->merchantCode) &&
               text(merchant, at, "name", &out->merchantName);
    }

    bool readStaff(const QJsonObject& root, Fixture* out)
    {
        static const QStringList roles{"client", "waiter", "cashier"};
        return each(root, "staff", true, [&](const QJsonObject& o, const QString& at) {
            StaffMember s;
            if (!integer(o, at, "id", &s.id) || !text(o, at, "name", &s.name) ||
                !text(o, at, "user", &s.user))
                return false;
            if (!o.value("password").isString())
                return fail(at + ".password", QStringLiteral("expected a text"));
            s.password = o.value("password").toString();
            if (!roles.contains(o.value("role").toString()))
                return fail(at + ".role",
                            QStringLiteral("expected one of client, waiter, cashier"));
            s.role = o.value("role").toString();
            for (const StaffMember& other : qAsConst(out->staff)) {
                if (other.id == s.id)
                    return fail(at + ".id", QStringLiteral("duplicate id %1").arg(s.id));
                if (other.user == s.user)
                    return fail(at + ".user", QStringLiteral("duplicate user \"%1\"").arg(s.user));
            }
            out->staff.append(s);
            return true;
        });
    }

    bool readMenu(const QJsonObject& root, Fixture* out)
    {
        return each(root, "menu", true, [&](const QJsonObject& o, const QString& at) {
            Dish dish;
            if (!integer(o, at, "item_id", &dish.id) || !text(o, at, "item_name", &dish.name) ||
                !nonNegative(o, at, "price", &dish.price) ||
                !text(o, at, "img_path", &dish.imgPath) || !text(o, at, "img_crc", &dish.imgCrc))
                return false;
            if (!dish.imgPath.startsWith('/'))
                return fail(at + ".img_path", QStringLiteral("expected a path starting with /"));
            const bool digits = std::all_of(dish.imgCrc.cbegin(), dish.imgCrc.cend(),
                                            [](QChar ch) { return ch >= '0' && ch <= '9'; });
            if (!digits || dish.imgCrc.size() > 18)
                return fail(
                    at + ".img_crc",
                    QStringLiteral("expected milliseconds since the epoch as decimal text"));
            for (const Dish& other : qAsConst(out->menu)) {
                if (other.id == dish.id)
                    return fail(at + ".item_id", QStringLiteral("duplicate id %1").arg(dish.id));
                if (other.imgPath == dish.imgPath)
                    return fail(at + ".img_path",
                                QStringLiteral("duplicate path %1").arg(dish.imgPath));
            }
            out->menu.append(dish);
            return true;
        });
    }

    bool readTables(const QJsonObject& root, Fixture* out)
    {
        return each(root, "tables", true, [&](const QJsonObject& o, const QString& at) {
            Table table;
            if (!integer(o, at, "id", &table.id) || !text(o, at, "name", &table.name))
                return false;
            for (const Table& other : qAsConst(out->tables))
                if (other.id == table.id)
                    return fail(at + ".id", QStringLiteral("duplicate id %1").arg(table.id));
            out->tables.append(table);
            return true;
        });
    }

    bool readOrders(const QJsonObject& root, Fixture* out)
    {
        return each(root, "orders", false, [&](const QJsonObject& o, const QString& at) {
            int tableId = 0;
            Order order;
            if (!integer(o, at, "table_id", &tableId) ||
                !integer(o, at, "staff_id", &order.staffId) ||
                !nonNegative(o, at, "amount", &order.amount))
                return false;
            if (std::none_of(out->tables.cbegin(), out->tables.cend(),
                             [&](const Table& t) { return t.id == tableId; }))
                return fail(at + ".table_id", QStringLiteral("no table with id %1").arg(tableId));
            if (std::none_of(out->staff.cbegin(), out->staff.cend(),
                             [&](const StaffMember& s) { return s.id == order.staffId; }))
                return fail(at + ".staff_id",
                            QStringLiteral("no staff with id %1").arg(order.staffId));
            if (!o.value("items").isArray())
                return fail(at + ".items", QStringLiteral("expected an array"));
            order.items = o.value("items").toArray();
            out->orders.append({tableId, order});
            return true;
        });
    }

    // "last_update" is optional: by default the newest picture stamp of the menu.
    bool readLastUpdate(const QJsonObject& root, Fixture* out)
    {
        out->lastUpdate = 0;
        if (root.contains("last_update")) {
            if (!wholeNumber(root.value("last_update"), &out->lastUpdate) || out->lastUpdate < 0)
                return fail(QStringLiteral("last_update"),
                            QStringLiteral("expected milliseconds since the epoch"));
            return true;
        }
        for (const Dish& dish : qAsConst(out->menu))
            out->lastUpdate = qMax(out->lastUpdate, dish.imgCrc.toLongLong());
        return true;
    }
};

struct Invoice
{
    enum Status
    {
        Open,
        Paid,
        Cancelled
    };
    QString code; ///< "INV#000001"
    QString devid;
    qint64 amount = 0;
    QString description;
    QString transToken;
    Status status = Open;
};

/// Everything the merchant has and everything that happened since the fixture was loaded.
struct Books
{
    Fixture fixture;
    QMap<int, QList<Order>> orders; ///< by table id; a table without orders is free
    QList<Invoice> invoices;
    QList<QPair<QString, QString>> invoiceSessions; ///< devid, session
    QList<QPair<QString, QString>> wsSessions;      ///< session, devid
    QHash<QByteArray, QByteArray> pictures;         ///< path -> PNG, made on first request
    int nextOrderId = 1;
    int nextInvoice = 1;
    int nextPayment = 1;

    void reset(const Fixture& f)
    {
        fixture = f;
        orders.clear();
        invoices.clear();
        pictures.clear();
        nextOrderId = nextInvoice = nextPayment = 1;
        for (const auto& placed : f.orders) {
            Order order = placed.second;
            order.id = nextOrderId++;
            orders[placed.first].append(order);
        }
    }

    const Table* table(int id) const
    {
        for (const Table& t : fixture.tables)
            if (t.id == id)
                return &t;
        return nullptr;
    }
    const StaffMember* staff(int id) const
    {
        for (const StaffMember& s : fixture.staff)
            if (s.id == id)
                return &s;
        return nullptr;
    }
    qint64 tableTotal(int id) const
    {
        qint64 total = 0;
        for (const Order& order : orders.value(id))
            total += order.amount;
        return total;
    }
    /// The invoice whose code, "#" removed, equals @p code with "#" removed.
    Invoice* invoice(QString code)
    {
        code.remove('#');
        for (Invoice& inv : invoices)
            if (QString(inv.code).remove('#') == code)
                return &inv;
        return nullptr;
    }
};

} // namespace detail

namespace {

using namespace detail;

// Old sessions are forgotten beyond this many (a terminal fetches one per (re)connect).
constexpr int kMaxSessions = 512;
// The e-wallet application id the cloud reports with every invoice.
constexpr int kWalletAppId = 1;

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

QString hmac(const QByteArray& data, const QByteArray& key)
{
    return QString::fromLatin1(
        QMessageAuthenticationCode::hash(data, key, QCryptographicHash::Sha256).toHex());
}

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

// ---------------------------------------------------------------------------------------------
// Pictures: a plate with a dish-coloured pattern, made from a digest of the dish, so the same
// fixture always serves the same bytes and a new "img_crc" gives a new picture.

QByteArray renderPicture(const Dish& dish)
{
    const QByteArray seed = QCryptographicHash::hash(
        QStringLiteral("%1|%2|%3").arg(dish.id).arg(dish.name, dish.imgCrc).toUtf8(),
        QCryptographicHash::Sha256);
    const auto byte = [&](int i) { return int(quint8(seed.at(i))); };
    const int hue = byte(0) * 360 / 256;
    const QColor background = QColor::fromHsv(hue, 60 + byte(1) % 60, 230);
    const QColor food = QColor::fromHsv((hue + 150 + byte(2) % 60) % 360, 150 + byte(3) % 90, 200);
    const QColor garnish = QColor::fromHsv((hue + 90) % 360, 200, 150 + byte(4) % 80);
    const int pattern = byte(5) % 3;
    const int period = 6 + byte(6) % 10;

    constexpr int size = 120;
    QImage image(size, size, QImage::Format_RGB32);
    quint32 noise = quint32(byte(7)) << 8 | quint32(byte(8));
    for (int y = 0; y < size; ++y) {
        auto* line = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < size; ++x) {
            const double dx = x - size / 2.0, dy = y - size / 2.0;
            const double r = std::sqrt(dx * dx + dy * dy);
            QColor colour = ((x / period + y / period) % 2) ? background : background.darker(108);
            if (r < 52)
                colour = r > 48 ? QColor(210, 210, 215) : QColor(245, 245, 240); // plate and rim
            if (r < 38) {
                const bool dot = pattern == 0   ? ((x / 5 + y / 7) % 3 == 0)
                                 : pattern == 1 ? (int(r) % period < 2)
                                                : (((x + y) / 4) % 4 == 0);
                colour = dot ? garnish : food.darker(100 + int(r));
                noise = noise * 1103515245u + 12345u; // a little texture on the food
                colour = colour.lighter(96 + int(noise >> 28));
            }
            line[x] = colour.rgb();
        }
    }
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return png;
}

QByteArray readBuiltInFixture()
{
    initFixtureResource();
    QFile file(QStringLiteral(":/kelocloud/restaurant.json"));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

CloudState::CloudState() : key(developmentKey()), books(new detail::Books)
{
    Fixture fixture;
    FixtureReader reader(QStringLiteral(":/kelocloud/restaurant.json"));
    if (!reader.read(readBuiltInFixture(), &fixture))
        qWarning("kelocloud: %s", qPrintable(reader.error));
    books->reset(fixture);
}

CloudState::~CloudState() = default;

bool CloudState::loadFixture(const QString& path, QString* error)
{
    QFile file(path);
    Fixture fixture;
    FixtureReader reader(path);
    if (!file.open(QIODevice::ReadOnly))
        reader.error = QStringLiteral("%1: cannot read: %2").arg(path, file.errorString());
    else if (reader.read(file.readAll(), &fixture)) {
        QMutexLocker lock(&mutex);
        books->reset(fixture);
        return true;
    }
    if (error)
        *error = reader.error;
    return false;
}

bool CloudState::setSecretKey(const QByteArray& newKey)
{
    if (!keyProblem(newKey).isEmpty())
        return false;
    QMutexLocker lock(&mutex);
    key = newKey;
    return true;
}

QByteArray CloudState::developmentKey()
{
    return QByteArrayLiteral(KELO_CLOUD_DEVELOPMENT_KEY);
}

QString CloudState::keyProblem(const QByteArray& key)
{
    const QString rule = QStringLiteral("the signing key must be 32 ASCII letters or digits");
    if (key.size() != 32)
        return rule + QStringLiteral(" (got %1 characters)").arg(key.size());
    for (int i = 0; i < key.size(); ++i) {
        const char c = key.at(i);
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')))
            return rule + QStringLiteral(" (character %1 is neither)").arg(i + 1);
    }
    return {};
}

QByteArray CloudState::secretKey() const
{
    QMutexLocker lock(&mutex);
    return key;
}

QString CloudState::merchantCode() const
{
    QMutexLocker lock(&mutex);
    return books->fixture.merchantCode;
}

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

QByteArray CloudState::picture(const QByteArray& path) const
{
    QMutexLocker lock(&mutex);
    const auto cached = books->pictures.constFind(path);
    if (cached != books->pictures.cend())
        return *cached;
    for (const Dish& dish : qAsConst(books->fixture.menu)) {
        if (dish.imgPath.toUtf8() == path)
            return books->pictures[path] = renderPicture(dish);
    }
    return {};
}

bool CloudState::admitWebSocket(const QString& appuser, const QString& devid,
                                const QString& wsSession, const QString& tk)
{
    QMutexLocker lock(&mutex);
    if (appuser != books->fixture.merchantCode)
        return false;
    const bool issued = books->wsSessions.contains({wsSession, devid});
    return issued && hmac((appuser + devid + wsSession).toUtf8(), key) == tk;
}

bool CloudState::markInvoicePaid(const QString& invoiceCode, Notice* notice)
{
    QMutexLocker lock(&mutex);
    detail::Invoice* invoice = books->invoice(invoiceCode);
    if (!invoice || invoice->status != detail::Invoice::Open)
        return false;
    invoice->status = detail::Invoice::Paid;
    if (notice) {
        const QJsonObject dt{
            {"invoice_code", invoice->code},       {"amount", invoice->amount},
            {"description", invoice->description}, {"merchant_code", books->fixture.merchantCode},
            {"tptranstoken", invoice->transToken}, {"appid", kWalletAppId}};
        const QJsonObject text{{"dt", dt}, {"err", 0}, {"msg", "payment_success"}, {"type", 1}};
        notice->devid = invoice->devid;
        notice->text = QJsonDocument(text).toJson(QJsonDocument::Compact);
    }
    return true;
}

QString CloudState::sign(const QByteArray& data) const
{
    return hmac(data, secretKey());
}

} // namespace kelocloud
