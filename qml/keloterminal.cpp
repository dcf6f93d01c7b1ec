#include "keloterminal.h"

#include "keloqrimageprovider.h"

#include <kelo/kelosdk.h>

#include <QFile>
#include <QJsonDocument>
#include <QNetworkReply>
#include <QQmlInfo>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QUrl>

#include <limits>

KeloTerminal::KeloTerminal(QObject* parent) : QObject(parent)
{
    deadline.setSingleShot(true);
    deadline.setInterval(DefaultRequestTimeoutMs);
    connect(&deadline, &QTimer::timeout, this, &KeloTerminal::onDeadline);
}

KeloTerminal::~KeloTerminal() = default;

// ---- settings -------------------------------------------------------------------------------

bool KeloTerminal::settable(const char* name) const
{
    if (sdk)
        qmlWarning(this) << "KeloTerminal: " << name << " is set once, before the terminal starts";
    return !sdk;
}

void KeloTerminal::setMerchantId(const QString& id)
{
    if (settable("merchantId") && id != settings.merchantId) {
        settings.merchantId = id;
        emit settingsChanged();
    }
}

void KeloTerminal::setMachineName(const QString& name)
{
    if (settable("machineName") && name != settings.machineName) {
        settings.machineName = name;
        emit settingsChanged();
    }
}

void KeloTerminal::setServerHost(const QString& hostPort)
{
    if (settable("serverHost") && hostPort != settings.serverHost) {
        settings.serverHost = hostPort;
        emit settingsChanged();
    }
}

void KeloTerminal::setCaFile(const QString& path)
{
    if (settable("caFile") && path != settings.caFile) {
        settings.caFile = path;
        emit settingsChanged();
    }
}

void KeloTerminal::setDebug(bool on)
{
    if (settable("debug") && on != settings.debug) {
        settings.debug = on;
        emit settingsChanged();
    }
}

void KeloTerminal::setQrKey(const QString& key)
{
    if (key != qrField) {
        qrField = key;
        emit qrKeyChanged();
    }
}

void KeloTerminal::setRequestTimeout(int ms)
{
    if (ms != deadline.interval()) {
        deadline.setInterval(qMax(0, ms));
        emit requestTimeoutChanged();
    }
}

QString KeloTerminal::qrSource(const QString& payload)
{
    return KeloQrImageProvider::source(payload);
}

// ---- start ----------------------------------------------------------------------------------

void KeloTerminal::componentComplete()
{
    start();
}

bool KeloTerminal::start()
{
    if (sdk)
        return true;
    if (!settings.caFile.isEmpty()) {
        // A "file:" URL (as QML's Qt.resolvedUrl gives) or a plain path.
        const QUrl url(settings.caFile);
        const QString path = url.isLocalFile() ? url.toLocalFile() : settings.caFile;
        const QList<QSslCertificate> cas = QSslCertificate::fromPath(path, QSsl::Pem);
        if (cas.isEmpty()) {
            emit failed(CaFileUnreadable,
                        QStringLiteral("cannot read a CA certificate from %1").arg(path),
                        TerminalError);
            return false;
        }
        // Verification stays fully on: the CA joins the ones already trusted.
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        tls.setCaCertificates(tls.caCertificates() + cas);
        QSslConfiguration::setDefaultConfiguration(tls);
    }
    // The SDK reads the server address when it is constructed.
    if (!settings.serverHost.isEmpty())
        qputenv("KELO_SERVER_HOST", settings.serverHost.toUtf8());
    sdk.reset(new Kelosdk(settings.merchantId, settings.machineName, settings.debug));
    wire();
    emit readyChanged();
    pump();
    return true;
}

