#include "labcontrol.h"

#include "devca.h"

#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QRegularExpression>
#include <QTimer>

#include <memory>

namespace {

/// Longest a control request (wire or simulator) may take; the link may be a slow profile.
constexpr int kControlWaitMs = 20000;

QString env(const char* name)
{
    return QString::fromLocal8Bit(qgetenv(name));
}

} // namespace

bool LabControl::read()
{
    api = env("KELO_LAB_API");
    ca = env("KELO_LAB_CA");
    wire = env("KELO_LAB_WIRE");
    wireSocket = env("KELO_LAB_WIRE_CTL");
    profile = env("KELO_LAB_PROFILE");
    restartCommand = env("KELO_LAB_CLOUD_RESTART");
    token = qgetenv("KELO_LAB_CONTROL_TOKEN");
    return isInside();
}

bool LabControl::trustAndPointSdk()
{
    QFile file(ca);
    if (!file.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("cannot read the lab's CA %1").arg(ca);
        return false;
    }
    kelocloud::trustCertificateAuthority(file.readAll());
    qputenv("KELO_SERVER_HOST", api.toUtf8());
    return true;
}

bool LabControl::wireCtl(const QStringList& args)
{
    if (wire.isEmpty() || wireSocket.isEmpty()) {
        error = QStringLiteral("KELO_LAB_WIRE or KELO_LAB_WIRE_CTL is not set");
        return false;
    }
    QProcess ctl;
    ctl.setProcessChannelMode(QProcess::MergedChannels);
    ctl.start(wire, QStringList{QStringLiteral("ctl"), wireSocket} + args);
    if (!ctl.waitForFinished(kControlWaitMs) || ctl.exitStatus() != QProcess::NormalExit ||
        ctl.exitCode() != 0) {
        error =
            QStringLiteral("kelo-wire ctl %1: %2")
                .arg(args.join(QLatin1Char(' ')), QString::fromLocal8Bit(ctl.readAll()).trimmed());
        return false;
    }
    return true;
}

bool LabControl::setProfile(const QString& name)
{
    return wireCtl({QStringLiteral("profile"), name});
}

bool LabControl::blackhole(bool on)
{
    return wireCtl(
        {QStringLiteral("blackhole"), on ? QStringLiteral("on") : QStringLiteral("off")});
}

bool LabControl::restore()
{
    bool ok = blackhole(false);
    if (!profile.isEmpty())
        ok = setProfile(profile) && ok;
    return ok;
}

bool LabControl::send(const QByteArray& method, const QString& path, const QByteArray& form,
                      const QByteArray& sentToken, int* status, QByteArray* body)
{
    QNetworkAccessManager nam;
    QNetworkRequest request(QUrl(QStringLiteral("https://%1%2").arg(api, path)));
    if (!sentToken.isNull())
        request.setRawHeader("X-Kelo-Control-Token", sentToken);
    std::unique_ptr<QNetworkReply> reply;
    if (method == "GET") {
        reply.reset(nam.get(request));
    } else {
        request.setHeader(QNetworkRequest::ContentTypeHeader,
                          QStringLiteral("application/x-www-form-urlencoded"));
        reply.reset(nam.post(request, form));
    }
    QEventLoop loop;
    QObject::connect(reply.get(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(kControlWaitMs, &loop, &QEventLoop::quit);
    loop.exec();
    if (!reply->isFinished()) {
        error = QStringLiteral("%1 %2: no answer").arg(QString::fromLatin1(method), path);
        return false;
    }
    *status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    *body = reply->readAll();
    if (*status == 0)
        error = QStringLiteral("%1 %2: %3")
                    .arg(QString::fromLatin1(method), path, reply->errorString());
    return *status != 0;
}

bool LabControl::simulator(const QByteArray& method, const QString& path, const QByteArray& form,
                           QJsonObject* answer)
{
    int status = 0;
    QByteArray body;
    if (!send(method, path, form, token, &status, &body))
        return false;
    const QJsonObject object = QJsonDocument::fromJson(body).object();
    if (!object.value(QStringLiteral("ok")).toBool()) {
        error = QStringLiteral("%1 %2: %3 %4")
                    .arg(QString::fromLatin1(method), path)
                    .arg(status)
                    .arg(QString::fromUtf8(body.left(300)));
        return false;
    }
    if (answer)
        *answer = object;
    return true;
}

bool LabControl::simulatorState(QJsonObject* state)
{
    return simulator("GET", QStringLiteral("/_sim/state"), {}, state);
}

bool LabControl::closeKeptAlive(int times)
{
    const QByteArray form = "path=/kelo/api/&kind=idle-close&times=" + QByteArray::number(times);
    return simulator("POST", QStringLiteral("/_sim/fault"), form, nullptr);
}

int LabControl::simulatorStateStatus(const QByteArray& sentToken)
{
    int status = 0;
    QByteArray body;
    return send("GET", QStringLiteral("/_sim/state"), {}, sentToken, &status, &body) ? status : -1;
}

bool LabControl::restartCloud()
{
    if (restartCommand.isEmpty()) {
        error = QStringLiteral("KELO_LAB_CLOUD_RESTART is not set");
        return false;
    }
    QProcess restart;
    restart.setProcessChannelMode(QProcess::MergedChannels);
    restart.start(QStringLiteral("sh"), {QStringLiteral("-c"), restartCommand + " 0"});
    if (!restart.waitForFinished(2 * kControlWaitMs) || restart.exitCode() != 0) {
        error = QStringLiteral("%1 0: %2")
                    .arg(restartCommand, QString::fromLocal8Bit(restart.readAll()).trimmed());
        return false;
    }
    return true;
}

int LabControl::invoiceNumber(const QString& code)
{
    const QRegularExpressionMatch m = QRegularExpression(QStringLiteral("(\\d+)$")).match(code);
    return m.hasMatch() ? m.captured(1).toInt() : -1;
}
