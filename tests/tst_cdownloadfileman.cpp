// The picture cache against the local cloud over TLS: downloads, reuse, failures, redirects,
// clean-up of old files, and names from the server that must not leave the picture folder.
#include "cdownloadfileman.h"
#include "libcmn.h"
#include "logcapture.h"
#include "testcloud.h"

#include <QDirIterator>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

using kelocloud::CloudReply;

Q_DECLARE_METATYPE(CloudReply)

namespace {

struct Dish
{
    int id;
    QString path; // "img_path"
    QString crc;  // "img_crc"
};

QString menu(const QString& host, const QList<Dish>& dishes)
{
    QJsonArray items;
    for (const Dish& d : dishes)
        items.append(QJsonObject{{"item_id", d.id},
                                 {"img_path", d.path},
                                 {"img_crc", d.crc},
                                 {"name", QStringLiteral("Dish %1").arg(d.id)}});
    const QJsonObject dt{{"img_host", host}, {"last_update", 1700000000}, {"items", items}};
    const QJsonObject reply{{"err", 0}, {"msg", "success"}, {"dt", dt}};
    return QString::fromUtf8(QJsonDocument(reply).toJson(QJsonDocument::Compact));
}

QByteArray picture(int id, const QByteArray& version = "v1", int size = 4096)
{
    return (QByteArray("PIC ") + QByteArray::number(id) + ' ' + version + ' ')
        .repeated(size / 8)
        .left(size);
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

// "<id> <img_path> <img_cache>" per dish of a rewritten menu; the picture folder reads "<images>".
QString summary(const QString& text, const QString& images)
{
    QStringList lines;
    const QJsonArray items =
        QJsonDocument::fromJson(text.toUtf8()).object()["dt"].toObject()["items"].toArray();
    for (const QJsonValue& item : items)
        lines << QStringLiteral("%1 %2 %3")
                     .arg(item["item_id"].toInt())
                     .arg(item["img_path"].toString().replace(images, "<images>"))
                     .arg(item["img_cache"].toBool() ? "true" : "false");
    return lines.join('\n');
}

QString ready(int id, const QString& ext = ".png", bool cache = true)
{
    return QStringLiteral("%1 file:///<images>/%1%2 %3").arg(id).arg(ext, cache ? "true" : "false");
}

QString placeholder(int id)
{
    return QStringLiteral("%1 qrc:/icons/images/defaultfood.png true").arg(id);
}

// Every entry below @p root with its size (files) or "dir", sorted.
QStringList tree(const QString& root)
{
    QStringList entries;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        entries << it.filePath().mid(root.size()) + ' ' +
                       (info.isDir() ? QStringLiteral("dir") : QString::number(info.size()));
    }
    entries.sort();
    return entries;
}

} // namespace

class TestDownloadFileMan : public QObject
{
    Q_OBJECT
    QTemporaryDir root;
    QString images; // <data location>/images
    TestCloud cloud;

    QStringList pictureRequests();
    // Runs one sync of @p reply; returns how often NotifyComplete came, its text in @p text.
    int sync(CDownloadFileMan& manager, const QString& reply, QString* text = nullptr);
    void serve(const QList<Dish>& dishes);

private Q_SLOTS:
    void initTestCase();
    void init();
    void coldThenWarmSync();
    void reusedManagerTellsChangedFromNew();
    void pictureOutcome_data();
    void pictureOutcome();
    void redirectsAreFollowed();
    void oldFilesOfTheDishAreRemoved();
    void linksInTheFolderAreNotFollowed();
    void hostileNamesStayInTheFolder_data();
    void hostileNamesStayInTheFolder();
    void nothingToFetch_data();
    void nothingToFetch();
    void hundredDishMenu();
};

QStringList TestDownloadFileMan::pictureRequests()
{
    QStringList paths;
    for (const kelocloud::CloudExchange& e : cloud->exchanges("/img"))
        paths << QString::fromUtf8(e.path);
    return paths;
}

int TestDownloadFileMan::sync(CDownloadFileMan& manager, const QString& reply, QString* text)
{
    QSignalSpy complete(&manager, &CDownloadFileMan::NotifyComplete);
    unsigned long long lastUpdate = 0;
    Libcmn::parseDataFoods(reply, manager, lastUpdate);
    manager.SetData(reply);
    manager.StartDownload();
    if (!complete.wait(30000))
        return 0;
    // A second completion would already be queued by now.
    QCoreApplication::processEvents();
    QCoreApplication::processEvents();
    if (text)
        *text = complete.last().at(0).toString();
    return complete.count();
}

void TestDownloadFileMan::serve(const QList<Dish>& dishes)
{
    for (const Dish& d : dishes)
        cloud->putFile(d.path.toUtf8(), picture(d.id));
}

