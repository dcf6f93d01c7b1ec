#include "kelotablemodel.h"

QHash<int, QByteArray> KeloTableModel::ownRoles() const
{
    return {{TableIdRole, "tableId"},
            {NameRole, "name"},
            {StatusRole, "status"},
            {OrderCountRole, "orderCount"},
            {AmountRole, "amount"}};
}

QVariant KeloTableModel::roleValue(const QJsonObject& item, int role) const
{
    switch (role) {
    case TableIdRole:
        return item.value(QLatin1String("table_id")).toInt(-1);
    case NameRole:
        return item.value(QLatin1String("table_name")).toString();
    case StatusRole:
        return item.value(QLatin1String("status")).toString();
    case OrderCountRole:
        return item.value(QLatin1String("order_count")).toInt();
    case AmountRole:
        return item.value(QLatin1String("amount")).toDouble();
    default:
        return {};
    }
}
