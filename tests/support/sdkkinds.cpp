#include "sdkkinds.h"

#include <QJsonArray>
#include <QJsonObject>

using kelo_sdk::RequestKind;

namespace {

QList<SdkKind> makeKinds()
{
    QList<SdkKind> kinds;
    const auto add = [&kinds](const char* name, const QByteArray& path, const char* cm,
                              const QByteArray& done, RequestKind kind, bool heldWhileOut,
                              const std::function<void(Kelosdk&)>& call) {
        kinds.append({name, path, QString::fromLatin1(cm), done, kind, heldWhileOut, call});
    };
    const QByteArray invoicePath = "/kelo/api/invoice/";
    const auto invoice = [](Kelosdk& s) { s.tumipayRequest(5, "Table 3", "Bill"); };
    add("login", "/kelo/api/login/", "client_login", "userLoginDone", RequestKind::Login, true,
        [](Kelosdk& s) { s.userLogin("anna", "pw"); });
    add("menu", "/kelo/api/item/", "getlist", "foodsRequestDone", RequestKind::Menu, true,
        [](Kelosdk& s) { s.foodsRequest(); });
    add("food order", invoicePath, "confirm_order", "foodOrderRequestDone", RequestKind::FoodOrder,
        true, [](Kelosdk& s) {
            s.foodOrderRequest({{"table_id", 3}, {"amount", 5}, {"items", QJsonArray()}});
        });
    add("tables", "/kelo/api/table/", "getlist", "tableRequestDone", RequestKind::Tables, false,
        [](Kelosdk& s) { s.tableRequest(); });
    add("table foods", invoicePath, "get_order_list", "tableFoodsDone", RequestKind::TableFoods,
        true, [](Kelosdk& s) { s.tableFoodsRequest(3); });
    add("merge", invoicePath, "merge_table", "tableMergeDone", RequestKind::Merge, true,
        [](Kelosdk& s) { s.tableMergeRequest(3, 4); });
    add("payment", invoicePath, "payment", "paymentDone", RequestKind::Payment, false,
        [](Kelosdk& s) { s.paymentRequest(3, 5); });
    add("get_session", invoicePath, "get_session", "", RequestKind::Invoice, true, invoice);
    add("create", invoicePath, "create", "tumiQRInvoiceCode", RequestKind::Invoice, true, invoice);
    add("cancel", "/kelo/api/invoice", "cancel", "tumipayCancelDone", RequestKind::Cancel, true,
        [](Kelosdk& s) { s.tumipayCancel(kInvoiceCode); });
    return kinds;
}

} // namespace

QVariantList SdkKind::busy() const
{
    if (!heldWhileOut)
        return {};
    const kelo_sdk::Refusal& refusal = kelo_sdk::refusalOf(kind);
    return {refusal.code, QString::fromLatin1(refusal.text)};
}

const QList<SdkKind>& sdkKinds()
{
    static const QList<SdkKind> kinds = makeKinds();
    return kinds;
}

const SdkKind& sdkKind(const QByteArray& name)
{
    for (const SdkKind& kind : sdkKinds())
        if (name == kind.name)
            return kind;
    qFatal("no request kind named %s", name.constData());
}
