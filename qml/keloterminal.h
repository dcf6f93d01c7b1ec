#pragma once

#include "kelomenumodel.h"
#include "keloordermodel.h"
#include "kelotablemodel.h"

#include <QObject>
#include <QQmlParserStatus>
#include <QTimer>
#include <QVariantMap>

#include <functional>
#include <memory>

class Kelosdk;

/**
 * One terminal for QML: a Kelosdk created when the component completes, its answers parsed into
 * models and signals.
 *
 * Requests made through the terminal run one after another, in the order they were made: a
 * request waits for the one before it to be answered, so the SDK's busy refusals never hit a
 * second request of the same kind. A request that gets no answer within requestTimeout ends in
 * failed(NoAnswer, ...) and the next one starts.
 *
 * The server and its certificate authority are set before the SDK is created: serverHost (host
 * or host:port) sets KELO_SERVER_HOST for the process, and caFile adds that CA to the process's
 * default TLS configuration. Both act once, at creation, for the whole process.
 */
class KeloTerminal : public QObject, public QQmlParserStatus
{
    Q_OBJECT
    Q_INTERFACES(QQmlParserStatus)
    // Set once, before the component completes.
    Q_PROPERTY(QString merchantId READ merchantId WRITE setMerchantId NOTIFY settingsChanged)
    Q_PROPERTY(QString machineName READ machineName WRITE setMachineName NOTIFY settingsChanged)
    Q_PROPERTY(QString serverHost READ serverHost WRITE setServerHost NOTIFY settingsChanged)
    Q_PROPERTY(QString caFile READ caFile WRITE setCaFile NOTIFY settingsChanged)
    Q_PROPERTY(bool debug READ debug WRITE setDebug NOTIFY settingsChanged)
    // May change at any time.
    Q_PROPERTY(QString qrKey READ qrKey WRITE setQrKey NOTIFY qrKeyChanged)
    Q_PROPERTY(
        int requestTimeout READ requestTimeout WRITE setRequestTimeout NOTIFY requestTimeoutChanged)
    // State.
    Q_PROPERTY(bool ready READ ready NOTIFY readyChanged)
    Q_PROPERTY(bool connected READ connected NOTIFY connectedChanged)
    Q_PROPERTY(bool loggedIn READ loggedIn NOTIFY userChanged)
    Q_PROPERTY(QString userName READ userName NOTIFY userChanged)
    Q_PROPERTY(bool busy READ busy NOTIFY busyChanged)
    Q_PROPERTY(QString invoiceCode READ invoiceCode NOTIFY invoiceCodeChanged)
    /// The notification channel was down while the open invoice was waiting for its payment
    /// notice: the notice may be late or lost. Stays true until that invoice is paid, cancelled
    /// or replaced; read it with connected to tell "down now" from "back again".
    Q_PROPERTY(bool noticeMayBeLate READ noticeMayBeLate NOTIFY noticeMayBeLateChanged)
    Q_PROPERTY(KeloMenuModel* menu READ menu CONSTANT)
    Q_PROPERTY(KeloTableModel* tables READ tables CONSTANT)
    Q_PROPERTY(KeloOrderModel* orders READ orders CONSTANT)
public:
    /// The SDK's user types, for login().
    enum Role
    {
        Client = 0,
        Waiter = 1,
        Cashier = 2
    };
    Q_ENUM(Role)

    /// Codes of failed() raised by the terminal itself (every other code is the SDK's, the
    /// server's or Qt's network error).
    enum Error
    {
        /// No answer within requestTimeout (QNetworkReply::TimeoutError's value).
        NoAnswer = 4,
        /// An answer that is not the JSON the server sends.
        UnreadableAnswer = -1,
        /// caFile names no readable PEM certificate: the terminal does not start.
        CaFileUnreadable = 901,
        /// The invoice answer's "dt" has no text under qrKey (the invoice stays open).
        QrPayloadMissing = 902
    };
    Q_ENUM(Error)

    /// Where a failure comes from: the codes of a network failure (Qt's QNetworkReply values)
    /// and of a refusal (the SDK's 102 to 113, the server's own) overlap.
    enum Origin
    {
        NetworkFailure = 0, ///< the request did not get through (Qt's code, or NoAnswer)
        Refusal = 1,        ///< the SDK or the server said no
        TerminalError = 2   ///< the terminal's own (Error)
    };
    Q_ENUM(Origin)

    /// requestTimeout's default: long enough for a menu whose pictures all need fetching.
    static constexpr int DefaultRequestTimeoutMs = 60000;

    explicit KeloTerminal(QObject* parent = nullptr);
    ~KeloTerminal() override;

    QString merchantId() const { return settings.merchantId; }
    void setMerchantId(const QString& id);
    QString machineName() const { return settings.machineName; }
    void setMachineName(const QString& name);
    QString serverHost() const { return settings.serverHost; }
    void setServerHost(const QString& hostPort);
    QString caFile() const { return settings.caFile; }
    void setCaFile(const QString& path);
    bool debug() const { return settings.debug; }
    void setDebug(bool on);
    QString qrKey() const { return qrField; }
    void setQrKey(const QString& key);
    int requestTimeout() const { return deadline.interval(); }
    void setRequestTimeout(int ms);

    bool ready() const { return sdk != nullptr; }
    bool connected() const { return online; }
    bool loggedIn() const { return !user.isEmpty(); }
    QString userName() const { return user; }
    bool busy() const { return current != Kind::None || !queue.isEmpty(); }
    QString invoiceCode() const { return invoice; }
    bool noticeMayBeLate() const { return noticeLate; }
    KeloMenuModel* menu() { return &menuModel; }
    KeloTableModel* tables() { return &tableModel; }
    KeloOrderModel* orders() { return &orderModel; }

