#include "cdownloadfileman.h"

#include "libcmn.h"

// Placeholder bodies: the catalogue work replaces them.
CDownloadFileMan::CDownloadFileMan(bool debug, QObject* parent) : QObject(parent), debug(debug) {}
CDownloadFileMan::~CDownloadFileMan() = default;
void CDownloadFileMan::AddDownLoadFile(const tagDownFileInfo& info) { fileList.append(info); }
QList<tagDownFileInfo>& CDownloadFileMan::GetListFile() { return fileList; }
void CDownloadFileMan::SetData(const QString& text) { data = text; }
QString CDownloadFileMan::GetData() const { return data; }
bool CDownloadFileMan::IsRunFirstTime() const { return firstRun; }
void CDownloadFileMan::Reset() { fileList.clear(); currentIndex = 0; }
void CDownloadFileMan::StartDownload() { DownloadDone(); }
bool CDownloadFileMan::IsFileCached() { return false; }
void CDownloadFileMan::DeleteOldFiles() {}
void CDownloadFileMan::DownloadOneFileFinish() {}
void CDownloadFileMan::HttpReadyRead() {}
void CDownloadFileMan::HttpDownloadFinished() {}
void CDownloadFileMan::DownloadNextFile() {}
void CDownloadFileMan::DownloadDone()
{
    firstRun = false;
    emit NotifyComplete(Libcmn::updateDataFoods(data, *this));
}
