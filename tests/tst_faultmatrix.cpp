// Every request kind of the SDK object against every way the server can fail it: the one signal
// that ends the request, and whether the kind is then free again or still held.
#include "httpbase2.h"
#include "kelosdk.h"
#include "testcloud.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QMetaMethod>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QtTest>

#include <memory>

using kelocloud::CloudReply;

namespace {

enum class Kind
{
    Login,
    Menu,
    Order,
    Tables,
    TableFoods,
    Merge,
    Payment,
    Session,
    Create,
    Cancel
};

enum class Fault
{
    Refused,
    ResetBefore,
    ResetMid,
    NotFound,
    ServerError,
    Garbage,
    Empty,
    NeverAnswer,
    Untrusted
};

/// What the same request meets when it is asked for again after the fault.
enum class Again
{
    Free,     ///< a new request goes out
    Held,     ///< refused with the kind's busy code, nothing sent
    Forgotten ///< (cancel) the invoice is gone: refused with 105, nothing sent
};

struct KindInfo
{
    const char* name;
    QByteArray path; // where the request goes ...
    QString cm;      // ... and its operation word
    const char* doneSignal;
    int busyCode;
    const char* busyText;
};

const QMap<Kind, KindInfo>& kinds()
{
    static const QMap<Kind, KindInfo> table{
        {Kind::Login,
         {"login", "/kelo/api/login/", "client_login", "userLoginDone", 106,
          "kelo process login busy!"}},
        {Kind::Menu,
         {"menu", "/kelo/api/item/", "getlist", "foodsRequestDone", 102,
          "kelo process food busy!"}},
        {Kind::Order,
         {"food order", "/kelo/api/invoice/", "confirm_order", "foodOrderRequestDone", 102,
          "kelo process food order busy!"}},
        {Kind::Tables,
         {"tables", "/kelo/api/table/", "getlist", "tableRequestDone", 110,
          "kelo process table busy"}},
        {Kind::TableFoods,
         {"table foods", "/kelo/api/invoice/", "get_order_list", "tableFoodsDone", 111,
          "kelo process ordered foods list information detail!"}},
        {Kind::Merge,
         {"merge", "/kelo/api/invoice/", "merge_table", "tableMergeDone", 112,
          "kelo process merge table!"}},
        {Kind::Payment,
         {"payment", "/kelo/api/invoice/", "payment", "paymentDone", 113,
          "kelo process payment busy"}},
        {Kind::Session,
         {"get_session", "/kelo/api/invoice/", "get_session", "", 103,
          "kelo process tumipay busy"}},
        {Kind::Create,
         {"create", "/kelo/api/invoice/", "create", "tumiQRInvoiceCode", 103,
          "kelo process tumipay busy"}},
        {Kind::Cancel,
         {"cancel", "/kelo/api/invoice", "cancel", "tumipayCancelDone", 104,
          "kelo process paycancel busy"}},
    };
    return table;
}

const QMap<Fault, const char*>& faultNames()
{
    static const QMap<Fault, const char*> names{{Fault::Refused, "connection refused"},
                                                {Fault::ResetBefore, "reset before answer"},
                                                {Fault::ResetMid, "reset mid-body"},
                                                {Fault::NotFound, "HTTP 404"},
                                                {Fault::ServerError, "HTTP 500"},
                                                {Fault::Garbage, "garbage body"},
                                                {Fault::Empty, "empty body"},
                                                {Fault::NeverAnswer, "no answer, host gives up"},
                                                {Fault::Untrusted, "untrusted certificate"}};
    return names;
}

const QByteArray kGarbage = "<html>not json";
const QByteArray kInvoice = R"({"dt":{"invoice_code":"#A#12","qr":"data"},"err":0,"msg":"ok"})";
const QString kCode = QStringLiteral("#A#12");
// What the host passes to onNetworkError when it gives up on a request that never ends.
constexpr int kHostGaveUpCode = QNetworkReply::TimeoutError;
const QString kHostGaveUpText = QStringLiteral("the host gave up waiting");

// Every signal of the SDK object except the connection state, whose timing is the network's.
class SignalRecorder
{
public:
    explicit SignalRecorder(QObject* object)
    {
        const QMetaObject* meta = object->metaObject();
        for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
            const QMetaMethod method = meta->method(i);
            if (method.methodType() == QMetaMethod::Signal &&
                method.name() != "cloudConnectionChange")
                spies.insert(method.name(), std::make_shared<QSignalSpy>(object, method));
        }
    }
    QSignalSpy& operator[](const QByteArray& name) { return *spies[name]; }
    /// "name xN" for every signal emitted so far.
    QStringList fired() const
    {
        QStringList all;
        for (auto it = spies.cbegin(); it != spies.cend(); ++it)
            if (!it.value()->isEmpty())
                all << QStringLiteral("%1 x%2")
                           .arg(QString::fromLatin1(it.key()))
                           .arg(it.value()->size());
        return all;
    }

private:
    QMap<QByteArray, std::shared_ptr<QSignalSpy>> spies;
};

} // namespace

