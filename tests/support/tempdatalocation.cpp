#include "tempdatalocation.h"

#include <QStandardPaths>

TempDataLocation::TempDataLocation()
{
    qputenv("XDG_DATA_HOME", (dir.path() + "/home/share").toUtf8());
    imagesPath = QStandardPaths::standardLocations(QStandardPaths::AppLocalDataLocation).value(0) +
                 "/images";
}

bool TempDataLocation::isValid() const
{
    return dir.isValid() && imagesPath.startsWith(dir.path() + "/home/share/");
}
