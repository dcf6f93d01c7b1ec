#include "wsclient.h"

#include "httpbase.h"
#include "httppool_p.h"
#include "kelolimits_p.h"
#include "kelologging_p.h"
#include "keloqtcompat_p.h"
#include "libcmn.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDebug>
#include <QMutex>
#include <QMutexLocker>
#include <QPointer>
#include <QSet>
#include <QSignalBlocker>
#include <QTime>
#include <QTimer>
#include <QTimerEvent>
#include <QWaitCondition>

namespace {

QString now()
{
    return QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz"));
}

/// The length of @p text in UTF-8, counted without encoding it.
qint64 utf8Length(const QString& text)
{
    qint64 bytes = 0;
    for (const QChar c : text) {
        const ushort u = c.unicode();
        // A surrogate pair is 4 bytes: 2 for each half.
        bytes += u < 0x80 ? 1 : (u < 0x800 || QChar::isSurrogate(u)) ? 2 : 3;
    }
    return bytes;
}

} // namespace

/*
 * What a client keeps beyond the members of its public class, whose layout is fixed: the
 * deadlines of the session fetch and of the opening handshake, and whether the socket is closing
 * over a notice that was too large. A child of the client, so it lives on the creating thread;
 * the watchdog never touches it.
 */
class WSClientGuard : public QObject
{
    Q_OBJECT
public:
    explicit WSClientGuard(QObject* client) : QObject(client)
    {
        // Precise: a coarse timer may fire 5 % early.
        sessionDeadline.setTimerType(Qt::PreciseTimer);
        handshakeDeadline.setTimerType(Qt::PreciseTimer);
        sessionDeadline.setSingleShot(true);
        sessionDeadline.setInterval(kelo_limits::SessionFetchDeadlineMs);
        handshakeDeadline.setSingleShot(true);
        handshakeDeadline.setInterval(kelo_limits::HandshakeDeadlineMs);
    }

    static WSClientGuard* of(const QObject* client)
    {
        return client->findChild<WSClientGuard*>(QString(), Qt::FindDirectChildrenOnly);
    }

    QTimer sessionDeadline{this};
    QTimer handshakeDeadline{this};
    bool closingOverLargeNotice = false;
    /// The SDK object's connection pool, for the session fetch; once the SDK object (and with it
    /// the pool) is gone, each fetch goes through a manager of its own.
    QPointer<QNetworkAccessManager> pool;
    /// The cap on a session answer, for the fetches started afterwards (the SDK object's
    /// setMaxReplySize()); 0: no cap.
    qint64 maxSessionReplyBytes = kelo_limits::DefaultMaxReplyBytes;
};

/*
 * A client that its SDK object handed to deleteLater() (or one a host started itself and never
 * deleted) may still be alive when the host destroys its QCoreApplication and the process exits;
 * were its watchdog to wake up then, it would emit reconnect() into an event system that static
 * destruction is tearing down. Every started client is therefore listed here until it is
 * destroyed, and all live watchdogs are stopped (woken and joined) from a post routine, which the
 * QCoreApplication destructor runs while Qt is still whole. For a host that never destroys its
 * application object, a static guard does the same at static destruction, before the Qt globals
 * that were created earlier go away.
 *
 * The watchdogs sleep here too, on one wait condition: stop() wakes them all, and each one that
 * was not stopped goes back to sleep for the rest of its period.
 */
class WatchdogRegistry
{
public:
    // Never destroyed, so that a client deleted during static destruction still finds it.
    static WatchdogRegistry& instance()
    {
        static WatchdogRegistry* registry = new WatchdogRegistry;
        static StopAtStaticDestruction backstop{registry};
        return *registry;
    }

    void add(WSClient* client)
    {
        QMutexLocker lock(&mutex);
        clients.insert(client);
        // ~QCoreApplication empties the list of post routines after running it: arm it again
        // for the next application object.
        if (!postRoutineArmed) {
            postRoutineArmed = true;
            qAddPostRoutine(&WatchdogRegistry::stopAllAtExit);
        }
    }

