// The build's products: the signing key must never sit in a file as one string. And the library's
// sources: no state of the library rides on a dynamic property of its objects.
#include "testwait.h"

#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace {

/// Why @p content holds the key (the form: whole, UTF-16, a half), or empty. Never the key itself.
QString keyForm(const QByteArray& content)
{
    const QByteArray key(KELO_TEST_SECRET_KEY);
    QByteArray utf16;
    for (char c : key)
        utf16.append(c).append('\0');
    const QList<QPair<const char*, QByteArray>> forms{{"whole", key},
                                                      {"UTF-16", utf16},
                                                      {"first half", key.left(16)},
                                                      {"second half", key.mid(16)}};
    for (const auto& form : forms)
        if (content.contains(form.second))
            return QString::fromLatin1(form.first);
    return {};
}

/// "file:line: text" for each call of QObject::setProperty() or property() in the code (not the
/// comments) of the library's folders under @p sourceDir; @p scanned counts the files read.
QStringList dynamicPropertyCalls(const QString& sourceDir, int* scanned)
{
    static const QRegularExpression call(QStringLiteral(R"(\b(setProperty|property)\s*\()"));
    QStringList found;
    for (const char* folder : {"sdk", "http", "ws", "catalogue", "protocol"}) {
        QDirIterator files(sourceDir + QLatin1Char('/') + QLatin1String(folder),
                           {QStringLiteral("*.h"), QStringLiteral("*.cpp")}, QDir::Files,
                           QDirIterator::Subdirectories);
        while (files.hasNext()) {
            QFile file(files.next());
            if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
                continue;
            ++*scanned;
            const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
            for (int i = 0; i < lines.size(); ++i) {
                const QString code = lines[i].section(QStringLiteral("//"), 0, 0);
                if (call.match(code).hasMatch())
                    found << QStringLiteral("%1:%2: %3")
                                 .arg(file.fileName().mid(sourceDir.size() + 1))
                                 .arg(i + 1)
                                 .arg(lines[i].trimmed());
            }
        }
    }
    return found;
}

} // namespace

class TestBuild : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // The library keeps its state in typed members of private classes: a dynamic property is
    // invisible to the compiler, and one set on a host's object could collide with the host's.
    void noDynamicPropertyCarriesLibraryState()
    {
        int scanned = 0;
        const QStringList calls =
            dynamicPropertyCalls(QStringLiteral(KELO_TEST_SOURCE_DIR), &scanned);
        QVERIFY2(scanned >= 20, qPrintable(QString::number(scanned))); // the folders were found
        QVERIFY2(calls.isEmpty(), qPrintable(calls.join(QLatin1Char('\n'))));
    }

    void signingKeyIsNotOneStringInTheLibrary()
    {
        QFile library(QStringLiteral(KELO_TEST_LIBRARY_PATH));
        QVERIFY2(library.open(QIODevice::ReadOnly), qPrintable(library.fileName()));
        const QByteArray binary = library.readAll();
        QVERIFY(binary.size() > 10000);
        QCOMPARE(keyForm(binary), QString());
    }

    void noInstalledFileHoldsTheSigningKey()
    {
#ifndef KELO_TEST_CMAKE_COMMAND
        QSKIP("a cross-built test cannot run cmake --install; the native build scans");
#else
        QTemporaryDir prefix;
        QVERIFY(prefix.isValid());
        QProcess install;
        install.setProcessChannelMode(QProcess::MergedChannels);
        install.start(QStringLiteral(KELO_TEST_CMAKE_COMMAND),
                      {"--install", KELO_TEST_BUILD_DIR, "--prefix", prefix.path()});
        QVERIFY2(install.waitForFinished(4 * kWait) &&
                     install.exitStatus() == QProcess::NormalExit && install.exitCode() == 0,
                 install.readAll().right(400).constData()); // cmake's last words name the cause
        // kelo-cloud's default is the development key: with that key it legitimately holds it,
        // which is why CI builds with a key of its own (tools/run-tests.sh).
        const bool developmentKey =
            QByteArray(KELO_TEST_SECRET_KEY) == QByteArray(KELO_TEST_DEVELOPMENT_KEY);
        QDirIterator files(prefix.path(), QDir::Files | QDir::Hidden | QDir::NoSymLinks,
                           QDirIterator::Subdirectories);
        QStringList scanned, holding;
        while (files.hasNext()) {
            const QString path = files.next(), name = path.mid(prefix.path().size() + 1);
            if (developmentKey && name == QLatin1String(KELO_TEST_INSTALLED_CLOUD))
                continue;
            QFile file(path);
            QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(name));
            const QString form = keyForm(file.readAll());
            scanned << name;
            if (!form.isEmpty())
                holding << name + " (" + form + ")";
        }
        QVERIFY2(scanned.contains(QStringLiteral(KELO_TEST_INSTALLED_HEADER)),
                 qPrintable(scanned.join(' ')));
        QVERIFY2(std::any_of(scanned.cbegin(), scanned.cend(),
                             [](const QString& n) {
                                 return n.startsWith("lib/" KELO_TEST_INSTALLED_LIBRARY);
                             }),
                 qPrintable(scanned.join(' ')));
        QVERIFY2(developmentKey || !KELO_TEST_INSTALLS_CLOUD ||
                     scanned.contains(QStringLiteral(KELO_TEST_INSTALLED_CLOUD)),
                 qPrintable(scanned.join(' ')));
        QVERIFY2(holding.isEmpty(), qPrintable("the signing key is in: " + holding.join(", ")));
#endif
    }
};

QTEST_GUILESS_MAIN(TestBuild)
#include "tst_build.moc"
