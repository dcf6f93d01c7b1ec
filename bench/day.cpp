// --day: a terminal's shop day on the network lab (see day.h). Everything is seeded: the same
// seed plays the same steps and the same link events at the same moments.
//
// The operator is a waiter at the terminal: one call at a time, a think time of 0.3 to 2 s
// between them. Logged out, it logs in; with an invoice open, the customer pays it (the
// simulator's /_sim/invoice/paid, and the terminal waits for "payment_success") or the waiter
// cancels it; otherwise menu syncs, orders, table lists, table foods, merges, bills, invoices
// and now and then a logout. A paid or refused invoice is freed as hosts do, with
// onNetworkError(0, ...), whose echo the books ignore. Every 6 to 12 s the simulator pushes a
// notice "day-N" while the channel is up.
//
// The link (its own generator, bench/daybooks.h): after the warm-up, one event at a time with
// 1 to 3 s between them: blackholes of 2 to 60 s, 2 to 5 % loss, 4G and back to the start
// profile, kelo-cloud killed and back 0 to 5 s later (lab.sh cloud-restart).
//
// The books, each broken promise one violation:
//   no outcome        a call without done signal, keloappError or networkError within its
//                     deadline (the request deadline + margin; the menu also one picture's idle
//                     time, the invoice chain two requests); the day then gives up as a host
//                     does (onNetworkError) and goes on
//   second outcome    an outcome while no call is out: a late or second answer
//   wrong outcome     the done signal of another kind
//   refused as busy   a "kelo process ... busy" refusal, though every earlier call had ended
//   notice twice      a notice that arrived more than once
//   notice lost       a notice the cloud took (pushed to >= 1 socket) while the SDK's channel
//                     was up and no outage came within 12 s before or 10 s after, that never
//                     arrived
//   not back          after the last link event, a kind without its done signal within 3 s;
//                     for the kind of the operator's call still out then (sent into the last
//                     outage), and the kinds that wait on it (everything on a login, the cancel
//                     on its invoice), within 3 s of that call's end: a request that may have
//                     reached the server is never sent again, so it holds its kind until its
//                     answer (TCP sends it again at its own pace) or its deadline
//   memory grows      resident memory (/proc/self/statm, every second) more than 5 MB above
//                     the warm-up's end (medians of 5 quiet samples each); both the warm-up and
//                     the day end with the same roll call of every kind at once, so that the
//                     connections the SDK keeps are alike at both ends
//   descriptors grow  more open descriptors (/proc/self/fd; minima of the same samples)
#include "day.h"

#include "benchsupport.h"
#include "daybooks.h"
#include "devca.h"
#include "kelosdk.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QTimer>
#include <QUrlQuery>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <random>

namespace kelobench {
namespace {

// ---- the promises the books hold the SDK to -------------------------------------------------

/// A request that gets no byte for this long ends in networkError (the SDK's request deadline).
constexpr double kRequestDeadlineS = 20;
/// Slack on every deadline for the event loop and the wire's queues (4G, loss).
constexpr double kMarginS = 10;
/// A menu run may wait on one picture this long without a byte before it gives the picture up.
constexpr double kPictureIdleS = 30;
/// After the last link event every kind must answer within this long.
constexpr double kBackWithinS = 3;
/// Longest a control request (the simulator's /_sim/ routes, kelo-wire ctl) may take.
constexpr int kControlTimeoutMs = 10000;

double nowS(Clock::time_point start)
{
    return msSince(start) / 1000;
}

enum class Act
{
    Login,
    Logout,
    Menu,
    Order,
    Tables,
    TableFoods,
    Merge,
    Payment,
    Invoice,
    Pay,
    Cancel
};

const char* actName(Act a)
{
    static const char* names[] = {"login", "logout",  "menu",    "order", "tables", "table foods",
                                  "merge", "payment", "invoice", "pay",   "cancel"};
    return names[static_cast<int>(a)];
}

/// The signal that carries @p a's answer.
const char* doneName(Act a)
{
    static const char* names[] = {"userLoginDone",     "userLogoutDone",
                                  "foodsRequestDone",  "foodOrderRequestDone",
                                  "tableRequestDone",  "tableFoodsDone",
                                  "tableMergeDone",    "paymentDone",
                                  "tumiQRInvoiceCode", "",
                                  "tumipayCancelDone"};
    return names[static_cast<int>(a)];
}

double deadlineOf(Act a)
{
    switch (a) {
    case Act::Menu:
        return kRequestDeadlineS + kPictureIdleS + kMarginS;
    case Act::Invoice: // the invoice session, then "create"
        return 2 * kRequestDeadlineS + kMarginS;
    default:
        return kRequestDeadlineS + kMarginS;
    }
}

/// The SDK's own "busy" refusals (codes and the start of their text).
bool isBusyRefusal(int code, const QString& text)
{
    static const QList<int> codes{102, 103, 104, 106, 110, 111, 112, 113};
    return codes.contains(code) && text.startsWith(QLatin1String("kelo process"));
}

enum Outcome
{
    Done,
    AppError,
    NetError,
    NoOutcome
};

struct Call
{
    Act act;
    double t0;
    double deadline;
    Outcome outcome = NoOutcome;
    double seconds = -1;
    int code = 0;
};

struct Notice
{
    double sent = 0;
    bool confirmed = false; ///< the cloud answered the control request
    int sockets = 0;        ///< sockets the cloud pushed it to
    bool channelUp = false; ///< the SDK's channel was up when it was sent
    int arrived = 0;
    double firstArrival = -1;
};

using Event = LinkEvent;
using EventType = LinkEventType;
using Sample = ProcessSample;

double rssMb()
{
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2)
            resident = 0;
        std::fclose(f);
    }
    return static_cast<double>(resident) * sysconf(_SC_PAGESIZE) / (1024 * 1024);
}

