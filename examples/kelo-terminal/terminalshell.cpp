#include "terminalshell.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMouseEvent>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPixmap>
#include <QScreen>
#include <QTextStream>
#include <QTimer>
#include <QUrl>
#include <QUrlQuery>

namespace {
// How long the finger of tap() stays down: a short touch, well below a press-and-hold.
constexpr int kTapMs = 40;
} // namespace

TerminalShell::TerminalShell(const Settings& settings, QObject* parent)
    : QObject(parent), serverHost(settings.serverHost), caFile(settings.caFile),
      merchantId(settings.merchantId), machineName(settings.machineName),
      screenshotDir(settings.screenshotDir), simulator(settings.simulator),
      controlToken(settings.controlToken)
{
}

bool TerminalShell::saveScreenshot(const QString& name)
{
    if (!window || screenshotDir.isEmpty() || !QDir().mkpath(screenshotDir))
        return false;
    const QString path = QDir(screenshotDir).filePath(name + QStringLiteral(".png"));
    // The screen's copy of the window's backing store: what the software renderer drew, as on
    // a display (QQuickWindow::grabWindow() has no image on the offscreen platform).
    const QImage image = window->screen()->grabWindow(window->winId()).toImage();
    const bool saved = image.save(path, "PNG");
    QTextStream(stdout) << "kelo-terminal: " << (saved ? "wrote " : "cannot write ") << path
                        << Qt::endl;
    return saved;
}

bool TerminalShell::saveNote(const QString& name, const QVariantMap& values)
{
    if (screenshotDir.isEmpty() || !QDir().mkpath(screenshotDir))
        return false;
    QFile file(QDir(screenshotDir).filePath(name + QStringLiteral(".json")));
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(QJsonDocument(QJsonObject::fromVariantMap(values)).toJson()) > 0;
}

bool TerminalShell::tap(const QPointF& scenePos)
{
    if (!window || !QRectF(QPointF(), window->size()).contains(scenePos))
        return false;
    // Straight to the window, as the platform delivers a touch screen's synthesized mouse events:
    // the keyboard's keys take them like a finger's. The finger is lifted a moment later, from
    // the event loop, with a later time stamp.
    const QPointF global = window->mapToGlobal(scenePos.toPoint());
    static QElapsedTimer clock;
    if (!clock.isValid())
        clock.start();
    QMouseEvent press(QEvent::MouseButtonPress, scenePos, global, Qt::LeftButton, Qt::LeftButton,
                      Qt::NoModifier);
    press.setTimestamp(ulong(clock.elapsed()));
    QCoreApplication::sendEvent(window, &press);
    QTimer::singleShot(kTapMs, this, [this, scenePos, global] {
        if (!window)
            return;
        QMouseEvent release(QEvent::MouseButtonRelease, scenePos, global, Qt::LeftButton,
                            Qt::NoButton, Qt::NoModifier);
        release.setTimestamp(ulong(clock.elapsed()));
        QCoreApplication::sendEvent(window, &release);
    });
    return true;
}

void TerminalShell::payAsCustomer(const QString& invoiceCode)
{
    // "#" must travel as %23
    post("/_sim/invoice/paid", "invoice_code=" + QUrl::toPercentEncoding(invoiceCode),
         [this](bool ok, const QString& answer) { emit customerPaid(ok, answer); });
}

void TerminalShell::dropChannel()
{
    post("/_sim/drop-sockets", QByteArray(),
         [this](bool ok, const QString& answer) { emit channelDropped(ok, answer); });
}

void TerminalShell::post(const char* path, const QByteArray& body,
                         const std::function<void(bool, const QString&)>& answered)
{
    // The simulator's control routes; the process already trusts its CA (KeloTerminal added it).
    QNetworkRequest request(
        QUrl(QStringLiteral("https://%1%2").arg(serverHost, QLatin1String(path))));
    request.setHeader(QNetworkRequest::ContentTypeHeader,
                      QStringLiteral("application/x-www-form-urlencoded"));
    if (!controlToken.isEmpty())
        request.setRawHeader("X-Kelo-Control-Token", controlToken);
    QNetworkReply* reply = network.post(request, body);
    connect(reply, &QNetworkReply::finished, this, [reply, answered] {
        reply->deleteLater();
        answered(reply->error() == QNetworkReply::NoError, QString::fromUtf8(reply->readAll()));
    });
}

void TerminalShell::finish(int status, const QString& message)
{
    (status == 0 ? QTextStream(stdout) : QTextStream(stderr))
        << "kelo-terminal: " << message << Qt::endl;
    QCoreApplication::exit(status);
}
