// The e-wallet invoice chain, invoice cancel and the server's notices through the SDK object
// (the table's payment: tst_kelosdk; transport faults: tst_faultmatrix).
#include "httpbase2.h"
#include "kelosdkfixture.h"
#include "sdkkinds.h"
#include "signalrecorder.h"

#include <QPointer>
#include <QRegularExpression>

namespace {

const QByteArray kSession = R"({"dt":{"invoice_session":"S1"},"err":0})";
const QVariantList kInvoiceBusy{103, "kelo process tumipay busy"};

QVariantList notExisted(const QString& code)
{
    return {105, QStringLiteral("kelo cancel invoice code not existed (%1)").arg(code)};
}

const QJsonObject jsonOf(const QSignalSpy& spy)
{
    return QJsonDocument::fromJson(spy.constLast().at(0).toString().toUtf8()).object();
}

} // namespace

class TestPaymentFlows : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QVERIFY(f.startCloud()); }
    void cleanupTestCase() { f.sdk.reset(); }

    void invoiceChainEndToEnd_data();
    void invoiceChainEndToEnd();
    void noticesOnTheChannel_data();
    void noticesOnTheChannel();
    void createReplyEndsTheChain_data();
    void createReplyEndsTheChain();
    void otherPaytypesStopAtTheSession();
    void lateAnswerAfterAResetStaysWithItsInvoice_data();
    void lateAnswerAfterAResetStaysWithItsInvoice();
    void cancelOfTheOpenInvoiceOnly();

private:
    // A fresh SDK, connected to its notification channel, with the open invoice kInvoiceCode.
    Kelosdk& sdkWithOpenInvoice();
    SdkFixture f;
};

Kelosdk& TestPaymentFlows::sdkWithOpenInvoice()
{
    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("get_session"), replyWith(kSession));
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("create"), replyWith(kInvoiceReply));
    QSignalSpy qr(&sdk, SIGNAL(tumiQRInvoiceCode(QString)));
    sdk.tumipayRequest(5, QStringLiteral("Table 3"), QStringLiteral("Bill 17"));
    if (!qr.wait(kWait) ||
        !QTest::qWaitFor([&] { return f.cloud->connectedDevices().contains(f.device); }, kWait))
        qWarning("the invoice was not opened or the device not connected");
    return sdk;
}

void TestPaymentFlows::invoiceChainEndToEnd_data()
{
    QTest::addColumn<QString>("description");
    QTest::newRow("plain") << QStringLiteral("Table 3");
    // The signature is made with two substitutions: a marker in the text takes the session.
    QTest::newRow("marker in the text") << QStringLiteral("50%1 off & more=yes");
    QTest::newRow("non-ASCII") << QStringLiteral("Bàn 3 – cà phê");
}

