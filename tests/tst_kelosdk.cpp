// The SDK object itself: its device and notification channel, each request kind's wire form and
// busy guard, logging, lifetime. Login and payment flows: tst_kelosdk_login and _payment;
// transport faults: tst_faultmatrix.
#include "httpbase.h"
#include "kelosdkfixture.h"
#include "logcapture.h"
#include "sdkkinds.h"
#include "signalrecorder.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QRegularExpression>

namespace {

const QByteArray kLoginReply = R"({"dt":{"staff_id":4,"staff_name":"Anna"},"err":0,"msg":"ok"})";
// The menu reply travels through the picture cache; an empty list comes back as it went.
const QByteArray kEmptyMenu = R"({"dt":{"items":[],"last_update":5},"err":0,"msg":"ok"})";
const QRegularExpression kHex32(QStringLiteral("^[0-9a-f]{32}$"));

QByteArray menuWithPicture(SdkFixture& f)
{
    return QStringLiteral(
               R"({"dt":{"img_host":"%1","items":[{"img_crc":"1700000000123","img_path":"/pics/7.png","item_id":7}],"last_update":1},"err":0})")
        .arg(f.cloud.baseUrl())
        .toUtf8();
}

QString cachedPicture()
{
    return QStandardPaths::standardLocations(QStandardPaths::AppLocalDataLocation).value(0) +
           QStringLiteral("/images/7.png");
}

} // namespace

class TestKelosdk : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QVERIFY(f.startCloud()); }
    void cleanupTestCase() { f.sdk.reset(); }

    void opensTheNotificationChannelAsItsOwnDevice();
    void refusesWithTheDocumentedCodesAndTexts();
    void sendsEachKindOneAtATime_data();
    void sendsEachKindOneAtATime();
    void menuStaysBusyUntilThePicturesAreThrough();
    void menuPicturesInFlight_data();
    void menuPicturesInFlight();
    void replyCapReachesTheSessionFetch_data();
    void replyCapReachesTheSessionFetch();
    void lateAnswersAfterAResetAreNotReported_data();
    void lateAnswersAfterAResetAreNotReported();
    void logsOnlyWhenAskedAndSignalsAlike();

private:
    SdkFixture f;
};

void TestKelosdk::opensTheNotificationChannelAsItsOwnDevice()
{
    Kelosdk& sdk = f.newSdk();
    QSignalSpy connection(&sdk, SIGNAL(cloudConnectionChange(bool)));
    QVERIFY(connection.wait(kWait));
    QCOMPARE(connection.constFirst(), QVariantList{true});

    const QString devid = f.device;
    QVERIFY2(kHex32.match(devid).hasMatch(), qPrintable(devid));
    const CloudExchange session =
        f.cloud->exchanges("/kelo/api/common", QStringLiteral("get_ws_session")).constFirst();
    QCOMPARE(session.param(QStringLiteral("dt")),
             QStringLiteral(R"({"devid":"%1","merchant_code":"M01"})").arg(devid));
    QVERIFY(QTest::qWaitFor([&] { return f.cloud->connectedDevices().contains(devid); }, kWait));

    // A second object of the same merchant is another device.
    Kelosdk second(QString::fromLatin1(kMerchant), QString::fromLatin1(kMerchant), false);
    const QString secondDevice = f.newDevice();
    QVERIFY2(kHex32.match(secondDevice).hasMatch(), qPrintable(secondDevice));
    QVERIFY(secondDevice != devid);
}

// The library's refusal table holds the codes and texts that the integration guide promises to
// hosts, byte for byte; sendsEachKindOneAtATime then checks that each kind is refused with its row.
void TestKelosdk::refusesWithTheDocumentedCodesAndTexts()
{
    QFile guide(QStringLiteral(KELO_TEST_GUIDE));
    QVERIFY2(guide.open(QIODevice::ReadOnly), KELO_TEST_GUIDE);
    const QString promises = QString::fromUtf8(guide.readAll());
    for (const kelo_sdk::Refusal& refusal : kelo_sdk::Refusals) {
        const QString promised =
            QStringLiteral("%1 \"%2\"").arg(refusal.code).arg(QString::fromLatin1(refusal.text));
        QVERIFY2(promises.contains(promised), qPrintable(promised));
    }
}