    void remove(WSClient* client)
    {
        QMutexLocker lock(&mutex);
        clients.remove(client);
    }

    /// The watchdog of @p client sleeps @p ms, or less if its client is stopped meanwhile.
    void sleep(const WSClient* client, unsigned long ms)
    {
        QDeadlineTimer deadline(qint64(ms), Qt::PreciseTimer);
        QMutexLocker lock(&sleepMutex);
        while (client->running && !deadline.hasExpired())
            watchdogsWake.wait(&sleepMutex, deadline);
    }

    /// Wakes every sleeping watchdog, so that a stopped one ends at once.
    void wakeWatchdogs()
    {
        QMutexLocker lock(&sleepMutex);
        watchdogsWake.wakeAll();
    }

    /// What the SDK object does with its client when it goes: the watchdog is stopped and
    /// joined, the keep-alive timer, deadlines and session fetch end, nothing more is reported,
    /// and the client (with its socket) is handed to deleteLater(). The object may be deleted
    /// from a slot of the client's own signal: nothing of it is deleted here.
    static void retire(WSClient* client)
    {
        client->stop();
        client->wait();
        client->blockSignals(true);
        client->webSocket.blockSignals(true);
        if (client->timerId != 0) {
            client->killTimer(client->timerId);
            client->timerId = 0;
        }
        WSClientGuard* guard = WSClientGuard::of(client);
        guard->sessionDeadline.stop();
        guard->handshakeDeadline.stop();
        guard->pool = nullptr;
        if (client->sessionRequest) {
            client->sessionRequest->disconnect(client);
            client->sessionRequest->cancel();
            client->releaseSessionRequest();
        }
        client->sessionBusy = false;
        client->deleteLater();
    }

private:
    struct StopAtStaticDestruction
    {
        WatchdogRegistry* registry;
        // Qt is already gone here: the watchdogs are stopped, nothing else is touched.
        ~StopAtStaticDestruction() { registry->stopAll(false); }
    };

    static void stopAllAtExit() { instance().stopAll(true); }

    // With releaseNetwork, each client also ends its session fetch and socket: otherwise Qt's
    // network thread may still be opening a TLS connection for it while the process's exit
    // handlers tear the TLS library down.
    void stopAll(bool releaseNetwork)
    {
        QMutexLocker lock(&mutex);
        postRoutineArmed = false;
        for (WSClient* client : qAsConst(clients)) {
            client->stop();
            client->wait();
            if (releaseNetwork)
                client->releaseNetworkAtExit();
        }
    }

    QMutex mutex;
    QSet<WSClient*> clients;
    // Separate from mutex: stopAll() holds that one while it joins the watchdogs.
    QMutex sleepMutex;
    QWaitCondition watchdogsWake;
    bool postRoutineArmed = false;
};

