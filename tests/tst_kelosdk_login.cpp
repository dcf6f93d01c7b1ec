// The user session of the SDK object: login, logout and the stored user.
#include "kelosdkfixture.h"
#include "sdkkinds.h"
#include "signalrecorder.h"

namespace {

const QByteArray kAnna = R"({"dt":{"staff_id":4,"staff_name":"Anna"},"err":0,"msg":"welcome"})";

SdkCall loginAs(int role)
{
    return [role](Kelosdk& s) {
        s.userLogin(QStringLiteral("anna"), QStringLiteral("p&w=1"),
                    static_cast<Kelosdk::user_type>(role));
    };
}

} // namespace

class TestLoginFlow : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QVERIFY(f.startCloud()); }
    void cleanupTestCase() { f.sdk.reset(); }
    void storesTheUserTheServerNames_data();
    void storesTheUserTheServerNames();

private:
    SdkFixture f;
};

void TestLoginFlow::storesTheUserTheServerNames_data()
{
    QTest::addColumn<SdkCall>("call");
    QTest::addColumn<QString>("cm");
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<QVariantList>("done");
    QTest::addColumn<int>("id"); // -1: nobody logged in
    QTest::addColumn<QString>("name");
    QTest::addColumn<QStringList>("fired");

    const QVariantList welcome{0, "welcome"};
    const QStringList in{"networkError x1",   "keloappError x2", "userLoginDone x2",
                         "userLogoutDone x1", "userIdname x1",   "foodOrderRequestDone x1",
                         "paymentDone x1"};
    QTest::newRow("client") << loginAs(Kelosdk::client) << "client_login" << kAnna << welcome << 4
                            << "Anna" << in;
    QTest::newRow("waiter") << loginAs(Kelosdk::waiter) << "waiter_login" << kAnna << welcome << 4
                            << "Anna" << in;
    QTest::newRow("cashier") << loginAs(Kelosdk::cashier) << "cashier_login" << kAnna << welcome
                             << 4 << "Anna" << in;
    QTest::newRow("unknown role") << loginAs(7) << "client_login" << kAnna << welcome << 4 << "Anna"
                                  << in;
    QTest::newRow("two-argument slot by name") << SdkCall([](Kelosdk& s) {
        QMetaObject::invokeMethod(&s, "userLogin", Q_ARG(QString, "anna"), Q_ARG(QString, "p&w=1"));
    }) << "client_login" << kAnna << welcome << 4
                                               << "Anna" << in;
    // A refusal leaves nobody logged in.
    QTest::newRow("server refuses")
        << loginAs(Kelosdk::client) << "client_login"
        << QByteArray(R"({"dt":{"staff_id":4,"staff_name":"Anna"},"err":3,"msg":"bad password"})")
        << QVariantList{3, "bad password"} << -1 << ""
        << QStringList{"networkError x1", "keloappError x2", "userLoginDone x3",
                       "foodOrderRequestDone x1", "paymentDone x1"};
    // Id 0 is a user; with no name stored a second login is not refused.
    QTest::newRow("id without a name")
        << loginAs(Kelosdk::client) << "client_login"
        << QByteArray(R"({"dt":{"staff_id":0},"err":0,"msg":""})") << QVariantList{0, ""} << 0 << ""
        << QStringList{"networkError x1",   "keloappError x1", "userLoginDone x3",
                       "userLogoutDone x1", "userIdname x1",   "foodOrderRequestDone x1",
                       "paymentDone x1"};
}

void TestLoginFlow::storesTheUserTheServerNames()
{
    QFETCH(SdkCall, call);
    QFETCH(QString, cm);
    QFETCH(QByteArray, reply);
    QFETCH(QVariantList, done);
    QFETCH(int, id);
    QFETCH(QString, name);
    QFETCH(QStringList, fired);

    Kelosdk& sdk = f.newSdk();
    f.cloud->scriptReply("/kelo/api/login/", cm, replyWith(reply), 3);
    SignalRecorder seen(&sdk, {"cloudConnectionChange"});
    call(sdk);
    call(sdk);
    QCOMPARE(seen["keloappError"].constFirst(), (QVariantList{106, "kelo process login busy!"}));
    QVERIFY(seen["userLoginDone"].wait(kWait));
    QCOMPARE(seen["userLoginDone"].constFirst(), done);
    const QList<CloudExchange> sent = f.cloud->exchanges("/kelo/api/login/");
    QCOMPARE(sent.size(), 1);
    QCOMPARE(sent.constFirst().method, QByteArray("GET"));
    QVERIFY2(sent.constFirst().target.startsWith("/kelo/api/login/?cm=" + cm.toUtf8() + "&dt="),
             sent.constFirst().target);
    QCOMPARE(sent.constFirst().param(QStringLiteral("dt")),
             QStringLiteral(R"({"merchant_code":"M01","p":"p&w=1","u":"anna"})"));

    int gotId = -7;
    QString gotName = QStringLiteral("untouched");
    QCOMPARE(sdk.userName(gotId, gotName), id >= 0);
    QCOMPARE(gotId, id >= 0 ? id : -7);
    QCOMPARE(gotName, id >= 0 ? name : QStringLiteral("untouched"));
    if (id >= 0)
        QCOMPARE(seen["userIdname"].constFirst(), (QVariantList{id, name}));

    // The user's id goes into orders and payments.
    const QList<QPair<const char*, const char*>> orders{
        {"food order",
         R"({"amount":5,"items":[],"merchant_code":"M01","staff_id":%1,"table_id":3})"},
        {"payment", R"({"amount":5,"merchant_code":"M01","staff_id":%1,"table_id":3})"}};
    for (const auto& order : orders) {
        const SdkKind& k = sdkKind(order.first);
        f.cloud->scriptReply(k.path, k.cm, replyWith("{}"));
        k.call(sdk);
        QVERIFY(seen[k.done].wait(kWait));
        QCOMPARE(f.cloud->exchanges(k.path, k.cm).constFirst().param(QStringLiteral("dt")),
                 QString::fromLatin1(order.second).arg(id));
    }

    // A reset frees the kinds, not the user. A stored name refuses the next login; without one
    // it goes out.
    sdk.onNetworkError(1, QStringLiteral("x"));
    QCOMPARE(sdk.userIslogged(), id >= 0);
    call(sdk);
    if (name.isEmpty())
        QVERIFY(seen["userLoginDone"].wait(kWait));
    else
        QCOMPARE(seen["keloappError"].constLast(),
                 (QVariantList{107, QStringLiteral("user '%1' is logined").arg(name)}));
    // Logout is local and needs a user id, not a name; then the next login goes out.
    sdk.userLogout();
    QCOMPARE(sdk.userIslogged(), false);
    const QVariantList logout =
        id >= 0 ? QVariantList{0, "User logout done!"} : QVariantList{108, "User not logined!"};
    QCOMPARE((id >= 0 ? seen["userLogoutDone"] : seen["keloappError"]).constLast(), logout);
    call(sdk);
    QVERIFY(seen["userLoginDone"].wait(kWait));
    QCOMPARE(seen.fired(), fired);
    QCOMPARE(f.cloud->exchanges("/kelo/api/login/").size(), name.isEmpty() ? 3 : 2);
}

QTEST_GUILESS_MAIN(TestLoginFlow)
#include "tst_kelosdk_login.moc"
