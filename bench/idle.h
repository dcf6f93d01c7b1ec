// The idle child (--idle-sdk): the SDK alone, idling against kelo-cloud run as another process.
#pragma once

#include <QString>

namespace kelobench {

int idleChild(int seconds, QString cloudExe);

} // namespace kelobench
