// Long outages: the server going down and coming back under a live notification channel, and a
// picture server that drops a third of its downloads. Seeded, so every run is the same run.
#include "kelosdk.h"
#include "testcloud.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QSet>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

using kelocloud::CloudExchange;
using kelocloud::CloudReply;
using kelocloud::CloudUpgrade;

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

// "img_path" of every dish of a menu handed to the host, by dish id.
QMap<int, QString> picturesOf(const QString& menu)
{
    QMap<int, QString> paths;
    const QJsonArray items =
        QJsonDocument::fromJson(menu.toUtf8()).object()["dt"].toObject()["items"].toArray();
    for (const QJsonValue& item : items)
        paths.insert(item["item_id"].toInt(), item["img_path"].toString());
    return paths;
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

} // namespace

class TestSoak : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void slow_picturesSurviveDroppedDownloads();
    void slow_notificationsSurviveOutages();

private:
    QString menuReply() const;
    QTemporaryDir root;
    TestCloud cloud;
};

void TestSoak::initTestCase()
{
    QVERIFY(root.isValid());
    qputenv("XDG_DATA_HOME", (root.path() + "/share").toUtf8());
    QVERIFY(cloud.start());
    cloud.pointSdkHere();
}

void TestSoak::slow_notificationsSurviveOutages()
{
    QRandomGenerator random(20261123);
    const QStringList devicesBefore = cloud->connectedDevices();
    Kelosdk sdk(QStringLiteral("M01"), QStringLiteral("POS-1"), false);
    QSignalSpy connection(&sdk, SIGNAL(cloudConnectionChange(bool)));
    QSignalSpy notices(&sdk, SIGNAL(notify(QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));
    QSignalSpy netError(&sdk, SIGNAL(networkError(int, QString)));

    QTRY_COMPARE_WITH_TIMEOUT(connection.count(QVariantList{true}), 1, 10000);
    // This object's device: the one that was not connected before (other tests' SDK objects
    // leave their notification clients behind).
    QStringList devices;
    QTRY_VERIFY([&] {
        devices = cloud->connectedDevices();
        for (const QString& before : devicesBefore)
            devices.removeAll(before);
        return devices.size() == 1;
    }());
    const QString devid = devices.constFirst();
    const auto sessionsOfDevice = [&] {
        int n = 0;
        for (const CloudExchange& e :
             cloud->exchanges("/kelo/api/common", QStringLiteral("get_ws_session")))
            n += QJsonDocument::fromJson(e.param(QStringLiteral("dt")).toUtf8())
                     .object()
                     .value(QStringLiteral("devid"))
                     .toString() == devid;
        return n;
    };
    const auto acceptedSessions = [&] {
        QStringList sessions;
        for (const CloudUpgrade& upgrade : cloud->upgrades())
            if (upgrade.accepted && upgrade.query.queryItemValue(QStringLiteral("devid")) == devid)
                sessions << upgrade.query.queryItemValue(QStringLiteral("ws_session"));
        return sessions;
    };

    QStringList expected;
    for (int n = 1; n <= kOutages; ++n) {
        const QString notice = QStringLiteral("soak-%1").arg(n);
        expected << notice;
        QVERIFY(cloud->pushText(
            devid,
            QStringLiteral(R"({"dt":{},"err":0,"msg":"%1","type":3})").arg(notice).toUtf8()));
        QTRY_COMPARE_WITH_TIMEOUT(notices.size(), n, 5000);
        QCOMPARE(notices.constLast(), QVariantList{notice});

        // Up for a random while, then down for 0.2 to 3 s.
        QTest::qWait(random.bounded(50, 600));
        const int sessionsBefore = sessionsOfDevice();
        const int upgradesBefore = acceptedSessions().size();
        const int connectsBefore = connection.count(QVariantList{true});
        cloud->goDown();
        QTest::qWait(random.bounded(200, 3000));
        QVERIFY(cloud->comeBack());

        // Back: a fresh session, a new accepted upgrade and the host told it is connected.
        QTRY_VERIFY_WITH_TIMEOUT(connection.count(QVariantList{true}) > connectsBefore, 20000);
        QTRY_VERIFY_WITH_TIMEOUT(cloud->connectedDevices().contains(devid), 5000);
        QVERIFY(sessionsOfDevice() > sessionsBefore);
        QVERIFY(acceptedSessions().size() > upgradesBefore);
        QVERIFY(connection.count(QVariantList{false}) > 0);
    }
    const QString last = QStringLiteral("soak-%1").arg(kOutages + 1);
    expected << last;
    QVERIFY(cloud->pushText(devid, QStringLiteral(R"({"msg":"%1"})").arg(last).toUtf8()));
    QTRY_COMPARE(notices.size(), kOutages + 1);

    // Each notice exactly once, in order, and every connect on a session of its own.
    QStringList received;
    for (const QVariantList& args : qAsConst(notices))
        received << args.at(0).toString();
    QCOMPARE(received, expected);
    const QStringList sessions = acceptedSessions();
    QCOMPARE(QSet<QString>(sessions.cbegin(), sessions.cend()).size(), sessions.size());
    QCOMPARE(appError.size(), 0);
    QCOMPARE(netError.size(), 0);
}

QString TestSoak::menuReply() const
{
    QJsonArray items;
    for (int id = 1; id <= kDishes; ++id)
        items.append(QJsonObject{{"item_id", id},
                                 {"img_path", QString::fromLatin1(picturePath(id))},
                                 {"img_crc", QString::number(1700000000000LL + id * 1000LL)},
                                 {"name", QStringLiteral("Dish %1").arg(id)}});
    const QJsonObject dt{
        {"img_host", cloud.baseUrl()}, {"last_update", 1700000000}, {"items", items}};
    return QString::fromUtf8(QJsonDocument(QJsonObject{{"err", 0}, {"msg", "success"}, {"dt", dt}})
                                 .toJson(QJsonDocument::Compact));
}

void TestSoak::slow_picturesSurviveDroppedDownloads()
{
    QRandomGenerator random(7);
    cloud->clearScripts();
    cloud->clearExchanges();
    QSet<int> dropped;
    for (int id = 1; id <= kDishes; ++id) {
        cloud->putFile(picturePath(id), picture(id));
        if (random.bounded(100) < 30) {
            dropped.insert(id);
            CloudReply reset;
            reset.fault = CloudReply::Fault::ResetMidBody;
            reset.body = picture(id); // half of it goes out before the reset
            cloud->scriptReply(picturePath(id), QString(), reset);
        }
    }
    QVERIFY(!dropped.isEmpty() && dropped.size() < kDishes);
    CloudReply menu;
    menu.body = menuReply().toUtf8();
    cloud->scriptReply("/kelo/api/item/", QStringLiteral("getlist"), menu, 2);

    Kelosdk sdk(QStringLiteral("M01"), QStringLiteral("POS-1"), false);
    QSignalSpy done(&sdk, SIGNAL(foodsRequestDone(QString)));
    QSignalSpy netError(&sdk, SIGNAL(networkError(int, QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));

    // First pass: the dropped dishes show the placeholder, every other one its full picture.
    sdk.foodsRequest();
    QTRY_COMPARE_WITH_TIMEOUT(done.size(), 1, 60000);
    QMap<int, QString> paths = picturesOf(done.constLast().at(0).toString());
    QCOMPARE(paths.size(), kDishes);
    QSet<int> placeholders;
    for (auto it = paths.cbegin(); it != paths.cend(); ++it) {
        if (it.value() == kPlaceholder) {
            placeholders.insert(it.key());
            continue;
        }
        QVERIFY2(it.value().startsWith("file:///"), qPrintable(it.value()));
        QCOMPARE(readFile(QUrl(it.value()).toLocalFile()), picture(it.key()));
    }
    QCOMPARE(placeholders, dropped);

    // Second pass: the rest is fetched, what was complete comes from the cache.
    sdk.foodsRequest();
    QTRY_COMPARE_WITH_TIMEOUT(done.size(), 2, 60000);
    paths = picturesOf(done.constLast().at(0).toString());
    QCOMPARE(paths.size(), kDishes);
    for (auto it = paths.cbegin(); it != paths.cend(); ++it) {
        QVERIFY2(it.value().startsWith("file:///"), qPrintable(it.value()));
        QCOMPARE(readFile(QUrl(it.value()).toLocalFile()), picture(it.key()));
        const int fetches = cloud->exchanges(picturePath(it.key())).size();
        QVERIFY2(fetches == (dropped.contains(it.key()) ? 2 : 1),
                 qPrintable(QStringLiteral("dish %1 fetched %2 times").arg(it.key()).arg(fetches)));
    }
    QCOMPARE(netError.size(), 0);
    QCOMPARE(appError.size(), 0);
}

QTEST_GUILESS_MAIN(TestSoak)
#include "tst_soak.moc"
