#include "cloudstate.h"

#include <QJsonDocument>
#include <QMessageAuthenticationCode>
#include <QUuid>

// Minimal state: the business side replaces it with the full simulated merchant.
namespace kelocloud {

CloudState::CloudState() : key(KELO_CLOUD_SECRET_KEY) {}

bool CloudState::loadFixture(const QString& path, QString* error)
{
    if (error)
        *error = QStringLiteral("%1: fixtures are not supported yet").arg(path);
    return false;
}

void CloudState::setSecretKey(const QByteArray& newKey)
{
    QMutexLocker lock(&mutex);
    key = newKey;
}

QByteArray CloudState::secretKey() const
{
    QMutexLocker lock(&mutex);
    return key;
}

CloudState::Answer CloudState::handle(const QByteArray&, const QString& cm, const QString&,
                                      const QString&, const QString&)
{
    QJsonObject reply{{"err", 0}, {"msg", "ok"}, {"dt", QJsonObject()}};
    if (cm == QLatin1String("get_ws_session")) {
        const QString session = QUuid::createUuid().toString(QUuid::Id128);
        QMutexLocker lock(&mutex);
        wsSessions.append(session);
        reply["dt"] = QJsonObject{{"ws_session", session}};
    }
    return {200, QJsonDocument(reply).toJson(QJsonDocument::Compact), "application/json"};
}

QByteArray CloudState::picture(const QByteArray&) const { return {}; }

bool CloudState::admitWebSocket(const QString& appuser, const QString& devid,
                                const QString& wsSession, const QString& tk)
{
    {
        QMutexLocker lock(&mutex);
        if (!wsSessions.contains(wsSession))
            return false;
    }
    return sign((appuser + devid + wsSession).toUtf8()) == tk;
}

bool CloudState::markInvoicePaid(const QString&, Notice*) { return false; }

QString CloudState::sign(const QByteArray& text) const
{
    return QString::fromLatin1(
        QMessageAuthenticationCode::hash(text, secretKey(), QCryptographicHash::Sha256).toHex());
}

} // namespace kelocloud
