// The SDK object across the network lab's wire (tools/netlab/lab.sh: the terminal and kelo-cloud
// in two namespaces, a link with delay, bandwidth and loss between them): what a shop's link does
// to the request kinds, the menu, a kept-alive connection closed under a request, and a silent
// outage of the notification channel; kelo-cloud's control routes answering across the lab only
// to its control token, before and after a restart. Functional checks only, no timings. Outside the
// lab (KELO_LAB_API unset) every test skips; the CI stage "netlab" runs it inside.
#include "kelosdk.h"
#include "labcontrol.h"
#include "signalrecorder.h"
#include "tempdatalocation.h"
#include "testwait.h"

#include <QCryptographicHash>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <functional>
#include <memory>

namespace {

constexpr char kMerchant[] = "M01";
constexpr char kMachine[] = "POS-LAB";
/// After a request's one outcome, how long the test watches for a second one.
constexpr int kSettleMs = 1000;
/// How soon the channel must notice a silent outage: three unanswered pings 3 s apart, the
/// first up to 3 s after the link went, and the check on the next tick.
constexpr int kOutageNoticedMs = 20000;

/// One step of a terminal's day: a request slot call and the signal that carries its answer.
struct Step
{
    std::function<void(Kelosdk&)> call;
    QByteArray done;
};
using Steps = QList<Step>;

} // namespace

Q_DECLARE_METATYPE(Steps)

class TestNetlab : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void everyKindEndsOnce_data();
    void everyKindEndsOnce();
    void menuSameAsOnLan();
    void silentOutage();
    void keptAliveCloseLosesNoRequest();
    void controlAnswersOnlyToTheToken();

private:
    /// A fresh SDK object, its channel up.
    std::unique_ptr<Kelosdk> connectedSdk();
    /// Runs @p step on @p sdk: the one outcome's signal name and its arguments.
    void runStep(Kelosdk& sdk, const Step& step, QByteArray* outcome, QVariantList* args);
    /// A whole menu sync on an emptied cache: the menu handed to the host and the cache's
    /// files (name -> SHA-256).
    bool syncMenu(QString* menu, QMap<QString, QByteArray>* files);

    LabControl lab;
    std::unique_ptr<TempDataLocation> data;
    /// The day's SDK object, shared by the rows of everyKindEndsOnce.
    std::unique_ptr<Kelosdk> daySdk;
    QString invoiceCode;
};

void TestNetlab::initTestCase()
{
    if (!lab.read())
        QSKIP("not inside the network lab (run through tools/netlab/lab.sh run)");
    data = std::make_unique<TempDataLocation>();
    QVERIFY(data->isValid());
    QVERIFY2(lab.trustAndPointSdk(), qPrintable(lab.lastError()));
}

void TestNetlab::cleanup()
{
    if (lab.isInside())
        QVERIFY2(lab.restore(), qPrintable(lab.lastError()));
}

std::unique_ptr<Kelosdk> TestNetlab::connectedSdk()
{
    auto sdk = std::make_unique<Kelosdk>(QString::fromLatin1(kMerchant),
                                         QString::fromLatin1(kMachine), false);
    QSignalSpy up(sdk.get(), &Kelosdk::cloudConnectionChange);
    const bool connected = QTest::qWaitFor(
        [&] {
            for (const QList<QVariant>& args : up)
                if (args.value(0).toBool())
                    return true;
            return false;
        },
        kWait);
    if (!connected)
        return nullptr;
    return sdk;
}

