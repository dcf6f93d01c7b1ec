#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QMutex>
#include <QString>

#include <memory>

namespace kelocloud {

namespace detail {
struct Books;
}

/**
 * The simulated merchant's data and the server's answers: staff, menu, pictures, tables, orders,
 * payments, invoice and notification sessions. No networking; every public function is
 * thread-safe (the server calls them from its own thread, tests from theirs).
 *
 * The merchant comes from a JSON fixture (the built-in ":/kelocloud/restaurant.json" or a file
 * given to loadFixture()). Every answer is the envelope {"dt":{...},"err":code,"msg":text} in
 * compact JSON. The refusal codes (200 to 299) and the fixture format are described in
 * tools/cloud/fixtures/README.md:
 *
 * | err | msg |
 * |---|---|
 * | 200 | "unknown path" (HTTP status 404) |
 * | 201 | "unknown operation" |
 * | 202 | "dt is not a JSON object" |
 * | 203 | "unknown merchant" |
 * | 204 | "invalid field: <key>" |
 * | 210 | "wrong user name or password" |
 * | 211 | "role not allowed for this login" |
 * | 212 | "unknown staff" |
 * | 220 | "unknown table" |
 * | 221 | "cannot merge a table into itself" |
 * | 230 | "missing signature" |
 * | 231 | "bad signature" |
 * | 232 | "no invoice session for this device" |
 * | 233 | "invalid invoice amount" |
 * | 234 | "unsupported payment method" |
 * | 240 | "unknown invoice" |
 * | 241 | "invoice is not open" |
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

    /// Loads the built-in fixture; the signing key is the development key until setSecretKey().
    CloudState();
    ~CloudState();
    CloudState(const CloudState&) = delete;
    CloudState& operator=(const CloudState&) = delete;

    /**
     * Replaces the data with the fixture file at @p path: merchant, staff, menu, tables and the
     * orders it holds; placed orders, payments and invoices start afresh. On failure the data
     * stays as it was and @p error names the file and the field ("f.json: menu[3].item_id:
     * expected an integer").
     */
    bool loadFixture(const QString& path, QString* error);
    /// The signing key shared with the SDK build; false (key unchanged) if keyProblem() objects.
    bool setSecretKey(const QByteArray& key);
    QByteArray secretKey() const;
    /// The key of an SDK built with the default KELO_SECRET_KEY.
    static QByteArray developmentKey();
    /// Why @p key cannot sign (it must be 32 ASCII letters or digits), or empty if it can. The
    /// text never quotes the key.
    static QString keyProblem(const QByteArray& key);
    /// The merchant code of the loaded fixture ("M01" in the built-in one).
    QString merchantCode() const;

    /**
     * Answers one API call. @p path is the request path ("/kelo/api/login/"), @p cm, @p tk and
     * @p dt the decoded parameters ("tk" empty when absent), @p imgBase the "https://host:port"
     * prefix under which pictures are served. The "dt" of "create" may still be percent-encoded
     * (as the SDK sends it); it is then decoded once more here.
     */
    Answer handle(const QByteArray& path, const QString& cm, const QString& tk, const QString& dt,
                  const QString& imgBase);

    /// The PNG picture served at @p path (a dish's "img_path"), or an empty array.
    QByteArray picture(const QByteArray& path) const;

    /**
     * Replaces the menu with @p dishes made-up dishes ("Dish 1" ...; pictures at
     * "/pictures/dish-<id>.png"), keeping staff, tables and orders. False with @p error for a
     * negative count.
     */
    bool makeMenu(int dishes, QString* error);
    /// With @p bytes above 0, every picture is a PNG of exactly that size, distinct per dish;
    /// 0: as the drawing comes out. False with @p error when pictureSizeProblem() objects.
    bool setPictureBytes(int bytes, QString* error);
    /// Why pictures of @p bytes cannot be made, or empty if they can.
    static QString pictureSizeProblem(int bytes);
    /// The "img_path" of every dish, in menu order.
    QList<QByteArray> picturePaths() const;

    /**
     * Whether a WebSocket connect with these query values is admitted: @p wsSession was issued
     * by "get_ws_session" to @p devid, @p appuser is the merchant code and @p tk is
     * sign(appuser + devid + wsSession).
     */
    bool admitWebSocket(const QString& appuser, const QString& devid, const QString& wsSession,
                        const QString& tk);

    /**
     * Marks an open invoice paid (@p invoiceCode with or without its "#"); fills @p notice with
     * the "payment_success" notice for the device that created it. False for an unknown, paid
     * or cancelled invoice.
     */
    bool markInvoicePaid(const QString& invoiceCode, Notice* notice);

    /// HMAC-SHA-256 of @p data with the signing key, 64 lower-case hex digits.
    QString sign(const QByteArray& data) const;

private:
    mutable QMutex mutex;
    QByteArray key;
    std::unique_ptr<detail::Books> books;
};

} // namespace kelocloud
