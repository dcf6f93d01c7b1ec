#include "httppool_p.h"

#include "httpbase2.h"
#include "httprequest_p.h"
#include "keloqtcompat_p.h"

#include <cstring>

namespace kelo_detail {

SharedNetwork::SharedNetwork(QObject* parent) : QNetworkAccessManager(parent)
{
    kelo_compat::manualRedirects(*this);
    setCookieJar(new NoCookieJar(this));
}

SharedNetwork::~SharedNetwork()
{
    // A reply's abort() emits finished() at once: its request object reports error(5, ...) and
    // its owner may release it, which deletes nothing here (deleteLater()).
    QList<QPointer<QNetworkReply>> replies;
    for (QNetworkReply* reply : findChildren<QNetworkReply*>(QString(), Qt::FindDirectChildrenOnly))
        replies.append(reply);
    for (const QPointer<QNetworkReply>& reply : qAsConst(replies)) {
        if (reply && reply->isRunning())
            reply->abort();
    }
}

void SharedNetwork::dropConnectionsWhenIdle()
{
    if (dropPending)
        return;
    dropPending = true;
    dropIfIdle();
}

void SharedNetwork::dropIfIdle()
{
    if (!dropPending)
        return;
    for (QNetworkReply* reply :
         findChildren<QNetworkReply*>(QString(), Qt::FindDirectChildrenOnly)) {
        if (!reply->isRunning())
            continue;
        // At once when it finishes, before its owner can send the next request on a connection
        // that is to be dropped; a reply deleted while it runs never finishes, so its destruction
        // counts as its end (queued: it is half destroyed then).
        connect(reply, &QNetworkReply::finished, this, &SharedNetwork::dropIfIdle,
                Qt::UniqueConnection);
        connect(reply, &QObject::destroyed, this, &SharedNetwork::dropIfIdle,
                Qt::ConnectionType(Qt::UniqueConnection | Qt::QueuedConnection));
        return;
    }
    dropPending = false;
    clearConnectionCache();
}

void dropPoolConnections(QNetworkAccessManager* network)
{
    if (auto* pool = qobject_cast<SharedNetwork*>(network))
        pool->dropConnectionsWhenIdle();
}

void sendThrough(HttpBase& request, QNetworkAccessManager* pool)
{
    HttpRequest<HttpBase>::setPool(request, pool);
}

void sendThrough(HttpBase2& request, QNetworkAccessManager* pool)
{
    HttpRequest<HttpBase2>::setPool(request, pool);
}

QNetworkReply* postOnce(HttpBase2& request)
{
    return HttpRequest<HttpBase2>::postOnce(request);
}

OnceReadBody::OnceReadBody(const QByteArray& bytes, QObject* parent)
    : QIODevice(parent), bytes(bytes)
{
    // Unbuffered: every read comes through readData(), so readUpTo is what Qt has taken.
    open(QIODevice::ReadOnly | QIODevice::Unbuffered);
}

bool OnceReadBody::seek(qint64 pos)
{
    if (pos < readUpTo)
        return false;
    return QIODevice::seek(pos);
}

qint64 OnceReadBody::readData(char* data, qint64 maxSize)
{
    const qint64 at = pos();
    const qint64 n = qBound<qint64>(0, bytes.size() - at, maxSize);
    if (n > 0)
        std::memcpy(data, bytes.constData() + at, size_t(n));
    readUpTo = qMax(readUpTo, at + n);
    return n;
}

} // namespace kelo_detail
