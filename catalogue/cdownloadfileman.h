#pragma once

/// @file
/// CDownloadFileMan, which fills the picture cache, and tagDownFileInfo, one picture to fetch.

#include "kelo_export.h"

#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

class QDir;
class QFile;
class QNetworkAccessManager;
class QNetworkReply;

/// One dish picture to fetch into the picture cache.
struct tagDownFileInfo
{
    QString url;                  ///< address to fetch; replaced by a redirect target
    QString localPath;            ///< cache file path: `<data>/images/<id><extension>`
    unsigned long long stamp = 0; ///< modification time in ms since the epoch; 0 = unknown
    int id = 0;                   ///< dish id ("item_id")
    bool useCache = true;         ///< reported to the host as "img_cache"
    bool fileReady = false;       ///< true once the local file holds the current picture
};

/**
 * @brief Fetches the pictures of one menu into the picture cache, one file at a time or, when
 * asked (setMaxPicturesInFlight()), several at once.
 *
 * A cached file is reused when its modification second equals the catalogue's stamp. When the
 * list is through, the menu is rewritten (Libcmn::updateDataFoods) and NotifyComplete() carries
 * it; NotifyComplete() is emitted once per run, whatever failed on the way. The menu it carries
 * does not depend on how many pictures were in flight nor on the order in which they arrived:
 * pictures of one dish (the same id, or the same "<id>.*" file name) are never fetched at the
 * same time but one after the other, in catalogue order.
 */
class KELO_EXPORT CDownloadFileMan : public QObject
{
    Q_OBJECT
public:
    /// @p debug enables this manager's log lines.
    CDownloadFileMan(bool debug, QObject* parent);
    ~CDownloadFileMan() override;

    /// Appends one picture to the list.
    void AddDownLoadFile(const tagDownFileInfo& info);
    /// The list, by reference.
    QList<tagDownFileInfo>& GetListFile();
    /// Stores the menu reply text that NotifyComplete() will carry, rewritten.
    void SetData(const QString& data);
    /// The stored menu reply text.
    QString GetData() const;
    /// True until the first run has completed.
    bool IsRunFirstTime() const;
    /// Empties the list; the cache bookkeeping of earlier runs is kept.
    void Reset();
    /// Starts the sequential download of the list.
    void StartDownload();
    /// Whether the current entry's file exists with the right modification second.
    bool IsFileCached();
    /// Deletes the current dish's pictures under any extension.
    void DeleteOldFiles();
    /// Ends the current entry (stamp, bookkeeping) and moves to the next.
    void DownloadOneFileFinish();
    /// Caps each picture: a longer one is given up like a failed download. 0 or less removes
    /// the cap; the default is 8 MiB.
    void setMaxFileSize(qint64 bytes);
    /// The cap on each picture; 0 means none.
    qint64 maxFileSize() const;
    /// Gives up a picture that has not arrived whole, redirects included, after @p ms; it then
    /// ends like a failed download. 0 or less removes the deadline; the default is 120 s.
    void setPictureDeadline(int ms);
    /// The deadline for each picture in ms; 0 means none.
    int pictureDeadline() const;
    /// How many pictures may be in flight at once, from the next picture started on. The
    /// default, 1, fetches them strictly one after the other in catalogue order. Values below 1
    /// count as 1, values above 64 as 64. Each picture in flight has a network manager of the
    /// run's own (one connection); through a shared manager (setNetworkAccessManager()) at most
    /// 6 go to one server at once unless it has answered over HTTP/2.
    void setMaxPicturesInFlight(int count);
    /// How many pictures may be in flight at once.
    int maxPicturesInFlight() const;
    /**
     * Fetches the pictures through @p manager instead of the managers of its own made for each
     * run (one per picture in flight); nullptr goes back to those. Qt queues requests beyond its
     * connections to a server and fails the whole queue when one of them breaks, so through a
     * shared manager a picture cut short can, rarely, fail another that was waiting right then.
     * Takes effect at the next StartDownload(). @p manager is not owned and may be deleted at any
     * time: the pictures in flight then fail (placeholder, no file left), and so does every picture
     * still to fetch, in that run and in runs started before another manager (or nullptr) is set.
     * Redirects are still followed by this object (each request asks for manual redirects),
     * whatever the manager's own redirect policy is.
     */
    void setNetworkAccessManager(QNetworkAccessManager* manager);
    /// The manager set with setNetworkAccessManager(), or nullptr (also once it is gone).
    QNetworkAccessManager* networkAccessManager() const;
    /// Lets the pictures' requests use HTTP/2 where the server offers it (over TLS), with
    /// receive windows large enough for several pictures at once; off by default (HTTP/1.1).
    void setHttp2Allowed(bool allowed);
    /// Whether the pictures' requests may use HTTP/2.
    bool http2Allowed() const;

Q_SIGNALS:
    /// Queued step to the next entry.
    void NotifyDownloadNextFile();
    /// Queued step to the end of the run.
    void NotifyDownloadDone();
    /// The run ended; @p data is the rewritten menu.
    void NotifyComplete(const QString& data);

public Q_SLOTS:
    /// A picture's reply (the sender) has bytes to read: they go into its file. A sender that is
    /// not a reply of the run does nothing.
    void HttpReadyRead();
    /// A picture's reply (the sender) finished: the picture is kept and stamped, its redirect
    /// followed, or it is given up (placeholder); then the next picture starts. A sender that is
    /// not a reply of the run does nothing.
    void HttpDownloadFinished();
    /// Starts the next pictures of the list, as many as maxPicturesInFlight() allows; once the
    /// list is through, ends the run (DownloadDone()). Outside a run it does nothing.
    void DownloadNextFile();
    /// Ends the run: drops what is still in flight, releases the run's network managers and
    /// emits NotifyComplete() with the rewritten menu.
    void DownloadDone();

private:
    QList<tagDownFileInfo> fileList;
    QList<int> cachedIds;
    QList<int> modifiedIds;
    /// The entry being worked on (the public steps act on it); the list's size after a run.
    int currentIndex = 0;
    /// Unused since each picture in flight has its own file and reply (PictureRun); kept, null,
    /// for the layout.
    QFile* outputFile = nullptr;
    QNetworkReply* reply = nullptr;
    /// The run's own manager (none when a shared one is set), from StartDownload to DownloadDone.
    QNetworkAccessManager* networkManager = nullptr;
    QString data;
    bool firstRun = true;
    bool debug;

