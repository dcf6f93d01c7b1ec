#include "kelosdk.h"

#include "cdownloadfileman.h"
#include "httpbase.h"
#include "httpbase2.h"
#include "httppool_p.h"
#include "kelo_config.h"
#include "kelologging_p.h"
#include "kelosdk_p.h"
#include "libcmn.h"
#include "wsclient.h"

#include <QDebug>
#include <QPointer>
#include <QUrl>
#include <QUuid>

#include <iterator>
#include <memory>
#include <utility>

using kelo_sdk::RequestKind;

namespace {

// The refusal table has one row per kind, however many kinds there are: refusalOf() reads the
// row at the kind's index, so a kind without its row would read past the table's end.
static_assert(std::size(kelo_sdk::Refusals) == size_t(kelo_sdk::RequestKindCount),
              "kelo_sdk::Refusals (sdk/kelosdk_p.h) must have one row per kelo_sdk::RequestKind: "
              "add a row to kelo_sdk::Refusals for the new kind (at the kind's place in the enum, "
              "with a busy bit of its own, its refusal code and text), or remove the row of a "
              "kind that is gone");

// The refusal table lists the kinds in their enum's order, each with a bit of its own.
constexpr bool refusalsInKindOrder()
{
    quint32 bits = 0;
    for (int i = 0; i < int(std::size(kelo_sdk::Refusals)); ++i) {
        const kelo_sdk::Refusal& row = kelo_sdk::Refusals[i];
        if (int(row.kind) != i || (bits & row.busyBit) || row.busyBit == 0)
            return false;
        bits |= row.busyBit;
    }
    return true;
}
static_assert(refusalsInKindOrder(),
              "kelo_sdk::Refusals (sdk/kelosdk_p.h): row i must be the refusal of the i-th "
              "kelo_sdk::RequestKind, each with a non-zero busy bit no other row uses: put the "
              "new kind's row at its place in the enum's order and give it the next free bit");

constexpr quint32 BusyMenu = kelo_sdk::busyBit(RequestKind::Menu);
constexpr quint32 BusyInvoice = kelo_sdk::busyBit(RequestKind::Invoice);
constexpr quint32 BusyCancel = kelo_sdk::busyBit(RequestKind::Cancel);
constexpr quint32 BusyLogin = kelo_sdk::busyBit(RequestKind::Login);
constexpr quint32 BusyTables = kelo_sdk::busyBit(RequestKind::Tables);
constexpr quint32 BusyOrder = kelo_sdk::busyBit(RequestKind::FoodOrder);
constexpr quint32 BusyTableFoods = kelo_sdk::busyBit(RequestKind::TableFoods);
constexpr quint32 BusyMerge = kelo_sdk::busyBit(RequestKind::Merge);
constexpr quint32 BusyPayment = kelo_sdk::busyBit(RequestKind::Payment);

QString number(qint64 value)
{
    return QString::number(value);
}

} // namespace

// ---- request kinds ---------------------------------------------------------------------------

bool KelosdkPrivate::claim(RequestKind kind)
{
    const kelo_sdk::Refusal& refusal = kelo_sdk::refusalOf(kind);
    return q->claim(refusal.busyBit, refusal.code, QString::fromLatin1(refusal.text));
}

bool KelosdkPrivate::busy(RequestKind kind) const
{
    return (q->busyFlags & kelo_sdk::busyBit(kind)) != 0;
}

// ---- what the object waits on ----------------------------------------------------------------

KelosdkPrivate::KelosdkPrivate(Kelosdk* owner)
    : q(owner), pool(new kelo_detail::SharedNetwork(owner)),
      picturePool(new kelo_detail::SharedNetwork(owner))
{
}

KelosdkPrivate::~KelosdkPrivate()
{
    delete picturePool;
    delete pool;
}

QNetworkAccessManager* KelosdkPrivate::network()
{
    return pool;
}

QNetworkAccessManager* KelosdkPrivate::pictureNetwork()
{
    return picturePool;
}

void KelosdkPrivate::trackRequest(HttpBase* request)
{
    kelo_detail::sendThrough(*request, network());
    request->setIdleTimeout(requestIdleMs);
    track(request);
}

