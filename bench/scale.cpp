#include "scale.h"

#include "bench.h"
#include "benchsupport.h"
#include "cloudserver.h"
#include "localcloud.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <cstdio>
#include <utility>

namespace kelobench {

namespace {

constexpr int ScalePictureBytes = 2 * 1024; // 10,000 of them fit on any disk and in the time
const int ScaleSizes[] = {100, 1000, 10000};

} // namespace

/// --scale-size: one size, in this process; prints one JSON line.
int scaleChild(int dishes)
{
    const std::unique_ptr<kelocloud::CloudServer> cloud = startLocalCloud();
    if (!cloud)
        return 1;
    Bench bench(*cloud, dishes, ScalePictureBytes);
    if (!bench.setUp())
        return 1;
    std::printf("%s\n", QJsonDocument(bench.scaleOne()).toJson(QJsonDocument::Compact).constData());
    return 0;
}

/// --scale: every size in a fresh child process (so that each peak memory is its own), on the
/// temporary folder's file system and, where there is one, on /dev/shm (tmpfs).
int scaleParent(const QString& datFile, const QString& jsonFile)
{
    struct Place
    {
        QString name, tmp;
    };
    QList<Place> places{{QStringLiteral("disk"), QDir::tempPath()}};
    if (QFileInfo(QStringLiteral("/dev/shm")).isWritable())
        places.append({QStringLiteral("tmpfs"), QStringLiteral("/dev/shm")});
    const double mb = 1024 * 1024;
    QJsonArray all;
    QList<Row> rows;
    QString dat = QStringLiteral("# place dishes cold_us warm_us rewrite_us peak_growth_mb "
                                 "goal_mb vmhwm_mb reply_kb load cloud_records_mb\n");
    std::printf("%-6s %7s %10s %8s %10s %8s %10s %8s %9s %10s %9s %9s %8s %5s\n", "place", "dishes",
                "cold[ms]", "us/dish", "warm[ms]", "us/dish", "rewr[ms]", "us/dish", "reply[KB]",
                "peak+[MB]", "cloud[MB]", "goal[MB]", "HWM[MB]", "load");
    for (const Place& place : places) {
        QHash<int, QJsonObject> bySize;
        for (const int dishes : ScaleSizes) {
            std::fprintf(stderr, "bench: scale, %s, %d dishes\n", qPrintable(place.name), dishes);
            QProcess child;
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert(QStringLiteral("TMPDIR"), place.tmp);
            child.setProcessEnvironment(env);
            child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
            child.start(QCoreApplication::applicationFilePath(),
                        {QStringLiteral("--scale-size"), QString::number(dishes)});
            QJsonObject o;
            if (child.waitForFinished(15 * 60 * 1000))
                o = QJsonDocument::fromJson(child.readAllStandardOutput().trimmed()).object();
            else
                child.kill();
            if (o.isEmpty()) {
                std::fprintf(stderr, "bench: scale, %d dishes: no result\n", dishes);
                continue;
            }
            o.insert(QStringLiteral("place"), place.name);
            all.append(o);
            bySize.insert(dishes, o);
            const double n = dishes;
            const double cold = o.value("cold_ms").toDouble(), warm = o.value("warm_ms").toDouble(),
                         rewrite = o.value("rewrite_ms").toDouble();
            const double reply = o.value("reply_bytes").toDouble();
            const double growth = o.value("peak_growth_bytes").toDouble() / mb;
            const double hwm = o.value("vmhwm_bytes").toDouble() / mb;
            const double records = o.value("cloud_records_bytes").toDouble() / mb;
            const double goal = (3 * reply + 20 * mb) / mb;
            const QString load = o.value("load").toString();
            dat += QStringLiteral("%1 %2 %3 %4 %5 %6 %7 %8 %9 %10 %11\n")
                       .arg(place.name)
                       .arg(dishes)
                       .arg(cold * 1000 / n)
                       .arg(warm * 1000 / n)
                       .arg(rewrite * 1000 / n)
                       .arg(growth)
                       .arg(goal)
                       .arg(hwm)
                       .arg(reply / 1024)
                       .arg(load)
                       .arg(records);
            std::printf("%-6s %7d %10.1f %8.2f %10.2f %8.2f %10.2f %8.3f %9.0f %10.1f %9.1f %9.1f "
                        "%8.1f %5s\n",
                        qPrintable(place.name), dishes, cold, cold * 1000 / n, warm,
                        warm * 1000 / n, rewrite, rewrite * 1000 / n, reply / 1024, growth, records,
                        goal, hwm, qPrintable(load));
            std::fflush(stdout);
        }
        dat += QStringLiteral("\n\n"); // one gnuplot data block per place
        const QJsonObject small = bySize.value(100), large = bySize.value(10000);
        if (small.isEmpty() || large.isEmpty())
            continue;
        auto perDish = [&](const char* key) {
            return std::make_pair(large.value(key).toDouble() * 1000 / 10000,
                                  small.value(key).toDouble() * 1000 / 100);
        };
        const QString where = QStringLiteral(" (") + place.name + QStringLiteral(")");
        const auto cold = perDish("cold_ms"), warm = perDish("warm_ms"),
                   rewrite = perDish("rewrite_ms");
        rows +=
            row(QStringLiteral("S cold sync per dish, 10k vs 100") + where, QStringLiteral("us"),
                cold.first, cold.second, QStringLiteral("ratio <= 1.2"), true, 1.2);
        rows +=
            row(QStringLiteral("S warm sync per dish, 10k vs 100") + where, QStringLiteral("us"),
                warm.first, warm.second, QStringLiteral("ratio <= 1.2"), true, 1.2);
        rows += row(QStringLiteral("S rewrite per dish, 10k vs 100") + where, QStringLiteral("us"),
                    rewrite.first, rewrite.second, QStringLiteral("ratio <= 1.2"), true, 1.2);
        const double goal = (3 * large.value("reply_bytes").toDouble() + 20 * mb) / mb;
        const double growth = large.value("peak_growth_bytes").toDouble() / mb;
        rows += row(QStringLiteral("S peak RSS growth, 10k sync") + where, QStringLiteral("MB"),
                    growth, -1, QStringLiteral("sdk <= %1").arg(goal, 0, 'f', 1), false, goal);
        rows +=
            row(QStringLiteral("S the same less the cloud's records") + where, QStringLiteral("MB"),
                growth - large.value("cloud_records_bytes").toDouble() / mb, -1,
                QStringLiteral("sdk <= %1").arg(goal, 0, 'f', 1), false, goal);
    }
    std::printf("\nIn the S rows the SDK column is 10,000 dishes and the baseline column 100; the "
                "memory goal is 3x the reply plus 20 MB.\n");
    printTable(rows);
    if (!datFile.isEmpty()) {
        QFile file(datFile);
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            file.write(dat.toUtf8());
    }
    if (!jsonFile.isEmpty()) {
        QFile file(jsonFile);
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            file.write(QJsonDocument(QJsonObject{{"machine", machine()},
                                                 {"picture_bytes", ScalePictureBytes},
                                                 {"sizes", all}})
                           .toJson());
    }
    return rows.isEmpty() ? 1 : 0;
}

} // namespace kelobench
