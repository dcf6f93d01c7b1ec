#pragma once

#include "kelo_export.h"

#include <QAbstractSocket>
#include <QObject>
#include <QString>
#include <QThread>
#include <QUrl>
#include <QVariant>
#include <QWebSocket>

#include <atomic>

class HttpBase;
class QTimerEvent;

/**
 * @brief Self-healing notification WebSocket.
 *
 * Before each connection it fetches a session ("get_ws_session"), then opens the socket on a
 * signed URL. It pings every 3000 ms and closes the connection after three unanswered pings;
 * while down, closed() is emitted on every tick. The thread's run() is only a watchdog that emits
 * reconnect() every 3 s while the socket is not valid; the socket, timer and requests all live on
 * the creating thread. Text frames are forwarded unchanged through textMessageReceived().
 */
class KELO_EXPORT WSClient : public QThread
{
    Q_OBJECT
public:
    /// @p wsUrl: the notification endpoint; @p httpUrl: the common API endpoint for sessions.
    WSClient(const QUrl& wsUrl, const QUrl& httpUrl, QString merchantCode, QString devid,
             bool debug, QObject* parent);
    ~WSClient() override;

    /// Starts the keep-alive timer, fetches a session at once and starts the watchdog thread.
    void start();
    /// Ends the watchdog (QThread::terminate); the timer and socket are left as they are.
    void stop();
    /// Sends a text frame (nothing in the SDK uses it).
    void sendTextMessage(QString message);
    /// Fetches a session unless a fetch is already in flight.
    void getSession();
    /// Opens the socket on the signed connect URL for @p sessionId.
    void openConnection(const QString& sessionId);
    /// A pong arrived: the missed-pong count returns to 0.
    void onPong(quint64 elapsedTime, const QByteArray& payload);

Q_SIGNALS:
    void connected();
    void textMessageReceived(QString message);
    void closed();
    void reconnect();

public Q_SLOTS:
    void onConnected();
    void onTextMessageReceived(QString message);
    void onClosed();
    void onReConnect();
    void onSessionDone(QVariant data);
    void onSessionError(int errorCode, QString errorMessage);
    void onError(QAbstractSocket::SocketError error);

protected:
    void run() override;
    void timerEvent(QTimerEvent* event) override;

private:
    QWebSocket webSocket;
    QUrl wsUrl;
    QUrl httpUrl;
    QString merchantCode;
    QString devid;
    bool debug;
    // Read by the watchdog thread while the creating thread writes them: atomics make those
    // reads well defined without changing when anything happens.
    std::atomic<bool> running{false};
    std::atomic<bool> sessionBusy{false};
    int timerId = 0;
    int missedPongs = 0;
    HttpBase* sessionRequest = nullptr;
};
