#pragma once

// Private to the simulator's state (CloudState): the merchant as its fixture describes it, and the
// books kept since the fixture was loaded (orders, payments, invoices, sessions, pictures).

#include <QByteArray>
#include <QHash>
#include <QJsonArray>
#include <QList>
#include <QMap>
#include <QPair>
#include <QString>

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
    int pictureBytes = 0; ///< every picture padded to this size; 0: as the PNG comes out
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

} // namespace kelocloud
