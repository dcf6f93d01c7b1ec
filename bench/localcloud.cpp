#include "localcloud.h"

#include "cloudserver.h"
#include "devca.h"
#include "libcmn.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>

#include <cstdio>

namespace kelobench {

std::unique_ptr<kelocloud::CloudServer> startLocalCloud()
{
    kelocloud::CloudOptions options;
    options.secretKey = Libcmn::keloSecretkey().toLatin1(); // the simulator holds no build key
    auto cloud = std::make_unique<kelocloud::CloudServer>(options);
    QString error;
    if (!cloud->start(&error)) {
        std::fprintf(stderr, "local cloud did not start: %s\n", qPrintable(error));
        return nullptr;
    }
    kelocloud::trustCertificateAuthority(cloud->caCertificatePem());
    qputenv("KELO_SERVER_HOST", cloud->hostPort().toUtf8());
    return cloud;
}

QByteArray picture(int id, int size)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>((i * 31 + id) & 0xff);
    return bytes;
}

QByteArray menuReply(const QString& host, int dishes)
{
    QJsonArray items;
    for (int i = 1; i <= dishes; ++i)
        items.append(QJsonObject{{"item_id", i},
                                 {"item_name", QStringLiteral("Dish %1").arg(i)},
                                 {"price", 30000},
                                 {"img_path", QStringLiteral("/pics/%1.png").arg(i)},
                                 {"img_crc", QStringLiteral("1700000000000")}});
    const QJsonObject dt{{"img_host", QStringLiteral("https://") + host},
                         {"last_update", 1700000000},
                         {"items", items}};
    return QJsonDocument(QJsonObject{{"err", 0}, {"dt", dt}}).toJson(QJsonDocument::Compact);
}

double bareGet(QNetworkAccessManager& nam, const QUrl& url, QByteArray* body)
{
    const auto start = Clock::now();
    QNetworkReply* reply = nam.get(QNetworkRequest(url));
    bool finished = false;
    QObject::connect(reply, &QNetworkReply::finished, [&] { finished = true; });
    waitFor([&] { return finished; });
    const double ms = msSince(start);
    if (reply->error() != QNetworkReply::NoError)
        qWarning("baseline GET %s: %s", qPrintable(url.toString()),
                 qPrintable(reply->errorString()));
    if (body)
        *body = reply->readAll();
    reply->deleteLater();
    return ms;
}

} // namespace kelobench
