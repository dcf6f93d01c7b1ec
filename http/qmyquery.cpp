#include "qmyquery.h"

QMyQuery::QMyQuery() = default;

QMyQuery::QMyQuery(const QMyQuery& other) : QObject(), items(other.items) {}

void QMyQuery::addQueryItem(const QString& key, const QString& value)
{
    items.append({key, value});
}

QList<QPair<QString, QString>> QMyQuery::get()
{
    return items;
}