void TestNetlab::runStep(Kelosdk& sdk, const Step& step, QByteArray* outcome, QVariantList* args)
{
    SignalRecorder signals_(&sdk, {"cloudConnectionChange", "notify", "userIdname"});
    step.call(sdk);
    QSignalSpy& done = signals_[step.done];
    QSignalSpy& refused = signals_["keloappError"];
    QSignalSpy& failed = signals_["networkError"];
    const auto outcomes = [&] { return done.count() + refused.count() + failed.count(); };
    // Two waits: over a lossy link a request may take several retransmissions.
    QVERIFY2(QTest::qWaitFor([&] { return outcomes() > 0; }, 2 * kWait),
             qPrintable(step.done + " never ended: " + signals_.fired().join(", ")));
    QTest::qWait(kSettleMs);
    // One outcome, and no other signal of a request either (a reply handed to the wrong flow).
    QVERIFY2(outcomes() == 1 && signals_.fired().size() == 1,
             qPrintable(signals_.fired().join(", ")));
    const QSignalSpy& which = done.count() ? done : refused.count() ? refused : failed;
    *outcome = done.count() ? step.done : refused.count() ? "keloappError" : "networkError";
    *args = which.at(0);
}

void TestNetlab::everyKindEndsOnce_data()
{
    QTest::addColumn<Steps>("steps");
    const QJsonArray items{QJsonObject{{"item_id", 1}, {"qty", 2}},
                           QJsonObject{{"item_id", 4}, {"qty", 1}}};
    // A waiter's day, each row on the day's one SDK object, in this order.
    QTest::newRow("login") << Steps{{[](Kelosdk& s) {
                                         s.userLogin(QStringLiteral("mai"),
                                                     QStringLiteral("mai123"), Kelosdk::waiter);
                                     },
                                     "userLoginDone"}};
    QTest::newRow("menu") << Steps{{[](Kelosdk& s) { s.foodsRequest(); }, "foodsRequestDone"}};
    QTest::newRow("tables") << Steps{{[](Kelosdk& s) { s.tableRequest(); }, "tableRequestDone"}};
    QTest::newRow("order") << Steps{
        {[items](Kelosdk& s) {
             s.foodOrderRequest({{"table_id", 1}, {"amount", 160000}, {"items", items}});
         },
         "foodOrderRequestDone"}};
    QTest::newRow("table foods") << Steps{
        {[](Kelosdk& s) { s.tableFoodsRequest(1); }, "tableFoodsDone"}};
    QTest::newRow("merge") << Steps{
        {[](Kelosdk& s) { s.tableMergeRequest(1, 3); }, "tableMergeDone"}};
    QTest::newRow("payment") << Steps{
        {[](Kelosdk& s) { s.paymentRequest(3, 160000); }, "paymentDone"}};
    QTest::newRow("invoice chain and cancel")
        << Steps{{[](Kelosdk& s) {
                      s.tumipayRequest(150000, QStringLiteral("Table 3"), QStringLiteral("Bill"));
                  },
                  "tumiQRInvoiceCode"},
                 {[this](Kelosdk& s) { s.tumipayCancel(invoiceCode); }, "tumipayCancelDone"}};
    QTest::newRow("logout") << Steps{{[](Kelosdk& s) { s.userLogout(); }, "userLogoutDone"}};
}

/// Over the lossy link every request ends in exactly one outcome, and on this link (TCP
/// carries the losses) that outcome is the answer, a success.
void TestNetlab::everyKindEndsOnce()
{
    QFETCH(Steps, steps);
    if (!daySdk) {
        QVERIFY(lab.setProfile(QStringLiteral("lossy-wifi")));
        daySdk = connectedSdk();
        QVERIFY(daySdk);
    }
    for (const Step& step : steps) {
        QByteArray outcome;
        QVariantList args;
        runStep(*daySdk, step, &outcome, &args);
        if (QTest::currentTestFailed())
            return;
        QCOMPARE(outcome, step.done);
        if (step.done == "userLoginDone" || step.done == "userLogoutDone") {
            // (error, msg)
            QVERIFY2(args.value(0).toInt() == 0, qPrintable(args.value(1).toString()));
            continue;
        }
        const QString text = args.value(0).toString();
        const QJsonObject answer = QJsonDocument::fromJson(text.toUtf8()).object();
        QVERIFY2(answer.value("err").toInt(-1) == 0, qPrintable(text.left(300)));
        if (step.done == "tumiQRInvoiceCode") {
            invoiceCode = answer.value("dt").toObject().value("invoice_code").toString();
            QVERIFY(!invoiceCode.isEmpty());
        }
    }
}

