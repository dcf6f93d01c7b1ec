#pragma once

#include <QAbstractListModel>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QVariantMap>

/**
 * A list model over the objects of one JSON array of a server answer. Every model of the module
 * has the role "item" (the row's whole object, with whatever keys the server sends) and a count.
 */
class KeloListModel : public QAbstractListModel
{
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)
public:
    explicit KeloListModel(QObject* parent = nullptr);

    int count() const { return rows.size(); }
    /// The whole object of row @p row (empty for a row that does not exist).
    Q_INVOKABLE QVariantMap get(int row) const;

    /// Replaces every row; elements of @p items that are not objects are skipped.
    void setItems(const QJsonArray& items);
    void clear();

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

Q_SIGNALS:
    void countChanged();

protected:
    enum
    {
        ItemRole = Qt::UserRole + 1,
        FirstOwnRole ///< the first role a subclass may use
    };
    /// A subclass's roles, from FirstOwnRole on.
    virtual QHash<int, QByteArray> ownRoles() const = 0;
    /// The value of one of ownRoles() for @p item.
    virtual QVariant roleValue(const QJsonObject& item, int role) const = 0;

private:
    QList<QJsonObject> rows;
};
