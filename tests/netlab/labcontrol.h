// The network lab as a test on its terminal side sees it (tools/netlab/lab.sh run): the
// environment lab.sh sets, the wire's control (profile, blackhole) and the simulator's control
// routes across the wire.
#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

class LabControl
{
public:
    /// Reads the lab's environment; false outside the lab (KELO_LAB_API unset).
    bool read();
    bool isInside() const { return !api.isEmpty(); }
    /// Trusts the lab's CA in this process and points Kelosdk objects at its kelo-cloud.
    bool trustAndPointSdk();

    /// The wire plays @p profile ("lan", "wifi", "4g", "lossy-wifi") from now on.
    bool setProfile(const QString& profile);
    /// The wire drops every packet both ways (on) or carries them again (off).
    bool blackhole(bool on);
    /// Back to how lab.sh started: blackhole off, its profile.
    bool restore();

    /// GET /_sim/state of the lab's kelo-cloud, with the lab's control token.
    bool simulatorState(QJsonObject* state);
    /// The HTTP status of GET /_sim/state sent with @p token as the control token (null: none);
    /// -1 when no answer came.
    int simulatorStateStatus(const QByteArray& token);
    /// The control token lab.sh exported (KELO_LAB_CONTROL_TOKEN).
    QByteArray controlToken() const { return token; }
    /// Kills kelo-cloud and starts it again at once (lab.sh cloud-restart).
    bool restartCloud();
    /// The simulator's fault "idle-close" for the next @p times API requests that arrive on a
    /// kept-alive connection: each is handled, then its connection closes unanswered, as a
    /// server closing an idle connection at the worst moment. It cannot be taken back: the
    /// suite's last test sets it.
    bool closeKeptAlive(int times);

    /// The number of an invoice code such as "INV#000012" (12); -1 if it has none.
    static int invoiceNumber(const QString& code);

    QString lastError() const { return error; }

private:
    bool wireCtl(const QStringList& args);
    bool simulator(const QByteArray& method, const QString& path, const QByteArray& form,
                   QJsonObject* answer);
    /// Sends one control request with @p sentToken (null: none); false if no answer came.
    bool send(const QByteArray& method, const QString& path, const QByteArray& form,
              const QByteArray& sentToken, int* status, QByteArray* body);

    QString api;
    QString ca;
    QString wire;
    QString wireSocket;
    QString profile;
    QString restartCommand;
    QByteArray token;
    QString error;
};
