#include "catalogue.h"

#include "cdownloadfileman.h"
#include "libcmn.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

namespace kelobench {

namespace {

constexpr int CatalogueDishes = 10000;

} // namespace

QString bigCatalogue(int dishes)
{
    QJsonArray items;
    for (int i = 1; i <= dishes; ++i)
        items.append(QJsonObject{{"item_id", i},
                                 {"item_name", QStringLiteral("Dish number %1").arg(i)},
                                 {"price", 25000 + i},
                                 {"img_path", QStringLiteral("/pics/%1.png").arg(i)},
                                 {"img_crc", QStringLiteral("1700000000000")}});
    const QJsonObject dt{{"img_host", QStringLiteral("https://127.0.0.1:8443")},
                         {"last_update", 1700000000},
                         {"items", items}};
    return QString::fromUtf8(
        QJsonDocument(QJsonObject{{"err", 0}, {"dt", dt}}).toJson(QJsonDocument::Compact));
}

QString sdkRewrite(const QString& text)
{
    CDownloadFileMan manager(false, nullptr);
    unsigned long long stamp = 0;
    Libcmn::parseDataFoods(text, manager, stamp);
    for (tagDownFileInfo& info : manager.GetListFile())
        info.fileReady = true;
    return Libcmn::updateDataFoods(text, manager);
}

QString rawRewrite(const QString& text)
{
    const QJsonDocument first = QJsonDocument::fromJson(text.toUtf8());
    const QJsonDocument second = QJsonDocument::fromJson(text.toUtf8());
    Q_UNUSED(first)
    return QString::fromUtf8(second.toJson(QJsonDocument::Compact));
}

Row catalogueCpu()
{
    const QString text = bigCatalogue(CatalogueDishes);
    std::vector<double> sdk, raw;
    for (int i = 0; i < Runs; ++i) {
        auto t = Clock::now();
        const QString a = rawRewrite(text);
        raw.push_back(msSince(t));
        t = Clock::now();
        const QString b = sdkRewrite(text);
        sdk.push_back(msSince(t));
        if (a.isEmpty() || b.isEmpty())
            qWarning("catalogue rewrite produced nothing");
    }
    return row(QStringLiteral("4 catalogue rewrite, 10k dishes"), QStringLiteral("ms"), median(sdk),
               median(raw), QStringLiteral("ratio <= 1.3"), true, 1.3);
}

int callgrindMode(const QString& which, int dishes)
{
    const QString text = bigCatalogue(dishes > 0 ? dishes : CatalogueDishes);
    QString out;
    if (which == QLatin1String("sdk"))
        out = sdkRewrite(text);
    else if (which == QLatin1String("baseline"))
        out = rawRewrite(text);
    std::printf("%lld\n", static_cast<long long>(out.size())); // int in Qt 5, qsizetype in Qt 6
    return 0;
}

} // namespace kelobench
