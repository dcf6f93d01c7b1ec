#pragma once

/// @file
/// The SDK object Kelosdk: the one class a host needs (installed as kelo/kelosdk.h).

#include "kelo_export.h"

#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QVariant>

#include <functional>

class HttpBase;
class HttpBase2;
class KelosdkPrivate;

/**
 * @brief The SDK object: one per merchant terminal.
 *
 * Create it on the thread that runs the host's event loop; every request slot answers through a
 * signal on that thread. At most one request of each kind is in flight: a second one is refused
 * with keloappError() and its busy code. Transport failures arrive as networkError() with the
 * QNetworkReply::NetworkError value and Qt's text. The object opens the notification channel in
 * its constructor and reports its state through cloudConnectionChange().
 *
 * All the object's requests go through one connection pool of its own, so that they reuse
 * kept-alive connections; no cookie is kept. The invoice "create" of tumipayRequest() alone goes
 * on a fresh connection and is never sent twice: a connection lost before its answer ends in
 * networkError(205, ...), and the invoice may then exist on the server.
 *
 * The host may delete the object from a slot of any of its signals, with delete or deleteLater().
 * Requests still out and a menu's picture download are then abandoned: none of their answers is
 * reported, and they are released on the next pass of the event loop. The notification channel
 * goes with the object: its watchdog thread ends at once, its socket on that same pass.
 *
 * The server host is compiled in; a non-empty environment variable KELO_SERVER_HOST (host or
 * host:port) replaces it for objects constructed afterwards. TLS uses Qt's default
 * configuration: a host that talks to a server with a private certificate authority adds that
 * authority with QSslConfiguration::setDefaultConfiguration() before constructing the object.
 */
class KELO_EXPORT Kelosdk : public QObject
{
    Q_OBJECT
public:
    /// Staff role of a login.
    enum user_type
    {
        client = 0, ///< "client_login"
        waiter = 1, ///< "waiter_login"
        cashier = 2 ///< "cashier_login"
    };

    /// @p debug enables the "KELOSDK>> " log lines.
    Kelosdk(const QString& merchantId, const QString& machineName, bool debug);
    ~Kelosdk() override;

    /**
     * @name Limits
     * Caps that protect the terminal from a misbehaving network or server. Each takes a size in
     * bytes; 0 or less removes the cap. They govern requests made after the call.
     * @{
     */
    /// An API answer longer than this is aborted and ends in networkError(299, ...).
    /// The default is 8 MiB.
    void setMaxReplySize(qint64 bytes);
    /// The cap on an API answer in bytes, for requests made from now on; 0 means none.
    qint64 maxReplySize() const;
    /// A dish picture longer than this is given up and shown with the placeholder.
    /// The default is 8 MiB.
    void setMaxPictureSize(qint64 bytes);
    /// The cap on a dish picture in bytes, for menus requested from now on; 0 means none.
    qint64 maxPictureSize() const;
    /// A notification (message or frame) longer than this is never handed on: the channel
    /// closes and reconnects by itself. The default is 1 MiB.
    void setMaxNotificationSize(qint64 bytes);
    /// The cap on a notification in bytes (counted in UTF-8); 0 means Qt's own maximum.
    qint64 maxNotificationSize() const;
    /// A request (every request slot, the notification channel's session fetch) that moves no
    /// byte either way for @p ms milliseconds is given up: its kind is free again and it ends in
    /// networkError(4, "no answer from the server for 20 s"), once. For paymentRequest() and an
    /// invoice's "create" the outcome is then unknown (see the integration guide). 0 or less:
    /// never. The default is 20000. Governs requests made after the call.
    void setRequestIdleTimeout(int ms);
    /// Milliseconds without a byte before a request is given up; 0 means never.
    int requestIdleTimeout() const;
    /** @} */

