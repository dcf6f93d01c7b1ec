// The log lines as a host's own message handler sees them: each area of the library writes through
// its own category (kelo.sdk, kelo.http, kelo.ws, kelo.catalogue), logging rules filter one area
// without touching the others, the objects' debug flags still decide, and no line of any category
// carries the password or the signing key.
#include "httpbase.h"
#include "kelosdkfixture.h"
#include "libcmn.h"
#include "signalrecorder.h"
#include "wsclient.h"

#include <QLoggingCategory>
#include <QMutex>
#include <QUuid>

namespace {

const QString kPassword = QStringLiteral("Tr0ub4dor-kelo-7731");

struct Line
{
    QtMsgType type;
    QString category;
    QString text;
};

/// What a host's handler receives, category included; one at a time per process.
class CategoryCapture
{
public:
    CategoryCapture() { previous = qInstallMessageHandler(&CategoryCapture::handler); }
    ~CategoryCapture() { qInstallMessageHandler(previous); }
    QList<Line> lines() const
    {
        QMutexLocker lock(&mutex());
        return store();
    }
    /// The lines whose text starts with @p prefix.
    QList<Line> starting(const QString& prefix) const
    {
        QList<Line> out;
        for (const Line& line : lines())
            if (line.text.startsWith(prefix))
                out.append(line);
        return out;
    }
    void clear()
    {
        QMutexLocker lock(&mutex());
        store().clear();
    }

private:
    static QMutex& mutex()
    {
        static QMutex m;
        return m;
    }
    static QList<Line>& store()
    {
        static QList<Line> s;
        return s;
    }
    static void handler(QtMsgType type, const QMessageLogContext& context, const QString& text)
    {
        QMutexLocker lock(&mutex());
        store().append({type, QString::fromLatin1(context.category), text});
    }
    QtMessageHandler previous = nullptr;
};

// One line of each kind the areas write, with the level it is written at.
struct Kind
{
    const char* category;
    QtMsgType type;
    const char* prefix;
};
const QList<Kind> kKinds{
    {"kelo.sdk", QtDebugMsg, "KELOSDK>> Welcome to KeloSDK! merchant-id: \"M01\""},
    {"kelo.sdk", QtDebugMsg, "KELOSDK>> Login request, user name=anna"},
    {"kelo.sdk", QtDebugMsg, "KELOSSDK>> Table request respone:"},
    {"kelo.http", QtDebugMsg, "http2 url: \"https://"},
    {"kelo.http", QtDebugMsg, "respone data: \"{"},
    {"kelo.http", QtCriticalMsg, "\"//error:1, msg:Connection refused"},
    {"kelo.ws", QtDebugMsg, "wsurl:wss://"},
    {"kelo.ws", QtDebugMsg, "httpurl:https://"},
    {"kelo.ws", QtDebugMsg, "WebSocket connected "},
    {"kelo.catalogue", QtDebugMsg, "=== Image "},
    {"kelo.catalogue", QtDebugMsg, "Download complete"},
};

} // namespace

class TestLogging : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(f.startCloud());
        log.reset(new CategoryCapture); // after QtTest has installed its own handler
    }
    void cleanupTestCase() { log.reset(); }
    void cleanup() { QLoggingCategory::setFilterRules(QString()); }
    void eachAreaWritesThroughItsCategory();
    void rulesFilterOneArea_data();
    void rulesFilterOneArea();
    void sdkFlagStillDecides();
    void secretsReachNoCategory();
    void rulesSilenceAnSdkHostsLines_data();
    void rulesSilenceAnSdkHostsLines();

private:
    /// A day that passes through a line of each kind: an SDK object (login, tables, a menu with
    /// one picture), a request object and a notification client with their debug lines on, and
    /// a request to a closed port.
    void runDay(bool sdkDebug);
    /// The next menu answer: one dish whose picture is fetched (its stamp is new each time).
    void scriptMenuWithOnePicture();
    SdkFixture f;
    std::unique_ptr<CategoryCapture> log;
    qint64 runs = 0; // each day's picture has a stamp a second later: it is fetched again
};