    /// Creates the SDK (done by componentComplete() in QML); from C++, call it once the
    /// settings are made. False (after failed()) if caFile cannot be read.
    bool start();

    /// The image address that draws @p payload as a QR code ("image://kelo-qr/...").
    Q_INVOKABLE static QString qrSource(const QString& payload);

    void classBegin() override {}
    void componentComplete() override;

public Q_SLOTS:
    /// @p role: Client, Waiter or Cashier (0, 1, 2). Answers with loginFinished().
    void login(const QString& user, const QString& password, int role);
    /// Ends the session locally; answers with loggedOut() or failed(108, ...).
    void logout();
    /// Fills menu; answers with menuReady() once every picture is cached or given up.
    void refreshMenu();
    /// Fills tables; answers with tablesReady().
    void refreshTables();
    /// Confirms an order ({"table_id":..,"amount":..,"items":[..]}); answers with orderPlaced().
    void order(const QVariantMap& order);
    /// Fills orders with the table's orders; answers with ordersReady().
    void loadOrders(int tableId);
    /// Moves the orders of table @p from to table @p to; answers with tablesMerged().
    void merge(int from, int to);
    /// Settles the bill of @p tableId; answers with billPaid().
    void pay(int tableId, int amount);
    /// Opens an e-wallet invoice; answers with invoiceReady(), and paymentReceived() once paid.
    void createInvoice(double amount, const QString& description, const QString& detail);
    /// Cancels the open invoice @p code; answers with invoiceCancelled().
    void cancelInvoice(const QString& code);

Q_SIGNALS:
    void settingsChanged();
    void qrKeyChanged();
    void requestTimeoutChanged();
    void readyChanged();
    void connectedChanged();
    void userChanged();
    void busyChanged();
    void invoiceCodeChanged();
    void noticeMayBeLateChanged();

    /// Every login answer: 0, or the server's refusal (which also comes as failed()).
    void loginFinished(int code, const QString& message);
    void loggedOut();
    void menuReady();
    void tablesReady();
    /// The orders model holds table @p tableId's orders.
    void ordersReady(int tableId);
    /// The server's "dt" of a confirmed order (order_id, table_id, amount, table_amount).
    void orderPlaced(const QVariantMap& result);
    /// The server's "dt" of a merge (from_tableid, to_tableid, moved, amount).
    void tablesMerged(const QVariantMap& result);
    /// The server's "dt" of a settled bill (payment_id, table_id, amount, total).
    void billPaid(const QVariantMap& result);
    /// An invoice is open: show @p qrSource (an image address) to the customer.
    void invoiceReady(const QString& invoiceCode, const QString& qrSource);
    /// The invoice on screen was paid.
    void paymentReceived(const QString& invoiceCode);
    void invoiceCancelled(const QString& invoiceCode);
    /// The SDK's noticeGap(): the channel went down while @p invoiceCode was open (@p open true)
    /// or came back after such a gap (false).
    void noticeGap(const QString& invoiceCode, bool open);
    /// A server notice other than a payment: its event word.
    void notified(const QString& event);
    /// Every error and refusal: the SDK's busy codes (102 to 113), the server's codes, Qt's
    /// network errors and the terminal's own (Error); @p origin tells which (Origin).
    void failed(int code, const QString& message, int origin);

private:
    /// The SDK's refusal of a second invoice while one is open.
    static constexpr int InvoiceFlowBusy = 103;
    enum class Kind
    {
        None,
        Login,
        Logout,
        Menu,
        Tables,
        Order,
        Orders,
        Merge,
        Pay,
        Invoice,
        Cancel
    };
    struct Settings
    {
        QString merchantId;
        QString machineName;
        QString serverHost;
        QString caFile;
        bool debug = false;
    };
    struct Request
    {
        Kind kind;
        std::function<void()> send;
    };

    bool settable(const char* name) const;
    void wire();
    void enqueue(Kind kind, std::function<void()> send);
    void pump();
    /// The request of @p kind is answered (if it is the one in flight).
    void finish(Kind kind);
    /// The request an error belongs to: the one being sent, else the one in flight.
    Kind errorOwner() const { return sending != Kind::None ? sending : current; }
    void fail(Kind kind, int code, const QString& message, Origin origin);
    void onDeadline();
    /// Frees the SDK's invoice flow, which stays busy after a paid or refused invoice.
    void freeInvoiceFlow();
    /// The answer's "dt", or (after failed()) false for a refusal or an unreadable answer.
    bool readAnswer(Kind kind, const QString& text, QJsonObject* dt);
    void setUser(const QString& name);
    void setInvoice(const QString& code);
    void busyMayHaveChanged(bool before);

    Settings settings;
    QString qrField = QStringLiteral("qr_code");
    std::unique_ptr<Kelosdk> sdk;
    bool online = false;
    QString user;
    QString invoice;
    bool noticeLate = false;
    KeloMenuModel menuModel;
    KeloTableModel tableModel;
    KeloOrderModel orderModel;

    QList<Request> queue;
    Kind current = Kind::None; ///< the request in flight
    Kind sending = Kind::None; ///< the request whose SDK call is on the stack
    bool swallowNetworkError = false;
    /// A paid invoice's flow waits to be freed until the request in flight has its answer.
    bool invoiceFlowToFree = false;
    QTimer deadline;
};
