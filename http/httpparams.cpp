#include "httpparams.h"

#include <algorithm>

HttpParams::HttpParams() = default;

HttpParams::HttpParams(const QString& key, const QString& value)
{
    items.append({key, value});
}

HttpParams::HttpParams(const HttpParams& other) : QObject(), items(other.items) {}

// Returns a copy rather than a reference: published that way, and callers may rely on it.
// Assigning a list that already shares our data leaves it untouched (QList does nothing then).
HttpParams HttpParams::operator=(const HttpParams& other)
{
    items = other.items;
    return *this;
}

void HttpParams::add(const QString& key, const QVariant& value, bool clear)
{
    if (clear)
        items.clear();
    items.append({key, value});
}

void HttpParams::clear()
{
    items.clear();
}

// Pairs with equal keys keep the order in which they were added; QString's operator< compares
// UTF-16 code units, so "Zone" sorts before "amount".
void HttpParams::sort()
{
    std::stable_sort(items.begin(), items.end(),
                     [](const QPair<QString, QVariant>& a, const QPair<QString, QVariant>& b) {
                         return a.first < b.first;
                     });
}

// QUrlQuery applies its own encoding; nothing is escaped here beforehand.
QUrlQuery HttpParams::get() const
{
    QUrlQuery query;
    for (const auto& item : items)
        query.addQueryItem(item.first, item.second.toString());
    return query;
}

QByteArray HttpParams::post()
{
    return get().query(QUrl::PrettyDecoded).toUtf8();
}

// For log lines only: keys and values are written raw, so the text is not always a valid query.
QString HttpParams::toString() const
{
    QString text;
    for (const auto& item : items) {
        if (!text.isEmpty())
            text += QLatin1Char('&');
        text += item.first + QLatin1Char('=') + item.second.toString();
    }
    return text;
}