void TestLogging::scriptMenuWithOnePicture()
{
    f.cloud->scriptReply(
        "/kelo/api/item/", QString(),
        replyWith(
            QStringLiteral(
                R"({"dt":{"img_host":"%1","items":[{"img_crc":"%2","img_path":"/pics/7.png","item_id":7}],"last_update":1},"err":0})")
                .arg(f.cloud.baseUrl())
                .arg(1700000000000 + 1000 * ++runs)
                .toUtf8()));
    f.cloud->scriptReply("/pics/7.png", QString(), replyWith("picture"));
}

void TestLogging::runDay(bool sdkDebug)
{
    f.cloud->clearScripts();
    Kelosdk& sdk = f.newSdk(sdkDebug);
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    f.cloud->scriptReply("/kelo/api/login/", QStringLiteral("client_login"),
                         replyWith(R"({"dt":{"staff_id":4,"staff_name":"Anna"},"err":0})"));
    scriptMenuWithOnePicture();
    sdk.userLogin(QStringLiteral("anna"), kPassword);
    sdk.tableRequest();
    sdk.foodsRequest();
    QTRY_VERIFY_WITH_TIMEOUT(seen["userLoginDone"].size() == 1 &&
                                 seen["tableRequestDone"].size() == 1 &&
                                 seen["foodsRequestDone"].size() == 1,
                             kWait);
    QCOMPARE(seen.fired().size(), 3);

    HttpBase request(f.cloud.url(QStringLiteral("/kelo/api/table/?")), nullptr, true);
    QSignalSpy done(&request, &HttpBase::done);
    request.addParameter(QStringLiteral("cm"), QStringLiteral("get_tables"), true);
    request.process();
    QVERIFY(done.wait(kWait));

    HttpBase refused(QUrl(QStringLiteral("https://127.0.0.1:1/kelo/api/table/?")), nullptr, false);
    QSignalSpy failed(&refused, &HttpBase::error);
    refused.process();
    QVERIFY(failed.wait(kWait));

    const auto stopAndDelete = [](WSClient* c) {
        c->stop();
        c->wait();
        delete c;
    };
    std::unique_ptr<WSClient, decltype(stopAndDelete)> client(
        new WSClient(QUrl(QStringLiteral("wss://%1/kelo/ntf/").arg(f.cloud.hostPort())),
                     f.cloud.url(QStringLiteral("/kelo/api/common")),
                     QString::fromLatin1(kMerchant), QUuid::createUuid().toString(QUuid::Id128),
                     true, nullptr),
        stopAndDelete);
    QSignalSpy connected(client.get(), &WSClient::connected);
    client->start();
    QVERIFY(connected.wait(kWait));
}

void TestLogging::eachAreaWritesThroughItsCategory()
{
    log->clear();
    runDay(true);
    QVERIFY(!QTest::currentTestFailed());
    for (const Kind& kind : kKinds) {
        const QList<Line> lines = log->starting(QString::fromUtf8(kind.prefix));
        QVERIFY2(!lines.isEmpty(), kind.prefix);
        for (const Line& line : lines) {
            QVERIFY2(line.category == QLatin1String(kind.category) && line.type == kind.type,
                     qPrintable(line.category + QStringLiteral(": ") + line.text));
        }
    }
    // Nothing of the library's is left in the default category, nor in a name of its own making.
    for (const Line& line : log->lines()) {
        const bool known = line.category == QLatin1String("kelo.sdk") ||
                           line.category == QLatin1String("kelo.http") ||
                           line.category == QLatin1String("kelo.ws") ||
                           line.category == QLatin1String("kelo.catalogue");
        QVERIFY2(known || !line.category.startsWith(QLatin1String("kelo")), qPrintable(line.text));
        QVERIFY2(known || !QRegularExpression(
                               QStringLiteral("^(KELOS?SDK>> |http2 url:|respone data:|\"//"
                                              "error:|wsurl:|httpurl:|WebSocket |=== Image "
                                              "|Download complete|Sent: |WSError: )"))
                               .match(line.text)
                               .hasMatch(),
                 qPrintable(line.category + QStringLiteral(": ") + line.text));
    }
}

