// The library as a build product: the signing key must never sit in the binary as one string.
#include <QFile>
#include <QtTest>

class TestBuild : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void signingKeyIsNotOneStringInTheLibrary()
    {
        QFile library(QStringLiteral(KELO_TEST_LIBRARY_PATH));
        QVERIFY2(library.open(QIODevice::ReadOnly), qPrintable(library.fileName()));
        const QByteArray binary = library.readAll(), key(KELO_TEST_SECRET_KEY);
        QVERIFY(binary.size() > 10000);
        QByteArray utf16;
        for (char c : key)
            utf16.append(c).append('\0');
        // Whole, in UTF-16, or in two halves (the failure names the form, never the key).
        const QList<QByteArray> needles{key, utf16, key.left(16), key.mid(16)};
        for (int form = 0; form < needles.size(); ++form)
            QVERIFY2(!binary.contains(needles[form]), qPrintable(QString::number(form)));
    }
};

QTEST_GUILESS_MAIN(TestBuild)
#include "tst_build.moc"
