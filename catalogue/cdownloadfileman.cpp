#include "cdownloadfileman.h"

#include "idindex_p.h"
#include "kelolimits_p.h"
#include "kelologging_p.h"
#include "keloqtcompat_p.h"
#include "libcmn.h"
#include "picturestamp_p.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QHttp2Configuration>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QSet>
#include <QStandardPaths>
#include <QTimer>
#include <QUrl>

#include <memory>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The longest file name (in bytes) that common file systems accept.
constexpr int MaxFileNameBytes = 255;

bool isPlainFileName(const QString& name)
{
    return !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..") &&
           !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\')) &&
           !name.contains(QChar(0)) && QFile::encodeName(name).size() <= MaxFileNameBytes;
}

// The server a request goes to, as Qt keeps its connections: scheme, host and port.
QString originOf(const QUrl& url)
{
    return url.scheme() + QLatin1String("://") + url.host() + QLatin1Char(':') +
           QString::number(url.port(url.scheme() == QLatin1String("https") ? 443 : 80));
}

bool isWebUrl(const QUrl& url)
{
    return url.isValid() &&
           (url.scheme() == QLatin1String("https") || url.scheme() == QLatin1String("http"));
}

// The part of a file name that the filter "<base>.*" compares with <base>: everything before its
// first "." (a base name holds no "."). QDir matches filters without regard to case, hence the
// case folding. Empty for a name without ".", which no such filter matches.
QString dishKey(const QString& fileName)
{
    const int dot = fileName.indexOf(QLatin1Char('.'));
    return dot <= 0 ? QString() : fileName.left(dot).toCaseFolded();
}

bool isWildcardFree(const QString& name)
{
    for (const QChar c : name)
        if (c == QLatin1Char('*') || c == QLatin1Char('?') || c == QLatin1Char('[') ||
            c == QLatin1Char(']') || c == QLatin1Char('\\'))
            return false;
    return true;
}

// Where a redirect may lead: https always, plain http only for a picture whose catalogue address
// is itself plain http (a secure address is never downgraded). Anything else, a relative target
// included, fails the picture.
bool isAllowedRedirect(const QUrl& target, bool plainHttpAllowed)
{
    const QString scheme = target.scheme();
    return target.isValid() && !target.host().isEmpty() &&
           (scheme == QLatin1String("https") ||
            (plainHttpAllowed && scheme == QLatin1String("http")));
}

// The folder part of an entry's dish: its cache file's name before the first "." (what the
// filter "<base>.*" of DeleteOldFiles compares), case-folded as QDir compares it.
QString dishNameOf(const QString& localPath)
{
    return QFileInfo(localPath).baseName().toCaseFolded();
}

// One picture in flight: its entry, its redirects so far, whether plain http is allowed for it,
// its bytes, its deadline, the file it is written to and the answer it comes from.
struct PictureTransfer
{
    PictureTransfer(int entry, const tagDownFileInfo& info)
        : index(entry), id(info.id), dish(dishNameOf(info.localPath))
    {
    }
    const int index;               ///< the entry in the manager's list
    const int id;                  ///< its dish id
    const QString dish;            ///< its dish's file name part (dishNameOf())
    int redirects = 0;             ///< redirects followed for it
    bool plainHttpAllowed = false; ///< the catalogue's own address for it is plain http
    bool requested = false;        ///< a request went out for it (its deadline runs)
    bool again = false;            ///< redirected: to be fetched again from its new address
    bool waiting = false;          ///< a request is out and has not finished
    bool askedAgain = false;       ///< asked for once more after its connection closed unanswered
    bool outputFailed = false;     ///< given up, or a write failed: ends like a network error
    qint64 received = 0;           ///< bytes of the current answer so far
    QElapsedTimer started;         ///< since the entry's first request
    /// Gives the entry up, redirects included; made with its first request (a cached picture
    /// needs none).
    std::unique_ptr<QTimer> deadline;
    QFile* file = nullptr;         ///< the cache file being written
    QPointer<QNetworkReply> reply; ///< the answer in flight
    QString origin;                ///< the server of the current request (originOf())
    int lane = -1;                 ///< the run's own network manager it goes through; -1: none

    bool expired(int deadlineMs) const { return deadlineMs > 0 && started.hasExpired(deadlineMs); }
};

} // namespace

// Kept beside the manager, whose layout is fixed: its settings, the indexes of its id lists
// (which live as long as the manager), and the state of a run with every picture in flight.
// Hidden: none of it is part of the library's exported symbols.
class Q_DECL_HIDDEN CDownloadFileMan::PictureRun : public QObject
{
public:
    explicit PictureRun(CDownloadFileMan* owner) : QObject(owner), manager(*owner) {}

