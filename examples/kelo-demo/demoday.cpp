#include "demoday.h"

#include "qrterminal.h"
#include "simulatorcontrol.h"

#include <kelo/kelosdk.h>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QStandardPaths>
#include <QTextStream>

namespace {

QTextStream& out()
{
    static QTextStream stream(stdout);
    return stream;
}

// Replies can be long; the demo shows the start of each.
QString brief(const QString& text, int length = 160)
{
    return text.size() <= length ? text : text.left(length) + QStringLiteral(" ...");
}

QJsonObject parseObject(const QString& text)
{
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

// Where the SDK caches pictures: "images" under the application's data location.
QString pictureCacheDir()
{
    return QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation) +
           QStringLiteral("/images");
}

} // namespace

DemoDay::DemoDay(Kelosdk& sdk, SimulatorControl& simulator, const Settings& settings,
                 QObject* parent)
    : QObject(parent), sdk(sdk), simulator(simulator), settings(settings)
{
    stepTimer.setSingleShot(true);
    connect(&stepTimer, &QTimer::timeout, this,
            [this] { fail(QStringLiteral("no answer in time")); });
    progressTimer.setInterval(200);
    connect(&progressTimer, &QTimer::timeout, this, &DemoDay::updatePictureProgress);
    connectSdk();
    buildSteps();
}

void DemoDay::start()
{
    out() << "kelo-demo: a terminal's day against " << qEnvironmentVariable("KELO_SERVER_HOST")
          << Qt::endl;
    current = -1;
    stepDone();
}

bool DemoDay::awaiting(Expect what) const
{
    return !ended && current >= 0 && current < steps.size() && steps[current].expect == what;
}

void DemoDay::runStep()
{
    const Step& step = steps[current];
    out() << "\n[" << current + 1 << "/" << steps.size() << "] " << step.title << Qt::endl;
    stepTimer.start(settings.stepTimeoutMs);
    step.action();
}

void DemoDay::stepDone()
{
    stepTimer.stop();
    if (++current < steps.size()) {
        runStep();
        return;
    }
    ended = true;
    out() << "\nkelo-demo: the whole day succeeded" << Qt::endl;
    emit finished(0);
}

void DemoDay::fail(const QString& why)
{
    if (ended)
        return;
    ended = true;
    stepTimer.stop();
    progressTimer.stop();
    const QString title = current >= 0 && current < steps.size() ? steps[current].title : QString();
    out() << "\nkelo-demo: FAILED at \"" << title << "\": " << why << Qt::endl;
    emit finished(1);
}

void DemoDay::connectSdk()
{
    connect(&sdk, &Kelosdk::cloudConnectionChange, this, [this](bool up) {
        out() << "  <- cloudConnectionChange(" << (up ? "true" : "false") << ")" << Qt::endl;
        if (up && awaiting(Expect::Connection))
            stepDone();
    });
    connect(&sdk, &Kelosdk::keloappError, this, [this](int code, const QString& text) {
        out() << "  <- keloappError(" << code << ", \"" << text << "\")" << Qt::endl;
        fail(QStringLiteral("refused with %1").arg(code));
    });
    connect(&sdk, &Kelosdk::networkError, this, [this](int code, const QString& text) {
        out() << "  <- networkError(" << code << ", \"" << text << "\")" << Qt::endl;
        if (awaiting(Expect::FreeInvoiceFlow))
            stepDone();
        else
            fail(QStringLiteral("network error %1").arg(code));
    });
    connect(&sdk, &Kelosdk::notify, this,
            [](const QString& word) { out() << "  <- notify(\"" << word << "\")" << Qt::endl; });
    connect(&sdk, &Kelosdk::userLoginDone, this, [this](int code, const QString& text) {
        out() << "  <- userLoginDone(" << code << ", \"" << text << "\")" << Qt::endl;
        if (code != 0)
            return fail(QStringLiteral("login refused"));
        int id = -1;
        QString name;
        sdk.userName(id, name);
        out() << "     logged in as " << name << " (staff id " << id << ")" << Qt::endl;
        if (awaiting(Expect::Login))
            stepDone();
    });
    connect(&sdk, &Kelosdk::foodsRequestDone, this, [this](const QString& data) {
        progressTimer.stop();
        updatePictureProgress();
        out() << Qt::endl;
        showMenu(data);
    });
    connect(&sdk, &Kelosdk::tableRequestDone, this, [this](const QString& data) {
        out() << "  <- tableRequestDone " << brief(data) << Qt::endl;
        pickTables(data);
    });
    const auto replyStep = [this](const char* signal, Expect expect) {
        return [this, signal, expect](const QString& data) {
            out() << "  <- " << signal << " " << brief(data) << Qt::endl;
            const QJsonObject reply = parseObject(data);
            if (reply.value(QStringLiteral("err")).toInt(-1) != 0)
                return fail(QStringLiteral("server answered: %1").arg(brief(data)));
            if (awaiting(expect))
                stepDone();
        };
    };
    connect(&sdk, &Kelosdk::foodOrderRequestDone, this,
            replyStep("foodOrderRequestDone", Expect::Order));
    connect(&sdk, &Kelosdk::tableFoodsDone, this, replyStep("tableFoodsDone", Expect::TableFoods));
    connect(&sdk, &Kelosdk::tableMergeDone, this, replyStep("tableMergeDone", Expect::Merge));
    connect(&sdk, &Kelosdk::paymentDone, this, replyStep("paymentDone", Expect::Payment));
    connect(&sdk, &Kelosdk::tumipayCancelDone, this,
            replyStep("tumipayCancelDone", Expect::Cancel));
    connect(&sdk, &Kelosdk::tumiQRInvoiceCode, this, [this](const QString& data) {
        showInvoice(data, invoicesShown++ == 0); // the first invoice is the one a customer scans
    });
    connect(&sdk, &Kelosdk::tumipayRequestDone, this, [this](const QString& data) {
        out() << "  <- tumipayRequestDone " << data << Qt::endl;
        if (awaiting(Expect::Paid))
            stepDone();
    });
    connect(&sdk, &Kelosdk::userLogoutDone, this, [this](int code, const QString& text) {
        out() << "  <- userLogoutDone(" << code << ", \"" << text << "\")" << Qt::endl;
        if (awaiting(Expect::Logout))
            stepDone();
    });
    connect(&simulator, &SimulatorControl::finished, this, [this](bool ok, const QString& answer) {
        out() << "  <- simulator: " << brief(answer) << Qt::endl;
        if (!ok)
            fail(QStringLiteral("the simulator refused: %1").arg(answer));
    });
}

