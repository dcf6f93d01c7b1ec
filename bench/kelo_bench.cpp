// Compares the SDK with what an integrator would write by hand, against the in-process local
// cloud on loopback. Prints one table and writes it as JSON. Nothing here asserts on time: the
// figures are medians over repeated runs, SDK and baseline interleaved (the machine is shared).
//
//   kelo_bench [--json FILE] [--callgrind-counts SDK BASE] [--lib-size BYTES]
//              [--lib-size-armhf BYTES] [--idle-seconds N]
//   kelo_bench --only menu                     (the menu sync alone, for a profiler)
//   kelo_bench --only reply-cap                (the refused 200 MB answer alone)
//   kelo_bench --callgrind sdk|baseline|none [--dishes N]
//                                              (one catalogue rewrite, for valgrind)
//   kelo_bench --scale [--scale-dat FILE]      (menu sync and rewrite at 100, 1,000, 10,000
//                                               dishes, each size in a fresh child process)
//   kelo_bench --scale-size N                  (one size of --scale; prints one JSON line)
//   kelo_bench --idle-sdk N [--cloud-exe PATH] (the SDK alone idling N s against kelo-cloud
//                                               run as another process; prints one JSON line)

#include "cdownloadfileman.h"
#include "cloudserver.h"
#include "kelosdk.h"
#include "libcmn.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>
#include <QUrlQuery>
#include <QWebSocket>

#include <malloc.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kMerchant[] = "M01";
constexpr int kRuns = 7;
constexpr int kDishes = 300;
constexpr int kPictureBytes = 30 * 1024;
constexpr int kCatalogueDishes = 10000;
constexpr int kPushes = 10000; // per side
constexpr int kScaleRuns = 3;
constexpr int kScalePictureBytes = 2 * 1024; // 10,000 of them fit on any disk and in the time
const int kScaleSizes[] = {100, 1000, 10000};
constexpr int kReconnects = 5;

double msSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double median(std::vector<double> v)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    const size_t i = std::min(v.size() - 1, static_cast<size_t>(p * (v.size() - 1) + 0.5));
    return v[i];
}