int openFds()
{
    return static_cast<int>(QDir(QStringLiteral("/proc/self/fd"))
                                .entryList(QDir::Files | QDir::System | QDir::NoDotAndDotDot)
                                .size()) -
           1; // the listing's own descriptor
}

// ---- the day --------------------------------------------------------------------------------

class Day : public QObject
{
public:
    explicit Day(const DayOptions& options) : opt(options), rng(options.seed) {}

    bool readLab();
    int run();

private:
    // the operator
    void think();
    void step();
    Act choose();
    void start(Act act);
    void outcome(Outcome kind, const char* signal, int code, const QString& text);
    void deadlineMissed();
    void reset(const QString& why);
    void pay();
    void settlePaid();
    // notices
    void pushNotice();
    void noticeArrived(const QString& word);
    bool disruptedAround(double t) const;
    // the link
    void planEvents();
    void eventStarts(int i);
    void eventEnds(int i);
    bool wire(const QStringList& args);
    // the end
    void requestRollCall(bool last);
    void beginRollCall();
    void finalTick();
    void rollCallOver();
    void closeDuringRollCall(Outcome kind, int code, const QString& text);
    void heldCallEnded();
    double backFrom(Act act) const;
    void finalDone(Act act);
    void finish();
    int evaluate();
    void writeDat() const;
    void writeReport(const QJsonObject& summary) const;

    void violation(const QString& kind, const QString& text);
    void control(const QString& path, const QByteArray& form,
                 const std::function<void(bool, const QJsonObject&)>& done);
    double uniform(double a, double b) { return std::uniform_real_distribution<>(a, b)(rng); }

    DayOptions opt;
    std::mt19937 rng;
    std::mt19937 noticeRng{opt.seed + 7919};
    Clock::time_point t0 = Clock::now();
    QString api, ca, wireExe, wireCtl, restartCommand, startProfile;
    QByteArray controlToken; ///< kelo-cloud's, for its control routes (the same after restarts)

    std::unique_ptr<Kelosdk> sdk;
    QNetworkAccessManager controlNam;
    QTimer deadlineTimer;
    QTimer sampler;
    QTimer noticeTimer;
    QList<Call> calls;
    int pending = -1;
    bool loggedIn = false;
    bool channelUp = false;
    int channelChanges = 0;
    QString openInvoice;
    QString payingWord;
    QMap<QString, QString> paidKeyOfCode; ///< invoice code -> its latest key in the books
    int paidCount = 0;
    QStringList expectedResets;
    QMap<QString, Notice> notices;
    QList<QString> noticeOrder;
    int noticeCount = 0;
    QList<Event> events;
    int eventsOut = 0;
    int disruptions = 0; ///< blackholes and restarts going on
    QList<Sample> samples;
    QMap<QString, QStringList> violations;
    double warmUp = 20;
    // the last check
    bool final = false;          ///< a roll call is going on: the operator waits
    bool rollCallWanted = false; ///< a roll call is asked for and about to start
    bool rollCallLast = false;   ///< the one after the last link event
    bool ended = false;
    double tFinal = -1;   ///< the roll call's reference time (the last event's end)
    double baseFrom = -1; ///< the quiet seconds after the warm-up's roll call
    double baseTo = -1;
    QMap<Act, double> back;     ///< kind -> seconds after the last event when it answered
    QMap<Act, double> finalOut; ///< kind -> when its last try went out
    int held = -1;              ///< the operator's call still out at the last event (calls)
    double heldEnd = -1;        ///< seconds after the last event when that call ended
    QTimer finalTimer;
    QString finalInvoice;
};

bool Day::readLab()
{
    auto env = [](const char* name) { return QString::fromLocal8Bit(qgetenv(name)); };
    api = env("KELO_LAB_API");
    ca = env("KELO_LAB_CA");
    wireExe = env("KELO_LAB_WIRE");
    wireCtl = env("KELO_LAB_WIRE_CTL");
    restartCommand = env("KELO_LAB_CLOUD_RESTART");
    controlToken = qgetenv("KELO_LAB_CONTROL_TOKEN");
    startProfile =
        env("KELO_LAB_PROFILE").isEmpty() ? QStringLiteral("wifi") : env("KELO_LAB_PROFILE");
    QFile caFile(ca);
    if (api.isEmpty() || wireCtl.isEmpty() || restartCommand.isEmpty() || controlToken.isEmpty() ||
        !caFile.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "day: not inside the network lab (KELO_LAB_API, KELO_LAB_CA, "
                             "KELO_LAB_WIRE_CTL, KELO_LAB_CLOUD_RESTART, "
                             "KELO_LAB_CONTROL_TOKEN): run it through tools/netlab/lab.sh run\n");
        return false;
    }
    kelocloud::trustCertificateAuthority(caFile.readAll());
    qputenv("KELO_SERVER_HOST", api.toUtf8());
    return true;
}

void Day::violation(const QString& kind, const QString& text)
{
    violations[kind].append(text);
    std::printf("day: %7.1f s  VIOLATION %s: %s\n", nowS(t0), qPrintable(kind), qPrintable(text));
    std::fflush(stdout);
}

void Day::control(const QString& path, const QByteArray& form,
                  const std::function<void(bool, const QJsonObject&)>& done)
{
    QNetworkRequest request(QUrl(QStringLiteral("https://%1%2").arg(api, path)));
    request.setHeader(QNetworkRequest::ContentTypeHeader,
                      QStringLiteral("application/x-www-form-urlencoded"));
    request.setTransferTimeout(kControlTimeoutMs);
    request.setRawHeader("X-Kelo-Control-Token", controlToken);
    QNetworkReply* reply = controlNam.post(request, form);
    connect(reply, &QNetworkReply::finished, this, [reply, done] {
        reply->deleteLater();
        const QJsonObject answer = QJsonDocument::fromJson(reply->readAll()).object();
        done(answer.value(QStringLiteral("ok")).toBool(), answer);
    });
}