    CDownloadFileMan& manager;

    // ---- settings ----
    qint64 capBytes = kelo_limits::DefaultMaxPictureBytes;
    int deadlineMs = kelo_limits::PictureDeadlineMs;
    int maxInFlight = 1;
    bool http2 = false;
    bool sharedSet = false;                        ///< setNetworkAccessManager() was given one
    QPointer<QNetworkAccessManager> sharedNetwork; ///< ... and this is it while it lives

    kelo_catalogue::IdIndex cached;   ///< index of the manager's cachedIds
    kelo_catalogue::IdIndex modified; ///< index of the manager's modifiedIds

    // ---- the run ----
    bool running = false;                    ///< from StartDownload to DownloadDone
    bool doneSignalled = false;              ///< NotifyDownloadDone was emitted in this run
    QPointer<QNetworkAccessManager> network; ///< a shared manager the run fetches through
    /// Without a shared manager: one network manager per picture in flight (the first is the
    /// manager's own networkManager), each with one request at a time. Qt fails every request
    /// waiting in a manager's queue for a server when one connection to it breaks; with a
    /// manager per picture nothing ever waits there, so no picture fails for another's sake.
    std::vector<QNetworkAccessManager*> lanes;
    QMetaObject::Connection networkGone; ///< to a shared manager's destroyed()
    int next = 0;                        ///< the first entry not looked at yet
    int ended = 0;                       ///< entries done (below next, none waiting or active)
    QList<int> held;                     ///< entries held back behind another of their dish
    std::vector<std::unique_ptr<PictureTransfer>> active;  ///< in flight, oldest first
    std::vector<std::unique_ptr<PictureTransfer>> retired; ///< ended; freed from the event loop
    QSet<QString> http2Origins; ///< servers that have answered a picture over HTTP/2

    void begin(QNetworkAccessManager* through, int from);
    void fill();
    bool start(PictureTransfer& transfer);
    void readyRead(PictureTransfer& transfer);
    void finished(PictureTransfer& transfer);
    void finish(int index, PictureTransfer* transfer);
    void giveUp(PictureTransfer& transfer, const char* why);
    void releaseFile(PictureTransfer& transfer, bool keep);
    void dropAll();
    void sharedNetworkGone();
    PictureTransfer* find(int index) const;
    PictureTransfer* fromReply(const QObject* reply) const;

private:
    bool launch(int index);
    void retire(PictureTransfer& transfer);
    void step();
    bool heldBack(int index, const QSet<int>& heldIds, const QSet<QString>& heldNames) const;
    bool serverFull(int index) const;
    QNetworkAccessManager* laneFor(PictureTransfer& transfer);
    static QString dishName(const tagDownFileInfo& info);
};

QString CDownloadFileMan::PictureRun::dishName(const tagDownFileInfo& info)
{
    return dishNameOf(info.localPath);
}

void CDownloadFileMan::PictureRun::begin(QNetworkAccessManager* through, int from)
{
    running = true;
    doneSignalled = false;
    const bool shared = through && through != manager.networkManager;
    network = shared ? through : nullptr;
    lanes.clear();
    if (!shared && through)
        lanes.push_back(through);
    next = ended = from;
    held.clear();
    http2Origins.clear();
    QObject::disconnect(networkGone);
    if (shared)
        networkGone = connect(through, &QObject::destroyed, this, [this] { sharedNetworkGone(); });
}

PictureTransfer* CDownloadFileMan::PictureRun::find(int index) const
{
    for (const auto& transfer : active)
        if (transfer->index == index)
            return transfer.get();
    return nullptr;
}

PictureTransfer* CDownloadFileMan::PictureRun::fromReply(const QObject* reply) const
{
    for (const auto& transfer : active)
        if (reply && transfer->reply == reply)
            return transfer.get();
    return nullptr;
}

bool CDownloadFileMan::PictureRun::heldBack(int index, const QSet<int>& heldIds,
                                            const QSet<QString>& heldNames) const
{
    const tagDownFileInfo& info = manager.fileList.at(index);
    const QString name = dishName(info);
    if (heldIds.contains(info.id) || heldNames.contains(name))
        return true;
    for (const auto& transfer : active)
        if (transfer->id == info.id || transfer->dish == name)
            return true;
    return false;
}