void KeloTerminal::wire()
{
    Kelosdk* s = sdk.get();
    connect(s, &Kelosdk::cloudConnectionChange, this, [this](bool up) {
        if (up != online) {
            online = up;
            emit connectedChanged();
        }
    });
    connect(s, &Kelosdk::noticeGap, this, [this](const QString& code, bool open) {
        if (open && code == invoice && !noticeLate) {
            noticeLate = true;
            emit noticeMayBeLateChanged();
        }
        emit noticeGap(code, open);
    });
    connect(s, &Kelosdk::networkError, this, [this](int code, const QString& message) {
        if (!swallowNetworkError)
            fail(errorOwner(), code, message, NetworkFailure);
    });
    connect(s, &Kelosdk::keloappError, this, [this](int code, const QString& message) {
        fail(errorOwner(), code, message, Refusal);
    });
    connect(s, &Kelosdk::notify, this, &KeloTerminal::notified);

    connect(s, &Kelosdk::userLoginDone, this, [this](int code, const QString& message) {
        finish(Kind::Login);
        if (code == 0) {
            int id = -1;
            QString name;
            sdk->userName(id, name);
            setUser(name.isEmpty() ? QStringLiteral("#%1").arg(id) : name);
        }
        emit loginFinished(code, message);
        if (code != 0)
            emit failed(code, message, Refusal);
    });
    connect(s, &Kelosdk::userLogoutDone, this, [this] {
        setUser(QString());
        emit loggedOut();
    });
    connect(s, &Kelosdk::foodsRequestDone, this, [this](const QString& text) {
        QJsonObject dt;
        if (!readAnswer(Kind::Menu, text, &dt))
            return;
        menuModel.setItems(dt.value(QLatin1String("items")).toArray());
        emit menuReady();
    });
    connect(s, &Kelosdk::tableRequestDone, this, [this](const QString& text) {
        QJsonObject dt;
        if (!readAnswer(Kind::Tables, text, &dt))
            return;
        tableModel.setItems(dt.value(QLatin1String("tables")).toArray());
        emit tablesReady();
    });
    connect(s, &Kelosdk::tableFoodsDone, this, [this](const QString& text) {
        QJsonObject dt;
        if (!readAnswer(Kind::Orders, text, &dt))
            return;
        orderModel.setTable(dt);
        emit ordersReady(orderModel.tableId());
    });
    connect(s, &Kelosdk::foodOrderRequestDone, this, [this](const QString& text) {
        QJsonObject dt;
        if (readAnswer(Kind::Order, text, &dt))
            emit orderPlaced(dt.toVariantMap());
    });
    connect(s, &Kelosdk::tableMergeDone, this, [this](const QString& text) {
        QJsonObject dt;
        if (readAnswer(Kind::Merge, text, &dt))
            emit tablesMerged(dt.toVariantMap());
    });
    connect(s, &Kelosdk::paymentDone, this, [this](const QString& text) {
        QJsonObject dt;
        if (readAnswer(Kind::Pay, text, &dt))
            emit billPaid(dt.toVariantMap());
    });
    connect(s, &Kelosdk::tumiQRInvoiceCode, this, [this](const QString& text) {
        QJsonObject dt;
        if (!readAnswer(Kind::Invoice, text, &dt))
            return;
        const QString code = dt.value(QLatin1String("invoice_code")).toString();
        setInvoice(code);
        const QString payload = dt.value(qrField).toString();
        if (payload.isEmpty()) {
            emit failed(
                QrPayloadMissing,
                QStringLiteral("the invoice answer holds no QR payload under \"%1\"").arg(qrField),
                TerminalError);
            return;
        }
        emit invoiceReady(code, qrSource(payload));
    });
    connect(s, &Kelosdk::tumipayCancelDone, this, [this](const QString& text) {
        QJsonObject dt;
        if (!readAnswer(Kind::Cancel, text, &dt))
            return;
        const QString code = dt.value(QLatin1String("invoice_code")).toString();
        if (code == invoice)
            setInvoice(QString());
        emit invoiceCancelled(code);
    });
    connect(s, &Kelosdk::tumipayRequestDone, this, [this](const QString& text) {
        const QJsonObject notice = QJsonDocument::fromJson(text.toUtf8()).object();
        const QString code = notice.value(QLatin1String("dt"))
                                 .toObject()
                                 .value(QLatin1String("invoice_code"))
                                 .toString();
        if (code.isEmpty() || code != invoice)
            return;
        // The SDK keeps its invoice flow busy after a payment (the paid invoice cannot be
        // cancelled): free it for the next invoice.
        freeInvoiceFlow();
        setInvoice(QString());
        emit paymentReceived(code);
    });
}

// ---- the request queue ----------------------------------------------------------------------

void KeloTerminal::enqueue(Kind kind, std::function<void()> send)
{
    const bool before = busy();
    queue.append({kind, std::move(send)});
    busyMayHaveChanged(before);
    // Started from the event loop: a request made inside a signal handler of the terminal
    // never runs inside the SDK's own signal emission.
    QMetaObject::invokeMethod(this, &KeloTerminal::pump, Qt::QueuedConnection);
}

void KeloTerminal::pump()
{
    if (!sdk || current != Kind::None || queue.isEmpty())
        return;
    Request next = queue.takeFirst();
    current = next.kind;
    if (deadline.interval() > 0)
        deadline.start();
    sending = next.kind;
    next.send(); // a refusal by the SDK arrives right here, and finishes the request
    sending = Kind::None;
}

void KeloTerminal::finish(Kind kind)
{
    if (kind == Kind::None || kind != current)
        return; // a late answer to a request already given up
    const bool before = busy();
    current = Kind::None;
    deadline.stop();
    if (invoiceFlowToFree)
        freeInvoiceFlow();
    busyMayHaveChanged(before);
    if (!queue.isEmpty())
        QMetaObject::invokeMethod(this, &KeloTerminal::pump, Qt::QueuedConnection);
}