void DemoDay::buildSteps()
{
    steps = {
        {QStringLiteral("Connect to the cloud"), Expect::Connection,
         [] { out() << "  -> waiting for the notification channel" << Qt::endl; }},
        {QStringLiteral("Log a waiter in"), Expect::Login,
         [this] {
             out() << "  -> userLogin(\"" << settings.user << "\", \"***\", waiter)" << Qt::endl;
             sdk.userLogin(settings.user, settings.password, Kelosdk::waiter);
         }},
        {QStringLiteral("Load the menu and cache its pictures"), Expect::Menu,
         [this] {
             out() << "  -> foodsRequest()" << Qt::endl;
             progressTimer.start();
             sdk.foodsRequest();
         }},
        {QStringLiteral("List the tables"), Expect::Tables,
         [this] {
             out() << "  -> tableRequest()" << Qt::endl;
             sdk.tableRequest();
         }},
        {QStringLiteral("Place an order"), Expect::Order,
         [this] {
             order.insert(QStringLiteral("table_id"), fromTable);
             out() << "  -> foodOrderRequest("
                   << QJsonDocument(order).toJson(QJsonDocument::Compact) << ")" << Qt::endl;
             sdk.foodOrderRequest(order);
         }},
        {QStringLiteral("List the table's foods"), Expect::TableFoods,
         [this] {
             out() << "  -> tableFoodsRequest(" << fromTable << ")" << Qt::endl;
             sdk.tableFoodsRequest(fromTable);
         }},
        {QStringLiteral("Merge two tables"), Expect::Merge,
         [this] {
             out() << "  -> tableMergeRequest(" << fromTable << ", " << toTable << ")" << Qt::endl;
             sdk.tableMergeRequest(fromTable, toTable);
         }},
        {QStringLiteral("Take the table's payment"), Expect::Payment,
         [this] {
             out() << "  -> paymentRequest(" << toTable << ", " << billAmount << ")" << Qt::endl;
             sdk.paymentRequest(toTable, billAmount);
         }},
        {QStringLiteral("Create an e-wallet invoice"), Expect::Invoice,
         [this] {
             out() << "  -> tumipayRequest(" << billAmount << ", \"Table " << toTable
                   << "\", \"Bill of table " << toTable << "\")" << Qt::endl;
             sdk.tumipayRequest(billAmount, QStringLiteral("Table %1").arg(toTable),
                                QStringLiteral("Bill of table %1").arg(toTable));
         }},
        {QStringLiteral("The customer pays with the e-wallet app"), Expect::Paid,
         [this] {
             out() << "  -> simulator: mark invoice " << invoiceCode << " paid" << Qt::endl;
             simulator.markInvoicePaid(invoiceCode);
         }},
        // After a paid notice the SDK keeps the invoice flow busy until a cancel or
        // onNetworkError(); the paid invoice can no longer be cancelled, so the host frees it.
        {QStringLiteral("Free the invoice flow for the next customer"), Expect::FreeInvoiceFlow,
         [this] {
             out() << "  -> onNetworkError(0, \"invoice settled\")" << Qt::endl;
             sdk.onNetworkError(0, QStringLiteral("invoice settled"));
         }},
        {QStringLiteral("Create a second invoice"), Expect::Invoice,
         [this] {
             out() << "  -> tumipayRequest(25000, \"Takeaway\", \"Coffee\")" << Qt::endl;
             sdk.tumipayRequest(25000, QStringLiteral("Takeaway"), QStringLiteral("Coffee"));
         }},
        {QStringLiteral("Cancel the second invoice"), Expect::Cancel,
         [this] {
             out() << "  -> tumipayCancel(\"" << invoiceCode << "\")" << Qt::endl;
             sdk.tumipayCancel(invoiceCode);
         }},
        {QStringLiteral("Log out"), Expect::Logout,
         [this] {
             out() << "  -> userLogout()" << Qt::endl;
             sdk.userLogout();
         }},
    };
}

