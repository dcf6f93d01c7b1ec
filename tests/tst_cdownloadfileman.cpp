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

#include <QCryptographicHash>
#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QtTest>

#include <algorithm>
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

bool setModified(const QString& path, qint64 seconds)
{
    QFile file(path);
    return file.open(QIODevice::ReadWrite) &&
           file.setFileTime(QDateTime::fromSecsSinceEpoch(seconds),
                            QFileDevice::FileModificationTime);
}

// The menu reply for @p dishes, pictures at @p host.
QString menuText(const QList<Dish>& dishes, const QString& host)
{
    QJsonArray items;
    for (const Dish& d : dishes)
        items.append(QJsonObject{{"item_id", d.id}, {"img_path", d.path}, {"img_crc", d.crc}});
    const QJsonObject dt{{"img_host", host}, {"items", items}};
    return QJsonDocument(QJsonObject{{"dt", dt}}).toJson(QJsonDocument::Compact);
}

// Hands @p reply to @p manager and starts its run.
void startMenu(CDownloadFileMan& manager, const QString& reply)
{
    unsigned long long lastUpdate = 0;
    Libcmn::parseDataFoods(reply, manager, lastUpdate);
    manager.SetData(reply);
    manager.StartDownload();
}

// Runs @p reply through @p manager; the menu it completed with, or how often it completed when
// that was not once.
QString runMenu(CDownloadFileMan& manager, const QString& reply)
{
    QSignalSpy complete(&manager, &CDownloadFileMan::NotifyComplete);
    startMenu(manager, reply);
    complete.wait(kWait);
    QCoreApplication::processEvents(); // a second completion would be queued by now
    if (complete.count() != 1)
        return QStringLiteral("completed %1 times").arg(complete.count());
    return complete[0][0].toString();
}

// The "img_path" of the first dish @p id in the menu @p text.
QString imagePathOf(const QString& text, int id)
{
    for (const QJsonValue item :
         QJsonDocument::fromJson(text.toUtf8()).object()["dt"].toObject()["items"].toArray())
        if (item["item_id"].toInt() == id)
            return item["img_path"].toString();
    return "<no dish>";
}

// The scrambled menu's stamp for dish @p id in sync @p round: some pictures change in round 2.
QString crcOf(int id, int round)
{
    if (id == 16)
        return "0";
    const bool changes = round == 2 && QList<int>{2, 5, 9, 15, 21}.contains(id);
    return QString::number(1700000000000LL + id * 1000LL + (changes ? 500000 : 0));
}

// Every file of the picture folder: name, size, content digest and modification second (the
// stamps are from 2023; an unstamped picture keeps the time it was written, which is left out).
QStringList cacheFiles(const QString& images)
{
    const qint64 stampedBefore = 1750000000;
    QStringList files;
    for (const QFileInfo& info :
         QDir(images).entryInfoList(QDir::Files | QDir::Hidden, QDir::Name)) {
        files << QStringLiteral("%1 %2 %3 %4")
                     .arg(info.fileName())
                     .arg(info.size())
                     .arg(QString::fromLatin1(QCryptographicHash::hash(readFile(info.filePath()),
                                                                       QCryptographicHash::Md5)
                                                  .toHex()))
                     .arg(info.lastModified().toSecsSinceEpoch() < stampedBefore
                              ? QString::number(info.lastModified().toSecsSinceEpoch())
                              : QStringLiteral("written"));
    }
    return files;
}

// A data row named @p tag, with ", N in flight" added when @p inFlight is not 1; its first
// column is the number of pictures in flight.
QTestData& inFlightRow(int inFlight, const char* tag)
{
    if (inFlight == 1)
        return QTest::newRow(tag) << inFlight;
    return QTest::newRow(
               qPrintable(QStringLiteral("%1, %2 in flight").arg(QLatin1String(tag)).arg(inFlight)))
           << inFlight;
}

