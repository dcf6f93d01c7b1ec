// The terminal's languages: every text lupdate finds in its sources is in each catalogue
// (examples/kelo-terminal/translations/), every Vietnamese text is translated and keeps its
// placeholders, and switching the language changes the texts and the money at once.
#include "terminallanguage.h"

#include <QFile>
#include <QProcess>
#include <QQmlComponent>
#include <QQmlContext>
#include <QQmlEngine>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QXmlStreamReader>
#include <QtTest>

#include <memory>

namespace {

struct Message
{
    QString context;
    QString source;
    QString translation;
    QString type; // "unfinished", "vanished", "obsolete" or empty
};

// The messages of a .ts file; an empty list and @p error set when it cannot be read.
QList<Message> readCatalogue(const QString& path, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = file.errorString();
        return {};
    }
    QList<Message> messages;
    QXmlStreamReader xml(&file);
    QString context;
    Message message;
    while (!xml.atEnd()) {
        xml.readNext();
        if (!xml.isStartElement())
            continue;
        if (xml.name() == QLatin1String("name")) {
            context = xml.readElementText();
        } else if (xml.name() == QLatin1String("message")) {
            message = Message{context, {}, {}, {}};
        } else if (xml.name() == QLatin1String("source")) {
            message.source = xml.readElementText();
        } else if (xml.name() == QLatin1String("translation")) {
            message.type = xml.attributes().value(QLatin1String("type")).toString();
            message.translation = xml.readElementText(QXmlStreamReader::IncludeChildElements);
            messages << message;
        }
    }
    if (xml.hasError())
        *error = xml.errorString();
    return messages;
}

QString catalogue(const QString& lang)
{
    return QStringLiteral(KELO_TERMINAL_SOURCE_DIR "/translations/kelo-terminal_%1.ts").arg(lang);
}

QSet<QString> placeholders(const QString& text)
{
    QSet<QString> found;
    QRegularExpressionMatchIterator it =
        QRegularExpression(QStringLiteral("%\\d")).globalMatch(text);
    while (it.hasNext())
        found << it.next().captured();
    return found;
}

QString key(const Message& m)
{
    return m.context + QStringLiteral(" | ") + m.source;
}

} // namespace

class TestTerminalTranslations : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void everyTextIsTranslated_data();
    void everyTextIsTranslated();
    void cataloguesMatchTheSources_data();
    void cataloguesMatchTheSources();
    void languageFollowsTheLocale_data();
    void languageFollowsTheLocale();
    void switchChangesTextsAndMoneyAtOnce();
    void unknownLanguageIsRefused();

private:
    QSet<QString> sourceTexts; // what lupdate finds in the terminal's sources
};

