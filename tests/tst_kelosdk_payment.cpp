// Table payment, the e-wallet invoice chain, invoice cancel and the server's notices.
#include "httpbase2.h"
#include "tst_kelosdk_fixture.h"

#include <QNetworkReply>
#include <QRegularExpression>

namespace {

const QByteArray kSession = R"({"dt":{"invoice_session":"S1"},"err":0})";
const QByteArray kInvoice = R"({"dt":{"invoice_code":"#A#12","qr":"data"},"err":0,"msg":"ok"})";
const QString kCode = QStringLiteral("#A#12");

QString paidNotice(const QString& code)
{
    return QStringLiteral(
               R"({"dt":{"amount":"5","invoice_code":"%1"},"err":0,"msg":"payment_success","type":1})")
        .arg(code);
}

} // namespace

class TestPaymentFlows : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QVERIFY(f.startCloud()); }
    void cleanupTestCase() { f.sdk.reset(); }

    void paymentIsSentEveryTime();
    void invoiceChainEndToEnd_data();
    void invoiceChainEndToEnd();
    void noticeForAnotherInvoiceKeepsTheCode();
    void otherNoticesPassTheirWord_data();
    void otherNoticesPassTheirWord();
    void sessionWithoutCreateHoldsTheInvoiceKind_data();
    void sessionWithoutCreateHoldsTheInvoiceKind();
    void refusedInvoiceKeepsTheKindHeld();
    void createReplyIsNeverTakenForASession_data();
    void createReplyIsNeverTakenForASession();
    void transportErrorFreesTheKind_data();
    void transportErrorFreesTheKind();
    void cancelRefusesUnknownCodes_data();
    void cancelRefusesUnknownCodes();
    void cancelFreesTheInvoiceKindAtOnce();

private:
    // A fresh SDK with an open invoice kCode (scripted answers).
    Kelosdk& sdkWithOpenInvoice();
    SdkFixture f;
};

Kelosdk& TestPaymentFlows::sdkWithOpenInvoice()
{
    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("get_session"), replyWith(kSession));
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("create"), replyWith(kInvoice));
    QSignalSpy qr(&sdk, SIGNAL(tumiQRInvoiceCode(QString)));
    sdk.tumipayRequest(5, QStringLiteral("Table 3"), QStringLiteral("Bill 17"));
    if (!qr.wait(kWait))
        qWarning("the invoice was not opened");
    return sdk;
}