bool CDownloadFileMan::PictureRun::serverFull(int index) const
{
    // Over HTTP/1.1 a shared manager opens a few connections to one server and queues further
    // requests; when one of those connections breaks, it fails every request in that queue with
    // it. So no more pictures go to one server at once than it has connections, unless it speaks
    // HTTP/2. (The run's own managers carry one request each: nothing queues there.)
    const QUrl url(manager.fileList.at(index).url);
    if (!network || !isWebUrl(url))
        return false;
    const QString origin = originOf(url);
    if (http2Origins.contains(origin))
        return false;
    int requests = 0;
    for (const auto& transfer : active)
        if (transfer->origin == origin)
            ++requests;
    return requests >= kelo_limits::PictureRequestsPerServer;
}

QNetworkAccessManager* CDownloadFileMan::PictureRun::laneFor(PictureTransfer& transfer)
{
    // Without a shared manager, the run's own: the transfer keeps its lane across redirects; a
    // new one takes the first lane no picture in flight holds, made when there is none.
    if (lanes.empty())
        return nullptr;
    if (transfer.lane < 0) {
        std::vector<bool> taken(lanes.size(), false);
        for (const auto& other : active)
            if (other->lane >= 0)
                taken[size_t(other->lane)] = true;
        size_t free = 0;
        while (free < taken.size() && taken[free])
            ++free;
        if (free == lanes.size()) {
            auto* lane = new QNetworkAccessManager(&manager);
            kelo_compat::manualRedirects(*lane);
            lanes.push_back(lane);
        }
        transfer.lane = int(free);
    }
    return lanes[size_t(transfer.lane)];
}

void CDownloadFileMan::PictureRun::fill()
{
    retired.clear();
    const int size = manager.fileList.size();
    // Redirected pictures first, each from its new address.
    for (size_t i = 0; i < active.size(); ++i) {
        PictureTransfer& transfer = *active[i];
        if (!transfer.again)
            continue;
        transfer.again = false;
        if (!start(transfer))
            return; // it ended at once; the queued step carries on
    }
    if (ended >= size) {
        step();
        return;
    }
    // Then entries in catalogue order, as long as there is room. An entry that shares its id or
    // its file name with one in flight, or with one held back before it, waits, so that pictures
    // of one dish go one after the other in catalogue order, as a single file would have them.
    QSet<int> heldIds;
    QSet<QString> heldNames;
    const auto hold = [&](int index) {
        heldIds.insert(manager.fileList.at(index).id);
        heldNames.insert(dishName(manager.fileList.at(index)));
    };
    for (int i = 0; i < held.size() && int(active.size()) < maxInFlight;) {
        const int index = held.at(i);
        if (heldBack(index, heldIds, heldNames)) {
            hold(index);
            ++i;
            continue;
        }
        // No room at its server: the entries after it wait too, so that they start in order.
        if (serverFull(index))
            return;
        held.removeAt(i);
        if (!launch(index))
            return;
    }
    while (int(active.size()) < maxInFlight && next < size) {
        const int index = next;
        if (heldBack(index, heldIds, heldNames)) {
            ++next;
            held.append(index);
            hold(index);
            continue;
        }
        if (serverFull(index))
            return;
        ++next;
        if (!launch(index))
            return;
    }
}

bool CDownloadFileMan::PictureRun::launch(int index)
{
    active.push_back(std::make_unique<PictureTransfer>(index, manager.fileList.at(index)));
    PictureTransfer& transfer = *active.back();
    return start(transfer);
}

