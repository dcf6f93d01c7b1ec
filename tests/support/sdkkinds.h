#pragma once

#include "kelosdk.h"
#include "kelosdk_p.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVariantList>

#include <functional>

/// The invoice that the scripted "create" answer opens, and that the "cancel" kind cancels.
inline const QString kInvoiceCode = QStringLiteral("#A#12");
inline const QByteArray kInvoiceReply =
    R"({"dt":{"invoice_code":"#A#12","qr":"data"},"err":0,"msg":"ok"})";

/// One request kind of the SDK object as the suites drive it.
struct SdkKind
{
    const char* name;           ///< "menu", "food order", ...
    QByteArray path;            ///< where the request goes ...
    QString cm;                 ///< ... and its operation word
    QByteArray done;            ///< the signal that carries the answer; empty: none
    kelo_sdk::RequestKind kind; ///< the library's kind: its busy bit and its refusal
    /// False: the kind is held only while its request is built, so a second request is never
    /// refused.
    bool heldWhileOut;
    std::function<void(Kelosdk&)> call; ///< one request of the kind, always the same arguments

    /// The refusal of a second request while the first is out, {code, text} as the library's
    /// table gives it (what the SDK object must emit); empty: never refused.
    QVariantList busy() const;
};

/// Every request kind: login, menu, food order, tables, table foods, merge, payment, get_session,
/// create (the whole e-wallet chain) and cancel (of kInvoiceCode).
const QList<SdkKind>& sdkKinds();
/// The kind named @p name; an unknown name is a fatal test error.
const SdkKind& sdkKind(const QByteArray& name);
