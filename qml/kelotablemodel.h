#pragma once

#include "kelolistmodel.h"

/**
 * The table list. Roles: tableId, name, status ("free" or "occupied"), orderCount, amount (the
 * table's open total) and item (the table's whole object).
 */
class KeloTableModel : public KeloListModel
{
    Q_OBJECT
public:
    using KeloListModel::KeloListModel;

protected:
    enum
    {
        TableIdRole = FirstOwnRole,
        NameRole,
        StatusRole,
        OrderCountRole,
        AmountRole
    };
    QHash<int, QByteArray> ownRoles() const override;
    QVariant roleValue(const QJsonObject& item, int role) const override;
};
