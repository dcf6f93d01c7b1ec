#include "kelolistmodel.h"

KeloListModel::KeloListModel(QObject* parent) : QAbstractListModel(parent) {}

QVariantMap KeloListModel::get(int row) const
{
    return row >= 0 && row < rows.size() ? rows.at(row).toVariantMap() : QVariantMap();
}

void KeloListModel::setItems(const QJsonArray& items)
{
    const int before = rows.size();
    beginResetModel();
    rows.clear();
    for (const QJsonValue& value : items) {
        if (value.isObject())
            rows.append(value.toObject());
    }
    endResetModel();
    if (rows.size() != before)
        emit countChanged();
}

void KeloListModel::clear()
{
    setItems(QJsonArray());
}

int KeloListModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : rows.size();
}

QVariant KeloListModel::data(const QModelIndex& index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const QJsonObject& item = rows.at(index.row());
    return role == ItemRole ? QVariant(item.toVariantMap()) : roleValue(item, role);
}

QHash<int, QByteArray> KeloListModel::roleNames() const
{
    QHash<int, QByteArray> names = ownRoles();
    names.insert(ItemRole, "item");
    return names;
}
