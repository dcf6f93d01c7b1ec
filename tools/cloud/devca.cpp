#include "devca.h"

#include <QDir>
#include <QFile>
#include <QSslCertificate>
#include <QSslConfiguration>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace kelocloud {
namespace {

struct Free
{
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
    void operator()(X509* p) const { X509_free(p); }
    void operator()(BIO* p) const { BIO_free(p); }
    void operator()(BIGNUM* p) const { BN_free(p); }
    void operator()(X509_EXTENSION* p) const { X509_EXTENSION_free(p); }
};
using Key = std::unique_ptr<EVP_PKEY, Free>;
using Cert = std::unique_ptr<X509, Free>;
using Bio = std::unique_ptr<BIO, Free>;

const long oneDay = 24 * 3600;

QString sslError(const char* what)
{
    char text[256] = "unknown error";
    if (unsigned long code = ERR_get_error())
        ERR_error_string_n(code, text, sizeof text);
    ERR_clear_error();
    return QStringLiteral("%1: %2").arg(QLatin1String(what), QLatin1String(text));
}

Key makeKey()
{
    return Key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
}

QByteArray toPem(X509* cert)
{
    Bio bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bio.get(), cert);
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return QByteArray(data, int(size));
}

QByteArray toPem(EVP_PKEY* key)
{
    Bio bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return QByteArray(data, int(size));
}

Bio readBio(const QByteArray& pem)
{
    return Bio(BIO_new_mem_buf(pem.constData(), pem.size()));
}

Cert certFromPem(const QByteArray& pem)
{
    Bio bio = readBio(pem);
    return Cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}

Key keyFromPem(const QByteArray& pem)
{
    Bio bio = readBio(pem);
    return Key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
}

bool addExtension(X509* cert, X509* issuer, int nid, const char* value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    std::unique_ptr<X509_EXTENSION, Free> ext(
        X509V3_EXT_nconf_nid(nullptr, &ctx, nid, const_cast<char*>(value)));
    return ext && X509_add_ext(cert, ext.get(), -1) == 1;
}

/// A certificate for @p key with a random serial, valid from yesterday for @p days days.
Cert newCertificate(EVP_PKEY* key, const char* commonName, long days)
{
    Cert cert(X509_new());
    X509_set_version(cert.get(), 2);
    unsigned char serial[16];
    RAND_bytes(serial, sizeof serial);
    serial[0] &= 0x7f; // a positive serial number
    std::unique_ptr<BIGNUM, Free> bn(BN_bin2bn(serial, sizeof serial, nullptr));
    BN_to_ASN1_INTEGER(bn.get(), X509_get_serialNumber(cert.get()));
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -oneDay);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), days * oneDay);
    X509_set_pubkey(cert.get(), key);
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("Kelo local cloud"), -1, -1,
                               0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
    return cert;
}

bool writeFile(const QString& path, const QByteArray& content, QFileDevice::Permissions perms)
{
    // Permissions first, so that the key is never readable by others, even briefly.
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.setPermissions(perms) &&
           file.write(content) == content.size() && file.flush();
}

} // namespace

bool DevCa::open(const QString& dir, bool reuse, QString* error)
{
    if (!QDir().mkpath(dir)) {
        *error = QStringLiteral("cannot create the CA directory %1").arg(dir);
        return false;
    }
    certPath = QDir(dir).filePath(QStringLiteral("ca.pem"));
    keyPath = QDir(dir).filePath(QStringLiteral("ca.key"));
    QString ignored;
    if (reuse && QFile::exists(certPath) && QFile::exists(keyPath) && load(&ignored))
        return true;
    return create(error);
}

