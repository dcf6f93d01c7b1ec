#pragma once

/// @file
/// The published reply helpers of the namespaces HttpTool and json.

#include "kelo_export.h"

#include <QByteArray>
#include <QString>
#include <QVariant>

/// Published reply helpers for host applications (the library's own flows do not use them).
namespace HttpTool {

/// MD5 of @p text's UTF-8 bytes (cut at the first NUL) as 32 lower-case hex digits.
KELO_EXPORT QString createMd5(const QString& text);

/**
 * @brief Lenient decoding of a response body; never returns an invalid QVariant.
 *
 * Tries, in order: strict JSON; JSON after a UTF-8 round trip cut at the first NUL; the text
 * without line feeds when it holds no "{"; a loose "key:value" list split at "," and ";".
 */
KELO_EXPORT QVariant byteArrayToVariant(const QByteArray& data);

} // namespace HttpTool

/// The same lenient decoder under its second published name.
namespace json {

/// Identical to HttpTool::byteArrayToVariant().
KELO_EXPORT QVariant byteArrayToVariant(const QByteArray& data);

} // namespace json