    /// Unused (each picture in flight has its own flag); kept for the layout.
    bool outputFailed = false;

    /// The picture directory, looked up once per run (empty outside a run).
    QString runPictureDirectory;
    /// During a run: the regular files of the images folder by dish (the part of the name before
    /// its first ".", case-folded), listed once and kept up to date with the files the run
    /// creates, so that finding a dish's old pictures does not list the folder for every dish.
    QHash<QString, QStringList> runFolderIndex;
    bool runFolderIndexed = false;

    /// The reply that parseDataFoods() parsed, and its text: updateDataFoods() on the same text
    /// reuses it instead of parsing the whole menu a second time.
    QString parsedText;
    QJsonObject parsedReply;

    /// The record at the current index, or null when the index is outside the list.
    tagDownFileInfo* currentRecord();
    /// Ends the current download: closes the output file and, unless @p keep, removes it.
    void releaseOutputFile(bool keep);
    void logImage(const tagDownFileInfo& info, const char* what) const;
    /// The names in @p dir of the regular files "<baseName>.*".
    QStringList oldFileNames(const QDir& dir, const QString& baseName);
    /// Records a file that this run created in the images folder.
    void indexCreatedFile(const QString& localPath);

    /// Keeps the parsed reply for updateDataFoods() (parseDataFoods() calls it).
    void keepParsedReply(const QString& text, const QJsonObject& reply);
    /// The kept parse of @p text, or a fresh one; the kept one is released either way.
    QJsonObject takeParsedReply(const QString& text);

    /// The directory that holds the picture cache's "images" folder.
    static QString pictureDirectory();
    /// pictureDirectory(), as looked up at the start of the current run.
    QString currentPictureDirectory() const;
    /// Whether @p localPath names a plain file directly inside `<picture directory>/images`.
    bool isCacheFilePath(const QString& localPath) const;
    /// isCacheFilePath(), plus: the existing images folder resolves to itself (no symlink out).
    bool isInsideCacheFolder(const QString& localPath) const;

    /// The state of a run and of each picture in flight (redirects, bytes, deadline, file,
    /// reply), and this object's settings, in a child object.
    class PictureRun;
    PictureRun* pictureRun();
    /// Ends the answer in flight as a failed download (too large, or out of time); @p why goes
    /// to the debug log.
    void givePictureUp(const char* why);
    /// Stamps the closed cache file @p path through a descriptor that does not follow links.
    static void stampCachedFile(const QString& path, unsigned long long stampMs);

    /// Libcmn's catalogue functions name the cache files from the same picture directory.
    friend class Libcmn;
};