void TestPaymentFlows::paymentIsSentEveryTime()
{
    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("payment"), replyWith("paid"), 2);
    QSignalSpy done(&sdk, SIGNAL(paymentDone(QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));

    // The kind is held only while the request is built: two in a row both go.
    sdk.paymentRequest(3, 250000);
    sdk.paymentRequest(3, 250000);
    QTRY_COMPARE_WITH_TIMEOUT(done.size(), 2, kWait);
    QCOMPARE(done.at(0), QVariantList{"paid"});
    QCOMPARE(done.at(1), QVariantList{"paid"});
    const QList<CloudExchange> sent = f.cloud->exchanges("/kelo/api/invoice/", "payment");
    QCOMPARE(sent.size(), 2);
    QCOMPARE(sent.constFirst().method, QByteArray("GET"));
    QVERIFY2(sent.constFirst().target.startsWith("/kelo/api/invoice/?cm=payment&dt="),
             sent.constFirst().target);
    QCOMPARE(
        sent.constFirst().param(QStringLiteral("dt")),
        QStringLiteral(R"({"amount":250000,"merchant_code":"M01","staff_id":-1,"table_id":3})"));
    QCOMPARE(appError.size(), 0);
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
    QSignalSpy qr(&sdk, SIGNAL(tumiQRInvoiceCode(QString)));
    QSignalSpy paid(&sdk, SIGNAL(tumipayRequestDone(QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));
    QSignalSpy netError(&sdk, SIGNAL(networkError(int, QString)));

    sdk.tumipayRequest(150000, description, QStringLiteral("Bill 17"));
    QVERIFY(qr.wait(kWait));
    const QJsonObject reply =
        QJsonDocument::fromJson(qr.constFirst().at(0).toString().toUtf8()).object();
    QCOMPARE(reply.value(QStringLiteral("err")).toInt(-1), 0);
    const QString code = reply.value(QStringLiteral("dt"))
                             .toObject()
                             .value(QStringLiteral("invoice_code"))
                             .toString();
    QVERIFY(!code.isEmpty());

    const QList<CloudExchange> session = f.cloud->exchanges("/kelo/api/invoice/", "get_session");
    QCOMPARE(session.size(), 1);
    QCOMPARE(session.constFirst().method, QByteArray("POST"));
    QCOMPARE(session.constFirst().target, QByteArray("/kelo/api/invoice/"));
    QCOMPARE(session.constFirst().header("Content-Type"),
             QByteArray("application/x-www-form-urlencoded"));
    QVERIFY2(session.constFirst().body.startsWith("cm=get_session&dt="), session.constFirst().body);
    QCOMPARE(session.constFirst().param(QStringLiteral("dt")),
             QStringLiteral(R"({"devid":"%1","food_order":"","merchant_code":"M01"})").arg(devid));

    const QList<CloudExchange> create = f.cloud->exchanges("/kelo/api/invoice/", "create");
    QCOMPARE(create.size(), 1);
    QCOMPARE(create.constFirst().method, QByteArray("POST"));
    QCOMPARE(create.constFirst().target, QByteArray("/kelo/api/invoice/"));
    QCOMPARE(create.constFirst().header("Content-Type"),
             QByteArray("application/x-www-form-urlencoded"));
    const QRegularExpression form(QStringLiteral("^cm=create&tk=[0-9a-f]{64}&dt=[^&]+$"));
    QVERIFY2(form.match(QString::fromUtf8(create.constFirst().body)).hasMatch(),
             create.constFirst().body);
    const QString dt = QStringLiteral(
        R"({"amount":"150000","description":"%1","devid":"%2","items":[{"information":"Bill 17"}],"machine_name":"POS-1","merchant_code":"M01","payment_method":"1"})");
    QCOMPARE(create.constFirst().param(QStringLiteral("dt")), dt.arg(description, devid));

    // Open: a second invoice waits, the QR code notwithstanding.
    sdk.tumipayRequest(1, QString(), QString());
    QCOMPARE(appError.size(), 1);
    QCOMPARE(appError.constFirst(), (QVariantList{103, "kelo process tumipay busy"}));

    // The customer pays: the server announces it on the device's socket.
    QVERIFY(f.cloud->markInvoicePaid(code));
    QVERIFY(paid.wait(kWait));
    const QJsonObject done =
        QJsonDocument::fromJson(paid.constFirst().at(0).toString().toUtf8()).object();
    QCOMPARE(done.value(QStringLiteral("err")).toInt(), -1);
    QCOMPARE(done.value(QStringLiteral("msg")).toString(), QStringLiteral("payment_success"));
    QCOMPARE(done.value(QStringLiteral("dt")).toObject().value(QStringLiteral("invoice_code")),
             QJsonValue(code));

    // The paid invoice is forgotten; the invoice kind stays held until a cancel or a reset.
    sdk.tumipayCancel(code);
    QCOMPARE(appError.size(), 2);
    QCOMPARE(
        appError.constLast(),
        (QVariantList{105, QStringLiteral("kelo cancel invoice code not existed (%1)").arg(code)}));
    sdk.tumipayRequest(1, QString(), QString());
    QCOMPARE(appError.size(), 3);
    QCOMPARE(appError.constLast().at(0).toInt(), 103);
    QCOMPARE(qr.size(), 1);
    QCOMPARE(paid.size(), 1);
    QCOMPARE(netError.size(), 0);
    QCOMPARE(f.cloud->exchanges("/kelo/api/invoice", "cancel").size(), 0);
}

void TestPaymentFlows::noticeForAnotherInvoiceKeepsTheCode()
{
    Kelosdk& sdk = sdkWithOpenInvoice();
    const QString devid = f.device;
    QVERIFY(QTest::qWaitFor([&] { return f.cloud->connectedDevices().contains(devid); }, kWait));
    QSignalSpy paid(&sdk, SIGNAL(tumipayRequestDone(QString)));
    QSignalSpy notified(&sdk, SIGNAL(notify(QString)));
    QSignalSpy cancelled(&sdk, SIGNAL(tumipayCancelDone(QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));

    QVERIFY(f.cloud->pushText(devid, paidNotice(QStringLiteral("OTHER")).toUtf8()));
    QVERIFY(paid.wait(kWait));
    QCOMPARE(
        paid.constFirst(),
        QVariantList{
            R"({"dt":{"amount":"5","invoice_code":"OTHER"},"err":-1,"msg":"payment_success"})"});

    f.cloud->scriptReply("/kelo/api/invoice", QStringLiteral("cancel"), replyWith("{}"));
    sdk.tumipayCancel(kCode);
    QVERIFY(cancelled.wait(kWait));
    QCOMPARE(paid.size(), 1);
    QCOMPARE(notified.size(), 0);
    QCOMPARE(appError.size(), 0);
}

void TestPaymentFlows::otherNoticesPassTheirWord_data()
{
    QTest::addColumn<QByteArray>("notice");
    QTest::addColumn<QString>("word");
    QTest::newRow("event") << QByteArray(R"({"dt":{"table_id":3},"msg":"table_update","type":3})")
                           << "table_update";
    QTest::newRow("case matters") << paidNotice(kCode).toUtf8().replace("payment", "Payment")
                                  << "Payment_success";
    QTest::newRow("no word") << QByteArray(R"({"type":2,"dt":{"invoice_code":"#A#12"}})") << "";
    QTest::newRow("not json") << QByteArray("ping") << "";
}

void TestPaymentFlows::otherNoticesPassTheirWord()
{
    QFETCH(QByteArray, notice);
    QFETCH(QString, word);

    Kelosdk& sdk = sdkWithOpenInvoice();
    const QString devid = f.device;
    QVERIFY(QTest::qWaitFor([&] { return f.cloud->connectedDevices().contains(devid); }, kWait));
    QSignalSpy notified(&sdk, SIGNAL(notify(QString)));
    QSignalSpy paid(&sdk, SIGNAL(tumipayRequestDone(QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));

    QVERIFY(f.cloud->pushText(devid, notice));
    QVERIFY(notified.wait(kWait));
    QCOMPARE(notified.constFirst(), QVariantList{word});
    // The open invoice is untouched: cancelling it still goes to the server.
    f.cloud->scriptReply("/kelo/api/invoice", QStringLiteral("cancel"),
                         faultReply(CloudReply::Fault::NeverAnswer));
    sdk.tumipayCancel(kCode);
    QVERIFY(f.waitExchanges("/kelo/api/invoice", QStringLiteral("cancel"), 1));
    QCOMPARE(notified.size(), 1);
    QCOMPARE(paid.size(), 0);
    QCOMPARE(appError.size(), 0);
}

void TestPaymentFlows::sessionWithoutCreateHoldsTheInvoiceKind_data()
{
    QTest::addColumn<QByteArray>("sessionReply");
    QTest::addColumn<int>("paytype");
    QTest::newRow("session refused") << QByteArray(R"({"err":7,"msg":"no session"})") << 1;
    QTest::newRow("session unreadable") << QByteArray("<html>") << 1;
    QTest::newRow("not the e-wallet") << kSession << 2;
}

void TestPaymentFlows::sessionWithoutCreateHoldsTheInvoiceKind()
{
    QFETCH(QByteArray, sessionReply);
    QFETCH(int, paytype);

    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("get_session"),
                         replyWith(sessionReply));
    QSignalSpy qr(&sdk, SIGNAL(tumiQRInvoiceCode(QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));
    QSignalSpy netError(&sdk, SIGNAL(networkError(int, QString)));

    if (paytype == 1)
        sdk.tumipayRequest(5, QStringLiteral("d"), QStringLiteral("i"));
    else
        sdk.transPermisionRequest(paytype, 5, QStringLiteral("d"), QStringLiteral("i"));
    auto* request = sdk.findChild<HttpBase2*>();
    QVERIFY(request);
    QSignalSpy sessionDone(request, SIGNAL(done(QVariant)));
    QVERIFY(sessionDone.wait(kWait));
    QCOMPARE(qr.size(), 0);
    QCOMPARE(appError.size(), 0);
    QCOMPARE(netError.size(), 0);

    if (paytype == 1) {
        // Nothing was said, but the kind stays held until the host resets it.
        sdk.tumipayRequest(5, QStringLiteral("d"), QStringLiteral("i"));
        QCOMPARE(appError.size(), 1);
        QCOMPARE(appError.constFirst().at(0).toInt(), 103);
        sdk.onNetworkError(1, QStringLiteral("reset"));
        f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("get_session"),
                             faultReply(CloudReply::Fault::NeverAnswer));
        sdk.tumipayRequest(5, QStringLiteral("d"), QStringLiteral("i"));
        QCOMPARE(appError.size(), 1);
        QVERIFY(f.waitExchanges("/kelo/api/invoice/", QStringLiteral("get_session"), 2));
    }
    QCOMPARE(f.cloud->exchanges("/kelo/api/invoice/", QStringLiteral("create")).size(), 0);
}

void TestPaymentFlows::refusedInvoiceKeepsTheKindHeld()
{
    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("get_session"), replyWith(kSession));
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("create"),
                         replyWith(R"({"dt":{"invoice_code":"Z"},"err":4,"msg":"expired"})"));
    QSignalSpy qr(&sdk, SIGNAL(tumiQRInvoiceCode(QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));

    sdk.tumipayRequest(5, QStringLiteral("d"), QStringLiteral("i"));
    QVERIFY(appError.wait(kWait));
    QCOMPARE(appError.constFirst(), (QVariantList{4, "expired"}));
    sdk.tumipayRequest(5, QStringLiteral("d"), QStringLiteral("i"));
    QCOMPARE(appError.size(), 2);
    QCOMPARE(appError.constLast().at(0).toInt(), 103);
    sdk.tumipayCancel(QStringLiteral("Z")); // the refused code was never stored
    QCOMPARE(appError.size(), 3);
    QCOMPARE(appError.constLast().at(0).toInt(), 105);
    QCOMPARE(qr.size(), 0);
}

void TestPaymentFlows::createReplyIsNeverTakenForASession_data()
{
    QTest::addColumn<QByteArray>("createReply");
    QTest::newRow("no dt") << QByteArray(R"({"err":0})");
    QTest::newRow("dt with a session")
        << QByteArray(R"({"dt":{"invoice_code":"C1","invoice_session":"S2"},"err":0})");
}

// A "create" reply that also reads as a good session must not start a second "create".
void TestPaymentFlows::createReplyIsNeverTakenForASession()
{
    QFETCH(QByteArray, createReply);

    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("get_session"), replyWith(kSession));
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("create"), replyWith(createReply), 2);
    QSignalSpy qr(&sdk, SIGNAL(tumiQRInvoiceCode(QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));
    QSignalSpy netError(&sdk, SIGNAL(networkError(int, QString)));

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

    QVERIFY(qr.wait(kWait));
    QCOMPARE(qr.constFirst(), QVariantList{QString::fromUtf8(createReply)});
    QVERIFY(released.wait(kWait));
    QCOMPARE(replies, 2);
    QCOMPARE(netError.size(), 0);
    QCOMPARE(f.cloud->exchanges("/kelo/api/invoice/", QStringLiteral("create")).size(), 1);
    QCOMPARE(qr.size(), 1);
    QCOMPARE(appError.size(), 0);
}

void TestPaymentFlows::transportErrorFreesTheKind_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QString>("cm");
    QTest::addColumn<CloudReply>("failure");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("doneSignal");

    const CloudReply reset = faultReply(CloudReply::Fault::ResetBeforeHeaders);
    const int resetCode = QNetworkReply::RemoteHostClosedError;
    QTest::newRow("payment") << QByteArray("/kelo/api/invoice/") << "payment" << replyWith("", 500)
                             << int(QNetworkReply::InternalServerError)
                             << QByteArray(SIGNAL(paymentDone(QString)));
    QTest::newRow("session") << QByteArray("/kelo/api/invoice/") << "get_session"
                             << replyWith("", 500) << int(QNetworkReply::InternalServerError)
                             << QByteArray(SIGNAL(tumiQRInvoiceCode(QString)));
    QTest::newRow("create") << QByteArray("/kelo/api/invoice/") << "create" << reset << resetCode
                            << QByteArray(SIGNAL(tumiQRInvoiceCode(QString)));
    QTest::newRow("cancel") << QByteArray("/kelo/api/invoice") << "cancel" << reset << resetCode
                            << QByteArray(SIGNAL(tumipayCancelDone(QString)));
}