bool CDownloadFileMan::PictureRun::start(PictureTransfer& transfer)
{
    CDownloadFileMan& m = manager;
    m.currentIndex = transfer.index;
    releaseFile(transfer, false);
    if (transfer.reply) {
        transfer.reply->disconnect(&m);
        delete transfer.reply;
    }
    tagDownFileInfo& info = m.fileList[transfer.index];
    // Back here after a redirect: the same entry, unless its whole time is up.
    if (transfer.requested && transfer.expired(deadlineMs)) {
        info.fileReady = false;
        finish(transfer.index, &transfer);
        return false;
    }
    // The file name comes from the server's "img_host", "img_path" and "item_id". Anything that
    // would not land as a plain file directly in the cache folder fails here, before any file
    // system call, and the dish shows the placeholder.
    if (!m.isCacheFilePath(info.localPath)) {
        info.fileReady = false;
        finish(transfer.index, &transfer);
        return false;
    }

    if (m.IsFileCached()) {
        info.fileReady = true;
        if (!cached.contains(m.cachedIds, info.id))
            cached.append(m.cachedIds, info.id);
        info.useCache = !modified.contains(m.modifiedIds, info.id);
        retire(transfer);
        ++ended;
        m.currentIndex = transfer.index + 1;
        emit m.NotifyDownloadNextFile();
        return false;
    }

    m.DeleteOldFiles();
    info.fileReady = false;
    if (!QDir().mkpath(QFileInfo(info.localPath).absolutePath()) ||
        !m.isInsideCacheFolder(info.localPath)) {
        finish(transfer.index, &transfer);
        return false;
    }
    // A link left at this name (the listing above skips dangling ones) is removed, never followed;
    // NewOnly then creates the file afresh (O_EXCL), so nothing outside can be written through it.
    if (QFileInfo(info.localPath).isSymLink())
        QFile::remove(info.localPath);
    transfer.file = new QFile(info.localPath);
    if (!transfer.file->open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
        delete transfer.file;
        transfer.file = nullptr;
        finish(transfer.index, &transfer);
        return false;
    }
    m.indexCreatedFile(info.localPath);
    transfer.outputFailed = false;

    // Pictures come from a web server; a "file:", "qrc:" or "data:" address from the catalogue
    // would copy local data into the cache, so it fails like a request that could not be made.
    // So does every picture once a shared network manager has gone.
    const QUrl url(info.url);
    QNetworkAccessManager* through = network ? network.data() : laneFor(transfer);
    if (through && isWebUrl(url)) {
        if (!transfer.requested) {
            transfer.requested = true;
            transfer.plainHttpAllowed = url.scheme() == QLatin1String("http");
            transfer.started.start();
            if (deadlineMs > 0) {
                transfer.deadline = std::make_unique<QTimer>();
                transfer.deadline->setSingleShot(true);
                connect(transfer.deadline.get(), &QTimer::timeout, this,
                        [this, &transfer] { giveUp(transfer, " took longer than its deadline"); });
                transfer.deadline->start(deadlineMs);
            }
        }
        transfer.received = 0;
        QNetworkRequest request(url);
        request.setTransferTimeout(kelo_limits::PictureIdleTimeoutMs);
        // Per request: a shared manager keeps its own policy for everything else.
        request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                             QNetworkRequest::ManualRedirectPolicy);
        if (http2) {
            request.setAttribute(QNetworkRequest::Http2AllowedAttribute, true);
            // Qt 5.15 grants a server 64 KiB per connection and stream: over a link with a long
            // round trip, several pictures on one connection would wait on it.
            QHttp2Configuration windows;
            windows.setSessionReceiveWindowSize(kelo_limits::PictureHttp2SessionWindowBytes);
            windows.setStreamReceiveWindowSize(kelo_limits::PictureHttp2StreamWindowBytes);
            request.setHttp2Configuration(windows);
        } else {
            kelo_compat::http1Only(request);
        }
        transfer.origin = originOf(url);
        transfer.reply = through->get(request);
    }
    if (!transfer.reply) {
        releaseFile(transfer, false);
        finish(transfer.index, &transfer);
        return false;
    }
    transfer.waiting = true;
    // An announced length over the cap ends the picture before any byte of it is written.
    connect(transfer.reply, SIGNAL(metaDataChanged()), &m, SLOT(HttpReadyRead()));
    connect(transfer.reply, SIGNAL(readyRead()), &m, SLOT(HttpReadyRead()));
    connect(transfer.reply, SIGNAL(finished()), &m, SLOT(HttpDownloadFinished()));
    return true;
}

void CDownloadFileMan::PictureRun::readyRead(PictureTransfer& transfer)
{
    // outputFailed: the answer was given up, or a write failed; the rest of it is not written.
    QNetworkReply* reply = transfer.reply;
    if (!reply || !transfer.file || transfer.outputFailed)
        return;
    // A server that answers over HTTP/2 takes every picture at once on one connection: known
    // from the first answer's headers, the pictures held back for it start from the event loop.
    if (network && !http2Origins.contains(transfer.origin) &&
        reply->attribute(QNetworkRequest::Http2WasUsedAttribute).toBool()) {
        http2Origins.insert(transfer.origin);
        emit manager.NotifyDownloadNextFile();
    }
    if (capBytes > 0) {
        // Announced, or counted as it comes (a chunked answer announces nothing).
        bool known = false;
        const qint64 announced = reply->rawHeader("Content-Length").trimmed().toLongLong(&known);
        if (known && announced > capBytes) {
            giveUp(transfer, " announces more bytes than the cap");
            return;
        }
        if (transfer.received + reply->bytesAvailable() > capBytes) {
            giveUp(transfer, " is longer than the cap");
            return;
        }
    }
    const QByteArray chunk = reply->readAll();
    transfer.received += chunk.size();
    if (transfer.file->write(chunk) != chunk.size())
        transfer.outputFailed = true;
}

