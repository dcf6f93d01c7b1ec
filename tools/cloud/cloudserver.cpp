#include "cloudserver.h"

// Placeholder: the server work replaces this with the TLS server.
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

struct CloudServer::Impl
{
    CloudState state;
};

CloudServer::CloudServer(const CloudOptions&) : d(new Impl) {}
CloudServer::~CloudServer() = default;
bool CloudServer::start(QString* error)
{
    if (error)
        *error = QStringLiteral("not implemented");
    return false;
}
void CloudServer::stop() {}
quint16 CloudServer::port() const { return 0; }
QString CloudServer::hostPort() const { return {}; }
QString CloudServer::caCertificatePath() const { return {}; }
QByteArray CloudServer::caCertificatePem() const { return {}; }
CloudState& CloudServer::state() { return d->state; }
QList<CloudExchange> CloudServer::exchanges() const { return {}; }
QList<CloudExchange> CloudServer::exchanges(const QByteArray&, const QString&) const { return {}; }
void CloudServer::clearExchanges() {}
void CloudServer::scriptReply(const QByteArray&, const QString&, const CloudReply&, int) {}
void CloudServer::clearScripts() {}
void CloudServer::putFile(const QByteArray&, const QByteArray&, const QByteArray&) {}
int CloudServer::webSocketCount() const { return 0; }
QStringList CloudServer::connectedDevices() const { return {}; }
QList<CloudUpgrade> CloudServer::upgrades() const { return {}; }
bool CloudServer::pushText(const QString&, const QByteArray&) { return false; }
int CloudServer::pushAll(const QByteArray&) { return 0; }
void CloudServer::setAnswerPings(bool) {}
void CloudServer::dropWebSockets() {}
void CloudServer::setRefuseUpgrades(bool) {}
void CloudServer::goDown() {}
bool CloudServer::comeBack() { return false; }
bool CloudServer::isUp() const { return false; }
bool CloudServer::markInvoicePaid(const QString&) { return false; }

} // namespace kelocloud