void KelosdkPrivate::trackRequest(HttpBase2* request)
{
    kelo_detail::sendThrough(*request, network());
    request->setIdleTimeout(requestIdleMs);
    track(request);
}

void KelosdkPrivate::track(QObject* object)
{
    inFlight.append(object);
}

bool KelosdkPrivate::settle(QObject* object)
{
    if (!object || !inFlight.removeOne(object))
        return false;
    object->setParent(nullptr);
    object->deleteLater();
    return true;
}

void KelosdkPrivate::abandonAll(QObject* owner)
{
    const QList<QPointer<QObject>> abandoned = std::exchange(inFlight, {});
    for (const QPointer<QObject>& object : abandoned) {
        if (!object)
            continue;
        // First cut it off: the abort below ends a request in error(), which must reach nobody.
        QObject::disconnect(object, nullptr, owner, nullptr);
        if (auto* request = qobject_cast<HttpBase*>(object))
            request->cancel();
        else if (auto* request2 = qobject_cast<HttpBase2*>(object))
            request2->cancel();
        // A picture run's destructor drops its download and the file it was writing.
        object->setParent(nullptr);
        object->deleteLater();
    }
}

Kelosdk::Kelosdk(const QString& merchantId, const QString& machineName, bool debug)
    : QObject(nullptr), busyFlags(0), debugLog(debug), httpDebug(false), currentUserId(-1),
      d(new KelosdkPrivate(this))
{
    if (debugLog)
        qCDebug(kelo_log::sdk) << "KELOSDK>> Welcome to KeloSDK! merchant-id:" << merchantId
                               << ", machine-name:" << machineName;

    // Tests, the cloud simulator and integrators point the SDK at another server through the
    // environment; a production host leaves it unset and gets the compiled-in server.
    host = QString::fromUtf8(qgetenv("KELO_SERVER_HOST"));
    if (host.isEmpty())
        host = QStringLiteral(KELO_DEFAULT_SERVER_HOST);
    httpsBase = QStringLiteral("https://%1").arg(host);
    this->merchantId = merchantId;
    this->machineName = machineName;
    clientUuid = QString::fromLatin1(QUuid::createUuid().toRfc4122().toHex());

    // The notification channel. The destructor retires the client (it may be inside one of the
    // client's signals then, so the client itself goes with deleteLater()).
    const QUrl notificationUrl(QStringLiteral("wss://%1/kelo/ntf/").arg(host));
    const QUrl commonApiUrl(QStringLiteral("%1/kelo/api/common").arg(httpsBase));
    auto* client =
        new WSClient(notificationUrl, commonApiUrl, this->merchantId, clientUuid, false, nullptr);
    d->client = client;
    kelo_detail::shareNetwork(*client, d->network());
    connect(client, SIGNAL(textMessageReceived(QString)), this, SLOT(wssNotify(QString)));
    connect(client, &WSClient::connected, this, [this] { d->channelChanged(true); });
    connect(client, &WSClient::closed, this, [this] { d->channelChanged(false); });
    client->start();
}

Kelosdk::~Kelosdk()
{
    // A host may delete this object from a slot of any of its signals, while a request object
    // is inside its own signal: nothing is deleted here, everything leaves with deleteLater().
    d->abandonAll(this);
    // Before the pool goes: the client's session fetch is cancelled, not left to the pool.
    kelo_detail::retireClient(d->client);
    d->client = nullptr;
    delete d;
}

void KelosdkPrivate::channelChanged(bool up)
{
    const bool wasUp = std::exchange(channelUp, up);
    QPointer<Kelosdk> alive(q);
    emit q->cloudConnectionChange(up);
    if (!alive) // the host deleted the object from its slot
        return;
    // The channel reports its close on every tick while down: a gap opens on the first one.
    if (!up && wasUp && !q->invoiceCode.isEmpty() && gapInvoice.isEmpty()) {
        gapInvoice = q->invoiceCode;
        emit q->noticeGap(gapInvoice, true);
    } else if (up && !gapInvoice.isEmpty()) {
        emit q->noticeGap(std::exchange(gapInvoice, QString()), false);
    }
}

// ---- limits ----------------------------------------------------------------------------------