void TestPaymentFlows::invoiceChainEndToEnd()
{
    QFETCH(QString, description);

    Kelosdk& sdk = f.newSdk();
    const QString devid = f.device;
    QVERIFY(QTest::qWaitFor([&] { return f.cloud->connectedDevices().contains(devid); }, kWait));
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    sdk.tumipayRequest(150000, description, QStringLiteral("Bill 17"));
    sdk.tumipayRequest(1, QString(), QString()); // refused while the session is out
    QCOMPARE(seen["keloappError"].constFirst(), kInvoiceBusy);
    QVERIFY(seen["tumiQRInvoiceCode"].wait(kWait)); // the server checks the signature
    QCOMPARE(jsonOf(seen["tumiQRInvoiceCode"])["err"].toInt(-1), 0);
    const QString code = jsonOf(seen["tumiQRInvoiceCode"])["dt"]["invoice_code"].toString();
    QVERIFY(!code.isEmpty());

    // Two form POSTs to the same URL: the session, then the signed "create".
    QCOMPARE(f.cloud->exchanges("/kelo/api/invoice/").size(), 2);
    for (const CloudExchange& sent : f.cloud->exchanges("/kelo/api/invoice/"))
        QCOMPARE(sent.method + ' ' + sent.target + ' ' + sent.header("Content-Type"),
                 QByteArray("POST /kelo/api/invoice/ application/x-www-form-urlencoded"));
    const CloudExchange session = f.cloud->exchanges("/kelo/api/invoice/", "get_session")[0];
    QVERIFY2(session.body.startsWith("cm=get_session&dt="), session.body);
    QCOMPARE(session.param(QStringLiteral("dt")),
             QStringLiteral(R"({"devid":"%1","food_order":"","merchant_code":"M01"})").arg(devid));
    const CloudExchange create = f.cloud->exchanges("/kelo/api/invoice/", "create")[0];
    const QRegularExpression form(QStringLiteral("^cm=create&tk=[0-9a-f]{64}&dt=[^&]+$"));
    QVERIFY2(form.match(QString::fromUtf8(create.body)).hasMatch(), create.body);
    QCOMPARE(
        create.param(QStringLiteral("dt")),
        QStringLiteral(
            R"({"amount":"150000","description":"%1","devid":"%2","items":[{"information":"Bill 17"}],"machine_name":"POS-1","merchant_code":"M01","payment_method":"1"})")
            .arg(description, devid));

    // Open: a second invoice waits, the QR code notwithstanding.
    sdk.tumipayRequest(1, QString(), QString());
    QCOMPARE(seen["keloappError"].constLast(), kInvoiceBusy);

    // The customer pays: the server announces it on the device's socket.
    QVERIFY(f.cloud->markInvoicePaid(code));
    QVERIFY(seen["tumipayRequestDone"].wait(kWait));
    const QJsonObject paid = jsonOf(seen["tumipayRequestDone"]);
    QCOMPARE(paid["err"].toInt(), -1);
    QCOMPARE(paid["msg"].toString(), QStringLiteral("payment_success"));
    QCOMPARE(paid["dt"]["invoice_code"].toString(), code);

    // Paid: the invoice is forgotten, the kind stays held until a cancel or a reset.
    sdk.tumipayCancel(code);
    QCOMPARE(seen["keloappError"].constLast(), notExisted(code));
    sdk.tumipayRequest(1, QString(), QString());
    QCOMPARE(seen["keloappError"].constLast(), kInvoiceBusy);
    QCOMPARE(seen.fired(),
             (QStringList{"keloappError x4", "tumiQRInvoiceCode x1", "tumipayRequestDone x1"}));
    QCOMPARE(f.cloud->exchanges("/kelo/api/invoice", "cancel").size(), 0);
}

void TestPaymentFlows::noticesOnTheChannel_data()
{
    QTest::addColumn<QByteArray>("notice");
    QTest::addColumn<QByteArray>("signal");
    QTest::addColumn<QString>("text");

    QTest::newRow("payment of another invoice")
        << QByteArray(
               R"({"dt":{"amount":"5","invoice_code":"OTHER"},"err":0,"msg":"payment_success","type":1})")
        << QByteArray("tumipayRequestDone")
        << R"({"dt":{"amount":"5","invoice_code":"OTHER"},"err":-1,"msg":"payment_success"})";
    QTest::newRow("event") << QByteArray(R"({"dt":{"table_id":3},"msg":"table_update","type":3})")
                           << QByteArray("notify") << "table_update";
    QTest::newRow("word in another case")
        << QByteArray(R"({"dt":{"invoice_code":"#A#12"},"msg":"Payment_success","type":1})")
        << QByteArray("notify") << "Payment_success";
}

// Whatever the notice, the open invoice is kept: cancelling it still goes to the server.
void TestPaymentFlows::noticesOnTheChannel()
{
    QFETCH(QByteArray, notice);
    QFETCH(QByteArray, signal);
    QFETCH(QString, text);

    Kelosdk& sdk = sdkWithOpenInvoice();
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    QVERIFY(f.cloud->pushText(f.device, notice));
    QVERIFY(seen[signal].wait(kWait));
    QCOMPARE(seen[signal].constFirst(), QVariantList{text});

    f.cloud->scriptReply("/kelo/api/invoice", QStringLiteral("cancel"), replyWith("{}"));
    sdk.tumipayCancel(kInvoiceCode);
    QVERIFY(seen["tumipayCancelDone"].wait(kWait));
    QCOMPARE(seen.fired(), (QStringList{signal + " x1", "tumipayCancelDone x1"}));
}

void TestPaymentFlows::createReplyEndsTheChain_data()
{
    QTest::addColumn<QByteArray>("createReply");
    QTest::addColumn<QByteArray>("signal");
    QTest::addColumn<QVariantList>("args");
    const QByteArray noDt = R"({"err":0})";
    const QByteArray withSession = R"({"dt":{"invoice_code":"C1","invoice_session":"S2"},"err":0})";
    // These two also read as a good session. The signal carries a QString (Qt 6 compares
    // variants of different types as different).
    QTest::newRow("no dt") << noDt << QByteArray("tumiQRInvoiceCode")
                           << QVariantList{QString::fromUtf8(noDt)};
    QTest::newRow("dt with a session") << withSession << QByteArray("tumiQRInvoiceCode")
                                       << QVariantList{QString::fromUtf8(withSession)};
    QTest::newRow("invoice refused")
        << QByteArray(R"({"dt":{"invoice_code":"Z"},"err":4,"msg":"expired"})")
        << QByteArray("keloappError") << QVariantList{4, "expired"};
}

// Whatever the "create" reply, the chain ends there: no second "create" on a reply that reads as
// a session, the kind held as for an open invoice, no code stored from a refusal.
void TestPaymentFlows::createReplyEndsTheChain()
{
    QFETCH(QByteArray, createReply);
    QFETCH(QByteArray, signal);
    QFETCH(QVariantList, args);

    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("get_session"), replyWith(kSession));
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("create"), replyWith(createReply), 2);
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    sdk.tumipayRequest(5, QStringLiteral("d"), QStringLiteral("i"));
    auto* request = sdk.findChild<HttpBase2*>();
    QVERIFY(request);
    QSignalSpy released(request, SIGNAL(destroyed(QObject*)));
    // Runs on the "create" reply after the session handler: cancel() aborts whatever the object
    // then has in flight, so a stray second "create" would end in networkError.
    int replies = 0;
    connect(request, &HttpBase2::done, this, [&replies, request] {
        if (++replies == 2)
            request->cancel();
    });
    QVERIFY(seen[signal].wait(kWait));
    QCOMPARE(seen[signal].constFirst(), args);
    QVERIFY(released.wait(kWait));
    QCOMPARE(replies, 2);
    QCOMPARE(f.cloud->exchanges("/kelo/api/invoice/", QStringLiteral("create")).size(), 1);

    sdk.tumipayRequest(5, QStringLiteral("d"), QStringLiteral("i"));
    QCOMPARE(seen["keloappError"].constLast(), kInvoiceBusy);
    sdk.tumipayCancel(QStringLiteral("Z"));
    QCOMPARE(seen["keloappError"].constLast(), notExisted(QStringLiteral("Z")));
    QCOMPARE(seen.fired(),
             (signal == "keloappError" ? QStringList{"keloappError x3"}
                                       : QStringList{"keloappError x2", "tumiQRInvoiceCode x1"}));
}

