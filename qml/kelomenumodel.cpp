#include "kelomenumodel.h"

#include <QDir>

namespace {

const QString Placeholder = QStringLiteral("qrc:/icons/images/defaultfood.png");

int itemIdOf(const QJsonObject& item)
{
    return item.value(QLatin1String("item_id")).toInt(-1);
}

} // namespace

QVariantMap KeloMenuModel::find(int itemId) const
{
    for (int row = 0; row < count(); ++row) {
        const QVariantMap item = get(row);
        if (item.value(QStringLiteral("item_id")).toInt() == itemId &&
            item.contains(QStringLiteral("item_id")))
            return item;
    }
    return {};
}

QUrl KeloMenuModel::pictureUrl(const QString& imgPath)
{
    // The SDK writes "file:///" followed by an absolute path: four slashes on Unix, which a URL
    // reads as a path starting with "//". Clean it into an ordinary file URL.
    const QUrl url(imgPath);
    if (url.isLocalFile() && !url.toLocalFile().isEmpty())
        return QUrl::fromLocalFile(QDir::cleanPath(QLatin1Char('/') + url.toLocalFile()));
    return QUrl(Placeholder);
}

QHash<int, QByteArray> KeloMenuModel::ownRoles() const
{
    return {{ItemIdRole, "itemId"}, {PictureRole, "picture"}, {CachedRole, "cached"}};
}

QVariant KeloMenuModel::roleValue(const QJsonObject& item, int role) const
{
    switch (role) {
    case ItemIdRole:
        return itemIdOf(item);
    case PictureRole:
        return pictureUrl(item.value(QLatin1String("img_path")).toString());
    case CachedRole:
        return pictureUrl(item.value(QLatin1String("img_path")).toString()).isLocalFile();
    default:
        return {};
    }
}
