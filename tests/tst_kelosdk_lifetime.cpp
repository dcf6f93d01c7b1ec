// The host deletes the SDK object from inside a result slot, with delete or deleteLater(), for
// every signal the object sends: nothing of it is used afterwards, and what it had in flight (a
// request that never ends, a picture run) is released from the event loop, never inside its own
// signal. Run it under AddressSanitizer: a use of freed memory aborts the test.
// Objects created, connected and deleted, 100 times, leave the threads, sockets and heap of the
// process where they were: each object's notification channel goes with it.
#include "httpbase.h"
#include "httpbase2.h"
#include "kelosdkfixture.h"
#include "sdkkinds.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMetaMethod>
#include <QPointer>

#include <malloc.h>
#include <sys/stat.h>

namespace {

/// The steps that lead to one emission of the signal under test; the last one emits it, and
/// nothing may touch the object after it (it may be gone).
using Drive = std::function<void(Kelosdk&, SdkFixture&)>;

const QByteArray kAnna = R"({"dt":{"staff_id":4,"staff_name":"Anna"},"err":0,"msg":"ok"})";
const QByteArray kEmptyMenu = R"({"dt":{"items":[],"last_update":5},"err":0,"msg":"ok"})";
const QByteArray kSession = R"({"dt":{"invoice_session":"S1"},"err":0})";

QString picturePath()
{
    return QStandardPaths::standardLocations(QStandardPaths::AppLocalDataLocation).value(0) +
           QStringLiteral("/images/7.png");
}

void script(SdkFixture& f, const char* kind, const CloudReply& reply)
{
    f.cloud->scriptReply(sdkKind(kind).path, sdkKind(kind).cm, reply);
}

void loggedIn(Kelosdk& sdk, SdkFixture& f)
{
    script(f, "login", replyWith(kAnna));
    QSignalSpy done(&sdk, SIGNAL(userLoginDone(int, QString)));
    sdk.userLogin(QStringLiteral("anna"), QStringLiteral("pw"));
    if (!done.wait(kWait))
        qWarning("no login answer");
}

void connected(SdkFixture& f)
{
    if (!QTest::qWaitFor([&] { return f.cloud->connectedDevices().contains(f.device); }, kWait))
        qWarning("the device never connected");
}

/// The invoice chain, its "create" answered with @p createReply.
void invoice(Kelosdk& sdk, SdkFixture& f, const QByteArray& createReply = kInvoiceReply)
{
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("get_session"), replyWith(kSession));
    script(f, "create", replyWith(createReply));
    sdkKind("create").call(sdk);
}

void invoiceOpen(Kelosdk& sdk, SdkFixture& f)
{
    QSignalSpy qr(&sdk, SIGNAL(tumiQRInvoiceCode(QString)));
    invoice(sdk, f);
    if (!qr.wait(kWait))
        qWarning("no invoice opened");
}

/// One plain request of @p kind answered with @p body.
Drive answered(const char* kind, const QByteArray& body = "{}")
{
    return [kind, body](Kelosdk& sdk, SdkFixture& f) {
        script(f, kind, replyWith(body));
        sdkKind(kind).call(sdk);
    };
}

int threadCount()
{
    return QDir(QStringLiteral("/proc/self/task"))
        .entryList(QDir::Dirs | QDir::NoDotAndDotDot)
        .size();
}

int socketCount()
{
    int sockets = 0;
    const QDir fds(QStringLiteral("/proc/self/fd"));
    for (const QString& fd : fds.entryList(QDir::System | QDir::NoDotAndDotDot)) {
        struct stat info
        {
        };
        if (::stat(QFile::encodeName(fds.filePath(fd)).constData(), &info) == 0 &&
            S_ISSOCK(info.st_mode))
            ++sockets;
    }
    return sockets;
}

/// Heap bytes in use (not meaningful under AddressSanitizer, which has its own allocator).
qint64 heapInUse()
{
    return qint64(mallinfo2().uordblks);
}

/// Lets the event loop release what went with deleteLater().
void settleEvents()
{
    for (int i = 0; i < 5; ++i) {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QTest::qWait(20);
    }
}

/// Deletes the SDK object on the first emission of the signal it is connected to, and counts the
/// objects of inFlight that did not survive the delete.
class Killer : public QObject
{
    Q_OBJECT
public:
    Kelosdk* sdk = nullptr;
    bool later = false;
    int emissions = 0;
    QList<QPointer<QObject>> inFlight;
    int destroyedInside = 0;

public Q_SLOTS:
    void kill()
    {
        if (++emissions > 1)
            return;
        // Whatever is still the object's child now, the emitting request included, must
        // survive a delete.
        for (QObject* request : sdk->findChildren<HttpBase*>())
            inFlight.append(request);
        for (QObject* request : sdk->findChildren<HttpBase2*>())
            inFlight.append(request);
        if (later) {
            sdk->deleteLater();
            return;
        }
        delete sdk;
        for (const QPointer<QObject>& request : qAsConst(inFlight))
            destroyedInside += request.isNull();
    }
};

} // namespace

