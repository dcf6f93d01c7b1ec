#pragma once

// Private to the library: what a Kelosdk keeps beyond the members its public header declares.

#include "kelolimits_p.h"

#include <QList>
#include <QPointer>
#include <QString>
#include <QtGlobal>

class HttpBase;
class HttpBase2;
class Kelosdk;
class QNetworkAccessManager;
class QObject;
class WSClient;

namespace kelo_detail {
class SharedNetwork;
}

namespace kelo_sdk {

/// The request kinds that the SDK object holds while their request is out: at most one of each.
/// The e-wallet chain ("get_session", then "create") is one kind, Invoice. A new kind goes just
/// above KindCount, and its row goes at the same place in Refusals below.
enum class RequestKind
{
    Login,
    Menu,
    FoodOrder,
    Tables,
    TableFoods,
    Merge,
    Payment,
    Invoice,
    Cancel,
    /// Not a kind: how many kinds there are. Stays last.
    KindCount
};

/// How many request kinds there are (Refusals has one row for each).
constexpr int RequestKindCount = static_cast<int>(RequestKind::KindCount);

/// A request kind's busy bit, and the keloappError() that refuses a second request of the kind
/// while the first holds the bit.
struct Refusal
{
    RequestKind kind;
    quint32 busyBit;
    int code;
    const char* text;
};

/// Every request kind's refusal, in RequestKind order. The SDK object's other refusals are not
/// about a kind being busy and stay where they are decided: 105 (tumipayCancel with an unknown
/// invoice code), 107 (userLogin while someone is logged in) and 108 (userLogout with nobody
/// logged in). No refusal uses code 109.
inline constexpr Refusal Refusals[] = {
    {RequestKind::Login, 8, 106, "kelo process login busy!"},
    {RequestKind::Menu, 1, 102, "kelo process food busy!"},
    {RequestKind::FoodOrder, 32, 102, "kelo process food order busy!"},
    // Held only while the request is built: never refused in practice.
    {RequestKind::Tables, 16, 110, "kelo process table busy"},
    {RequestKind::TableFoods, 64, 111, "kelo process ordered foods list information detail!"},
    {RequestKind::Merge, 128, 112, "kelo process merge table!"},
    // Held only while the request is built, like Tables.
    {RequestKind::Payment, 256, 113, "kelo process payment busy"},
    {RequestKind::Invoice, 2, 103, "kelo process tumipay busy"},
    {RequestKind::Cancel, 4, 104, "kelo process paycancel busy"},
};

/// The refusal of @p kind.
constexpr const Refusal& refusalOf(RequestKind kind)
{
    return Refusals[static_cast<int>(kind)];
}

/// The busy bit of @p kind.
constexpr quint32 busyBit(RequestKind kind)
{
    return refusalOf(kind).busyBit;
}

} // namespace kelo_sdk

class KelosdkPrivate
{
public:
    explicit KelosdkPrivate(Kelosdk* owner);
    ~KelosdkPrivate();
    Q_DISABLE_COPY(KelosdkPrivate)

    /// The SDK object this belongs to.
    Kelosdk* const q;
    /// The notification client; the SDK object's destructor retires it (kelo_detail::retireClient).
    WSClient* client = nullptr;

    /// Whether the notification channel is up (connected and not reported closed since).
    bool channelUp = false;
    /// The invoice whose notices may have been missed (noticeGap(code, true) was emitted); empty
    /// when no gap is open.
    QString gapInvoice;

    /// The connection pool that every request of this object goes through (the "create" of an
    /// invoice excepted, see kelo_detail::postOnce()), and the notification client's session
    /// fetch while this object lives.
    QNetworkAccessManager* network();
    /// The pool of the menu runs' pictures: kept apart from network() so that a broken picture
    /// download never fails an API request queued behind it in the same manager.
    QNetworkAccessManager* pictureNetwork();

    /// What the SDK object waits on: its request objects (children of the object) and its
    /// picture runs (CDownloadFileMan, no parent), from their start until their result is handled
    /// or they are abandoned. Each flow's handlers capture their own object; nothing here is
    /// shared between flows.
    QList<QPointer<QObject>> inFlight;

    qint64 maxReplyBytes = kelo_limits::DefaultMaxReplyBytes;
    qint64 maxPictureBytes = kelo_limits::DefaultMaxPictureBytes;
    qint64 maxNotificationBytes = kelo_limits::DefaultMaxNotificationBytes;
    int picturesInFlight = kelo_limits::DefaultSdkPicturesInFlight;
    int requestIdleMs = kelo_limits::DefaultRequestIdleTimeoutMs;

    /// The notification channel came up (@p up) or reported itself down: emits
    /// cloudConnectionChange(), then opens or closes a notice gap (noticeGap()).
    void channelChanged(bool up);

    /// Takes @p kind's busy bit, true; or, if a request of the kind is already out, emits the
    /// kind's refusal (keloappError) and returns false.
    bool claim(kelo_sdk::RequestKind kind);
    /// True while a request of @p kind holds its busy bit.
    bool busy(kelo_sdk::RequestKind kind) const;

    /// Starts waiting on @p object.
    void track(QObject* object);
    /// The result of @p object is being handled: it is no longer waited on, leaves the SDK object
    /// (so that a host deleting the SDK from the result's slot does not delete it inside its own
    /// signal) and is released with deleteLater(). False, doing nothing, if @p object is not
    /// waited on.
    bool settle(QObject* object);
    /// Hands @p request the pool and the idle deadline and starts waiting on it.
    void trackRequest(HttpBase* request);
    void trackRequest(HttpBase2* request);
    /// Abandons everything waited on: each object is disconnected from @p owner, a request
    /// aborted, a picture run stopped, and all released with deleteLater(), so that no late
    /// answer of theirs ever reaches @p owner.
    void abandonAll(QObject* owner);

private:
    // A child of the SDK object (where a test finds it), deleted with this part, after the
    // destructor of the SDK object has abandoned its requests; what still goes through it then
    // (a session fetch of the notification client) is aborted by it.
    kelo_detail::SharedNetwork* const pool;
    kelo_detail::SharedNetwork* const picturePool;
};
