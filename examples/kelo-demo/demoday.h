#pragma once

#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QTimer>

#include <functional>

class Kelosdk;
class SimulatorControl;

/**
 * A terminal's day, step by step: connect, log a waiter in, load the menu with its pictures,
 * list tables, order, list a table's foods, merge two tables, take a payment, take an e-wallet
 * payment shown as a QR code, cancel a second invoice, log out. Every step prints what it sent
 * and what came back; every error signal is printed with its code and text.
 */
class DemoDay : public QObject
{
    Q_OBJECT
public:
    struct Settings
    {
        QString user = QStringLiteral("mai");
        QString password = QStringLiteral("mai123");
        int stepTimeoutMs = 60000;
    };

    DemoDay(Kelosdk& sdk, SimulatorControl& simulator, const Settings& settings,
            QObject* parent = nullptr);

    /// Runs the day; finished() tells how it ended (0: every step succeeded).
    void start();

Q_SIGNALS:
    void finished(int exitCode);

private:
    enum class Expect
    {
        Nothing,
        Connection,
        Login,
        Menu,
        Tables,
        Order,
        TableFoods,
        Merge,
        Payment,
        Invoice,
        Paid,
        FreeInvoiceFlow,
        Cancel,
        Logout
    };
    struct Step
    {
        QString title;
        Expect expect;
        std::function<void()> action;
    };

    void connectSdk();
    void buildSteps();
    void runStep();
    void stepDone();
    void fail(const QString& why);
    bool awaiting(Expect what) const;
    void showMenu(const QString& data);
    void pickTables(const QString& data);
    void showInvoice(const QString& data, bool drawQr);
    void updatePictureProgress();

    Kelosdk& sdk;
    SimulatorControl& simulator;
    Settings settings;
    QList<Step> steps;
    int current = -1;
    QTimer stepTimer;
    QTimer progressTimer;
    QJsonObject order;
    int fromTable = -1;
    int toTable = -1;
    int billAmount = 0;
    QString invoiceCode;
    int invoicesShown = 0;
    bool ended = false;
};
