// The simulator's state, its public functions: fixture, key, pictures, notification sessions and
// paid invoices. The answers to requests (handle()) are in cloudroutes.cpp.
#include "cloudstate.h"
#include "cloudstate_p.h"

#include <QFile>
#include <QJsonDocument>

namespace kelocloud {

CloudState::CloudState() : key(developmentKey()), books(new detail::Books)
{
    detail::Fixture fixture;
    QString error;
    if (!detail::readFixture(QStringLiteral(":/kelocloud/restaurant.json"),
                             detail::readBuiltInFixture(), &fixture, &error))
        qWarning("kelo-cloud: %s", qPrintable(error));
    books->reset(fixture);
}

CloudState::~CloudState() = default;

bool CloudState::loadFixture(const QString& path, QString* error)
{
    QFile file(path);
    detail::Fixture fixture;
    QString problem;
    if (!file.open(QIODevice::ReadOnly))
        problem = QStringLiteral("%1: cannot read: %2").arg(path, file.errorString());
    else if (detail::readFixture(path, file.readAll(), &fixture, &problem)) {
        QMutexLocker lock(&mutex);
        books->reset(fixture);
        return true;
    }
    if (error)
        *error = problem;
    return false;
}

bool CloudState::setSecretKey(const QByteArray& newKey)
{
    if (!keyProblem(newKey).isEmpty())
        return false;
    QMutexLocker lock(&mutex);
    key = newKey;
    return true;
}

QByteArray CloudState::developmentKey()
{
    return QByteArrayLiteral(KELO_CLOUD_DEVELOPMENT_KEY);
}

QString CloudState::keyProblem(const QByteArray& key)
{
    const QString rule = QStringLiteral("the signing key must be 32 ASCII letters or digits");
    if (key.size() != 32)
        return rule + QStringLiteral(" (got %1 characters)").arg(key.size());
    for (int i = 0; i < key.size(); ++i) {
        const char c = key.at(i);
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')))
            return rule + QStringLiteral(" (character %1 is neither)").arg(i + 1);
    }
    return {};
}

QByteArray CloudState::secretKey() const
{
    QMutexLocker lock(&mutex);
    return key;
}

QString CloudState::merchantCode() const
{
    QMutexLocker lock(&mutex);
    return books->fixture.merchantCode;
}

QByteArray CloudState::picture(const QByteArray& path) const
{
    QMutexLocker lock(&mutex);
    const auto cached = books->pictures.constFind(path);
    if (cached != books->pictures.cend())
        return *cached;
    for (const detail::Dish& dish : qAsConst(books->fixture.menu)) {
        if (dish.imgPath.toUtf8() == path)
            return books->pictures[path] = detail::renderPicture(dish, books->pictureBytes);
    }
    return {};
}

QString CloudState::pictureSizeProblem(int bytes)
{
    if (bytes < detail::minPictureBytes || bytes > detail::maxPictureBytes)
        return QStringLiteral("pictures must have %1 to %2 bytes (got %3)")
            .arg(detail::minPictureBytes)
            .arg(detail::maxPictureBytes)
            .arg(bytes);
    return {};
}

bool CloudState::setPictureBytes(int bytes, QString* error)
{
    if (bytes != 0 && !pictureSizeProblem(bytes).isEmpty()) {
        *error = pictureSizeProblem(bytes);
        return false;
    }
    QMutexLocker lock(&mutex);
    books->pictures.clear();
    books->pictureBytes = bytes;
    return true;
}

bool CloudState::makeMenu(int dishes, QString* error)
{
    if (dishes < 0) {
        *error = QStringLiteral("the number of dishes must not be negative (got %1)").arg(dishes);
        return false;
    }
    QList<detail::Dish> menu;
    for (int id = 1; id <= dishes; ++id) {
        detail::Dish dish;
        dish.id = id;
        dish.name = QStringLiteral("Dish %1").arg(id);
        dish.price = 20000 + 500 * (id % 40);
        dish.imgPath = QStringLiteral("/pictures/dish-%1.png").arg(id);
        dish.imgCrc = QStringLiteral("1700000000000");
        menu.append(dish);
    }
    QMutexLocker lock(&mutex);
    books->fixture.menu = menu;
    books->fixture.lastUpdate = dishes > 0 ? 1700000000000 : 0;
    books->pictures.clear();
    return true;
}

QList<QByteArray> CloudState::picturePaths() const
{
    QMutexLocker lock(&mutex);
    QList<QByteArray> paths;
    for (const detail::Dish& dish : qAsConst(books->fixture.menu))
        paths.append(dish.imgPath.toUtf8());
    return paths;
}

bool CloudState::admitWebSocket(const QString& appuser, const QString& devid,
                                const QString& wsSession, const QString& tk)
{
    QMutexLocker lock(&mutex);
    if (appuser != books->fixture.merchantCode)
        return false;
    const bool issued = books->wsSessions.contains({wsSession, devid});
    return issued && detail::hmac((appuser + devid + wsSession).toUtf8(), key) == tk;
}

bool CloudState::markInvoicePaid(const QString& invoiceCode, Notice* notice)
{
    QMutexLocker lock(&mutex);
    detail::Invoice* invoice = books->invoice(invoiceCode);
    if (!invoice || invoice->status != detail::Invoice::Open)
        return false;
    invoice->status = detail::Invoice::Paid;
    if (notice) {
        const QJsonObject dt{
            {"invoice_code", invoice->code},       {"amount", invoice->amount},
            {"description", invoice->description}, {"merchant_code", books->fixture.merchantCode},
            {"tptranstoken", invoice->transToken}, {"appid", detail::kWalletAppId}};
        const QJsonObject text{{"dt", dt}, {"err", 0}, {"msg", "payment_success"}, {"type", 1}};
        notice->devid = invoice->devid;
        notice->text = QJsonDocument(text).toJson(QJsonDocument::Compact);
    }
    return true;
}

QString CloudState::sign(const QByteArray& data) const
{
    return detail::hmac(data, secretKey());
}

} // namespace kelocloud
