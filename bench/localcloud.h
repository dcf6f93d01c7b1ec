// The bench's side of the in-process local cloud: trusting its CA, the pictures and the menu it
// serves, and the integrator's bare GET.
#pragma once

#include "benchsupport.h"

#include <QByteArray>
#include <QString>

#include <memory>

class QNetworkAccessManager;
class QUrl;

namespace kelocloud {
class CloudServer;
}

namespace kelobench {

/// The in-process local cloud, started on loopback, its CA trusted and the SDK pointed at it
/// (KELO_SERVER_HOST); null, said on stderr, if it did not start.
std::unique_ptr<kelocloud::CloudServer> startLocalCloud();

QByteArray picture(int id, int size = PictureBytes);
QByteArray menuReply(const QString& host, int dishes = Dishes);

/// A bare GET; @p onBody receives the body (empty on error).
double bareGet(QNetworkAccessManager& nam, const QUrl& url, QByteArray* body = nullptr);

} // namespace kelobench
