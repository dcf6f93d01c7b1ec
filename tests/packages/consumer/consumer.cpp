// A waiter logs in and syncs the menu with its pictures, against the cloud named by
// KELO_SERVER_HOST whose CA is the file KELO_CA. Prints one line and exits 0 when the login is
// accepted, the menu holds dishes and every dish's picture is a file on disk; exits 1 otherwise.
#include <kelo/kelosdk.h>

#include <QCoreApplication>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTextStream>
#include <QTimer>
#include <QUrl>

namespace {
int finish(const QString& line, int status)
{
    QTextStream(status == 0 ? stdout : stderr) << "kelo_consumer: " << line << Qt::endl;
    QCoreApplication::exit(status);
    return status;
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("kelo_consumer"));
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    const QList<QSslCertificate> ca = QSslCertificate::fromPath(qEnvironmentVariable("KELO_CA"));
    if (ca.isEmpty())
        return finish(QStringLiteral("no CA certificate in $KELO_CA"), 1);
    tls.setCaCertificates(tls.caCertificates() + ca);
    QSslConfiguration::setDefaultConfiguration(tls);

    Kelosdk sdk(QStringLiteral("M01"), QStringLiteral("POS-1"), false);
    QString staff; // "name (id)", from userIdname, which userName() emits once logged in
    QObject::connect(&sdk, &Kelosdk::networkError, &app, [](int code, const QString& text) {
        finish(QStringLiteral("networkError %1: %2").arg(code).arg(text), 1);
    });
    QObject::connect(&sdk, &Kelosdk::keloappError, &app, [](int code, const QString& text) {
        finish(QStringLiteral("keloappError %1: %2").arg(code).arg(text), 1);
    });
    QObject::connect(&sdk, &Kelosdk::userIdname, &app, [&staff](int id, const QString& name) {
        staff = QStringLiteral("%1 (%2)").arg(name).arg(id);
    });
    QObject::connect(&sdk, &Kelosdk::userLoginDone, &app, [&sdk](int code, const QString& text) {
        if (code != 0)
            return void(finish(QStringLiteral("login refused: %1 %2").arg(code).arg(text), 1));
        int id = 0;
        QString name;
        if (!sdk.userName(id, name))
            return void(finish(QStringLiteral("logged in, but userName() knows no user"), 1));
        sdk.foodsRequest();
    });
    QObject::connect(&sdk, &Kelosdk::foodsRequestDone, &app, [&staff](const QString& data) {
        const QJsonObject reply = QJsonDocument::fromJson(data.toUtf8()).object();
        const QJsonArray items =
            reply.value(QStringLiteral("dt")).toObject().value(QStringLiteral("items")).toArray();
        int pictures = 0;
        for (const QJsonValue& item : items) {
            const QUrl path(item.toObject().value(QStringLiteral("img_path")).toString());
            pictures += path.isLocalFile() && QFileInfo(path.toLocalFile()).size() > 0 ? 1 : 0;
        }
        if (staff.isEmpty() || reply.value(QStringLiteral("err")).toInt(-1) != 0 ||
            items.isEmpty() || pictures != items.size())
            return void(finish(QStringLiteral("bad menu (staff '%1', %2 dishes, %3 pictures): %4")
                                   .arg(staff)
                                   .arg(items.size())
                                   .arg(pictures)
                                   .arg(data.left(300)),
                               1));
        finish(QStringLiteral("logged in as %1; menu of %2 dishes, %3 pictures on disk")
                   .arg(staff)
                   .arg(items.size())
                   .arg(pictures),
               0);
    });
    sdk.userLogin(QStringLiteral("mai"), QStringLiteral("mai123"), Kelosdk::waiter);
    QTimer::singleShot(120000, &app, [] { finish(QStringLiteral("no answer within 120 s"), 1); });
    return app.exec();
}