void Kelosdk::setMaxReplySize(qint64 bytes)
{
    d->maxReplyBytes = bytes;
    // The notification client's session fetch is an API answer too.
    if (d->client)
        kelo_detail::setSessionReplyCap(*d->client, bytes);
}

qint64 Kelosdk::maxReplySize() const
{
    return d->maxReplyBytes;
}

void Kelosdk::setRequestIdleTimeout(int ms)
{
    d->requestIdleMs = qMax(0, ms);
}

int Kelosdk::requestIdleTimeout() const
{
    return d->requestIdleMs;
}

void Kelosdk::setMaxPictureSize(qint64 bytes)
{
    d->maxPictureBytes = bytes;
}

qint64 Kelosdk::maxPictureSize() const
{
    return d->maxPictureBytes;
}

void Kelosdk::setMaxPicturesInFlight(int count)
{
    d->picturesInFlight = qBound(1, count, kelo_limits::MaxPicturesInFlight);
}

int Kelosdk::maxPicturesInFlight() const
{
    return d->picturesInFlight;
}

void Kelosdk::setMaxNotificationSize(qint64 bytes)
{
    d->maxNotificationBytes = bytes;
    if (d->client)
        d->client->setMaxMessageSize(bytes);
}

qint64 Kelosdk::maxNotificationSize() const
{
    return d->maxNotificationBytes;
}

// ---- shared plumbing -------------------------------------------------------------------------

bool Kelosdk::claim(quint32 bit, int code, const QString& text)
{
    if (busyFlags & bit) {
        emit keloappError(code, text);
        return false;
    }
    busyFlags |= bit;
    return true;
}

void Kelosdk::release(quint32 bit)
{
    busyFlags &= ~bit;
}

void Kelosdk::log(const QString& line) const
{
    // One plain text per line, so that every line starts with its "KELOSDK>> " tag.
    if (debugLog)
        qCDebug(kelo_log::sdk).noquote() << line;
}

void Kelosdk::wireError(HttpBase* request, quint32 bit)
{
    // Each request object is fresh, so a plain connection is already a unique one.
    connect(request, &HttpBase::error, this,
            [this, request, bit](const int& code, const QString& message) {
                requestFailed(request, bit, code, message);
            });
}

void Kelosdk::requestFailed(QObject* request, quint32 bit, int code, const QString& message)
{
    log(QStringLiteral("KELOSDK>> Network error, err=%1, msg=%2").arg(code).arg(message));
    release(bit);
    d->settle(request);
    // Last: the host may delete this object from its slot.
    emit networkError(code, message);
}

void Kelosdk::fillAndGet(HttpBase* request, const char* path, const QString& cm, const QString& dt)
{
    request->setUrl(QUrl(QString::fromLatin1(path).arg(httpsBase)));
    request->addParameter(QStringLiteral("cm"), cm, true);
    request->addParameter(QStringLiteral("dt"), dt, false);
    request->process(HTTP_GET);
}

void Kelosdk::sendGet(quint32 bit, const char* path, const QString& cm, const QString& dt,
                      const std::function<void(const QString&)>& onReply)
{
    auto* request = new HttpBase(QUrl(QString()), this, httpDebug);
    request->setMaxReplySize(d->maxReplyBytes);
    d->trackRequest(request);
    connect(request, &HttpBase::done, this, [this, request, bit, onReply](const QVariant& data) {
        release(bit);
        d->settle(request);
        // Last: it emits the result, and the host may delete this object from its slot.
        onReply(data.toString());
    });
    wireError(request, bit);
    fillAndGet(request, path, cm, dt);
}

void Kelosdk::onNetworkError(int error, const QString& message)
{
    log(QStringLiteral("KELOSDK>> Network error=%1, msg=%2").arg(error).arg(message));
    // The host gave up on everything in flight: a late answer of an abandoned request must not
    // drive a newer request of its kind, nor reach the host after this networkError.
    d->abandonAll(this);
    busyFlags = 0;
    emit networkError(error, message);
}

// ---- login session ---------------------------------------------------------------------------

