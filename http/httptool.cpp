#include "httptool.h"

// Placeholder bodies: the protocol work replaces them.
QString HttpTool::createMd5(const QString&) { return {}; }
QVariant HttpTool::byteArrayToVariant(const QByteArray&) { return QString(); }
QVariant json::byteArrayToVariant(const QByteArray&) { return QString(); }
