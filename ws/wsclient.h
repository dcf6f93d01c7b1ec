#pragma once

/// @file
/// WSClient: the notification WebSocket and its watchdog thread.

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
 * reconnect() every second while the socket is neither valid nor opening; the socket, timer and
 * requests all live on the creating thread. Text frames are forwarded unchanged through
 * textMessageReceived().
 *
 * A session fetch without an answer is given up after 4 s, and an opening handshake that has not
 * completed after 5 s; the watchdog then tries again. A notice longer than the cap (see
 * setMaxMessageSize()) is never forwarded: the socket closes and the channel is opened again at
 * once, on a fresh session.
 */
class KELO_EXPORT WSClient : public QThread
{
    Q_OBJECT
public:
    /// @p wsUrl: the notification endpoint; @p httpUrl: the common API endpoint for sessions.
    WSClient(const QUrl& wsUrl, const QUrl& httpUrl, QString merchantCode, QString devid,
             bool debug, QObject* parent);
    /// Ends a watchdog that is still running (a running QThread must not be destroyed) and
    /// aborts the socket.
    ~WSClient() override;

    /// Starts the keep-alive timer, fetches a session at once and starts the watchdog thread.
    void start();
    /// Ends the watchdog: it wakes from its sleep and returns (join it with wait()); the timer
    /// and socket are left as they are.
    void stop();
    /// Sends a text frame (nothing in the SDK uses it).
    void sendTextMessage(QString message);
    /// Fetches a session unless a fetch is already in flight.
    void getSession();
    /// Opens the socket on the signed connect URL for @p sessionId.
    void openConnection(const QString& sessionId);
    /// A pong arrived: the missed-pong count returns to 0.
    void onPong(quint64 elapsedTime, const QByteArray& payload);
    /// Caps an incoming message (in UTF-8 bytes) and each of its frames: a longer one closes the
    /// socket (code 1009) and is never forwarded; the client then reconnects at once. 0 or less
    /// removes the cap (Qt's own maximum applies); the default is 1 MiB.
    void setMaxMessageSize(qint64 bytes);
    /// The cap on an incoming message; 0 means none.
    qint64 maxMessageSize() const;

Q_SIGNALS:
    /// The socket is open: the opening handshake on a fresh session completed.
    void connected();
    /// A text notice, as the server sent it (never one longer than maxMessageSize()).
    void textMessageReceived(QString message);
    /// The socket closed, its handshake was given up, or three pings went unanswered; while the
    /// channel stays down it is emitted again on every keep-alive tick (3 s).
    void closed();
    /// Emitted by the watchdog thread while the socket is neither valid nor opening; it reaches
    /// getSession() as a queued call on the creating thread.
    void reconnect();

public Q_SLOTS:
    /// The socket connected: emits connected() and counts missed pongs from 0 again.
    void onConnected();
    /// Emits textMessageReceived() with @p message (the socket's notices take a path of their
    /// own that checks their size first; this slot is for a caller that hands one in itself).
    void onTextMessageReceived(QString message);
    /// The socket disconnected, or pongs went missing: closes the socket and emits closed().
    void onClosed();
    /// Opens the socket on the notification URL as it stands, without fetching a session (the
    /// watchdog goes through getSession() instead).
    void onReConnect();
    /// The session fetch answered: opens the socket with the session @p data carries; an answer
    /// without one opens nothing, and the watchdog fetches again.
    void onSessionDone(QVariant data);
    /// The session fetch failed (@p errorCode, @p errorMessage as the request gave them): the
    /// watchdog fetches again on its next round.
    void onSessionError(int errorCode, QString errorMessage);
    /// A socket error: logged when the debug flag is set; the close that follows (or the
    /// watchdog) opens the channel again.
    void onError(QAbstractSocket::SocketError error);

protected:
    /// The watchdog thread: sleeps a second at a time (longer while a session fetch is busy)
    /// until stop() wakes it, and emits reconnect() whenever the socket is neither valid nor
    /// opening. It reads only atomics and never touches the socket, timer or requests.
    void run() override;
    /// The keep-alive tick (every 3 s, on the creating thread): pings an open socket; after three
    /// unanswered pings in a row it drops the pool's kept-alive connections and calls onClosed().
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
    // Only onPong() and onConnected() reset the count, but the keep-alive tick reads it from the
    // first tick on: starting at 0 means no forced close before the first connection.
    int missedPongs = 0;
    HttpBase* sessionRequest = nullptr;

    // The watchdog must not call webSocket.isValid() itself: the socket belongs to the creating
    // thread, and reading its state from another thread is a data race. The creating thread
    // mirrors the validity here on every state change of the socket; the watchdog reads this.
    std::atomic<bool> socketValid{false};
    void refreshSocketValidity();
    /// Hands the finished session request to deleteLater().
    void releaseSessionRequest();
    /// A terminable sleep of the watchdog's first versions (in ms); the watchdog now sleeps on a
    /// wait condition that stop() wakes.
    static void sleepTerminable(unsigned long ms);
    /// At process exit: ends the timer, the session fetch and the socket (see the registry).
    void releaseNetworkAtExit();
    friend class WatchdogRegistry;
};
