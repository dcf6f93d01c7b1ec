// The picture cache against the local cloud over TLS: stamps and reuse, failures, redirects,
// clean-up of old files, and names from the server that must not leave the picture folder.
#include "cdownloadfileman.h"
#include "idindex_p.h"
#include "libcmn.h"
#include "logcapture.h"
#include "picturestamp_p.h"
#include "tempdatalocation.h"
#include "testcloud.h"
#include "testwait.h"

#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QtTest>

#include <climits>
#include <ctime>
#include <utility>

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
    QTcpServer plain; // plain http on 127.0.0.1: no picture may be fetched from it

    QString sync(CDownloadFileMan& manager, const QList<Dish>& dishes, QString host = QString());

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(data.isValid());
        QVERIFY(cloud.start());
        QVERIFY(plain.listen(QHostAddress::LocalHost));
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
    // The id index answers as its list would, whatever was done to the list: appended through
    // the index ("+n"), appended behind its back ("^n"), or emptied behind its back ("0").
    void idIndexFollowsItsList_data()
    {
        QTest::addColumn<QString>("steps");
        QTest::newRow("appends through the index") << "+1 +2 +2 +9";
        QTest::newRow("append behind its back") << "+1 ^4 +2";
        QTest::newRow("emptied behind its back") << "+1 +2 0 +3";
        QTest::newRow("emptied, then refilled behind its back") << "+1 +2 0 ^3 ^4";
        QTest::newRow("only behind its back") << "^5 ^6 ^5";
    }
    void idIndexFollowsItsList()
    {
        QFETCH(QString, steps);
        QList<int> list;
        kelo_catalogue::IdIndex index;
        for (const QString& step : steps.split(' ')) {
            const int id = step.mid(1).toInt();
            if (step == "0")
                list.clear();
            else if (step.startsWith('^'))
                list.append(id);
            else
                index.append(list, id);
            for (int probe = 0; probe < 10; ++probe)
                QVERIFY2(index.contains(list, probe) == list.contains(probe),
                         qPrintable(QStringLiteral("after %1, id %2").arg(step).arg(probe)));
        }
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
    // Dish 5's picture behind `hops` redirects (-1: to itself, without end), each answered after
    // `delay` ms, then `last` (status 0: the server's file), under the manager's cap and deadline
    // (0: the defaults). Whatever ends it, nothing partial stays, dish 6 follows and the run
    // completes once.
    void pictureLimits_data()
    {
        QTest::addColumn<int>("hops");
        QTest::addColumn<QByteArray>("firstTarget"); // empty: the next hop on this server
        QTest::addColumn<int>("delay");
        QTest::addColumn<CloudReply>("last");
        QTest::addColumn<qint64>("cap");
        QTest::addColumn<int>("deadline");
        QTest::addColumn<QString>("menu");
        QTest::addColumn<QStringList>("after");
        QTest::addColumn<QString>("why"); // the debug line that gives the picture up
        const auto chain = [](int hops) {
            QString fetched = "fetched: /img/5.png";
            for (int i = 1; i <= hops; ++i)
                fetched += QStringLiteral(" /img/r%1.png").arg(i);
            return fetched;
        };
        const QString failed = "placeholder\n6.png\n";
        const QStringList six{"/6.png 4096"}, both{"/5.png 5", "/6.png 4096"};
        const CloudReply served{0, {}, {}, 0, {}};
        QTest::newRow("5 redirects")
            << 5 << QByteArray() << 0 << served << qint64(0) << 0
            << "5.png\n6.png\n" + chain(5) + " /img/6.png" << both << QString("");
        QTest::newRow("6 redirects")
            << 6 << QByteArray() << 0 << served << qint64(0) << 0
            << failed + chain(5) + " /img/6.png" << six << QString("was redirected too often");
        QTest::newRow("redirect loop")
            << -1 << QByteArray() << 0 << served << qint64(0) << 0
            << failed + "fetched:" + QString(" /img/5.png").repeated(6) + " /img/6.png" << six
            << QString("was redirected too often");
        QTest::newRow("https to plain http")
            << 1 << QStringLiteral("http://127.0.0.1:%1/img/5.png").arg(plain.serverPort()).toUtf8()
            << 0 << served << qint64(0) << 0 << failed + chain(0) + " /img/6.png" << six
            << QString("was redirected to a less safe address");
        CloudReply big{200, {}, {}, 0, {}};
        big.streamBytes = 4097;
        QTest::newRow("length over the cap") << 0 << QByteArray() << 0 << big << qint64(4096) << 0
                                             << failed + chain(0) + " /img/6.png" << six
                                             << QString("announces more bytes than the cap");
        big.chunked = true;
        QTest::newRow("chunked over the cap")
            << 0 << QByteArray() << 0 << big << qint64(4096) << 0
            << failed + chain(0) + " /img/6.png" << six << QString("is longer than the cap");
        big.streamBytes = 4096;
        const QStringList atCap{"/5.png 4096", "/6.png 4096"};
        QTest::newRow("chunked at the cap")
            << 0 << QByteArray() << 0 << big << qint64(4096) << 0
            << "5.png\n6.png\n" + chain(0) + " /img/6.png" << atCap << QString("");
        big.chunked = false;
        QTest::newRow("length at the cap")
            << 1 << QByteArray() << 0 << big << qint64(4096) << 0
            << "5.png\n6.png\n" + chain(1) + " /img/6.png" << atCap << QString("");
        const CloudReply late{200, "late", {}, 3000, {}};
        QTest::newRow("deadline") << 0 << QByteArray() << 0 << late << qint64(0) << 500
                                  << failed + chain(0) + " /img/6.png" << six
                                  << QString("took longer than its deadline");
        // Each answer well within the deadline, the picture as a whole not.
        QTest::newRow("deadline across redirects")
            << 3 << QByteArray() << 1500 << served << qint64(0) << 2500
            << failed + chain(1) + " /img/6.png" << six << QString("took longer than its deadline");
    }
    void pictureLimits()
    {
        QFETCH(int, hops);
        QFETCH(QByteArray, firstTarget);
        QFETCH(int, delay);
        QFETCH(CloudReply, last);
        QFETCH(qint64, cap);
        QFETCH(int, deadline);
        const QByteArray base = cloud.baseUrl().toUtf8();
        const auto hop = [](int i) {
            return QByteArray(i ? "/img/r" + QByteArray::number(i) : "/img/5") + ".png";
        };
        if (hops < 0)
            cloud->scriptReply(hop(0), {},
                               CloudReply{302, {}, {{"Location", base + hop(0)}}, 0, {}}, 100);
        for (int i = 0; i < hops; ++i) {
            const QByteArray to =
                i == 0 && !firstTarget.isEmpty() ? firstTarget : base + hop(i + 1);
            cloud->scriptReply(hop(i), {}, CloudReply{302, {}, {{"Location", to}}, delay, {}});
        }
        if (hops >= 0) {
            if (last.status)
                cloud->scriptReply(hop(hops), {}, last);
            else
                cloud->putFile(hop(hops), "moved");
        }
        QSignalSpy plainConnections(&plain, &QTcpServer::newConnection);
        LogCapture log;
        CDownloadFileMan manager(true, nullptr);
        if (cap)
            manager.setMaxFileSize(cap);
        if (deadline)
            manager.setPictureDeadline(deadline);
        QTEST(sync(manager, {{5, "/img/5.png", "0"}, {6, "/img/6.png", "0"}}), "menu");
        QTEST(tree(images), "after");
        QCOMPARE(plainConnections.count() + int(plain.hasPendingConnections()), 0);
        QFETCH(QString, why);
        QCOMPARE(log.lines().filter("==> given up"),
                 why.isEmpty()
                     ? QStringList()
                     : QStringList("=== Image " + images + "/5.png " + why + " ==> given up"));
    }
    // The stamp goes through the open file, as the last thing before it is closed: a link put at
    // the picture's name meanwhile (the picture renamed away) is not followed to another file.
    void stampGoesThroughTheOpenFile()
    {
        QTemporaryDir elsewhere;
        QVERIFY(elsewhere.isValid());
        const QString name = images + "/3.png", moved = images + "/3.moved",
                      victim = elsewhere.filePath("victim");
        QVERIFY(writeFile(victim, "keep"));
        {
            QFile file(victim);
            QVERIFY(file.open(QIODevice::ReadWrite));
            QVERIFY(file.setFileTime(QDateTime::fromSecsSinceEpoch(1500000000),
                                     QFileDevice::FileModificationTime));
        }
        QFile picture(name);
        QVERIFY(picture.open(QIODevice::WriteOnly));
        QCOMPARE(picture.write("abc"), qint64(3)); // still buffered
        QVERIFY(QFile::rename(name, moved));
        QVERIFY(QFile::link(victim, name));
        QVERIFY(kelo_picture::stampOpenFile(picture, 1700000000999ULL));
        picture.close();
        QCOMPARE(readFile(moved), QByteArray("abc"));
        QCOMPARE(QFileInfo(moved).lastModified().toSecsSinceEpoch(), 1700000000);
        QCOMPARE(QFileInfo(victim).lastModified().toSecsSinceEpoch(), 1500000000);
        // An entry ended by the host itself: the closed picture is stamped, a link is not followed.
        QVERIFY(writeFile(images + "/4.png", "four"));
        for (const QString& path : {name, images + "/4.png"}) {
            CDownloadFileMan manager(false, nullptr);
            tagDownFileInfo info;
            info.localPath = path;
            info.stamp = 1600000000000ULL;
            info.fileReady = true;
            manager.AddDownLoadFile(info);
            manager.DownloadOneFileFinish();
        }
        QCOMPARE(QFileInfo(victim).lastModified().toSecsSinceEpoch(), 1500000000);
        QCOMPARE(QFileInfo(images + "/4.png").lastModified().toSecsSinceEpoch(), 1600000000);
    }
    // A picture whose catalogue address is plain http may be redirected over plain http.
    void plainHttpCatalogueAddress()
    {
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost));
        const QByteArray base = "http://127.0.0.1:" + QByteArray::number(server.serverPort());
        QByteArrayList targets;
        connect(&server, &QTcpServer::newConnection, &server, [&] {
            while (QTcpSocket* socket = server.nextPendingConnection())
                connect(socket, &QTcpSocket::readyRead, socket, [&targets, socket, base] {
                    const QByteArray target = socket->readAll().split(' ').value(1);
                    targets << target;
                    socket->write(
                        target == "/img/5.png"
                            ? "HTTP/1.1 302 Found\r\nLocation: " + base +
                                  "/img/moved.png\r\nContent-Length: 0\r\n\r\n"
                            : QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nplain"));
                });
        });
        CDownloadFileMan manager(false, nullptr);
        QCOMPARE(sync(manager, {{5, "/img/5.png", "0"}}, base), "5.png\nfetched:");
        QCOMPARE(targets, QByteArrayList({"/img/5.png", "/img/moved.png"}));
        QCOMPARE(readFile(images + "/5.png"), QByteArray("plain"));
    }
    // The deadline also holds when it passes between a redirect and the request that follows it
    // (here: the host's thread busy right then).
    void deadlinePassingBetweenRedirects()
    {
        const QByteArray next = (cloud.baseUrl() + "/img/r1.png").toUtf8();
        cloud->scriptReply("/img/5.png", {}, CloudReply{302, {}, {{"Location", next}}, 0, {}});
        CDownloadFileMan manager(false, nullptr);
        manager.setPictureDeadline(200);
        bool slept = false;
        connect(&manager, &CDownloadFileMan::NotifyDownloadNextFile, this, [&slept] {
            if (!std::exchange(slept, true))
                QThread::msleep(400);
        });
        QCOMPARE(sync(manager, {{5, "/img/5.png", "0"}, {6, "/img/6.png", "0"}}),
                 "placeholder\n6.png\nfetched: /img/5.png /img/6.png");
        QVERIFY(slept);
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
    complete.wait(kWait);
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