WSClient::WSClient(const QUrl& wsUrl, const QUrl& httpUrl, QString merchantCode, QString devid,
                   bool debug, QObject* parent)
    : QThread(parent), webSocket(QString(), QWebSocketProtocol::VersionLatest, nullptr),
      wsUrl(wsUrl), httpUrl(httpUrl), merchantCode(merchantCode), devid(devid), debug(debug)
{
    if (debug) {
        qCDebug(kelo_log::ws).nospace().noquote() << "wsurl:" << wsUrl.toString();
        qCDebug(kelo_log::ws).nospace().noquote() << "httpurl:" << httpUrl.toString();
    }

    // Connected first, so the mirror is current before any handler below runs.
    connect(&webSocket, &QWebSocket::stateChanged, this, &WSClient::refreshSocketValidity);
    connect(&webSocket, &QWebSocket::connected, this, &WSClient::refreshSocketValidity);
    connect(&webSocket, &QWebSocket::disconnected, this, &WSClient::refreshSocketValidity);

    auto* guard = new WSClientGuard(this);
    // An opening handshake ends either way before its deadline; one that has not, is given up.
    connect(&webSocket, &QWebSocket::connected, &guard->handshakeDeadline, &QTimer::stop);
    connect(&webSocket, &QWebSocket::disconnected, &guard->handshakeDeadline, &QTimer::stop);
    connect(&guard->handshakeDeadline, &QTimer::timeout, this, [this] {
        if (webSocket.state() == QAbstractSocket::ConnectedState)
            return;
        // Quiet while it aborts: onClosed() would write its close frame into the socket that
        // abort() is tearing down (a crash in Qt 5.15). What onClosed() reports follows; there
        // is nothing left to close. The watchdog then finds the socket invalid and reconnects.
        {
            const QSignalBlocker quiet(webSocket);
            webSocket.abort();
        }
        refreshSocketValidity();
        if (this->debug)
            qCDebug(kelo_log::ws).noquote() << QStringLiteral("WebSocket disconnected ") + now();
        emit closed();
    });
    // A session fetch that the server took and never answers is given up, so that the watchdog's
    // next round (it waits while a fetch is busy) fetches afresh.
    connect(&guard->sessionDeadline, &QTimer::timeout, this, [this] {
        if (!sessionRequest)
            return;
        sessionRequest->disconnect(this);
        sessionRequest->cancel();
        sessionBusy = false;
        releaseSessionRequest();
        // No answer in time: the pool's kept-alive connection it went on is as dead as the link.
        kelo_detail::dropPoolConnections(WSClientGuard::of(this)->pool);
    });

    connect(&webSocket, &QWebSocket::connected, this, &WSClient::onConnected);
    connect(&webSocket, &QWebSocket::disconnected, this, &WSClient::onClosed);
    // Qt measures a text message in UTF-16 units (plus the bytes of its last frame), so a notice
    // of multi-byte characters passes its cap at up to three times the bytes. Held to the cap in
    // bytes here, such a notice ends like one that Qt refused: not handed on, the socket closed
    // with 1009.
    connect(&webSocket, &QWebSocket::textMessageReceived, this, [this](const QString& message) {
        if (utf8Length(message) > qint64(webSocket.maxAllowedIncomingMessageSize())) {
            webSocket.close(QWebSocketProtocol::CloseCodeTooMuchData,
                            QStringLiteral("Received message is too big in UTF-8."));
            return;
        }
        emit textMessageReceived(message);
    });
    // A notice over the cap (or a frame over it, which Qt refuses from the frame's header on)
    // closes the socket with 1009. A notice the server pushes while the socket is down is lost,
    // so the channel is opened again at once, not on the watchdog's next round.
    connect(&webSocket, &QWebSocket::aboutToClose, this, [this, guard] {
        guard->closingOverLargeNotice =
            webSocket.closeCode() == QWebSocketProtocol::CloseCodeTooMuchData;
    });
    connect(&webSocket, &QWebSocket::disconnected, this, [this, guard] {
        if (!guard->closingOverLargeNotice)
            return;
        guard->closingOverLargeNotice = false;
        qCWarning(kelo_log::ws).noquote()
            << QStringLiteral("WebSocket notice dropped: ") + webSocket.closeReason();
        getSession();
    });
    connect(&webSocket, &QWebSocket::pong, this, &WSClient::onPong);
    qRegisterMetaType<QAbstractSocket::SocketError>();
    connect(&webSocket, KELO_WEBSOCKET_ERROR_SIGNAL, this,
            SLOT(onError(QAbstractSocket::SocketError)));
    connect(this, &WSClient::reconnect, this, &WSClient::getSession);
    setMaxMessageSize(kelo_limits::DefaultMaxNotificationBytes);
}