void TestKelosdk::sendsEachKindOneAtATime_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<QString>("dt");

    const auto row = [](const char* kind, const char* dt) {
        QTest::newRow(kind) << QByteArray(kind) << QString::fromLatin1(dt);
    };
    // The table list is asked for with the menu's message, on purpose. Nobody is logged in.
    row("menu", R"({"item_status":1,"merchant_code":"M01"})");
    row("tables", R"({"item_status":1,"merchant_code":"M01"})");
    row("food order",
        R"({"amount":5,"items":[],"merchant_code":"M01","staff_id":-1,"table_id":3})");
    row("table foods", R"({"merchant_code":"M01","table_id":3})");
    row("merge", R"({"from_tableid":3,"merchant_code":"M01","to_tableid":4})");
    row("payment", R"({"amount":5,"merchant_code":"M01","staff_id":-1,"table_id":3})");
}

// A second request while the first is out is refused with the kind's busy code, except for the
// tables and the payment, whose kind is held only while the request is built. Each answer is
// handed back as it came.
void TestKelosdk::sendsEachKindOneAtATime()
{
    QFETCH(QByteArray, kind);
    QFETCH(QString, dt);
    const SdkKind& k = sdkKind(kind);

    QFile::remove(cachedPicture());
    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply(k.path, k.cm, replyWith(kEmptyMenu), 2);
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    k.call(sdk);
    k.call(sdk);
    const int sent = k.busy().isEmpty() ? 2 : 1;
    QTRY_COMPARE_WITH_TIMEOUT(seen[k.done].size(), sent, kWait);
    for (const QVariantList& done : qAsConst(seen[k.done]))
        QCOMPARE(done, QVariantList{QString::fromUtf8(kEmptyMenu)});
    if (!k.busy().isEmpty())
        QCOMPARE(seen["keloappError"].constFirst(), k.busy());
    const QString doneCount = QStringLiteral("%1 x%2").arg(QString::fromLatin1(k.done)).arg(sent);
    QCOMPARE(seen.fired(), (k.busy().isEmpty() ? QStringList{doneCount}
                                               : QStringList{"keloappError x1", doneCount}));

    const QList<CloudExchange> requests = f.cloud->exchanges(k.path, k.cm);
    QCOMPARE(requests.size(), sent);
    for (const CloudExchange& request : requests) {
        QCOMPARE(request.method, QByteArray("GET"));
        QVERIFY2(request.target.startsWith(k.path + "?cm=" + k.cm.toUtf8() + "&dt="),
                 request.target);
        QCOMPARE(request.params().queryItems().size(), 2);
        QCOMPARE(request.param(QStringLiteral("dt")), dt);
        QVERIFY(!request.hasHeader("Content-Type"));
    }
}

void TestKelosdk::menuStaysBusyUntilThePicturesAreThrough()
{
    QFile::remove(cachedPicture()); // fetched afresh
    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/item/", QStringLiteral("getlist"),
                         replyWith(menuWithPicture(f)));
    f.cloud->scriptReply("/pics/7.png", QString(), faultReply(CloudReply::Fault::NeverAnswer));
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});

    sdk.foodsRequest();
    QVERIFY(f.waitExchanges("/pics/7.png", QString(), 1)); // the reply is in, the picture not
    sdk.foodsRequest();
    QCOMPARE(seen["keloappError"].constFirst(), (QVariantList{102, "kelo process food busy!"}));

    // A food order has its own bit, although its refusal shares code 102.
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("confirm_order"), replyWith("{}"));
    sdk.foodOrderRequest({});
    QVERIFY(seen["foodOrderRequestDone"].wait(kWait));

    // Only the host's reset ends a download that never finishes, and its empty file with it.
    QVERIFY(QFile::exists(cachedPicture()));
    sdk.onNetworkError(99, QStringLiteral("host gave up"));
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); // the run is released
    QVERIFY(!QFile::exists(cachedPicture()));
    f.cloud->scriptReply("/kelo/api/item/", QStringLiteral("getlist"), replyWith(kEmptyMenu));
    sdk.foodsRequest();
    QVERIFY(seen["foodsRequestDone"].wait(kWait));
    QCOMPARE(seen["foodsRequestDone"].constFirst(), QVariantList{QString::fromUtf8(kEmptyMenu)});
    QCOMPARE(seen.fired(), (QStringList{"networkError x1", "keloappError x1", "foodsRequestDone x1",
                                        "foodOrderRequestDone x1"}));
    QCOMPARE(f.cloud->exchanges("/kelo/api/item/", QStringLiteral("getlist")).size(), 2);
}