Q_DECLARE_METATYPE(Kind)
Q_DECLARE_METATYPE(Fault)
Q_DECLARE_METATYPE(Again)

class TestFaultMatrix : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void everyKindAgainstEveryFault_data();
    void everyKindAgainstEveryFault();

private:
    std::unique_ptr<Kelosdk> sdkFor(Fault fault);
    void issue(Kelosdk& sdk, Kind kind, Fault fault);
    void scriptFault(Kind kind, Fault fault);
    bool openInvoice(Kelosdk& sdk, Fault fault);
    TestCloud cloud;
    TestCloud untrusted{TestCloud::Untrusted};
};

void TestFaultMatrix::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY(cloud.start());
    QVERIFY(untrusted.start());
    cloud.pointSdkHere();
}

void TestFaultMatrix::cleanupTestCase()
{
    cloud->goDown();
    untrusted->goDown();
}

std::unique_ptr<Kelosdk> TestFaultMatrix::sdkFor(Fault fault)
{
    // The SDK reads its server when it is constructed.
    if (fault == Fault::Refused)
        qputenv("KELO_SERVER_HOST", "127.0.0.1:1");
    else if (fault == Fault::Untrusted)
        untrusted.pointSdkHere();
    std::unique_ptr<Kelosdk> sdk(
        new Kelosdk(QStringLiteral("M01"), QStringLiteral("POS-1"), false));
    cloud.pointSdkHere();
    return sdk;
}

void TestFaultMatrix::issue(Kelosdk& sdk, Kind kind, Fault fault)
{
    switch (kind) {
    case Kind::Login:
        sdk.userLogin(QStringLiteral("anna"), QStringLiteral("pw"));
        break;
    case Kind::Menu:
        sdk.foodsRequest();
        break;
    case Kind::Order:
        sdk.foodOrderRequest(QJsonObject{{"table_id", 3}, {"amount", 5}, {"items", QJsonArray()}});
        break;
    case Kind::Tables:
        sdk.tableRequest();
        break;
    case Kind::TableFoods:
        sdk.tableFoodsRequest(3);
        break;
    case Kind::Merge:
        sdk.tableMergeRequest(3, 4);
        break;
    case Kind::Payment:
        sdk.paymentRequest(3, 5);
        break;
    case Kind::Session:
        sdk.tumipayRequest(5, QStringLiteral("Table 3"), QStringLiteral("Bill"));
        break;
    case Kind::Create:
        // No session can succeed on a host that refuses or fails TLS, so there the host calls
        // the second step of the chain itself.
        if (fault == Fault::Refused || fault == Fault::Untrusted)
            sdk.tumipayTransfers(QStringLiteral("S1"), 5, QStringLiteral("Table 3"),
                                 QStringLiteral("Bill"));
        else
            sdk.tumipayRequest(5, QStringLiteral("Table 3"), QStringLiteral("Bill"));
        break;
    case Kind::Cancel:
        sdk.tumipayCancel(kCode);
        break;
    }
}

void TestFaultMatrix::scriptFault(Kind kind, Fault fault)
{
    CloudReply reply;
    int times = 1;
    switch (fault) {
    case Fault::Refused:
    case Fault::Untrusted:
        return;
    case Fault::ResetBefore:
        reply.fault = CloudReply::Fault::ResetBeforeHeaders;
        times = 4; // Qt sends the request three more times on a fresh connection
        break;
    case Fault::ResetMid:
        reply.fault = CloudReply::Fault::ResetMidBody;
        reply.body = kInvoice.repeated(64);
        break;
    case Fault::NotFound:
        reply.status = 404;
        reply.body = R"({"err":0})";
        break;
    case Fault::ServerError:
        reply.status = 500;
        reply.body = R"({"err":0})";
        break;
    case Fault::Garbage:
        reply.body = kGarbage;
        break;
    case Fault::Empty:
        break;
    case Fault::NeverAnswer:
        reply.fault = CloudReply::Fault::NeverAnswer;
        break;
    }
    cloud->scriptReply(kinds()[kind].path, kinds()[kind].cm, reply, times);
}

