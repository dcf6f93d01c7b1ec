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
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QStandardPaths>
#include <QTimer>
#include <QUrl>

#include <utility>

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

} // namespace

// The state of the picture being fetched, kept beside the manager (whose layout is fixed): its
// redirects so far, whether plain http is allowed for it, its bytes and its deadline; and the
// indexes of the manager's id lists, which live as long as the manager.
class CDownloadFileMan::PictureRun : public QObject
{
public:
    explicit PictureRun(CDownloadFileMan* manager) : QObject(manager)
    {
        deadline.setSingleShot(true);
        connect(&deadline, &QTimer::timeout, manager,
                [manager] { manager->givePictureUp(" took longer than its deadline"); });
    }
    int index = -1;                   ///< the entry this state belongs to; -1: none
    int redirects = 0;                ///< redirects followed for it
    bool plainHttpAllowed = false;    ///< the catalogue's own address for it is plain http
    qint64 received = 0;              ///< bytes of the current answer so far
    QElapsedTimer started;            ///< since the entry's first request
    QTimer deadline;                  ///< gives up the entry, redirects included
    kelo_catalogue::IdIndex cached;   ///< index of the manager's cachedIds
    kelo_catalogue::IdIndex modified; ///< index of the manager's modifiedIds

    /// Starts the state of entry @p entry, whose catalogue address is @p url.
    void begin(int entry, const QString& url, int deadlineMs)
    {
        index = entry;
        redirects = 0;
        plainHttpAllowed = QUrl(url).scheme() == QLatin1String("http");
        started.start();
        if (deadlineMs > 0)
            deadline.start(deadlineMs);
        else
            deadline.stop();
    }
    void end()
    {
        index = -1;
        deadline.stop();
    }
    bool expired(int deadlineMs) const { return deadlineMs > 0 && started.hasExpired(deadlineMs); }
};

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
    // drops its download unheard and leaves no half-written picture behind; the network manager
    // goes with the children.
    if (reply) {
        reply->disconnect(this);
        delete reply;
    }
    releaseOutputFile(false);
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
    // A second start during a run would interleave two runs over one list and one output file;
    // the run under way carries on and reports as usual.
    if (networkManager)
        return;
    pictureRun()->end();
    currentIndex = 0;
    runPictureDirectory = pictureDirectory();
    runFolderIndex.clear();
    runFolderIndexed = false;
    networkManager = new QNetworkAccessManager(this);
    kelo_compat::manualRedirects(*networkManager);
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
    if (currentIndex >= fileList.size()) {
        emit NotifyDownloadDone();
        return;
    }
    releaseOutputFile(false);
    if (reply) {
        reply->disconnect(this);
        delete reply;
        reply = nullptr;
    }

    tagDownFileInfo& info = fileList[currentIndex];
    // Back here after a redirect: the same entry, unless its whole time is up.
    PictureRun* run = pictureRun();
    if (run->index == currentIndex && run->expired(pictureDeadline())) {
        info.fileReady = false;
        DownloadOneFileFinish();
        return;
    }
    // The file name comes from the server's "img_host", "img_path" and "item_id". Anything that
    // would not land as a plain file directly in the cache folder fails here, before any file
    // system call, and the dish shows the placeholder.
    if (!isCacheFilePath(info.localPath)) {
        info.fileReady = false;
        DownloadOneFileFinish();
        return;
    }

    if (IsFileCached()) {
        info.fileReady = true;
        if (!run->cached.contains(cachedIds, info.id))
            run->cached.append(cachedIds, info.id);
        info.useCache = !run->modified.contains(modifiedIds, info.id);
        ++currentIndex;
        emit NotifyDownloadNextFile();
        return;
    }

    DeleteOldFiles();
    info.fileReady = false;
    if (!QDir().mkpath(QFileInfo(info.localPath).absolutePath()) ||
        !isInsideCacheFolder(info.localPath)) {
        DownloadOneFileFinish();
        return;
    }
    // A link left at this name (the listing above skips dangling ones) is removed, never followed;
    // NewOnly then creates the file afresh (O_EXCL), so nothing outside can be written through it.
    if (QFileInfo(info.localPath).isSymLink())
        QFile::remove(info.localPath);
    outputFile = new QFile(info.localPath);
    if (!outputFile->open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
        delete outputFile;
        outputFile = nullptr;
        DownloadOneFileFinish();
        return;
    }
    indexCreatedFile(info.localPath);
    outputFailed = false;

    // Pictures come from a web server; a "file:", "qrc:" or "data:" address from the catalogue
    // would copy local data into the cache, so it fails like a request that could not be made.
    const QUrl url(info.url);
    if (networkManager && isWebUrl(url)) {
        if (run->index != currentIndex)
            run->begin(currentIndex, info.url, pictureDeadline());
        run->received = 0;
        QNetworkRequest request(url);
        request.setTransferTimeout(kelo_limits::PictureIdleTimeoutMs);
        kelo_compat::http1Only(request);
        reply = networkManager->get(request);
    }
    if (!reply) {
        releaseOutputFile(false);
        DownloadOneFileFinish();
        return;
    }
    // An announced length over the cap ends the picture before any byte of it is written.
    connect(reply, &QNetworkReply::metaDataChanged, this, [this] { HttpReadyRead(); });
    connect(reply, SIGNAL(readyRead()), this, SLOT(HttpReadyRead()));
    connect(reply, SIGNAL(finished()), this, SLOT(HttpDownloadFinished()));
}