// The SDK's menu runs keep as many pictures in flight as set (16 by default, and never more than
// six to one HTTP/1.1 server such as this one): with pictures that never arrive, that many
// requests reach the server and no more; the host's reset drops them.
void TestKelosdk::menuPicturesInFlight_data()
{
    QTest::addColumn<int>("setting"); // -1: left at the default
    QTest::addColumn<int>("requests");
    QTest::newRow("default: six to an HTTP/1.1 server") << -1 << 6;
    QTest::newRow("2") << 2 << 2;
    QTest::newRow("0 counts as 1") << 0 << 1;
}

void TestKelosdk::menuPicturesInFlight()
{
    QFETCH(int, setting);
    QFETCH(int, requests);
    Kelosdk& sdk = f.newSdk();
    QCOMPARE(sdk.maxPicturesInFlight(), 16);
    if (setting >= 0)
        sdk.setMaxPicturesInFlight(setting);
    QJsonArray items;
    for (int id = 61; id <= 70; ++id)
        items.append(QJsonObject{{"img_crc", "1700000000123"},
                                 {"img_path", QStringLiteral("/pics/held%1.png").arg(id)},
                                 {"item_id", id}});
    const QJsonObject dt{{"img_host", f.cloud.baseUrl()}, {"items", items}};
    f.cloud->scriptReply(
        "/kelo/api/item/", QStringLiteral("getlist"),
        replyWith(
            QJsonDocument(QJsonObject{{"dt", dt}, {"err", 0}}).toJson(QJsonDocument::Compact)));
    f.cloud->scriptReply("/pics/held", QString(), faultReply(CloudReply::Fault::NeverAnswer), 10);
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});

    sdk.foodsRequest();
    QVERIFY(f.waitExchanges("/pics/held", QString(), requests));
    QTest::qWait(300); // room for one request too many
    QCOMPARE(f.cloud->exchanges("/pics/held").size(), requests);
    sdk.onNetworkError(99, QStringLiteral("host gave up"));
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); // the run is released
    const QString images = QFileInfo(cachedPicture()).absolutePath();
    QCOMPARE(QDir(images).entryList({"6?.png", "70.png"}, QDir::Files), QStringList());
    QCOMPARE(seen.fired(), QStringList{"networkError x1"});
}

// The notification client's session fetch is an API answer like the others: the object's reply
// cap reaches it, for the fetches started after the setter call.
void TestKelosdk::replyCapReachesTheSessionFetch_data()
{
    QTest::addColumn<qint64>("cap"); // -1: left at the default (8 MiB)
    QTest::addColumn<bool>("refused");
    QTest::newRow("1000 bytes: refused") << qint64(1000) << true;
    QTest::newRow("1999 bytes: refused") << qint64(1999) << true;
    QTest::newRow("2000 bytes: read") << qint64(2000) << false;
    QTest::newRow("0: no cap") << qint64(0) << false;
    QTest::newRow("default") << qint64(-1) << false;
}