void TestDownloadFileMan::initTestCase()
{
    QVERIFY(root.isValid());
    // Deep enough that a name climbing out of the picture folder still lands inside root.
    qputenv("XDG_DATA_HOME", (root.path() + "/home/share").toUtf8());
    const QString data = QStandardPaths::standardLocations(QStandardPaths::DataLocation).value(0);
    QVERIFY2(data.startsWith(root.path() + "/home/share/"), qPrintable(data));
    images = data + "/images";
    QVERIFY(cloud.start());
}

void TestDownloadFileMan::init()
{
    QDir(images).removeRecursively();
    cloud->clearExchanges();
    cloud->clearScripts();
}

void TestDownloadFileMan::coldThenWarmSync()
{
    const QList<Dish> dishes{{1, "/img/1.png", "1700000000123"},
                             {2, "/img/2.jpg", "1700000100999"},
                             {3, "/img/3.png", "0"}};
    serve(dishes);
    const QString reply = menu(cloud.baseUrl(), dishes);
    const QString expected = QStringList{ready(1), ready(2, ".jpg"), ready(3)}.join('\n');

    CDownloadFileMan cold(false, nullptr);
    QString text;
    QCOMPARE(sync(cold, reply, &text), 1);
    QCOMPARE(summary(text, images), expected);
    QCOMPARE(pictureRequests(), QStringList({"/img/1.png", "/img/2.jpg", "/img/3.png"}));
    for (const Dish& d : dishes)
        QCOMPARE(readFile(images + '/' + QFileInfo(d.path).fileName()), picture(d.id));
    QCOMPARE(QFileInfo(images + "/1.png").lastModified().toSecsSinceEpoch(), 1700000000);
    QCOMPARE(QFileInfo(images + "/2.jpg").lastModified().toSecsSinceEpoch(), 1700000100);

    // A fresh manager finds 1 and 2 in the cache; a stamp of 0 never validates a file.
    cloud->clearExchanges();
    CDownloadFileMan warm(false, nullptr);
    QCOMPARE(sync(warm, reply, &text), 1);
    QCOMPARE(summary(text, images), expected);
    QCOMPARE(pictureRequests(), QStringList({"/img/3.png"}));
}

void TestDownloadFileMan::reusedManagerTellsChangedFromNew()
{
    LogCapture log;
    QList<Dish> dishes{{1, "/img/1.png", "1700000000000"}, {2, "/img/2.png", "1700000000000"}};
    serve(dishes);
    CDownloadFileMan manager(true, nullptr);
    QString text;
    QCOMPARE(sync(manager, menu(cloud.baseUrl(), dishes), &text), 1);
    QCOMPARE(summary(text, images), ready(1) + '\n' + ready(2));

    // Dish 1 changes on the server, dish 4 is new.
    cloud->clearExchanges();
    cloud->putFile("/img/1.png", picture(1, "v2"));
    dishes[0].crc = "1700000500000";
    dishes << Dish{4, "/img/4.png", "1700000000000"};
    cloud->putFile("/img/4.png", picture(4));
    const QString changed = menu(cloud.baseUrl(), dishes);
    const QString expected = QStringList{ready(1, ".png", false), ready(2), ready(4)}.join('\n');
    QCOMPARE(sync(manager, changed, &text), 1);
    QCOMPARE(summary(text, images), expected);
    QCOMPARE(pictureRequests(), QStringList({"/img/1.png", "/img/4.png"}));
    QCOMPARE(readFile(images + "/1.png"), picture(1, "v2"));
    QCOMPARE(QFileInfo(images + "/1.png").lastModified().toSecsSinceEpoch(), 1700000500);

    // Once changed, a dish keeps reporting it while this manager lives.
    cloud->clearExchanges();
    QCOMPARE(sync(manager, changed, &text), 1);
    QCOMPARE(summary(text, images), expected);
    QCOMPARE(pictureRequests(), QStringList());

    QStringList cacheLines = log.lines();
    cacheLines = cacheLines.filter(QRegularExpression("^(=== Image |Download complete)"));
    QCOMPARE(
        cacheLines.join('\n').replace(images, "<images>"),
        QStringList({"=== Image <images>/1.png is added first ==> use cache",
                     "=== Image <images>/2.png is added first ==> use cache", "Download complete",
                     "=== Image <images>/1.png was modified ==> no use cache",
                     "=== Image <images>/4.png is added new ==> use cache", "Download complete",
                     "Download complete"})
            .join('\n'));
}

