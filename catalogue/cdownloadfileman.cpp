#include "cdownloadfileman.h"

#include "kelolimits_p.h"
#include "libcmn.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QStandardPaths>
#include <QUrl>

#include <limits>
#include <utility>

#include <utime.h>

namespace {

// A picture transfer that moves no byte for this long is given up and ends like any failed
// download (placeholder picture). Without it one stalled request would hold the host's menu
// request busy for good; 30 s is far beyond any picture on a working shop network.
constexpr int PictureTransferTimeoutMs = 30000;

// The longest file name (in bytes) that common file systems accept.
constexpr int MaxFileNameBytes = 255;

// time_t is 32 bits wide on some 32-bit ARM systems: clamp rather than wrap, since a wrapped time
// would stamp a picture decades away. A stamp past the range never matches the file's time again,
// so such a picture is fetched anew on every run instead of being shown stale.
time_t toTimeT(qint64 seconds)
{
    using Limits = std::numeric_limits<time_t>;
    if (seconds > static_cast<qint64>(Limits::max()))
        return Limits::max();
    if (seconds < static_cast<qint64>(Limits::min()))
        return Limits::min();
    return static_cast<time_t>(seconds);
}

// Access time = the file's last-read time, modification time = the catalogue's stamp in seconds.
void stampFile(const QString& path, unsigned long long stampMs)
{
    const QDateTime lastRead = QFileInfo(path).lastRead();
    struct utimbuf times;
    times.actime = toTimeT(lastRead.isValid() ? lastRead.toSecsSinceEpoch()
                                              : QDateTime::currentSecsSinceEpoch());
    times.modtime = toTimeT(static_cast<qint64>(stampMs / 1000));
    ::utime(QFile::encodeName(path).constData(), &times);
}

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

} // namespace

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
    currentIndex = 0;
    runPictureDirectory = pictureDirectory();
    runFolderIndex.clear();
    runFolderIndexed = false;
    networkManager = new QNetworkAccessManager(this);
    DownloadNextFile();
}

bool CDownloadFileMan::IsFileCached()
{
    const tagDownFileInfo* info = currentRecord();
    if (!info || !isCacheFilePath(info->localPath))
        return false;
    const QFileInfo file(info->localPath);
    if (!file.isFile())
        return false;
    const qint64 fileMs = file.lastModified().toMSecsSinceEpoch();
    if (fileMs >= 0 && info->stamp / 1000 == static_cast<unsigned long long>(fileMs / 1000))
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
        if (!cachedIds.contains(info.id))
            cachedIds.append(info.id);
        info.useCache = !modifiedIds.contains(info.id);
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
        QNetworkRequest request(url);
        request.setTransferTimeout(PictureTransferTimeoutMs);
        reply = networkManager->get(request);
    }
    if (!reply) {
        releaseOutputFile(false);
        DownloadOneFileFinish();
        return;
    }
    connect(reply, SIGNAL(readyRead()), this, SLOT(HttpReadyRead()));
    connect(reply, SIGNAL(finished()), this, SLOT(HttpDownloadFinished()));
}

void CDownloadFileMan::HttpReadyRead()
{
    if (!reply || !outputFile)
        return;
    const QByteArray chunk = reply->readAll();
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
    const bool redirected = target.isValid();
    // A picture cut short or not fully written counts as a failed download.
    const bool failed = reply->error() != QNetworkReply::NoError || outputFailed || !outputFile;
    tagDownFileInfo* info = currentRecord();
    bool keep = false;
    if (failed) {
        if (info)
            info->fileReady = false;
    } else if (redirected) {
        // The target is taken as it stands, not resolved against the old address.
        if (info)
            info->url = target.toUrl().toString();
    } else if (info) {
        info->fileReady = true;
        keep = true;
    }
    releaseOutputFile(keep);
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
    if (info->fileReady) {
        if (info->stamp != 0 && isCacheFilePath(info->localPath))
            stampFile(info->localPath, info->stamp);
        const bool known = cachedIds.contains(info->id);
        if (!firstRun && known) {
            info->useCache = false;
            logImage(*info, " was modified ==> no use cache");
            if (!modifiedIds.contains(info->id))
                modifiedIds.append(info->id);
        } else {
            info->useCache = true;
            if (!known)
                cachedIds.append(info->id);
            logImage(*info,
                     firstRun ? " is added first ==> use cache" : " is added new ==> use cache");
        }
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
    delete networkManager;
    networkManager = nullptr;
    runPictureDirectory.clear();
    runFolderIndex.clear();
    runFolderIndexed = false;
    firstRun = false;
    if (debug)
        qDebug("Download complete");
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
        qDebug("%s",
               qUtf8Printable(QLatin1String("=== Image ") + info.localPath + QLatin1String(what)));
}

QString CDownloadFileMan::pictureDirectory()
{
    const QStringList locations = QStandardPaths::standardLocations(QStandardPaths::DataLocation);
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
