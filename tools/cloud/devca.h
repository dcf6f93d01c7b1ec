#pragma once

#include <QByteArray>
#include <QString>

namespace kelocloud {

/// A certificate and its private key, both PEM.
struct PemPair
{
    QByteArray certificate;
    QByteArray key;
};

/**
 * The development certificate authority of the local cloud: an EC P-256 CA, kept as ca.pem and
 * ca.key in one directory, and the server certificates it signs for 127.0.0.1 and localhost.
 */
class DevCa
{
public:
    /**
     * Loads ca.pem and ca.key from @p dir when @p reuse is set and both load as a matching,
     * still valid CA; otherwise makes a new CA and writes both files (ca.key readable by the
     * owner only).
     */
    bool open(const QString& dir, bool reuse, QString* error);

    /// A fresh server certificate (SAN IP:127.0.0.1, DNS:localhost, and IP:@p extraIp when
    /// given) signed by this CA.
    bool issueServerCertificate(PemPair* out, QString* error, const QString& extraIp = {}) const;

    QString certificatePath() const { return certPath; }
    QByteArray certificatePem() const { return ca.certificate; }

private:
    bool load(QString* error);
    bool create(QString* error);

    QString certPath;
    QString keyPath;
    PemPair ca;
};

/**
 * Adds @p pem to the CAs of this process's default TLS configuration, keeping the others: what a
 * host does that trusts the development CA (tests, benchmarks).
 */
void trustCertificateAuthority(const QByteArray& pem);

} // namespace kelocloud