WSClient::~WSClient()
{
    if (debug)
        qCDebug(kelo_log::ws) << "close websocket client!";
    WatchdogRegistry::instance().remove(this);
    // Destroying a QThread whose thread still runs aborts the process, so a client deleted
    // without stop() ends its watchdog here first.
    if (isRunning()) {
        stop();
        wait();
    }
    // Its signals must not reach the handlers of this half-destroyed object. The socket is
    // aborted here, not closed politely: a retired client is destroyed from the event loop, and
    // its connection must not outlive it waiting for the server's close.
    webSocket.disconnect(this);
    webSocket.abort();
    // A fetch still in flight is owned here until it is handed to deleteLater().
    delete sessionRequest;
}

void WSClient::start()
{
    timerId = startTimer(kelo_limits::KeepAliveIntervalMs, Qt::CoarseTimer);
    running = true;
    getSession();
    WatchdogRegistry::instance().add(this);
    QThread::start(QThread::InheritPriority);
}

void WSClient::stop()
{
    running = false;
    WatchdogRegistry::instance().wakeWatchdogs();
}

void WSClient::sendTextMessage(QString message)
{
    const qint64 sent = webSocket.sendTextMessage(message);
    if (debug)
        qCDebug(kelo_log::ws).nospace() << "Sent: " << sent;
}

void WSClient::getSession()
{
    // A handshake still within its deadline is left to finish: a new session would restart it.
    if (sessionBusy || WSClientGuard::of(this)->handshakeDeadline.isActive())
        return;
    sessionBusy = true;
    sessionRequest = new HttpBase(httpUrl, nullptr, false);
    if (QNetworkAccessManager* pool = WSClientGuard::of(this)->pool)
        kelo_detail::sendThrough(*sessionRequest, pool);
    sessionRequest->setMaxReplySize(WSClientGuard::of(this)->maxSessionReplyBytes);
    connect(sessionRequest, SIGNAL(done(QVariant)), this, SLOT(onSessionDone(QVariant)));
    connect(sessionRequest, SIGNAL(error(int, QString)), this, SLOT(onSessionError(int, QString)));
    sessionRequest->addParameter(QStringLiteral("cm"), QStringLiteral("get_ws_session"), true);
    sessionRequest->addParameter(QStringLiteral("dt"), Libcmn::formatWsSession(merchantCode, devid),
                                 false);
    sessionRequest->process(HTTP_POST);
    WSClientGuard::of(this)->sessionDeadline.start();
}

void WSClient::openConnection(const QString& sessionId)
{
    const QString connectString =
        Libcmn::formatWsConnectString(wsUrl.toString(), merchantCode, devid, sessionId);
    webSocket.open(QUrl(connectString));
    WSClientGuard::of(this)->handshakeDeadline.start();
}

void WSClient::onPong(quint64, const QByteArray&)
{
    missedPongs = 0;
}

void WSClient::setMaxMessageSize(qint64 bytes)
{
    const quint64 cap = bytes > 0 ? quint64(bytes) : QWebSocket::maxIncomingMessageSize();
    webSocket.setMaxAllowedIncomingMessageSize(cap);
    webSocket.setMaxAllowedIncomingFrameSize(qMin(cap, QWebSocket::maxIncomingFrameSize()));
}

qint64 WSClient::maxMessageSize() const
{
    const quint64 cap = webSocket.maxAllowedIncomingMessageSize();
    return cap >= QWebSocket::maxIncomingMessageSize() ? 0 : qint64(cap);
}

void WSClient::onConnected()
{
    if (debug)
        qCDebug(kelo_log::ws).noquote() << QStringLiteral("WebSocket connected ") + now();
    emit connected();
    missedPongs = 0;
}

void WSClient::onTextMessageReceived(QString message)
{
    if (debug)
        qCDebug(kelo_log::ws).noquote() << QStringLiteral("Message received:") + message;
    emit textMessageReceived(message);
}

void WSClient::onClosed()
{
    if (debug)
        qCDebug(kelo_log::ws).noquote() << QStringLiteral("WebSocket disconnected ") + now();
    webSocket.close(QWebSocketProtocol::CloseCodeNormal, QString());
    emit closed();
}

void WSClient::onReConnect()
{
    webSocket.open(wsUrl);
    WSClientGuard::of(this)->handshakeDeadline.start();
}

