#include "bench.h"

#include "catalogue.h"
#include "cloudserver.h"
#include "kelosdk.h"
#include "libcmn.h"
#include "localcloud.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>
#include <QUrlQuery>
#include <QWebSocket>

#include <malloc.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace kelobench {

namespace {

constexpr int Pushes = 10000; // per side
constexpr int ScaleRuns = 3;
constexpr int Reconnects = 5;

} // namespace

Bench::Bench(kelocloud::CloudServer& cloud, int dishes, int pictureBytes)
    : cloud(cloud), dishes(dishes), pictureBytes(pictureBytes)
{
}

Bench::~Bench() = default;

bool Bench::setUp()
{
    const QString host = cloud.hostPort();
    for (int i = 1; i <= dishes; ++i)
        cloud.putFile(QStringLiteral("/pics/%1.png").arg(i).toLatin1(), picture(i, pictureBytes));
    kelocloud::CloudReply menu;
    menu.body = menuReply(host, dishes);
    replyBytes = menu.body.size();
    cloud.scriptReply("/kelo/api/item/", QStringLiteral("getlist"), menu, 1000000);
    sdk.reset(new Kelosdk(QString::fromLatin1(Merchant), QStringLiteral("POS-BENCH"), false));
    QObject::connect(sdk.get(), &Kelosdk::cloudConnectionChange, [this](bool up) {
        connected = up;
        if (up)
            connectedAt = Clock::now();
    });
    QObject::connect(sdk.get(), &Kelosdk::networkError, [](int code, const QString& text) {
        qWarning("SDK network error %d: %s", code, qPrintable(text));
    });
    QObject::connect(sdk.get(), &Kelosdk::keloappError, [](int code, const QString& text) {
        qWarning("SDK error %d: %s", code, qPrintable(text));
    });
    if (!waitFor([this] { return connected; })) {
        qWarning("the SDK did not connect its notification channel");
        return false;
    }
    return true;
}

QString Bench::pictureDir() const
{
    return QDir(QStandardPaths::standardLocations(QStandardPaths::AppLocalDataLocation).value(0))
               .absolutePath() +
           QStringLiteral("/images");
}

double Bench::sdkFoods(int timeoutMs)
{
    bool done = false;
    auto c = QObject::connect(sdk.get(), &Kelosdk::foodsRequestDone, [&](const QString& menu) {
        done = true;
        // a sync that fell back to placeholders would be cheap
        if (menu.contains(QLatin1String("qrc:/icons")))
            qWarning("menu sync left placeholder pictures");
    });
    const auto start = Clock::now();
    sdk->foodsRequest();
    if (!waitFor([&] { return done; }, timeoutMs))
        qWarning("foodsRequestDone did not come");
    const double ms = msSince(start);
    QObject::disconnect(c);
    return ms;
}

QUrl Bench::requestUrl(const QByteArray& path, const QString& cm)
{
    const QList<kelocloud::CloudExchange> seen = cloud.exchanges(path, cm);
    if (seen.isEmpty())
        return {};
    return QUrl(QStringLiteral("https://") + cloud.hostPort() +
                QString::fromLatin1(seen.constLast().target));
}

/// The integrator's menu sync: catalogue, then every picture one at a time into files.
double Bench::bareFoods(const QUrl& menuUrl, const QString& dir)
{
    QNetworkAccessManager nam;
    const auto start = Clock::now();
    QByteArray body;
    bareGet(nam, menuUrl, &body);
    const QJsonObject dt = QJsonDocument::fromJson(body).object().value("dt").toObject();
    const QString host = dt.value("img_host").toString();
    for (const QJsonValue& item : dt.value("items").toArray()) {
        const QJsonObject o = item.toObject();
        QByteArray bytes;
        bareGet(nam, QUrl(host + o.value("img_path").toString()), &bytes);
        QFile file(dir + QStringLiteral("/%1.png").arg(o.value("item_id").toInt()));
        if (file.open(QIODevice::WriteOnly))
            file.write(bytes);
    }
    return msSince(start);
}

