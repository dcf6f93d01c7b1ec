// Every request kind of the SDK object against every way the server can fail it: the one signal
// that ends the request, and whether the kind is then free again or still held.
#include "httpbase2.h"
#include "sdkkinds.h"
#include "signalrecorder.h"
#include "tempdatalocation.h"
#include "testcloud.h"
#include "testwait.h"

#include <QNetworkReply>
#include <QStandardPaths>
#include <QtTest>

#include <memory>

using kelocloud::CloudReply;

namespace {

const QByteArray kGarbage = "<html>not json";
// What the host passes to onNetworkError when it gives up on a request that never ends.
constexpr int kHostGaveUpCode = QNetworkReply::TimeoutError;
const char kRefused[] = "connection refused";
const char kUntrusted[] = "untrusted certificate";
const char kNeverAnswer[] = "no answer, host gives up";
const char kIdleDeadline[] = "no answer, idle deadline";
// The idle deadline of the row above, short so that the suite stays fast.
constexpr int kIdleMs = 300;
const char kCreateNotResent[] =
    "connection closed before the answer; the request was not sent again, its outcome is unknown";

/// One way the server fails a request, and the networkError it ends in (code 0: it does not,
/// the answer is a body that is not the expected JSON; %1 in the text: the request's URL).
struct Fault
{
    QByteArray name;
    CloudReply answer; ///< scripted for the request, unless no server answers at all
    int times;         ///< how many requests get it
    int code;
    QString text;
};

const QList<Fault>& faults()
{
    static const QList<Fault> list = [] {
        QList<Fault> all;
        const auto add = [&all](const char* name, int status, const QByteArray& body,
                                CloudReply::Fault fault, int times, int code, const char* text) {
            all.append({name, CloudReply{status, body, {}, 0, fault, false}, times, code,
                        QString::fromLatin1(text)});
        };
        using F = CloudReply::Fault;
        add(kRefused, 0, "", F::None, 0, QNetworkReply::ConnectionRefusedError,
            "Connection refused");
        // Qt sends a request again, up to three times, when its connection closes before any
        // answer; after half a body it gives up at once.
        add("reset before answer", 200, "", F::ResetBeforeHeaders, 4,
            QNetworkReply::RemoteHostClosedError, "Connection closed");
        add("reset mid-body", 200, kInvoiceReply.repeated(64), F::ResetMidBody, 1,
            QNetworkReply::RemoteHostClosedError, "Connection closed");
        add("HTTP 404", 404, R"({"err":0})", F::None, 1, QNetworkReply::ContentNotFoundError,
            "Error transferring %1 - server replied: Not Found");
        add("HTTP 500", 500, R"({"err":0})", F::None, 1, QNetworkReply::InternalServerError,
            "Error transferring %1 - server replied: Internal Server Error");
        add(kNeverAnswer, 200, "", F::NeverAnswer, 1, kHostGaveUpCode, "the host gave up waiting");
        // The library's own deadline ends it: once, and the kind is free again.
        add(kIdleDeadline, 200, "", F::NeverAnswer, 1, QNetworkReply::TimeoutError,
            "no answer from the server for 300 ms");
        add(kUntrusted, 0, "", F::None, 0, QNetworkReply::SslHandshakeFailedError,
            KELO_TEST_UNTRUSTED_TEXT);
        add("garbage body", 200, kGarbage, F::None, 1, 0, "");
        add("empty body", 200, "", F::None, 1, 0, "");
        // A captive portal sends every request to its login page; an empty answer must not
        // pass for the cloud's (the merge would call it a success).
        add("redirect (captive portal)", 302, "", F::None, 1, 10,
            "server answered HTTP 302 (a redirect), which is not followed");
        all.last().answer.headers = {{"Location", "https://127.0.0.1:1/portal"}};
        add("oversized answer", 200, "", F::None, 1, 299,
            "reply larger than the limit of 8388608 bytes");
        all.last().answer.streamBytes = 8 * 1024 * 1024 + 1; // one byte over the default cap
        all.last().answer.chunked = true;
        return all;
    }();
    return list;
}

} // namespace

class TestFaultMatrix : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void everyKindAgainstEveryFault_data();
    void everyKindAgainstEveryFault();

