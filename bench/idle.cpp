#include "idle.h"

#include "benchsupport.h"
#include "devca.h"
#include "kelosdk.h"
#include "libcmn.h"
#include "localcloud.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace kelobench {

/// --idle-sdk: kelo-cloud started as another process, one connected Kelosdk in this one, then
/// this process's own CPU time (getrusage) and resident size over @p seconds of idling. Nothing
/// of the bench wakes the event loop meanwhile. Prints one JSON line; 1 if the SDK never connected.
int idleChild(int seconds, QString cloudExe)
{
    if (cloudExe.isEmpty())
        cloudExe = QCoreApplication::applicationDirPath() + QStringLiteral("/../tools/kelo-cloud");
    QTemporaryDir dir;
    QProcess cloudProcess;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("KELO_CLOUD_KEY"), Libcmn::keloSecretkey());
    cloudProcess.setProcessEnvironment(env);
    cloudProcess.setStandardOutputFile(dir.filePath(QStringLiteral("cloud.out")));
    cloudProcess.setStandardErrorFile(QProcess::nullDevice());
    cloudProcess.start(cloudExe, {QStringLiteral("--port"), QStringLiteral("0"),
                                  QStringLiteral("--ca-dir"), dir.filePath(QStringLiteral("ca"))});
    QString host, caPath;
    waitFor(
        [&] {
            QFile out(dir.filePath(QStringLiteral("cloud.out")));
            if (!out.open(QIODevice::ReadOnly))
                return false;
            for (const QByteArray& line : out.readAll().split('\n')) {
                if (line.startsWith("kelo-cloud listening on "))
                    host = QString::fromUtf8(line.mid(24)).trimmed();
                if (line.startsWith("kelo-cloud CA certificate: "))
                    caPath = QString::fromUtf8(line.mid(27)).trimmed();
            }
            return !host.isEmpty() && !caPath.isEmpty();
        },
        20000);
    QFile ca(caPath);
    if (host.isEmpty() || !ca.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "idle: kelo-cloud (%s) did not start\n", qPrintable(cloudExe));
        return 1;
    }
    kelocloud::trustCertificateAuthority(ca.readAll());
    qputenv("KELO_SERVER_HOST", host.toUtf8());

    bool connected = false;
    Kelosdk sdk(QString::fromLatin1(Merchant), QStringLiteral("POS-IDLE"), false);
    QObject::connect(&sdk, &Kelosdk::cloudConnectionChange, [&](bool up) { connected = up; });
    if (!waitFor([&] { return connected; })) {
        std::fprintf(stderr, "idle: the SDK did not connect to kelo-cloud\n");
        return 1;
    }
    auto cpuSeconds = [] {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage); // this process only, not kelo-cloud
        return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
               (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    };
    auto rssBytes = [] {
        long pages = 0, resident = 0;
        if (FILE* f = std::fopen("/proc/self/statm", "r")) {
            if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2)
                resident = 0;
            std::fclose(f);
        }
        return static_cast<double>(resident) * sysconf(_SC_PAGESIZE);
    };
    // A first keep-alive round settles before the count starts.
    QEventLoop loop;
    QTimer::singleShot(4000, &loop, &QEventLoop::quit);
    loop.exec();
    const double cpu0 = cpuSeconds(), rss0 = rssBytes();
    const auto start = Clock::now();
    QTimer::singleShot(seconds * 1000, &loop, &QEventLoop::quit);
    loop.exec();
    const double cpu = cpuSeconds() - cpu0;
    const double wall = msSince(start) / 1000;
    const QJsonObject result{{"cpu_percent", 100 * cpu / wall},
                             {"cpu_seconds", cpu},
                             {"wall_seconds", wall},
                             {"still_connected", connected},
                             {"rss_growth_mb", std::max(0.0, rssBytes() - rss0) / (1024 * 1024)}};
    std::printf("%s\n", QJsonDocument(result).toJson(QJsonDocument::Compact).constData());
    std::fflush(stdout);
    cloudProcess.terminate();
    cloudProcess.waitForFinished(5000);
    return connected ? 0 : 1;
}

} // namespace kelobench