int Day::run()
{
    warmUp = std::clamp(opt.seconds * 0.15, 20.0, 60.0);
    planEvents();
    std::printf("day: %d s, seed %u, %d link events planned, warm-up %.0f s, lab API %s\n",
                opt.seconds, opt.seed, static_cast<int>(events.size()), warmUp, qPrintable(api));
    std::fflush(stdout);

    sdk =
        std::make_unique<Kelosdk>(QString::fromLatin1(Merchant), QStringLiteral("POS-DAY"), false);
    Kelosdk* s = sdk.get();
    connect(s, &Kelosdk::cloudConnectionChange, this, [this](bool up) {
        if (up != channelUp)
            ++channelChanges;
        channelUp = up;
    });
    auto done = [this](Act act) {
        return [this, act] {
            if (final)
                finalDone(act);
            else
                outcome(Done, doneName(act), 0, {});
        };
    };
    connect(s, &Kelosdk::userLoginDone, this, [this](int error, const QString&) {
        if (final) {
            finalDone(Act::Login);
            return;
        }
        if (pending >= 0 && calls[pending].act == Act::Login && error == 0)
            loggedIn = true;
        outcome(Done, "userLoginDone", error, {});
    });
    connect(s, &Kelosdk::userLogoutDone, this, [this] {
        loggedIn = false;
        if (!final)
            outcome(Done, "userLogoutDone", 0, {});
    });
    connect(s, &Kelosdk::foodsRequestDone, this, done(Act::Menu));
    connect(s, &Kelosdk::foodOrderRequestDone, this, done(Act::Order));
    connect(s, &Kelosdk::tableRequestDone, this, done(Act::Tables));
    connect(s, &Kelosdk::tableFoodsDone, this, done(Act::TableFoods));
    connect(s, &Kelosdk::tableMergeDone, this, done(Act::Merge));
    connect(s, &Kelosdk::paymentDone, this, done(Act::Payment));
    connect(s, &Kelosdk::tumipayCancelDone, this, done(Act::Cancel));
    connect(s, &Kelosdk::tumiQRInvoiceCode, this, [this](const QString& data) {
        const QString code = QJsonDocument::fromJson(data.toUtf8())
                                 .object()
                                 .value(QStringLiteral("dt"))
                                 .toObject()
                                 .value(QStringLiteral("invoice_code"))
                                 .toString();
        if (final) {
            finalInvoice = code;
            finalDone(Act::Invoice);
            return;
        }
        if (pending >= 0 && calls[pending].act == Act::Invoice)
            openInvoice = code;
        outcome(Done, "tumiQRInvoiceCode", 0, {});
    });
    connect(s, &Kelosdk::keloappError, this, [this](int code, const QString& text) {
        if (!final)
            outcome(AppError, "keloappError", code, text);
        else
            closeDuringRollCall(AppError, code, text);
    });
    connect(s, &Kelosdk::networkError, this, [this](int code, const QString& text) {
        if (expectedResets.removeOne(text))
            return; // the echo of the day's own onNetworkError()
        if (!final)
            outcome(NetError, "networkError", code, text);
        else
            closeDuringRollCall(NetError, code, text);
    });
    connect(s, &Kelosdk::notify, this, [this](const QString& word) { noticeArrived(word); });
    connect(s, &Kelosdk::tumipayRequestDone, this, [this](const QString& data) {
        const QJsonObject dt =
            QJsonDocument::fromJson(data.toUtf8()).object().value(QStringLiteral("dt")).toObject();
        const QString code = dt.value(QStringLiteral("invoice_code")).toString();
        noticeArrived(code.isEmpty() ? payingWord
                                     : paidKeyOfCode.value(code, QStringLiteral("paid:") + code));
        if (!payingWord.isEmpty() && notices.value(payingWord).arrived > 0)
            settlePaid();
    });

    deadlineTimer.setSingleShot(true);
    connect(&deadlineTimer, &QTimer::timeout, this, [this] { deadlineMissed(); });
    connect(&sampler, &QTimer::timeout, this, [this] {
        samples.append({nowS(t0), rssMb(), openFds()});
    });
    sampler.start(1000);
    noticeTimer.setSingleShot(true);
    connect(&noticeTimer, &QTimer::timeout, this, [this] { pushNotice(); });
    noticeTimer.start(5000);
    connect(&finalTimer, &QTimer::timeout, this, [this] { finalTick(); });

    for (int i = 0; i < events.size(); ++i) {
        QTimer::singleShot(static_cast<int>(events[i].start * 1000), this,
                           [this, i] { eventStarts(i); });
        ++eventsOut;
    }
    if (events.isEmpty())
        QTimer::singleShot(opt.seconds * 1000, this, [this] { requestRollCall(true); });
    // The warm-up ends with a roll call of every kind, as the day does: the connections the SDK
    // keeps are then alike at both ends of the memory and descriptor comparison.
    QTimer::singleShot(static_cast<int>((warmUp - 10) * 1000), this,
                       [this] { requestRollCall(false); });
    QTimer::singleShot(1000, this, [this] { step(); });
    while (!ended)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    return evaluate();
}

// ---- the operator: one step at a time, as a waiter at the terminal ----------------------------

void Day::think()
{
    if (final)
        return;
    if (rollCallWanted) {
        if (pending < 0 && payingWord.isEmpty())
            QTimer::singleShot(0, this, [this] { beginRollCall(); });
        return;
    }
    QTimer::singleShot(static_cast<int>(uniform(300, 2000)), this, [this] { step(); });
}