void WSClient::onSessionDone(QVariant data)
{
    sessionBusy = false;
    releaseSessionRequest();
    QString sessionId;
    if (Libcmn::parseWsSid(data.toString(), &sessionId) == 0)
        openConnection(sessionId);
}

void WSClient::onSessionError(int, QString)
{
    sessionBusy = false;
    releaseSessionRequest();
}

void WSClient::onError(QAbstractSocket::SocketError error)
{
    if (debug)
        qCDebug(kelo_log::ws).nospace() << "WSError: " << error;
}

void WSClient::run()
{
    // stop() clears running and wakes the sleep; the thread then returns by itself (never
    // terminated, so it never unwinds through Qt code in the middle of a log line or emission).
    WatchdogRegistry& registry = WatchdogRegistry::instance();
    while (running) {
        while (sessionBusy) {
            registry.sleep(this, kelo_limits::SessionBusyWaitMs);
            if (!running)
                return;
        }
        registry.sleep(this, kelo_limits::WatchdogPeriodMs);
        if (!running)
            return;
        if (socketValid)
            continue;
        if (debug)
            qCDebug(kelo_log::ws) << "Reconnect";
        emit reconnect();
    }
}

// No longer used by the watchdog (see run()); kept because the library exports it.
void WSClient::sleepTerminable(unsigned long ms)
{
    setTerminationEnabled(true); // a terminate() that came meanwhile takes effect here
    QThread::msleep(ms);
    setTerminationEnabled(false);
}

void WSClient::timerEvent(QTimerEvent* event)
{
    if (event->timerId() != timerId)
        return;
    if (missedPongs >= kelo_limits::MissedPongsBeforeDown) {
        // The link was silent for several pings: the pool's kept-alive connections are dead too.
        kelo_detail::dropPoolConnections(WSClientGuard::of(this)->pool);
        onClosed();
        return;
    }
    if (webSocket.isValid()) {
        webSocket.ping(QStringLiteral("ping").toLocal8Bit());
        ++missedPongs;
    } else if (debug) {
        qCDebug(kelo_log::ws) << "Websocket not valid";
    }
}

void WSClient::refreshSocketValidity()
{
    // An opening handshake under way counts as valid for the watchdog: on a slow link it may take
    // longer than the watchdog's period, and a reconnect would fetch a new session and open the
    // socket again, aborting it. Its own deadline ends a handshake that takes too long.
    const QAbstractSocket::SocketState state = webSocket.state();
    socketValid = webSocket.isValid() || state == QAbstractSocket::HostLookupState ||
                  state == QAbstractSocket::ConnectingState;
}

void WSClient::releaseSessionRequest()
{
    // Null only when a host calls the handler itself with no fetch in flight.
    if (sessionRequest)
        sessionRequest->deleteLater();
    sessionRequest = nullptr;
}

void WSClient::releaseNetworkAtExit()
{
    // Nothing is reported any more: the host and its event loop are going away.
    blockSignals(true);
    webSocket.blockSignals(true);
    if (timerId != 0) {
        killTimer(timerId);
        timerId = 0;
    }
    WSClientGuard* guard = WSClientGuard::of(this);
    guard->sessionDeadline.stop();
    guard->handshakeDeadline.stop();
    delete sessionRequest; // aborts its reply (and ends its own manager's network thread)
    sessionRequest = nullptr;
    sessionBusy = false;
    webSocket.abort();
}

namespace kelo_detail {

void shareNetwork(WSClient& client, QNetworkAccessManager* pool)
{
    WSClientGuard::of(&client)->pool = pool;
}

void setSessionReplyCap(WSClient& client, qint64 bytes)
{
    WSClientGuard::of(&client)->maxSessionReplyBytes = bytes > 0 ? bytes : qint64(0);
}

void retireClient(WSClient* client)
{
    WatchdogRegistry::retire(client);
}

} // namespace kelo_detail

#include "wsclient.moc"