void TestPaymentFlows::transportErrorFreesTheKind()
{
    QFETCH(QByteArray, path);
    QFETCH(QString, cm);
    QFETCH(CloudReply, failure);
    QFETCH(int, code);
    QFETCH(QByteArray, doneSignal);

    Kelosdk& sdk = cm == QLatin1String("cancel") ? sdkWithOpenInvoice() : f.newSdk();
    f.scriptFailure(path, cm, failure);
    QSignalSpy done(&sdk, doneSignal.constData());
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));
    QSignalSpy netError(&sdk, SIGNAL(networkError(int, QString)));
    const auto call = [&] {
        if (cm == QLatin1String("payment"))
            sdk.paymentRequest(1, 2);
        else if (cm == QLatin1String("cancel"))
            sdk.tumipayCancel(kCode); // the code is kept after a failed cancel
        else
            sdk.tumipayRequest(5, QStringLiteral("d"), QStringLiteral("i"));
    };

    call();
    QVERIFY(netError.wait(kWait));
    QCOMPARE(netError.constFirst().at(0).toInt(), code);
    QVERIFY(!netError.constFirst().at(1).toString().isEmpty());

    f.cloud->clearScripts();
    const int sent = f.cloud->exchanges(path, cm).size();
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("get_session"), replyWith(kSession));
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("create"), replyWith(kInvoice));
    f.cloud->scriptReply("/kelo/api/invoice", QStringLiteral("cancel"), replyWith("{}"));
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("payment"), replyWith("{}"));
    call();
    QVERIFY(done.wait(kWait));
    QCOMPARE(f.cloud->exchanges(path, cm).size(), sent + 1);
    QCOMPARE(done.size(), 1);
    QCOMPARE(netError.size(), 1);
    QCOMPARE(appError.size(), 0);
}

