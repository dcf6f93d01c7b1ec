// Compares the SDK with what an integrator would write by hand, against the in-process local
// cloud on loopback. Prints one table and writes it as JSON. Nothing here asserts on time: the
// figures are medians over repeated runs, SDK and baseline interleaved (the machine is shared).
//
//   kelo_bench [--json FILE] [--callgrind-counts SDK BASE] [--lib-size BYTES]
//              [--lib-size-armhf BYTES] [--idle-seconds N]
//   kelo_bench --only menu                     (the menu sync alone, for a profiler)
//   kelo_bench --only reply-cap                (the refused 200 MB answer alone)
//   kelo_bench --only pictures-in-flight       (a cold sync of 100 pictures answered after 80 ms
//                                               each, with 1, 3 and 6 pictures in flight)
//   kelo_bench --callgrind sdk|baseline|none [--dishes N]
//                                              (one catalogue rewrite, for valgrind)
//   kelo_bench --scale [--scale-dat FILE]      (menu sync and rewrite at 100, 1,000, 10,000
//                                               dishes, each size in a fresh child process)
//   kelo_bench --scale-size N                  (one size of --scale; prints one JSON line)
//   kelo_bench --idle-sdk N [--cloud-exe PATH] (the SDK alone idling N s against kelo-cloud
//                                               run as another process; prints one JSON line)
//   kelo_bench --link PROFILE [--dishes N] [--what
//   request,cold,cold-one,warm,pictures,channel,outage]
//              [--cold-runs N] [--outage-seconds S] [--json FILE]
//                                              (on the network lab's terminal side, against
//                                               KELO_LAB_API; merges its rows into FILE)
//   kelo_bench --link-report FILE              (every lab run's rows of FILE as one table)
//   kelo_bench --day SECONDS [--seed N] [--day-dat FILE] [--day-report FILE] [--day-plot PNG]
//                                              (a shop day on the lab's terminal side; exit 1 on
//                                               any violation of its books, see bench/day.cpp)

#include "bench.h"
#include "benchsupport.h"
#include "catalogue.h"
#include "cloudserver.h"
#include "day.h"
#include "idle.h"
#include "inflight.h"
#include "link.h"
#include "localcloud.h"
#include "scale.h"

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>

#include <cstdio>

using namespace kelobench;

int main(int argc, char** argv)
{
    // The picture cache lives under XDG_DATA_HOME: a fresh one per run, set before Qt reads it.
    QTemporaryDir dataHome(QDir::tempPath() + QStringLiteral("/kelo-bench-XXXXXX"));
    qputenv("XDG_DATA_HOME", dataHome.path().toUtf8());
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kelo_bench"));
    const QStringList args = QCoreApplication::arguments();
    auto option = [&](const char* name) {
        const int i = args.indexOf(QLatin1String(name));
        return i >= 0 && i + 1 < args.size() ? args.at(i + 1) : QString();
    };
    if (args.contains(QStringLiteral("--day"))) {
        DayOptions day;
        day.seconds = option("--day").toInt();
        if (!option("--seed").isEmpty())
            day.seed = option("--seed").toUInt();
        day.dat = option("--day-dat");
        day.report = option("--day-report");
        day.plot = option("--day-plot");
        if (day.seconds < 10) {
            std::fprintf(stderr, "kelo_bench --day SECONDS: at least 10 seconds\n");
            return 2;
        }
        return dayMode(day);
    }
    if (args.contains(QStringLiteral("--callgrind")))
        return callgrindMode(option("--callgrind"), option("--dishes").toInt());
    if (args.contains(QStringLiteral("--idle-sdk")))
        return idleChild(option("--idle-sdk").toInt(), option("--cloud-exe"));
    if (args.contains(QStringLiteral("--scale-size")))
        return scaleChild(option("--scale-size").toInt());
    if (args.contains(QStringLiteral("--link"))) {
        const QString what = option("--what");
        return linkMode(
            option("--link"), option("--dishes").toInt(),
            what.isEmpty() ? QStringList() : what.split(QLatin1Char(',')), option("--json"),
            option("--cold-runs").isEmpty() ? 3 : option("--cold-runs").toInt(),
            option("--outage-seconds").isEmpty() ? 25 : option("--outage-seconds").toInt());
    }
    if (args.contains(QStringLiteral("--link-report")))
        return linkReport(option("--link-report"));
    if (args.contains(QStringLiteral("--scale")))
        return scaleParent(option("--scale-dat"), option("--json"));

    QList<Row> rows;
    const std::unique_ptr<kelocloud::CloudServer> cloud = startLocalCloud();
    if (!cloud)
        return 1;

    Bench bench(*cloud);
    if (!bench.setUp())
        return 1;
    // Each phase with the machine's load as it starts (the machine is shared).
    auto phase = [](const char* name) {
        std::fprintf(stderr, "bench: %s (load %s)\n", name,
                     qPrintable(machine().value(QStringLiteral("load")).toString()));
    };
    // --only menu: the menu sync alone (for a profiler)
    if (option("--only") == QLatin1String("menu")) {
        printTable(bench.menuSync());
        return 0;
    }
    // --only pictures-in-flight: one at a time against several at once
    if (option("--only") == QLatin1String("pictures-in-flight")) {
        printTable(picturesInFlight(*cloud));
        return 0;
    }
    // --only reply-cap: the refused 200 MB answer alone
    if (option("--only") == QLatin1String("reply-cap")) {
        printTable({bench.refusedHugeAnswer()});
        return 0;
    }
    phase("menu sync");
    rows += bench.menuSync();
    phase("round trip");
    rows += bench.roundTrip();
    phase("catalogue rewrite");
    rows += catalogueCpu();
    const QStringList counts = args.mid(args.indexOf(QStringLiteral("--callgrind-counts")) + 1, 2);
    if (args.contains(QStringLiteral("--callgrind-counts")) && counts.size() == 2)
        rows += row(QStringLiteral("4 catalogue rewrite, callgrind"), QStringLiteral("Minstr"),
                    counts.at(0).toDouble() / 1e6, counts.at(1).toDouble() / 1e6,
                    QStringLiteral("ratio <= 1.3"), true, 1.3);
    phase("push latency");
    rows += bench.pushLatency(false);
    phase("push latency, pinned apart");
    rows += bench.pushLatency(true);
    const int idleSeconds =
        option("--idle-seconds").isEmpty() ? 60 : option("--idle-seconds").toInt();
    phase("idle");
    rows += Bench::idleAlone(idleSeconds, option("--cloud-exe"));
    phase("reconnect");
    rows += bench.reconnect();
    phase("reply cap");
    rows += bench.refusedHugeAnswer();
    if (!option("--lib-size").isEmpty())
        rows += row(QStringLiteral("8 stripped libkelo.so.1 x86-64"), QStringLiteral("KB"),
                    option("--lib-size").toDouble() / 1024, -1);
    if (!option("--lib-size-armhf").isEmpty())
        rows += row(QStringLiteral("8 stripped libkelo.so.1 armhf"), QStringLiteral("KB"),
                    option("--lib-size-armhf").toDouble() / 1024, -1);

    printTable(rows);
    const QString json = option("--json");
    if (!json.isEmpty())
        writeJson(rows, json);
    return 0;
}
