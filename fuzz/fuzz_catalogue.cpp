// Menu replies of any shape through the catalogue functions, with the downloads skipped (each
// record is marked fetched or failed by the input itself). No crash, and no cache path may
// leave the picture directory, whatever "img_host", "img_path" and "item_id" hold.
#include "cdownloadfileman.h"
#include "libcmn.h"

#include <QCoreApplication>
#include <QDir>
#include <QStandardPaths>

#include <cstdint>
#include <cstdlib>

namespace {

QString pictureDirectory()
{
    const QStringList locations = QStandardPaths::standardLocations(QStandardPaths::DataLocation);
    return QDir::cleanPath(QDir(locations.value(0)).absolutePath() + QStringLiteral("/images"));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static int argc = 1;
    static char name[] = "fuzz_catalogue";
    static char* argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    static const QString pictures = pictureDirectory() + QLatin1Char('/');

    const QString reply = QString::fromUtf8(reinterpret_cast<const char*>(data), int(size));
    CDownloadFileMan manager(false, nullptr);
    unsigned long long lastUpdate = 0;
    Libcmn::parseDataFoods(reply, manager, lastUpdate);
    int i = 0;
    for (tagDownFileInfo& record : manager.GetListFile()) {
        if (!QDir::cleanPath(record.localPath).startsWith(pictures))
            abort();
        record.fileReady = size > 0 && (data[i++ % size] & 1);
    }
    manager.SetData(reply);
    Libcmn::updateDataFoods(reply, manager);
    return 0;
}