void TestPaymentFlows::cancelRefusesUnknownCodes_data()
{
    QTest::addColumn<bool>("open");
    QTest::addColumn<QString>("code");
    QTest::newRow("no invoice") << false << kCode;
    QTest::newRow("empty, no invoice") << false << QString();
    QTest::newRow("empty") << true << QString();
    QTest::newRow("other case") << true << QStringLiteral("#a#12");
    QTest::newRow("without #") << true << QStringLiteral("A12");
}

void TestPaymentFlows::cancelRefusesUnknownCodes()
{
    QFETCH(bool, open);
    QFETCH(QString, code);

    Kelosdk& sdk = open ? sdkWithOpenInvoice() : f.newSdk();
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));
    QSignalSpy cancelled(&sdk, SIGNAL(tumipayCancelDone(QString)));

    sdk.tumipayCancel(code);
    QCOMPARE(appError.size(), 1);
    QCOMPARE(
        appError.constFirst(),
        (QVariantList{105, QStringLiteral("kelo cancel invoice code not existed (%1)").arg(code)}));
    if (open) { // the invoice kind is still held
        sdk.tumipayRequest(1, QString(), QString());
        QCOMPARE(appError.size(), 2);
        QCOMPARE(appError.constLast().at(0).toInt(), 103);
    }
    QCOMPARE(cancelled.size(), 0);
    QCOMPARE(f.cloud->exchanges("/kelo/api/invoice", QStringLiteral("cancel")).size(), 0);
}

