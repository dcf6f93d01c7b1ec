// Compares the SDK with what an integrator would write by hand, against the in-process local
// cloud on loopback. Prints one table and writes it as JSON. Nothing here asserts on time: the
// figures are medians over repeated runs, SDK and baseline interleaved (the machine is shared).
//
//   kelo_bench [--json FILE] [--callgrind-counts SDK BASE] [--lib-size BYTES]
//              [--lib-size-armhf BYTES] [--idle-seconds N]
//   kelo_bench --only menu                     (the menu sync alone, for a profiler)
//   kelo_bench --only reply-cap                (the refused 200 MB answer alone)
//   kelo_bench --callgrind sdk|baseline|none   (one catalogue rewrite, for valgrind)

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
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>
#include <QUrlQuery>
#include <QWebSocket>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
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
constexpr int kPushes = 1000;
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

int callgrindMode(const QString& which)
{
    const QString text = bigCatalogue(kCatalogueDishes);
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

QByteArray picture(int id)
{
    QByteArray bytes(kPictureBytes, '\0');
    for (int i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>((i * 31 + id) & 0xff);
    return bytes;
}

QByteArray menuReply(const QString& host)
{
    QJsonArray items;
    for (int i = 1; i <= kDishes; ++i)
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
    Bench(kelocloud::CloudServer& cloud) : cloud(cloud) {}

    bool setUp()
    {
        const QString host = cloud.hostPort();
        for (int i = 1; i <= kDishes; ++i)
            cloud.putFile(QStringLiteral("/pics/%1.png").arg(i).toLatin1(), picture(i));
        kelocloud::CloudReply menu;
        menu.body = menuReply(host);
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

    double sdkFoods()
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
        if (!waitFor([&] { return done; }, 120000))
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
        return {row(QStringLiteral("1 cold menu sync, 300 x 30 KB"), QStringLiteral("ms"),
                    median(coldSdk), median(coldBare), QStringLiteral("ratio <= 1.15"), true, 1.15),
                row(QStringLiteral("2 warm menu sync: picture requests"), QStringLiteral("count"),
                    median(warmPictures), -1, QStringLiteral("sdk <= 0"), false, 0),
                row(QStringLiteral("2 warm menu sync vs one catalogue GET"), QStringLiteral("ms"),
                    median(warmSdk), median(warmBare), QStringLiteral("ratio <= 1.5"), true, 1.5)};
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
            if (it->accepted && it->query.queryItemValue("devid") != QLatin1String("bench-bare"))
                return it->query.queryItemValue(QStringLiteral("devid"));
        return {};
    }

    QList<Row> pushLatency()
    {
        QWebSocket bare;
        if (!openBareSocket(bare, QStringLiteral("bench-bare"))) {
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
        QObject::connect(sdk.get(), &Kelosdk::notify,
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
        for (int i = 0; i < kPushes; ++i) {
            push(QStringLiteral("bench-bare"));
            push(sdkDev);
        }
        return {row(QStringLiteral("5 push latency p50"), QStringLiteral("ms"), percentile(s, 0.5),
                    percentile(b, 0.5)),
                row(QStringLiteral("5 push latency p99"), QStringLiteral("ms"), percentile(s, 0.99),
                    percentile(b, 0.99), QStringLiteral("sdk <= 2"), false, 2)};
    }

    QList<Row> idle(int seconds)
    {
        auto cpuSeconds = [] {
            rusage usage{};
            getrusage(RUSAGE_SELF, &usage);
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
        const double cpu0 = cpuSeconds(), rss0 = rssBytes();
        const auto start = Clock::now();
        waitFor([&] { return msSince(start) >= seconds * 1000.0; }, seconds * 1000 + 5000);
        const double cpu = cpuSeconds() - cpu0;
        const double wall = msSince(start) / 1000;
        Row cpuRow =
            row(QStringLiteral("6 idle CPU (process, cloud included)"), QStringLiteral("% core"),
                100 * cpu / wall, -1, QStringLiteral("sdk <= 0.2"), false, 0.2);
        Row rssRow = row(QStringLiteral("6 idle RSS growth"), QStringLiteral("MB"),
                         std::max(0.0, rssBytes() - rss0) / (1024 * 1024), -1,
                         QStringLiteral("sdk <= 8"), false, 8);
        return {cpuRow, rssRow};
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

private:
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

    kelocloud::CloudServer& cloud;
    std::unique_ptr<Kelosdk> sdk;
    bool connected = false;
    Clock::time_point connectedAt;
};

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
        return callgrindMode(option("--callgrind"));

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
    auto phase = [](const char* name) { std::fprintf(stderr, "bench: %s\n", name); };
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
    rows += bench.pushLatency();
    const int idleSeconds =
        option("--idle-seconds").isEmpty() ? 60 : option("--idle-seconds").toInt();
    phase("idle");
    rows += bench.idle(idleSeconds);
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
