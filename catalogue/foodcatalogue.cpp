// Libcmn's menu catalogue functions, kept beside the download manager they feed.
#include "cdownloadfileman.h"
#include "libcmn.h"

// Placeholder bodies: the catalogue work replaces them.
void Libcmn::parseDataFoods(const QString&, CDownloadFileMan& manager, unsigned long long& lastUpdate)
{
    manager.Reset();
    lastUpdate = 0;
}
QString Libcmn::updateDataFoods(const QString& data, CDownloadFileMan&) { return data; }