Act Day::choose()
{
    if (!loggedIn)
        return Act::Login;
    if (!openInvoice.isEmpty())
        return uniform(0, 1) < 0.6 ? Act::Pay : Act::Cancel;
    struct Weight
    {
        Act act;
        double w;
    };
    static const Weight weights[] = {{Act::Menu, 6},        {Act::Order, 20}, {Act::Tables, 14},
                                     {Act::TableFoods, 14}, {Act::Merge, 5},  {Act::Payment, 8},
                                     {Act::Invoice, 10},    {Act::Logout, 3}};
    double total = 0;
    for (const Weight& w : weights)
        total += w.w;
    double r = uniform(0, total);
    for (const Weight& w : weights) {
        if (r < w.w)
            return w.act;
        r -= w.w;
    }
    return Act::Tables;
}

void Day::step()
{
    if (final || rollCallWanted || pending >= 0 || !payingWord.isEmpty())
        return;
    const Act act = choose();
    if (act == Act::Pay) {
        pay();
        return;
    }
    start(act);
}

void Day::start(Act act)
{
    pending = static_cast<int>(calls.size());
    calls.append({act, nowS(t0), deadlineOf(act)});
    deadlineTimer.start(static_cast<int>(deadlineOf(act) * 1000));
    const int table = 1 + static_cast<int>(uniform(0, 6));
    const int other = 1 + (table % 6);
    const QJsonArray items{QJsonObject{{"item_id", 1 + static_cast<int>(uniform(0, 20))},
                                       {"qty", 1 + static_cast<int>(uniform(0, 3))}}};
    switch (act) {
    case Act::Login:
        sdk->userLogin(QStringLiteral("mai"), QStringLiteral("mai123"), Kelosdk::waiter);
        break;
    case Act::Logout:
        sdk->userLogout();
        break;
    case Act::Menu:
        sdk->foodsRequest();
        break;
    case Act::Order:
        sdk->foodOrderRequest({{"table_id", table}, {"amount", 50000}, {"items", items}});
        break;
    case Act::Tables:
        sdk->tableRequest();
        break;
    case Act::TableFoods:
        sdk->tableFoodsRequest(table);
        break;
    case Act::Merge:
        sdk->tableMergeRequest(table, other);
        break;
    case Act::Payment:
        sdk->paymentRequest(table, 50000);
        break;
    case Act::Invoice:
        sdk->tumipayRequest(120000, QStringLiteral("Table %1").arg(table), QStringLiteral("Bill"));
        break;
    case Act::Cancel:
        sdk->tumipayCancel(openInvoice);
        break;
    case Act::Pay:
        break;
    }
}

void Day::outcome(Outcome kind, const char* signal, int code, const QString& text)
{
    const double t = nowS(t0);
    if (pending < 0) {
        const QString last = calls.isEmpty() ? QStringLiteral("none")
                                             : QString::fromLatin1(actName(calls.constLast().act));
        violation(QStringLiteral("second outcome"),
                  QStringLiteral("%1(%2 %3) with no call out (the last call: %4)")
                      .arg(QLatin1String(signal))
                      .arg(code)
                      .arg(text, last));
        return;
    }
    Call& c = calls[pending];
    pending = -1;
    deadlineTimer.stop();
    c.outcome = kind;
    c.seconds = t - c.t0;
    c.code = code;
    if (kind == Done && qstrcmp(signal, doneName(c.act)) != 0)
        violation(QStringLiteral("wrong outcome"),
                  QStringLiteral("%1 answered %2")
                      .arg(QLatin1String(actName(c.act)), QLatin1String(signal)));
    if (kind == AppError && isBusyRefusal(code, text))
        violation(QStringLiteral("refused as busy"),
                  QStringLiteral("%1: %2 %3 (every earlier request had ended)")
                      .arg(QLatin1String(actName(c.act)))
                      .arg(code)
                      .arg(text));
    if (c.act == Act::Invoice && kind != Done) {
        // The chain's kind stays held after the server's refusal: the host frees it.
        if (kind == AppError)
            reset(QStringLiteral("day: invoice refused"));
        openInvoice.clear();
    }
    if (c.act == Act::Cancel)
        openInvoice.clear();
    think();
}

void Day::deadlineMissed()
{
    if (pending < 0)
        return;
    Call& c = calls[pending];
    pending = -1;
    c.outcome = NoOutcome;
    c.seconds = nowS(t0) - c.t0;
    violation(QStringLiteral("no outcome"), QStringLiteral("%1 sent at %2 s: nothing within %3 s")
                                                .arg(QLatin1String(actName(c.act)))
                                                .arg(c.t0, 0, 'f', 1)
                                                .arg(c.deadline, 0, 'f', 0));
    // As a host does: it gives up on everything in flight.
    reset(QStringLiteral("day: gave up on %1").arg(QLatin1String(actName(c.act))));
    if (c.act == Act::Invoice || c.act == Act::Cancel)
        openInvoice.clear();
    if (c.act == Act::Login)
        loggedIn = sdk->userIslogged();
    think();
}

void Day::reset(const QString& why)
{
    expectedResets.append(why);
    sdk->onNetworkError(0, why);
}