Q_DECLARE_METATYPE(Drive)

class TestSdkLifetime : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QVERIFY(f.startCloud()); }
    void cleanupTestCase() { f.sdk.reset(); }
    void deletedInsideAResultSlot_data();
    void deletedInsideAResultSlot();
    void channelGoesWithTheObject_data();
    void channelGoesWithTheObject();

private:
    SdkFixture f;
};

void TestSdkLifetime::deletedInsideAResultSlot_data()
{
    QTest::addColumn<QByteArray>("signal");
    QTest::addColumn<Drive>("drive");
    QTest::addColumn<bool>("later");

    QList<QPair<QByteArray, Drive>> rows;
    const auto add = [&rows](const char* signal, const Drive& drive) {
        rows.append({signal, drive});
    };
    add("userLoginDone", answered("login", kAnna));
    add("userLogoutDone", [](Kelosdk& sdk, SdkFixture& f) {
        loggedIn(sdk, f);
        sdk.userLogout();
    });
    add("userIdname", [](Kelosdk& sdk, SdkFixture& f) {
        loggedIn(sdk, f);
        int id = 0;
        QString name;
        sdk.userName(id, name);
    });
    add("foodsRequestDone", answered("menu", kEmptyMenu));
    add("foodOrderRequestDone", answered("food order"));
    add("tableRequestDone", answered("tables"));
    add("tableFoodsDone", answered("table foods"));
    add("tableMergeDone", answered("merge", ""));
    add("paymentDone", answered("payment"));
    add("tumiQRInvoiceCode", [](Kelosdk& sdk, SdkFixture& f) { invoice(sdk, f); });
    add("tumipayRequestDone", [](Kelosdk&, SdkFixture& f) {
        connected(f);
        f.cloud->pushText(f.device, R"({"dt":{"invoice_code":"X"},"msg":"payment_success"})");
    });
    add("tumipayCancelDone", [](Kelosdk& sdk, SdkFixture& f) {
        invoiceOpen(sdk, f);
        answered("cancel")(sdk, f);
    });
    add("keloappError", [](Kelosdk& sdk, SdkFixture& f) { // the server refuses the invoice
        invoice(sdk, f, R"({"err":4,"msg":"expired"})");
    });
    add("notify", [](Kelosdk&, SdkFixture& f) {
        connected(f);
        f.cloud->pushText(f.device, R"({"msg":"table_update"})");
    });
    // Connected by now or soon: either way the state changes once more.
    add("cloudConnectionChange", [](Kelosdk&, SdkFixture& f) {
        if (f.cloud->connectedDevices().contains(f.device))
            f.cloud->dropWebSockets();
    });
    add("networkError", [](Kelosdk& sdk, SdkFixture& f) { // a transport failure of a request
        script(f, "login", replyWith("{}", 500));
        sdkKind("login").call(sdk);
    });
    for (const auto& row : qAsConst(rows))
        for (const bool later : {false, true})
            QTest::addRow("%s / %s", row.first.constData(), later ? "deleteLater" : "delete")
                << row.first << row.second << later;
    // The host gives up while requests and a picture run are out.
    for (const bool later : {false, true})
        QTest::addRow("networkError, host resets / %s", later ? "deleteLater" : "delete")
            << QByteArray("networkError")
            << Drive([](Kelosdk& sdk, SdkFixture&) { sdk.onNetworkError(5, QStringLiteral("x")); })
            << later;
}

void TestSdkLifetime::deletedInsideAResultSlot()
{
    QFETCH(QByteArray, signal);
    QFETCH(Drive, drive);
    QFETCH(bool, later);

    QFile::remove(picturePath()); // fetched afresh
    Kelosdk* sdk = &f.newSdk();
    f.sdk.release(); // the slot below owns it now

    // Out when the object goes: a request that is never answered and a picture that never comes.
    const char* pending = signal == "tableFoodsDone" ? "merge" : "table foods";
    script(f, pending, faultReply(CloudReply::Fault::NeverAnswer));
    sdkKind(pending).call(*sdk);
    const bool withPictures = signal != "foodsRequestDone";
    if (withPictures) {
        const QByteArray menu =
            QStringLiteral(
                R"({"dt":{"img_host":"%1","items":[{"img_crc":"1","img_path":"/pics/7.png","item_id":7}]},"err":0})")
                .arg(f.cloud.baseUrl())
                .toUtf8();
        script(f, "menu", replyWith(menu));
        f.cloud->scriptReply("/pics/7.png", QString(), faultReply(CloudReply::Fault::NeverAnswer));
        sdkKind("menu").call(*sdk);
        QVERIFY(f.waitExchanges("/pics/7.png", QString(), 1));
        QVERIFY(QFile::exists(picturePath())); // the download's file, still empty
    }
    QVERIFY(f.waitExchanges(sdkKind(pending).path, sdkKind(pending).cm, 1));

    Killer killer;
    killer.sdk = sdk;
    killer.later = later;
    for (QObject* request : sdk->findChildren<HttpBase*>())
        killer.inFlight.append(request);
    const QMetaObject* meta = sdk->metaObject();
    QMetaMethod target;
    for (int i = meta->methodOffset(); i < meta->methodCount(); ++i)
        if (meta->method(i).methodType() == QMetaMethod::Signal && meta->method(i).name() == signal)
            target = meta->method(i);
    QVERIFY(target.isValid());
    QVERIFY(connect(sdk, target, &killer,
                    killer.metaObject()->method(killer.metaObject()->indexOfSlot("kill()"))));
    QSignalSpy gone(sdk, SIGNAL(destroyed(QObject*)));

    drive(*sdk, f);
    QVERIFY(gone.size() == 1 || gone.wait(kWait));
    // After delete nothing more reaches the host. After deleteLater the object lives on to the
    // end of the current pass of the event loop, and a signal it repeats by design (the channel
    // reports its close twice) may come once more before it goes.
    if (later)
        QVERIFY(killer.emissions >= 1);
    else
        QCOMPARE(killer.emissions, 1);
    QCOMPARE(killer.destroyedInside, 0);
    QVERIFY(!killer.inFlight.isEmpty());
    // Released from the event loop: every request object, and the picture run with its file.
    for (const QPointer<QObject>& request : qAsConst(killer.inFlight))
        QTRY_VERIFY_WITH_TIMEOUT(request.isNull(), kWait);
    if (withPictures) // released in the same pass as the requests
        QVERIFY(!QFile::exists(picturePath()));
}

