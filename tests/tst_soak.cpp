// Long outages: the server going down and coming back under a live notification channel, and a
// picture server that drops a third of its downloads. Seeded, so every run is the same run.
#include "kelosdkfixture.h"
#include "signalrecorder.h"

#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>

namespace {

constexpr int kOutages = 20;
constexpr int kDishes = 60;
const QString kPlaceholder = QStringLiteral("qrc:/icons/images/defaultfood.png");

QByteArray picture(int id)
{
    return (QByteArray("PICTURE ") + QByteArray::number(id) + ' ').repeated(700).left(6000);
}

QByteArray picturePath(int id)
{
    return "/soak/pic/" + QByteArray::number(id) + ".png";
}

// What the host gets for each dish of a menu, by dish id: the content of its cached picture, or
// "placeholder".
QMap<int, QByteArray> picturesOf(const QString& menu)
{
    QMap<int, QByteArray> pictures;
    for (const QJsonValue item : QJsonDocument::fromJson(menu.toUtf8())["dt"]["items"].toArray()) {
        const QString path = item["img_path"].toString();
        QFile file(QUrl(path).toLocalFile());
        pictures[item["item_id"].toInt()] =
            path == kPlaceholder ? "placeholder"
            : path.startsWith(QLatin1String("file:///")) && file.open(QIODevice::ReadOnly)
                ? file.readAll()
                : "unreadable " + path.toUtf8();
    }
    return pictures;
}

} // namespace

class TestSoak : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase() { f.sdk.reset(); }
    void slow_picturesSurviveDroppedDownloads();
    void slow_notificationsSurviveOutages();

private:
    QTemporaryDir root;
    SdkFixture f;
};

void TestSoak::initTestCase()
{
    // A picture cache of this run's own.
    QVERIFY(root.isValid());
    qputenv("XDG_DATA_HOME", (root.path() + "/share").toUtf8());
    QVERIFY(f.cloud.start());
    f.cloud.pointSdkHere();
}

void TestSoak::slow_notificationsSurviveOutages()
{
    QRandomGenerator random(20261123);
    Kelosdk& sdk = f.newSdk();
    const QString devid = f.device;
    QSignalSpy connection(&sdk, SIGNAL(cloudConnectionChange(bool)));
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    QVERIFY(QTest::qWaitFor([&] { return f.cloud->connectedDevices().contains(devid); }, kWait));
    const auto acceptedSessions = [&] {
        QStringList accepted;
        for (const kelocloud::CloudUpgrade& upgrade : f.cloud->upgrades())
            if (upgrade.accepted && upgrade.query.queryItemValue(QStringLiteral("devid")) == devid)
                accepted << upgrade.query.queryItemValue(QStringLiteral("ws_session"));
        return accepted;
    };

    QList<QVariantList> expected;
    for (int n = 1; n <= kOutages + 1; ++n) {
        const QString notice = QStringLiteral("soak-%1").arg(n);
        expected << QVariantList{notice};
        QVERIFY(f.cloud->pushText(
            devid,
            QStringLiteral(R"({"dt":{},"err":0,"msg":"%1","type":3})").arg(notice).toUtf8()));
        QTRY_COMPARE_WITH_TIMEOUT(seen["notify"].size(), n, kWait);
        if (n > kOutages)
            break;

        // Up for a random while, then down for 0.2 to 3 s.
        QTest::qWait(random.bounded(50, 600));
        const int acceptedBefore = acceptedSessions().size();
        const int connectsBefore = connection.count(QVariantList{true});
        const int lossesBefore = connection.count(QVariantList{false});
        f.cloud->goDown();
        QTest::qWait(random.bounded(200, 3000));
        QVERIFY(f.cloud->comeBack());

        // Back: the host told of the loss and of the return, on a fresh session.
        QTRY_VERIFY_WITH_TIMEOUT(connection.count(QVariantList{true}) > connectsBefore, kWait);
        QTRY_VERIFY_WITH_TIMEOUT(f.cloud->connectedDevices().contains(devid), kWait);
        QVERIFY(connection.count(QVariantList{false}) > lossesBefore);
        QVERIFY(acceptedSessions().size() > acceptedBefore);
    }

    // Each notice exactly once, in order, and every connect on a session of its own.
    QCOMPARE(static_cast<QList<QVariantList>>(seen["notify"]), expected);
    const QStringList accepted = acceptedSessions();
    QCOMPARE(QSet<QString>(accepted.cbegin(), accepted.cend()).size(), accepted.size());
    QCOMPARE(seen.fired(), QStringList{QStringLiteral("notify x%1").arg(kOutages + 1)});
}

void TestSoak::slow_picturesSurviveDroppedDownloads()
{
    QRandomGenerator random(7);
    Kelosdk& sdk = f.newSdk();
    QJsonArray items;
    QMap<int, QByteArray> firstPass, complete;
    QMap<int, int> fetches;
    for (int id = 1; id <= kDishes; ++id) {
        items.append(QJsonObject{{"item_id", id},
                                 {"img_path", QString::fromLatin1(picturePath(id))},
                                 {"img_crc", QString::number(1700000000000LL + id * 1000LL)}});
        f.cloud->putFile(picturePath(id), picture(id));
        complete[id] = picture(id);
        const bool dropped = random.bounded(100) < 30;
        firstPass[id] = dropped ? "placeholder" : picture(id);
        fetches[id] = dropped ? 2 : 1; // what was whole comes from the cache the second time
        if (dropped)                   // half of the picture goes out before the reset
            f.cloud->scriptReply(
                picturePath(id), QString(),
                CloudReply{200, picture(id), {}, 0, CloudReply::Fault::ResetMidBody, false});
    }
    const int drops = firstPass.values().count("placeholder");
    QVERIFY(drops > 0 && drops < kDishes);
    const QJsonObject dt{
        {"img_host", f.cloud.baseUrl()}, {"last_update", 1700000000}, {"items", items}};
    f.cloud->scriptReply(
        "/kelo/api/item/", QStringLiteral("getlist"),
        replyWith(QJsonDocument(QJsonObject{{"err", 0}, {"msg", "success"}, {"dt", dt}}).toJson()),
        2);
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});

    // The dropped dishes show the placeholder, every other one its whole picture; a second
    // sync fetches the rest.
    for (const QMap<int, QByteArray>& expected : {firstPass, complete}) {
        const int pass = seen["foodsRequestDone"].size() + 1;
        sdk.foodsRequest();
        QTRY_COMPARE_WITH_TIMEOUT(seen["foodsRequestDone"].size(), pass, 2 * kWait);
        QCOMPARE(picturesOf(seen["foodsRequestDone"].constLast().at(0).toString()), expected);
    }
    QMap<int, int> fetched;
    for (int id = 1; id <= kDishes; ++id)
        fetched[id] = f.cloud->exchanges(picturePath(id)).size();
    QCOMPARE(fetched, fetches);
    QCOMPARE(seen.fired(), QStringList{"foodsRequestDone x2"});
}

QTEST_GUILESS_MAIN(TestSoak)
#include "tst_soak.moc"