QList<Row> Bench::menuSync()
{
    sdkFoods(); // finds the request's address, warms TLS session caches alike for both
    const QUrl menuUrl = requestUrl("/kelo/api/item/", QStringLiteral("getlist"));
    std::vector<double> coldSdk, coldBare, warmSdk, warmBare, warmPictures;
    for (int i = 0; i < Runs; ++i) {
        QTemporaryDir bareDir;
        coldBare.push_back(bareFoods(menuUrl, bareDir.path()));
        QDir(pictureDir()).removeRecursively();
        const int before = cloud.exchanges("/pics/").size();
        coldSdk.push_back(sdkFoods());
        if (cloud.exchanges("/pics/").size() - before != Dishes)
            qWarning("a cold menu sync did not fetch every picture");
    }
    for (int i = 0; i < Runs; ++i) {
        QNetworkAccessManager nam;
        warmBare.push_back(bareGet(nam, menuUrl));
        const int before = cloud.exchanges("/pics/").size();
        warmSdk.push_back(sdkFoods());
        warmPictures.push_back(cloud.exchanges("/pics/").size() - before);
    }
    QList<Row> parts = warmParts();
    return parts +
           QList<Row>{
               row(QStringLiteral("1 cold menu sync, 300 x 30 KB"), QStringLiteral("ms"),
                   median(coldSdk), median(coldBare), QStringLiteral("ratio <= 1.15"), true, 1.15),
               row(QStringLiteral("2 warm menu sync: picture requests"), QStringLiteral("count"),
                   median(warmPictures), -1, QStringLiteral("sdk <= 0"), false, 0),
               row(QStringLiteral("2 warm menu sync vs one catalogue GET"), QStringLiteral("ms"),
                   median(warmSdk), median(warmBare), QStringLiteral("ratio <= 1.5"), true, 1.5)};
}

/// What a warm sync of this menu does besides the catalogue GET, each part timed alone on
/// the same 300 dishes: one queued step per dish through the event loop (the picture
/// manager's steps are queued connections), one stat per cached picture, and the parse and
/// rewrite of the menu.
QList<Row> Bench::warmParts()
{
    std::vector<double> steps, stats, rewrite;
    const QStringList files = QDir(pictureDir()).entryList(QDir::Files);
    const QString text = QString::fromUtf8(menuReply(cloud.hostPort(), dishes));
    for (int run = 0; run < Runs; ++run) {
        QObject target;
        int left = dishes;
        std::function<void()> step = [&] {
            if (--left > 0)
                QMetaObject::invokeMethod(&target, step, Qt::QueuedConnection);
        };
        auto t = Clock::now();
        QMetaObject::invokeMethod(&target, step, Qt::QueuedConnection);
        waitFor([&] { return left <= 0; });
        steps.push_back(msSince(t));

        t = Clock::now();
        struct stat status;
        int regular = 0;
        for (const QString& name : files)
            if (::stat(QFile::encodeName(pictureDir() + QLatin1Char('/') + name).constData(),
                       &status) == 0 &&
                S_ISREG(status.st_mode))
                ++regular;
        stats.push_back(msSince(t));
        if (regular != dishes)
            qWarning("warm parts: %d cached pictures, not %d", regular, dishes);

        t = Clock::now();
        const QString out = sdkRewrite(text);
        rewrite.push_back(msSince(t));
        if (out.isEmpty())
            qWarning("warm parts: the rewrite produced nothing");
    }
    return {row(QStringLiteral("2a warm part: a queued step per dish"), QStringLiteral("ms"),
                median(steps), -1),
            row(QStringLiteral("2b warm part: a stat per picture"), QStringLiteral("ms"),
                median(stats), -1),
            row(QStringLiteral("2c warm part: parse and rewrite the menu"), QStringLiteral("ms"),
                median(rewrite), -1)};
}