/// The customer pays the open invoice: the simulator marks it paid and the cloud sends
/// "payment_success" to the terminal; the terminal waits for it, then frees the invoice kind
/// (a paid invoice cannot be cancelled).
void Day::pay()
{
    const QString code = openInvoice;
    openInvoice.clear();
    if (disruptions > 0) {
        payingWord.clear();
        settlePaid();
        return;
    }
    // Invoice codes start again after a restart of kelo-cloud: the books' key is unique.
    payingWord = QStringLiteral("paid:%1 #%2").arg(code).arg(++paidCount);
    paidKeyOfCode[code] = payingWord;
    Notice& n = notices[payingWord];
    n.sent = nowS(t0);
    n.channelUp = channelUp;
    noticeOrder.append(payingWord);
    const QString word = payingWord;
    control(QStringLiteral("/_sim/invoice/paid"), "invoice_code=" + QUrl::toPercentEncoding(code),
            [this, word](bool ok, const QJsonObject&) {
                if (!notices.contains(word))
                    return;
                notices[word].confirmed = ok;
                notices[word].sockets = ok ? 1 : 0;
                if (!ok || notices[word].arrived > 0) {
                    if (word == payingWord)
                        settlePaid();
                    return;
                }
                QTimer::singleShot(static_cast<int>(kNoticeWaitS * 1000), this, [this, word] {
                    if (word == payingWord)
                        settlePaid();
                });
            });
}

void Day::settlePaid()
{
    payingWord.clear();
    reset(QStringLiteral("day: invoice settled"));
    think();
}

// ---- notices --------------------------------------------------------------------------------

void Day::pushNotice()
{
    if (final)
        return;
    noticeTimer.start(static_cast<int>(std::uniform_real_distribution<>(6000, 12000)(noticeRng)));
    if (disruptions > 0 || !channelUp)
        return;
    const QString word = QStringLiteral("day-%1").arg(++noticeCount);
    Notice& n = notices[word];
    n.sent = nowS(t0);
    n.channelUp = channelUp;
    noticeOrder.append(word);
    const QByteArray text =
        QJsonDocument(QJsonObject{{"dt", QJsonObject()}, {"err", 0}, {"msg", word}, {"type", 9}})
            .toJson(QJsonDocument::Compact);
    control(QStringLiteral("/_sim/push"),
            "devid=&text=" + QUrl::toPercentEncoding(QString::fromUtf8(text)),
            [this, word](bool ok, const QJsonObject& answer) {
                notices[word].confirmed = ok;
                notices[word].sockets = answer.value(QStringLiteral("sockets")).toInt();
            });
}

void Day::noticeArrived(const QString& word)
{
    if (!notices.contains(word)) {
        violation(QStringLiteral("notice not sent"), QStringLiteral("\"%1\" arrived").arg(word));
        return;
    }
    Notice& n = notices[word];
    if (++n.arrived == 1)
        n.firstArrival = nowS(t0);
    else
        violation(QStringLiteral("notice twice"),
                  QStringLiteral("\"%1\" arrived %2 times").arg(word).arg(n.arrived));
}

bool Day::disruptedAround(double t) const
{
    return outageAround(events, t);
}

// ---- the link ---------------------------------------------------------------------------------

void Day::planEvents()
{
    events = planLinkEvents(warmUp, opt.seconds, opt.seed);
}

bool Day::wire(const QStringList& args)
{
    QProcess ctl;
    ctl.setProcessChannelMode(QProcess::MergedChannels);
    ctl.start(wireExe, QStringList{QStringLiteral("ctl"), wireCtl} + args);
    const bool ok = ctl.waitForFinished(kControlTimeoutMs) &&
                    ctl.exitStatus() == QProcess::NormalExit && ctl.exitCode() == 0;
    if (!ok)
        std::fprintf(stderr, "day: kelo-wire ctl %s: %s\n", qPrintable(args.join(QLatin1Char(' '))),
                     ctl.readAll().trimmed().constData());
    return ok;
}

void Day::eventStarts(int i)
{
    Event& e = events[i];
    const int ms = static_cast<int>((e.end - e.start) * 1000);
    e.start = nowS(t0);
    e.end = e.start + ms / 1000.0;
    std::printf("day: %7.1f s  %s%s\n", e.start, linkEventName(e.type),
                e.type == EventType::Loss ? qPrintable(QStringLiteral(" %1 %").arg(e.param))
                : e.type == EventType::Restart
                    ? qPrintable(QStringLiteral(", %1 s down").arg(e.param))
                    : qPrintable(QStringLiteral(" for %1 s").arg(e.end - e.start, 0, 'f', 0)));
    std::fflush(stdout);
    switch (e.type) {
    case EventType::Blackhole:
        ++disruptions;
        wire({QStringLiteral("blackhole"), QStringLiteral("on")});
        break;
    case EventType::Loss:
        wire({QStringLiteral("set"), QStringLiteral("loss=%1").arg(e.param)});
        break;
    case EventType::Profile:
        wire({QStringLiteral("profile"), QStringLiteral("4g")});
        break;
    case EventType::Restart: {
        ++disruptions;
        auto* p = new QProcess(this);
        p->setProcessChannelMode(QProcess::MergedChannels);
        connect(p, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this,
                [this, p, i](int code, QProcess::ExitStatus status) {
                    p->deleteLater();
                    if (code != 0 || status != QProcess::NormalExit)
                        std::fprintf(stderr, "day: cloud restart failed: %s\n",
                                     p->readAll().trimmed().constData());
                    eventEnds(i);
                });
        p->start(QStringLiteral("/bin/sh"),
                 {QStringLiteral("-c"), restartCommand + QStringLiteral(" %1").arg(e.param)});
        return;
    }
    }
    QTimer::singleShot(ms, this, [this, i] { eventEnds(i); });
}

void Day::eventEnds(int i)
{
    Event& e = events[i];
    e.actualEnd = nowS(t0);
    switch (e.type) {
    case EventType::Blackhole:
        wire({QStringLiteral("blackhole"), QStringLiteral("off")});
        --disruptions;
        break;
    case EventType::Loss:
        wire({QStringLiteral("set"), QStringLiteral("loss=0")});
        break;
    case EventType::Profile:
        wire({QStringLiteral("profile"), startProfile});
        break;
    case EventType::Restart:
        --disruptions;
        break;
    }
    if (--eventsOut == 0)
        requestRollCall(true);
}

