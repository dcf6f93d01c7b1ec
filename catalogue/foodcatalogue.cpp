// Libcmn's menu catalogue functions, kept beside the download manager they feed.
#include "cdownloadfileman.h"
#include "libcmn.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <limits>

namespace {

const QString PlaceholderPicture = QStringLiteral("qrc:/icons/images/defaultfood.png");

// The catalogue stamp is a JSON number; out-of-range values (negative, NaN, beyond 64 bits) would
// make the conversion undefined, so they are clamped.
unsigned long long toStamp(double value)
{
    if (!(value > 0))
        return 0;
    if (value >= 18446744073709551616.0) // 2^64
        return std::numeric_limits<unsigned long long>::max();
    return static_cast<unsigned long long>(value);
}

// The tail of the url from its last "." on, searched in the whole address, host included. It holds
// no other ".", so it may name subfolders of the picture folder but never climb out of it; the
// download manager refuses every name that is not a plain file name in the folder.
QString extensionOf(const QString& url)
{
    const int dot = url.lastIndexOf(QLatin1Char('.'));
    return dot < 0 ? QString() : url.mid(dot);
}

} // namespace

void Libcmn::parseDataFoods(const QString& data, CDownloadFileMan& manager,
                            unsigned long long& lastUpdate)
{
    const QString images = CDownloadFileMan::pictureDirectory() + QLatin1String("/images/");
    manager.Reset();
    const QJsonObject reply = QJsonDocument::fromJson(data.toUtf8()).object();
    manager.keepParsedReply(data, reply);
    const QJsonObject dt = reply.value(QLatin1String("dt")).toObject();
    const QString host = dt.value(QLatin1String("img_host")).toString();
    lastUpdate = toStamp(dt.value(QLatin1String("last_update")).toDouble());

    const QJsonArray items = dt.value(QLatin1String("items")).toArray();
    for (int i = 0; i < items.size(); ++i) {
        const QJsonObject item = items.at(i).toObject();
        tagDownFileInfo info;
        info.url = host + item.value(QLatin1String("img_path")).toString();
        info.id = item.value(QLatin1String("item_id")).toInt();
        info.localPath = images + QString::number(info.id) + extensionOf(info.url);
        info.stamp = item.value(QLatin1String("img_crc")).toString().toULongLong(nullptr, 10);
        manager.AddDownLoadFile(info);
    }
}

QString Libcmn::updateDataFoods(const QString& data, CDownloadFileMan& manager)
{
    // The menu parsed before the downloads is reused when it is this same text. Each level is
    // taken out of its parent while it is edited, so that the edits do not copy it.
    QJsonObject top = manager.takeParsedReply(data);
    QJsonObject dt = top.take(QLatin1String("dt")).toObject();
    QJsonArray items = dt.take(QLatin1String("items")).toArray();

    // Items and records pair by position. The list comes from this very text, but a text that
    // differs from the parsed one must not make us read past the items.
    const QList<tagDownFileInfo>& files = manager.GetListFile();
    const int count = qMin(files.size(), items.size());
    for (int i = 0; i < count; ++i) {
        const tagDownFileInfo& file = files.at(i);
        QJsonObject item = items.at(i).toObject();
        items.replace(i, QJsonValue());
        item.insert(QLatin1String("img_path"),
                    file.fileReady
                        ? QLatin1String("file:///") + QFileInfo(file.localPath).absoluteFilePath()
                        : PlaceholderPicture);
        item.insert(QLatin1String("img_cache"), file.useCache);
        items.replace(i, item);
    }

    dt.insert(QLatin1String("items"), items);
    top.insert(QLatin1String("dt"), dt);
    return QString::fromUtf8(QJsonDocument(top).toJson(QJsonDocument::Compact));
}