/// One size of --scale: cold and warm menu syncs of this bench's menu, the rewrite alone,
/// and the most resident memory any one sync added (VmHWM after it, reset before it, less
/// the resident size before it; the in-process cloud serving the sync counts too). The picture
/// folder is the cache of XDG_DATA_HOME, below TMPDIR.
QJsonObject Bench::scaleOne()
{
    std::vector<double> cold, warm, rewrite;
    double peakGrowth = 0;
    const int timeout = 600000;
    // The first sync (cold, TLS sessions and the request's address as in menuSync) counts
    // for the peak too: the memory it takes is then at hand for the next ones.
    resetPeakRss();
    const double first = residentBytes("VmRSS:");
    sdkFoods(timeout);
    peakGrowth = std::max(peakGrowth, residentBytes("VmHWM:") - first);
    // The in-process cloud keeps a record of every request; what freeing them gives back is
    // the simulator's part of the peak, not the SDK's.
    malloc_trim(0);
    const double withRecords = residentBytes("VmRSS:");
    cloud.clearExchanges();
    malloc_trim(0);
    const double cloudRecords = std::max(0.0, withRecords - residentBytes("VmRSS:"));
    for (int i = 0; i < ScaleRuns; ++i) {
        QDir(pictureDir()).removeRecursively();
        cloud.clearExchanges();
        resetPeakRss();
        double before = residentBytes("VmRSS:");
        cold.push_back(sdkFoods(timeout));
        peakGrowth = std::max(peakGrowth, residentBytes("VmHWM:") - before);
        if (QDir(pictureDir()).entryList(QDir::Files).size() != dishes)
            qWarning("scale: a cold sync left %d pictures, not %d",
                     int(QDir(pictureDir()).entryList(QDir::Files).size()), dishes);
        cloud.clearExchanges();
        resetPeakRss();
        before = residentBytes("VmRSS:");
        warm.push_back(sdkFoods(timeout));
        peakGrowth = std::max(peakGrowth, residentBytes("VmHWM:") - before);
        if (!cloud.exchanges("/pics/").isEmpty())
            qWarning("scale: a warm sync fetched pictures");
    }
    const QString text = bigCatalogue(dishes);
    for (int i = 0; i < Runs; ++i) {
        const auto t = Clock::now();
        if (sdkRewrite(text).isEmpty())
            qWarning("scale: the rewrite produced nothing");
        rewrite.push_back(msSince(t));
    }
    QFile loadavg(QStringLiteral("/proc/loadavg"));
    const QString load = loadavg.open(QIODevice::ReadOnly)
                             ? QString::fromLatin1(loadavg.readAll()).section(' ', 0, 0)
                             : QString();
    return {{"dishes", dishes},
            {"cold_ms", median(cold)},
            {"warm_ms", median(warm)},
            {"rewrite_ms", median(rewrite)},
            {"reply_bytes", replyBytes},
            {"peak_growth_bytes", peakGrowth},
            {"cloud_records_bytes", cloudRecords},
            {"vmhwm_bytes", residentBytes("VmHWM:")},
            {"load", load}};
}

Row Bench::roundTrip()
{
    std::vector<double> s, b;
    auto tableRequest = [&] {
        bool done = false;
        auto c = QObject::connect(sdk.get(), &Kelosdk::tableRequestDone,
                                  [&](const QString&) { done = true; });
        const auto start = Clock::now();
        sdk->tableRequest();
        waitFor([&] { return done; });
        QObject::disconnect(c);
        return msSince(start);
    };
    tableRequest();
    const QUrl url = requestUrl("/kelo/api/table/", QStringLiteral("getlist"));
    for (int i = 0; i < Runs * 3; ++i) {
        QNetworkAccessManager nam; // a new connection per request, as the SDK had before its pool
        b.push_back(bareGet(nam, url));
        s.push_back(tableRequest());
    }
    return row(QStringLiteral("3 request round trip (tableRequest)"), QStringLiteral("ms"),
               median(s), median(b), QStringLiteral("ratio <= 1.10"), true, 1.10);
}