void TestDownloadFileMan::pictureOutcome_data()
{
    QTest::addColumn<CloudReply>("answer");
    QTest::addColumn<bool>("fetched");

    CloudReply slow;
    slow.body = picture(5);
    slow.delayMs = 400;
    QTest::newRow("slow server") << slow << true;
    CloudReply missing;
    missing.status = 404;
    missing.body = "not found";
    QTest::newRow("not found") << missing << false;
    CloudReply failing;
    failing.status = 500;
    QTest::newRow("server error") << failing << false;
    CloudReply truncated;
    truncated.body = picture(5);
    truncated.fault = CloudReply::Fault::ResetMidBody;
    QTest::newRow("cut mid-body") << truncated << false;
    CloudReply reset;
    reset.fault = CloudReply::Fault::ResetBeforeHeaders;
    QTest::newRow("reset before headers") << reset << false;
}

void TestDownloadFileMan::pictureOutcome()
{
    QFETCH(CloudReply, answer);
    QFETCH(bool, fetched);

    // Dish 5 has an outdated picture in the cache; dish 6 is served normally.
    const QList<Dish> dishes{{5, "/img/5.png", "1700000000000"}, {6, "/img/6.png", "0"}};
    serve(dishes);
    QVERIFY(QDir().mkpath(images));
    QFile stale(images + "/5.png");
    QVERIFY(stale.open(QIODevice::WriteOnly) && stale.write("stale") == 5);
    stale.close();
    // Repeated: Qt sends a GET again a few times when the connection closes before any answer.
    cloud->scriptReply("/img/5.png", {}, answer, 10);

    CDownloadFileMan manager(false, nullptr);
    QString text;
    QCOMPARE(sync(manager, menu(cloud.baseUrl(), dishes), &text), 1);
    QCOMPARE(summary(text, images), (fetched ? ready(5) : placeholder(5)) + '\n' + ready(6));
    QCOMPARE(readFile(images + "/5.png"), fetched ? picture(5) : QByteArray("<missing>"));
    QCOMPARE(readFile(images + "/6.png"), picture(6));
    QCOMPARE(QDir(images).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
             fetched ? QStringList({"5.png", "6.png"}) : QStringList({"6.png"}));
}

void TestDownloadFileMan::redirectsAreFollowed()
{
    // Two hops, each to an absolute address.
    const QString moved = cloud.baseUrl() + "/img/moved.png";
    CloudReply hop1;
    hop1.status = 302;
    hop1.headers = {{"Location", (cloud.baseUrl() + "/img/hop.png").toUtf8()}};
    CloudReply hop2 = hop1;
    hop2.headers = {{"Location", moved.toUtf8()}};
    cloud->scriptReply("/img/5.png", {}, hop1);
    cloud->scriptReply("/img/hop.png", {}, hop2);
    cloud->putFile("/img/moved.png", picture(55));

    CDownloadFileMan manager(false, nullptr);
    QString text;
    QCOMPARE(sync(manager, menu(cloud.baseUrl(), {{5, "/img/5.png", "1700000000000"}}), &text), 1);
    QCOMPARE(summary(text, images), ready(5));
    QCOMPARE(manager.GetListFile().value(0).url, moved);
    QCOMPARE(pictureRequests(), QStringList({"/img/5.png", "/img/hop.png", "/img/moved.png"}));
    QCOMPARE(readFile(images + "/5.png"), picture(55));
}

void TestDownloadFileMan::oldFilesOfTheDishAreRemoved()
{
    QVERIFY(QDir(images).mkpath("12.d"));
    for (const char* name : {"12.jpg", "12.gif", "12.png.part", "120.png", "12"}) {
        QFile file(images + '/' + name);
        QVERIFY(file.open(QIODevice::WriteOnly));
    }
    const QList<Dish> dishes{{12, "/img/12.png", "1700000000000"}};
    serve(dishes);

    CDownloadFileMan manager(false, nullptr);
    QCOMPARE(sync(manager, menu(cloud.baseUrl(), dishes)), 1);
    QCOMPARE(QDir(images).entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name),
             QStringList({"12", "12.d", "12.png", "120.png"}));
}

void TestDownloadFileMan::linksInTheFolderAreNotFollowed()
{
    // 7.png points at a file outside the folder, 8.png at a place outside that does not exist.
    QVERIFY(QDir().mkpath(images));
    QFile victim(root.path() + "/victim");
    QVERIFY(victim.open(QIODevice::WriteOnly) && victim.write("keep") == 4);
    victim.close();
    QVERIFY(QFile::link(victim.fileName(), images + "/7.png"));
    QVERIFY(QFile::link(root.path() + "/planted", images + "/8.png"));
    const QList<Dish> dishes{{7, "/img/7.png", "1700000000000"}, {8, "/img/8.png", "0"}};
    serve(dishes);

    CDownloadFileMan manager(false, nullptr);
    QString text;
    QCOMPARE(sync(manager, menu(cloud.baseUrl(), dishes), &text), 1);
    QCOMPARE(summary(text, images), ready(7) + '\n' + ready(8));
    QCOMPARE(readFile(victim.fileName()), QByteArray("keep"));
    QVERIFY(!QFileInfo::exists(root.path() + "/planted"));
    QCOMPARE(readFile(images + "/7.png"), picture(7));
    QCOMPARE(readFile(images + "/8.png"), picture(8));
    QVERIFY(!QFileInfo(images + "/8.png").isSymLink());
}

