#include "sdkkinds.h"

#include <QJsonArray>
#include <QJsonObject>

namespace {

QList<SdkKind> makeKinds()
{
    QList<SdkKind> kinds;
    const auto add = [&kinds](const char* name, const QByteArray& path, const char* cm,
                              const QByteArray& done, const QVariantList& busy,
                              const std::function<void(Kelosdk&)>& call) {
        kinds.append({name, path, QString::fromLatin1(cm), done, busy, call});
    };
    const QByteArray invoicePath = "/kelo/api/invoice/";
    const QVariantList invoiceBusy{103, "kelo process tumipay busy"};
    const auto invoice = [](Kelosdk& s) { s.tumipayRequest(5, "Table 3", "Bill"); };
    add("login", "/kelo/api/login/", "client_login", "userLoginDone",
        {106, "kelo process login busy!"}, [](Kelosdk& s) { s.userLogin("anna", "pw"); });
    add("menu", "/kelo/api/item/", "getlist", "foodsRequestDone", {102, "kelo process food busy!"},
        [](Kelosdk& s) { s.foodsRequest(); });
    add("food order", invoicePath, "confirm_order", "foodOrderRequestDone",
        {102, "kelo process food order busy!"}, [](Kelosdk& s) {
            s.foodOrderRequest({{"table_id", 3}, {"amount", 5}, {"items", QJsonArray()}});
        });
    add("tables", "/kelo/api/table/", "getlist", "tableRequestDone", {},
        [](Kelosdk& s) { s.tableRequest(); });
    add("table foods", invoicePath, "get_order_list", "tableFoodsDone",
        {111, "kelo process ordered foods list information detail!"},
        [](Kelosdk& s) { s.tableFoodsRequest(3); });
    add("merge", invoicePath, "merge_table", "tableMergeDone", {112, "kelo process merge table!"},
        [](Kelosdk& s) { s.tableMergeRequest(3, 4); });
    add("payment", invoicePath, "payment", "paymentDone", {},
        [](Kelosdk& s) { s.paymentRequest(3, 5); });
    add("get_session", invoicePath, "get_session", "", invoiceBusy, invoice);
    add("create", invoicePath, "create", "tumiQRInvoiceCode", invoiceBusy, invoice);
    add("cancel", "/kelo/api/invoice", "cancel", "tumipayCancelDone",
        {104, "kelo process paycancel busy"}, [](Kelosdk& s) { s.tumipayCancel(kInvoiceCode); });
    return kinds;
}

} // namespace

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
