#pragma once

/// @file
/// Libcmn: the protocol's message texts, signatures and the reading of replies and notices.

#include "kelo_export.h"

#include <QJsonObject>
#include <QString>

class CDownloadFileMan;

/**
 * @brief Protocol messages: request texts, signatures, and the reading of replies.
 *
 * A class of static functions only. Builders return compact JSON (keys ascending, UTF-8).
 * Parsers return 0 for success, the server's "err" for a refusal and -1 for a reply that cannot
 * be read; on failure their outputs keep their previous values. Nothing here logs or throws.
 */
class KELO_EXPORT Libcmn
{
public:
    Libcmn();

    /// The 32-character signing key, assembled one character at a time on every call.
    static QString keloSecretkey();
    /// HMAC-SHA-256 of @p data's UTF-8 bytes with the signing key, as 64 lower-case hex digits.
    static QString HMacSha256(const QString& data);
    /// Result text {"err":err,"msg":msg}.
    static QString buildMsg(int err, const QString& msg);
    /// "err" of a reply (-1 if unreadable or missing); fills @p msg (if not null) from "msg".
    static int getErrMsg(const QString& json, QString* msg);
    /// The "msg" word of a notification, or an empty text.
    static QString getNotifyMsg(const QString& json);
    /// The "type" of a notification (-1 if missing); fills @p dt and its "invoice_code".
    static int getNotifyDt(const QString& json, QString& invoiceCode, QJsonObject& dt);

    /// "dt" of a login request: merchant code, password "p" and user "u".
    static QString formatLogin(const QString& merchantCode, const QString& user,
                               const QString& password);
    /// Reads "staff_id" and "staff_name" from a successful login reply.
    static int getUserId(const QString& json, int& staffId, QString& staffName);
    /// "dt" of an invoice session request ("get_session").
    static QString formatSession(const QString& merchantCode, const QString& devid);
    /// Reads "invoice_session" from a session reply.
    static int getSesId(const QString& json, QString& sesId);
    /// "dt" of a notification session request ("get_ws_session").
    static QString formatWsSession(const QString& merchantCode, const QString& devid);
    /// Reads "ws_session"; every failure is -1.
    static int parseWsSid(const QString& json, QString* wsSession);
    /// The signed WebSocket connect URL text: base?appuser=..&devid=..&ws_session=..&tk=..
    static QString formatWsConnectString(const QString& base, const QString& appuser,
                                         const QString& devid, const QString& wsSession);

    /// "dt" of the menu and table list requests ("getlist").
    static QString formatRequestFoods(const QString& merchantCode);
    /// "dt" of a food order ("confirm_order"): table_id, amount and items of @p order.
    static QString formatRequestOrder(const QString& merchantCode, int staffId,
                                      const QJsonObject& order);
    /// "dt" of the ordered foods of a table ("get_order_list").
    static QString formatOrderlist(const QString& merchantCode, int tableId);
    /// "dt" of a table merge ("merge_table").
    static QString formatMergetable(const QString& merchantCode, int fromTableId, int toTableId);

    /// "dt" of an e-wallet invoice ("create"); amount and payment method travel as strings.
    static QString formatTumipay(const QString& merchantCode, const QString& machineName,
                                 const QString& devid, long amount, const QString& description,
                                 const QString& information);
    /// Reads the invoice code (and optionally the transfer token and app id) of a "create" reply.
    static int getInvoiceQR(const QString& json, QString& msg, QString& invoiceCode,
                            QString* transToken, int* appId);
    /// "dt" of an invoice cancel ("cancel"); every "#" is removed from the code.
    static QString formatInvoiceCancel(const QString& invoiceCode, const QString& merchantCode);
    /// "dt" of a table payment ("payment").
    static QString formatPayment(const QString& merchantCode, int tableId, int staffId,
                                 int amount);
    /// Result text {"dt":dt,"err":err,"msg":msg} for invoice events.
    static QString buildTumipayResponeMsg(int err, const QString& msg, const QJsonObject& dt);

    /// Turns a menu reply into the manager's download list; stores "last_update" in @p lastUpdate.
    static void parseDataFoods(const QString& data, CDownloadFileMan& manager,
                               unsigned long long& lastUpdate);
    /// Rewrites the menu reply with local picture paths and "img_cache" from @p manager's list.
    static QString updateDataFoods(const QString& data, CDownloadFileMan& manager);
};
