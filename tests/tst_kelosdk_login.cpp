// The user session of the SDK object: login, logout and the stored user.
#include "tst_kelosdk_fixture.h"

#include <QNetworkReply>

namespace {

const QByteArray kAnna = R"({"dt":{"staff_id":4,"staff_name":"Anna"},"err":0,"msg":"welcome"})";

} // namespace

class TestLoginFlow : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QVERIFY(f.startCloud()); }
    void cleanupTestCase() { f.sdk.reset(); }

    void sendsTheRoleWordAndStoresTheUser_data();
    void sendsTheRoleWordAndStoresTheUser();
    void refusesWhileALoginIsPendingOrAUserIsIn();
    void serverRefusalKeepsTheUserOut();
    void transportErrorKeepsTheStateAndFreesLogin();
    void logoutNeedsAUserNotAName();
    void userIdGoesIntoOrdersAndPayments();

private:
    SdkFixture f;
};

void TestLoginFlow::sendsTheRoleWordAndStoresTheUser_data()
{
    QTest::addColumn<SdkCall>("call");
    QTest::addColumn<QString>("cm");

    const auto login = [](int role) {
        return SdkCall([role](Kelosdk& s) {
            s.userLogin(QStringLiteral("anna"), QStringLiteral("p&w=1"),
                        static_cast<Kelosdk::user_type>(role));
        });
    };
    QTest::newRow("client") << login(Kelosdk::client) << "client_login";
    QTest::newRow("waiter") << login(Kelosdk::waiter) << "waiter_login";
    QTest::newRow("cashier") << login(Kelosdk::cashier) << "cashier_login";
    QTest::newRow("unknown role") << login(7) << "client_login";
    QTest::newRow("two-argument slot by name") << SdkCall([](Kelosdk& s) {
        QVERIFY(QMetaObject::invokeMethod(&s, "userLogin", Q_ARG(QString, "anna"),
                                          Q_ARG(QString, "p&w=1")));
    }) << "client_login";
}