void DemoDay::showMenu(const QString& data)
{
    const QJsonObject dt = parseObject(data).value(QStringLiteral("dt")).toObject();
    const QJsonArray items = dt.value(QStringLiteral("items")).toArray();
    out() << "  <- foodsRequestDone: " << items.size() << " dishes" << Qt::endl;
    QJsonArray ordered;
    billAmount = 0;
    for (const QJsonValue& value : items) {
        const QJsonObject dish = value.toObject();
        const int price = dish.value(QStringLiteral("price")).toInt();
        out() << "     #" << dish.value(QStringLiteral("item_id")).toInt() << " "
              << dish.value(QStringLiteral("item_name")).toString() << ", " << price << ", "
              << dish.value(QStringLiteral("img_path")).toString()
              << (dish.value(QStringLiteral("img_cache")).toBool() ? "" : " (fetched again)")
              << Qt::endl;
        if (ordered.size() < 2) {
            ordered.append(
                QJsonObject{{QStringLiteral("item_id"), dish.value(QStringLiteral("item_id"))},
                            {QStringLiteral("qty"), 1}});
            billAmount += price;
        }
    }
    if (items.isEmpty())
        return fail(QStringLiteral("the menu is empty"));
    order = QJsonObject{{QStringLiteral("amount"), billAmount}, {QStringLiteral("items"), ordered}};
    if (awaiting(Expect::Menu))
        stepDone();
}

void DemoDay::pickTables(const QString& data)
{
    const QJsonValue dt = parseObject(data).value(QStringLiteral("dt"));
    QJsonArray tables = dt.toArray();
    if (tables.isEmpty())
        tables = dt.toObject().value(QStringLiteral("tables")).toArray();
    QList<int> ids;
    for (const QJsonValue& value : tables) {
        const QJsonObject table = value.toObject();
        const QJsonValue id = table.contains(QStringLiteral("table_id"))
                                  ? table.value(QStringLiteral("table_id"))
                                  : table.value(QStringLiteral("id"));
        ids.append(id.toInt(-1));
    }
    out() << "     " << ids.size() << " tables" << Qt::endl;
    if (ids.size() < 2)
        return fail(QStringLiteral("two tables are needed"));
    fromTable = ids.at(0);
    toTable = ids.at(1);
    if (awaiting(Expect::Tables))
        stepDone();
}

void DemoDay::showInvoice(const QString& data, bool drawQr)
{
    out() << "  <- tumiQRInvoiceCode " << brief(data) << Qt::endl;
    const QJsonObject dt = parseObject(data).value(QStringLiteral("dt")).toObject();
    invoiceCode = dt.value(QStringLiteral("invoice_code")).toString();
    // The QR payload is whatever the invoice reply carries for it.
    const QString payload =
        dt.contains(QStringLiteral("qr_code"))
            ? dt.value(QStringLiteral("qr_code")).toString()
            : QString::fromUtf8(QJsonDocument(dt).toJson(QJsonDocument::Compact));
    out() << "     invoice " << invoiceCode << ", QR payload: " << payload << Qt::endl;
    if (drawQr)
        out() << renderQrCode(payload.toUtf8()) << Qt::flush;
    if (invoiceCode.isEmpty())
        return fail(QStringLiteral("the invoice has no code"));
    if (awaiting(Expect::Invoice))
        stepDone();
}

void DemoDay::updatePictureProgress()
{
    const int files = QDir(pictureCacheDir()).entryList(QDir::Files).size();
    out() << "\r     pictures in the cache: " << files << Qt::flush;
}