bool TestNetlab::syncMenu(QString* menu, QMap<QString, QByteArray>* files)
{
    QDir(data->images()).removeRecursively();
    std::unique_ptr<Kelosdk> sdk = connectedSdk();
    if (!sdk)
        return false;
    QByteArray outcome;
    QVariantList args;
    runStep(*sdk, {[](Kelosdk& s) { s.foodsRequest(); }, "foodsRequestDone"}, &outcome, &args);
    if (QTest::currentTestFailed() || outcome != "foodsRequestDone")
        return false;
    *menu = args.value(0).toString();
    files->clear();
    for (const QString& name : QDir(data->images()).entryList(QDir::Files)) {
        QFile file(data->images() + QLatin1Char('/') + name);
        if (!file.open(QIODevice::ReadOnly))
            return false;
        files->insert(name, QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha256));
    }
    return true;
}

/// The menu a lossy link hands to the host is the one a clean link hands: the same text and the
/// same picture files, none of them a placeholder.
void TestNetlab::menuSameAsOnLan()
{
    QString lanMenu, lossyMenu;
    QMap<QString, QByteArray> lanFiles, lossyFiles;
    QVERIFY(lab.setProfile(QStringLiteral("lan")));
    QVERIFY(syncMenu(&lanMenu, &lanFiles));
    QVERIFY(lab.setProfile(QStringLiteral("lossy-wifi")));
    QVERIFY(syncMenu(&lossyMenu, &lossyFiles));

    const QJsonArray items = QJsonDocument::fromJson(lanMenu.toUtf8())
                                 .object()
                                 .value("dt")
                                 .toObject()
                                 .value("items")
                                 .toArray();
    QVERIFY(!items.isEmpty());
    QVERIFY2(!lanMenu.contains(QLatin1String("qrc:/icons")), "a clean link left placeholders");
    QCOMPARE(lanFiles.size(), items.size());
    // Both syncs wrote into the same cache folder, so the paths need no normalising.
    QCOMPARE(lossyMenu, lanMenu);
    QCOMPARE(lossyFiles, lanFiles);
}

/// The wire drops everything for 15 s: the channel goes down by itself, comes back by itself
/// once the link returns, and requests work afterwards.
void TestNetlab::silentOutage()
{
    QVERIFY(lab.setProfile(QStringLiteral("wifi")));
    std::unique_ptr<Kelosdk> sdk = connectedSdk();
    QVERIFY(sdk);
    SignalRecorder signals_(sdk.get(), {"notify"});
    QSignalSpy& change = signals_["cloudConnectionChange"];
    QVERIFY2(lab.blackhole(true), qPrintable(lab.lastError()));
    QVERIFY(QTest::qWaitFor([&] { return !change.isEmpty(); }, kOutageNoticedMs));
    QCOMPARE(change.at(0).at(0).toBool(), false);
    QTest::qWait(3000); // the link stays away a while longer
    QVERIFY2(lab.blackhole(false), qPrintable(lab.lastError()));
    const auto cameBack = [&] {
        for (const QList<QVariant>& args : change)
            if (args.at(0).toBool())
                return true;
        return false;
    };
    QVERIFY(QTest::qWaitFor(cameBack, 2 * kWait));
    QByteArray outcome;
    QVariantList args;
    runStep(*sdk, {[](Kelosdk& s) { s.tableRequest(); }, "tableRequestDone"}, &outcome, &args);
    QCOMPARE(outcome, QByteArray("tableRequestDone"));
    QCOMPARE(signals_["networkError"].count(), 0);
    QCOMPARE(signals_["keloappError"].count(), 0);
}