// Plain http pictures on 127.0.0.1, each answered after its own delay, so that pictures asked
// for together come back in another order. Counts the requests it holds at once (received, not
// yet answered), overall and per dish (the name before the first "." of the path's last part).
class PictureServer : public QObject
{
public:
    enum class Fault
    {
        None,
        CutMidBody,  ///< half the body, then the connection closes
        HoldMidBody, ///< half the body, then nothing more
        /// the connection closes before any byte of the answer, the first 2 times (Qt itself
        /// sends a request lost that way on a new connection once more), then the answer comes
        CloseUnansweredTwice
    };
    struct Answer
    {
        int status = 200;
        QByteArray body;
        QByteArray location;
        int delayMs = 0;
        Fault fault = Fault::None;
    };

    bool start()
    {
        connect(&server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* socket = server.nextPendingConnection())
                serve(socket);
        });
        return server.listen(QHostAddress::LocalHost);
    }
    QString base() const { return QStringLiteral("http://127.0.0.1:%1").arg(server.serverPort()); }
    void put(const QByteArray& path, const Answer& answer) { answers[path] = answer; }
    /// Starts counting afresh; requests still held (from an earlier test) stay counted as open.
    void reset()
    {
        peak = open;
        overlaps = 0;
        heads.clear();
        paths.clear();
    }

    int open = 0;         ///< requests held now
    int peak = 0;         ///< most requests held at once
    int overlaps = 0;     ///< requests that arrived while another of their dish was held
    QByteArrayList heads; ///< every request's head as it arrived
    QByteArrayList paths; ///< every request's path, in order of arrival

private:
    static QByteArray dishOf(const QByteArray& path)
    {
        return path.mid(path.lastIndexOf('/') + 1).split('.').value(0);
    }
    void serve(QTcpSocket* socket)
    {
        auto* held = new QByteArray; // the path of the request this connection waits on
        connect(socket, &QObject::destroyed, this, [held] { delete held; });
        connect(socket, &QTcpSocket::disconnected, socket, [this, socket, held] {
            release(*held);
            held->clear();
            pending.remove(socket);
            socket->deleteLater();
        });
        connect(socket, &QTcpSocket::readyRead, socket, [this, socket, held] {
            QByteArray& buffer = pending[socket];
            buffer += socket->readAll();
            const int end = buffer.indexOf("\r\n\r\n");
            if (end < 0)
                return;
            const QByteArray head = buffer.left(end + 4);
            buffer.remove(0, end + 4);
            const QByteArray path = head.split(' ').value(1);
            heads << head;
            paths << path;
            peak = qMax(peak, ++open);
            if (dishOpen[dishOf(path)]++ > 0)
                ++overlaps;
            *held = path;
            Answer answer = answers.value(path, Answer{404, "no such picture", {}, 0, {}});
            if (answer.fault == Fault::CloseUnansweredTwice && closedUnanswered[path]++ < 2) {
                release(*held);
                held->clear();
                socket->abort();
                return;
            }
            if (answer.fault == Fault::CloseUnansweredTwice)
                answer.fault = Fault::None;
            QPointer<QTcpSocket> alive(socket);
            QTimer::singleShot(answer.delayMs, this, [this, alive, held, answer] {
                if (!alive)
                    return;
                // A picture held mid-body stays counted until the client lets go of it.
                if (answer.fault != Fault::HoldMidBody) {
                    release(*held);
                    held->clear();
                }
                QByteArray reply = "HTTP/1.1 " + QByteArray::number(answer.status) + " X\r\n";
                if (!answer.location.isEmpty())
                    reply += "Location: " + answer.location + "\r\n";
                reply += "Content-Length: " + QByteArray::number(answer.body.size()) + "\r\n\r\n";
                if (answer.fault == Fault::None) {
                    alive->write(reply + answer.body);
                    return;
                }
                alive->write(reply + answer.body.left(answer.body.size() / 2));
                alive->flush();
                if (answer.fault == Fault::CutMidBody)
                    alive->abort();
            });
        });
    }
    void release(const QByteArray& path)
    {
        if (path.isEmpty())
            return;
        --open;
        --dishOpen[dishOf(path)];
    }

    QHash<QByteArray, Answer> answers;
    QHash<QByteArray, int> dishOpen;
    QHash<QByteArray, int> closedUnanswered;
    QHash<QTcpSocket*, QByteArray> pending;
    QTcpServer server; // last: its connections go first, while the counts above still exist
};