void Kelosdk::userLogin(const QString& usr, const QString& pwd, Kelosdk::user_type usrtype)
{
    log(QStringLiteral("KELOSDK>> Login request, user name=") + usr);
    if (!currentUserName.isEmpty()) {
        emit keloappError(107, QStringLiteral("user '%1' is logined").arg(currentUserName));
        return;
    }
    if (!d->claim(RequestKind::Login))
        return;

    QString word = QStringLiteral("client_login");
    if (usrtype == waiter)
        word = QStringLiteral("waiter_login");
    else if (usrtype == cashier)
        word = QStringLiteral("cashier_login");

    sendGet(BusyLogin, "%1/kelo/api/login/?", word, Libcmn::formatLogin(merchantId, usr, pwd),
            [this](const QString& reply) {
                log(QStringLiteral("KELOSDK>> User login done, data=") + reply);
                QString msg;
                const int code = Libcmn::getErrMsg(reply, &msg);
                if (code == 0)
                    Libcmn::getUserId(reply, currentUserId, currentUserName);
                emit userLoginDone(code, msg);
            });
}

void Kelosdk::userLogout()
{
    log(QStringLiteral("KELOSDK>> User request logout"));
    if (currentUserName.isEmpty() && currentUserId < 0) {
        emit keloappError(108, QStringLiteral("User not logined!"));
        return;
    }
    currentUserName.clear();
    currentUserId = -1;
    emit userLogoutDone(0, QStringLiteral("User logout done!"));
}

bool Kelosdk::userName(int& id, QString& name)
{
    log(QStringLiteral("KELOSDK>> User name=") + currentUserName + QStringLiteral(", id=") +
        number(currentUserId));
    if (currentUserId < 0)
        return false;
    id = currentUserId;
    name = currentUserName;
    emit userIdname(currentUserId, currentUserName);
    return true;
}

bool Kelosdk::userIslogged()
{
    log(QStringLiteral("KELOSDK>> User name=") + currentUserName + QStringLiteral(", id=") +
        number(currentUserId));
    return currentUserId >= 0;
}

// ---- menu, orders and tables -----------------------------------------------------------------

void Kelosdk::foodsRequest()
{
    log(QStringLiteral("KELOSDK>> Foods request ..."));
    if (!d->claim(RequestKind::Menu))
        return;
    auto* request = new HttpBase(QUrl(QString()), this, httpDebug);
    request->setMaxReplySize(d->maxReplyBytes);
    d->trackRequest(request);
    connect(request, SIGNAL(done(QVariant)), this, SLOT(onFoodsReadyDownload(QVariant)),
            Qt::UniqueConnection);
    connect(request, SIGNAL(done(QVariant)), request, SLOT(deleteLater()));
    wireError(request, BusyMenu);
    fillAndGet(request, "%1/kelo/api/item/?", QStringLiteral("getlist"),
               Libcmn::formatRequestFoods(merchantId));
}

void Kelosdk::onFoodsReadyDownload(const QVariant& data)
{
    log(QStringLiteral("KELOSDK>> Foods data content dowloading ..."));
    // The menu request's answer (a host may also hand a reply in itself, with no request).
    d->settle(sender());
    auto* manager = new CDownloadFileMan(debugLog, nullptr);
    manager->setMaxFileSize(d->maxPictureBytes);
    manager->setMaxPicturesInFlight(d->picturesInFlight);
    manager->setHttp2Allowed(kelo_limits::SdkPicturesOverHttp2);
    // Through the object's picture pool: the picture host's connections (and its TLS sessions)
    // stay open from one menu sync to the next, like the API's. A pool of its own, because Qt
    // fails every request waiting in a manager's queue for a server when one connection to it
    // breaks: a picture cut short must never take an API request (or the session fetch) with it
    // when the pictures come from the API's own host, nor the other way round.
    manager->setNetworkAccessManager(d->pictureNetwork());
    // Should this object go first, or the host give up, the run is abandoned with the rest.
    d->track(manager);
    connect(manager, &CDownloadFileMan::NotifyComplete, this, [this, manager](const QString& text) {
        log(QStringLiteral("KELOSDK>> Food request done!"));
        release(BusyMenu);
        d->settle(manager);
        emit foodsRequestDone(text);
    });

    // The manager pairs its list with the stored text by position: both must be this reply.
    const QString reply = data.toString();
    unsigned long long lastUpdate = 0;
    Libcmn::parseDataFoods(reply, *manager, lastUpdate);
    manager->SetData(reply);
    manager->StartDownload();
}

