#pragma once

#include "kelolistmodel.h"

#include <QVariantList>

/**
 * The orders of one table (loadOrders()): one row per order, with the roles orderId, staffId,
 * amount, items (the order's dishes) and item (the order's whole object). The properties tell
 * which table it is, its total and every dish ordered at it (the bill's lines).
 */
class KeloOrderModel : public KeloListModel
{
    Q_OBJECT
    Q_PROPERTY(int tableId READ tableId NOTIFY tableChanged)
    Q_PROPERTY(QString tableName READ tableName NOTIFY tableChanged)
    Q_PROPERTY(double total READ total NOTIFY tableChanged)
    Q_PROPERTY(QVariantList foods READ foods NOTIFY tableChanged)
public:
    using KeloListModel::KeloListModel;

    int tableId() const { return table.value(QLatin1String("table_id")).toInt(-1); }
    QString tableName() const { return table.value(QLatin1String("table_name")).toString(); }
    double total() const { return table.value(QLatin1String("amount")).toDouble(); }
    QVariantList foods() const;

    /// Takes the "dt" object of the server's order list.
    void setTable(const QJsonObject& dt);

Q_SIGNALS:
    void tableChanged();

protected:
    enum
    {
        OrderIdRole = FirstOwnRole,
        StaffIdRole,
        AmountRole,
        ItemsRole
    };
    QHash<int, QByteArray> ownRoles() const override;
    QVariant roleValue(const QJsonObject& item, int role) const override;

private:
    QJsonObject table;
};