private:
    std::unique_ptr<Kelosdk> sdkFor(const Fault& fault);
    bool openInvoice(Kelosdk& sdk, bool noServer);
    TempDataLocation data;
    TestCloud cloud;
    TestCloud untrusted{TestCloud::Untrusted};
};

void TestFaultMatrix::initTestCase()
{
    QVERIFY(data.isValid()); // a picture cache of this run alone
    QVERIFY(cloud.start());
    QVERIFY(untrusted.start());
    cloud.pointSdkHere();
}

void TestFaultMatrix::cleanupTestCase()
{
    cloud->goDown();
    untrusted->goDown();
}

std::unique_ptr<Kelosdk> TestFaultMatrix::sdkFor(const Fault& fault)
{
    // The SDK reads its server when it is constructed.
    if (fault.name == kRefused)
        qputenv("KELO_SERVER_HOST", "127.0.0.1:1");
    else if (fault.name == kUntrusted)
        untrusted.pointSdkHere();
    std::unique_ptr<Kelosdk> sdk(
        new Kelosdk(QStringLiteral("M01"), QStringLiteral("POS-1"), false));
    if (fault.name == kIdleDeadline)
        sdk->setRequestIdleTimeout(kIdleMs);
    cloud.pointSdkHere();
    return sdk;
}

bool TestFaultMatrix::openInvoice(Kelosdk& sdk, bool noServer)
{
    QSignalSpy qr(&sdk, SIGNAL(tumiQRInvoiceCode(QString)));
    if (noServer) {
        // No server to open it with: the host hands the "create" reply to the SDK itself.
        sdk.onTumipayQRInvoiceCode(QVariant(kInvoiceReply));
        return qr.size() == 1;
    }
    cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("create"),
                       CloudReply{200, kInvoiceReply, {}, 0, CloudReply::Fault::None, false});
    sdkKind("create").call(sdk);
    return qr.wait(kWait);
}

void TestFaultMatrix::everyKindAgainstEveryFault_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<int>("fault");          // in faults()
    QTest::addColumn<QByteArray>("signal");  // the one signal that ends the request, or ""
    QTest::addColumn<QVariantList>("args");  // its arguments
    QTest::addColumn<QVariantList>("again"); // the refusal of the same request again; none: free

    for (const SdkKind& kind : sdkKinds()) {
        const QByteArray name = kind.name;
        for (int index = 0; index < faults().size(); ++index) {
            const Fault& fault = faults().at(index);
            const auto row = [&](const QByteArray& signal, const QVariantList& args,
                                 const QVariantList& again = {}) {
                QTest::addRow("%s / %s", kind.name, fault.name.constData())
                    << name << index << signal << args << again;
            };
            const QString body = QString::fromLatin1(fault.answer.body);
            const QString url = cloud.baseUrl() + QString::fromLatin1(kind.path);
            // A "create" is never sent again: where Qt would resend it, it ends in 205 at once.
            if (name == "create" && fault.answer.fault == CloudReply::Fault::ResetBeforeHeaders)
                row("networkError", {int(QNetworkReply::ContentReSendError), kCreateNotResent});
            else if (fault.code != 0) // a transport failure (or the host giving up) frees any kind
                row("networkError",
                    {fault.code, fault.text.contains("%1") ? fault.text.arg(url) : fault.text});
            else if (name == "login") // unreadable: code -1, no message
                row(kind.done, {-1, QString()});
            else if (name == "menu") // nothing to fetch: an empty item list
                row(kind.done, {R"({"dt":{"items":[]}})"});
            else if (name == "merge" && body.isEmpty())
                row(kind.done, {R"({"err":0,"msg":"table merge success!"})"});
            else if (name == "get_session") // a refused session: nothing said, the kind held
                row("", {}, kind.busy());
            else if (name == "create") // unreadable: -1, no message; held as an open invoice
                row("keloappError", {-1, QString()}, kind.busy());
            else if (name == "cancel") // any answer ends the invoice
                row(kind.done, {body},
                    {105, "kelo cancel invoice code not existed (" + kInvoiceCode + ')'});
            else // passed through as it came
                row(kind.done, {body});
        }
    }
}

