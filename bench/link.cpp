#include "link.h"

#include "benchsupport.h"
#include "cdownloadfileman.h"
#include "devca.h"
#include "kelosdk.h"
#include "libcmn.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>
#include <QUrlQuery>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>
#include <type_traits>
#include <utility>

namespace kelobench {

namespace {

constexpr int RequestRuns = 15;
constexpr int WarmRuns = 7;
/// Longest a menu sync may take before the figure is given up (300 pictures over 4G take ~50 s).
constexpr int SyncTimeoutMs = 10 * 60 * 1000;
/// Longest the channel may take to come up, to notice an outage, or to come back.
constexpr int ChannelTimeoutMs = 90 * 1000;
/// Pictures in flight for the HTTP/2 row beyond Qt's 6 connections per host over HTTP/1.1.
constexpr int ManyPicturesInFlight = 16;

/// The lab's link profiles as the wire plays them: round trip, and bandwidth each way.
struct LinkProfile
{
    const char* name;
    double rttMs;
    double downMbit;
    double upMbit;
};

constexpr LinkProfile Profiles[] = {{"wifi", 80, 20, 20},
                                    {"4g", 150, 1.6, 0.75},
                                    {"lossy-wifi", 80, 20, 20},
                                    {"lan", 1, 1000, 1000}};

const LinkProfile* findProfile(const QString& name)
{
    for (const LinkProfile& p : Profiles)
        if (name == QLatin1String(p.name))
            return &p;
    return nullptr;
}

/// What the link allows for @p bytes downstream: their time on the wire plus three round trips
/// (TCP, TLS, the request).
double linkLimitMs(const LinkProfile& p, double bytes)
{
    return bytes * 8 / (p.downMbit * 1e6) * 1000 + 3 * p.rttMs;
}

// The SDK's picture settings where this build has them: the number of pictures fetched at once,
// and HTTP/2 for pictures. Older builds fetch one at a time over HTTP/1.1.
template <typename S, typename = void> struct HasPicturesInFlight : std::false_type
{
};
template <typename S>
struct HasPicturesInFlight<S, std::void_t<decltype(std::declval<S&>().setMaxPicturesInFlight(1))>>
    : std::true_type
{
};

template <typename S> int picturesInFlight(const S& sdk)
{
    if constexpr (HasPicturesInFlight<S>::value)
        return sdk.maxPicturesInFlight();
    else
        return 1;
}

template <typename S> bool setPicturesInFlight(S& sdk, int n)
{
    if constexpr (HasPicturesInFlight<S>::value) {
        sdk.setMaxPicturesInFlight(n);
        return true;
    } else {
        Q_UNUSED(sdk)
        Q_UNUSED(n)
        return false;
    }
}

/// One line of the link table: the SDK beside the hand-written client and beside the link.
struct LinkRow
{
    QString figure;
    QString unit = QStringLiteral("ms");
    double sdk = -1;
    double hand = -1;
    double limit = -1;
    /// The goal: the SDK over the hand-written client ("hand") or over the link ("limit"), at
    /// most goalRatio; empty: figure only.
    QString against;
    double goalRatio = 0;
    QString note;

    QJsonObject toJson() const
    {
        auto value = [](double v) { return v < 0 ? QJsonValue() : QJsonValue(v); };
        return {{"figure", figure},        {"unit", unit},          {"sdk", value(sdk)},
                {"hand", value(hand)},     {"limit", value(limit)}, {"against", against},
                {"goal_ratio", goalRatio}, {"note", note}};
    }
};

/// The lab as the environment describes it.
struct Lab
{
    QString api;
    QString ca;
    QString wire;
    QString wireCtl;
    QString merchant;
    QString picturesH1; ///< the picture server's base URL without HTTP/2, if the lab has one
    QString picturesH2; ///< the same pictures from a server that offers HTTP/2

