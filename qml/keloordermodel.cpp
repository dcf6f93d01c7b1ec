#include "keloordermodel.h"

QVariantList KeloOrderModel::foods() const
{
    return table.value(QLatin1String("items")).toArray().toVariantList();
}

void KeloOrderModel::setTable(const QJsonObject& dt)
{
    table = dt;
    setItems(dt.value(QLatin1String("orders")).toArray());
    emit tableChanged();
}

QHash<int, QByteArray> KeloOrderModel::ownRoles() const
{
    return {{OrderIdRole, "orderId"},
            {StaffIdRole, "staffId"},
            {AmountRole, "amount"},
            {ItemsRole, "items"}};
}

QVariant KeloOrderModel::roleValue(const QJsonObject& item, int role) const
{
    switch (role) {
    case OrderIdRole:
        return item.value(QLatin1String("order_id")).toInt(-1);
    case StaffIdRole:
        return item.value(QLatin1String("staff_id")).toInt(-1);
    case AmountRole:
        return item.value(QLatin1String("amount")).toDouble();
    case ItemsRole:
        return item.value(QLatin1String("items")).toArray().toVariantList();
    default:
        return {};
    }
}
