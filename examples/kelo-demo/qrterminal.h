#pragma once

#include <QString>

/// Renders @p payload as a QR code with Unicode half blocks, two modules per character row.
/// Returns an empty text if the payload cannot be encoded.
QString renderQrCode(const QByteArray& payload);