// A network manager that counts the replies it has out (made, not yet finished).
class CountingNetwork : public QNetworkAccessManager
{
public:
    int open = 0;
    int peak = 0;

protected:
    QNetworkReply* createRequest(Operation op, const QNetworkRequest& request,
                                 QIODevice* body) override
    {
        QNetworkReply* reply = QNetworkAccessManager::createRequest(op, request, body);
        peak = qMax(peak, ++open);
        connect(reply, &QNetworkReply::finished, this, [this] { --open; });
        return reply;
    }
};

// "<text before>fetched: <paths>" with the paths sorted: several pictures in flight are asked
// for in no fixed order.
QString sortedFetched(const QString& text)
{
    const int at = text.lastIndexOf("fetched:");
    if (at < 0)
        return text;
    QStringList paths = text.mid(at + 8).split(' ', Qt::SkipEmptyParts);
    paths.sort();
    return text.left(at) + "fetched:" + (paths.isEmpty() ? QString() : ' ' + paths.join(' '));
}

/// What one manager made of the scrambled menu in two syncs.
struct ScrambledRun
{
    QStringList menus;     ///< NotifyComplete's text, each sync
    QStringList files;     ///< the picture folder after each sync (cacheFiles())
    QByteArrayList heads;  ///< every request's head, sorted
    QStringList dishOrder; ///< each sync: the requests for dish 5, then for dish 9, in order
    int serverPeak = 0;    ///< most requests the server held at once
    int clientPeak = 0;    ///< most replies out at once
    int overlaps = 0;      ///< requests for a dish while another of it was held
};

} // namespace

class TestDownloadFileMan : public QObject
{
    Q_OBJECT
    TempDataLocation data;
    const QString images = data.images();
    TestCloud cloud;
    QTcpServer plain; // plain http on 127.0.0.1: no picture may be fetched from it
    PictureServer pictures;
    ScrambledRun oneAtATime[2]; // the scrambled menu one picture at a time (own, shared manager)