    /// How many of a menu's pictures are fetched at once, for the menus requested afterwards;
    /// values below 1 count as 1 (one after the other, in catalogue order), above 64 as 64.
    /// The default is 6. The menu that foodsRequestDone() carries is the same whatever the
    /// setting; pictures of one dish are never fetched at the same time.
    void setMaxPicturesInFlight(int count);
    /// How many of a menu's pictures are fetched at once.
    int maxPicturesInFlight() const;

Q_SIGNALS:
    /// The notification channel connected (true) or is down (false; repeated every 3 s).
    void cloudConnectionChange(bool connected);
    /// A transport failure: QNetworkReply::NetworkError value and Qt's error text.
    void networkError(int error, QString message);
    /// A refusal by the SDK (codes 102 to 113) or by the server (its own code and text).
    void keloappError(int error, QString message);
    /// A server notification other than "payment_success": its event word.
    void notify(QString msg);
    /// Login answer: 0 on success, otherwise the server's code and text.
    void userLoginDone(int error, QString msg);
    /// Logout done (always 0, "User logout done!").
    void userLogoutDone(int error, QString msg);
    /// The logged-in user, emitted by userName().
    void userIdname(int id, QString name);
    /// The menu, with local picture paths, once every picture is fetched or given up.
    void foodsRequestDone(QString data);
    /// The server's answer to a food order.
    void foodOrderRequestDone(QString data);
    /// The server's table list.
    void tableRequestDone(QString data);
    /// The foods ordered at a table.
    void tableFoodsDone(QString data);
    /// The server's answer to a table merge (a built success text if the body was empty).
    void tableMergeDone(QString data);
    /// The whole "create" reply of an e-wallet invoice (the host reads the QR data from it).
    void tumiQRInvoiceCode(QString data);
    /// An e-wallet invoice was paid: {"dt":...,"err":-1,"msg":"payment_success"}.
    void tumipayRequestDone(QString data);
    /// The server's answer to an invoice cancel.
    void tumipayCancelDone(QString data);
    /// The server's answer to a table payment.
    void paymentDone(QString data);
    /**
     * A notice of the open invoice @p invoiceCode may have been missed. @p open true: the
     * notification channel went down while the invoice was open (or the invoice was opened while
     * the channel was down); a "payment_success" the server sends meanwhile is lost, so the
     * tumipayRequestDone() of this invoice may never come. @p open false: the channel is back,
     * once for each gap opened; a payment made during the gap is still not reported (the host
     * may ask the customer or the cashier). Emitted after cloudConnectionChange() and
     * tumiQRInvoiceCode().
     */
    void noticeGap(QString invoiceCode, bool open);

public Q_SLOTS:
    /// Logs a staff member in; answers with userLoginDone().
    void userLogin(const QString& usr, const QString& pwd, Kelosdk::user_type usrtype = client);
    /// Ends the session locally; answers with userLogoutDone() or keloappError(108, ...).
    void userLogout();
    /// Fills @p id and @p name and emits userIdname() when a user is logged in.
    bool userName(int& id, QString& name);
    /// True while a user is logged in.
    bool userIslogged();
    /// Requests the menu; foodsRequestDone() follows once the pictures are cached.
    void foodsRequest();
    /// Confirms an order: "table_id", "amount" and "items" of @p foodItems are sent.
    void foodOrderRequest(const QJsonObject& foodItems);
    /// Requests the table list.
    void tableRequest();
    /// Requests the foods ordered at @p tableId.
    void tableFoodsRequest(int tableId);
    /// Merges table @p frmtableId into @p totableId.
    void tableMergeRequest(int frmtableId, int totableId);
    /// Creates an e-wallet invoice of @p money; tumiQRInvoiceCode() carries the reply.
    void tumipayRequest(long money, const QString& description, const QString& itemDetail);
    /// Second step of the invoice chain: the signed "create" request.
    void tumipayTransfers(const QString& sesId, long money, const QString& description,
                          const QString& itemDetail);
    /// Cancels the open invoice @p invoiceCode.
    void tumipayCancel(const QString& invoiceCode);
    /// Requests payment of @p amount for table @p tableId.
    void paymentRequest(int tableId, int amount);
    /// Handles a text frame of the notification channel.
    void wssNotify(const QString& message);
    /// The host gives up: every request still out (and a menu's picture download) is abandoned,
    /// so that no late answer of theirs is ever reported nor drives a newer request; every kind
    /// is free at once, and the error is forwarded as networkError().
    void onNetworkError(int error, const QString& message);
    /// First step of the invoice chain: the invoice session request.
    void transPermisionRequest(int paytype, long money, const QString& description,
                               const QString& itemDetail);
    /// Menu reply: starts the picture download.
    void onFoodsReadyDownload(const QVariant& data);
    /// "create" reply: stores the invoice code and emits tumiQRInvoiceCode() or keloappError().
    void onTumipayQRInvoiceCode(const QVariant& data);

private:
    QString host;
    QString httpsBase;
    QString merchantId;
    QString machineName;
    QString clientUuid;
    quint32 busyFlags = 0;
    bool debugLog = false;
    bool httpDebug = false;
    QString invoiceCode;
    QString currentUserName;
    qint32 currentUserId = -1;
    // Everything else the object keeps (requests in flight, limits, the notification client).
    // One pointer where 1.0 kept the invoice request: the class keeps its size and layout, so
    // hosts built against 1.0 keep working.
    KelosdkPrivate* d = nullptr;
    // It claims a request kind (busy bit, refusal) through claim() below.
    friend class KelosdkPrivate;

    // Busy guard: false (after keloappError(code, text)) if @p bit is taken, else takes it. The
    // request slots claim by kind, with the kind's bit and refusal (KelosdkPrivate::claim).
    bool claim(quint32 bit, int code, const QString& text);
    void release(quint32 bit);
    // One "KELOSDK>> " line, only when debugLog is set.
    void log(const QString& line) const;
    // The common request shape with a GET: the done handler clears @p bit, runs @p onReply with
    // the reply text and releases the request.
    void sendGet(quint32 bit, const char* path, const QString& cm, const QString& dt,
                 const std::function<void(const QString&)>& onReply);
    void fillAndGet(HttpBase* request, const char* path, const QString& cm, const QString& dt);
    // The common error handler of a flow, clearing @p bit.
    void wireError(HttpBase* request, quint32 bit);
    void requestFailed(QObject* request, quint32 bit, int code, const QString& message);
    // A request object of the e-wallet chain, with its error handler.
    HttpBase2* newTransferRequest();
    // The chain's second step, the signed "create", on @p request.
    void sendCreate(HttpBase2* request, const QString& sesId, long money,
                    const QString& description, const QString& itemDetail);
};
