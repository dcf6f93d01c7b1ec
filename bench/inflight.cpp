#include "inflight.h"

#include "cdownloadfileman.h"
#include "cloudserver.h"
#include "libcmn.h"
#include "localcloud.h"

#include <QDir>
#include <QStandardPaths>

#include <vector>

namespace kelobench {

namespace {

// A shop's Wi-Fi round trip, stood in for by the server holding each answer this long.
constexpr int AnswerDelayMs = 80;
constexpr int Pictures = 100;

// One cold sync of the menu with @p inFlight pictures at once, in ms; -1 if it did not complete
// or left placeholders.
double coldSync(const QString& menu, int inFlight)
{
    const QString images =
        QStandardPaths::standardLocations(QStandardPaths::AppLocalDataLocation).value(0) +
        QStringLiteral("/images");
    QDir(images).removeRecursively();
    CDownloadFileMan manager(false, nullptr);
    manager.setMaxPicturesInFlight(inFlight);
    QString result;
    QObject::connect(&manager, &CDownloadFileMan::NotifyComplete,
                     [&result](const QString& text) { result = text; });
    unsigned long long lastUpdate = 0;
    Libcmn::parseDataFoods(menu, manager, lastUpdate);
    manager.SetData(menu);
    const auto start = Clock::now();
    manager.StartDownload();
    const bool done = waitFor([&result] { return !result.isEmpty(); }, 120000);
    const double ms = msSince(start);
    if (!done || result.contains(QLatin1String("qrc:/icons"))) {
        qWarning("pictures in flight %d: the sync did not complete with every picture", inFlight);
        return -1;
    }
    return ms;
}

} // namespace

QList<Row> picturesInFlight(kelocloud::CloudServer& cloud)
{
    // The menu's own pictures (/pics/<id>.png), each answered after the delay.
    for (int i = 1; i <= Pictures; ++i) {
        const QByteArray path = QStringLiteral("/pics/%1.png").arg(i).toLatin1();
        cloud.scriptReply(path, {}, kelocloud::CloudReply{200, picture(i), {}, AnswerDelayMs, {}},
                          Runs * 3 + 3);
    }
    const QString menu = QString::fromUtf8(menuReply(cloud.hostPort(), Pictures));
    QList<Row> rows;
    double oneAtATime = -1;
    for (const int inFlight : {1, 3, 6}) {
        std::vector<double> times;
        for (int run = 0; run < Runs; ++run)
            times.push_back(coldSync(menu, inFlight));
        const double ms = median(times);
        if (inFlight == 1)
            oneAtATime = ms;
        rows += row(QStringLiteral("10 cold sync, %1 x 30 KB, answers after %2 ms, %3 in flight")
                        .arg(Pictures)
                        .arg(AnswerDelayMs)
                        .arg(inFlight),
                    QStringLiteral("ms"), ms, inFlight == 1 ? -1 : oneAtATime);
    }
    cloud.clearScripts();
    return rows;
}

} // namespace kelobench
