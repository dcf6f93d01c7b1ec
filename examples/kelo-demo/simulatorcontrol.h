#pragma once

#include <QNetworkAccessManager>
#include <QObject>
#include <QString>

/// The local cloud simulator's control interface: what a customer's e-wallet app would do.
class SimulatorControl : public QObject
{
    Q_OBJECT
public:
    /// @p hostPort: the simulator, "127.0.0.1:<port>".
    explicit SimulatorControl(const QString& hostPort, QObject* parent = nullptr);

    /// Asks the simulator to mark @p invoiceCode paid; answered by finished().
    void markInvoicePaid(const QString& invoiceCode);

Q_SIGNALS:
    void finished(bool ok, const QString& answer);

private:
    QNetworkAccessManager network;
    QString hostPort;
};