void TestLogging::rulesFilterOneArea_data()
{
    QTest::addColumn<QString>("area");
    for (const char* area : {"kelo.sdk", "kelo.http", "kelo.ws", "kelo.catalogue"})
        QTest::newRow(area) << QString::fromLatin1(area);
}

// As QT_LOGGING_RULES="kelo.ws.debug=false" would: that area's debug lines go, every other line
// (its own critical ones included) stays.
void TestLogging::rulesFilterOneArea()
{
    QFETCH(QString, area);
    QLoggingCategory::setFilterRules(area + QStringLiteral(".debug=false"));
    log->clear();
    runDay(true);
    QVERIFY(!QTest::currentTestFailed());
    for (const Kind& kind : kKinds) {
        const bool silenced = area == QLatin1String(kind.category) && kind.type == QtDebugMsg;
        QVERIFY2(log->starting(QString::fromUtf8(kind.prefix)).isEmpty() == silenced, kind.prefix);
    }
}

// The rules filter what the flags let through; they never switch on what a flag keeps off. The
// SDK hands its flag to the picture manager, and debug false to its request objects and client.
void TestLogging::sdkFlagStillDecides()
{
    QLoggingCategory::setFilterRules(QStringLiteral("kelo.*.debug=true"));
    log->clear();
    runDay(false);
    QVERIFY(!QTest::currentTestFailed());
    QMap<QString, int> perCategory;
    for (const Line& line : log->lines())
        ++perCategory[line.category];
    QCOMPARE(perCategory.value(QStringLiteral("kelo.sdk")), 0);
    QCOMPARE(perCategory.value(QStringLiteral("kelo.catalogue")), 0);
    // The test's own request object, critical line and client, with their own flags.
    QCOMPARE(log->starting(QStringLiteral("http2 url:")).size(), 1);
    QCOMPARE(log->starting(QStringLiteral("\"//error:")).size(), 1);
    QCOMPARE(log->starting(QStringLiteral("wsurl:")).size(), 1);
}

// Every area on, the SDK's lines included, through a login accepted, one answered 500 (Qt's
// error text names the URL whose query holds the password) and the signed invoice chain.
void TestLogging::secretsReachNoCategory()
{
    QLoggingCategory::setFilterRules(QStringLiteral("kelo.*=true"));
    log->clear();
    runDay(true);
    {
        Kelosdk& sdk = f.newSdk(true);
        SignalRecorder seen(&sdk, {"cloudConnectionChange"});
        f.cloud->scriptReply("/kelo/api/login/", QStringLiteral("client_login"),
                             replyWith("", 500));
        sdk.userLogin(QStringLiteral("anna"), kPassword);
        sdk.tumipayRequest(5, QStringLiteral("Table 3"), QStringLiteral("Bill"));
        QTRY_VERIFY_WITH_TIMEOUT(
            seen["networkError"].size() == 1 && seen["tumiQRInvoiceCode"].size() == 1, kWait);
        QCOMPARE(seen.fired().size(), 2);
    }
    const QList<Line> lines = log->lines();
    QSet<QString> categories;
    for (const Line& line : lines)
        categories.insert(line.category);
    for (const char* area : {"kelo.sdk", "kelo.http", "kelo.ws", "kelo.catalogue"})
        QVERIFY2(categories.contains(QLatin1String(area)), area);
    QCOMPARE(log->starting(QStringLiteral("\"//error:401")).size(), 1); // the 500, in kelo.http
    const QStringList secrets{kPassword, QString::fromLatin1(QUrl::toPercentEncoding(kPassword)),
                              Libcmn::keloSecretkey()};
    for (const Line& line : lines)
        for (const QString& secret : secrets)
            QVERIFY2(!line.text.contains(secret), qPrintable(line.category + ": " + line.text));
}

