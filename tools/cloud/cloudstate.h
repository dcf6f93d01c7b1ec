#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QMutex>
#include <QString>

namespace kelocloud {

/**
 * The simulated merchant's data and the server's answers: staff, menu, pictures, tables, orders,
 * payments, invoice and notification sessions. No networking; every public function is
 * thread-safe (the server calls them from its own thread, tests from theirs).
 */
class CloudState
{
public:
    /// One answer of the HTTP API.
    struct Answer
    {
        int status = 200;
        QByteArray body;
        QByteArray contentType = "application/json";
    };

    /// A notice to push over the notification socket to one device.
    struct Notice
    {
        QString devid;
        QByteArray text;
    };

    CloudState();

    /// Replaces the data with the fixture file at @p path; on failure names the file and field.
    bool loadFixture(const QString& path, QString* error);
    /// The signing key shared with the SDK build.
    void setSecretKey(const QByteArray& key);
    QByteArray secretKey() const;

    /**
     * Answers one API call. @p path is the request path ("/kelo/api/login/"), @p cm, @p tk and
     * @p dt the decoded parameters ("tk" empty when absent), @p imgBase the "https://host:port"
     * prefix under which pictures are served.
     */
    Answer handle(const QByteArray& path, const QString& cm, const QString& tk, const QString& dt,
                  const QString& imgBase);

    /// The picture served at @p path, or an empty array if there is none.
    QByteArray picture(const QByteArray& path) const;

    /// Whether a WebSocket connect with these query values is admitted (known session, good tk).
    bool admitWebSocket(const QString& appuser, const QString& devid, const QString& wsSession,
                        const QString& tk);

    /// Marks an open invoice paid; fills the "payment_success" notice for its device.
    bool markInvoicePaid(const QString& invoiceCode, Notice* notice);

    /// HMAC-SHA-256 of @p data with the signing key, 64 lower-case hex digits.
    QString sign(const QByteArray& data) const;

private:
    mutable QMutex mutex;
    QByteArray key;
    QJsonObject data;
    QStringList wsSessions;
};

} // namespace kelocloud
