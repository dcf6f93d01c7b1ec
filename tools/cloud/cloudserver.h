#pragma once

#include "cloudstate.h"

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QUrlQuery>

#include <functional>
#include <memory>

namespace kelocloud {

/// One request as the server received it.
struct CloudExchange
{
    QByteArray method;     ///< "GET", "POST", ...
    QByteArray target;     ///< the request target as sent, e.g. "/kelo/api/item/?cm=getlist&dt=..."
    QByteArray path;       ///< the target up to "?", e.g. "/kelo/api/item/"
    QByteArray query;      ///< the raw query after "?", undecoded ("" when there is none)
    bool hasQuery = false; ///< whether the target held a "?" at all
    QByteArray body;       ///< the raw body
    QList<QPair<QByteArray, QByteArray>> headers; ///< as received, in order
    /// The TLS connection it came on (numbered from 1 in the order the server accepted them) and
    /// its place on it (1: the connection's first request; 2 or more: a kept-alive connection
    /// reused). 0 for both before the server numbered it.
    quint64 connection = 0;
    int onConnection = 0;

    /// The value of header @p name (case-insensitive), or an empty array.
    QByteArray header(const QByteArray& name) const;
    bool hasHeader(const QByteArray& name) const;
    /// The form parameters: from the query for GET, from the body for a form POST.
    QUrlQuery params() const;
    /// One form parameter, fully decoded.
    QString param(const QString& key) const;
};

/// A scripted answer that replaces the normal one for the next matching request(s).
struct CloudReply
{
    enum class Fault
    {
        None, ///< answer normally with status, headers and body
        /// close the connection abruptly (TCP reset) before any byte of the answer; note that
        /// QNetworkAccessManager sends the request again up to 3 times on a fresh connection
        /// when that happens, so script it 4 times for such a client to see the failure
        ResetBeforeHeaders,
        ResetMidBody, ///< send the headers and half the body, then close abruptly
        NeverAnswer,  ///< keep the connection open and never answer (until stop/goDown)
        /// the server closing a kept-alive connection as idle at the worst moment: a request that
        /// is not its connection's first is handled (what it asks for is booked, e.g. an
        /// invoice created) but never answered: the connection is closed (TLS close_notify, then
        /// TCP). A connection's first request does not match the script and is answered.
        /// QNetworkAccessManager sends a request lost that way again on a new connection, unless
        /// its body cannot be read again (then it fails with ContentReSendError, 205)
        CloseReused
    };
    int status = 200;
    QByteArray body;
    QList<QPair<QByteArray, QByteArray>> headers; ///< extra headers, e.g. Location for a redirect
    int delayMs = 0;                              ///< wait this long before answering
    Fault fault = Fault::None;
    /// true: give the normal answer (or WebSocket upgrade), only delayMs later; status, body,
    /// headers and fault are then ignored
    bool normalAnswer = false;
    /// true: send the body with chunked transfer encoding (no Content-Length)
    bool chunked = false;
    /// more than 0: instead of body, send this many bytes ('k' repeated), made as they are
    /// written (64 KiB at a time), so that a huge answer costs the server no memory; with
    /// Content-Length unless chunked. The server stops when the client goes away.
    qint64 streamBytes = 0;
};

/// Path prefix of the simulator's control requests: they are never handed to the merchant and
/// never matched by scripted replies, so that a scripted fault cannot lock the control out.
inline constexpr char controlPathPrefix[] = "/_sim/";

/// The answer to one control request, and what the server does once it is sent.
struct ControlReply
{
    CloudReply reply; ///< status, headers and body; faults and delays are not applied
    /// Runs on the server's thread once the answer is sent and its connection closed, e.g. an
    /// outage that must not cut off the answer announcing it. May be empty.
    std::function<void()> afterSent;
};

/// Answers one control request; runs on the server's thread (see CloudServer::setControlHandler).
using ControlHandler = std::function<ControlReply(const CloudExchange&)>;

/// One attempt to open the notification socket.
struct CloudUpgrade
{
    QUrlQuery query; ///< appuser, devid, ws_session, tk
    bool accepted = false;
};

/// Start-up settings.
struct CloudOptions
{
    quint16 port = 0;    ///< 0: a port chosen by the OS
    QString caDir;       ///< where ca.pem and ca.key are written (or reused); empty: a temp dir
    bool reuseCa = true; ///< reuse ca.pem/ca.key found in caDir instead of making new ones
    /// The signing key (32 ASCII letters or digits); empty: the environment variable
    /// KELO_CLOUD_KEY if set, else the development key. A bad key makes start() fail.
    QByteArray secretKey;
    /// The IPv4 address to listen on; empty: 127.0.0.1. The server certificate then names it
    /// too, and the control routes are reachable there.
    QString listenAddress;
    /// The menu's "img_host" (e.g. "https://198.18.0.2:9443" for pictures served elsewhere);
    /// empty: this server, "https://<address>:<port>".
    QString pictureHost;
};

/**
 * The local cloud: HTTPS API, pictures and the notification WebSocket on one TLS port of
 * 127.0.0.1, with a development certificate authority made at start. Runs on its own thread;
 * every public function is thread-safe and may be called from a test's thread.
 */
class CloudServer
{
public:
    explicit CloudServer(const CloudOptions& options = {});
    ~CloudServer();