void CDownloadFileMan::PictureRun::finished(PictureTransfer& transfer)
{
    QNetworkReply* reply = transfer.reply;
    if (!reply || !transfer.waiting)
        return;
    readyRead(transfer);
    transfer.waiting = false;
    if (transfer.file && !transfer.file->flush())
        transfer.outputFailed = true;

    const QVariant target = reply->attribute(QNetworkRequest::RedirectionTargetAttribute);
    bool redirected = target.isValid();
    // A picture cut short, given up or not fully written counts as a failed download.
    bool failed =
        reply->error() != QNetworkReply::NoError || transfer.outputFailed || !transfer.file;
    if (reply->attribute(QNetworkRequest::Http2WasUsedAttribute).toBool())
        http2Origins.insert(transfer.origin);
    tagDownFileInfo& info = manager.fileList[transfer.index];
    if (!failed && redirected) {
        // A bounded number of hops, never from https down to plain http.
        const QUrl to = target.toUrl();
        if (++transfer.redirects > kelo_limits::MaxPictureRedirects) {
            failed = true;
            manager.logImage(info, " was redirected too often ==> given up");
        } else if (!isAllowedRedirect(to, transfer.plainHttpAllowed)) {
            failed = true;
            manager.logImage(info, " was redirected to a less safe address ==> given up");
        } else {
            // The target is taken as it stands, not resolved against the old address.
            info.url = to.toString();
        }
    }
    redirected = redirected && !failed;
    // Through a shared manager, Qt fails every request waiting in its queue for a server when one
    // connection to that server breaks, although none of them went out. A picture whose answer
    // never began because its connection closed is therefore asked for once more, like a
    // redirect to the same address (a run's own managers carry one request each: nothing waits).
    if (failed && !transfer.outputFailed && !transfer.askedAgain && network &&
        reply->error() == QNetworkReply::RemoteHostClosedError &&
        !reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid()) {
        transfer.askedAgain = true;
        failed = false;
        redirected = true;
        manager.logImage(info, " lost its connection before any answer ==> asked again");
    }
    // The picture stays open until it is stamped (finish).
    const bool ready = !failed && !redirected;
    info.fileReady = ready;
    if (!ready)
        releaseFile(transfer, false);
    reply->deleteLater();
    transfer.reply = nullptr;

    // The same entry is fetched again from its new address, from the event loop.
    if (redirected) {
        transfer.again = true;
        emit manager.NotifyDownloadNextFile();
    } else {
        finish(transfer.index, &transfer);
    }
}

void CDownloadFileMan::PictureRun::finish(int index, PictureTransfer* transfer)
{
    CDownloadFileMan& m = manager;
    if (index < 0 || index >= m.fileList.size())
        return;
    m.currentIndex = index;
    tagDownFileInfo& info = m.fileList[index];
    if (info.fileReady) {
        // The stamp is the last thing done to the file before it is closed, through the open
        // file: nothing put at its name meanwhile can be stamped in its place.
        if (transfer && transfer->file) {
            if (info.stamp != 0)
                kelo_picture::stampOpenFile(*transfer->file, info.stamp);
            releaseFile(*transfer, true);
        } else if (info.stamp != 0 && m.isCacheFilePath(info.localPath)) {
            stampCachedFile(info.localPath, info.stamp);
        }
        const bool known = cached.contains(m.cachedIds, info.id);
        if (!m.firstRun && known) {
            info.useCache = false;
            m.logImage(info, " was modified ==> no use cache");
            if (!modified.contains(m.modifiedIds, info.id))
                modified.append(m.modifiedIds, info.id);
        } else {
            info.useCache = true;
            if (!known)
                cached.append(m.cachedIds, info.id);
            m.logImage(info, m.firstRun ? " is added first ==> use cache"
                                        : " is added new ==> use cache");
        }
    } else if (transfer) {
        releaseFile(*transfer, false);
    }
    m.currentIndex = index + 1;
    if (transfer) {
        retire(*transfer);
        ++ended;
        if (ended < m.fileList.size())
            emit m.NotifyDownloadNextFile();
        else
            step();
        return;
    }
    // An entry ended by the host itself, outside the run's bookkeeping.
    if (m.currentIndex < m.fileList.size())
        emit m.NotifyDownloadNextFile();
    else
        emit m.NotifyDownloadDone();
}

void CDownloadFileMan::PictureRun::step()
{
    // Once per run, however many steps were queued when the last entry ended.
    if (doneSignalled)
        return;
    doneSignalled = true;
    emit manager.NotifyDownloadDone();
}