void TestSdkLifetime::channelGoesWithTheObject_data()
{
    QTest::addColumn<bool>("fromSlot"); // deleted from its cloudConnectionChange(true) slot
    QTest::addColumn<bool>("later");
    QTest::newRow("after connecting / delete") << false << false;
    QTest::newRow("after connecting / deleteLater") << false << true;
    QTest::newRow("from cloudConnectionChange / delete") << true << false;
    QTest::newRow("from cloudConnectionChange / deleteLater") << true << true;
}

void TestSdkLifetime::channelGoesWithTheObject()
{
    QFETCH(bool, fromSlot);
    QFETCH(bool, later);
    constexpr int Objects = 100;

    // One object created, connected and deleted, for Qt's one-off caches (TLS, network thread).
    const auto cycle = [&](int& connects, int& downs) {
        auto* sdk =
            new Kelosdk(QString::fromLatin1(kMerchant), QString::fromLatin1(kMachine), false);
        QSignalSpy change(sdk, &Kelosdk::cloudConnectionChange);
        QSignalSpy gap(sdk, &Kelosdk::noticeGap);
        QSignalSpy gone(sdk, &QObject::destroyed);
        if (fromSlot)
            connect(sdk, &Kelosdk::cloudConnectionChange, sdk, [sdk, later](bool up) {
                if (!up)
                    return;
                if (later)
                    sdk->deleteLater();
                else
                    delete sdk;
            });
        if (!QTest::qWaitFor([&] { return !change.isEmpty() || !gone.isEmpty(); }, kWait))
            return false;
        connects += int(change.count(QList<QVariant>{true}));
        downs += int(change.count(QList<QVariant>{false})) + gap.count();
        if (!fromSlot) {
            if (later)
                sdk->deleteLater();
            else
                delete sdk;
        }
        return gone.size() == 1 || gone.wait(kWait);
    };
    int connects = 0;
    int downs = 0;
    QVERIFY(cycle(connects, downs));
    settleEvents();
    QTRY_COMPARE_WITH_TIMEOUT(f.cloud->connectedDevices().size(), 0, kWait);

    // The cloud in this process records every request; only the SDK's own heap is compared.
    f.cloud->clearExchanges();
    const int threadsBefore = threadCount();
    const int socketsBefore = socketCount();
    const qint64 heapBefore = heapInUse();
    connects = 0;
    for (int i = 0; i < Objects; ++i)
        QVERIFY2(cycle(connects, downs), qPrintable(QStringLiteral("object %1").arg(i)));
    settleEvents();
    QCOMPARE(connects, Objects);
    QCOMPARE(downs, 0);
    // The server sees every channel close.
    QTRY_COMPARE_WITH_TIMEOUT(f.cloud->connectedDevices().size(), 0, kWait);
    QTRY_COMPARE_WITH_TIMEOUT(threadCount(), threadsBefore, kWait);
    QTRY_COMPARE_WITH_TIMEOUT(socketCount(), socketsBefore, kWait);
    f.cloud->clearExchanges();
    const qint64 grown = heapInUse() - heapBefore;
    qInfo("heap after %d objects: %+lld bytes", Objects, grown);
#if !defined(__SANITIZE_ADDRESS__)
    // A client left behind holds a socket, its TLS state and buffers: far more than 4 KiB each.
    QVERIFY2(grown < Objects * 4096, qPrintable(QString::number(grown)));
#endif
}

QTEST_GUILESS_MAIN(TestSdkLifetime)
#include "tst_kelosdk_lifetime.moc"
