#include "kelosdk.h"

#include "kelo_config.h"

#include <QUuid>

// Placeholder bodies: the facade work replaces them.
Kelosdk::Kelosdk(const QString& merchantId, const QString& machineName, bool debug)
    : QObject(nullptr), merchantId(merchantId), machineName(machineName),
      clientUuid(QString::fromLatin1(QUuid::createUuid().toRfc4122().toHex())), debugLog(debug)
{
    host = QString::fromUtf8(qgetenv("KELO_SERVER_HOST"));
    if (host.isEmpty())
        host = QStringLiteral(KELO_DEFAULT_SERVER_HOST);
    httpsBase = QStringLiteral("https://%1").arg(host);
}
Kelosdk::~Kelosdk() = default;
void Kelosdk::userLogin(const QString&, const QString&, Kelosdk::user_type) {}
void Kelosdk::userLogout() {}
bool Kelosdk::userName(int&, QString&) { return false; }
bool Kelosdk::userIslogged() { return currentUserId >= 0; }
void Kelosdk::foodsRequest() {}
void Kelosdk::foodOrderRequest(const QJsonObject&) {}
void Kelosdk::tableRequest() {}
void Kelosdk::tableFoodsRequest(int) {}
void Kelosdk::tableMergeRequest(int, int) {}
void Kelosdk::tumipayRequest(long, const QString&, const QString&) {}
void Kelosdk::tumipayTransfers(const QString&, long, const QString&, const QString&) {}
void Kelosdk::tumipayCancel(const QString&) {}
void Kelosdk::paymentRequest(int, int) {}
void Kelosdk::wssNotify(const QString&) {}
void Kelosdk::onNetworkError(int, const QString&) {}
void Kelosdk::transPermisionRequest(int, long, const QString&, const QString&) {}
void Kelosdk::onFoodsReadyDownload(const QVariant&) {}
void Kelosdk::onTumipayQRInvoiceCode(const QVariant&) {}