void TestKelosdk::replyCapReachesTheSessionFetch()
{
    QFETCH(qint64, cap);
    QFETCH(bool, refused);
    Kelosdk& sdk = f.newSdk();
    SignalRecorder seen(&sdk);
    QTRY_COMPARE_WITH_TIMEOUT(seen["cloudConnectionChange"].size(), 1, kWait);
    if (cap >= 0)
        sdk.setMaxReplySize(cap);

    // A refused session of exactly 2000 bytes: the channel stays down whether it is read or not,
    // only the transport's line tells them apart.
    QByteArray body = R"({"err":5,"msg":"later","pad":")";
    body += QByteArray(2000 - body.size() - 2, 'k') + "\"}";
    QCOMPARE(body.size(), 2000);
    f.cloud->scriptReply("/kelo/api/common", QStringLiteral("get_ws_session"), replyWith(body),
                         1000);
    LogCapture log;
    const int asked =
        f.cloud->exchanges("/kelo/api/common", QStringLiteral("get_ws_session")).size();
    QCOMPARE(f.cloud->dropWebSockets(), 1);
    // Two more fetches received: the first of them has ended.
    QVERIFY(f.waitExchanges("/kelo/api/common", QStringLiteral("get_ws_session"), asked + 2));
    const QString line = QStringLiteral("//error:299, msg:reply larger than the limit of %1 bytes");
    if (refused)
        QVERIFY2(log.count(line.arg(cap)) >= 1, qPrintable(log.lines().join('\n')));
    QCOMPARE(log.count(QStringLiteral("//error:299")) > 0, refused);
    // The channel stays down meanwhile (its close is repeated on the watchdog's rounds).
    QSignalSpy& change = seen["cloudConnectionChange"];
    QVERIFY(change.size() >= 2);
    for (int i = 1; i < change.size(); ++i)
        QCOMPARE(change.at(i), QVariantList{false});

    // A normal session answer is far below every cap here: the channel comes back.
    f.cloud->clearScripts();
    QTRY_VERIFY_WITH_TIMEOUT(change.last() == QVariantList{true}, kWait);
    QCOMPARE(seen.fired().size(), 1); // nothing but the channel's changes
    QCOMPARE(seen.fired().constFirst().section(QLatin1Char(' '), 0, 0),
             QStringLiteral("cloudConnectionChange"));
}

void TestKelosdk::lateAnswersAfterAResetAreNotReported_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<bool>("picture"); // the late answer is the menu's picture
    for (const char* kind :
         {"login", "menu", "food order", "tables", "table foods", "merge", "payment"})
        QTest::newRow(kind) << QByteArray(kind) << false;
    QTest::newRow("menu picture") << QByteArray("menu") << true;
}

// The host gives up (onNetworkError) while an answer is late, and asks again: the late answer
// (sent before the new one) is never reported, the new one is, once; the abandoned request object
// is freed, and an abandoned picture run leaves no file.
void TestKelosdk::lateAnswersAfterAResetAreNotReported()
{
    QFETCH(QByteArray, kind);
    QFETCH(bool, picture);
    const SdkKind& k = sdkKind(kind);
    const auto answer = [](const char* msg, int delayMs) {
        CloudReply reply =
            replyWith(QStringLiteral(R"({"dt":{"items":[],"last_update":5},"err":0,"msg":"%1"})")
                          .arg(QLatin1String(msg))
                          .toUtf8());
        reply.delayMs = delayMs;
        return reply;
    };

    QFile::remove(cachedPicture());
    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply(k.path, k.cm,
                         picture ? replyWith(menuWithPicture(f)) : answer("old", 300));
    f.cloud->scriptReply(k.path, k.cm, answer("new", 1000));
    CloudReply latePicture = replyWith("picture");
    latePicture.delayMs = 300;
    f.cloud->scriptReply("/pics/7.png", QString(), latePicture);
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    k.call(sdk);
    QPointer<HttpBase> abandoned = sdk.findChild<HttpBase*>();
    QVERIFY(abandoned);
    QSignalSpy aborted(abandoned, SIGNAL(error(int, QString)));
    QVERIFY(picture ? f.waitExchanges("/pics/7.png", QString(), 1)
                    : f.waitExchanges(k.path, k.cm, 1));
    sdk.onNetworkError(99, QStringLiteral("host gave up"));
    // At once, not on the next pass of the event loop (which a host's modal dialog may hold off).
    QCOMPARE(aborted.size(), picture ? 0 : 1);
    k.call(sdk);

    QVERIFY(seen[k.done].wait(kWait));
    const QString fresh = QString::fromUtf8(answer("new", 0).body);
    QCOMPARE(seen[k.done].constFirst(),
             (kind == "login" ? QVariantList{0, "new"} : QVariantList{fresh}));
    QCOMPARE(seen["networkError"].constFirst(), (QVariantList{99, "host gave up"}));
    QCOMPARE(seen.fired(), (QStringList{"networkError x1", k.done + " x1"}));
    QCOMPARE(f.cloud->exchanges(k.path, k.cm).size(), 2);
    QTRY_VERIFY_WITH_TIMEOUT(abandoned.isNull(), kWait);
    QVERIFY(!QFile::exists(cachedPicture()));
}

