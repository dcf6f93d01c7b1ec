#pragma once

#include <QNetworkAccessManager>
#include <QObject>
#include <QPointF>
#include <QPointer>
#include <QQuickWindow>
#include <QString>
#include <QVariantMap>

#include <functional>

/**
 * What the terminal's QML needs from its host process: the settings given on the command line,
 * screenshots of the window (with notes of what the walk measured), taps on the screen for the
 * walk, and (against the local simulator only) the customer's side of an e-wallet payment.
 */
class TerminalShell : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString serverHost MEMBER serverHost CONSTANT)
    Q_PROPERTY(QString caFile MEMBER caFile CONSTANT)
    Q_PROPERTY(QString merchantId MEMBER merchantId CONSTANT)
    Q_PROPERTY(QString machineName MEMBER machineName CONSTANT)
    /// Not empty: walk the whole day and write one PNG per screen there, then quit.
    Q_PROPERTY(QString screenshotDir MEMBER screenshotDir CONSTANT)
    /// The cloud is the local simulator: the QR dialog offers to play the customer.
    Q_PROPERTY(bool simulator MEMBER simulator CONSTANT)
public:
    struct Settings
    {
        QString serverHost;
        QString caFile;
        QString merchantId;
        QString machineName;
        QString screenshotDir;
        bool simulator = false;
        /// kelo-cloud's control token, sent with the customer's side (empty: none, as on
        /// 127.0.0.1); a kelo-cloud on a LAN address needs it.
        QByteArray controlToken;
    };
    explicit TerminalShell(const Settings& settings, QObject* parent = nullptr);

    void setWindow(QQuickWindow* window) { this->window = window; }

    /// Writes the window as it is now to <screenshotDir>/<name>.png.
    Q_INVOKABLE bool saveScreenshot(const QString& name);
    /// Writes @p values as a JSON object to <screenshotDir>/<name>.json, beside the screenshot of
    /// the same name: what the walk measured on that screen (e.g. where the keyboard is).
    Q_INVOKABLE bool saveNote(const QString& name, const QVariantMap& values);
    /// Touches the window at @p scenePos (window coordinates) and lifts the finger again, as a
    /// user's tap: a press now and a release 40 ms later from the event loop, delivered like the
    /// screen's own. False (nothing sent) without a window or outside it.
    Q_INVOKABLE bool tap(const QPointF& scenePos);
    /// Asks the simulator to mark @p invoiceCode paid, as the customer's e-wallet app would;
    /// answered by customerPaid().
    Q_INVOKABLE void payAsCustomer(const QString& invoiceCode);
    /// Asks the simulator to close every notification socket at once, as a link that drops
    /// would; answered by channelDropped(). The SDK reconnects by itself.
    Q_INVOKABLE void dropChannel();
    /// Ends the process with @p status after writing @p message.
    Q_INVOKABLE void finish(int status, const QString& message);

Q_SIGNALS:
    void customerPaid(bool ok, const QString& answer);
    void channelDropped(bool ok, const QString& answer);

private:
    void post(const char* path, const QByteArray& body,
              const std::function<void(bool, const QString&)>& answered);

    QString serverHost;
    QString caFile;
    QString merchantId;
    QString machineName;
    QString screenshotDir;
    bool simulator = false;
    QByteArray controlToken;
    QPointer<QQuickWindow> window;
    QNetworkAccessManager network;
};
