#include "libcmn.h"

// Placeholder bodies: the protocol work replaces them.
Libcmn::Libcmn() = default;
QString Libcmn::keloSecretkey() { return {}; }
QString Libcmn::HMacSha256(const QString&) { return {}; }
QString Libcmn::buildMsg(int, const QString&) { return {}; }
int Libcmn::getErrMsg(const QString&, QString*) { return -1; }
QString Libcmn::getNotifyMsg(const QString&) { return {}; }
int Libcmn::getNotifyDt(const QString&, QString&, QJsonObject&) { return -1; }
QString Libcmn::formatLogin(const QString&, const QString&, const QString&) { return {}; }
int Libcmn::getUserId(const QString&, int&, QString&) { return -1; }
QString Libcmn::formatSession(const QString&, const QString&) { return {}; }
int Libcmn::getSesId(const QString&, QString&) { return -1; }
QString Libcmn::formatWsSession(const QString&, const QString&) { return {}; }
int Libcmn::parseWsSid(const QString&, QString*) { return -1; }
QString Libcmn::formatWsConnectString(const QString&, const QString&, const QString&, const QString&) { return {}; }
QString Libcmn::formatRequestFoods(const QString&) { return {}; }
QString Libcmn::formatRequestOrder(const QString&, int, const QJsonObject&) { return {}; }
QString Libcmn::formatOrderlist(const QString&, int) { return {}; }
QString Libcmn::formatMergetable(const QString&, int, int) { return {}; }
QString Libcmn::formatTumipay(const QString&, const QString&, const QString&, long, const QString&, const QString&) { return {}; }
int Libcmn::getInvoiceQR(const QString&, QString&, QString&, QString*, int*) { return -1; }
QString Libcmn::formatInvoiceCancel(const QString&, const QString&) { return {}; }
QString Libcmn::formatPayment(const QString&, int, int, int) { return {}; }
QString Libcmn::buildTumipayResponeMsg(int, const QString&, const QJsonObject&) { return {}; }