/// With the server closing kept-alive connections just as the next request arrives on them
/// (the request handled, its answer lost), every request still ends in its answer, and every
/// invoice "create" is booked exactly once. Last: the fault cannot be taken back.
void TestNetlab::keptAliveCloseLosesNoRequest()
{
    constexpr int Invoices = 3;
    // Per invoice: tables, table foods, get_session, create, cancel.
    constexpr int RequestsPerInvoice = 5;
    QVERIFY(lab.setProfile(QStringLiteral("wifi")));
    std::unique_ptr<Kelosdk> sdk = connectedSdk();
    QVERIFY(sdk);
    QJsonObject before;
    QVERIFY2(lab.simulatorState(&before), qPrintable(lab.lastError()));
    QVERIFY2(lab.closeKeptAlive(Invoices * RequestsPerInvoice), qPrintable(lab.lastError()));

    const Steps steps{{[](Kelosdk& s) { s.tableRequest(); }, "tableRequestDone"},
                      {[](Kelosdk& s) { s.tableFoodsRequest(2); }, "tableFoodsDone"},
                      {[](Kelosdk& s) {
                           s.tumipayRequest(20000, QStringLiteral("Takeaway"),
                                            QStringLiteral("Tea"));
                       },
                       "tumiQRInvoiceCode"}};
    QStringList codes;
    for (int i = 0; i < Invoices; ++i) {
        QVariantList answer;
        for (const Step& step : steps) {
            QByteArray outcome;
            runStep(*sdk, step, &outcome, &answer);
            if (QTest::currentTestFailed())
                return;
            QCOMPARE(outcome, step.done);
        }
        const QString code = QJsonDocument::fromJson(answer.value(0).toString().toUtf8())
                                 .object()
                                 .value("dt")
                                 .toObject()
                                 .value("invoice_code")
                                 .toString();
        QVERIFY(!code.isEmpty());
        codes << code;
        QByteArray outcome;
        runStep(*sdk, {[code](Kelosdk& s) { s.tumipayCancel(code); }, "tumipayCancelDone"},
                &outcome, &answer);
        if (QTest::currentTestFailed())
            return;
        QCOMPARE(outcome, QByteArray("tumipayCancelDone"));
    }
    QJsonObject after;
    QVERIFY2(lab.simulatorState(&after), qPrintable(lab.lastError()));
    // The fault did fire: a request whose answer was lost arrived again, so the server saw more
    // requests than were made (the two state requests included).
    const int made = Invoices * RequestsPerInvoice + 1;
    QVERIFY2(after.value("requests").toInt() - before.value("requests").toInt() > made,
             "no kept-alive connection was closed under a request");
    // Each create was booked once: every invoice the server opened was the one the terminal
    // saw and then cancelled, so none is left open ...
    QCOMPARE(after.value("open_invoices").toInt(), before.value("open_invoices").toInt());
    // ... and the server's invoice numbers follow each other without a gap.
    QCOMPARE(codes.size(), Invoices);
    for (int i = 1; i < codes.size(); ++i)
        QCOMPARE(LabControl::invoiceNumber(codes.at(i)),
                 LabControl::invoiceNumber(codes.at(i - 1)) + 1);
}

QTEST_GUILESS_MAIN(TestNetlab)
/// kelo-cloud listens off loopback here: its control routes answer only to the token it made at
/// start (lab.sh exports it), and to the same one once lab.sh restarted it. After the last test:
/// the restart also ends the kept-alive fault.
void TestNetlab::controlAnswersOnlyToTheToken()
{
    const QByteArray token = lab.controlToken();
    QVERIFY2(token.size() >= 16, "lab.sh exported no KELO_LAB_CONTROL_TOKEN");
    QByteArray other = token;
    other[0] = other.at(0) == 'a' ? 'b' : 'a';
    for (int round = 0; round < 2; ++round) {
        QCOMPARE(lab.simulatorStateStatus(QByteArray()), 403);
        QCOMPARE(lab.simulatorStateStatus(other), 403);
        QCOMPARE(lab.simulatorStateStatus(token), 200);
        if (round == 0)
            QVERIFY2(lab.restartCloud(), qPrintable(lab.lastError()));
    }
}

#include "tst_netlab.moc"
