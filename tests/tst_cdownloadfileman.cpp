// The picture cache against the local cloud over TLS: stamps and reuse, failures, redirects,
// clean-up of old files, and names from the server that must not leave the picture folder.
#include "cdownloadfileman.h"
#include "libcmn.h"
#include "logcapture.h"
#include "tempdatalocation.h"
#include "testcloud.h"

#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <climits>
#include <ctime>

using kelocloud::CloudReply;
Q_DECLARE_METATYPE(CloudReply)

namespace {

struct Dish
{
    int id;
    QString path; // "img_path"
    QString crc = "1700000000000";
};

/// The picture the server has for @p dish: it changes with the dish's stamp.
QByteArray picture(const Dish& dish)
{
    return ("PIC " + dish.path + ' ' + dish.crc + ' ').toUtf8().repeated(300).left(4096);
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

bool writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

// Every entry below @p root with its size (files) or "dir", sorted.
QStringList tree(const QString& root)
{
    QStringList entries;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
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
    TempDataLocation data;
    const QString images = data.images();
    TestCloud cloud;

    QString sync(CDownloadFileMan& manager, const QList<Dish>& dishes, QString host = QString());

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(data.isValid());
        QVERIFY(cloud.start());
    }
    void init()
    {
        QDir(images).removeRecursively();
        QVERIFY(QDir().mkpath(images));
        cloud->clearScripts();
    }
    // A picture is stamped with the catalogue's second and reused by a fresh manager while the
    // file's second still matches; time_t is 32 bits on some terminals.
    void stampsAndReuse_data()
    {
        QTest::addColumn<QString>("crc");
        QTest::addColumn<qint64>("mtime"); // -1: not stamped
        QTest::addColumn<QString>("warm");
        const bool narrow = sizeof(std::time_t) == 4;
        const QString reused = "9.png\nfetched:", fetched = "9.png\nfetched: /img/9.png";
        QTest::newRow("milliseconds ignored") << "1700000000999" << qint64(1700000000) << reused;
        QTest::newRow("no stamp: fetched every run") << "0" << qint64(-1) << fetched;
        // Clamped, not wrapped, where time_t ends in 2038; the file then never matches again.
        QTest::newRow("year 2100")
            << "4102444800000" << (narrow ? qint64(INT_MAX) : qint64(4102444800))
            << (narrow ? fetched : reused);
    }
    void stampsAndReuse()
    {
        QFETCH(QString, crc);
        QFETCH(qint64, mtime);
        const Dish dish{9, "/img/9.png", crc};
        CDownloadFileMan cold(false, nullptr), warm(false, nullptr);
        QCOMPARE(sync(cold, {dish}), "9.png\nfetched: /img/9.png");
        QCOMPARE(readFile(images + "/9.png"), picture(dish));
        if (mtime >= 0)
            QCOMPARE(QFileInfo(images + "/9.png").lastModified().toSecsSinceEpoch(), mtime);
        QTEST(sync(warm, {dish}), "warm");
    }
    // A manager used for several menus tells a changed picture ("img_cache" false, for as long as
    // it lives) from a new one.
    void reusedManagerTellsChangedFromNew()
    {
        LogCapture log;
        QList<Dish> dishes{{1, "/img/1.png"}, {2, "/img/2.png"}};
        CDownloadFileMan manager(true, nullptr);
        QCOMPARE(sync(manager, dishes), "1.png\n2.png\nfetched: /img/1.png /img/2.png");
        dishes[0].crc = "1700000500000"; // another second
        dishes << Dish{4, "/img/4.png"};
        QCOMPARE(sync(manager, dishes),
                 "1.png uncached\n2.png\n4.png\nfetched: /img/1.png /img/4.png");
        QCOMPARE(readFile(images + "/1.png"), picture(dishes[0]));
        QCOMPARE(QFileInfo(images + "/1.png").lastModified().toSecsSinceEpoch(), 1700000500);
        QCOMPARE(sync(manager, dishes), "1.png uncached\n2.png\n4.png\nfetched:");
        const QStringList lines =
            log.lines().filter(QRegularExpression("^(=== Image |Download complete)"));
        QCOMPARE(lines.join('\n').replace(images, "<images>"),
                 "=== Image <images>/1.png is added first ==> use cache\n"
                 "=== Image <images>/2.png is added first ==> use cache\nDownload complete\n"
                 "=== Image <images>/1.png was modified ==> no use cache\n"
                 "=== Image <images>/4.png is added new ==> use cache\nDownload complete\n"
                 "Download complete");
    }
    // Dish 5's picture of another second is replaced or, on any failure, gone with nothing partial
    // left; a redirect is followed hop by hop, each time to the target as given.
    void pictureOutcome_data()
    {
        QTest::addColumn<CloudReply>("answer");
        QTest::addColumn<QString>("menu");
        QTest::addColumn<QString>("url"); // of the entry afterwards
        QTest::addColumn<QByteArray>("content");
        const QString base = cloud.baseUrl(), failed = "placeholder\n6.png\nfetched: /img/5.png";
        const CloudReply slow{200, "new", {}, 400, {}};
        QTest::newRow("slow but whole") << slow << "5.png\n6.png\nfetched: /img/5.png /img/6.png"
                                        << base + "/img/5.png" << QByteArray("new");
        QTest::newRow("not found")
            << CloudReply{404, "not found", {}, 0, {}} << failed + " /img/6.png"
            << base + "/img/5.png" << QByteArray("<missing>");
        const CloudReply cut{
            200, picture({5, "/img/5.png"}), {}, 0, CloudReply::Fault::ResetMidBody};
        QTest::newRow("cut mid-body")
            << cut << failed + " /img/6.png" << base + "/img/5.png" << QByteArray("<missing>");
        const CloudReply hop{302, {}, {{"Location", (base + "/img/hop.png").toUtf8()}}, 0, {}};
        QTest::newRow("two redirects")
            << hop << "5.png\n6.png\nfetched: /img/5.png /img/hop.png /img/moved.png /img/6.png"
            << base + "/img/moved.png" << QByteArray("moved");
    }
    void pictureOutcome()
    {
        QFETCH(CloudReply, answer);
        QFETCH(QByteArray, content);
        QVERIFY(writeFile(images + "/5.png", "stale"));
        cloud->scriptReply("/img/5.png", {}, answer, 10);
        const QByteArray moved = (cloud.baseUrl() + "/img/moved.png").toUtf8();
        cloud->scriptReply("/img/hop.png", {}, CloudReply{302, {}, {{"Location", moved}}, 0, {}});
        cloud->putFile("/img/moved.png", "moved");
        CDownloadFileMan manager(false, nullptr);
        QTEST(sync(manager, {{5, "/img/5.png"}, {6, "/img/6.png", "0"}}), "menu");
        QTEST(manager.GetListFile().value(0).url, "url");
        QCOMPARE(readFile(images + "/5.png"), content);
    }
    // Before a picture is fetched, every regular file "<id>.*" in the folder goes, at that moment;
    // links found at a picture's name are removed, never followed out of the folder.
    void folderBeforeAndAfter_data()
    {
        QTest::addColumn<QStringList>(
            "before"); // "<name>/": a folder, "<name>@<x>": a link to ../x
        QTest::addColumn<QStringList>("paths");
        QTest::addColumn<QString>("menu");
        QTest::addColumn<QStringList>("after");
        QTest::newRow("other names of the dish")
            << QStringList{"12.jpg", "12.gif", "12.png.part", "120.png", "12", "12.d/"}
            << QStringList{"/img/12.png"} << "12.png\nfetched: /img/12.png"
            << QStringList{"/12 0", "/12.d dir", "/12.png 4096", "/120.png 0"};
        // The second entry's clean-up removes the file the first one wrote in this very run.
        QTest::newRow("one dish twice, two extensions")
            << QStringList() << QStringList{"/img/5.png", "/img/5.jpg"}
            << "5.png\n5.jpg\nfetched: /img/5.png /img/5.jpg" << QStringList{"/5.jpg 4096"};
        QTest::newRow("empty list")
            << QStringList() << QStringList() << "fetched:" << QStringList();
        QTest::newRow("links to a file and to nothing")
            << QStringList{"7.png@victim", "8.png@planted"}
            << QStringList{"/img/7.png", "/img/8.png"}
            << "7.png\n8.png\nfetched: /img/7.png /img/8.png"
            << QStringList{"/7.png 4096", "/8.png 4096"};
    }
    void folderBeforeAndAfter()
    {
        QFETCH(QStringList, before);
        QFETCH(QStringList, paths);
        QVERIFY(writeFile(data.root() + "/victim", "keep"));
        for (const QString& name : before) {
            const QString path = images + '/' + name.section('@', 0, 0);
            QVERIFY(name.endsWith('/') ? QDir().mkdir(path)
                    : name.contains('@')
                        ? QFile::link(data.root() + '/' + name.section('@', 1), path)
                        : writeFile(path, ""));
        }
        QList<Dish> dishes;
        for (const QString& path : paths)
            dishes << Dish{QFileInfo(path).baseName().toInt(), path};
        CDownloadFileMan manager(false, nullptr);
        QTEST(sync(manager, dishes), "menu");
        QTEST(tree(images), "after");
        QCOMPARE(tree(data.root()).filter(QRegularExpression("^/[^/]+ ")),
                 QStringList({"/home dir", "/victim 4"}));
    }
    void hostileNamesStayInTheFolder_data()
    {
        QTest::addColumn<QString>("host"); // empty: the server's address
        QTest::addColumn<QString>("path");
        const QString base;
        QTest::newRow("dot only in the host") << base << "/img/7";
        QTest::newRow("climbing after the last dot") << base << "/img/x./../../../../escaped";
        QTest::newRow("backslashes") << base << "/img/7.\\..\\..\\escaped";
        QTest::newRow("nul") << base << QStringLiteral("/img/7.p") + QChar(0) + "ng";
        QTest::newRow("name too long") << base << "/img/7." + QString(300, 'a');
        QTest::newRow("local file address") << "file:///etc/passwd"
                                            << "";
    }
    void hostileNamesStayInTheFolder()
    {
        QFETCH(QString, host);
        QFETCH(QString, path);
        const QStringList before = tree(data.root());
        CDownloadFileMan manager(false, nullptr);
        QCOMPARE(sync(manager, {{7, path, "0"}}, host), "placeholder\nfetched:");
        QCOMPARE(tree(data.root()), before);
    }
};

// Serves the dishes' pictures, runs one sync of their menu and renders the outcome: per dish the
// cached file's name (for "file:///<picture folder>/<name>") or "placeholder", with " uncached"
// for an "img_cache" of false, then "fetched:" and the pictures requested. Says how often the
// run completed when that was not once.
QString TestDownloadFileMan::sync(CDownloadFileMan& manager, const QList<Dish>& dishes,
                                  QString host)
{
    QJsonArray items;
    for (const Dish& d : dishes) {
        items.append(QJsonObject{{"item_id", d.id}, {"img_path", d.path}, {"img_crc", d.crc}});
        cloud->putFile(d.path.toUtf8(), picture(d));
    }
    const QJsonObject dt{{"img_host", host.isEmpty() ? cloud.baseUrl() : host}, {"items", items}};
    const QString reply = QJsonDocument(QJsonObject{{"dt", dt}}).toJson(QJsonDocument::Compact);
    cloud->clearExchanges();
    QSignalSpy complete(&manager, &CDownloadFileMan::NotifyComplete);
    unsigned long long lastUpdate = 0;
    Libcmn::parseDataFoods(reply, manager, lastUpdate);
    manager.SetData(reply);
    manager.StartDownload();
    complete.wait(30000);
    QCoreApplication::processEvents(); // a second completion would be queued by now
    if (complete.count() != 1)
        return QStringLiteral("completed %1 times").arg(complete.count());
    const QString text = complete[0][0].toString(), cached = "file:///" + images + '/';
    QStringList lines;
    for (const QJsonValue item :
         QJsonDocument::fromJson(text.toUtf8()).object()["dt"].toObject()["items"].toArray()) {
        QString path = item["img_path"].toString();
        path = path.startsWith(cached)                       ? path.mid(cached.size())
               : path == "qrc:/icons/images/defaultfood.png" ? "placeholder"
                                                             : path;
        lines << path + (item["img_cache"].toBool() ? "" : " uncached");
    }
    QString fetched = "fetched:";
    for (const kelocloud::CloudExchange& e : cloud->exchanges("/img"))
        fetched += ' ' + QString::fromUtf8(e.path);
    return (lines << fetched).join('\n');
}

QTEST_GUILESS_MAIN(TestDownloadFileMan)
#include "tst_cdownloadfileman.moc"