/// A bare QWebSocket of its own device, admitted the way any client is.
bool Bench::openBareSocket(QWebSocket& socket, const QString& devid)
{
    QNetworkAccessManager nam;
    QNetworkRequest request(
        QUrl(QStringLiteral("https://%1/kelo/api/common").arg(cloud.hostPort())));
    request.setHeader(QNetworkRequest::ContentTypeHeader,
                      QStringLiteral("application/x-www-form-urlencoded"));
    QUrlQuery form;
    form.addQueryItem(QStringLiteral("cm"), QStringLiteral("get_ws_session"));
    form.addQueryItem(QStringLiteral("dt"),
                      Libcmn::formatWsSession(QString::fromLatin1(Merchant), devid));
    QNetworkReply* reply = nam.post(request, form.query(QUrl::FullyEncoded).toUtf8());
    bool finished = false;
    QObject::connect(reply, &QNetworkReply::finished, [&] { finished = true; });
    waitFor([&] { return finished; });
    QString session;
    Libcmn::parseWsSid(QString::fromUtf8(reply->readAll()), &session);
    reply->deleteLater();
    bool open = false;
    QObject::connect(&socket, &QWebSocket::connected, [&] { open = true; });
    socket.open(QUrl(
        Libcmn::formatWsConnectString(QStringLiteral("wss://%1/kelo/ntf/").arg(cloud.hostPort()),
                                      QString::fromLatin1(Merchant), devid, session)));
    return waitFor([&] { return open; }, 10000);
}

QString Bench::sdkDevice()
{
    const QList<kelocloud::CloudUpgrade> ups = cloud.upgrades();
    for (auto it = ups.crbegin(); it != ups.crend(); ++it)
        if (it->accepted && !it->query.queryItemValue("devid").startsWith("bench-bare"))
            return it->query.queryItemValue(QStringLiteral("devid"));
    return {};
}

/// Server push to arrival, SDK and a bare QWebSocket interleaved. @p pinned: the client (this
/// thread: the SDK and the bare socket) on the last core, every other thread of the process
/// (the cloud's among them) on the first, then all back on every core.
QList<Row> Bench::pushLatency(bool pinned)
{
    const QString bareDev =
        pinned ? QStringLiteral("bench-bare-pinned") : QStringLiteral("bench-bare");
    QWebSocket bare;
    if (!openBareSocket(bare, bareDev)) {
        qWarning("the bare WebSocket did not open");
        return {};
    }
    const QString sdkDev = sdkDevice();
    std::vector<double> s, b;
    bool got = false;
    auto arrival = [&](std::vector<double>& into, const QString& word) {
        const auto sent = Clock::time_point(Clock::duration(word.mid(1).toLongLong()));
        into.push_back(std::chrono::duration<double, std::milli>(Clock::now() - sent).count());
        got = true;
    };
    const auto toSdk = QObject::connect(sdk.get(), &Kelosdk::notify,
                                        [&](const QString& word) { arrival(s, word); });
    QObject::connect(&bare, &QWebSocket::textMessageReceived, [&](const QString& text) {
        arrival(b, QJsonDocument::fromJson(text.toUtf8()).object().value("msg").toString());
    });
    auto push = [&](const QString& devid) {
        got = false;
        const QByteArray frame =
            QByteArray(R"({"msg":"t)") +
            QByteArray::number(static_cast<qlonglong>(Clock::now().time_since_epoch().count())) +
            "\"}";
        if (!cloud.pushText(devid, frame))
            return;
        waitFor([&] { return got; }, 5000);
    };
    const bool pinnedApart = pinned && pinApart(true);
    if (pinned && !pinnedApart)
        qWarning("push latency: the threads could not be pinned apart");
    for (int i = 0; i < Pushes; ++i) {
        push(bareDev);
        push(sdkDev);
    }
    if (pinned)
        pinApart(false);
    QObject::disconnect(toSdk);
    if (s.size() < size_t(Pushes) || b.size() < size_t(Pushes))
        qWarning("push latency: %d and %d of %d pushes arrived", int(s.size()), int(b.size()),
                 Pushes);
    const QString how = pinned ? QStringLiteral(", pinned apart") : QString();
    return {row(QStringLiteral("5 push latency p50") + how, QStringLiteral("ms"),
                percentile(s, 0.5), percentile(b, 0.5)),
            row(QStringLiteral("5 push latency p99") + how, QStringLiteral("ms"),
                percentile(s, 0.99), percentile(b, 0.99), QStringLiteral("sdk <= 2"), false, 2),
            row(QStringLiteral("5 push latency p99.9") + how, QStringLiteral("ms"),
                percentile(s, 0.999), percentile(b, 0.999))};
}