void Kelosdk::foodOrderRequest(const QJsonObject& foodItems)
{
    log(QStringLiteral("KELOSDK>> Food Order request ..."));
    if (!d->claim(RequestKind::FoodOrder))
        return;
    sendGet(BusyOrder, "%1/kelo/api/invoice/?", QStringLiteral("confirm_order"),
            Libcmn::formatRequestOrder(merchantId, currentUserId, foodItems),
            [this](const QString& reply) {
                log(QStringLiteral("KELOSDK>> Food order done, data=") + reply);
                emit foodOrderRequestDone(reply);
            });
}

void Kelosdk::tableRequest()
{
    log(QStringLiteral("KELOSDK>> Table request ..."));
    if (!d->claim(RequestKind::Tables))
        return;
    sendGet(BusyTables, "%1/kelo/api/table/?", QStringLiteral("getlist"),
            Libcmn::formatRequestFoods(merchantId), [this](const QString& reply) {
                log(QStringLiteral("KELOSSDK>> Table request respone:") + reply);
                emit tableRequestDone(reply);
            });
    // The bit guards only the building of the request: a second list may be asked for at once.
    release(BusyTables);
}

void Kelosdk::tableFoodsRequest(int tableId)
{
    log(QStringLiteral("KELOSDK>> Foods order list ..., tableId=") + number(tableId));
    if (!d->claim(RequestKind::TableFoods))
        return;
    sendGet(BusyTableFoods, "%1/kelo/api/invoice/?", QStringLiteral("get_order_list"),
            Libcmn::formatOrderlist(merchantId, tableId), [this](const QString& reply) {
                log(QStringLiteral("KELOSDK>> Food order info detail, data=") + reply);
                emit tableFoodsDone(reply);
            });
}

void Kelosdk::tableMergeRequest(int frmtableId, int totableId)
{
    log(QStringLiteral("KELOSDK>> Merge table, from:%1 to:%2").arg(frmtableId).arg(totableId));
    if (!d->claim(RequestKind::Merge))
        return;
    sendGet(BusyMerge, "%1/kelo/api/invoice/?", QStringLiteral("merge_table"),
            Libcmn::formatMergetable(merchantId, frmtableId, totableId),
            [this](const QString& reply) {
                log(QStringLiteral("KELOSDK>> Merge table done, data=") + reply);
                // The server may answer a merge with an empty body: that is a success.
                emit tableMergeDone(
                    reply.isEmpty() ? Libcmn::buildMsg(0, QStringLiteral("table merge success!"))
                                    : reply);
            });
}

// ---- payments and e-wallet invoices ----------------------------------------------------------
//
// The invoice chain, from tumipayRequest() to a paid or cancelled invoice. Its kind is
// RequestKind::Invoice (busy bit 2, refusal 103); the other comments of this section refer here.
//
//   none             Bit 2 clear, invoiceCode empty. tumipayRequest() claims the bit and creates
//                    the chain's request object (newTransferRequest), which sends "get_session".
//   session pending  Bit 2 set; the request object, tracked in d->inFlight, carries
//                    "get_session"; its session handler's createSent flag is clear. A session
//                    with code 0 (and paytype 1) moves on to "create" on the same object
//                    (sendCreate); any other answer settles the object and emits nothing, and
//                    bit 2 stays set.
//   create pending   Bit 2 set; the same object carries "create" and createSent is set: its
//                    replies belong to onTumipayQRInvoiceCode alone (the session handler, still
//                    connected, ignores them).
//   open             The "create" answer is in and no request object is left; bit 2 stays set
//                    whatever the answer. Code 0: invoiceCode holds the new invoice's code
//                    (tumiQRInvoiceCode); another code: keloappError, invoiceCode as it was.
//   paid             The "payment_success" notice of invoiceCode clears invoiceCode; bit 2 stays
//                    set, so a new invoice is refused until a reset.
//   cancelled        tumipayCancel(invoiceCode) releases bit 2 at once (a new invoice may start
//                    while the cancel is out) and clears invoiceCode when the cancel is answered.
//
// A transport error on "get_session" or "create" (requestFailed) and onNetworkError() release
// bit 2 from any state. Who releases the request object: there is one per chain, no member holds
// it (1.0 kept it in a member, where the pointer d now stands). It is released with deleteLater()
// through d->settle() by whichever handler ends the chain: the session handler for a refused
// session, onTumipayQRInvoiceCode for the "create" answer, requestFailed for a transport error;
// or by d->abandonAll() when the host gives up (onNetworkError) or the SDK object goes. A host's
// own tumipayTransfers() sends "create" on an object of its own, without claiming bit 2, and
// that object ends as a "create" object does.