// ---- after the last event: every kind answers again within kBackWithinS -----------------------

void Day::requestRollCall(bool last)
{
    rollCallWanted = true;
    rollCallLast = last;
    tFinal = nowS(t0);
    if (last) {
        held = pending;
        noticeTimer.stop();
        std::printf("day: %7.1f s  last link event over: every kind must answer within %.0f s\n",
                    tFinal, kBackWithinS);
        std::fflush(stdout);
    }
    // A customer still paying is given up (the invoice freed now, not in the middle of the roll
    // call); the operator's call still out goes on beside the roll call until its outcome.
    if (!payingWord.isEmpty()) {
        payingWord.clear();
        reset(QStringLiteral("day: invoice settled"));
    }
    beginRollCall();
}

/// During a roll call an error cannot be told apart from the roll call's own: the first one
/// ends the operator's call still out, if any (its deadline stays the check that it ends).
void Day::closeDuringRollCall(Outcome kind, int code, const QString& text)
{
    // A busy refusal is always the roll call's own: the operator's call was taken.
    if (pending < 0 || (kind == AppError && isBusyRefusal(code, text)))
        return;
    Call& c = calls[pending];
    pending = -1;
    deadlineTimer.stop();
    c.outcome = kind;
    c.seconds = nowS(t0) - c.t0;
    c.code = code;
    heldCallEnded();
}

void Day::heldCallEnded()
{
    if (held >= 0 && heldEnd < 0 && final && rollCallLast)
        heldEnd = nowS(t0) - tFinal;
}

/// Seconds after the last event from which @p act must answer within kBackWithinS: 0, or the end
/// of the operator's call still out then if @p act is its kind or waits on it.
double Day::backFrom(Act act) const
{
    if (held < 0 || heldEnd < 0)
        return 0;
    const Act h = calls[held].act;
    const bool waits = act == h || (h == Act::Login) || (h == Act::Invoice && act == Act::Cancel);
    return waits ? heldEnd : 0;
}

void Day::beginRollCall()
{
    if (final || !rollCallWanted)
        return;
    rollCallWanted = false;
    final = true;
    back.clear();
    finalOut.clear();
    finalInvoice.clear();
    if (loggedIn)
        sdk->userLogout();
    finalTimer.start(250);
    finalTick();
}

void Day::finalTick()
{
    const double t = nowS(t0);
    static const Act kinds[] = {Act::Login,   Act::Menu,       Act::Order,
                                Act::Tables,  Act::TableFoods, Act::Merge,
                                Act::Payment, Act::Invoice,    Act::Cancel};
    bool all = true;
    for (Act act : kinds) {
        if (back.contains(act))
            continue;
        all = false;
        // A try out for less than a second is left alone; then it is tried again.
        if (finalOut.contains(act) && t - finalOut.value(act) < 1.0)
            continue;
        if (act != Act::Login && !back.contains(Act::Login))
            continue; // orders and bills name the logged-in waiter
        if (act == Act::Cancel && finalInvoice.isEmpty())
            continue;
        finalOut[act] = t;
        switch (act) {
        case Act::Login:
            if (sdk->userIslogged())
                sdk->userLogout();
            sdk->userLogin(QStringLiteral("mai"), QStringLiteral("mai123"), Kelosdk::waiter);
            break;
        case Act::Menu:
            sdk->foodsRequest();
            break;
        case Act::Order:
            sdk->foodOrderRequest({{"table_id", 1},
                                   {"amount", 1000},
                                   {"items", QJsonArray{QJsonObject{{"item_id", 1}, {"qty", 1}}}}});
            break;
        case Act::Tables:
            sdk->tableRequest();
            break;
        case Act::TableFoods:
            sdk->tableFoodsRequest(1);
            break;
        case Act::Merge:
            sdk->tableMergeRequest(5, 6);
            break;
        case Act::Payment:
            sdk->paymentRequest(2, 1000);
            break;
        case Act::Invoice:
            sdk->tumipayRequest(1000, QStringLiteral("Table 1"), QStringLiteral("Bill"));
            break;
        case Act::Cancel:
            sdk->tumipayCancel(finalInvoice);
            break;
        default:
            break;
        }
    }
    const double limit = kBackWithinS + 30; // how long it waits to say when a late kind came back
    if (all || t - tFinal > limit) {
        finalTimer.stop();
        if (!rollCallLast) {
            rollCallOver();
            return;
        }
        if (held >= 0)
            std::printf("day: %7.1f s  %s sent %.1f s before the last event's end held its kind "
                        "until %s\n",
                        nowS(t0), actName(calls[held].act), tFinal - calls[held].t0,
                        heldEnd < 0
                            ? "the end"
                            : qPrintable(QStringLiteral("%1 s after it").arg(heldEnd, 0, 'f', 1)));
        for (Act act : kinds)
            if (!back.contains(act) || back.value(act) > backFrom(act) + kBackWithinS)
                violation(QStringLiteral("not back"),
                          QStringLiteral("%1 %2").arg(
                              QLatin1String(actName(act)),
                              back.contains(act)
                                  ? QStringLiteral("answered %1 s after the last event%2")
                                        .arg(back.value(act), 0, 'f', 1)
                                        .arg(backFrom(act) > 0 ? QStringLiteral(" (free from %1 s)")
                                                                     .arg(backFrom(act), 0, 'f', 1)
                                                               : QString())
                                  : QStringLiteral("did not answer within %1 s").arg(limit)));
        // A few quiet seconds for the last memory and descriptor samples.
        QTimer::singleShot(5000, this, [this] { finish(); });
    }
}