    bool read()
    {
        api = QString::fromLocal8Bit(qgetenv("KELO_LAB_API"));
        ca = QString::fromLocal8Bit(qgetenv("KELO_LAB_CA"));
        wire = QString::fromLocal8Bit(qgetenv("KELO_LAB_WIRE"));
        wireCtl = QString::fromLocal8Bit(qgetenv("KELO_LAB_WIRE_CTL"));
        merchant = QString::fromLocal8Bit(qgetenv("KELO_LAB_MERCHANT"));
        picturesH1 = QString::fromLocal8Bit(qgetenv("KELO_LAB_PICTURES_H1"));
        picturesH2 = QString::fromLocal8Bit(qgetenv("KELO_LAB_PICTURES_H2"));
        if (merchant.isEmpty())
            merchant = QString::fromLatin1(Merchant);
        return !api.isEmpty() && !ca.isEmpty();
    }

    /// `kelo-wire ctl SOCKET args...`; false if it failed.
    bool ctl(const QStringList& args) const
    {
        if (wire.isEmpty() || wireCtl.isEmpty())
            return false;
        QProcess p;
        p.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        p.start(wire, QStringList{QStringLiteral("ctl"), wireCtl} + args);
        return p.waitForFinished(10000) && p.exitStatus() == QProcess::NormalExit &&
               p.exitCode() == 0;
    }

    QUrl apiUrl(const char* path, const QString& dt) const
    {
        QUrl url(QStringLiteral("https://") + api + QLatin1String(path));
        QUrlQuery query;
        query.addQueryItem(QStringLiteral("cm"), QStringLiteral("getlist"));
        query.addQueryItem(QStringLiteral("dt"), dt); // as the SDK's own parameters do
        url.setQuery(query);
        return url;
    }
};

void phase(const char* name)
{
    std::fprintf(stderr, "bench --link: %s (load %s)\n", name,
                 qPrintable(machine().value(QStringLiteral("load")).toString()));
}

class LinkBench
{
public:
    LinkBench(const Lab& lab, const LinkProfile& profile) : lab(lab), profile(profile) {}

    bool connectSdk();
    LinkRow channelColdStart();
    LinkRow oneRequest();
    QList<LinkRow> coldSync(int runs);
    LinkRow warmSync();
    QList<LinkRow> pictureProtocols(int runs);
    QList<LinkRow> outage(int seconds);

private:
    std::unique_ptr<Kelosdk> newSdk();
    double sdkTables();
    double sdkFoods(QString* menu);
    double handGet(const QUrl& url, QByteArray* body = nullptr);
    double handFoods(qint64* bytes, int* pictures);
    double managerPictures(const QString& menu, bool http2, int inFlight);
    static QString pictureDir();

