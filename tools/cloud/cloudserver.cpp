// The simulator's server, its public API: a facade over the engine (cloudengine_p.h).
#include "cloudserver.h"

#include "cloudengine_p.h"
#include "cloudwssession_p.h"

#include <algorithm>

namespace kelocloud {

QByteArray CloudExchange::header(const QByteArray& name) const
{
    for (const auto& h : headers)
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return h.second;
    return {};
}

bool CloudExchange::hasHeader(const QByteArray& name) const
{
    for (const auto& h : headers)
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return true;
    return false;
}

QUrlQuery CloudExchange::params() const
{
    return QUrlQuery(QString::fromUtf8(method == "POST" ? body : query));
}

QString CloudExchange::param(const QString& key) const
{
    return params().queryItemValue(key, QUrl::FullyDecoded);
}

struct CloudServer::Impl : serverdetail::Engine
{
    using Engine::Engine;
};

CloudServer::CloudServer(const CloudOptions& options) : d(new Impl(options)) {}

CloudServer::~CloudServer()
{
    stop();
}

bool CloudServer::start(QString* error)
{
    QString ignored;
    return d->start(error ? error : &ignored);
}

void CloudServer::stop()
{
    d->stop();
}

quint16 CloudServer::port() const
{
    return d->port;
}

QString CloudServer::hostPort() const
{
    return QStringLiteral("%1:%2").arg(d->listenAddress()).arg(d->port);
}

QString CloudServer::caCertificatePath() const
{
    return d->ca.certificatePath();
}

QByteArray CloudServer::caCertificatePem() const
{
    return d->ca.certificatePem();
}

CloudState& CloudServer::state()
{
    return d->state;
}

QList<CloudExchange> CloudServer::exchanges() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->exchanges;
}

QList<CloudExchange> CloudServer::exchanges(const QByteArray& pathPrefix, const QString& cm) const
{
    QList<CloudExchange> matching;
    for (const CloudExchange& exchange : exchanges())
        if (exchange.path.startsWith(pathPrefix) &&
            (cm.isEmpty() || exchange.param(QStringLiteral("cm")) == cm))
            matching.append(exchange);
    return matching;
}

void CloudServer::clearExchanges()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->exchanges.clear();
    d->upgrades.clear();
}

void CloudServer::scriptReply(const QByteArray& pathPrefix, const QString& cm,
                              const CloudReply& reply, int times)
{
    if (times <= 0)
        return;
    std::lock_guard<std::mutex> lock(d->mutex);
    d->scripts.push_back({pathPrefix, cm, reply, times});
}

void CloudServer::clearScripts()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->scripts.clear();
}

void CloudServer::setControlHandler(ControlHandler handler)
{
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->controlHandler = std::move(handler);
    }
    // Control requests run on the server's thread: once this call went through it, none of
    // the previous handler is still running.
    d->call([] { return 0; });
}

void CloudServer::putFile(const QByteArray& path, const QByteArray& content,
                          const QByteArray& contentType)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->files.insert(path, {content, contentType});
}

int CloudServer::webSocketCount() const
{
    return d->call([this] { return int(d->openSockets().size()); });
}

QStringList CloudServer::connectedDevices() const
{
    return d->call([this] {
        QStringList devices;
        for (const auto& socket : d->openSockets())
            if (!devices.contains(socket->device()))
                devices.append(socket->device());
        return devices;
    });
}

QList<CloudUpgrade> CloudServer::upgrades() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->upgrades;
}

bool CloudServer::pushText(const QString& devid, const QByteArray& text)
{
    return pushToDevice(devid, text) > 0;
}

int CloudServer::pushToDevice(const QString& devid, const QByteArray& text)
{
    return d->call([&] {
        int sent = 0;
        for (const auto& socket : d->openSockets())
            if (socket->device() == devid) {
                socket->send(text);
                ++sent;
            }
        return sent;
    });
}

int CloudServer::pushAll(const QByteArray& text)
{
    return d->call([&] {
        const auto open = d->openSockets();
        for (const auto& socket : open)
            socket->send(text);
        return int(open.size());
    });
}

int CloudServer::pingCount() const
{
    return d->pings;
}

void CloudServer::setAnswerPings(bool answer)
{
    d->answerPings = answer;
}

int CloudServer::dropWebSockets()
{
    return d->call([this] {
        const int open = int(d->openSockets().size());
        // Sockets still in their opening handshake go too.
        for (const auto& weak : d->sockets)
            if (auto socket = weak.lock())
                socket->abort();
        d->sockets.clear();
        return open;
    });
}

void CloudServer::setRefuseUpgrades(bool refuse)
{
    d->refuseUpgrades = refuse;
}

void CloudServer::stallConnections(int connections)
{
    d->stallConnections = std::max(connections, 0);
}

void CloudServer::goDown()
{
    d->call([this] {
        if (d->returnTimer)
            d->returnTimer->cancel();
        d->closeAll();
        return 0;
    });
}

bool CloudServer::comeBack()
{
    return d->call([this] { return d->comeBack(); });
}

void CloudServer::goDownFor(int ms)
{
    d->call([this, ms] {
        d->closeAll();
        d->planReturn(ms);
        return 0;
    });
}

bool CloudServer::isUp() const
{
    return d->up;
}

bool CloudServer::markInvoicePaid(const QString& invoiceCode, int* delivered)
{
    CloudState::Notice notice;
    if (!d->state.markInvoicePaid(invoiceCode, &notice))
        return false;
    d->forgetInvoice(invoiceCode);
    const int sent = pushToDevice(notice.devid, notice.text);
    if (delivered)
        *delivered = sent;
    return true;
}

int CloudServer::openInvoiceCount() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->openInvoices.size();
}

int CloudServer::pushWholeFrame(const QString& devid, const QByteArray& text)
{
    return d->call([&] {
        int sent = 0;
        for (const auto& socket : d->openSockets())
            if (socket->device() == devid) {
                socket->send(text, true);
                ++sent;
            }
        return sent;
    });
}

qint64 CloudServer::streamedBytes() const
{
    return d->streamedBytes;
}

} // namespace kelocloud