void TestDownloadFileMan::hostileNamesStayInTheFolder_data()
{
    QTest::addColumn<QString>("host"); // "<base>" stands for the server's address
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("id");

    QTest::newRow("dot only in the host") << "<base>"
                                          << "/img/7" << 7;
    QTest::newRow("climbing after the last dot") << "<base>"
                                                 << "/img/x./../../../../escaped" << 7;
    QTest::newRow("subfolder after the last dot") << "<base>"
                                                  << "/img/7.d/escaped" << 7;
    QTest::newRow("backslashes") << "<base>"
                                 << "/img/7.\\..\\..\\escaped" << 7;
    QTest::newRow("nul") << "<base>" << QStringLiteral("/img/7.p") + QChar(0) + "ng" << 7;
    QTest::newRow("name too long") << "<base>"
                                   << "/img/7." + QString(300, 'a') << 7;
    QTest::newRow("climbing host") << "<base>/../../escaped"
                                   << "/p" << 7;
    QTest::newRow("local file address") << "file:///etc/passwd"
                                        << "" << 7;
}

void TestDownloadFileMan::hostileNamesStayInTheFolder()
{
    QFETCH(QString, host);
    QFETCH(QString, path);
    QFETCH(int, id);

    QVERIFY(QDir().mkpath(images));
    const QStringList before = tree(root.path());
    CDownloadFileMan manager(false, nullptr);
    QString text;
    const QString reply = menu(host.replace("<base>", cloud.baseUrl()), {{id, path, "0"}});
    QCOMPARE(sync(manager, reply, &text), 1);
    QCOMPARE(summary(text, images), placeholder(id));
    QCOMPARE(tree(root.path()), before);
    QCOMPARE(pictureRequests(), QStringList());
}

void TestDownloadFileMan::nothingToFetch_data()
{
    QTest::addColumn<QString>("reply");
    QTest::addColumn<QString>("expected");

    QTest::newRow("empty list") << R"({ "err": 0, "dt": { "img_host": "h", "items": [] } })"
                                << R"({"dt":{"img_host":"h","items":[]},"err":0})";
    QTest::newRow("unreadable reply") << "<html>502</html>"
                                      << R"({"dt":{"items":[]}})";
    QTest::newRow("empty reply") << ""
                                 << R"({"dt":{"items":[]}})";
}

void TestDownloadFileMan::nothingToFetch()
{
    QFETCH(QString, reply);
    QFETCH(QString, expected);

    CDownloadFileMan manager(false, nullptr);
    QString text;
    QCOMPARE(sync(manager, reply, &text), 1);
    QCOMPARE(text, expected);
    QVERIFY(!manager.IsRunFirstTime());
    QCOMPARE(pictureRequests(), QStringList());
}

void TestDownloadFileMan::hundredDishMenu()
{
    QList<Dish> dishes;
    for (int id = 1; id <= 100; ++id) {
        dishes << Dish{id, QStringLiteral("/img/%1.png").arg(id), "1700000000000"};
        cloud->putFile(dishes.last().path.toUtf8(), picture(id, "v1", 20000));
    }
    const QString reply = menu(cloud.baseUrl(), dishes);
    QString text;
    QElapsedTimer timer;

    CDownloadFileMan cold(false, nullptr);
    timer.start();
    QCOMPARE(sync(cold, reply, &text), 1);
    const qint64 coldMs = timer.elapsed();
    QCOMPARE(pictureRequests().size(), 100);
    QCOMPARE(text.count("file:///"), 100);

    cloud->clearExchanges();
    CDownloadFileMan warm(false, nullptr);
    timer.start();
    QCOMPARE(sync(warm, reply, &text), 1);
    const qint64 warmMs = timer.elapsed();
    QCOMPARE(pictureRequests().size(), 0);
    QCOMPARE(text.count("file:///"), 100);
    qInfo("100-dish menu, 20 kB pictures: cold sync %lld ms, warm sync %lld ms", coldMs, warmMs);
}

QTEST_GUILESS_MAIN(TestDownloadFileMan)
#include "tst_cdownloadfileman.moc"