    const Lab& lab;
    const LinkProfile& profile;
    QNetworkAccessManager hand; // the integrator's one manager, shared by every figure
    std::unique_ptr<Kelosdk> sdk;
    bool connected = false;
    Clock::time_point changedAt;
};

std::unique_ptr<Kelosdk> LinkBench::newSdk()
{
    return std::make_unique<Kelosdk>(lab.merchant, QStringLiteral("POS-LINK"), false);
}

/// The SDK object every figure but the cold start uses, its channel up.
bool LinkBench::connectSdk()
{
    sdk = newSdk();
    QObject::connect(sdk.get(), &Kelosdk::cloudConnectionChange, [this](bool up) {
        if (up != connected)
            changedAt = Clock::now();
        connected = up;
    });
    QObject::connect(sdk.get(), &Kelosdk::networkError, [](int code, const QString& text) {
        std::fprintf(stderr, "bench --link: SDK network error %d: %s\n", code, qPrintable(text));
    });
    QObject::connect(sdk.get(), &Kelosdk::keloappError, [](int code, const QString& text) {
        std::fprintf(stderr, "bench --link: SDK error %d: %s\n", code, qPrintable(text));
    });
    if (!waitFor([this] { return connected; }, ChannelTimeoutMs)) {
        std::fprintf(stderr, "bench --link: the SDK's channel did not come up\n");
        return false;
    }
    return true;
}

/// Kelosdk constructed to cloudConnectionChange(true): the first object of the process (no TLS
/// session to resume) and two more.
LinkRow LinkBench::channelColdStart()
{
    std::vector<double> times;
    for (int i = 0; i < 3; ++i) {
        bool up = false;
        const auto start = Clock::now();
        std::unique_ptr<Kelosdk> fresh = newSdk();
        QObject::connect(fresh.get(), &Kelosdk::cloudConnectionChange,
                         [&](bool connected) { up = up || connected; });
        if (waitFor([&] { return up; }, ChannelTimeoutMs))
            times.push_back(msSince(start));
        else
            std::fprintf(stderr, "bench --link: a new SDK's channel did not come up\n");
    }
    LinkRow r;
    r.figure = QStringLiteral("channel from a cold start");
    r.sdk = median(times);
    if (!times.empty())
        r.note = QStringLiteral("first %1 ms (nothing to resume), median of %2")
                     .arg(times.front(), 0, 'f', 0)
                     .arg(times.size());
    return r;
}

double LinkBench::handGet(const QUrl& url, QByteArray* body)
{
    const auto start = Clock::now();
    std::unique_ptr<QNetworkReply> reply(hand.get(QNetworkRequest(url)));
    waitFor([&] { return reply->isFinished(); }, SyncTimeoutMs);
    const double ms = msSince(start);
    if (reply->error() != QNetworkReply::NoError)
        std::fprintf(stderr, "bench --link: hand GET %s: %s\n", qPrintable(url.path()),
                     qPrintable(reply->errorString()));
    if (body)
        *body = reply->readAll();
    return ms;
}

double LinkBench::sdkTables()
{
    bool done = false;
    auto c = QObject::connect(sdk.get(), &Kelosdk::tableRequestDone,
                              [&](const QString&) { done = true; });
    const auto start = Clock::now();
    sdk->tableRequest();
    if (!waitFor([&] { return done; }, ChannelTimeoutMs))
        std::fprintf(stderr, "bench --link: tableRequestDone did not come\n");
    QObject::disconnect(c);
    return msSince(start);
}

/// tableRequest() against the same GET on the shared manager, both warm, interleaved.
LinkRow LinkBench::oneRequest()
{
    const QUrl url = lab.apiUrl("/kelo/api/table/", Libcmn::formatRequestFoods(lab.merchant));
    handGet(url);
    sdkTables();
    std::vector<double> s, h;
    for (int i = 0; i < RequestRuns; ++i) {
        h.push_back(handGet(url));
        s.push_back(sdkTables());
    }
    LinkRow r;
    r.figure = QStringLiteral("one request (tableRequest)");
    r.sdk = median(s);
    r.hand = median(h);
    r.limit = profile.rttMs;
    r.against = QStringLiteral("hand");
    r.goalRatio = 1.15;
    r.note = QStringLiteral("median of %1, link limit: one round trip").arg(RequestRuns);
    return r;
}

QString LinkBench::pictureDir()
{
    return QDir(QStandardPaths::standardLocations(QStandardPaths::AppLocalDataLocation).value(0))
               .absolutePath() +
           QStringLiteral("/images");
}

double LinkBench::sdkFoods(QString* menu)
{
    bool done = false;
    auto c = QObject::connect(sdk.get(), &Kelosdk::foodsRequestDone, [&](const QString& text) {
        done = true;
        if (menu)
            *menu = text;
    });
    const auto start = Clock::now();
    sdk->foodsRequest();
    if (!waitFor([&] { return done; }, SyncTimeoutMs))
        std::fprintf(stderr, "bench --link: foodsRequestDone did not come\n");
    QObject::disconnect(c);
    return msSince(start);
}

/// The integrator's cold sync: the menu, then every picture at once through the shared manager
/// (Qt opens up to 6 connections to a host and queues the rest), each written to a file.
/// @p bytes: the menu's and the pictures' bodies; @p pictures: the dishes of the menu.
double LinkBench::handFoods(qint64* bytes, int* pictures)
{
    QTemporaryDir dir;
    const QUrl menuUrl = lab.apiUrl("/kelo/api/item/", Libcmn::formatRequestFoods(lab.merchant));
    const auto start = Clock::now();
    QByteArray body;
    handGet(menuUrl, &body);
    qint64 total = body.size();
    const QJsonObject dt = QJsonDocument::fromJson(body).object().value("dt").toObject();
    const QString host = dt.value("img_host").toString();
    int left = 0, failed = 0;
    for (const QJsonValue& item : dt.value("items").toArray()) {
        const QJsonObject o = item.toObject();
        QNetworkReply* reply =
            hand.get(QNetworkRequest(QUrl(host + o.value("img_path").toString())));
        const QString file = dir.filePath(QString::number(o.value("item_id").toInt()));
        ++left;
        QObject::connect(reply, &QNetworkReply::finished, [&, reply, file] {
            --left;
            if (reply->error() != QNetworkReply::NoError) {
                ++failed;
            } else {
                const QByteArray bytes = reply->readAll();
                total += bytes.size();
                QFile out(file);
                if (out.open(QIODevice::WriteOnly))
                    out.write(bytes);
            }
            reply->deleteLater();
        });
    }
    if (!waitFor([&] { return left == 0; }, SyncTimeoutMs))
        std::fprintf(stderr, "bench --link: the hand-written sync did not finish\n");
    const double ms = msSince(start);
    if (failed)
        std::fprintf(stderr, "bench --link: the hand-written sync lost %d pictures\n", failed);
    if (bytes)
        *bytes = total;
    if (pictures)
        *pictures = dt.value("items").toArray().size();
    return ms;
}

/// Cold syncs (the picture cache emptied before each): the SDK with its default number of
/// pictures in flight and with one (where this build has the setting), the hand-written client,
/// interleaved; and the link limit for the bytes the hand-written client received.
QList<LinkRow> LinkBench::coldSync(int runs)
{
    int dishes = 0;
    const int defaultInFlight = picturesInFlight(*sdk);
    const bool hasInFlight = setPicturesInFlight(*sdk, defaultInFlight);
    std::vector<double> sdkDefault, sdkOne, byHand;
    qint64 bytes = 0;
    QStringList problems;
    auto sdkCold = [&](std::vector<double>& into) {
        QDir(pictureDir()).removeRecursively();
        QString menu;
        into.push_back(sdkFoods(&menu));
        const int placeholders = menu.count(QLatin1String("qrc:/icons"));
        if (placeholders)
            problems << QStringLiteral("%1 placeholders").arg(placeholders);
        const int files = QDir(pictureDir()).entryList(QDir::Files).size();
        if (files != dishes)
            problems << QStringLiteral("%1 pictures cached, not %2").arg(files).arg(dishes);
    };
    for (int i = 0; i < runs; ++i) {
        byHand.push_back(handFoods(&bytes, &dishes));
        if (hasInFlight) {
            setPicturesInFlight(*sdk, 1);
            sdkCold(sdkOne);
            setPicturesInFlight(*sdk, defaultInFlight);
        }
        sdkCold(sdkDefault);
    }
    const QString size =
        QStringLiteral("%1 x %2 KB").arg(dishes).arg(bytes / std::max(dishes, 1) / 1024);
    LinkRow main;
    main.figure = QStringLiteral("cold menu sync, %1").arg(size);
    main.sdk = median(sdkDefault);
    main.hand = median(byHand);
    main.limit = linkLimitMs(profile, double(bytes));
    main.against = QStringLiteral("limit");
    main.goalRatio = QLatin1String(profile.name) == QLatin1String("4g") ? 1.15 : 1.3;
    main.note =
        QStringLiteral("median of %1, %2 bytes; SDK %3")
            .arg(runs)
            .arg(bytes)
            .arg(hasInFlight
                     ? QStringLiteral("%1 pictures in flight (its default)").arg(defaultInFlight)
                     : QStringLiteral("one picture at a time"));
    if (!problems.isEmpty()) {
        problems.removeDuplicates();
        main.note += QStringLiteral("; ") + problems.join(QStringLiteral(", "));
    }
    QList<LinkRow> rows{main};
    if (hasInFlight) {
        LinkRow one = main;
        one.figure = QStringLiteral("cold menu sync, %1, SDK 1 in flight").arg(size);
        one.sdk = median(sdkOne);
        one.against.clear();
        one.note = QStringLiteral("median of %1: the order of earlier releases").arg(runs);
        rows << one;
    }
    return rows;
}

/// Every picture cached: the SDK's sync against one GET of the menu on the shared manager.
LinkRow LinkBench::warmSync()
{
    const QUrl menuUrl = lab.apiUrl("/kelo/api/item/", Libcmn::formatRequestFoods(lab.merchant));
    sdkFoods(nullptr); // fills the cache if a cold figure did not
    handGet(menuUrl);
    std::vector<double> s, h;
    for (int i = 0; i < WarmRuns; ++i) {
        h.push_back(handGet(menuUrl));
        s.push_back(sdkFoods(nullptr));
    }
    LinkRow r;
    r.figure = QStringLiteral("warm menu sync vs one menu GET");
    r.sdk = median(s);
    r.hand = median(h);
    r.limit = profile.rttMs;
    r.against = QStringLiteral("hand");
    r.goalRatio = 1.15;
    r.note = QStringLiteral("median of %1").arg(WarmRuns);
    return r;
}

/// The picture manager alone on @p menu (its "img_host" already set), the cache emptied first:
/// StartDownload() to NotifyComplete(); -1 if a picture fell back to the placeholder.
double LinkBench::managerPictures(const QString& menu, bool http2, int inFlight)
{
    QDir(pictureDir()).removeRecursively();
    CDownloadFileMan manager(false, nullptr);
    manager.setMaxPicturesInFlight(inFlight);
    manager.setHttp2Allowed(http2);
    QString result;
    QObject::connect(&manager, &CDownloadFileMan::NotifyComplete,
                     [&](const QString& text) { result = text; });
    unsigned long long lastUpdate = 0;
    const auto start = Clock::now();
    Libcmn::parseDataFoods(menu, manager, lastUpdate);
    manager.SetData(menu);
    manager.StartDownload();
    if (!waitFor([&] { return !result.isEmpty(); }, SyncTimeoutMs))
        std::fprintf(stderr, "bench --link: the picture manager did not finish\n");
    const double ms = msSince(start);
    if (result.isEmpty() || result.contains(QLatin1String("qrc:/icons"))) {
        std::fprintf(stderr, "bench --link: the picture manager left placeholders (%s)\n",
                     http2 ? "HTTP/2" : "HTTP/1.1");
        return -1;
    }
    return ms;
}

/// The pictures of a cold sync over HTTP/1.1 and over HTTP/2, the picture manager alone (the
/// SDK's own protocol is fixed when it is built): the menu is fetched once and its "img_host"
/// pointed at the lab's picture server without and with HTTP/2.
QList<LinkRow> LinkBench::pictureProtocols(int runs)
{
    QByteArray body;
    handGet(lab.apiUrl("/kelo/api/item/", Libcmn::formatRequestFoods(lab.merchant)), &body);
    QJsonObject reply = QJsonDocument::fromJson(body).object();
    QJsonObject dt = reply.value("dt").toObject();
    const QString own = dt.value("img_host").toString();
    auto withHost = [&](const QString& host) {
        dt.insert(QStringLiteral("img_host"), host.isEmpty() ? own : host);
        reply.insert(QStringLiteral("dt"), dt);
        return QString::fromUtf8(QJsonDocument(reply).toJson(QJsonDocument::Compact));
    };
    const QString h1 = withHost(lab.picturesH1), h2 = withHost(lab.picturesH2);
    struct Variant
    {
        const char* name;
        const QString& menu;
        bool http2;
        int inFlight;
        std::vector<double> ms;
    };
    const int six = 6;
    Variant variants[] = {{"HTTP/1.1, 6 in flight", h1, false, six, {}},
                          {"HTTP/2, 6 in flight", h2, true, six, {}},
                          {"HTTP/2, 16 in flight", h2, true, ManyPicturesInFlight, {}}};
    for (int i = 0; i < runs; ++i)
        for (Variant& v : variants) {
            const double ms = managerPictures(v.menu, v.http2, v.inFlight);
            if (ms >= 0)
                v.ms.push_back(ms);
        }
    QList<LinkRow> rows;
    for (const Variant& v : variants) {
        LinkRow r;
        r.figure = QStringLiteral("pictures alone, %1").arg(QLatin1String(v.name));
        r.sdk = v.ms.empty() ? -1 : median(v.ms);
        r.note = QStringLiteral("median of %1 (picture manager, %2)")
                     .arg(v.ms.size())
                     .arg(v.http2 ? (lab.picturesH2.isEmpty() ? own : lab.picturesH2)
                                  : (lab.picturesH1.isEmpty() ? own : lab.picturesH1));
        rows << r;
    }
    return rows;
}

/// A silent outage: the wire drops everything for @p seconds. Time from its start to
/// cloudConnectionChange(false), and from the link's return to cloudConnectionChange(true);
/// then one request must work again.
QList<LinkRow> LinkBench::outage(int seconds)
{
    LinkRow down, back;
    down.figure = QStringLiteral("outage %1 s: start to channel down").arg(seconds);
    back.figure = QStringLiteral("outage %1 s: link back to channel up").arg(seconds);
    if (!connected && !waitFor([this] { return connected; }, ChannelTimeoutMs)) {
        down.note = QStringLiteral("the channel was not up before the outage");
        return {down, back};
    }
    if (!lab.ctl({QStringLiteral("blackhole"), QStringLiteral("on")})) {
        down.note = QStringLiteral("kelo-wire ctl blackhole on failed");
        return {down, back};
    }
    const auto start = Clock::now();
    bool restored = false;
    Clock::time_point restoredAt;
    QTimer::singleShot(seconds * 1000, [&] {
        restored = lab.ctl({QStringLiteral("blackhole"), QStringLiteral("off")});
        restoredAt = Clock::now();
    });
    if (waitFor([this] { return !connected; }, seconds * 1000))
        down.sdk = std::chrono::duration<double, std::milli>(changedAt - start).count();
    else
        down.note = QStringLiteral("not noticed while the link was away");
    waitFor([&] { return restoredAt != Clock::time_point(); }, seconds * 1000 + 20000);
    if (!restored) {
        lab.ctl({QStringLiteral("blackhole"), QStringLiteral("off")});
        back.note = QStringLiteral("kelo-wire ctl blackhole off failed");
        return {down, back};
    }
    if (waitFor([this] { return connected; }, ChannelTimeoutMs))
        back.sdk = std::chrono::duration<double, std::milli>(changedAt - restoredAt).count();
    else
        back.note = QStringLiteral("the channel did not come back within %1 s")
                        .arg(ChannelTimeoutMs / 1000);
    const double after = sdkTables();
    back.note += (back.note.isEmpty() ? QString() : QStringLiteral("; ")) +
                 QStringLiteral("a request afterwards took %1 ms").arg(after, 0, 'f', 0);
    return {down, back};
}

QJsonObject readJson(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

QString number(const QJsonValue& v)
{
    if (!v.isDouble())
        return QStringLiteral("-");
    const double d = v.toDouble();
    return d >= 100 ? QString::number(d, 'f', 0) : QString::number(d, 'g', 3);
}

QString ratio(const QJsonValue& a, const QJsonValue& b)
{
    if (!a.isDouble() || !b.isDouble() || b.toDouble() <= 0)
        return QStringLiteral("-");
    return QString::number(a.toDouble() / b.toDouble(), 'f', 2);
}

void printRun(const QJsonObject& run)
{
    std::printf("\n%s, %s ms RTT, %s/%s Mbit/s down/up, %d dishes, %s\n",
                qPrintable(run.value("profile").toString()),
                qPrintable(number(run.value("rtt_ms"))), qPrintable(number(run.value("down_mbit"))),
                qPrintable(number(run.value("up_mbit"))), run.value("dishes").toInt(),
                qPrintable(run.value("when").toString()));
    const char* fmt = "  %-46s %9s %9s %6s %9s %6s  %-16s %s\n";
    std::printf(fmt, "figure [ms]", "SDK", "by hand", "/hand", "link", "/link", "goal", "verdict");
    for (const QJsonValue& value : run.value("rows").toArray()) {
        const QJsonObject r = value.toObject();
        const QString against = r.value("against").toString();
        const double goal = r.value("goal_ratio").toDouble();
        QString goalText = QStringLiteral("-"), verdict = QStringLiteral("info");
        if (!against.isEmpty()) {
            goalText = QStringLiteral("/%1 <= %2").arg(against).arg(goal);
            const QJsonValue base = r.value(against);
            const QString rt = ratio(r.value("sdk"), base);
            verdict = rt == QLatin1String("-") ? QStringLiteral("n/a")
                                               : (rt.toDouble() <= goal ? QStringLiteral("PASS")
                                                                        : QStringLiteral("MISS"));
        }
        std::printf(fmt, qPrintable(r.value("figure").toString()),
                    qPrintable(number(r.value("sdk"))), qPrintable(number(r.value("hand"))),
                    qPrintable(ratio(r.value("sdk"), r.value("hand"))),
                    qPrintable(number(r.value("limit"))),
                    qPrintable(ratio(r.value("sdk"), r.value("limit"))), qPrintable(goalText),
                    qPrintable(verdict));
        if (!r.value("note").toString().isEmpty())
            std::printf("  %-46s %s\n", "", qPrintable(r.value("note").toString()));
    }
    std::fflush(stdout);
}

} // namespace

int linkMode(const QString& profileName, int dishes, const QStringList& what, const QString& json,
             int coldRuns, int outageSeconds)
{
    Lab lab;
    if (!lab.read()) {
        std::fprintf(stderr, "bench --link: KELO_LAB_API and KELO_LAB_CA are not set: run it "
                             "through tools/netlab/lab.sh run\n");
        return 1;
    }
    const LinkProfile* profile = findProfile(profileName);
    if (!profile) {
        std::fprintf(stderr, "bench --link: unknown profile %s\n", qPrintable(profileName));
        return 1;
    }
    QFile ca(lab.ca);
    if (!ca.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "bench --link: cannot read %s\n", qPrintable(lab.ca));
        return 1;
    }
    kelocloud::trustCertificateAuthority(ca.readAll());
    qputenv("KELO_SERVER_HOST", lab.api.toUtf8());
    auto wanted = [&](const char* name) {
        return what.isEmpty() || what.contains(QLatin1String(name));
    };