/// @p apart: this thread on the last core, the process's other threads on the first;
/// otherwise every thread on every core. False if there is one core or it failed.
bool Bench::pinApart(bool apart)
{
    const long cores = sysconf(_SC_NPROCESSORS_ONLN);
    if (cores < 2)
        return false;
    cpu_set_t all, first, last;
    CPU_ZERO(&all);
    CPU_ZERO(&first);
    CPU_ZERO(&last);
    for (long i = 0; i < cores; ++i)
        CPU_SET(i, &all);
    CPU_SET(0, &first);
    CPU_SET(cores - 1, &last);
    const pid_t self = static_cast<pid_t>(syscall(SYS_gettid));
    bool ok = true;
    for (const QString& task : QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs)) {
        const pid_t tid = task.toInt();
        if (tid <= 0)
            continue;
        const cpu_set_t* set = !apart ? &all : tid == self ? &last : &first;
        // A thread that ended since the listing (a pool's idle thread) is no failure.
        if (sched_setaffinity(tid, sizeof(cpu_set_t), set) != 0 && errno != ESRCH)
            ok = false;
    }
    return ok;
}

/// The SDK alone in a child process, kelo-cloud in another; the child's own getrusage.
QList<Row> Bench::idleAlone(int seconds, const QString& cloudExe)
{
    QProcess child;
    child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    child.start(QCoreApplication::applicationFilePath(),
                {QStringLiteral("--idle-sdk"), QString::number(seconds),
                 QStringLiteral("--cloud-exe"), cloudExe});
    QJsonObject result;
    if (child.waitForFinished((seconds + 120) * 1000))
        result = QJsonDocument::fromJson(child.readAllStandardOutput()).object();
    else
        child.kill();
    if (result.isEmpty())
        qWarning("idle: the SDK's child process gave no figure");
    const double cpu = result.value(QStringLiteral("cpu_percent")).toDouble(-1);
    const double rss = result.value(QStringLiteral("rss_growth_mb")).toDouble(-1);
    return {row(QStringLiteral("6 idle CPU (SDK process alone, kelo-cloud apart)"),
                QStringLiteral("% core"), cpu, -1, QStringLiteral("sdk <= 0.1"), false, 0.1),
            row(QStringLiteral("6 idle RSS growth"), QStringLiteral("MB"), rss, -1,
                QStringLiteral("sdk <= 8"), false, 8)};
}

Row Bench::reconnect()
{
    std::vector<double> times;
    for (int i = 0; i < Reconnects; ++i) {
        cloud.goDown();
        if (!waitFor([this] { return !connected; }, 15000))
            qWarning("the SDK did not notice the outage");
        const auto back = Clock::now();
        cloud.comeBack();
        if (!waitFor([this] { return connected; }, 30000)) {
            qWarning("the SDK did not reconnect");
            continue;
        }
        times.push_back(std::chrono::duration<double, std::milli>(connectedAt - back).count());
    }
    return row(QStringLiteral("7 reconnect after comeBack (floor ~3 s)"), QStringLiteral("ms"),
               median(times), -1);
}