    QString sync(CDownloadFileMan& manager, const QList<Dish>& dishes, QString host = QString());
    QString render(const QString& menu) const;
    ScrambledRun scrambledRun(int inFlight, bool shared);

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(data.isValid());
        QVERIFY(cloud.start());
        QVERIFY(plain.listen(QHostAddress::LocalHost));
        QVERIFY(pictures.start());
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
        QTest::addColumn<int>("inFlight");
        QTest::addColumn<CloudReply>("answer");
        QTest::addColumn<QString>("menu");
        QTest::addColumn<QString>("url"); // of the entry afterwards
        QTest::addColumn<QByteArray>("content");
        const auto row = inFlightRow;
        for (const int inFlight : {1, 3}) {
            const QString base = cloud.baseUrl(),
                          failed = "placeholder\n6.png\nfetched: /img/5.png";
            const CloudReply slow{200, "new", {}, 400, {}};
            row(inFlight, "slow but whole")
                << slow << "5.png\n6.png\nfetched: /img/5.png /img/6.png" << base + "/img/5.png"
                << QByteArray("new");
            row(inFlight, "not found")
                << CloudReply{404, "not found", {}, 0, {}} << failed + " /img/6.png"
                << base + "/img/5.png" << QByteArray("<missing>");
            const CloudReply cut{
                200, picture({5, "/img/5.png"}), {}, 0, CloudReply::Fault::ResetMidBody};
            row(inFlight, "cut mid-body")
                << cut << failed + " /img/6.png" << base + "/img/5.png" << QByteArray("<missing>");
            const CloudReply hop{302, {}, {{"Location", (base + "/img/hop.png").toUtf8()}}, 0, {}};
            row(inFlight, "two redirects")
                << hop << "5.png\n6.png\nfetched: /img/5.png /img/hop.png /img/moved.png /img/6.png"
                << base + "/img/moved.png" << QByteArray("moved");
        }
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
        QFETCH(int, inFlight);
        QFETCH(QString, menu);
        CDownloadFileMan manager(false, nullptr);
        manager.setMaxPicturesInFlight(inFlight);
        QCOMPARE(sync(manager, {{5, "/img/5.png"}, {6, "/img/6.png", "0"}}),
                 inFlight > 1 ? sortedFetched(menu) : menu);
        QTEST(manager.GetListFile().value(0).url, "url");
        QCOMPARE(readFile(images + "/5.png"), content);
    }
    // Dish 5's picture behind `hops` redirects (-1: to itself, without end), each answered after
    // `delay` ms, then `last` (status 0: the server's file), under the manager's cap and deadline
    // (0: the defaults). Whatever ends it, nothing partial stays, dish 6 follows and the run
    // completes once.
    void pictureLimits_data()
    {
        QTest::addColumn<int>("inFlight");
        QTest::addColumn<int>("hops");
        QTest::addColumn<QByteArray>("firstTarget"); // empty: the next hop on this server
        QTest::addColumn<int>("delay");
        QTest::addColumn<CloudReply>("last");
        QTest::addColumn<qint64>("cap");
        QTest::addColumn<int>("deadline");
        QTest::addColumn<QString>("menu");
        QTest::addColumn<QStringList>("after");
        QTest::addColumn<QString>("why"); // the debug line that gives the picture up
        const auto row = inFlightRow;
        for (const int inFlight : {1, 3}) {
            const auto chain = [](int hops) {
                QString fetched = "fetched: /img/5.png";
                for (int i = 1; i <= hops; ++i)
                    fetched += QStringLiteral(" /img/r%1.png").arg(i);
                return fetched;
            };
            const QString failed = "placeholder\n6.png\n";
            const QStringList six{"/6.png 4096"}, both{"/5.png 5", "/6.png 4096"};
            const CloudReply served{0, {}, {}, 0, {}};
            row(inFlight, "5 redirects")
                << 5 << QByteArray() << 0 << served << qint64(0) << 0
                << "5.png\n6.png\n" + chain(5) + " /img/6.png" << both << QString("");
            row(inFlight, "6 redirects")
                << 6 << QByteArray() << 0 << served << qint64(0) << 0
                << failed + chain(5) + " /img/6.png" << six << QString("was redirected too often");
            row(inFlight, "redirect loop")
                << -1 << QByteArray() << 0 << served << qint64(0) << 0
                << failed + "fetched:" + QString(" /img/5.png").repeated(6) + " /img/6.png" << six
                << QString("was redirected too often");
            row(inFlight, "https to plain http")
                << 1
                << QStringLiteral("http://127.0.0.1:%1/img/5.png").arg(plain.serverPort()).toUtf8()
                << 0 << served << qint64(0) << 0 << failed + chain(0) + " /img/6.png" << six
                << QString("was redirected to a less safe address");
            CloudReply big{200, {}, {}, 0, {}};
            big.streamBytes = 4097;
            row(inFlight, "length over the cap") << 0 << QByteArray() << 0 << big << qint64(4096)
                                                 << 0 << failed + chain(0) + " /img/6.png" << six
                                                 << QString("announces more bytes than the cap");
            big.chunked = true;
            row(inFlight, "chunked over the cap")
                << 0 << QByteArray() << 0 << big << qint64(4096) << 0
                << failed + chain(0) + " /img/6.png" << six << QString("is longer than the cap");
            big.streamBytes = 4096;
            const QStringList atCap{"/5.png 4096", "/6.png 4096"};
            row(inFlight, "chunked at the cap")
                << 0 << QByteArray() << 0 << big << qint64(4096) << 0
                << "5.png\n6.png\n" + chain(0) + " /img/6.png" << atCap << QString("");
            big.chunked = false;
            row(inFlight, "length at the cap")
                << 1 << QByteArray() << 0 << big << qint64(4096) << 0
                << "5.png\n6.png\n" + chain(1) + " /img/6.png" << atCap << QString("");
            const CloudReply late{200, "late", {}, 3000, {}};
            row(inFlight, "deadline") << 0 << QByteArray() << 0 << late << qint64(0) << 500
                                      << failed + chain(0) + " /img/6.png" << six
                                      << QString("took longer than its deadline");
            // Each answer well within the deadline, the picture as a whole not.
            row(inFlight, "deadline across redirects")
                << 3 << QByteArray() << 1500 << served << qint64(0) << 2500
                << failed + chain(1) + " /img/6.png" << six
                << QString("took longer than its deadline");
        }
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
        QFETCH(int, inFlight);
        QFETCH(QString, menu);
        CDownloadFileMan manager(true, nullptr);
        manager.setMaxPicturesInFlight(inFlight);
        if (cap)
            manager.setMaxFileSize(cap);
        if (deadline)
            manager.setPictureDeadline(deadline);
        QCOMPARE(sync(manager, {{5, "/img/5.png", "0"}, {6, "/img/6.png", "0"}}),
                 inFlight > 1 ? sortedFetched(menu) : menu);
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
    // The scrambled menu synced cold, then again with some pictures changed, by one manager with
    // `inFlight` pictures at once, through its own network managers or a shared one (that counts
    // its replies): menus and cache files are those of the one-at-a-time run, byte for byte, and
    // so are the requests. The server never holds more requests than there are pictures in
    // flight and holds that many at some point; through a shared manager, no more than 6 (Qt's
    // HTTP/1.1 connections to one server). The pictures of one dish never overlap and keep their
    // catalogue order.
    void severalInFlightMatchOneAtATime_data()
    {
        QTest::addColumn<int>("inFlight");
        QTest::addColumn<bool>("shared");
        QTest::newRow("1") << 1 << false;
        QTest::newRow("3") << 3 << false;
        QTest::newRow("6") << 6 << false;
        QTest::newRow("16") << 16 << false;
        QTest::newRow("1, shared manager") << 1 << true;
        QTest::newRow("3, shared manager") << 3 << true;
        QTest::newRow("16, shared manager") << 16 << true;
    }
    void severalInFlightMatchOneAtATime()
    {
        QFETCH(int, inFlight);
        QFETCH(bool, shared);
        ScrambledRun& one = oneAtATime[shared];
        if (one.menus.isEmpty())
            one = scrambledRun(1, shared);
        const ScrambledRun run = scrambledRun(inFlight, shared);
        QCOMPARE(run.menus.size(), 2);
        QCOMPARE(run.menus.size(), one.menus.size());
        for (int i = 0; i < run.menus.size(); ++i)
            QCOMPARE(render(run.menus[i]), render(one.menus[i]));
        QCOMPARE(run.menus, one.menus);
        QCOMPARE(run.files, one.files);
        QCOMPARE(run.heads, one.heads);
        QCOMPARE(run.dishOrder, one.dishOrder);
        QCOMPARE(run.overlaps, 0);
        if (shared) {
            // Beyond its connections Qt would queue them, and fail the whole queue when one
            // connection breaks.
            QCOMPARE(run.serverPeak, qMin(inFlight, 6));
            QCOMPARE(run.clientPeak, qMin(inFlight, 6));
        } else {
            QCOMPARE(run.serverPeak, inFlight);
        }
        // Failed among others in flight: placeholder, no file.
        for (const int failed : shared ? QList<int>{13} : QList<int>{13, 14}) {
            QCOMPARE(imagePathOf(run.menus[0], failed), "qrc:/icons/images/defaultfood.png");
            QVERIFY(run.files.filter(QRegularExpression(QStringLiteral("^%1\\.").arg(failed)))
                        .isEmpty());
        }
    }
    // HTTP/2 allowed against a server that only speaks HTTP/1.1: the pictures come as before.
    void http2AllowedFallsBackToHttp1()
    {
        CDownloadFileMan manager(false, nullptr);
        QVERIFY(!manager.http2Allowed());
        manager.setHttp2Allowed(true);
        manager.setMaxPicturesInFlight(3);
        QCOMPARE(sync(manager, {{1, "/img/1.png"}, {2, "/img/2.png"}, {3, "/img/3.png"}}),
                 "1.png\n2.png\n3.png\nfetched: /img/1.png /img/2.png /img/3.png");
        QCOMPARE(readFile(images + "/2.png"), picture({2, "/img/2.png"}));
    }
    // A picture whose connection closes before any byte of its answer (after Qt's own resends):
    // through a shared manager, where Qt also fails the requests queued behind a broken
    // connection that never went out, it is asked for once more; a run's own managers carry one
    // request each and give it up.
    void connectionClosedBeforeAnswer_data()
    {
        QTest::addColumn<bool>("shared");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<int>("requests");
        QTest::newRow("shared manager: asked again") << true << "62.png" << 3;
        QTest::newRow("own managers: given up") << false << "placeholder" << 2;
    }
    void connectionClosedBeforeAnswer()
    {
        QFETCH(bool, shared);
        QFETCH(QString, expected);
        QFETCH(int, requests);
        const Dish dish{62, shared ? "/img/62.png" : "/img/62-own.png"};
        pictures.put(dish.path.toUtf8(),
                     {200, picture(dish), {}, 0, PictureServer::Fault::CloseUnansweredTwice});
        QNetworkAccessManager network;
        CDownloadFileMan manager(false, nullptr);
        manager.setMaxPicturesInFlight(2);
        if (shared)
            manager.setNetworkAccessManager(&network);
        pictures.reset();
        const QString menu = runMenu(manager, menuText({dish}, pictures.base()));
        QCOMPARE(pictures.paths.size(), requests);
        const bool arrived = menu.contains(QLatin1String("file:///"));
        QCOMPARE(arrived ? QStringLiteral("62.png") : QStringLiteral("placeholder"), expected);
        QCOMPARE(tree(images).size(), arrived ? 1 : 0);
    }
    // A manager deleted with several pictures half-way drops them all: no file is left, the
    // server sees every request go, and nothing completes.
    void managerDeletedMidRun_data()
    {
        QTest::addColumn<bool>("shared");
        QTest::newRow("its own network manager") << false;
        QTest::newRow("a shared network manager") << true;
    }
    void managerDeletedMidRun()
    {
        QFETCH(bool, shared);
        QList<Dish> dishes;
        for (int id = 41; id <= 46; ++id) {
            dishes << Dish{id, QStringLiteral("/img/%1.png").arg(id)};
            pictures.put(dishes.last().path.toUtf8(),
                         {200, picture(dishes.last()), {}, 0, PictureServer::Fault::HoldMidBody});
        }
        QNetworkAccessManager network;
        auto* manager = new CDownloadFileMan(false, nullptr);
        manager->setMaxPicturesInFlight(4);
        if (shared)
            manager->setNetworkAccessManager(&network);
        bool completed = false;
        connect(manager, &CDownloadFileMan::NotifyComplete, this,
                [&completed] { completed = true; });
        pictures.reset();
        startMenu(*manager, menuText(dishes, pictures.base()));
        QTRY_COMPARE_WITH_TIMEOUT(pictures.open, 4, kWait);
        QTRY_COMPARE_WITH_TIMEOUT(tree(images).size(), 4, kWait);
        delete manager;
        QCOMPARE(tree(images), QStringList());
        QTRY_COMPARE_WITH_TIMEOUT(pictures.open, 0, kWait);
        QCoreApplication::processEvents();
        QVERIFY(!completed);
        QCOMPARE(pictures.paths.size(), 4);
    }
    // A shared network manager deleted during a run: the pictures in flight fail, and so does
    // every one still to fetch; nothing partial stays and the run completes once.
    void sharedNetworkGoneMidRun()
    {
        QList<Dish> dishes;
        for (int id = 51; id <= 56; ++id) {
            dishes << Dish{id, QStringLiteral("/img/%1.png").arg(id)};
            const bool held = id >= 52 && id <= 54;
            pictures.put(dishes.last().path.toUtf8(),
                         {200,
                          picture(dishes.last()),
                          {},
                          held ? 0 : 20,
                          held ? PictureServer::Fault::HoldMidBody : PictureServer::Fault::None});
        }
        auto* network = new QNetworkAccessManager;
        CDownloadFileMan manager(false, nullptr);
        manager.setMaxPicturesInFlight(3);
        manager.setNetworkAccessManager(network);
        QCOMPARE(manager.networkAccessManager(), network);
        QSignalSpy complete(&manager, &CDownloadFileMan::NotifyComplete);
        pictures.reset();
        startMenu(manager, menuText(dishes, pictures.base()));
        QTRY_VERIFY_WITH_TIMEOUT(pictures.open == 3 && tree(images).contains("/51.png 4096"),
                                 kWait);
        delete network;
        QVERIFY(complete.wait(kWait));
        QCoreApplication::processEvents();
        QCOMPARE(complete.count(), 1);
        QCOMPARE(render(complete[0][0].toString()),
                 "51.png\nplaceholder\nplaceholder\nplaceholder\nplaceholder\nplaceholder");
        QCOMPARE(tree(images), QStringList("/51.png 4096"));
        QCOMPARE(manager.networkAccessManager(), nullptr);
        QTRY_COMPARE_WITH_TIMEOUT(pictures.open, 0, kWait);
        QCOMPARE(pictures.paths.size(), 4);
    }
};