void Kelosdk::paymentRequest(int tableId, int amount)
{
    log(QStringLiteral("KELOSDK>> Payment request, table id=%1, amount=%2")
            .arg(tableId)
            .arg(amount));
    if (!d->claim(RequestKind::Payment))
        return;
    sendGet(BusyPayment, "%1/kelo/api/invoice/?", QStringLiteral("payment"),
            Libcmn::formatPayment(merchantId, tableId, currentUserId, amount),
            [this](const QString& reply) {
                // The payment answer is logged with the table list's line.
                log(QStringLiteral("KELOSSDK>> Table request respone:") + reply);
                emit paymentDone(reply);
            });
    // Like the table list, the bit guards only the building of the request.
    release(BusyPayment);
}

void Kelosdk::tumipayRequest(long money, const QString& description, const QString& itemDetail)
{
    log(QStringLiteral("KELOSDK>> Tumipay request, money=") + number(money) +
        QStringLiteral(", description=") + description + QStringLiteral(", detail=") + itemDetail);
    if (!d->claim(RequestKind::Invoice))
        return;
    transPermisionRequest(1, money, description, itemDetail);
}

HttpBase2* Kelosdk::newTransferRequest()
{
    auto* request =
        new HttpBase2(QUrl(QStringLiteral("%1/kelo/api/invoice/").arg(httpsBase)), this, false);
    request->setMaxReplySize(d->maxReplyBytes);
    d->trackRequest(request);
    // A transport error on the session or on the "create" that reuses this object.
    connect(request, &HttpBase2::error, this,
            [this, request](const int& code, const QString& message) {
                requestFailed(request, BusyInvoice, code, message);
            });
    return request;
}

void Kelosdk::transPermisionRequest(int paytype, long money, const QString& description,
                                    const QString& itemDetail)
{
    HttpBase2* request = newTransferRequest();
    // The chain's own state: set once the object carries "create".
    auto createSent = std::make_shared<bool>(false);
    // The session handler stays connected when "create" reuses the object, so it also sees
    // the "create" reply. A "create" reply with "err" 0 and no "dt" reads as a session (code 0,
    // empty id) and would send a second "create" on an object already scheduled for deletion:
    // once the object carries "create", its replies belong to onTumipayQRInvoiceCode alone.
    connect(
        request, &HttpBase2::done, this,
        [this, request, createSent, paytype, money, description, itemDetail](const QVariant& data) {
            if (*createSent)
                return;
            QString sesId;
            const int code = Libcmn::getSesId(data.toString(), sesId);
            // A refused session emits nothing and keeps bit 2 (see the invoice chain above).
            if (code == 0 && paytype == 1) {
                *createSent = true;
                sendCreate(request, sesId, money, description, itemDetail);
            } else {
                d->settle(request); // the chain ends here: nothing more to carry
            }
        });
    request->addParameter(QStringLiteral("cm"), QStringLiteral("get_session"), true);
    request->addParameter(QStringLiteral("dt"), Libcmn::formatSession(merchantId, clientUuid),
                          false);
    request->process(HTTP_POST);
}

void Kelosdk::tumipayTransfers(const QString& sesId, long money, const QString& description,
                               const QString& itemDetail)
{
    // A host's own call, with a session it holds: a request object of its own. The chain of
    // tumipayRequest sends its "create" on the object that fetched its session (sendCreate).
    sendCreate(newTransferRequest(), sesId, money, description, itemDetail);
}

