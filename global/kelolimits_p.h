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

/// A request (every API request object, the notification session fetch) that moves no byte
/// either way for this long is given up with NoAnswerError (Kelosdk::setRequestIdleTimeout,
/// HttpBase::setIdleTimeout; 0: never). On a link gone silent TCP would retry for minutes; an
/// answer from a healthy server starts well within a second, a slow one within a few, so 20 s is
/// a dead link, not a slow server, and it still ends a request sent into an outage <= 25 s after
/// it was sent.
constexpr int DefaultRequestIdleTimeoutMs = 20000;
/// A notification session fetch without an answer is given up after this long (and fetched anew
/// by the watchdog's next round), so that while the channel is down a fetch is tried again every
/// few seconds and TCP's back-off (SYN sent again after 1, 3, 7, 15 s) never decides how long the
/// channel stays down once the link is back. A fetch is a TCP connect, a TLS handshake and one
/// exchange: 4 round trips, 0.6 s on 4G (150 ms), plus 1 s for a lost SYN and 1 s for a lost
/// segment of the TLS handshake: 2.6 s in a bad case; 4 s leaves room for that.
constexpr int SessionFetchDeadlineMs = 4000;
/// A WebSocket opening handshake that has not completed is given up after this long: a TCP
/// connect, a TLS handshake and the upgrade, the same 4 round trips as a session fetch; until then
/// the watchdog starts no new session (which would restart the handshake).
constexpr int HandshakeDeadlineMs = 5000;
/// The invoice "create" goes on a fresh connection; one that is not up (TCP connect and TLS
/// handshake: 3 round trips, 0.45 s on 4G, plus 1 s for a lost SYN and 1 s for a lost segment of
/// the handshake) after this long is given up and a new one opened: nothing of the request has
/// left yet. Once the link is back after an outage the request then goes out within about 2 s,
/// not when TCP's back-off next tries.
constexpr int FreshConnectDeadlineMs = 3000;
/// A picture transfer that moves no byte for this long is given up (as an API request).
constexpr int PictureIdleTimeoutMs = DefaultRequestIdleTimeoutMs;
/// A picture, redirects included, that has not arrived whole after this long is given up.
constexpr int PictureDeadlineMs = 120000;

// ---- the notification channel's keep-alive and watchdog ----------------------------------------

/// A ping is sent on an open channel this often; the server answers each with a pong.
constexpr int KeepAliveIntervalMs = 3000;
/// The channel counts as down (closed, reconnected, the pool's connections dropped) once this many
/// pings in a row went unanswered: 9 to 12 s of silence. One or two lost pongs happen on a lossy
/// Wi-Fi without the link being gone; three do not.
constexpr int MissedPongsBeforeDown = 3;
/// While the channel is down the watchdog starts a session fetch this often (a fetch still busy
/// or a handshake still within its deadline is left to finish): 1 s, so that the channel is back
/// within about a second of the fetch that can succeed.
constexpr int WatchdogPeriodMs = 1000;
/// While a session fetch is busy the watchdog looks again this often.
constexpr int SessionBusyWaitMs = 500;

// ---- pictures in flight ---------------------------------------------------------------------

/// Pictures a Kelosdk menu run fetches at once (Kelosdk::setMaxPicturesInFlight). One at a time
/// costs a full round trip per picture: on a shop's 80 ms Wi-Fi a cold menu of 100 pictures of
/// 30 KB took 12.8 s where the link could carry it in 1.45 s. Measured on the network lab
/// (docs/performance.md, "On a shop's link") through the SDK's picture pool: over HTTP/2 16 in
/// flight took 1.83 s on Wi-Fi against 3.13 s with 6, and 32 gained nothing more; over HTTP/1.1
/// a server gets no more than PictureRequestsPerServer at once whatever this says.
/// A manager used on its own (CDownloadFileMan) keeps 1.
constexpr int DefaultSdkPicturesInFlight = 16;
/// The most pictures one manager lets be in flight (a larger setting counts as this): each holds
/// an open file, a reply and its buffers on a small terminal.
constexpr int MaxPicturesInFlight = 64;
/// Pictures in flight to one server through a shared network manager, unless the server has
/// answered over HTTP/2: the connections Qt opens to one server over HTTP/1.1. A request beyond
/// them would wait in Qt's queue, and when one of those connections breaks (a picture cut short)
/// Qt fails every request in the queue with it, pictures that had nothing to do with it. (A run's
/// own network managers carry one request each, so nothing queues there.)
constexpr int PictureRequestsPerServer = 6;
/// Whether the SDK's menu runs offer HTTP/2 for pictures (CDownloadFileMan::setHttp2Allowed).
/// Offered: a picture host that speaks it (a CDN, nginx) carries every picture on one connection,
/// 1.83 s for 100 pictures of 30 KB on the lab's Wi-Fi against 2.57 s over six HTTP/1.1
/// connections, 8.69 s against 9.21 s on 4G; a host without it answers over HTTP/1.1 as before.
/// The requests are the same either way.
constexpr bool SdkPicturesOverHttp2 = true;
/// HTTP/2 receive windows for pictures (Qt 5.15 grants 64 KiB, which over an 80 ms round trip
/// holds a connection to about 0.8 MB/s): one stream may have 1 MiB unread, the connection 4 MiB
/// (pictures are read as they come, so this is credit, not memory kept).
constexpr unsigned PictureHttp2StreamWindowBytes = 1024 * 1024;
constexpr unsigned PictureHttp2SessionWindowBytes = 4 * 1024 * 1024;

// ---- redirects ------------------------------------------------------------------------------

/// Redirects followed for one picture; the next one fails the picture.
constexpr int MaxPictureRedirects = 5;

// ---- error codes of networkError() that the library itself raises ----------------------------

/// An API answer was a redirect (3xx): a captive portal, never the cloud's answer.
constexpr int RedirectRefusedError = QNetworkReply::TooManyRedirectsError; // 10
/// A request moved no byte for its idle deadline and was given up.
constexpr int NoAnswerError = QNetworkReply::TimeoutError; // 4
/// An API answer was longer than the reply cap and was aborted.
constexpr int ReplyTooLargeError = QNetworkReply::UnknownContentError; // 299

} // namespace kelo_limits