void CDownloadFileMan::HttpReadyRead()
{
    // outputFailed: the answer was given up, or a write failed; the rest of it is not written.
    if (!reply || !outputFile || outputFailed)
        return;
    PictureRun* run = pictureRun();
    const qint64 cap = maxFileSize();
    if (cap > 0) {
        // Announced, or counted as it comes (a chunked answer announces nothing).
        bool known = false;
        const qint64 announced = reply->rawHeader("Content-Length").trimmed().toLongLong(&known);
        if (known && announced > cap) {
            givePictureUp(" announces more bytes than the cap");
            return;
        }
        if (run->received + reply->bytesAvailable() > cap) {
            givePictureUp(" is longer than the cap");
            return;
        }
    }
    const QByteArray chunk = reply->readAll();
    run->received += chunk.size();
    if (outputFile->write(chunk) != chunk.size())
        outputFailed = true;
}

void CDownloadFileMan::HttpDownloadFinished()
{
    if (!reply)
        return;
    HttpReadyRead();
    if (outputFile && !outputFile->flush())
        outputFailed = true;

    const QVariant target = reply->attribute(QNetworkRequest::RedirectionTargetAttribute);
    bool redirected = target.isValid();
    // A picture cut short, given up or not fully written counts as a failed download.
    bool failed = reply->error() != QNetworkReply::NoError || outputFailed || !outputFile;
    tagDownFileInfo* info = currentRecord();
    PictureRun* run = pictureRun();
    if (!failed && redirected) {
        // A bounded number of hops, never from https down to plain http.
        const QUrl to = target.toUrl();
        if (++run->redirects > kelo_limits::MaxPictureRedirects) {
            failed = true;
            if (info)
                logImage(*info, " was redirected too often ==> given up");
        } else if (!isAllowedRedirect(to, run->plainHttpAllowed)) {
            failed = true;
            if (info)
                logImage(*info, " was redirected to a less safe address ==> given up");
        } else if (info) {
            // The target is taken as it stands, not resolved against the old address.
            info->url = to.toString();
        }
    }
    redirected = redirected && !failed;
    // The picture stays open until it is stamped (DownloadOneFileFinish).
    const bool ready = !failed && !redirected && info;
    if (info)
        info->fileReady = ready;
    if (!ready)
        releaseOutputFile(false);
    reply->deleteLater();
    reply = nullptr;

    // The same entry is fetched again from its new address, with the index unchanged.
    if (redirected)
        emit NotifyDownloadNextFile();
    else
        DownloadOneFileFinish();
}