void TestPaymentFlows::cancelFreesTheInvoiceKindAtOnce()
{
    Kelosdk& sdk = sdkWithOpenInvoice();
    CloudReply slow = replyWith(R"({"err":0,"msg":"cancelled"})");
    slow.delayMs = 300;
    f.cloud->scriptReply("/kelo/api/invoice", QStringLiteral("cancel"), slow);
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("get_session"),
                         faultReply(CloudReply::Fault::NeverAnswer));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));
    QSignalSpy cancelled(&sdk, SIGNAL(tumipayCancelDone(QString)));

    sdk.tumipayCancel(kCode);
    sdk.tumipayCancel(kCode);
    QCOMPARE(appError.size(), 1);
    QCOMPARE(appError.constFirst(), (QVariantList{104, "kelo process paycancel busy"}));
    sdk.tumipayRequest(1, QString(), QString()); // accepted while the cancel is in flight
    QCOMPARE(appError.size(), 1);

    QVERIFY(cancelled.wait(kWait));
    QCOMPARE(cancelled.constFirst(), QVariantList{R"({"err":0,"msg":"cancelled"})"});
    const QList<CloudExchange> sent = f.cloud->exchanges("/kelo/api/invoice", "cancel");
    QCOMPARE(sent.size(), 1);
    QCOMPARE(sent.constFirst().method, QByteArray("GET"));
    QVERIFY2(sent.constFirst().target.startsWith("/kelo/api/invoice?cm=cancel&dt="),
             sent.constFirst().target);
    QCOMPARE(sent.constFirst().param(QStringLiteral("dt")),
             QStringLiteral(R"({"invoice_code":"A12","merchant_code":"M01"})"));
    QVERIFY(f.waitExchanges("/kelo/api/invoice/", QStringLiteral("get_session"), 2));

    // The cancelled invoice is forgotten.
    sdk.tumipayCancel(kCode);
    QCOMPARE(appError.size(), 2);
    QCOMPARE(appError.constLast().at(0).toInt(), 105);
    QCOMPARE(cancelled.size(), 1);
}

QTEST_GUILESS_MAIN(TestPaymentFlows)
#include "tst_kelosdk_payment.moc"