void CDownloadFileMan::PictureRun::retire(PictureTransfer& transfer)
{
    // Not freed at once: this may run inside the transfer's own deadline timer or its reply's
    // signal. It waits for the next step from the event loop (or the end of the run).
    if (transfer.deadline)
        transfer.deadline->stop();
    for (auto it = active.begin(); it != active.end(); ++it) {
        if (it->get() == &transfer) {
            retired.push_back(std::move(*it));
            active.erase(it);
            return;
        }
    }
}

void CDownloadFileMan::PictureRun::giveUp(PictureTransfer& transfer, const char* why)
{
    // The answer in flight, if any, ends as failed: the partial file goes, the placeholder shows.
    if (!transfer.reply || !transfer.waiting)
        return;
    manager.logImage(manager.fileList.at(transfer.index),
                     (QByteArray(why) + " ==> given up").constData());
    transfer.outputFailed = true;
    transfer.reply->abort();
}

void CDownloadFileMan::PictureRun::releaseFile(PictureTransfer& transfer, bool keep)
{
    if (!transfer.file)
        return;
    transfer.file->close();
    if (!keep)
        transfer.file->remove();
    delete transfer.file;
    transfer.file = nullptr;
}

void CDownloadFileMan::PictureRun::dropAll()
{
    // Every download is dropped unheard and every file being written goes.
    for (auto& transfer : active) {
        if (transfer->deadline)
            transfer->deadline->stop();
        if (QNetworkReply* reply = transfer->reply) {
            reply->disconnect(&manager);
            delete reply;
        }
        releaseFile(*transfer, false);
    }
    active.clear();
    retired.clear();
    held.clear();
    QObject::disconnect(networkGone);
    running = false;
}

void CDownloadFileMan::PictureRun::sharedNetworkGone()
{
    // The shared manager has deleted its replies already, or is about to: every picture in
    // flight fails now (its file goes, the placeholder shows), and each one still to fetch fails
    // when its turn comes, for want of a manager.
    network = nullptr;
    std::vector<PictureTransfer*> failing;
    for (const auto& transfer : active)
        if (transfer->waiting)
            failing.push_back(transfer.get());
    for (PictureTransfer* transfer : failing) {
        transfer->waiting = false;
        if (QNetworkReply* reply = transfer->reply)
            reply->disconnect(&manager);
        transfer->reply = nullptr;
        releaseFile(*transfer, false);
        manager.fileList[transfer->index].fileReady = false;
        finish(transfer->index, transfer);
    }
}

// ---- the manager ---------------------------------------------------------------------------

CDownloadFileMan::CDownloadFileMan(bool debug, QObject* parent) : QObject(parent), debug(debug)
{
    // Queued, so that each step starts from the event loop and not from inside the previous one.
    connect(this, SIGNAL(NotifyDownloadNextFile()), this, SLOT(DownloadNextFile()),
            Qt::QueuedConnection);
    connect(this, SIGNAL(NotifyDownloadDone()), this, SLOT(DownloadDone()), Qt::QueuedConnection);
}

CDownloadFileMan::~CDownloadFileMan()
{
    // Normally DownloadDone has released everything. A manager destroyed in the middle of a run
    // drops every download unheard and leaves no half-written picture behind; its own network
    // manager goes with the children.
    pictureRun()->dropAll();
}

void CDownloadFileMan::AddDownLoadFile(const tagDownFileInfo& info)
{
    fileList.append(info);
}

QList<tagDownFileInfo>& CDownloadFileMan::GetListFile()
{
    return fileList;
}

void CDownloadFileMan::SetData(const QString& text)
{
    data = text;
}

QString CDownloadFileMan::GetData() const
{
    return data;
}

bool CDownloadFileMan::IsRunFirstTime() const
{
    return firstRun;
}

void CDownloadFileMan::Reset()
{
    // The id lists and the first-run flag stay: a reused manager tells new pictures from changed.
    fileList.clear();
    currentIndex = 0;
}

void CDownloadFileMan::StartDownload()
{
    // A second start during a run would interleave two runs over one list; the run under way
    // carries on and reports as usual.
    PictureRun* run = pictureRun();
    if (run->running)
        return;
    currentIndex = 0;
    runPictureDirectory = pictureDirectory();
    runFolderIndex.clear();
    runFolderIndexed = false;
    QNetworkAccessManager* through = run->sharedNetwork;
    if (!run->sharedSet) {
        networkManager = new QNetworkAccessManager(this);
        kelo_compat::manualRedirects(*networkManager);
        through = networkManager;
    }
    run->begin(through, 0);
    DownloadNextFile();
}