void Kelosdk::sendCreate(HttpBase2* request, const QString& sesId, long money,
                         const QString& description, const QString& itemDetail)
{
    connect(request, SIGNAL(done(QVariant)), this, SLOT(onTumipayQRInvoiceCode(QVariant)),
            Qt::UniqueConnection);
    connect(request, SIGNAL(done(QVariant)), request, SLOT(deleteLater()));

    const QString dtText =
        Libcmn::formatTumipay(merchantId, machineName, clientUuid, money, description, itemDetail);
    // Two successive substitutions, as the server computes them: a "%1" inside the message
    // takes the session, and the "%2" then stays in the signed text.
    const QString tk = Libcmn::HMacSha256(QStringLiteral("%1%2").arg(dtText).arg(sesId));
    const QString dtSent = QString::fromUtf8(QUrl::toPercentEncoding(dtText));

    request->addParameter(QStringLiteral("cm"), QStringLiteral("create"), true);
    request->addParameter(QStringLiteral("tk"), tk, false);
    request->addParameter(QStringLiteral("dt"), dtSent, false);
    // Never through the pool, and never sent twice: an answer lost on the way means the outcome
    // is unknown (error 205 when Qt would have sent it again), never a second invoice.
    kelo_detail::postOnce(*request);
}

void Kelosdk::onTumipayQRInvoiceCode(const QVariant& data)
{
    // The "create" request's answer (a host may also hand a reply in itself, with no request).
    d->settle(sender());
    const QString reply = data.toString();
    log(QStringLiteral("KELOSDK>> Tumipay respone, data=") + reply);
    QString msg;
    QString readInvoiceCode;
    const int code = Libcmn::getInvoiceQR(reply, msg, readInvoiceCode, nullptr, nullptr);
    if (code == 0) {
        invoiceCode = readInvoiceCode;
        QPointer<Kelosdk> alive(this);
        emit tumiQRInvoiceCode(reply);
        // Opened while the channel is down: its notice may be lost from the start.
        if (alive && !d->channelUp && d->gapInvoice.isEmpty() && !invoiceCode.isEmpty()) {
            d->gapInvoice = invoiceCode;
            emit noticeGap(invoiceCode, true);
        }
    } else {
        emit keloappError(code, msg);
    }
    // Bit 2 stays set while the invoice is open (see the invoice chain above).
}

void Kelosdk::tumipayCancel(const QString& invoiceCode)
{
    if (invoiceCode.isEmpty() || invoiceCode != this->invoiceCode) {
        log(QStringLiteral("KELOSDK>> Cancel invoice code not existed!, invoice code=") +
            invoiceCode);
        emit keloappError(
            105, QStringLiteral("kelo cancel invoice code not existed (%1)").arg(invoiceCode));
        return;
    }
    log(QStringLiteral("KELOSDK>> Tumipay cancel, invoice code=") + invoiceCode);
    if (d->busy(RequestKind::Cancel))
        log(QStringLiteral("KELOSDK>> Please waiting, system busy cancel process ..."));
    if (!d->claim(RequestKind::Cancel))
        return;
    sendGet(BusyCancel, "%1/kelo/api/invoice", QStringLiteral("cancel"),
            Libcmn::formatInvoiceCancel(invoiceCode, merchantId), [this](const QString& reply) {
                log(QStringLiteral("KELOSSDK>> Tumipay cancel respone:") + reply);
                this->invoiceCode.clear();
                emit tumipayCancelDone(reply);
            });
    // A cancel frees the way for a new invoice at once.
    release(BusyInvoice);
}

void Kelosdk::wssNotify(const QString& message)
{
    log(QStringLiteral("KELOSDK>> Server notify:") + message);
    const QString word = Libcmn::getNotifyMsg(message);
    if (word != QLatin1String("payment_success")) {
        emit notify(word);
        return;
    }
    QString noticeCode;
    QJsonObject dt;
    Libcmn::getNotifyDt(message, noticeCode, dt);
    if (noticeCode == invoiceCode)
        invoiceCode.clear();
    emit tumipayRequestDone(Libcmn::buildTumipayResponeMsg(-1, word, dt));
}
