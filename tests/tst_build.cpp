// The library as a build product: the signing key must never sit in the binary as one string.
#include <QFile>
#include <QtTest>

class TestBuild : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void signingKeyIsNotOneStringInTheLibrary_data();
    void signingKeyIsNotOneStringInTheLibrary();
};

void TestBuild::signingKeyIsNotOneStringInTheLibrary_data()
{
    QTest::addColumn<QByteArray>("needle");
    const QByteArray key(KELO_TEST_SECRET_KEY);
    QTest::newRow("ascii") << key;
    QByteArray utf16;
    for (char c : key)
        utf16.append(c).append('\0');
    QTest::newRow("utf-16") << utf16;
    QTest::newRow("first half") << key.left(16);
    QTest::newRow("second half") << key.mid(16);
}

void TestBuild::signingKeyIsNotOneStringInTheLibrary()
{
    QFETCH(QByteArray, needle);
    QFile library(QStringLiteral(KELO_TEST_LIBRARY_PATH));
    QVERIFY2(library.open(QIODevice::ReadOnly), qPrintable(library.fileName()));
    const QByteArray binary = library.readAll();
    QVERIFY(binary.size() > 10000);
    QVERIFY(!binary.contains(needle));
}

QTEST_GUILESS_MAIN(TestBuild)
#include "tst_build.moc"