void CDownloadFileMan::DownloadOneFileFinish()
{
    tagDownFileInfo* info = currentRecord();
    if (!info)
        return;
    PictureRun* run = pictureRun();
    run->end();
    if (info->fileReady) {
        // The stamp is the last thing done to the file before it is closed, through the open
        // file: nothing put at its name meanwhile can be stamped in its place.
        if (outputFile) {
            if (info->stamp != 0)
                kelo_picture::stampOpenFile(*outputFile, info->stamp);
            releaseOutputFile(true);
        } else if (info->stamp != 0 && isCacheFilePath(info->localPath)) {
            stampCachedFile(info->localPath, info->stamp);
        }
        const bool known = run->cached.contains(cachedIds, info->id);
        if (!firstRun && known) {
            info->useCache = false;
            logImage(*info, " was modified ==> no use cache");
            if (!run->modified.contains(modifiedIds, info->id))
                run->modified.append(modifiedIds, info->id);
        } else {
            info->useCache = true;
            if (!known)
                run->cached.append(cachedIds, info->id);
            logImage(*info,
                     firstRun ? " is added first ==> use cache" : " is added new ==> use cache");
        }
    } else {
        releaseOutputFile(false);
    }
    ++currentIndex;
    if (currentIndex < fileList.size())
        emit NotifyDownloadNextFile();
    else
        emit NotifyDownloadDone();
}

void CDownloadFileMan::DownloadDone()
{
    if (reply) {
        reply->disconnect(this);
        delete reply;
        reply = nullptr;
    }
    releaseOutputFile(false);
    pictureRun()->end();
    delete networkManager;
    networkManager = nullptr;
    runPictureDirectory.clear();
    runFolderIndex.clear();
    runFolderIndexed = false;
    firstRun = false;
    if (debug)
        qCDebug(kelo_log::catalogue, "Download complete");
    emit NotifyComplete(Libcmn::updateDataFoods(data, *this));
}

// Kept as a property, so that the class keeps the size and layout of 1.0.
static constexpr char MaxFileSizeProperty[] = "_kelo_maxFileBytes";

void CDownloadFileMan::setMaxFileSize(qint64 bytes)
{
    setProperty(MaxFileSizeProperty, bytes > 0 ? bytes : qint64(0));
}

qint64 CDownloadFileMan::maxFileSize() const
{
    const QVariant set = property(MaxFileSizeProperty);
    return set.isValid() ? set.toLongLong() : kelo_limits::DefaultMaxPictureBytes;
}

// Kept as a property, like the cap.
static constexpr char PictureDeadlineProperty[] = "_kelo_pictureDeadlineMs";

void CDownloadFileMan::setPictureDeadline(int ms)
{
    setProperty(PictureDeadlineProperty, ms > 0 ? ms : 0);
}

int CDownloadFileMan::pictureDeadline() const
{
    const QVariant set = property(PictureDeadlineProperty);
    return set.isValid() ? set.toInt() : kelo_limits::PictureDeadlineMs;
}

CDownloadFileMan::PictureRun* CDownloadFileMan::pictureRun()
{
    static constexpr char RunProperty[] = "_kelo_pictureRun";
    auto* run = static_cast<PictureRun*>(property(RunProperty).value<QObject*>());
    if (!run) {
        run = new PictureRun(this);
        setProperty(RunProperty, QVariant::fromValue<QObject*>(run));
    }
    return run;
}

void CDownloadFileMan::givePictureUp(const char* why)
{
    // The answer in flight, if any, ends as failed: the partial file goes, the placeholder shows.
    if (!reply)
        return;
    if (const tagDownFileInfo* info = currentRecord())
        logImage(*info, (QByteArray(why) + " ==> given up").constData());
    outputFailed = true;
    reply->abort();
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
    if (!outputFile)
        return;
    outputFile->close();
    if (!keep)
        outputFile->remove();
    delete outputFile;
    outputFile = nullptr;
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
