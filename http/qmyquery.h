#pragma once

/// @file
/// QMyQuery: a published list of query items.

#include "kelo_export.h"

#include <QList>
#include <QObject>
#include <QPair>
#include <QString>

/**
 * @brief A plain ordered list of text query items (published helper; no request path uses it).
 */
class KELO_EXPORT QMyQuery : public QObject
{
    Q_OBJECT
public:
    /// An empty list.
    QMyQuery();
    /// A copy of @p other's list, as a new object without parent.
    QMyQuery(const QMyQuery& other);

    /// Appends (@p key, @p value); duplicates are kept.
    void addQueryItem(const QString& key, const QString& value);
    /// A copy of the items, in insertion order.
    QList<QPair<QString, QString>> get();

private:
    QList<QPair<QString, QString>> items;
};
