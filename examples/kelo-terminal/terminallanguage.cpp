#include "terminallanguage.h"

#include <QCoreApplication>

TerminalLanguage::TerminalLanguage(QObject* parent) : QObject(parent) {}

TerminalLanguage::~TerminalLanguage()
{
    if (installed)
        QCoreApplication::removeTranslator(&translator);
}

void TerminalLanguage::setEngine(QQmlEngine* engine)
{
    this->engine = engine;
}

QStringList TerminalLanguage::available()
{
    return {QStringLiteral("en"), QStringLiteral("vi")};
}

QString TerminalLanguage::forLocale(const QLocale& locale)
{
    return locale.language() == QLocale::Vietnamese ? QStringLiteral("vi") : QStringLiteral("en");
}

QString TerminalLanguage::localeName() const
{
    return current == QLatin1String("vi") ? QStringLiteral("vi_VN") : QStringLiteral("en_US");
}

bool TerminalLanguage::use(const QString& code)
{
    if (!available().contains(code))
        return false;
    if (code == current)
        return true;
    if (installed) {
        QCoreApplication::removeTranslator(&translator);
        installed = false;
    }
    // The texts are written in English, so English needs no catalogue to be right; both are
    // embedded all the same, and a missing one leaves the English texts.
    if (translator.load(QStringLiteral(":/i18n/kelo-terminal_%1.qm").arg(code)))
        installed = QCoreApplication::installTranslator(&translator);
    current = code;
    QLocale::setDefault(QLocale(localeName()));
    if (engine)
        engine->retranslate();
    emit codeChanged();
    return true;
}
