#pragma once

#include <QString>
#include <QTemporaryDir>

/// XDG_DATA_HOME at <root>/home/share for one test: the picture folder lies deep enough that a
/// name climbing out of it still lands inside root.
class TempDataLocation
{
public:
    TempDataLocation();
    /// The folder exists and the application's data location lies inside it.
    bool isValid() const;
    QString root() const { return dir.path(); }
    QString images() const { return imagesPath; } ///< <data location>/images

private:
    QTemporaryDir dir;
    QString imagesPath;
};
