#pragma once

/// @file
/// HttpParams: the ordered parameter list of a request.

#include "kelo_export.h"

#include <QList>
#include <QObject>
#include <QPair>
#include <QString>
#include <QUrlQuery>
#include <QVariant>

/**
 * @brief Ordered list of request parameters, rendered as a URL query, a form body or a log text.
 *
 * Keeps (key, value) pairs in the order they were added; the same key may appear more than once.
 * Values are converted with QVariant::toString() when rendered. Used as a value: copies share
 * only Qt's implicitly shared list data.
 */
class KELO_EXPORT HttpParams : public QObject
{
    Q_OBJECT
public:
    /// An empty list.
    HttpParams();
    /// A list holding the single pair (@p key, @p value).
    HttpParams(const QString& key, const QString& value);
    /// A copy of @p other's list, as a new object without parent.
    HttpParams(const HttpParams& other);
    /// Replaces the list with @p other's; returns a copy of this object (by value, on purpose).
    HttpParams operator=(const HttpParams& other);

    /// Appends (@p key, @p value); empties the list first when @p clear is true.
    void add(const QString& key, const QVariant& value, bool clear);
    /// Empties the list.
    void clear();
    /// Stable sort by key (ordinal, case-sensitive: "Zone" sorts before "amount").
    void sort();
    /// The pairs as a QUrlQuery, in list order, encoded by QUrlQuery's own rules.
    QUrlQuery get() const;
    /// The form body: get().query(QUrl::PrettyDecoded) as UTF-8.
    QByteArray post();
    /// "k=v&k2=v2" for log lines only; nothing is escaped.
    QString toString() const;

private:
    QList<QPair<QString, QVariant>> items;
};