void KeloTerminal::fail(Kind kind, int code, const QString& message, Origin origin)
{
    finish(kind);
    // The SDK keeps its invoice flow busy after the server refuses an invoice, with no invoice
    // to cancel. Only its own busy refusal (103) means that an invoice really is open.
    if (kind == Kind::Invoice && code != InvoiceFlowBusy && sending == Kind::None)
        freeInvoiceFlow();
    emit failed(code, message, origin);
}

void KeloTerminal::freeInvoiceFlow()
{
    // The SDK's documented way out frees every request kind, and abandons whatever request is
    // out: its answer would never come. The terminal runs one request at a time, so it frees
    // the flow once the request in flight has had its answer.
    if (current != Kind::None) {
        invoiceFlowToFree = true;
        return;
    }
    invoiceFlowToFree = false;
    // The error it re-emits is the terminal's own doing, not a failure.
    swallowNetworkError = true;
    sdk->onNetworkError(0, QStringLiteral("invoice flow freed"));
    swallowNetworkError = false;
}

void KeloTerminal::onDeadline()
{
    if (current == Kind::None)
        return;
    // The SDK's own way to give up on requests that never answer: every kind is free again
    // (a paid invoice's flow included), the request in flight is abandoned, and the error
    // comes back through networkError, to that request.
    invoiceFlowToFree = false;
    sdk->onNetworkError(NoAnswer, QStringLiteral("the server did not answer in time"));
}

void KeloTerminal::busyMayHaveChanged(bool before)
{
    if (busy() != before)
        emit busyChanged();
}

bool KeloTerminal::readAnswer(Kind kind, const QString& text, QJsonObject* dt)
{
    finish(kind);
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(text.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject()) {
        emit failed(UnreadableAnswer, QStringLiteral("the server's answer cannot be read"),
                    TerminalError);
        return false;
    }
    const QJsonObject answer = doc.object();
    const int code = answer.value(QLatin1String("err")).toInt(0);
    if (code != 0) {
        emit failed(code, answer.value(QLatin1String("msg")).toString(), Refusal);
        return false;
    }
    *dt = answer.value(QLatin1String("dt")).toObject();
    return true;
}

void KeloTerminal::setUser(const QString& name)
{
    if (name != user) {
        user = name;
        emit userChanged();
    }
}

void KeloTerminal::setInvoice(const QString& code)
{
    if (code != invoice) {
        invoice = code;
        emit invoiceCodeChanged();
        // A gap belongs to the invoice it was reported for.
        if (noticeLate) {
            noticeLate = false;
            emit noticeMayBeLateChanged();
        }
    }
}

// ---- requests -------------------------------------------------------------------------------

void KeloTerminal::login(const QString& user, const QString& password, int role)
{
    // The SDK logs any other value in as a client; so does the terminal.
    const auto type = role == Waiter    ? Kelosdk::waiter
                      : role == Cashier ? Kelosdk::cashier
                                        : Kelosdk::client;
    enqueue(Kind::Login, [=] { sdk->userLogin(user, password, type); });
}

void KeloTerminal::logout()
{
    enqueue(Kind::Logout, [this] {
        sdk->userLogout(); // answered at once, by loggedOut() or a refusal
        finish(Kind::Logout);
    });
}

void KeloTerminal::refreshMenu()
{
    enqueue(Kind::Menu, [this] { sdk->foodsRequest(); });
}

void KeloTerminal::refreshTables()
{
    enqueue(Kind::Tables, [this] { sdk->tableRequest(); });
}

void KeloTerminal::order(const QVariantMap& order)
{
    const QJsonObject items = QJsonObject::fromVariantMap(order);
    enqueue(Kind::Order, [=] { sdk->foodOrderRequest(items); });
}

void KeloTerminal::loadOrders(int tableId)
{
    enqueue(Kind::Orders, [=] { sdk->tableFoodsRequest(tableId); });
}

void KeloTerminal::merge(int from, int to)
{
    enqueue(Kind::Merge, [=] { sdk->tableMergeRequest(from, to); });
}

void KeloTerminal::pay(int tableId, int amount)
{
    enqueue(Kind::Pay, [=] { sdk->paymentRequest(tableId, amount); });
}

void KeloTerminal::createInvoice(double amount, const QString& description, const QString& detail)
{
    // Not a whole number the SDK's long can hold (NaN, negative, too large): 0, which the
    // server refuses as an invalid amount.
    const long money = amount >= 1 && amount <= double(std::numeric_limits<long>::max())
                           ? static_cast<long>(amount)
                           : 0;
    enqueue(Kind::Invoice, [=] { sdk->tumipayRequest(money, description, detail); });
}

void KeloTerminal::cancelInvoice(const QString& code)
{
    enqueue(Kind::Cancel, [=] { sdk->tumipayCancel(code); });
}
