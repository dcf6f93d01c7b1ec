// The signing key and signatures, checked against OpenSSL's HMAC-SHA-256 with this build's key.
#include "libcmn.h"

#include <QtTest>

#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace {

const QByteArray buildKey(KELO_TEST_SECRET_KEY);
// The development key of the build options, and signatures made with it by
// `printf '%s' <text> | openssl dgst -sha256 -hmac <key>`.
const QByteArray developmentKey("kLoDev7Qm2Xa9Rt4Vb8Nc3Zp6Wy1Hs5J");

QString opensslHmac(const QString& text)
{
    const QByteArray message = text.toUtf8();
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), buildKey.constData(), buildKey.size(),
         reinterpret_cast<const unsigned char*>(message.constData()), size_t(message.size()), mac,
         &length);
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(mac), int(length)).toHex());
}

} // namespace

class TestLibcmnSigning : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void keyIsTheBuildKey();
    void signatureMatchesOpenssl_data();
    void signatureMatchesOpenssl();
    void signatureMatchesRecordedVector_data();
    void signatureMatchesRecordedVector();
    void connectStringIsSigned_data();
    void connectStringIsSigned();
};

void TestLibcmnSigning::keyIsTheBuildKey()
{
    QCOMPARE(buildKey.size(), 32);
    QCOMPARE(Libcmn::keloSecretkey(), QString::fromLatin1(buildKey));
}

void TestLibcmnSigning::signatureMatchesOpenssl_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("empty") << QString();
    QTest::newRow("ascii") << QString("MDS");
    QTest::newRow("non-ascii") << QString::fromUtf8("Bàn 3 ☕ 😀");
    QTest::newRow("nul inside") << QString::fromUtf8("a\0b", 3);
    QTest::newRow("place markers") << QString(R"({"description":"%1 #2"}%2)");
    QTest::newRow("longer than a block") << QString(1000, QLatin1Char('x'));
}

void TestLibcmnSigning::signatureMatchesOpenssl()
{
    QFETCH(QString, text);
    const QString signature = Libcmn::HMacSha256(text);
    QCOMPARE(signature, opensslHmac(text));
    QVERIFY2(QRegExp("[0-9a-f]{64}").exactMatch(signature), qPrintable(signature));
}

void TestLibcmnSigning::signatureMatchesRecordedVector_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("signature");
    QTest::newRow("empty")
        << QString() << QString("dc3403df28b693f0b340e01cc497af273df943ae7a2bac47d6d590c40d80dd4c");
    QTest::newRow("connect")
        << QString("MDS")
        << QString("80bd5745461b49801efa1353294dd9293d040334f4d4facda1c96e9507a50e68");
    QTest::newRow("invoice")
        << QString(R"({"amount":"150000","description":"Table 3","devid":"D9","items":)"
                   R"([{"information":"Bill 17"}],"machine_name":"POS-1","merchant_code":"M01",)"
                   R"("payment_method":"1"}S-42)")
        << QString("f6d474b1296764e8794c99ba280c8c5464c9c387d56315dd0f08bca6e15a7350");
    QTest::newRow("utf-8")
        << QString::fromUtf8("Bàn 3 ☕")
        << QString("4ecc1c2b296107965d558055faed78e404ba159cdecde3b143220ca33eed44ab");
}

void TestLibcmnSigning::signatureMatchesRecordedVector()
{
    if (buildKey != developmentKey)
        QSKIP("this build signs with its own key; the recorded signatures use the development key");
    QFETCH(QString, text);
    QFETCH(QString, signature);
    QCOMPARE(Libcmn::HMacSha256(text), signature);
}

void TestLibcmnSigning::connectStringIsSigned_data()
{
    QTest::addColumn<QString>("base");
    QTest::addColumn<QString>("appuser");
    QTest::addColumn<QString>("devid");
    QTest::addColumn<QString>("session");
    QTest::addColumn<QString>("prefix");
    const auto row = [](const char* name, const QString& base, const QString& appuser,
                        const QString& devid, const QString& session, const QString& prefix) {
        QTest::newRow(name) << base << appuser << devid << session << prefix;
    };
    row("plain", "wss://h/x/", "M", "D", "S", "wss://h/x/?appuser=M&devid=D&ws_session=S&tk=");
    row("ampersands and spaces", "wss://h:8443/kelo/ntf/", "M 1&x=y", "{D&9}", " S%20 ",
        "wss://h:8443/kelo/ntf/?appuser=M 1&x=y&devid={D&9}&ws_session= S%20 &tk=");
    row("empty", "", "", "", "", "?appuser=&devid=&ws_session=&tk=");
    row("non-ascii", "wss://ü/", "Ä", "☕", "😀", "wss://ü/?appuser=Ä&devid=☕&ws_session=😀&tk=");
}

void TestLibcmnSigning::connectStringIsSigned()
{
    QFETCH(QString, base);
    QFETCH(QString, appuser);
    QFETCH(QString, devid);
    QFETCH(QString, session);
    QFETCH(QString, prefix);
    QCOMPARE(Libcmn::formatWsConnectString(base, appuser, devid, session),
             prefix + opensslHmac(appuser + devid + session));
}

QTEST_GUILESS_MAIN(TestLibcmnSigning)
#include "tst_libcmn_signing.moc"