/// Runs the event loop until @p done holds or @p timeoutMs passes; false on timeout.
bool waitFor(const std::function<bool()>& done, int timeoutMs = 30000)
{
    const auto start = Clock::now();
    QTimer wake; // wakes the loop now and then so that the timeout is seen
    wake.start(50);
    while (!done()) {
        if (msSince(start) > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

/// One line of the table.
struct Row
{
    QString figure;
    QString unit;
    double sdk = -1;      ///< < 0: not measured
    double baseline = -1; ///< < 0: no baseline
    QString goal;         ///< e.g. "ratio <= 1.15", "sdk <= 2"
    bool ratioGoal = false;
    double limit = 0;
    QString note;

    double ratio() const { return baseline > 0 && sdk >= 0 ? sdk / baseline : -1; }
    QString verdict() const
    {
        if (goal.isEmpty())
            return QStringLiteral("info");
        if (sdk < 0)
            return QStringLiteral("n/a");
        const double v = ratioGoal ? ratio() : sdk;
        if (v < 0)
            return QStringLiteral("n/a");
        return v <= limit ? QStringLiteral("PASS") : QStringLiteral("MISS");
    }
};

Row row(const QString& figure, const QString& unit, double sdk, double baseline,
        const QString& goal = {}, bool ratioGoal = false, double limit = 0)
{
    Row r;
    r.figure = figure;
    r.unit = unit;
    r.sdk = sdk;
    r.baseline = baseline;
    r.goal = goal;
    r.ratioGoal = ratioGoal;
    r.limit = limit;
    return r;
}

QString number(double v)
{
    if (v < 0)
        return QStringLiteral("-");
    if (v >= 1000)
        return QString::number(v, 'f', 0);
    return QString::number(v, 'g', 4);
}

void printTable(const QList<Row>& rows)
{
    const char* fmt = "%-44s %12s %12s %7s  %-18s %s\n";
    std::printf(fmt, "figure", "SDK", "baseline", "ratio", "goal", "verdict");
    std::printf("%s\n", QString(110, QLatin1Char('-')).toLatin1().constData());
    for (const Row& r : rows) {
        const QString name = r.figure + QStringLiteral(" [") + r.unit + QStringLiteral("]");
        const double ratio = r.ratio();
        std::printf(
            fmt, qPrintable(name), qPrintable(number(r.sdk)), qPrintable(number(r.baseline)),
            ratio < 0 ? "-" : qPrintable(QString::number(ratio, 'f', 2)),
            qPrintable(r.goal.isEmpty() ? QStringLiteral("-") : r.goal), qPrintable(r.verdict()));
    }
    std::fflush(stdout);
}

/// Cores, CPU model and load: the context every figure needs on a shared machine.
QJsonObject machine()
{
    QString model;
    QFile cpuinfo(QStringLiteral("/proc/cpuinfo"));
    if (cpuinfo.open(QIODevice::ReadOnly))
        for (const QByteArray& line : cpuinfo.readAll().split('\n'))
            if (line.startsWith("model name")) {
                model = QString::fromUtf8(line.mid(line.indexOf(':') + 1)).trimmed();
                break;
            }
    QFile loadavg(QStringLiteral("/proc/loadavg"));
    const QString load =
        loadavg.open(QIODevice::ReadOnly)
            ? QString::fromLatin1(loadavg.readAll()).section(QLatin1Char(' '), 0, 2)
            : QString();
    return {
        {"nproc", static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN))}, {"cpu", model}, {"load", load}};
}

void writeJson(const QList<Row>& rows, const QString& path)
{
    QJsonArray array;
    for (const Row& r : rows) {
        QJsonObject o{
            {"figure", r.figure}, {"unit", r.unit}, {"goal", r.goal}, {"verdict", r.verdict()}};
        o.insert(QStringLiteral("sdk"), r.sdk < 0 ? QJsonValue() : QJsonValue(r.sdk));
        o.insert(QStringLiteral("baseline"),
                 r.baseline < 0 ? QJsonValue() : QJsonValue(r.baseline));
        o.insert(QStringLiteral("ratio"), r.ratio() < 0 ? QJsonValue() : QJsonValue(r.ratio()));
        array.append(o);
    }
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(
            QJsonDocument(QJsonObject{{"runs", kRuns}, {"machine", machine()}, {"figures", array}})
                .toJson());
}

// ---- catalogue CPU (figure 4) --------------------------------------------------------------

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

/// What the SDK does to a menu reply around the downloads, every picture taken as fetched.
QString sdkRewrite(const QString& text)
{
    CDownloadFileMan manager(false, nullptr);
    unsigned long long stamp = 0;
    Libcmn::parseDataFoods(text, manager, stamp);
    for (tagDownFileInfo& info : manager.GetListFile())
        info.fileReady = true;
    return Libcmn::updateDataFoods(text, manager);
}

/// The Qt work that no rewrite can avoid: two parses and one compact serialisation.
QString rawRewrite(const QString& text)
{
    const QJsonDocument first = QJsonDocument::fromJson(text.toUtf8());
    const QJsonDocument second = QJsonDocument::fromJson(text.toUtf8());
    Q_UNUSED(first)
    return QString::fromUtf8(second.toJson(QJsonDocument::Compact));
}

Row catalogueCpu()
{
    const QString text = bigCatalogue(kCatalogueDishes);
    std::vector<double> sdk, raw;
    for (int i = 0; i < kRuns; ++i) {
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
    const QString text = bigCatalogue(dishes > 0 ? dishes : kCatalogueDishes);
    QString out;
    if (which == QLatin1String("sdk"))
        out = sdkRewrite(text);
    else if (which == QLatin1String("baseline"))
        out = rawRewrite(text);
    std::printf("%lld\n", static_cast<long long>(out.size())); // int in Qt 5, qsizetype in Qt 6
    return 0;
}

// ---- the local cloud -----------------------------------------------------------------------

void trustCa(const QByteArray& pem)
{
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    QList<QSslCertificate> cas = config.caCertificates();
    cas.append(QSslCertificate::fromData(pem, QSsl::Pem));
    config.setCaCertificates(cas);
    QSslConfiguration::setDefaultConfiguration(config);
}

QByteArray picture(int id, int size = kPictureBytes)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>((i * 31 + id) & 0xff);
    return bytes;
}

QByteArray menuReply(const QString& host, int dishes = kDishes)
{
    QJsonArray items;
    for (int i = 1; i <= dishes; ++i)
        items.append(QJsonObject{{"item_id", i},
                                 {"item_name", QStringLiteral("Dish %1").arg(i)},
                                 {"price", 30000},
                                 {"img_path", QStringLiteral("/pics/%1.png").arg(i)},
                                 {"img_crc", QStringLiteral("1700000000000")}});
    const QJsonObject dt{{"img_host", QStringLiteral("https://") + host},
                         {"last_update", 1700000000},
                         {"items", items}};
    return QJsonDocument(QJsonObject{{"err", 0}, {"dt", dt}}).toJson(QJsonDocument::Compact);
}

/// A bare GET; @p onBody receives the body (empty on error).
double bareGet(QNetworkAccessManager& nam, const QUrl& url, QByteArray* body = nullptr)
{
    const auto start = Clock::now();
    QNetworkReply* reply = nam.get(QNetworkRequest(url));
    bool finished = false;
    QObject::connect(reply, &QNetworkReply::finished, [&] { finished = true; });
    waitFor([&] { return finished; });
    const double ms = msSince(start);
    if (reply->error() != QNetworkReply::NoError)
        qWarning("baseline GET %s: %s", qPrintable(url.toString()),
                 qPrintable(reply->errorString()));
    if (body)
        *body = reply->readAll();
    reply->deleteLater();
    return ms;
}

class Bench
{
public:
    Bench(kelocloud::CloudServer& cloud, int dishes = kDishes, int pictureBytes = kPictureBytes)
        : cloud(cloud), dishes(dishes), pictureBytes(pictureBytes)
    {
    }

    bool setUp()
    {
        const QString host = cloud.hostPort();
        for (int i = 1; i <= dishes; ++i)
            cloud.putFile(QStringLiteral("/pics/%1.png").arg(i).toLatin1(),
                          picture(i, pictureBytes));
        kelocloud::CloudReply menu;
        menu.body = menuReply(host, dishes);
        replyBytes = menu.body.size();
        cloud.scriptReply("/kelo/api/item/", QStringLiteral("getlist"), menu, 1000000);
        sdk.reset(new Kelosdk(QString::fromLatin1(kMerchant), QStringLiteral("POS-BENCH"), false));
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

    QString pictureDir() const
    {
        return QDir(
                   QStandardPaths::standardLocations(QStandardPaths::AppLocalDataLocation).value(0))
                   .absolutePath() +
               QStringLiteral("/images");
    }

    double sdkFoods(int timeoutMs = 120000)
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

    QUrl requestUrl(const QByteArray& path, const QString& cm)
    {
        const QList<kelocloud::CloudExchange> seen = cloud.exchanges(path, cm);
        if (seen.isEmpty())
            return {};
        return QUrl(QStringLiteral("https://") + cloud.hostPort() +
                    QString::fromLatin1(seen.constLast().target));
    }

    /// The integrator's menu sync: catalogue, then every picture one at a time into files.
    double bareFoods(const QUrl& menuUrl, const QString& dir)
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

    QList<Row> menuSync()
    {
        sdkFoods(); // finds the request's address, warms TLS session caches alike for both
        const QUrl menuUrl = requestUrl("/kelo/api/item/", QStringLiteral("getlist"));
        std::vector<double> coldSdk, coldBare, warmSdk, warmBare, warmPictures;
        for (int i = 0; i < kRuns; ++i) {
            QTemporaryDir bareDir;
            coldBare.push_back(bareFoods(menuUrl, bareDir.path()));
            QDir(pictureDir()).removeRecursively();
            const int before = cloud.exchanges("/pics/").size();
            coldSdk.push_back(sdkFoods());
            if (cloud.exchanges("/pics/").size() - before != kDishes)
                qWarning("a cold menu sync did not fetch every picture");
        }
        for (int i = 0; i < kRuns; ++i) {
            QNetworkAccessManager nam;
            warmBare.push_back(bareGet(nam, menuUrl));
            const int before = cloud.exchanges("/pics/").size();
            warmSdk.push_back(sdkFoods());
            warmPictures.push_back(cloud.exchanges("/pics/").size() - before);
        }
        QList<Row> parts = warmParts();
        return parts + QList<Row>{row(QStringLiteral("1 cold menu sync, 300 x 30 KB"),
                                      QStringLiteral("ms"), median(coldSdk), median(coldBare),
                                      QStringLiteral("ratio <= 1.15"), true, 1.15),
                                  row(QStringLiteral("2 warm menu sync: picture requests"),
                                      QStringLiteral("count"), median(warmPictures), -1,
                                      QStringLiteral("sdk <= 0"), false, 0),
                                  row(QStringLiteral("2 warm menu sync vs one catalogue GET"),
                                      QStringLiteral("ms"), median(warmSdk), median(warmBare),
                                      QStringLiteral("ratio <= 1.5"), true, 1.5)};
    }

    /// What a warm sync of this menu does besides the catalogue GET, each part timed alone on
    /// the same 300 dishes: one queued step per dish through the event loop (the picture
    /// manager's steps are queued connections), one stat per cached picture, and the parse and
    /// rewrite of the menu.
    QList<Row> warmParts()
    {
        std::vector<double> steps, stats, rewrite;
        const QStringList files = QDir(pictureDir()).entryList(QDir::Files);
        const QString text = QString::fromUtf8(menuReply(cloud.hostPort(), dishes));
        for (int run = 0; run < kRuns; ++run) {
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
                row(QStringLiteral("2c warm part: parse and rewrite the menu"),
                    QStringLiteral("ms"), median(rewrite), -1)};
    }

    /// One size of --scale: cold and warm menu syncs of this bench's menu, the rewrite alone,
    /// and the most resident memory any one sync added (VmHWM after it, reset before it, less
    /// the resident size before it; the in-process cloud serving the sync counts too). The picture
    /// folder is the cache of XDG_DATA_HOME, below TMPDIR.
    QJsonObject scaleOne()
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
        for (int i = 0; i < kScaleRuns; ++i) {
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
        for (int i = 0; i < kRuns; ++i) {
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

    Row roundTrip()
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
        for (int i = 0; i < kRuns * 3; ++i) {
            QNetworkAccessManager nam; // one manager per request, as the SDK does
            b.push_back(bareGet(nam, url));
            s.push_back(tableRequest());
        }
        return row(QStringLiteral("3 request round trip (tableRequest)"), QStringLiteral("ms"),
                   median(s), median(b), QStringLiteral("ratio <= 1.10"), true, 1.10);
    }

    /// A bare QWebSocket of its own device, admitted the way any client is.
    bool openBareSocket(QWebSocket& socket, const QString& devid)
    {
        QNetworkAccessManager nam;
        QNetworkRequest request(
            QUrl(QStringLiteral("https://%1/kelo/api/common").arg(cloud.hostPort())));
        request.setHeader(QNetworkRequest::ContentTypeHeader,
                          QStringLiteral("application/x-www-form-urlencoded"));
        QUrlQuery form;
        form.addQueryItem(QStringLiteral("cm"), QStringLiteral("get_ws_session"));
        form.addQueryItem(QStringLiteral("dt"),
                          Libcmn::formatWsSession(QString::fromLatin1(kMerchant), devid));
        QNetworkReply* reply = nam.post(request, form.query(QUrl::FullyEncoded).toUtf8());
        bool finished = false;
        QObject::connect(reply, &QNetworkReply::finished, [&] { finished = true; });
        waitFor([&] { return finished; });
        QString session;
        Libcmn::parseWsSid(QString::fromUtf8(reply->readAll()), &session);
        reply->deleteLater();
        bool open = false;
        QObject::connect(&socket, &QWebSocket::connected, [&] { open = true; });
        socket.open(QUrl(Libcmn::formatWsConnectString(
            QStringLiteral("wss://%1/kelo/ntf/").arg(cloud.hostPort()),
            QString::fromLatin1(kMerchant), devid, session)));
        return waitFor([&] { return open; }, 10000);
    }

    QString sdkDevice()
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
    QList<Row> pushLatency(bool pinned)
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
            const QByteArray frame = QByteArray(R"({"msg":"t)") +
                                     QByteArray::number(static_cast<qlonglong>(
                                         Clock::now().time_since_epoch().count())) +
                                     "\"}";
            if (!cloud.pushText(devid, frame))
                return;
            waitFor([&] { return got; }, 5000);
        };
        const bool pinnedApart = pinned && pinApart(true);
        if (pinned && !pinnedApart)
            qWarning("push latency: the threads could not be pinned apart");
        for (int i = 0; i < kPushes; ++i) {
            push(bareDev);
            push(sdkDev);
        }
        if (pinned)
            pinApart(false);
        QObject::disconnect(toSdk);
        if (s.size() < size_t(kPushes) || b.size() < size_t(kPushes))
            qWarning("push latency: %d and %d of %d pushes arrived", int(s.size()), int(b.size()),
                     kPushes);
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
    static bool pinApart(bool apart)
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
    static QList<Row> idleAlone(int seconds, const QString& cloudExe)
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

    Row reconnect()
    {
        std::vector<double> times;
        for (int i = 0; i < kReconnects; ++i) {
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
    Row refusedHugeAnswer()
    {
        constexpr qint64 kHuge = 200LL * 1024 * 1024;
        kelocloud::CloudReply huge;
        huge.streamBytes = kHuge;
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

        Row r = row(QStringLiteral("9 peak RSS growth, 200 MB answer refused"),
                    QStringLiteral("MB"), std::max(0.0, peak - before) / (1024 * 1024),
                    std::max(0.0, barePeak - bareBefore) / (1024 * 1024),
                    QStringLiteral("sdk <= 12 (cap + 4)"), false, 12);
        r.note = QStringLiteral("server sent %1 MB to the SDK before the connection closed")
                     .arg(sent / (1024 * 1024), 0, 'f', 1);
        std::fprintf(stderr, "bench: %s\n", qPrintable(r.note));
        return r;
    }

    /// Resets the process's peak resident size (Linux 4.0 and later); false if it cannot.
    static bool resetPeakRss()
    {
        QFile file(QStringLiteral("/proc/self/clear_refs"));
        return file.open(QIODevice::WriteOnly) && file.write("5") == 1;
    }

    /// A "VmRSS:" or "VmHWM:" figure of /proc/self/status, in bytes.
    static double residentBytes(const char* field)
    {
        QFile status(QStringLiteral("/proc/self/status"));
        if (!status.open(QIODevice::ReadOnly))
            return 0;
        for (const QByteArray& line : status.readAll().split('\n'))
            if (line.startsWith(field))
                return line.mid(int(qstrlen(field))).trimmed().split(' ').value(0).toDouble() *
                       1024;
        return 0;
    }

private:
    kelocloud::CloudServer& cloud;
    const int dishes;
    const int pictureBytes;
    int replyBytes = 0;
    std::unique_ptr<Kelosdk> sdk;
    bool connected = false;
    Clock::time_point connectedAt;
};

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
    trustCa(ca.readAll());
    qputenv("KELO_SERVER_HOST", host.toUtf8());

    bool connected = false;
    Kelosdk sdk(QString::fromLatin1(kMerchant), QStringLiteral("POS-IDLE"), false);
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

/// --scale-size: one size, in this process; prints one JSON line.
int scaleChild(int dishes)
{
    kelocloud::CloudOptions cloudOptions;
    cloudOptions.secretKey = Libcmn::keloSecretkey().toLatin1();
    kelocloud::CloudServer cloud(cloudOptions);
    QString error;
    if (!cloud.start(&error)) {
        std::fprintf(stderr, "local cloud did not start: %s\n", qPrintable(error));
        return 1;
    }
    trustCa(cloud.caCertificatePem());
    qputenv("KELO_SERVER_HOST", cloud.hostPort().toUtf8());
    Bench bench(cloud, dishes, kScalePictureBytes);
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
        for (const int dishes : kScaleSizes) {
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
                                                 {"picture_bytes", kScalePictureBytes},
                                                 {"sizes", all}})
                           .toJson());
    }
    return rows.isEmpty() ? 1 : 0;
}

} // namespace

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
    if (args.contains(QStringLiteral("--callgrind")))
        return callgrindMode(option("--callgrind"), option("--dishes").toInt());
    if (args.contains(QStringLiteral("--idle-sdk")))
        return idleChild(option("--idle-sdk").toInt(), option("--cloud-exe"));
    if (args.contains(QStringLiteral("--scale-size")))
        return scaleChild(option("--scale-size").toInt());
    if (args.contains(QStringLiteral("--scale")))
        return scaleParent(option("--scale-dat"), option("--json"));

    QList<Row> rows;
    kelocloud::CloudOptions cloudOptions;
    cloudOptions.secretKey = Libcmn::keloSecretkey().toLatin1(); // the simulator holds no build key
    kelocloud::CloudServer cloud(cloudOptions);
    QString error;
    if (!cloud.start(&error)) {
        std::fprintf(stderr, "local cloud did not start: %s\n", qPrintable(error));
        return 1;
    }
    trustCa(cloud.caCertificatePem());
    qputenv("KELO_SERVER_HOST", cloud.hostPort().toUtf8());

    Bench bench(cloud);
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
