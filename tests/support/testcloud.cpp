#include "testcloud.h"

#include "libcmn.h"

#include <QtGlobal>

namespace {

/// The simulator holds no build key: test clouds sign with this build's unless told otherwise.
kelocloud::CloudOptions withBuildKey(kelocloud::CloudOptions options)
{
    if (options.secretKey.isEmpty())
        options.secretKey = Libcmn::keloSecretkey().toLatin1();
    return options;
}

} // namespace

TestCloud::TestCloud(Trust trust, const kelocloud::CloudOptions& options)
    : cloud(new kelocloud::CloudServer(withBuildKey(options))), trust(trust)
{
}

TestCloud::~TestCloud()
{
    cloud->stop();
}

bool TestCloud::start()
{
    QString error;
    if (!cloud->start(&error)) {
        qWarning("test cloud did not start: %s", qPrintable(error));
        return false;
    }
    if (trust == Trusted)
        trustCertificateAuthority(cloud->caCertificatePem());
    return true;
}

void TestCloud::pointSdkHere() const
{
    qputenv("KELO_SERVER_HOST", hostPort().toUtf8());
}

QString TestCloud::hostPort() const
{
    return cloud->hostPort();
}

QString TestCloud::baseUrl() const
{
    return QStringLiteral("https://") + hostPort();
}

QUrl TestCloud::url(const QString& path) const
{
    return QUrl(baseUrl() + path);
}