bool DevCa::load(QString* error)
{
    QFile certFile(certPath);
    QFile keyFile(keyPath);
    if (!certFile.open(QIODevice::ReadOnly) || !keyFile.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1").arg(certPath);
        return false;
    }
    PemPair loaded{certFile.readAll(), keyFile.readAll()};
    Cert cert = certFromPem(loaded.certificate);
    Key key = keyFromPem(loaded.key);
    // A CA that expires within a day is replaced rather than used for a fresh server certificate.
    const bool usable = cert && key && X509_check_private_key(cert.get(), key.get()) == 1 &&
                        X509_check_ca(cert.get()) > 0 &&
                        X509_cmp_time(X509_get0_notAfter(cert.get()), nullptr) > 0;
    ERR_clear_error();
    if (!usable) {
        *error = QStringLiteral("%1 and %2 do not hold a usable CA").arg(certPath, keyPath);
        return false;
    }
    ca = loaded;
    return true;
}

bool DevCa::create(QString* error)
{
    Key key = makeKey();
    if (!key) {
        *error = sslError("CA key");
        return false;
    }
    Cert cert = newCertificate(key.get(), "Kelo local cloud development CA", 3650);
    X509_set_issuer_name(cert.get(), X509_get_subject_name(cert.get()));
    const bool ok =
        addExtension(cert.get(), cert.get(), NID_basic_constraints, "critical,CA:TRUE") &&
        addExtension(cert.get(), cert.get(), NID_key_usage,
                     "critical,keyCertSign,cRLSign,digitalSignature") &&
        addExtension(cert.get(), cert.get(), NID_subject_key_identifier, "hash") &&
        X509_sign(cert.get(), key.get(), EVP_sha256()) > 0;
    if (!ok) {
        *error = sslError("CA certificate");
        return false;
    }
    ca = {toPem(cert.get()), toPem(key.get())};
    if (!writeFile(keyPath, ca.key, QFileDevice::ReadOwner | QFileDevice::WriteOwner) ||
        !writeFile(certPath, ca.certificate,
                   QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup |
                       QFileDevice::ReadOther)) {
        *error = QStringLiteral("cannot write %1").arg(certPath);
        return false;
    }
    return true;
}

bool DevCa::issueServerCertificate(PemPair* out, QString* error, const QString& extraIp) const
{
    Cert caCert = certFromPem(ca.certificate);
    Key caKey = keyFromPem(ca.key);
    Key key = makeKey();
    if (!caCert || !caKey || !key) {
        *error = sslError("server key");
        return false;
    }
    Cert cert = newCertificate(key.get(), "127.0.0.1", 365);
    X509_set_issuer_name(cert.get(), X509_get_subject_name(caCert.get()));
    QByteArray names = "IP:127.0.0.1,DNS:localhost";
    if (!extraIp.isEmpty() && extraIp != QLatin1String("127.0.0.1"))
        names += ",IP:" + extraIp.toLatin1();
    const bool ok =
        addExtension(cert.get(), caCert.get(), NID_basic_constraints, "critical,CA:FALSE") &&
        addExtension(cert.get(), caCert.get(), NID_key_usage, "critical,digitalSignature") &&
        addExtension(cert.get(), caCert.get(), NID_ext_key_usage, "serverAuth") &&
        addExtension(cert.get(), caCert.get(), NID_subject_alt_name, names.constData()) &&
        addExtension(cert.get(), caCert.get(), NID_subject_key_identifier, "hash") &&
        addExtension(cert.get(), caCert.get(), NID_authority_key_identifier, "keyid:always") &&
        X509_sign(cert.get(), caKey.get(), EVP_sha256()) > 0;
    if (!ok) {
        *error = sslError("server certificate");
        return false;
    }
    *out = {toPem(cert.get()), toPem(key.get())};
    return true;
}

void trustCertificateAuthority(const QByteArray& pem)
{
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    QList<QSslCertificate> cas = config.caCertificates();
    cas.append(QSslCertificate::fromData(pem, QSsl::Pem));
    config.setCaCertificates(cas);
    QSslConfiguration::setDefaultConfiguration(config);
}

} // namespace kelocloud
