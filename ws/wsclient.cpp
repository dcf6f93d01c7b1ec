#include "wsclient.h"

// Placeholder bodies: the notification channel work replaces them.
WSClient::WSClient(const QUrl& wsUrl, const QUrl& httpUrl, QString merchantCode, QString devid,
                   bool debug, QObject* parent)
    : QThread(parent), webSocket(QString(), QWebSocketProtocol::VersionLatest, nullptr),
      wsUrl(wsUrl), httpUrl(httpUrl), merchantCode(merchantCode), devid(devid), debug(debug)
{
}
WSClient::~WSClient() = default;
void WSClient::start() {}
void WSClient::stop() {}
void WSClient::sendTextMessage(QString) {}
void WSClient::getSession() {}
void WSClient::openConnection(const QString&) {}
void WSClient::onPong(quint64, const QByteArray&) {}
void WSClient::onConnected() {}
void WSClient::onTextMessageReceived(QString) {}
void WSClient::onClosed() {}
void WSClient::onReConnect() {}
void WSClient::onSessionDone(QVariant) {}
void WSClient::onSessionError(int, QString) {}
void WSClient::onError(QAbstractSocket::SocketError) {}
void WSClient::run() {}
void WSClient::timerEvent(QTimerEvent*) {}