// Serves the dishes' pictures, runs one sync of their menu and renders the outcome: per dish the
// cached file's name (for "file:///<picture folder>/<name>") or "placeholder", with " uncached"
// for an "img_cache" of false, then "fetched:" and the pictures requested. Says how often the
// run completed when that was not once.
QString TestDownloadFileMan::sync(CDownloadFileMan& manager, const QList<Dish>& dishes,
                                  QString host)
{
    for (const Dish& d : dishes)
        cloud->putFile(d.path.toUtf8(), picture(d));
    const QString reply = menuText(dishes, host.isEmpty() ? cloud.baseUrl() : host);
    cloud->clearExchanges();
    const QString text = runMenu(manager, reply);
    if (text.startsWith("completed "))
        return text;
    QString fetched = "fetched:";
    for (const kelocloud::CloudExchange& e : cloud->exchanges("/img"))
        fetched += ' ' + QString::fromUtf8(e.path);
    const QString menu = render(text);
    const QString outcome = menu.isEmpty() ? fetched : menu + '\n' + fetched;
    // Several pictures in flight are asked for in no fixed order.
    return manager.maxPicturesInFlight() > 1 ? sortedFetched(outcome) : outcome;
}

// Per dish of the menu @p text: the cached file's name (for "file:///<picture folder>/<name>")
// or "placeholder", with " uncached" for an "img_cache" of false.
QString TestDownloadFileMan::render(const QString& text) const
{
    const QString cached = "file:///" + images + '/';
    QStringList lines;
    for (const QJsonValue item :
         QJsonDocument::fromJson(text.toUtf8()).object()["dt"].toObject()["items"].toArray()) {
        QString path = item["img_path"].toString();
        path = path.startsWith(cached)                       ? path.mid(cached.size())
               : path == "qrc:/icons/images/defaultfood.png" ? "placeholder"
                                                             : path;
        lines << path + (item["img_cache"].toBool() ? "" : " uncached");
    }
    return lines.join('\n');
}