bool TestFaultMatrix::openInvoice(Kelosdk& sdk, Fault fault)
{
    QSignalSpy qr(&sdk, SIGNAL(tumiQRInvoiceCode(QString)));
    if (fault == Fault::Refused || fault == Fault::Untrusted) {
        // No server to open it with: the host hands the "create" reply to the SDK itself.
        sdk.onTumipayQRInvoiceCode(QVariant(kInvoice));
        return qr.size() == 1;
    }
    cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("create"),
                       CloudReply{200, kInvoice, {}, 0, CloudReply::Fault::None});
    sdk.tumipayRequest(5, QStringLiteral("Table 3"), QStringLiteral("Bill"));
    return qr.wait(20000);
}

void TestFaultMatrix::everyKindAgainstEveryFault_data()
{
    QTest::addColumn<Kind>("kind");
    QTest::addColumn<Fault>("fault");
    QTest::addColumn<QByteArray>("signal"); // the one signal that ends the request, or ""
    QTest::addColumn<QVariantList>("args"); // networkError: code and a pattern of the text
    QTest::addColumn<Again>("again");

    const auto row = [](Kind kind, Fault fault, const QByteArray& signal, const QVariantList& args,
                        Again again) {
        QTest::addRow("%s / %s", kinds()[kind].name, faultNames()[fault])
            << kind << fault << signal << args << again;
    };
    // networkError carries Qt's code and text; the text of an HTTP status names the URL.
    const auto exactly = [](const QString& text) {
        return QRegularExpression::anchoredPattern(QRegularExpression::escape(text));
    };
    const auto httpStatus = [](const QString& reason) {
        return QStringLiteral("^Error transferring https://127\\.0\\.0\\.1:\\d+/kelo/api/\\S+ - "
                              "server replied: %1$")
            .arg(reason);
    };
    const QList<QPair<Fault, QVariantList>> transport{
        {Fault::Refused,
         {int(QNetworkReply::ConnectionRefusedError), exactly("Connection refused")}},
        {Fault::ResetBefore,
         {int(QNetworkReply::RemoteHostClosedError), exactly("Connection closed")}},
        {Fault::ResetMid,
         {int(QNetworkReply::RemoteHostClosedError), exactly("Connection closed")}},
        {Fault::NotFound, {int(QNetworkReply::ContentNotFoundError), httpStatus("Not Found")}},
        {Fault::ServerError,
         {int(QNetworkReply::InternalServerError), httpStatus("Internal Server Error")}},
        {Fault::NeverAnswer, {kHostGaveUpCode, exactly(kHostGaveUpText)}},
        {Fault::Untrusted,
         {int(QNetworkReply::SslHandshakeFailedError), exactly("SSL handshake failed")}},
    };

    for (Kind kind : kinds().keys()) {
        // A transport failure (or the host giving up) frees the kind, whatever it is.
        for (const auto& t : transport)
            row(kind, t.first, "networkError", t.second, Again::Free);

        // A body that is not the expected JSON.
        for (Fault fault : {Fault::Garbage, Fault::Empty}) {
            const QString body = QString::fromLatin1(fault == Fault::Garbage ? kGarbage : "");
            switch (kind) {
            case Kind::Login:
                // An unreadable reply reads as code -1 with no message.
                row(kind, fault, "userLoginDone", {-1, QString()}, Again::Free);
                break;
            case Kind::Menu:
                // Nothing to download; the menu is rebuilt with an empty item list.
                row(kind, fault, "foodsRequestDone", {R"({"dt":{"items":[]}})"}, Again::Free);
                break;
            case Kind::Merge:
                row(kind, fault, "tableMergeDone",
                    {fault == Fault::Empty ? R"({"err":0,"msg":"table merge success!"})" : body},
                    Again::Free);
                break;
            case Kind::Session:
                // An unreadable session is a refused session: nothing said, the kind held.
                row(kind, fault, "", {}, Again::Held);
                break;
            case Kind::Create:
                // Unreadable: code -1, no message; the kind stays held as for an open invoice.
                row(kind, fault, "keloappError", {-1, QString()}, Again::Held);
                break;
            case Kind::Cancel:
                // Any answer ends the invoice: asking again names an unknown code.
                row(kind, fault, "tumipayCancelDone", {body}, Again::Forgotten);
                break;
            default: // passed through as it came
                row(kind, fault, kinds()[kind].doneSignal, {body}, Again::Free);
            }
        }
    }
}