// Only the e-wallet (paytype 1) goes on from a session to "create".
void TestPaymentFlows::otherPaytypesStopAtTheSession()
{
    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("get_session"), replyWith(kSession));
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    sdk.transPermisionRequest(2, 5, QStringLiteral("d"), QStringLiteral("i"));
    auto* request = sdk.findChild<HttpBase2*>();
    QVERIFY(request);
    QSignalSpy released(request, SIGNAL(destroyed(QObject*)));
    QVERIFY(QSignalSpy(request, SIGNAL(done(QVariant))).wait(kWait));
    QVERIFY(released.wait(kWait)); // the chain ends there, and its request object with it
    QCOMPARE(seen.fired(), QStringList());
    QCOMPARE(f.cloud->exchanges("/kelo/api/invoice/").size(), 1);
}

void TestPaymentFlows::lateAnswerAfterAResetStaysWithItsInvoice_data()
{
    QTest::addColumn<QString>("late"); // the step whose answer is late
    QTest::addColumn<int>("creates");  // "create" requests the server receives
    QTest::newRow("session") << QStringLiteral("get_session") << 1;
    QTest::newRow("create") << QStringLiteral("create") << 2;
}

// The host gives up (onNetworkError) on an invoice whose answer is late and asks for another: the
// late answer never drives the new invoice's chain (no "create" of the old invoice, no
// keloappError(-1)) nor reaches the host, and the old request object is freed.
void TestPaymentFlows::lateAnswerAfterAResetStaysWithItsInvoice()
{
    QFETCH(QString, late);
    QFETCH(int, creates);
    const QByteArray newInvoice = R"({"dt":{"invoice_code":"N1","qr":"new"},"err":0,"msg":"ok"})";
    const auto answer = [](const QByteArray& body, int delayMs) {
        CloudReply reply = replyWith(body);
        reply.delayMs = delayMs;
        return reply;
    };

    Kelosdk& sdk = f.newSdk();
    const QByteArray path = "/kelo/api/invoice/";
    const bool lateSession = late == QLatin1String("get_session");
    // The old invoice's answer comes 300 ms after its request, the new one's 1 s after its own.
    f.cloud->scriptReply(path, QStringLiteral("get_session"),
                         answer(kSession, lateSession ? 300 : 0));
    f.cloud->scriptReply(path, QStringLiteral("get_session"),
                         answer(kSession, lateSession ? 1000 : 0));
    if (!lateSession)
        f.cloud->scriptReply(path, QStringLiteral("create"), answer(kInvoiceReply, 300));
    f.cloud->scriptReply(path, QStringLiteral("create"), answer(newInvoice, lateSession ? 0 : 1000),
                         2);
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    sdk.tumipayRequest(5, QStringLiteral("Old"), QStringLiteral("i"));
    QPointer<HttpBase2> abandoned = sdk.findChild<HttpBase2*>();
    QVERIFY(abandoned);
    QVERIFY(f.waitExchanges(path, late, 1));
    sdk.onNetworkError(99, QStringLiteral("host gave up"));
    sdk.tumipayRequest(7, QStringLiteral("New"), QStringLiteral("i"));

    QVERIFY(seen["tumiQRInvoiceCode"].wait(kWait));
    QCOMPARE(seen["tumiQRInvoiceCode"].constFirst(), QVariantList{QString::fromUtf8(newInvoice)});
    QCOMPARE(seen.fired(), (QStringList{"networkError x1", "tumiQRInvoiceCode x1"}));
    const QList<CloudExchange> sent = f.cloud->exchanges(path, QStringLiteral("create"));
    QCOMPARE(sent.size(), creates);
    QVERIFY(sent.constLast()
                .param(QStringLiteral("dt"))
                .contains(QLatin1String(R"("description":"New")")));
    QTRY_VERIFY_WITH_TIMEOUT(abandoned.isNull(), kWait);
    // The open invoice is the new one: the old code is unknown to a cancel.
    sdk.tumipayCancel(kInvoiceCode);
    QCOMPARE(seen["keloappError"].constLast(), notExisted(kInvoiceCode));
}