    LinkBench bench(lab, *profile);
    QList<LinkRow> rows;
    if (wanted("channel")) {
        phase("channel from a cold start");
        rows << bench.channelColdStart();
    }
    if (!bench.connectSdk())
        return 1;
    if (wanted("request")) {
        phase("one request");
        rows << bench.oneRequest();
    }
    if (wanted("cold")) {
        phase("cold menu sync");
        rows << bench.coldSync(coldRuns);
    }
    if (wanted("warm")) {
        phase("warm menu sync");
        rows << bench.warmSync();
    }
    if (wanted("pictures")) {
        phase("pictures over HTTP/1.1 and HTTP/2");
        rows << bench.pictureProtocols(coldRuns);
    }
    if (wanted("outage")) {
        phase("silent outage");
        rows << bench.outage(outageSeconds);
    }

    QJsonArray array;
    for (const LinkRow& r : rows)
        array.append(r.toJson());
    const QString key = QStringLiteral("%1/%2").arg(profileName).arg(dishes);
    const QJsonObject run{{"profile", profileName},
                          {"rtt_ms", profile->rttMs},
                          {"down_mbit", profile->downMbit},
                          {"up_mbit", profile->upMbit},
                          {"dishes", dishes},
                          {"machine", machine()},
                          {"when", QDateTime::currentDateTimeUtc().toString(Qt::ISODate)},
                          {"rows", array}};
    printRun(run);
    if (!json.isEmpty()) {
        QJsonObject all = readJson(json);
        QJsonObject runs = all.value("runs").toObject();
        runs.insert(key, run);
        all.insert(QStringLiteral("runs"), runs);
        QFile file(json);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            file.write(QJsonDocument(all).toJson()) < 0) {
            std::fprintf(stderr, "bench --link: cannot write %s\n", qPrintable(json));
            return 1;
        }
    }
    return 0;
}

int linkReport(const QString& json)
{
    const QJsonObject runs = readJson(json).value("runs").toObject();
    if (runs.isEmpty()) {
        std::fprintf(stderr, "bench --link-report: no run in %s\n", qPrintable(json));
        return 1;
    }
    // In the order of the profiles' table, then by menu size.
    QStringList keys = runs.keys();
    auto rank = [&](const QString& key) {
        const QJsonObject run = runs.value(key).toObject();
        const QString name = run.value("profile").toString();
        int profile = 0;
        while (profile < int(std::size(Profiles)) && name != QLatin1String(Profiles[profile].name))
            ++profile;
        return std::make_pair(profile, run.value("dishes").toInt());
    };
    std::sort(keys.begin(), keys.end(),
              [&](const QString& a, const QString& b) { return rank(a) < rank(b); });
    for (const QString& key : keys)
        printRun(runs.value(key).toObject());
    return 0;
}

} // namespace kelobench
