#pragma once

// Private to the library: every cap and deadline that protects a terminal from a misbehaving
// network or server, in one place. The integration guide's "Limits and failure modes" table
// lists each with its default and how to change it; keep the two in step.

#include <QNetworkReply>
#include <QtGlobal>

namespace kelo_limits {

// ---- sizes ----------------------------------------------------------------------------------

/// An API answer longer than this is aborted (Kelosdk::setMaxReplySize, HttpBase::setMaxReplySize).
constexpr qint64 DefaultMaxReplyBytes = 8 * 1024 * 1024;
/// A picture longer than this is given up (Kelosdk::setMaxPictureSize).
constexpr qint64 DefaultMaxPictureBytes = 8 * 1024 * 1024;
/// A notification message (counted in UTF-8 bytes), and each of its frames, longer than this
/// closes the socket and is never handed on (Kelosdk::setMaxNotificationSize).
constexpr qint64 DefaultMaxNotificationBytes = 1024 * 1024;

// ---- deadlines ------------------------------------------------------------------------------

/// A notification session fetch without an answer is abandoned after this long.
constexpr int SessionFetchDeadlineMs = 15000;
/// A WebSocket opening handshake that has not completed is abandoned after this long.
constexpr int HandshakeDeadlineMs = 15000;
/// A picture transfer that moves no byte for this long is given up.
constexpr int PictureIdleTimeoutMs = 30000;
/// A picture, redirects included, that has not arrived whole after this long is given up.
constexpr int PictureDeadlineMs = 120000;

// ---- redirects ------------------------------------------------------------------------------

/// Redirects followed for one picture; the next one fails the picture.
constexpr int MaxPictureRedirects = 5;

// ---- error codes of networkError() that the library itself raises ----------------------------

/// An API answer was a redirect (3xx): a captive portal, never the cloud's answer.
constexpr int RedirectRefusedError = QNetworkReply::TooManyRedirectsError; // 10
/// An API answer was longer than the reply cap and was aborted.
constexpr int ReplyTooLargeError = QNetworkReply::UnknownContentError; // 299

} // namespace kelo_limits