void TestTerminalTranslations::initTestCase()
{
    // lupdate over the sources as they are, into a catalogue of its own.
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString fresh = dir.filePath(QStringLiteral("fresh.ts"));
    QProcess lupdate;
    lupdate.setWorkingDirectory(QStringLiteral(KELO_TERMINAL_SOURCE_DIR));
    lupdate.setProcessChannelMode(QProcess::MergedChannels);
    // Every C++ source of the terminal and its QML: a new source is read without a change here.
    const QStringList sources = QDir(QStringLiteral(KELO_TERMINAL_SOURCE_DIR))
                                    .entryList({"*.cpp"}, QDir::Files, QDir::Name);
    QVERIFY(sources.contains("main.cpp"));
    lupdate.start(QStringLiteral(KELO_LUPDATE), QStringList{"-no-obsolete", "-locations", "none"}
                                                    << sources << "qml"
                                                    << "-ts" << fresh);
    QVERIFY2(lupdate.waitForFinished(60000), qPrintable(lupdate.errorString()));
    QVERIFY2(lupdate.exitCode() == 0, lupdate.readAll().constData());
    QString error;
    const QList<Message> messages = readCatalogue(fresh, &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    for (const Message& m : messages)
        sourceTexts << key(m);
    // The terminal has its texts in many screens: a handful would mean lupdate read too little.
    QVERIFY2(sourceTexts.size() >= 50, qPrintable(QString::number(sourceTexts.size())));
}

void TestTerminalTranslations::everyTextIsTranslated_data()
{
    QTest::addColumn<QString>("lang");
    QTest::newRow("vi") << QStringLiteral("vi");
    QTest::newRow("en") << QStringLiteral("en");
}

void TestTerminalTranslations::everyTextIsTranslated()
{
    QFETCH(QString, lang);
    QString error;
    const QList<Message> messages = readCatalogue(catalogue(lang), &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QVERIFY(!messages.isEmpty());
    QStringList wrong;
    for (const Message& m : messages) {
        if (!m.type.isEmpty())
            wrong << QString("%1 (%2)").arg(key(m), m.type);
        else if (m.translation.trimmed().isEmpty())
            wrong << QString("%1 (empty)").arg(key(m));
        else if (placeholders(m.translation) != placeholders(m.source))
            wrong << QString("%1 (placeholders differ: %2)").arg(key(m), m.translation);
        // Vietnamese: a text with words left as the English is not translated.
        else if (lang == QLatin1String("vi") && m.translation == m.source &&
                 m.source.contains(QRegularExpression(QStringLiteral("[A-Za-z]{2}"))))
            wrong << QString("%1 (left in English)").arg(key(m));
    }
    QVERIFY2(wrong.isEmpty(), qPrintable(wrong.join(QLatin1Char('\n'))));
}

void TestTerminalTranslations::cataloguesMatchTheSources_data()
{
    everyTextIsTranslated_data();
}

void TestTerminalTranslations::cataloguesMatchTheSources()
{
    QFETCH(QString, lang);
    QString error;
    QSet<QString> inCatalogue;
    for (const Message& m : readCatalogue(catalogue(lang), &error))
        inCatalogue << key(m);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QStringList missing = (sourceTexts - inCatalogue).values();
    QStringList stale = (inCatalogue - sourceTexts).values();
    missing.sort();
    stale.sort();
    QVERIFY2(missing.isEmpty(), qPrintable("not in the catalogue (run lupdate and translate):\n" +
                                           missing.join(QLatin1Char('\n'))));
    QVERIFY2(stale.isEmpty(),
             qPrintable("no longer in the sources:\n" + stale.join(QLatin1Char('\n'))));
}

void TestTerminalTranslations::languageFollowsTheLocale_data()
{
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("lang");
    const QList<QPair<QString, QString>> rows{{"vi_VN", "vi"}, {"vi", "vi"},    {"en_US", "en"},
                                              {"en_GB", "en"}, {"fr_FR", "en"}, {"C", "en"}};
    for (const auto& row : rows)
        QTest::newRow(qPrintable(row.first)) << row.first << row.second;
}

void TestTerminalTranslations::languageFollowsTheLocale()
{
    QFETCH(QString, locale);
    QFETCH(QString, lang);
    QCOMPARE(TerminalLanguage::forLocale(QLocale(locale)), lang);
}

void TestTerminalTranslations::switchChangesTextsAndMoneyAtOnce()
{
    QQmlEngine engine;
    TerminalLanguage language;
    QVERIFY(language.use(QStringLiteral("en")));
    language.setEngine(&engine);
    engine.rootContext()->setContextProperty(QStringLiteral("language"), &language);
    QSignalSpy changed(&language, &TerminalLanguage::codeChanged);

    // A piece of the login screen, with the terminal's own money.js and errors.js (its qrc).
    QQmlComponent component(&engine);
    component.setData("import QtQuick 2.15\n"
                      "import \"money.js\" as Money\n"
                      "import \"errors.js\" as Errors\n"
                      "QtObject {\n"
                      "    property string login: qsTr(\"Log in\")\n"
                      "    property string money: Money.format(65000)\n"
                      "    function refused() { return Errors.describe(210, \"\", 1) }\n"
                      "}\n",
                      QUrl(QStringLiteral("qrc:/kelo-terminal/LoginScreen.qml")));
    std::unique_ptr<QObject> screen(component.create());
    QVERIFY2(screen, qPrintable(component.errorString()));
    const auto refused = [&screen] {
        QVariant text;
        QMetaObject::invokeMethod(screen.get(), "refused", Q_RETURN_ARG(QVariant, text));
        return text.toString();
    };
    QCOMPARE(screen->property("login").toString(), QStringLiteral("Log in"));
    QCOMPARE(screen->property("money").toString(), QStringLiteral("65,000 ₫"));
    QCOMPARE(refused(), QStringLiteral("Wrong user name or password. Please try again."));

    QVERIFY(language.use(QStringLiteral("vi")));
    QCOMPARE(changed.count(), 1);
    QCOMPARE(language.localeName(), QStringLiteral("vi_VN"));
    QCOMPARE(screen->property("login").toString(), QStringLiteral("Đăng nhập"));
    QCOMPARE(screen->property("money").toString(), QStringLiteral("65.000 ₫"));
    QCOMPARE(refused(), QStringLiteral("Sai tên đăng nhập hoặc mật khẩu. Vui lòng thử lại."));

    QVERIFY(language.use(QStringLiteral("vi"))); // already: nothing changes
    QCOMPARE(changed.count(), 1);

    QVERIFY(language.use(QStringLiteral("en")));
    QCOMPARE(changed.count(), 2);
    QCOMPARE(screen->property("login").toString(), QStringLiteral("Log in"));
    QCOMPARE(screen->property("money").toString(), QStringLiteral("65,000 ₫"));
}

void TestTerminalTranslations::unknownLanguageIsRefused()
{
    TerminalLanguage language;
    QVERIFY(language.use(QStringLiteral("vi")));
    QSignalSpy changed(&language, &TerminalLanguage::codeChanged);
    QVERIFY(!language.use(QStringLiteral("fr")));
    QVERIFY(!language.use(QString()));
    QCOMPARE(changed.count(), 0);
    QCOMPARE(language.code(), QStringLiteral("vi"));
    QCOMPARE(QCoreApplication::translate("main", "Log out"), QStringLiteral("Đăng xuất"));
}

QTEST_MAIN(TestTerminalTranslations)
#include "tst_terminal_translations.moc"