void TestLoginFlow::sendsTheRoleWordAndStoresTheUser()
{
    QFETCH(SdkCall, call);
    QFETCH(QString, cm);

    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/login/", cm, replyWith(kAnna));
    QSignalSpy done(&sdk, SIGNAL(userLoginDone(int, QString)));
    QSignalSpy idname(&sdk, SIGNAL(userIdname(int, QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));

    call(sdk);
    QVERIFY(done.wait(kWait));
    QCOMPARE(done.constFirst(), (QVariantList{0, "welcome"}));

    const QList<CloudExchange> sent = f.cloud->exchanges("/kelo/api/login/");
    QCOMPARE(sent.size(), 1);
    QCOMPARE(sent.constFirst().method, QByteArray("GET"));
    QVERIFY2(sent.constFirst().target.startsWith("/kelo/api/login/?cm=" + cm.toUtf8() + "&dt="),
             sent.constFirst().target);
    QCOMPARE(sent.constFirst().param(QStringLiteral("dt")),
             QStringLiteral(R"({"merchant_code":"M01","p":"p&w=1","u":"anna"})"));

    QVERIFY(sdk.userIslogged());
    int id = -7;
    QString name;
    QVERIFY(sdk.userName(id, name));
    QCOMPARE(id, 4);
    QCOMPARE(name, QStringLiteral("Anna"));
    QCOMPARE(idname.size(), 1);
    QCOMPARE(idname.constFirst(), (QVariantList{4, "Anna"}));
    QCOMPARE(done.size(), 1);
    QCOMPARE(appError.size(), 0);
}

void TestLoginFlow::refusesWhileALoginIsPendingOrAUserIsIn()
{
    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/login/", QStringLiteral("client_login"), replyWith(kAnna));
    QSignalSpy done(&sdk, SIGNAL(userLoginDone(int, QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));
    QSignalSpy logout(&sdk, SIGNAL(userLogoutDone(int, QString)));

    sdk.userLogin(QStringLiteral("anna"), QStringLiteral("pw"));
    sdk.userLogin(QStringLiteral("bob"), QStringLiteral("pw"), Kelosdk::cashier);
    QCOMPARE(appError.size(), 1);
    QCOMPARE(appError.constLast(), (QVariantList{106, "kelo process login busy!"}));
    QVERIFY(done.wait(kWait));

    // The stored name is tested before the busy bit, and names the user who is in.
    sdk.userLogin(QStringLiteral("bob"), QStringLiteral("pw"), Kelosdk::waiter);
    QCOMPARE(appError.size(), 2);
    QCOMPARE(appError.constLast(), (QVariantList{107, "user 'Anna' is logined"}));
    QCOMPARE(f.cloud->exchanges("/kelo/api/login/").size(), 1);

    sdk.userLogout();
    QCOMPARE(logout.size(), 1);
    QCOMPARE(logout.constFirst(), (QVariantList{0, "User logout done!"}));
    QVERIFY(!sdk.userIslogged());
    f.cloud->scriptReply("/kelo/api/login/", QStringLiteral("waiter_login"), replyWith(kAnna));
    sdk.userLogin(QStringLiteral("bob"), QStringLiteral("pw"), Kelosdk::waiter);
    QVERIFY(done.wait(kWait));
    QCOMPARE(f.cloud->exchanges("/kelo/api/login/", QStringLiteral("waiter_login")).size(), 1);
    QCOMPARE(done.size(), 2);
    QCOMPARE(appError.size(), 2);
}

void TestLoginFlow::serverRefusalKeepsTheUserOut()
{
    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply(
        "/kelo/api/login/", QStringLiteral("client_login"),
        replyWith(R"({"dt":{"staff_id":4,"staff_name":"Anna"},"err":3,"msg":"bad password"})"));
    QSignalSpy done(&sdk, SIGNAL(userLoginDone(int, QString)));
    QSignalSpy idname(&sdk, SIGNAL(userIdname(int, QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));

    sdk.userLogin(QStringLiteral("anna"), QStringLiteral("nope"));
    QVERIFY(done.wait(kWait));
    QCOMPARE(done.constFirst(), (QVariantList{3, "bad password"}));
    QVERIFY(!sdk.userIslogged());
    int id = -7;
    QString name = QStringLiteral("untouched");
    QVERIFY(!sdk.userName(id, name));
    QCOMPARE(id, -7);
    QCOMPARE(name, QStringLiteral("untouched"));
    QCOMPARE(idname.size(), 0);

    // Free again for a second try, which the server answers with a body it cannot be read.
    f.cloud->scriptReply("/kelo/api/login/", QStringLiteral("client_login"), replyWith("<html>"));
    sdk.userLogin(QStringLiteral("anna"), QStringLiteral("again"));
    QVERIFY(done.wait(kWait));
    QCOMPARE(done.constLast(), (QVariantList{-1, ""}));
    QVERIFY(!sdk.userIslogged());
    QCOMPARE(appError.size(), 0);
}

void TestLoginFlow::transportErrorKeepsTheStateAndFreesLogin()
{
    Kelosdk& sdk = f.newSdk();
    f.scriptFailure("/kelo/api/login/", QStringLiteral("client_login"),
                    faultReply(CloudReply::Fault::ResetBeforeHeaders));
    QSignalSpy done(&sdk, SIGNAL(userLoginDone(int, QString)));
    QSignalSpy netError(&sdk, SIGNAL(networkError(int, QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));

    sdk.userLogin(QStringLiteral("anna"), QStringLiteral("pw"));
    QVERIFY(netError.wait(kWait));
    QCOMPARE(netError.constFirst().at(0).toInt(), int(QNetworkReply::RemoteHostClosedError));
    QVERIFY(!sdk.userIslogged());

    f.cloud->clearScripts();
    f.cloud->scriptReply("/kelo/api/login/", QStringLiteral("client_login"), replyWith(kAnna));
    sdk.userLogin(QStringLiteral("anna"), QStringLiteral("pw"));
    QVERIFY(done.wait(kWait));
    QVERIFY(sdk.userIslogged());

    // Freeing every kind leaves the user logged in.
    sdk.onNetworkError(1, QStringLiteral("x"));
    QVERIFY(sdk.userIslogged());
    QCOMPARE(done.size(), 1);
    QCOMPARE(netError.size(), 2);
    QCOMPARE(appError.size(), 0);
}

void TestLoginFlow::logoutNeedsAUserNotAName()
{
    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/login/", QStringLiteral("client_login"),
                         replyWith(R"({"dt":{"staff_id":0},"err":0,"msg":""})"), 2);
    QSignalSpy done(&sdk, SIGNAL(userLoginDone(int, QString)));
    QSignalSpy logout(&sdk, SIGNAL(userLogoutDone(int, QString)));
    QSignalSpy appError(&sdk, SIGNAL(keloappError(int, QString)));

    sdk.userLogout();
    QCOMPARE(appError.size(), 1);
    QCOMPARE(appError.constFirst(), (QVariantList{108, "User not logined!"}));

    sdk.userLogin(QStringLiteral("ghost"), QStringLiteral("pw"));
    QVERIFY(done.wait(kWait));
    QVERIFY(sdk.userIslogged()); // id 0 is a user
    // No stored name: a second login is not refused with 107.
    sdk.userLogin(QStringLiteral("ghost"), QStringLiteral("pw"));
    QVERIFY(done.wait(kWait));
    QCOMPARE(appError.size(), 1);

    // Logout is local: the id alone is enough to log out.
    sdk.userLogout();
    QCOMPARE(logout.size(), 1);
    QCOMPARE(logout.constFirst(), (QVariantList{0, "User logout done!"}));
    QVERIFY(!sdk.userIslogged());
    sdk.userLogout();
    QCOMPARE(appError.size(), 2);
    QCOMPARE(appError.constLast().at(0).toInt(), 108);
    QCOMPARE(f.cloud->exchanges("/kelo/api/login/").size(), 2);
}

void TestLoginFlow::userIdGoesIntoOrdersAndPayments()
{
    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/login/", QStringLiteral("client_login"), replyWith(kAnna));
    QSignalSpy done(&sdk, SIGNAL(userLoginDone(int, QString)));
    sdk.userLogin(QStringLiteral("anna"), QStringLiteral("pw"));
    QVERIFY(done.wait(kWait));

    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("confirm_order"), replyWith("{}"));
    f.cloud->scriptReply("/kelo/api/invoice/", QStringLiteral("payment"), replyWith("{}"));
    sdk.foodOrderRequest({{"table_id", 2}, {"amount", 10}});
    sdk.paymentRequest(2, 10);
    QVERIFY(f.waitExchanges("/kelo/api/invoice/", QStringLiteral("confirm_order"), 1));
    QVERIFY(f.waitExchanges("/kelo/api/invoice/", QStringLiteral("payment"), 1));
    QCOMPARE(f.cloud->exchanges("/kelo/api/invoice/", QStringLiteral("confirm_order"))
                 .constFirst()
                 .param(QStringLiteral("dt")),
             QStringLiteral(
                 R"({"amount":10,"items":[],"merchant_code":"M01","staff_id":4,"table_id":2})"));
    QCOMPARE(f.cloud->exchanges("/kelo/api/invoice/", QStringLiteral("payment"))
                 .constFirst()
                 .param(QStringLiteral("dt")),
             QStringLiteral(R"({"amount":10,"merchant_code":"M01","staff_id":4,"table_id":2})"));
}

QTEST_GUILESS_MAIN(TestLoginFlow)
#include "tst_kelosdk_login.moc"
