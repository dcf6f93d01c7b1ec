#pragma once

#include <QLocale>
#include <QObject>
#include <QPointer>
#include <QQmlEngine>
#include <QString>
#include <QStringList>
#include <QTranslator>

/**
 * The terminal's language: Vietnamese or English. It starts from the system locale (vi* gives
 * Vietnamese, anything else English) and can be switched at any time (the login screen's EN / VI
 * switch, kelo-terminal --lang): the switch loads the language's translations embedded under
 * :/i18n/, makes its locale Qt's default (money, numbers) and retranslates the QML engine at once.
 */
class TerminalLanguage : public QObject
{
    Q_OBJECT
    /// "vi" or "en".
    Q_PROPERTY(QString code READ code WRITE setCode NOTIFY codeChanged)
    /// The locale that writes the language's numbers and money: "vi_VN" or "en_US".
    Q_PROPERTY(QString localeName READ localeName NOTIFY codeChanged)
public:
    explicit TerminalLanguage(QObject* parent = nullptr);
    ~TerminalLanguage() override;

    /// The languages there are translations for, in the switch's order.
    static QStringList available();
    /// The language the terminal takes for @p locale: "vi" for any Vietnamese locale, else "en".
    static QString forLocale(const QLocale& locale);

    QString code() const { return current; }
    /// Switches to @p code (one of available(); anything else is refused and returns false).
    bool use(const QString& code);
    void setCode(const QString& code) { use(code); }
    QString localeName() const;

    /// The engine to retranslate at each switch (none: only the application's translator).
    void setEngine(QQmlEngine* engine);

Q_SIGNALS:
    void codeChanged();

private:
    QString current;
    QTranslator translator;
    bool installed = false;
    QPointer<QQmlEngine> engine;
};