/// Peak resident memory growth while the SDK refuses a 200 MB answer streamed in chunks
/// (no Content-Length to refuse it on): the reply cap must bound what is buffered.
Row Bench::refusedHugeAnswer()
{
    constexpr qint64 Huge = 200LL * 1024 * 1024;
    kelocloud::CloudReply huge;
    huge.streamBytes = Huge;
    huge.chunked = true;
    cloud.scriptReply("/kelo/api/table/", QStringLiteral("getlist"), huge);
    int code = 0;
    bool answered = false;
    auto failed = QObject::connect(sdk.get(), &Kelosdk::networkError,
                                   [&](int error, const QString&) { code = error; });
    auto done = QObject::connect(sdk.get(), &Kelosdk::tableRequestDone,
                                 [&](const QString&) { answered = true; });
    // The kernel's peak (VmHWM) is reset first where it can be; otherwise it is sampled.
    const bool kernelPeak = resetPeakRss();
    const double before = residentBytes("VmRSS:");
    double sampled = before;
    QTimer sample;
    QObject::connect(&sample, &QTimer::timeout,
                     [&] { sampled = std::max(sampled, residentBytes("VmRSS:")); });
    sample.start(2);
    const qint64 sentBefore = cloud.streamedBytes();
    sdk->tableRequest();
    if (!waitFor([&] { return code != 0 || answered; }, 120000))
        qWarning("the 200 MB answer did not end");
    const double peak = kernelPeak ? residentBytes("VmHWM:") : sampled;
    QObject::disconnect(failed);
    QObject::disconnect(done);
    if (code != 299 || answered)
        qWarning("the 200 MB answer ended in %s %d", answered ? "done" : "error", code);
    const double sent = double(cloud.streamedBytes() - sentBefore);

    // The baseline: a bare GET of the same answer, which Qt buffers whole.
    const QUrl url = requestUrl("/kelo/api/table/", QStringLiteral("getlist"));
    cloud.scriptReply("/kelo/api/table/", QStringLiteral("getlist"), huge);
    const bool bareKernelPeak = resetPeakRss();
    const double bareBefore = residentBytes("VmRSS:");
    sampled = bareBefore;
    {
        QNetworkAccessManager nam;
        std::unique_ptr<QNetworkReply> reply(nam.get(QNetworkRequest(url)));
        waitFor([&] { return reply->isFinished(); }, 120000);
    }
    const double barePeak = bareKernelPeak ? residentBytes("VmHWM:") : sampled;

    Row r = row(QStringLiteral("9 peak RSS growth, 200 MB answer refused"), QStringLiteral("MB"),
                std::max(0.0, peak - before) / (1024 * 1024),
                std::max(0.0, barePeak - bareBefore) / (1024 * 1024),
                QStringLiteral("sdk <= 12 (cap + 4)"), false, 12);
    r.note = QStringLiteral("server sent %1 MB to the SDK before the connection closed")
                 .arg(sent / (1024 * 1024), 0, 'f', 1);
    std::fprintf(stderr, "bench: %s\n", qPrintable(r.note));
    return r;
}

/// Resets the process's peak resident size (Linux 4.0 and later); false if it cannot.
bool Bench::resetPeakRss()
{
    QFile file(QStringLiteral("/proc/self/clear_refs"));
    return file.open(QIODevice::WriteOnly) && file.write("5") == 1;
}

/// A "VmRSS:" or "VmHWM:" figure of /proc/self/status, in bytes.
double Bench::residentBytes(const char* field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith(field))
            return line.mid(int(qstrlen(field))).trimmed().split(' ').value(0).toDouble() * 1024;
    return 0;
}

} // namespace kelobench
