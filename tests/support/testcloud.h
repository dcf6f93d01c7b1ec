#pragma once

#include "cloudserver.h"
#include "devca.h"

#include <QString>
#include <QUrl>

#include <memory>

/**
 * A cloud server for one test: listens on 127.0.0.1 with an OS-assigned port, and (if asked)
 * has its CA trusted by this process's default TLS configuration and KELO_SERVER_HOST pointed
 * at it, so that Kelosdk objects constructed afterwards talk to it.
 */
class TestCloud
{
public:
    enum Trust
    {
        Trusted,
        Untrusted
    };

    explicit TestCloud(Trust trust = Trusted, const kelocloud::CloudOptions& options = {});
    ~TestCloud();

    /// Starts the server; false (with a warning naming the reason) if it cannot.
    bool start();
    /// Sets KELO_SERVER_HOST to this server for Kelosdk objects constructed afterwards.
    void pointSdkHere() const;

    kelocloud::CloudServer& server() { return *cloud; }
    kelocloud::CloudServer* operator->() { return cloud.get(); }
    QString hostPort() const;
    /// "https://127.0.0.1:<port>"
    QString baseUrl() const;
    /// baseUrl() + @p path
    QUrl url(const QString& path) const;

private:
    std::unique_ptr<kelocloud::CloudServer> cloud;
    Trust trust;
};

/// Adds a PEM CA to the CAs of the process's default TLS configuration (keeping the others).
using kelocloud::trustCertificateAuthority;

/// Qt's error text for a request to the Untrusted server: Qt 6 names the reason after Qt 5's text.
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
#define KELO_TEST_UNTRUSTED_TEXT                                                                   \
    "SSL handshake failed: The root certificate of the certificate chain is self-signed, and "     \
    "untrusted"
#else
#define KELO_TEST_UNTRUSTED_TEXT "SSL handshake failed"
#endif