bool CDownloadFileMan::IsFileCached()
{
    const tagDownFileInfo* info = currentRecord();
    if (!info || !isCacheFilePath(info->localPath))
        return false;
    // One stat for the type and the modification second (a link is followed, as for any reader
    // of the picture); a time before 1970 never matches.
    struct stat status;
    if (::stat(QFile::encodeName(info->localPath).constData(), &status) != 0 ||
        !S_ISREG(status.st_mode))
        return false;
    if (status.st_mtime >= 0 &&
        info->stamp / 1000 == static_cast<unsigned long long>(status.st_mtime))
        return true;
    if (isInsideCacheFolder(info->localPath))
        QFile::remove(info->localPath);
    return false;
}

void CDownloadFileMan::DeleteOldFiles()
{
    const tagDownFileInfo* info = currentRecord();
    if (!info || !isInsideCacheFolder(info->localPath))
        return;
    const QFileInfo file(info->localPath);
    QDir dir = file.absoluteDir();
    for (const QString& name : oldFileNames(dir, file.baseName()))
        dir.remove(name);
}

QStringList CDownloadFileMan::oldFileNames(const QDir& dir, const QString& baseName)
{
    // Outside a run, and for a name that is itself a pattern, the folder is asked directly.
    if (runPictureDirectory.isEmpty() || baseName.isEmpty() || !isWildcardFree(baseName))
        return dir.entryList(QStringList(baseName + QLatin1String(".*")), QDir::Files);
    if (!runFolderIndexed) {
        const QStringList names = dir.entryList(QDir::Files);
        for (const QString& name : names) {
            const QString key = dishKey(name);
            if (!key.isEmpty())
                runFolderIndex[key].append(name);
        }
        runFolderIndexed = true;
    }
    // Taken out of the index: the caller deletes them.
    return runFolderIndex.take(baseName.toCaseFolded());
}

void CDownloadFileMan::indexCreatedFile(const QString& localPath)
{
    const QString name = QFileInfo(localPath).fileName();
    const QString key = dishKey(name);
    if (runFolderIndexed && !key.isEmpty())
        runFolderIndex[key].append(name);
}

void CDownloadFileMan::DownloadNextFile()
{
    // Outside a run (a step queued before the run ended, or a call of the host's) there is
    // nothing to do: NotifyComplete stays once per run.
    PictureRun* run = pictureRun();
    if (run->running)
        run->fill();
}

void CDownloadFileMan::HttpReadyRead()
{
    PictureRun* run = pictureRun();
    if (PictureTransfer* transfer = run->fromReply(sender())) {
        currentIndex = transfer->index;
        run->readyRead(*transfer);
    }
}

void CDownloadFileMan::HttpDownloadFinished()
{
    PictureRun* run = pictureRun();
    if (PictureTransfer* transfer = run->fromReply(sender())) {
        currentIndex = transfer->index;
        run->finished(*transfer);
    }
}

void CDownloadFileMan::DownloadOneFileFinish()
{
    PictureRun* run = pictureRun();
    run->finish(currentIndex, run->find(currentIndex));
}

void CDownloadFileMan::DownloadDone()
{
    PictureRun* run = pictureRun();
    run->dropAll();
    run->network = nullptr;
    for (QNetworkAccessManager* lane : run->lanes)
        if (lane != networkManager)
            delete lane;
    run->lanes.clear();
    delete networkManager;
    networkManager = nullptr;
    runPictureDirectory.clear();
    runFolderIndex.clear();
    runFolderIndexed = false;
    currentIndex = fileList.size();
    firstRun = false;
    if (debug)
        qCDebug(kelo_log::catalogue, "Download complete");
    emit NotifyComplete(Libcmn::updateDataFoods(data, *this));
}

// ---- settings, kept beside the manager ------------------------------------------------------

void CDownloadFileMan::setMaxFileSize(qint64 bytes)
{
    pictureRun()->capBytes = bytes > 0 ? bytes : qint64(0);
}

qint64 CDownloadFileMan::maxFileSize() const
{
    return const_cast<CDownloadFileMan*>(this)->pictureRun()->capBytes;
}

void CDownloadFileMan::setPictureDeadline(int ms)
{
    pictureRun()->deadlineMs = ms > 0 ? ms : 0;
}

int CDownloadFileMan::pictureDeadline() const
{
    return const_cast<CDownloadFileMan*>(this)->pictureRun()->deadlineMs;
}