// A cancel takes the open invoice's code only, frees the invoice kind at once and forgets the
// code on its answer.
void TestPaymentFlows::cancelOfTheOpenInvoiceOnly()
{
    Kelosdk& sdk = sdkWithOpenInvoice();
    CloudReply slow = replyWith(R"({"err":0,"msg":"cancelled"})");
    slow.delayMs = 300;
    f.cloud->scriptReply("/kelo/api/invoice", QStringLiteral("cancel"), slow);
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("get_session"),
                         faultReply(CloudReply::Fault::NeverAnswer));
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    const auto cancelUnknown = [&](const QString& code) {
        sdk.tumipayCancel(code);
        QCOMPARE(seen["keloappError"].constLast(), notExisted(code));
    };

    // Another case, or the code as the cancel sends it: unknown, and the kind stays held.
    cancelUnknown(QStringLiteral("#a#12"));
    cancelUnknown(QStringLiteral("A12"));
    sdk.tumipayRequest(1, QString(), QString());
    QCOMPARE(seen["keloappError"].constLast(), kInvoiceBusy);

    sdk.tumipayCancel(kInvoiceCode);
    sdk.tumipayCancel(kInvoiceCode);
    QCOMPARE(seen["keloappError"].constLast(), sdkKind("cancel").busy());
    sdk.tumipayRequest(1, QString(), QString()); // accepted while the cancel is in flight
    QVERIFY(seen["tumipayCancelDone"].wait(kWait));
    QCOMPARE(seen["tumipayCancelDone"].constFirst(),
             QVariantList{R"({"err":0,"msg":"cancelled"})"});
    const QList<CloudExchange> sent = f.cloud->exchanges("/kelo/api/invoice", "cancel");
    QCOMPARE(sent.size(), 1);
    QCOMPARE(sent.constFirst().method, QByteArray("GET"));
    QVERIFY2(sent.constFirst().target.startsWith("/kelo/api/invoice?cm=cancel&dt="),
             sent.constFirst().target);
    QCOMPARE(sent.constFirst().param(QStringLiteral("dt")),
             QStringLiteral(R"({"invoice_code":"A12","merchant_code":"M01"})"));
    QVERIFY(f.waitExchanges("/kelo/api/invoice/", QStringLiteral("get_session"), 2));

    // Cancelled: the code is forgotten, and with no invoice an empty code is unknown too.
    cancelUnknown(kInvoiceCode);
    cancelUnknown(QString());
    QCOMPARE(seen.fired(), (QStringList{"keloappError x6", "tumipayCancelDone x1"}));
}

QTEST_GUILESS_MAIN(TestPaymentFlows)
#include "tst_kelosdk_payment.moc"