// A short day that passes through every log line of the object (the menu with no pictures), each
// step waiting for its answer so that the lines come in a fixed order.
void TestKelosdk::logsOnlyWhenAskedAndSignalsAlike()
{
    const QList<QPair<const char*, QByteArray>> day{{"login", kLoginReply},
                                                    {"tables", "[1]"},
                                                    {"merge", ""},
                                                    {"payment", "{}"},
                                                    {"food order", "{}"},
                                                    {"table foods", "[]"},
                                                    {"menu", R"({"dt":{"items":[]},"err":0})"},
                                                    {"create", kInvoiceReply}};
    QList<QList<QList<QVariantList>>> signalsByRun;
    for (const bool debug : {false, true}) {
        LogCapture log;
        Kelosdk& sdk = f.newSdk(debug);
        SignalRecorder seen(&sdk, {"cloudConnectionChange"}); // timed by the network
        f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("get_session"),
                             replyWith(R"({"dt":{"invoice_session":"S1"},"err":0})"));
        f.cloud->scriptReply("/kelo/api/invoice", QStringLiteral("cancel"), replyWith("{}"));
        int id = 0;
        QString name;
        sdk.userName(id, name);
        for (const auto& step : day) {
            const SdkKind& k = sdkKind(step.first);
            f.cloud->scriptReply(k.path, k.cm, replyWith(step.second));
            k.call(sdk);
            QVERIFY(seen[k.done].wait(kWait));
        }
        QVERIFY(sdk.userIslogged() && sdk.userName(id, name));
        sdk.tumipayCancel(QStringLiteral("nope"));
        sdkKind("cancel").call(sdk);
        sdkKind("cancel").call(sdk);
        QVERIFY(seen["tumipayCancelDone"].wait(kWait));
        sdk.wssNotify(QStringLiteral(R"({"msg":"hello"})"));
        sdk.onNetworkError(7, QStringLiteral("x"));
        sdk.userLogout();
        signalsByRun.append(seen.all());

        const QStringList expected{
            R"(KELOSDK>> Welcome to KeloSDK! merchant-id: "M01" , machine-name: "POS-1")",
            "KELOSDK>> User name=, id=-1",
            "KELOSDK>> Login request, user name=anna",
            "KELOSDK>> User login done, data=" + QString::fromUtf8(kLoginReply),
            "KELOSDK>> Table request ...",
            "KELOSSDK>> Table request respone:[1]",
            "KELOSDK>> Merge table, from:3 to:4",
            "KELOSDK>> Merge table done, data=",
            "KELOSDK>> Payment request, table id=3, amount=5",
            "KELOSSDK>> Table request respone:{}",
            "KELOSDK>> Food Order request ...",
            "KELOSDK>> Food order done, data={}",
            "KELOSDK>> Foods order list ..., tableId=3",
            "KELOSDK>> Food order info detail, data=[]",
            "KELOSDK>> Foods request ...",
            "KELOSDK>> Foods data content dowloading ...",
            "KELOSDK>> Food request done!",
            "KELOSDK>> Tumipay request, money=5, description=Table 3, detail=Bill",
            "KELOSDK>> Tumipay respone, data=" + QString::fromUtf8(kInvoiceReply),
            "KELOSDK>> User name=Anna, id=4",
            "KELOSDK>> User name=Anna, id=4",
            "KELOSDK>> Cancel invoice code not existed!, invoice code=nope",
            "KELOSDK>> Tumipay cancel, invoice code=#A#12",
            "KELOSDK>> Tumipay cancel, invoice code=#A#12",
            "KELOSDK>> Please waiting, system busy cancel process ...",
            "KELOSSDK>> Tumipay cancel respone:{}",
            R"(KELOSDK>> Server notify:{"msg":"hello"})",
            "KELOSDK>> Network error=7, msg=x",
            "KELOSDK>> User request logout",
        };
        QCOMPARE(log.lines(QtDebugMsg).filter(QRegularExpression(QStringLiteral("KELOS?SDK>> "))),
                 debug ? expected : QStringList());
    }
    QCOMPARE(signalsByRun.at(1), signalsByRun.at(0));
}

QTEST_GUILESS_MAIN(TestKelosdk)
#include "tst_kelosdk.moc"
