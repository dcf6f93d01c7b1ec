// --scale: the menu sync and the catalogue rewrite at 100, 1,000 and 10,000 dishes, each size
// in a fresh child process (--scale-size).
#pragma once

#include <QString>

namespace kelobench {

int scaleChild(int dishes);
int scaleParent(const QString& datFile, const QString& jsonFile);

} // namespace kelobench
