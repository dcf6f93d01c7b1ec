// The simulator's fixture reading: the merchant from a JSON fixture.
#include "cloudstate_p.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>
#include <limits>

// The resource lives in a static library: nothing would pull its object file in by itself.
static void initFixtureResource()
{
    Q_INIT_RESOURCE(fixtures);
}

namespace kelocloud {

namespace detail {

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

bool readFixture(const QString& file, const QByteArray& text, Fixture* out, QString* error)
{
    FixtureReader reader(file);
    if (reader.read(text, out))
        return true;
    *error = reader.error;
    return false;
}

QByteArray readBuiltInFixture()
{
    initFixtureResource();
    QFile file(QStringLiteral(":/kelocloud/restaurant.json"));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace detail

} // namespace kelocloud