/// The warm-up's roll call is over: five quiet seconds as the memory and descriptor baseline,
/// then the operator goes on.
void Day::rollCallOver()
{
    QStringList times;
    for (auto it = back.cbegin(); it != back.cend(); ++it)
        times << QStringLiteral("%1 %2 s")
                     .arg(QLatin1String(actName(it.key())))
                     .arg(it.value(), 0, 'f', 2);
    std::printf("day: %7.1f s  warm-up roll call: %s\n", nowS(t0),
                qPrintable(times.join(QStringLiteral(", "))));
    std::fflush(stdout);
    baseFrom = nowS(t0);
    baseTo = baseFrom + 5.5;
    QTimer::singleShot(5500, this, [this] {
        final = false;
        loggedIn = sdk->userIslogged();
        think();
    });
}

void Day::finalDone(Act act)
{
    if (pending >= 0 && calls[pending].act == act) {
        Call& c = calls[pending];
        c.outcome = Done;
        c.seconds = nowS(t0) - c.t0;
        pending = -1;
        deadlineTimer.stop();
        heldCallEnded();
    }
    if (!back.contains(act) && finalOut.contains(act))
        back[act] = nowS(t0) - tFinal;
}

void Day::finish()
{
    sampler.stop();
    samples.append({nowS(t0), rssMb(), openFds()});
    ended = true;
}

// ---- the books --------------------------------------------------------------------------------

int Day::evaluate()
{
    // Notices: each one the cloud took while the channel was up and the link had no outage
    // around it arrives exactly once (twice is already counted as it happens).
    int owed = 0, arrived = 0;
    for (const QString& word : noticeOrder) {
        const Notice& n = notices.value(word);
        if (n.arrived > 0)
            ++arrived;
        const bool isOwed = n.confirmed && n.sockets > 0 && n.channelUp &&
                            !disruptedAround(n.sent) && n.sent + kNoticeWaitS < tFinal;
        if (!isOwed)
            continue;
        ++owed;
        if (n.arrived == 0)
            violation(QStringLiteral("notice lost"),
                      QStringLiteral("\"%1\" sent at %2 s never arrived")
                          .arg(word)
                          .arg(n.sent, 0, 'f', 1));
    }
    // Memory and descriptors: the quiet seconds after the warm-up's roll call against the
    // last samples, taken quiet after the day's.
    const Growth growth = growthSince(samples, baseFrom, baseTo);
    const double rssGrowth = growth.rssMb;
    const int fdGrowth = growth.fds;
    if (growth.rssMb > kRssGrowthMb)
        violation(QStringLiteral("memory grows"),
                  QStringLiteral("resident memory +%1 MB after the warm-up")
                      .arg(growth.rssMb, 0, 'f', 1));
    if (growth.fds > 0)
        violation(QStringLiteral("descriptors grow"),
                  QStringLiteral("+%1 open descriptors after the warm-up").arg(growth.fds));
    int counts[4] = {0, 0, 0, 0};
    std::vector<double> times;
    for (const Call& c : calls) {
        ++counts[c.outcome];
        if (c.outcome != NoOutcome)
            times.push_back(c.seconds);
    }
    int total = 0;
    QStringList kinds;
    for (auto it = violations.cbegin(); it != violations.cend(); ++it) {
        total += it.value().size();
        kinds << QStringLiteral("%1 %2").arg(it.value().size()).arg(it.key());
    }
    const int linkEvents = static_cast<int>(events.size());
    std::printf("day: SUMMARY %d s seed %u: %d calls (%d answered, %d app errors, %d network "
                "errors, %d without outcome), outcome p50 %.2f s p99 %.2f s max %.2f s; %d link "
                "events; notices %d sent, %d owed, %d arrived; channel changes %d; rss %+.1f MB, "
                "fds %+d; violations %d%s%s\n",
                opt.seconds, opt.seed, static_cast<int>(calls.size()), counts[Done],
                counts[AppError], counts[NetError], counts[NoOutcome], percentile(times, 0.5),
                percentile(times, 0.99),
                times.empty() ? 0.0 : *std::max_element(times.begin(), times.end()), linkEvents,
                static_cast<int>(noticeOrder.size()), owed, arrived, channelChanges, rssGrowth,
                fdGrowth, total, total ? ": " : "", qPrintable(kinds.join(QStringLiteral(", "))));
    std::fflush(stdout);
    if (!opt.dat.isEmpty())
        writeDat();
    if (!opt.report.isEmpty()) {
        QJsonObject summary{{"seconds", opt.seconds},
                            {"seed", static_cast<qint64>(opt.seed)},
                            {"calls", static_cast<int>(calls.size())},
                            {"answered", counts[Done]},
                            {"app_errors", counts[AppError]},
                            {"network_errors", counts[NetError]},
                            {"no_outcome", counts[NoOutcome]},
                            {"p50_s", percentile(times, 0.5)},
                            {"p99_s", percentile(times, 0.99)},
                            {"link_events", linkEvents},
                            {"notices_sent", static_cast<int>(noticeOrder.size())},
                            {"notices_owed", owed},
                            {"notices_arrived", arrived},
                            {"rss_growth_mb", rssGrowth},
                            {"fd_growth", fdGrowth},
                            {"violations", total}};
        QJsonObject byKind;
        for (auto it = violations.cbegin(); it != violations.cend(); ++it)
            byKind.insert(it.key(), QJsonArray::fromStringList(it.value()));
        summary.insert(QStringLiteral("by_kind"), byKind);
        QJsonObject kindsOfEvents;
        for (const Event& e : events)
            kindsOfEvents.insert(QLatin1String(linkEventName(e.type)),
                                 kindsOfEvents.value(QLatin1String(linkEventName(e.type))).toInt() +
                                     1);
        summary.insert(QStringLiteral("events"), kindsOfEvents);
        writeReport(summary);
    }
    return total ? 1 : 0;
}

