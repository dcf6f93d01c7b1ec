// Menu replies of any shape through the catalogue functions and a real download run, each picture
// answered by a loopback server (picture, not found, redirect, redirect loop: chosen by the input).
// No crash, the run completes once, and nothing lands on disk but plain files directly in the
// picture folder, whatever "img_host", "img_path" and "item_id" hold: the data folder is walked
// after every run and any other entry aborts.
#include "cdownloadfileman.h"
#include "libcmn.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QEventLoop>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

// Pictures fetched per input: enough for every path rule, few enough to keep the runs quick.
constexpr int MaxRecords = 8;

[[noreturn]] void fail(const QString& what)
{
    fprintf(stderr, "fuzz_catalogue: %s\n", qUtf8Printable(what));
    abort();
}

// Answers "GET /m<digit>" on 127.0.0.1: 0 a picture, 1 not found, 2 a redirect to /m0,
// 3 a redirect to itself. Keeps connections alive, as the downloads expect.
class PictureServer : public QTcpServer
{
public:
    PictureServer()
    {
        if (!listen(QHostAddress::LocalHost))
            fail(QStringLiteral("cannot listen on 127.0.0.1"));
        connect(this, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* socket = nextPendingConnection()) {
                socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
                connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { serve(socket); });
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
    }
    QString url(int mode) const
    {
        return QStringLiteral("http://127.0.0.1:%1/m%2").arg(serverPort()).arg(mode);
    }

private:
    void serve(QTcpSocket* socket)
    {
        QByteArray pending = socket->property("pending").toByteArray() + socket->readAll();
        int end;
        while ((end = pending.indexOf("\r\n\r\n")) >= 0) {
            const QByteArray target = pending.left(pending.indexOf("\r\n")).split(' ').value(1);
            pending.remove(0, end + 4);
            const char mode = target.isEmpty() ? '1' : target.at(target.size() - 1);
            QByteArray head = "HTTP/1.1 200 OK\r\n", body = "picture";
            if (mode == '1') {
                head = "HTTP/1.1 404 Not Found\r\n";
                body.clear();
            } else if (mode == '2' || mode == '3') {
                head =
                    "HTTP/1.1 302 Found\r\nLocation: " + url(mode == '2' ? 0 : 3).toUtf8() + "\r\n";
                body.clear();
            }
            socket->write(head + "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" +
                          body);
        }
        socket->setProperty("pending", pending);
    }
};

QString dataDirectory()
{
    const QStringList locations =
        QStandardPaths::standardLocations(QStandardPaths::AppLocalDataLocation);
    return QDir(locations.value(0)).absolutePath();
}

// Every entry below the data home, where a picture that left its folder would land, must be the
// data folder, its "images" folder or a plain file directly in it.
void checkTree(const QString& home, const QString& data, const QString& images)
{
    QDirIterator it(home, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QFileInfo info = it.fileInfo();
        const bool allowed =
            (info.isDir() && !info.isSymLink() &&
             (path == data || path == images || data.startsWith(path + QLatin1Char('/')))) ||
            (info.isFile() && !info.isSymLink() && info.absolutePath() == images);
        if (!allowed)
            fail(QStringLiteral("left the picture folder: ") + path);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // A data home of our own: the whole of it is walked after every run.
    static QTemporaryDir dataHome;
    static const bool homeSet =
        dataHome.isValid() && qputenv("XDG_DATA_HOME", dataHome.path().toUtf8());
    if (!homeSet)
        fail(QStringLiteral("no temporary data home"));
    static int argc = 1;
    static char name[] = "fuzz_catalogue";
    static char* argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    static PictureServer server;
    static const QString dataDir = dataDirectory();
    static const QString images = dataDir + QStringLiteral("/images");
    static const QString home = QDir(dataHome.path()).absolutePath();
    if (!dataDir.startsWith(home + QLatin1Char('/')))
        fail(QStringLiteral("the data folder is not in the data home: ") + dataDir);

    QDir(images).removeRecursively();
    const QString reply = QString::fromUtf8(reinterpret_cast<const char*>(data), int(size));
    CDownloadFileMan manager(false, nullptr);
    unsigned long long lastUpdate = 0;
    Libcmn::parseDataFoods(reply, manager, lastUpdate);
    QList<tagDownFileInfo>& records = manager.GetListFile();
    while (records.size() > MaxRecords)
        records.removeLast();
    // The cache paths stay as parsed; the addresses go to the loopback server.
    for (int i = 0; i < records.size(); ++i)
        records[i].url = server.url(size > 0 ? data[i % size] & 3 : 0);

    int completions = 0;
    QString menu;
    QEventLoop loop;
    QObject::connect(&manager, &CDownloadFileMan::NotifyComplete, &loop, [&](const QString& text) {
        ++completions;
        menu = text;
        loop.quit();
    });
    QTimer guard;
    guard.setSingleShot(true);
    QObject::connect(&guard, &QTimer::timeout, [] { fail(QStringLiteral("the run never ended")); });
    guard.start(8000);
    manager.SetData(reply);
    manager.StartDownload();
    if (completions == 0)
        loop.exec();
    guard.stop();
    QCoreApplication::processEvents(); // a second completion would be queued by now
    if (completions != 1)
        fail(QStringLiteral("completed %1 times").arg(completions));

    checkTree(home, dataDir, images);
    // What the host is shown as a cached picture is a file in the picture folder.
    const QString cached = QStringLiteral("file:///") + images + QLatin1Char('/');
    const QJsonArray items = QJsonDocument::fromJson(menu.toUtf8())
                                 .object()[QLatin1String("dt")]
                                 .toObject()[QLatin1String("items")]
                                 .toArray();
    for (const QJsonValue item : items) {
        const QString path = item[QLatin1String("img_path")].toString();
        if (path.startsWith(QLatin1String("file:")) &&
            (!path.startsWith(cached) || path.mid(cached.size()).contains(QLatin1Char('/'))))
            fail(QStringLiteral("shown from outside the picture folder: ") + path);
    }
    return 0;
}
