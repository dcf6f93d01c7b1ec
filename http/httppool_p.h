#pragma once

// Private to the library: the SDK object's one connection pool, how its request objects are
// handed to it, and the body of a request that must never reach the server twice.
//
// A request object on its own sends through the manager it holds by value, as it always has. The
// SDK object hands each request object it creates (and the notification client's session fetch)
// its pool instead, so that requests reuse kept-alive connections. The public classes keep their
// layout: what a request object needs to know about the pool lives in a PoolLink, a child of the
// object's own manager.

#include <QByteArray>
#include <QIODevice>
#include <QList>
#include <QNetworkAccessManager>
#include <QNetworkCookie>
#include <QNetworkCookieJar>
#include <QNetworkReply>
#include <QPointer>
#include <QUrl>

class HttpBase;
class HttpBase2;
class WSClient;

namespace kelo_detail {

/// A cookie jar that keeps nothing: the server never gets back a cookie it set.
class NoCookieJar : public QNetworkCookieJar
{
    Q_OBJECT
public:
    explicit NoCookieJar(QObject* parent = nullptr) : QNetworkCookieJar(parent) {}

    QList<QNetworkCookie> cookiesForUrl(const QUrl&) const override { return {}; }
    bool setCookiesFromUrl(const QList<QNetworkCookie>&, const QUrl&) override { return false; }
};

/// The SDK object's connection pool: one manager whose kept-alive connections all its requests
/// share. No cookie is kept, redirects are not followed (as with every manager of the library).
/// When it goes, the replies still in flight through it are aborted first, so that each of their
/// request objects ends in error(5, ...) instead of waiting for an answer that cannot come.
class SharedNetwork : public QNetworkAccessManager
{
    Q_OBJECT
public:
    explicit SharedNetwork(QObject* parent = nullptr);
    ~SharedNetwork() override;

    /// The link was found dead (a request's idle deadline expired, the notification channel
    /// missed its pongs): the kept-alive connections are dropped so that the next request opens
    /// a fresh one. Qt drops them by ending its network thread, which would strand the replies
    /// still in flight through it; so while any runs, the drop waits until the last has ended
    /// (each ends by its own deadline at the latest).
    void dropConnectionsWhenIdle();

private:
    void dropIfIdle();
    bool dropPending = false;
};

/// What a request object keeps beyond the members of its public class, whose layout is fixed:
/// its deadline without progress and its reply cap, and the reply it last gave up on for either.
/// A child of the object's own manager, made by the first setter call or the first request sent.
class RequestState : public QObject
{
    Q_OBJECT
public:
    RequestState(QObject* parent, int idleMs, qint64 maxReplyBytes)
        : QObject(parent), idleMs(idleMs), maxReplyBytes(maxReplyBytes)
    {
    }
    /// Milliseconds without a byte either way before a request is given up; 0: never.
    int idleMs;
    /// The reply given up for its idle deadline, while it lives.
    QPointer<QNetworkReply> expired;
    /// Bytes an answer may have; 0: no cap.
    qint64 maxReplyBytes;
    /// The reply aborted for being longer than its cap, while it lives, and that cap.
    QPointer<QNetworkReply> tooLarge;
    qint64 tooLargeCap = 0;
};

/// What a request object handed to a pool keeps: the pool while it lives, and the replies it
/// started since (a pool's reply is no child of the object's own manager, so nothing else tells
/// whether it still lives, nor deletes it with the object). A child of the object's own manager,
/// so it goes with the object.
class PoolLink : public QObject
{
    Q_OBJECT
public:
    explicit PoolLink(QObject* parent) : QObject(parent) {}

    /// The manager requests go through; null once it is gone (the object's own manager then).
    QPointer<QNetworkAccessManager> pool;
    /// Every reply started since, the recorded one last; each null once deleted (with its pool,
    /// by HttpBase's deferred deletion, or by the object's destructor).
    QList<QPointer<QNetworkReply>> replies;

    /// True if @p reply is the last one started and still lives.
    bool lastAlive(const QNetworkReply* reply) const
    {
        return reply && !replies.isEmpty() && replies.last() && replies.last().data() == reply;
    }
};

/// Has @p request send through @p pool from its next process() on; null: through its own manager
/// again. The pool may go first: the object then falls back to its own manager.
void sendThrough(HttpBase& request, QNetworkAccessManager* pool);
/// The same for an HttpBase2.
void sendThrough(HttpBase2& request, QNetworkAccessManager* pool);

/// process(HTTP_POST) on @p request for a request that must never reach the server twice: on a
/// fresh connection of the object's own manager (never a pool's kept-alive one), with a body
/// that Qt can read only once (OnceReadBody). Qt's resend of a request whose connection closed
/// before any byte of the answer then ends in error(205, ...) (ContentReSendError) instead of
/// sending it again. Method, URL, headers and body bytes are those of process(HTTP_POST).
QNetworkReply* postOnce(HttpBase2& request);

/// Drops the kept-alive connections of @p network, if it is an SDK object's pool (see
/// SharedNetwork::dropConnectionsWhenIdle()); does nothing for any other manager or null.
void dropPoolConnections(QNetworkAccessManager* network);

/// Has the notification client @p client fetch its sessions through @p pool while the pool lives
/// (through a manager of its own afterwards).
void shareNetwork(WSClient& client, QNetworkAccessManager* pool);

/// Caps the answers of @p client's session fetches started from now on at @p bytes (0 or less:
/// no cap), as HttpBase::setMaxReplySize() does for a request object.
void setSessionReplyCap(WSClient& client, qint64 bytes);

/// The SDK object goes: ends @p client's watchdog (joined), keep-alive timer, deadlines and
/// session fetch, silences it and hands it (and its socket) to deleteLater(). Safe from a slot of
/// the client's own signals.
void retireClient(WSClient* client);

/**
 * A request body that can be read only once. It is not a QBuffer: Qt reads a QBuffer's bytes
 * directly and would rewind them itself; through a plain device Qt must seek back to the start
 * before it sends the request again, and that seek fails once any byte has been read.
 */
class OnceReadBody : public QIODevice
{
    Q_OBJECT
public:
    explicit OnceReadBody(const QByteArray& bytes, QObject* parent = nullptr);

    bool isSequential() const override { return false; }
    qint64 size() const override { return bytes.size(); }
    /// Refuses to go back before a byte already read.
    bool seek(qint64 pos) override;

protected:
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char*, qint64) override { return -1; }

private:
    const QByteArray bytes;
    qint64 readUpTo = 0; ///< bytes read so far, from the start
};

} // namespace kelo_detail
