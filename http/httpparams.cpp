#include "httpparams.h"

// Placeholder bodies: the transport work replaces them.
HttpParams::HttpParams() = default;
HttpParams::HttpParams(const QString& key, const QString& value) { items.append({key, value}); }
HttpParams::HttpParams(const HttpParams& other) : QObject(), items(other.items) {}
HttpParams HttpParams::operator=(const HttpParams& other) { items = other.items; return *this; }
void HttpParams::add(const QString& key, const QVariant& value, bool clear)
{
    if (clear)
        items.clear();
    items.append({key, value});
}
void HttpParams::clear() { items.clear(); }
void HttpParams::sort() {}
QUrlQuery HttpParams::get() const { return {}; }
QByteArray HttpParams::post() { return {}; }
QString HttpParams::toString() const { return {}; }
