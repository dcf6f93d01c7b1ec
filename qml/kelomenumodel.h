#pragma once

#include "kelolistmodel.h"

#include <QUrl>

/**
 * The menu: one row per dish of the SDK's menu, whose pictures are in the local cache.
 * Roles: itemId, picture (a file URL of the cached picture, or the SDK's placeholder
 * "qrc:/icons/images/defaultfood.png", which this module provides), cached (true when picture is
 * the cached file) and item (the dish's whole object).
 */
class KeloMenuModel : public KeloListModel
{
    Q_OBJECT
public:
    using KeloListModel::KeloListModel;

    /// The whole object of the dish @p itemId (empty if the menu has none).
    Q_INVOKABLE QVariantMap find(int itemId) const;
    /// The picture address of a dish's "img_path" as the SDK rewrites it: a plain file URL for a
    /// cached file, the placeholder otherwise.
    static QUrl pictureUrl(const QString& imgPath);

protected:
    enum
    {
        ItemIdRole = FirstOwnRole,
        PictureRole,
        CachedRole
    };
    QHash<int, QByteArray> ownRoles() const override;
    QVariant roleValue(const QJsonObject& item, int role) const override;
};