void Day::writeDat() const
{
    QFile f(opt.dat);
    if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text))
        return;
    QByteArray out = "# index 0: t_s rss_mb fds\n";
    for (const Sample& s : samples)
        out += QStringLiteral("%1 %2 %3\n")
                   .arg(s.t, 0, 'f', 1)
                   .arg(s.rssMb, 0, 'f', 2)
                   .arg(s.fds)
                   .toLatin1();
    out += "\n\n# index 1: t_s outcome_s outcome(0 done 1 app error 2 network error 3 none) kind\n";
    for (const Call& c : calls)
        out += QStringLiteral("%1 %2 %3 \"%4\"\n")
                   .arg(c.t0, 0, 'f', 2)
                   .arg(std::max(c.seconds, 0.001), 0, 'f', 3)
                   .arg(static_cast<int>(c.outcome))
                   .arg(QLatin1String(actName(c.act)))
                   .toLatin1();
    out += "\n\n# index 2: start_s end_s type(0 blackhole 1 loss 2 4g 3 cloud restart)\n";
    for (const Event& e : events)
        out += QStringLiteral("%1 %2 %3\n")
                   .arg(e.start, 0, 'f', 1)
                   .arg(e.actualEnd >= 0 ? e.actualEnd : e.end, 0, 'f', 1)
                   .arg(static_cast<int>(e.type))
                   .toLatin1();
    f.write(out);
}

void Day::writeReport(const QJsonObject& s) const
{
    QFile f(opt.report);
    if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text))
        return;
    const QJsonObject m = machine();
    QString out;
    out += QStringLiteral("## Day of %1 minutes, seed %2\n\n")
               .arg(opt.seconds / 60.0, 0, 'g', 3)
               .arg(opt.seed);
    out += QStringLiteral("Machine: %1 cores, %2, load at the end %3.\n\n")
               .arg(m.value(QStringLiteral("nproc")).toInt())
               .arg(m.value(QStringLiteral("cpu")).toString(),
                    m.value(QStringLiteral("load")).toString());
    out += QStringLiteral("| Figure | Value |\n|---|---|\n");
    auto row = [&out](const QString& name, const QString& value) {
        out += QStringLiteral("| %1 | %2 |\n").arg(name, value);
    };
    row(QStringLiteral("Calls"),
        QStringLiteral("%1: %2 answered, %3 app errors, %4 network errors, "
                       "%5 without outcome")
            .arg(s.value(QStringLiteral("calls")).toInt())
            .arg(s.value(QStringLiteral("answered")).toInt())
            .arg(s.value(QStringLiteral("app_errors")).toInt())
            .arg(s.value(QStringLiteral("network_errors")).toInt())
            .arg(s.value(QStringLiteral("no_outcome")).toInt()));
    row(QStringLiteral("Outcome time p50 / p99"),
        QStringLiteral("%1 s / %2 s")
            .arg(s.value(QStringLiteral("p50_s")).toDouble(), 0, 'f', 2)
            .arg(s.value(QStringLiteral("p99_s")).toDouble(), 0, 'f', 2));
    QStringList ev;
    const QJsonObject events = s.value(QStringLiteral("events")).toObject();
    for (auto it = events.begin(); it != events.end(); ++it)
        ev << QStringLiteral("%1 %2").arg(it.value().toInt()).arg(it.key());
    row(QStringLiteral("Link events"), QStringLiteral("%1 (%2)")
                                           .arg(s.value(QStringLiteral("link_events")).toInt())
                                           .arg(ev.join(QStringLiteral(", "))));
    row(QStringLiteral("Notices sent / owed / arrived"),
        QStringLiteral("%1 / %2 / %3")
            .arg(s.value(QStringLiteral("notices_sent")).toInt())
            .arg(s.value(QStringLiteral("notices_owed")).toInt())
            .arg(s.value(QStringLiteral("notices_arrived")).toInt()));
    row(QStringLiteral("Resident memory after the warm-up"),
        QStringLiteral("%1 MB (limit +%2 MB)")
            .arg(s.value(QStringLiteral("rss_growth_mb")).toDouble(), 0, 'f', 1)
            .arg(kRssGrowthMb));
    row(QStringLiteral("Open descriptors after the warm-up"),
        QStringLiteral("%1 (limit 0)").arg(s.value(QStringLiteral("fd_growth")).toInt()));
    row(QStringLiteral("Violations"),
        QString::number(s.value(QStringLiteral("violations")).toInt()));
    out += QStringLiteral("\n");
    const QJsonObject byKind = s.value(QStringLiteral("by_kind")).toObject();
    for (auto it = byKind.begin(); it != byKind.end(); ++it) {
        const QJsonArray list = it.value().toArray();
        out += QStringLiteral("- **%1** (%2)").arg(it.key()).arg(list.size());
        for (int i = 0; i < list.size() && i < 5; ++i)
            out += (i ? QStringLiteral("; ") : QStringLiteral(": ")) + list.at(i).toString();
        out += list.size() > 5 ? QStringLiteral("; ...\n") : QStringLiteral("\n");
    }
    if (!opt.plot.isEmpty())
        out += QStringLiteral("\n![Memory, descriptors and outcome times over the day](%1)\n")
                   .arg(opt.plot);
    f.write(out.toUtf8());
}

} // namespace

int dayMode(const DayOptions& options)
{
    Day day(options);
    if (!day.readLab())
        return 2;
    return day.run();
}

} // namespace kelobench