// The scrambled menu: dishes 1 to 30 with dish 5 three times (as 5.jpg, then twice as 5.png)
// and dish 9 twice; 13 is not found, 14 is cut mid-body (unless @p shared), 15 redirected, 16
// has no stamp. Every
// picture is answered after 20 to 80 ms, in an order of its own. The folder holds another
// picture of dish 3 (goes), dish 4 as it is (kept) and dish 7 of another second (fetched
// again). Synced cold, then with dishes 2, 5, 9, 15 and 21 changed, by one manager.
ScrambledRun TestDownloadFileMan::scrambledRun(int inFlight, bool shared)
{
    ScrambledRun run;
    QDir(images).removeRecursively();
    if (!QDir().mkpath(images) || !writeFile(images + "/3.jpg", "old three") ||
        !writeFile(images + "/4.png", "cached four") || !writeFile(images + "/7.png", "old") ||
        !setModified(images + "/4.png", crcOf(4, 1).toLongLong() / 1000) ||
        !setModified(images + "/7.png", 1600000000))
        return run;
    CountingNetwork network;
    CDownloadFileMan manager(false, nullptr);
    manager.setMaxPicturesInFlight(inFlight);
    if (shared)
        manager.setNetworkAccessManager(&network);
    const QString base = pictures.base();
    for (int round = 1; round <= 2; ++round) {
        QList<Dish> dishes;
        for (int id = 1; id <= 30; ++id) {
            dishes << Dish{id, QStringLiteral("/img/%1.png").arg(id), crcOf(id, round)};
            if (id == 3)
                dishes << Dish{5, "/img/5.jpg", crcOf(5, round)};
            if (id == 10)
                dishes << Dish{5, "/img/5.png", crcOf(5, round)};
            if (id == 20)
                dishes << Dish{9, "/img/9.png", crcOf(9, round)};
        }
        for (const Dish& d : dishes) {
            const QByteArray path = d.path.toUtf8();
            int sum = 0;
            for (const char c : path)
                sum += c;
            PictureServer::Answer answer{200, picture(d), {}, 20 + (sum * 7 % 6) * 12, {}};
            if (d.id == 13)
                answer.status = 404;
            // Through a shared manager, a picture cut short can take down requests still waiting
            // in Qt's queue for the server: that is left to the runs of its own managers.
            if (d.id == 14 && !shared)
                answer.fault = PictureServer::Fault::CutMidBody;
            if (d.id == 15) {
                pictures.put("/img/moved-15.png", answer);
                answer = {302, {}, (base + "/img/moved-15.png").toUtf8(), 30, {}};
            }
            pictures.put(path, answer);
        }
        pictures.reset();
        network.peak = 0;
        run.menus << runMenu(manager, menuText(dishes, base));
        run.files << QStringLiteral("-- sync %1").arg(round) << cacheFiles(images);
        run.heads << pictures.heads;
        for (const QByteArray dish : {"/img/5.", "/img/9."}) {
            QByteArrayList ofDish;
            for (const QByteArray& path : pictures.paths)
                if (path.startsWith(dish))
                    ofDish << path;
            run.dishOrder << QString::fromUtf8(ofDish.join(' '));
        }
        run.serverPeak = qMax(run.serverPeak, pictures.peak);
        run.clientPeak = qMax(run.clientPeak, network.peak);
        run.overlaps += pictures.overlaps;
    }
    std::sort(run.heads.begin(), run.heads.end());
    return run;
}

QTEST_GUILESS_MAIN(TestDownloadFileMan)
#include "tst_cdownloadfileman.moc"