void CDownloadFileMan::setMaxPicturesInFlight(int count)
{
    pictureRun()->maxInFlight = qBound(1, count, kelo_limits::MaxPicturesInFlight);
}

int CDownloadFileMan::maxPicturesInFlight() const
{
    return const_cast<CDownloadFileMan*>(this)->pictureRun()->maxInFlight;
}

void CDownloadFileMan::setNetworkAccessManager(QNetworkAccessManager* manager)
{
    PictureRun* run = pictureRun();
    run->sharedSet = manager != nullptr;
    run->sharedNetwork = manager;
}

QNetworkAccessManager* CDownloadFileMan::networkAccessManager() const
{
    return const_cast<CDownloadFileMan*>(this)->pictureRun()->sharedNetwork;
}

void CDownloadFileMan::setHttp2Allowed(bool allowed)
{
    pictureRun()->http2 = allowed;
}

bool CDownloadFileMan::http2Allowed() const
{
    return const_cast<CDownloadFileMan*>(this)->pictureRun()->http2;
}

CDownloadFileMan::PictureRun* CDownloadFileMan::pictureRun()
{
    // Found among the children by its type: the manager's layout has no room for a pointer.
    for (QObject* child : children())
        if (auto* run = dynamic_cast<PictureRun*>(child))
            return run;
    return new PictureRun(this);
}

void CDownloadFileMan::givePictureUp(const char* why)
{
    PictureRun* run = pictureRun();
    if (PictureTransfer* transfer = run->find(currentIndex))
        run->giveUp(*transfer, why);
}

void CDownloadFileMan::stampCachedFile(const QString& path, unsigned long long stampMs)
{
    // A picture that is not open any more (the entry was ended from outside a download): opened
    // again without following a link, and stamped through that descriptor.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return;
    QFile file;
    if (file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle))
        kelo_picture::stampOpenFile(file, stampMs);
    else
        ::close(fd);
}

tagDownFileInfo* CDownloadFileMan::currentRecord()
{
    if (currentIndex < 0 || currentIndex >= fileList.size())
        return nullptr;
    return &fileList[currentIndex];
}

void CDownloadFileMan::releaseOutputFile(bool keep)
{
    PictureRun* run = pictureRun();
    if (PictureTransfer* transfer = run->find(currentIndex))
        run->releaseFile(*transfer, keep);
}

void CDownloadFileMan::logImage(const tagDownFileInfo& info, const char* what) const
{
    if (debug)
        qCDebug(kelo_log::catalogue, "%s",
                qUtf8Printable(QLatin1String("=== Image ") + info.localPath + QLatin1String(what)));
}

QString CDownloadFileMan::pictureDirectory()
{
    const QStringList locations = QStandardPaths::standardLocations(kelo_compat::AppDataLocation);
    if (!locations.isEmpty())
        return QDir(locations.first()).absolutePath();
    // No data location on this system (an unusual platform set-up). The pictures are only a
    // cache, so they go to the cache location, or as a last resort below the user's home.
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
    return QDir(cache.isEmpty() ? QDir::homePath() + QLatin1String("/.kelo") : cache)
        .absolutePath();
}

QString CDownloadFileMan::currentPictureDirectory() const
{
    return runPictureDirectory.isEmpty() ? pictureDirectory() : runPictureDirectory;
}

void CDownloadFileMan::keepParsedReply(const QString& text, const QJsonObject& reply)
{
    parsedText = text;
    parsedReply = reply;
}

QJsonObject CDownloadFileMan::takeParsedReply(const QString& text)
{
    const QString keptText = std::exchange(parsedText, QString());
    QJsonObject kept = std::exchange(parsedReply, QJsonObject());
    if (!keptText.isNull() && keptText == text)
        return kept;
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

bool CDownloadFileMan::isCacheFilePath(const QString& localPath) const
{
    // A text check on purpose: resolving the path (QFileInfo, QDir::cleanPath) would fold away
    // "x/../" parts that the file system itself would follow.
    const QString images = currentPictureDirectory() + QLatin1String("/images/");
    return localPath.startsWith(images) && isPlainFileName(localPath.mid(images.size()));
}

bool CDownloadFileMan::isInsideCacheFolder(const QString& localPath) const
{
    if (!isCacheFilePath(localPath))
        return false;
    const QString base = currentPictureDirectory();
    const QString images = QFileInfo(base + QLatin1String("/images")).canonicalFilePath();
    return !images.isEmpty() && QFileInfo(images).isDir() &&
           images == QFileInfo(base).canonicalFilePath() + QLatin1String("/images");
}
