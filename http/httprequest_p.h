#pragma once

// Private to the library: shared behaviour of HttpBase and HttpBase2.
//
// Owners connect to each request class by its own signal and slot signatures, so the two stay
// separate QObject classes with their own meta-objects and their own (identical) member layout
// instead of deriving from a common QObject base. What they do is written once, here, as static
// functions templated on the owner class; each class forwards to them and is a friend of them.
// The one behavioural difference, what happens to a finished reply, is a parameter.

#include "httpbase.h"
#include "httppool_p.h"
#include "kelolimits_p.h"
#include "kelologging_p.h"
#include "keloqtcompat_p.h"

#include <QDebug>
#include <QElapsedTimer>
#include <QIODevice>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QTimer>
#include <QUrl>

#include <utility>

namespace kelo_detail {

/// Whether Qt may send a request's body again (when the connection closes before any byte of the
/// answer); Never is for a request that must not reach the server twice (postOnce()).
enum class Resend
{
    Allowed,
    Never
};

/// What finished() does with the reply once it has emitted the outcome.
enum class FinishedReply
{
    DeleteLater,
    Keep
};

template <class Owner> struct HttpRequest
{
    static QNetworkRequest createRequest(const Owner& owner, CONTENT_TYPE type,
                                         HTTP_PROCESS process)
    {
        QUrl target(owner.url);
        // Half a credential pair is no credential: the server would reject it anyway.
        if (!owner.username.isEmpty() && !owner.password.isEmpty()) {
            target.setUserName(owner.username, QUrl::DecodedMode);
            target.setPassword(owner.password, QUrl::DecodedMode);
        }
        // A GET (and a PUT, which passes HTTP_GET) carries the parameters as the whole query,
        // dropping any query written in the URL; a POST keeps the URL's query as it is.
        if (process == HTTP_GET)
            target.setQuery(owner.params.get());

        QNetworkRequest request(target);
        if (!owner.agentname.isEmpty())
            request.setRawHeader("User-Agent", owner.agentname.toUtf8());
        switch (type) {
        case CONTENT_FORM:
            request.setRawHeader("Content-Type", "application/x-www-form-urlencoded");
            break;
        case CONTENT_JSON:
            request.setRawHeader("Content-Type", "application/json");
            break;
        case CONTENT_NONE:
            break;
        }
        // TLS and timeouts stay Qt's defaults on purpose; redirects are never followed and the
        // request is HTTP/1.1, with Qt 6 as with Qt 5.
        kelo_compat::http1Only(request);
        return request;
    }

    // The object's link to a pool, if it was ever handed one (sendThrough()).
    static PoolLink* linkOf(const Owner& owner)
    {
        return owner.manager.template findChild<PoolLink*>(QString(), Qt::FindDirectChildrenOnly);
    }

    // The pool while the object is handed one and the pool lives; else the object's own manager.
    static QNetworkAccessManager& managerOf(Owner& owner)
    {
        const PoolLink* link = linkOf(owner);
        return link && link->pool ? *link->pool : owner.manager;
    }

    static void setPool(Owner& owner, QNetworkAccessManager* pool)
    {
        PoolLink* link = linkOf(owner);
        if (!link && !pool)
            return;
        if (!link)
            link = new PoolLink(&owner.manager);
        link->pool = pool;
    }

    static QNetworkReply* get(Owner& owner)
    {
        return managerOf(owner).get(owner.createRequest(CONTENT_NONE, HTTP_GET));
    }

    static QNetworkReply* post(Owner& owner)
    {
        const QByteArray body = owner.params.post();
        return managerOf(owner).post(owner.createRequest(CONTENT_FORM, HTTP_POST), body);
    }

    // The whole of kelo_detail::postOnce().
    static QNetworkReply* postOnce(Owner& owner)
    {
        // A connection kept alive may be closed by the server as idle at the very moment the
        // request goes out: only a fresh one is sure to carry it (and then no more than once).
        setPool(owner, nullptr);
        owner.manager.clearConnectionCache();
        QElapsedTimer since;
        since.start();
        QNetworkReply* reply = process(owner, HTTP_POST, nullptr, Resend::Never);
        watchConnect(owner, reply, since);
        return reply;
    }

    // A fresh connection that is not up (TCP and TLS) within FreshConnectDeadlineMs is given up
    // and a new one opened for the same request: over TLS not one byte of the request leaves
    // before the handshake ends, so the server cannot have seen it. On a link that comes back
    // after an outage this is what sends the request within seconds, instead of when TCP's
    // back-off next sends its SYN (after 1, 3, 7, 15 s). The request's idle deadline still counts
    // from the first try.
    static void watchConnect(Owner& owner, QNetworkReply* reply, QElapsedTimer since)
    {
        if (!reply || reply->url().scheme() != QLatin1String("https"))
            return; // without TLS nothing tells whether the request has left
        auto* timer = new QTimer(reply);
        timer->setSingleShot(true);
        timer->setInterval(kelo_limits::FreshConnectDeadlineMs);
        QObject::connect(reply, &QNetworkReply::encrypted, timer, &QTimer::stop);
        QObject::connect(reply, &QNetworkReply::finished, timer, &QTimer::stop);
        QObject::connect(timer, &QTimer::timeout, &owner, [&owner, reply, since] {
            const int idle = idleTimeout(owner);
            const qint64 left = idle - since.elapsed();
            if (owner.reply != reply || !reply->isRunning() ||
                (idle > 0 && left <= kelo_limits::FreshConnectDeadlineMs))
                return; // the idle deadline ends it first
            qCWarning(kelo_log::http).noquote()
                << QStringLiteral("no connection to %1 after %2 ms; connecting again (nothing "
                                  "of the request was sent)")
                       .arg(reply->url().host())
                       .arg(kelo_limits::FreshConnectDeadlineMs);
            QObject::disconnect(reply, nullptr, &owner, nullptr);
            reply->abort();
            reply->deleteLater();
            owner.manager.clearConnectionCache();
            QNetworkReply* again =
                process(owner, HTTP_POST, nullptr, Resend::Never, idle > 0 ? int(left) : 0);
            watchConnect(owner, again, since);
        });
        timer->start();
    }

    // Qt turns post()'s byte array into a QBuffer of the same bytes, so the request on the wire is
    // the same; only the rewinding differs (OnceReadBody).
    static QNetworkReply* postBodyOnce(Owner& owner)
    {
        auto* body = new OnceReadBody(owner.params.post());
        QNetworkReply* reply =
            managerOf(owner).post(owner.createRequest(CONTENT_FORM, HTTP_POST), body);
        body->setParent(reply);
        return reply;
    }

    static QNetworkReply* put(Owner& owner, QIODevice* iostream)
    {
        if (!iostream)
            return nullptr;
        return managerOf(owner).put(owner.createRequest(CONTENT_NONE, HTTP_GET), iostream);
    }

    // idleMs: the idle deadline of this reply when not the object's own (a request tried again
    // keeps what was left of it).
    static QNetworkReply* process(Owner& owner, HTTP_PROCESS processType, QIODevice* iostream,
                                  Resend resend = Resend::Allowed, int idleMs = -1)
    {
        // The stored URL plus the raw parameters, not the exact request sent: for reading only.
        if (owner.debug)
            qCDebug(kelo_log::http)
                << "http2 url:" << owner.url.toString() + owner.params.toString();

        switch (processType) {
        case HTTP_POST:
            owner.reply = resend == Resend::Never ? postBodyOnce(owner) : owner.post();
            break;
        case HTTP_GET:
            owner.reply = owner.get();
            break;
        case HTTP_PUT:
            owner.reply = owner.put(iostream);
            break;
        default:
            return nullptr;
        }
        // With put(nullptr) the reply is null: Qt warns about the null sender and no signal
        // will ever come, which is what a caller passing no stream gets.
        QObject::connect(owner.reply, &QNetworkReply::finished, &owner, &Owner::finished);
        if (owner.reply) {
            watchSize(owner, owner.reply, maxReplySize(owner));
            watchIdle(owner, owner.reply, idleMs < 0 ? idleTimeout(owner) : idleMs);
        }
        if (PoolLink* link = linkOf(owner)) {
            link->replies.removeAll(nullptr);
            link->replies.append(owner.reply);
        }
        return owner.reply;
    }

    // Qt buffers the whole answer until it has finished, so the cap is watched while it comes:
    // as soon as the announced length or the bytes received pass it, the transfer is aborted
    // (which closes the connection, so the server stops sending too).
    static void watchSize(Owner& owner, QNetworkReply* reply, qint64 cap)
    {
        if (cap <= 0)
            return;
        // Qt reads the answer in a thread of its own and queues what it read to this one: on a
        // fast link a busy event loop would see a long answer only once all of it had been read
        // into memory. A read buffer one byte over the cap makes Qt stop reading there (and the
        // server's sending stall), so the check below always runs before more than that is held.
        reply->setReadBufferSize(cap + 1);
        RequestState& state = ensureState(owner);
        const auto check = [&owner, &state, reply, cap] {
            if (state.tooLarge == reply)
                return;
            const QVariant announced = reply->header(QNetworkRequest::ContentLengthHeader);
            if (reply->bytesAvailable() <= cap &&
                (!announced.isValid() || announced.toLongLong() <= cap))
                return;
            state.tooLarge = reply;
            state.tooLargeCap = cap;
            // abort() emits finished() at once, inside Qt's own signal emission; the outcome
            // is reported from the event loop instead, where a handler may delete the owner
            // (and with it this reply) safely.
            QObject::disconnect(reply, &QNetworkReply::finished, &owner, &Owner::finished);
            reply->abort();
            QMetaObject::invokeMethod(
                &owner, [&owner] { owner.finished(); }, Qt::QueuedConnection);
        };
        QObject::connect(reply, &QNetworkReply::metaDataChanged, &owner, check);
        QObject::connect(reply, &QNetworkReply::readyRead, &owner, check);
    }

    static RequestState* stateOf(const Owner& owner)
    {
        return owner.manager.template findChild<RequestState*>(QString(),
                                                               Qt::FindDirectChildrenOnly);
    }

    static RequestState& ensureState(Owner& owner)
    {
        if (RequestState* state = stateOf(owner))
            return *state;
        return *new RequestState(&owner.manager, kelo_limits::DefaultRequestIdleTimeoutMs,
                                 kelo_limits::DefaultMaxReplyBytes);
    }

    static void setIdleTimeout(Owner& owner, int ms) { ensureState(owner).idleMs = qMax(0, ms); }

    static int idleTimeout(const Owner& owner)
    {
        const RequestState* state = stateOf(owner);
        return state ? state->idleMs : kelo_limits::DefaultRequestIdleTimeoutMs;
    }

    // A request that moves no byte either way for the idle deadline (from the moment it is sent:
    // connecting and the TLS handshake count too) is given up: on a link that went silent, TCP
    // would otherwise wait out its own retries for minutes. The timer is a child of the reply and
    // restarts on every sign of progress.
    static void watchIdle(Owner& owner, QNetworkReply* reply, int ms)
    {
        if (ms <= 0)
            return;
        RequestState& state = ensureState(owner);
        auto* timer = new QTimer(reply);
        timer->setSingleShot(true);
        timer->setInterval(ms);
        const auto progress = [timer] { timer->start(); };
        QObject::connect(reply, &QNetworkReply::metaDataChanged, timer, progress);
        QObject::connect(reply, &QNetworkReply::readyRead, timer, progress);
        QObject::connect(reply, &QNetworkReply::downloadProgress, timer, progress);
        QObject::connect(reply, &QNetworkReply::uploadProgress, timer, progress);
        QObject::connect(reply, &QNetworkReply::finished, timer, &QTimer::stop);
        QObject::connect(timer, &QTimer::timeout, &owner, [&owner, &state, reply] {
            if (!reply->isRunning())
                return;
            state.expired = reply;
            // As with the size cap: abort() emits finished() at once; the outcome is reported
            // from the event loop, once.
            QObject::disconnect(reply, &QNetworkReply::finished, &owner, &Owner::finished);
            reply->abort();
            // The connection it waited on is dead, and so, most likely, are the pool's others.
            if (const PoolLink* link = linkOf(owner))
                dropPoolConnections(link->pool);
            QMetaObject::invokeMethod(
                &owner, [&owner] { owner.finished(); }, Qt::QueuedConnection);
        });
        timer->start();
    }

    // The outcome of a finished reply that is not the answer asked for, or an empty text.
    static QString refusal(const Owner& owner, const QNetworkReply& reply, int* code)
    {
        const RequestState* state = stateOf(owner);
        if (state && state->expired == &reply) {
            *code = kelo_limits::NoAnswerError;
            const int ms = state->idleMs;
            return ms % 1000 == 0
                       ? QStringLiteral("no answer from the server for %1 s").arg(ms / 1000)
                       : QStringLiteral("no answer from the server for %1 ms").arg(ms);
        }
        if (state && state->tooLarge == &reply) {
            *code = kelo_limits::ReplyTooLargeError;
            return QStringLiteral("reply larger than the limit of %1 bytes")
                .arg(state->tooLargeCap);
        }
        // Qt does not follow redirects here, so a 3xx ends without an error. It is never the
        // cloud's answer: typically a captive portal sending the terminal to its login page.
        const int status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        if (reply.error() == QNetworkReply::NoError && status >= 300 && status < 400) {
            *code = kelo_limits::RedirectRefusedError;
            return QStringLiteral("server answered HTTP %1 (a redirect), which is not followed")
                .arg(status);
        }
        return QString();
    }

    static constexpr char NotSentAgainText[] =
        "connection closed before the answer; the request was not sent again, its outcome is "
        "unknown";

    // Qt's error text for an HTTP error status quotes the whole request URL, and a GET carries its
    // parameters in the query: a login's password among them. That text is logged and handed on
    // to hosts, which log it too, so the query and any credentials are cut out of it; the rest of
    // the text (path, server's status text) stays as Qt wrote it.
    static QString errorTextWithoutSecrets(const QNetworkReply& reply)
    {
        // Qt says only "Unknown error" when it would send a request again and cannot rewind its
        // body (postOnce()): the one thing the owner must know is that the server may have
        // acted on it.
        if (reply.error() == QNetworkReply::ContentReSendError)
            return QString::fromLatin1(NotSentAgainText);
        QString text = reply.errorString();
        const QUrl url = reply.url();
        const QUrl::FormattingOptions cut = QUrl::RemoveQuery | QUrl::RemoveUserInfo;
        text.replace(url.toString(), url.toString(cut));
        text.replace(url.toString(QUrl::FullyEncoded), url.toString(cut | QUrl::FullyEncoded));
        return text;
    }

    // Handles the reply recorded last (not the sender): an owner starts each object once.
    static void finished(Owner& owner, FinishedReply disposal)
    {
        QNetworkReply* const reply = owner.reply;
        if (!reply)
            return;
        QObject::disconnect(reply, nullptr, &owner, nullptr);

        // A handler may destroy the owner, and with it the reply, while the signal is emitted.
        const QPointer<QNetworkReply> alive(reply);
        int refused = 0;
        const QString refusedText = refusal(owner, *reply, &refused);
        if (refused != 0 || reply->error() != QNetworkReply::NoError) {
            const int code = refused != 0 ? refused : int(reply->error());
            const QString message = refused != 0 ? refusedText : errorTextWithoutSecrets(*reply);
            qCCritical(kelo_log::http)
                << QStringLiteral("//error:%1, msg:%2").arg(QString::number(code), message);
            emit owner.error(code, message);
        } else {
            const QByteArray body = reply->readAll();
            if (owner.debug)
                qCDebug(kelo_log::http) << "respone data:" << QString::fromUtf8(body);
            emit owner.done(QVariant(body));
        }
        if (disposal == FinishedReply::DeleteLater && alive)
            reply->deleteLater();
    }

    // The cap is kept in the object's RequestState, so that the public classes keep the size
    // and layout of 1.0.
    static void setMaxReplySize(Owner& owner, qint64 bytes)
    {
        ensureState(owner).maxReplyBytes = bytes > 0 ? bytes : qint64(0);
    }

    static qint64 maxReplySize(const Owner& owner)
    {
        const RequestState* state = stateOf(owner);
        return state ? state->maxReplyBytes : kelo_limits::DefaultMaxReplyBytes;
    }

    static void cancel(Owner& owner)
    {
        // A pool's reply may be gone with its pool: only a live one is aborted.
        if (const PoolLink* link = linkOf(owner)) {
            if (link->lastAlive(owner.reply))
                owner.reply->abort();
            return;
        }
        if (owner.reply)
            owner.reply->abort();
    }

    // The recorded reply is never cleared, so after HttpBase's deferred deletion of it has run
    // the pointer dangles (owners normally delete the object from their handlers before that).
    // A reply still alive is still a child of our manager: only then is it deleted here, so an
    // object kept longer is not a double delete. The pointer is only compared, never followed.
    // An object handed to a pool knows its replies' fate from its link instead: each was
    // deleted by HttpBase's deferred deletion or with the pool that owned it, or lives (and is
    // deleted here, as the object's own manager would have deleted it).
    static void destroy(Owner& owner)
    {
        if (PoolLink* link = linkOf(owner)) {
            const QList<QPointer<QNetworkReply>> replies = std::exchange(link->replies, {});
            for (const QPointer<QNetworkReply>& reply : replies)
                delete reply.data();
            return;
        }
        if (!owner.reply)
            return;
        if (owner.manager.children().contains(owner.reply))
            delete owner.reply;
    }
};

} // namespace kelo_detail
