#pragma once

// Private to the library: every difference between Qt 5.15 and Qt 6 that the library meets, bridged
// once. The same sources build against both majors, with the same behaviour, the same requests on
// the wire and the same log texts.

#include <QNetworkAccessManager>
#include <QNetworkRequest>
#include <QStandardPaths>
#include <QString>
#include <QStringList>
#include <QtGlobal>

namespace kelo_compat {

/// The application's own data folder. Qt 6 dropped DataLocation; AppLocalDataLocation has always
/// been the same folder (~/.local/share/<org>/<app> on Linux), so both majors share one cache.
constexpr QStandardPaths::StandardLocation AppDataLocation = QStandardPaths::AppLocalDataLocation;

/// @p text split at every one of @p separators, empty parts kept: what
/// split(QRegExp("(\\;|\\,)"), Qt::KeepEmptyParts) gave in Qt 5, whose QRegExp is gone from Qt 6
/// Core. Written without a regular expression, so that it cannot differ between the majors
/// (QRegularExpression would not even match in a text with a lone surrogate).
inline QStringList splitAtAnyOf(const QString& text, const QString& separators)
{
    QStringList parts;
    qsizetype start = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (separators.contains(text.at(i))) {
            parts.append(text.mid(start, i - start));
            start = i + 1;
        }
    }
    parts.append(text.mid(start));
    return parts;
}

/// Qt 5 lets a manager follow no redirect unless asked; Qt 6 follows them by default. Requests
/// refuse a 3xx and the picture manager follows each hop itself, so every manager is manual in
/// both builds (in Qt 5 this is the default already).
inline void manualRedirects(QNetworkAccessManager& manager)
{
    manager.setRedirectPolicy(QNetworkRequest::ManualRedirectPolicy);
}

/// Qt 6 offers HTTP/2 to an https server by default, Qt 5 does not: the requests stay HTTP/1.1,
/// as the server and every proxy on the way have always seen them.
inline void http1Only(QNetworkRequest& request)
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    request.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
#else
    Q_UNUSED(request)
#endif
}

} // namespace kelo_compat

/// QWebSocket's error signal for string-based connections: renamed errorOccurred in Qt 6.5 (the
/// old name is deprecated there and gone once deprecated APIs are disabled).
#if QT_VERSION >= QT_VERSION_CHECK(6, 5, 0)
#define KELO_WEBSOCKET_ERROR_SIGNAL SIGNAL(errorOccurred(QAbstractSocket::SocketError))
#else
#define KELO_WEBSOCKET_ERROR_SIGNAL SIGNAL(error(QAbstractSocket::SocketError))
#endif