// What each line of an SDK host is written as (its request objects and its channel are made with
// debug off): the rules of the integration guide's "Logging" section, applied as a host does.
void TestLogging::rulesSilenceAnSdkHostsLines_data()
{
    const QString sdk = QStringLiteral("KELOSDK>> Login request");
    const QString picture = QStringLiteral("=== Image ");
    const QString failed = QStringLiteral("\"//error:");
    const QString dropped = QStringLiteral("WebSocket notice dropped: ");
    QTest::addColumn<QString>("rules");
    QTest::addColumn<QStringList>("gone");
    QTest::addColumn<QStringList>("kept");
    QTest::newRow("no rule") << QString() << QStringList{}
                             << QStringList{sdk, picture, failed, dropped};
    // The request objects' and the channel's debug lines: an SDK host has none.
    QTest::newRow("kelo.http.debug=false, kelo.ws.debug=false")
        << QStringLiteral("kelo.http.debug=false\nkelo.ws.debug=false") << QStringList{}
        << QStringList{sdk, picture, failed, dropped};
    // The guide's two examples: no transport line; the SDK's lines but not the pictures'.
    QTest::newRow("kelo.http.critical=false, kelo.http.warning=false")
        << QStringLiteral("kelo.http.critical=false\nkelo.http.warning=false")
        << QStringList{failed} << QStringList{sdk, picture, dropped};
    QTest::newRow("kelo.catalogue.debug=false")
        << QStringLiteral("kelo.catalogue.debug=false") << QStringList{picture}
        << QStringList{sdk, failed, dropped};
    // One row per line of the guide's table.
    QTest::newRow("kelo.http.critical=false")
        << QStringLiteral("kelo.http.critical=false") << QStringList{failed}
        << QStringList{sdk, picture, dropped};
    QTest::newRow("kelo.ws.warning=false")
        << QStringLiteral("kelo.ws.warning=false") << QStringList{dropped}
        << QStringList{sdk, picture, failed};
    QTest::newRow("kelo.sdk.debug=false")
        << QStringLiteral("kelo.sdk.debug=false") << QStringList{sdk}
        << QStringList{picture, failed, dropped};
    QTest::newRow("kelo.*=false") << QStringLiteral("kelo.*=false")
                                  << QStringList{sdk, picture, failed, dropped} << QStringList{};
}

void TestLogging::rulesSilenceAnSdkHostsLines()
{
    QFETCH(QString, rules);
    QFETCH(QStringList, gone);
    QFETCH(QStringList, kept);
    QLoggingCategory::setFilterRules(rules);
    f.cloud->clearScripts();
    Kelosdk& sdk = f.newSdk(true);
    SignalRecorder seen(&sdk);
    QTRY_COMPARE_WITH_TIMEOUT(seen["cloudConnectionChange"].size(), 1, kWait);
    QTRY_VERIFY_WITH_TIMEOUT(f.cloud->connectedDevices().contains(f.device), kWait);
    log->clear();

    // A login answered 500, a menu with one picture, a notice over the notification cap.
    f.cloud->scriptReply("/kelo/api/login/", QStringLiteral("client_login"), replyWith("", 500));
    scriptMenuWithOnePicture();
    sdk.userLogin(QStringLiteral("anna"), kPassword);
    sdk.foodsRequest();
    sdk.setMaxNotificationSize(64);
    QVERIFY(f.cloud->pushText(f.device, QByteArray(65, 'n')));
    QTRY_VERIFY_WITH_TIMEOUT(seen["networkError"].size() == 1 &&
                                 seen["foodsRequestDone"].size() == 1 &&
                                 seen["cloudConnectionChange"].size() == 3,
                             kWait);
    QCOMPARE(seen.fired().size(), 3);
    QCOMPARE(seen["cloudConnectionChange"].at(2), QVariantList{true});

    for (const QString& prefix : gone)
        QVERIFY2(log->starting(prefix).isEmpty(), qPrintable(prefix));
    for (const QString& prefix : kept)
        QVERIFY2(!log->starting(prefix).isEmpty(), qPrintable(prefix));
}

QTEST_GUILESS_MAIN(TestLogging)
#include "tst_logging.moc"