void TestFaultMatrix::everyKindAgainstEveryFault()
{
    QFETCH(QByteArray, kind);
    QFETCH(int, fault);
    QFETCH(QByteArray, signal);
    QFETCH(QVariantList, args);
    QFETCH(QVariantList, again);
    const SdkKind& k = sdkKind(kind);
    const Fault& f = faults().at(fault);
    const bool noServer = f.name == kRefused || f.name == kUntrusted;
    TestCloud& server = f.name == kUntrusted ? untrusted : cloud;
    cloud->clearScripts();
    cloud->clearExchanges();
    untrusted->clearExchanges();

    std::unique_ptr<Kelosdk> sdk = sdkFor(f);
    if (k.cm == "cancel") {
        // An invoice opened before the channel is first up has a notice gap, whose end
        // (noticeGap(code, false)) would come among the cancel's signals: the channel comes first.
        QSignalSpy channel(sdk.get(), SIGNAL(cloudConnectionChange(bool)));
        if (!noServer)
            QTRY_VERIFY_WITH_TIMEOUT(!channel.isEmpty() && channel.last().at(0).toBool(), kWait);
        QVERIFY(openInvoice(*sdk, noServer));
    }
    if (!noServer)
        cloud->scriptReply(k.path, k.cm, f.answer, f.times);
    SignalRecorder seen(sdk.get(), {"cloudConnectionChange"});

    // No session can succeed where no server answers: there the host calls the chain's second
    // step itself.
    if (k.cm == "create" && noServer)
        sdk->tumipayTransfers(QStringLiteral("S1"), 5, QStringLiteral("Table 3"),
                              QStringLiteral("Bill"));
    else
        k.call(*sdk);
    if (f.name == kNeverAnswer) {
        QTRY_COMPARE_WITH_TIMEOUT(cloud->exchanges(k.path, k.cm).size(), 1, kWait);
        sdk->onNetworkError(kHostGaveUpCode, f.text);
    } else if (signal.isEmpty()) {
        // Nothing reaches the host: wait for the reply to reach the request object instead.
        auto* request = sdk->findChild<HttpBase2*>();
        QVERIFY(request);
        QVERIFY(QSignalSpy(request, SIGNAL(done(QVariant))).wait(kWait));
    } else {
        QTRY_VERIFY_WITH_TIMEOUT(!seen[signal].isEmpty(), kWait);
    }

    // Exactly the one terminal signal, nothing else (a deadline that fired again would show
    // within a few more of its periods).
    if (f.name == kIdleDeadline)
        QTest::qWait(3 * kIdleMs);
    QCOMPARE(seen.fired(), signal.isEmpty() ? QStringList() : QStringList{signal + " x1"});
    if (!signal.isEmpty())
        QCOMPARE(seen[signal].constFirst(), args);
    if (f.name == kUntrusted) // not a byte of a request, nor the notification channel's
        QCOMPARE(untrusted->exchanges().size(), 0);

    // The same request again (for "create" the whole chain, which is what its kind guards).
    cloud->clearScripts();
    const QString probe = k.cm == "create" ? QStringLiteral("get_session") : k.cm;
    const int sentBefore = server->exchanges(k.path, probe).size();
    const int refusalsBefore = seen["keloappError"].size();
    k.call(*sdk);
    if (!again.isEmpty()) {
        QCOMPARE(seen["keloappError"].size(), refusalsBefore + 1);
        QCOMPARE(seen["keloappError"].constLast(), again);
        QCOMPARE(server->exchanges(k.path, probe).size(), sentBefore);
        return;
    }
    // Free: it goes out and is waited for to its end. A chain left running would reach the
    // server after the next row has scripted its fault, and take that fault for itself.
    const QByteArray end = k.done.isEmpty() || k.cm == "create" ? "tumiQRInvoiceCode" : k.done;
    const int endsBefore = seen[end].size() + seen["networkError"].size();
    QTRY_VERIFY_WITH_TIMEOUT(seen[end].size() + seen["networkError"].size() > endsBefore, kWait);
    QCOMPARE(seen["keloappError"].size(), refusalsBefore);
    QVERIFY(noServer || server->exchanges(k.path, probe).size() > sentBefore);
}

QTEST_GUILESS_MAIN(TestFaultMatrix)
#include "tst_faultmatrix.moc"