    /// Makes (or reuses) the CA and the server certificate, binds 127.0.0.1 (or the options'
    /// listenAddress) and starts serving.
    bool start(QString* error = nullptr);
    /// Stops serving and closes every connection.
    void stop();

    quint16 port() const;
    /// "127.0.0.1:<port>" (or the listen address), the value for KELO_SERVER_HOST.
    QString hostPort() const;
    /// Path of the CA certificate (PEM) that clients must trust.
    QString caCertificatePath() const;
    QByteArray caCertificatePem() const;

    /// The simulated merchant (fixture, answers, invoices).
    CloudState& state();

    /// Every request received so far (WebSocket upgrades included), oldest first.
    QList<CloudExchange> exchanges() const;
    /// The requests whose path starts with @p pathPrefix and, if @p cm is not empty, whose "cm"
    /// parameter equals it.
    QList<CloudExchange> exchanges(const QByteArray& pathPrefix, const QString& cm = {}) const;
    void clearExchanges();

    /**
     * The next @p times requests whose path starts with @p pathPrefix (and whose decoded "cm"
     * parameter equals @p cm, if not empty) get @p reply instead of the normal answer. Scripts
     * are tried in the order they were registered. A WebSocket upgrade that matches a script
     * gets the scripted answer instead of the upgrade (recorded as a refused upgrade).
     */
    void scriptReply(const QByteArray& pathPrefix, const QString& cm, const CloudReply& reply,
                     int times = 1);
    void clearScripts();

    /**
     * Requests whose path starts with controlPathPrefix go to @p handler (an empty one: 404).
     * The handler runs on the server's thread and may call this server's public functions. When
     * this returns, no call of the previous handler is still running.
     */
    void setControlHandler(ControlHandler handler);

    /// Serves @p content at @p path (GET), e.g. pictures for menu tests.
    void putFile(const QByteArray& path, const QByteArray& content,
                 const QByteArray& contentType = "image/png");

    /// Notification channel.
    int webSocketCount() const;
    QStringList connectedDevices() const;
    QList<CloudUpgrade> upgrades() const;
    /// Sends a text frame to every socket of device @p devid; false if it has none.
    bool pushText(const QString& devid, const QByteArray& text);
    /// Sends a text frame to every socket of device @p devid; returns how many got it.
    int pushToDevice(const QString& devid, const QByteArray& text);
    /// Sends a text frame to every open socket; returns how many got it.
    int pushAll(const QByteArray& text);
    /// Pings received on notification sockets so far, answered or not.
    int pingCount() const;
    /// false: stop answering pings (the client's keep-alive then fails).
    void setAnswerPings(bool answer);
    /// Closes every WebSocket abruptly; returns how many were open.
    int dropWebSockets();
    /// true: answer every upgrade with 403.
    void setRefuseUpgrades(bool refuse);
    /// The next @p connections accepted are held open and never read: the client's TLS
    /// handshake gets no answer, as on a link that went silent while it connected. They close
    /// with stop() or goDown().
    void stallConnections(int connections);

    /// Outage: close the listening socket and every connection (the port stays reserved).
    /// Cancels a return planned by goDownFor().
    void goDown();
    /// Listen again on the same port (cancels a return planned by goDownFor()).
    bool comeBack();
    /// An outage of @p ms milliseconds: goes down now and comes back on the same port then.
    void goDownFor(int ms);
    bool isUp() const;

    /**
     * Marks an invoice paid and pushes "payment_success" to its device; @p delivered (if given)
     * receives how many of the device's sockets got it. False for an unknown or closed invoice.
     */
    bool markInvoicePaid(const QString& invoiceCode, int* delivered = nullptr);
    /// Invoices created through this server and neither paid nor cancelled since (the server
    /// counts them from its own answers and markInvoicePaid()).
    int openInvoiceCount() const;

    /// Like pushToDevice(), but the text goes out as one frame, however long (pushToDevice()
    /// splits a text into frames of 4 KiB).
    int pushWholeFrame(const QString& devid, const QByteArray& text);

    /// Bytes of streamed bodies (CloudReply::streamBytes) written to clients so far, counted as
    /// each piece is taken by the connection; it stops growing when a client goes away.
    qint64 streamedBytes() const;

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

} // namespace kelocloud