void TestFaultMatrix::everyKindAgainstEveryFault()
{
    QFETCH(Kind, kind);
    QFETCH(Fault, fault);
    QFETCH(QByteArray, signal);
    QFETCH(QVariantList, args);
    QFETCH(Again, again);
    const KindInfo& info = kinds()[kind];
    TestCloud& server = fault == Fault::Untrusted ? untrusted : cloud;
    cloud->clearScripts();
    cloud->clearExchanges();
    untrusted->clearExchanges();

    std::unique_ptr<Kelosdk> sdk = sdkFor(fault);
    if (kind == Kind::Cancel)
        QVERIFY(openInvoice(*sdk, fault));
    scriptFault(kind, fault);
    SignalRecorder seen(sdk.get());

    issue(*sdk, kind, fault);
    if (fault == Fault::NeverAnswer) {
        QTRY_COMPARE_WITH_TIMEOUT(cloud->exchanges(info.path, info.cm).size(), 1, 10000);
        sdk->onNetworkError(kHostGaveUpCode, kHostGaveUpText);
    } else if (signal.isEmpty()) {
        // Nothing reaches the host: wait for the reply to reach the request object instead.
        auto* request = sdk->findChild<HttpBase2*>();
        QVERIFY(request);
        QSignalSpy replied(request, SIGNAL(done(QVariant)));
        QVERIFY(replied.wait(10000));
        QCoreApplication::processEvents();
    } else {
        QTRY_VERIFY_WITH_TIMEOUT(!seen[signal].isEmpty(), 10000);
    }

    // Exactly the one terminal signal, nothing else.
    QCOMPARE(seen.fired(), signal.isEmpty() ? QStringList() : QStringList{signal + " x1"});
    if (signal == "networkError") {
        const QVariantList got = seen[signal].constFirst();
        QCOMPARE(got.at(0).toInt(), args.at(0).toInt());
        QVERIFY2(QRegularExpression(args.at(1).toString()).match(got.at(1).toString()).hasMatch(),
                 qPrintable(got.at(1).toString()));
    } else if (!signal.isEmpty()) {
        QCOMPARE(seen[signal].constFirst(), args);
    }
    if (fault == Fault::Untrusted)
        QCOMPARE(untrusted->exchanges().size(), 0);

    // The same request again: free sends it, held refuses it with the busy code.
    cloud->clearScripts();
    const QByteArray probeCm = kind == Kind::Create ? "get_session" : info.cm.toLatin1();
    const int sentBefore = server->exchanges(info.path, QString::fromLatin1(probeCm)).size();
    const int errorsBefore = seen["networkError"].size();
    if (kind == Kind::Create) // the whole chain, which is what bit 2 guards
        sdk->tumipayRequest(5, QStringLiteral("Table 3"), QStringLiteral("Bill"));
    else
        issue(*sdk, kind, fault);
    switch (again) {
    case Again::Free:
        QCOMPARE(seen["keloappError"].size(), signal == "keloappError" ? 1 : 0);
        QTRY_VERIFY_WITH_TIMEOUT(server->exchanges(info.path, QString::fromLatin1(probeCm)).size() >
                                         sentBefore ||
                                     seen["networkError"].size() > errorsBefore,
                                 10000);
        break;
    case Again::Held:
    case Again::Forgotten: {
        const QVariantList refusal =
            again == Again::Held
                ? QVariantList{info.busyCode, QString::fromLatin1(info.busyText)}
                : QVariantList{
                      105, QStringLiteral("kelo cancel invoice code not existed (%1)").arg(kCode)};
        QCOMPARE(seen["keloappError"].size(), signal == "keloappError" ? 2 : 1);
        QCOMPARE(seen["keloappError"].constLast(), refusal);
        QCOMPARE(server->exchanges(info.path, QString::fromLatin1(probeCm)).size(), sentBefore);
        break;
    }
    }
}

QTEST_GUILESS_MAIN(TestFaultMatrix)
#include "tst_faultmatrix.moc"
