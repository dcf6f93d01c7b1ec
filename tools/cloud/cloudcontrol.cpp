#include "cloudcontrol.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QUrlQuery>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>

namespace kelocloud {

/// The decoded parameters of one control request, with the checks every route needs.
class CloudControl::Form
{
public:
    explicit Form(const CloudExchange& request) : query(request.params()) {}

    bool has(const char* key) const { return query.hasQueryItem(QLatin1String(key)); }
    QString text(const char* key) const
    {
        return query.queryItemValue(QLatin1String(key), QUrl::FullyDecoded);
    }

    /// The integer @p key within [@p min, @p max], @p fallback when absent; empty (and
    /// @p error set) when it is no such integer.
    std::optional<int> number(const char* key, int fallback, int min, int max, QString* error) const
    {
        if (!has(key))
            return fallback;
        bool ok = false;
        const int value = text(key).toInt(&ok);
        if (ok && value >= min && value <= max)
            return value;
        *error = QStringLiteral("%1 must be an integer from %2 to %3, not \"%4\"")
                     .arg(QLatin1String(key))
                     .arg(min)
                     .arg(max)
                     .arg(text(key));
        return std::nullopt;
    }

private:
    QUrlQuery query;
};

namespace {

ControlReply json(int status, const QJsonObject& body)
{
    ControlReply answer;
    answer.reply.status = status;
    answer.reply.body = QJsonDocument(body).toJson(QJsonDocument::Compact) + '\n';
    answer.reply.headers = {{"Content-Type", "application/json"}};
    return answer;
}

ControlReply success(QJsonObject fields = {})
{
    fields.insert(QStringLiteral("ok"), true);
    return json(200, fields);
}

ControlReply failure(int status, const QString& error)
{
    return json(status, {{"ok", false}, {"error", error}});
}

// A body long enough that half of it is clearly a cut answer.
const QByteArray cutBody = R"({"dt":{"note":"kelo-cloud cuts this answer halfway"},"err":0,)"
                           R"("msg":"success","padding":"................................"})";

/// The fault kinds of "/_sim/fault", as scripted replies; false for an unknown kind.
bool faultReply(const QString& kind, int status, CloudReply* reply)
{
    if (kind == QLatin1String("delay"))
        reply->normalAnswer = true;
    else if (kind == QLatin1String("drop"))
        reply->fault = CloudReply::Fault::ResetBeforeHeaders;
    else if (kind == QLatin1String("reset")) {
        reply->fault = CloudReply::Fault::ResetMidBody;
        reply->body = cutBody;
    } else if (kind == QLatin1String("never"))
        reply->fault = CloudReply::Fault::NeverAnswer;
    else if (kind == QLatin1String("idle-close"))
        reply->fault = CloudReply::Fault::CloseReused;
    else if (kind == QLatin1String("status")) {
        reply->status = status;
        reply->body =
            QByteArray("kelo-cloud: simulated error ") + QByteArray::number(status) + '\n';
        reply->headers = {{"Content-Type", "text/plain"}};
    } else if (kind == QLatin1String("garbage")) {
        // Claims JSON, as a broken gateway would, and is not.
        reply->body = "<html><body>502 kelo-cloud garbage {\"err\":</body></html>\n";
        reply->headers = {{"Content-Type", "application/json"}};
    } else if (kind == QLatin1String("empty"))
        reply->body.clear();
    else
        return false;
    return true;
}

const char tokenAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr int tokenLength = 32; // 192 random bits
constexpr int tokenMin = 16;
constexpr int tokenMax = 128;

/// Whether @p sent is @p required, in a time that depends on the required token's length only
/// (never on where the first differing byte is).
bool sameToken(const QByteArray& sent, const QByteArray& required)
{
    unsigned char differ = sent.size() == required.size() ? 0 : 1;
    for (int i = 0; i < required.size(); ++i) {
        const char got = i < sent.size() ? sent.at(i) : '\0';
        differ |= static_cast<unsigned char>(got ^ required.at(i));
    }
    return differ == 0;
}

} // namespace

QByteArray CloudControl::makeToken()
{
    // 64 symbols: a uniform pick from 6 random bits each.
    QByteArray token(tokenLength, Qt::Uninitialized);
    for (char& c : token)
        c = tokenAlphabet[QRandomGenerator::system()->generate() & 63];
    return token;
}

QString CloudControl::tokenProblem(const QByteArray& token)
{
    if (token.size() < tokenMin || token.size() > tokenMax)
        return QStringLiteral("a control token has %1 to %2 characters, not %3")
            .arg(tokenMin)
            .arg(tokenMax)
            .arg(token.size());
    for (const char c : token)
        if (!std::strchr(tokenAlphabet, c) || c == '\0')
            return QStringLiteral("a control token holds only A-Z a-z 0-9 - _");
    return QString();
}

CloudControl::CloudControl(CloudServer& server, const QByteArray& requiredToken)
    : server(server), requiredToken(requiredToken)
{
    server.setControlHandler([this](const CloudExchange& request) { return handle(request); });
}

CloudControl::~CloudControl()
{
    server.setControlHandler({});
}

ControlReply CloudControl::handle(const CloudExchange& request)
{
    struct Route
    {
        const char* path;
        const char* method;
        ControlReply (CloudControl::*run)(const Form&);
    };
    // Before anything else: without the token not even an unknown route is named.
    if (!requiredToken.isEmpty() && !sameToken(request.header(controlTokenHeader), requiredToken))
        return failure(403, QStringLiteral("this kelo-cloud's control routes need its control "
                                           "token (printed at its start) in the header %1")
                                .arg(QLatin1String(controlTokenHeader)));
    static const Route routes[] = {
        {"/_sim/invoice/paid", "POST", &CloudControl::invoicePaid},
        {"/_sim/push", "POST", &CloudControl::push},
        {"/_sim/fault", "POST", &CloudControl::fault},
        {"/_sim/pongs", "POST", &CloudControl::pongs},
        {"/_sim/down", "POST", &CloudControl::down},
        {"/_sim/drop-sockets", "POST", &CloudControl::dropSockets},
        {"/_sim/state", "GET", &CloudControl::summary},
    };
    const auto route = std::find_if(std::begin(routes), std::end(routes),
                                    [&](const Route& r) { return request.path == r.path; });
    if (route == std::end(routes))
        return failure(404, QStringLiteral("unknown control route %1 (see kelo-cloud --help)")
                                .arg(QString::fromUtf8(request.path)));
    if (request.method != route->method) {
        ControlReply refused =
            failure(405, QStringLiteral("%1 takes %2").arg(route->path, route->method));
        refused.reply.headers.append(qMakePair(QByteArray("Allow"), QByteArray(route->method)));
        return refused;
    }
    return (this->*route->run)(Form(request));
}

ControlReply CloudControl::invoicePaid(const Form& form)
{
    const QString code = form.text("invoice_code");
    if (code.isEmpty())
        return failure(400, QStringLiteral("invoice_code is missing"));
    int delivered = 0;
    if (!server.markInvoicePaid(code, &delivered))
        return failure(404, QStringLiteral("no open invoice %1").arg(code));
    return success({{"invoice_code", code}, {"sockets", delivered}});
}

ControlReply CloudControl::push(const Form& form)
{
    const QString devid = form.text("devid");
    const QByteArray text = form.text("text").toUtf8();
    if (text.isEmpty())
        return failure(400, QStringLiteral("text is missing"));
    if (devid.isEmpty())
        return success({{"sockets", server.pushAll(text)}});
    const int sockets = server.pushToDevice(devid, text);
    if (sockets == 0)
        return failure(404, QStringLiteral("device %1 has no notification socket").arg(devid));
    return success({{"devid", devid}, {"sockets", sockets}});
}

ControlReply CloudControl::fault(const Form& form)
{
    const QString path = form.text("path");
    const QString cm = form.text("cm");
    const QString kind = form.text("kind");
    if (!path.startsWith(QLatin1Char('/')))
        return failure(400, QStringLiteral("path must start with \"/\""));
    if (path.startsWith(QLatin1String(controlPathPrefix)))
        return failure(400, QStringLiteral("faults never apply to %1").arg(controlPathPrefix));
    QString error;
    const std::optional<int> ms = form.number("ms", 0, 0, 3600 * 1000, &error);
    const std::optional<int> status = form.number("status", 500, 400, 599, &error);
    const std::optional<int> times = form.number("times", 1, 1, 1000000, &error);
    if (!ms || !status || !times)
        return failure(400, error);
    CloudReply reply;
    reply.delayMs = *ms;
    if (!faultReply(kind, *status, &reply))
        return failure(400, QStringLiteral("kind must be one of delay, drop, reset, never, "
                                           "idle-close, status, garbage, empty, not \"%1\"")
                                .arg(kind));
    if (kind == QLatin1String("delay") && *ms == 0)
        return failure(400, QStringLiteral("a delay needs ms above 0"));
    server.scriptReply(path.toUtf8(), cm, reply, *times);
    QJsonObject answer{{"path", path}, {"cm", cm}, {"kind", kind}, {"ms", *ms}, {"times", *times}};
    if (kind == QLatin1String("status"))
        answer.insert(QStringLiteral("status"), *status);
    return success(answer);
}

ControlReply CloudControl::pongs(const Form& form)
{
    const QString answer = form.text("answer");
    if (answer != QLatin1String("0") && answer != QLatin1String("1"))
        return failure(400, QStringLiteral("answer must be 0 or 1"));
    server.setAnswerPings(answer == QLatin1String("1"));
    return success({{"answer", answer == QLatin1String("1")}});
}

ControlReply CloudControl::down(const Form& form)
{
    if (!form.has("seconds"))
        return failure(400, QStringLiteral("seconds is missing"));
    QString error;
    const std::optional<int> seconds = form.number("seconds", 0, 1, 24 * 3600, &error);
    if (!seconds)
        return failure(400, error);
    ControlReply answer = success({{"seconds", *seconds}, {"port", server.port()}});
    // Only once this answer is out: the outage closes every connection, this one too.
    CloudServer* cloud = &server;
    const int ms = *seconds * 1000;
    answer.afterSent = [cloud, ms] { cloud->goDownFor(ms); };
    return answer;
}

ControlReply CloudControl::dropSockets(const Form&)
{
    return success({{"dropped", server.dropWebSockets()}});
}

ControlReply CloudControl::summary(const Form&)
{
    return success({{"port", server.port()},
                    {"merchant_code", server.state().merchantCode()},
                    {"devices", QJsonArray::fromStringList(server.connectedDevices())},
                    {"sockets", server.webSocketCount()},
                    {"open_invoices", server.openInvoiceCount()},
                    {"requests", server.exchanges().size()}});
}

QString CloudControl::usage(const QString& caPath)
{
    const QString curl = QStringLiteral("curl --cacert ") + caPath;
    const QString url = QStringLiteral("https://127.0.0.1:<port>");
    return QStringLiteral(
               "Control routes, on the same port. Bodies are form-encoded (curl -d key=value,\n"
               "--data-urlencode for texts with & = + or %); answers are JSON: {\"ok\":true,...},\n"
               "or {\"ok\":false,\"error\":\"...\"} with status 400 (bad parameter), 403 (no or\n"
               "wrong control token), 404 (unknown route, invoice or device) or 405 (wrong\n"
               "method).\n"
               "\n"
               "Control token: on 127.0.0.1 (the default) none is needed. With --listen on any\n"
               "other address kelo-cloud makes one at start and prints it on a line of its own,\n"
               "  kelo-cloud control token: <token>\n"
               "(or takes it from --control-token or KELO_CLOUD_CONTROL_TOKEN; one given that\n"
               "way is needed on 127.0.0.1 too). Every control request then sends it:\n"
               "  -H 'X-Kelo-Control-Token: <token>'\n"
               "without it the answer is 403 and nothing happens. The API and the WebSocket\n"
               "never need it.\n"
               "\n"
               "  POST /_sim/invoice/paid   invoice_code=<code>\n"
               "      Marks an open invoice paid and pushes \"payment_success\" to the device\n"
               "      that created it; answers how many of its sockets got it. 404 for an\n"
               "      unknown, paid or cancelled invoice. Send the \"#\" of a code as %23:\n"
               "      {curl} -d invoice_code=INV%23000001 {url}/_sim/invoice/paid\n"
               "\n"
               "  POST /_sim/push   devid=<device id, empty for every device>&text=<frame>\n"
               "      Pushes one text frame over the notification sockets; answers how many\n"
               "      got it (404 when the device named has none):\n"
               "      {curl} -d devid= --data-urlencode 'text={\"dt\":{},\"err\":0,\"msg\":\"hi\","
               "\"type\":9}' {url}/_sim/push\n"
               "\n"
               "  POST /_sim/fault   path=<prefix>&cm=<op>&kind=<kind>&ms=<ms>&status=<code>"
               "&times=<n>\n"
               "      The next n requests (default 1) whose path starts with <prefix> and, if\n"
               "      cm is given, whose \"cm\" is <op>, get a fault instead of the answer:\n"
               "        delay    the normal answer, ms milliseconds late\n"
               "        drop     the connection is reset before any answer. Qt clients\n"
               "                 (QNetworkAccessManager) send the request again up to 3 times\n"
               "                 on a new connection: times=4 makes such a client see it\n"
               "        reset    headers and half the body, then the connection is reset\n"
               "        never    no answer at all; the connection stays open\n"
               "        idle-close  only a request that is not its connection's first: it is\n"
               "                 handled (an invoice is created) but the connection is closed\n"
               "                 without an answer, as a server closing an idle connection at\n"
               "                 the worst moment. Qt clients send it again on a new one\n"
               "        status   HTTP status <code> (400 to 599, default 500), short text body\n"
               "        garbage  200 with a body that is not JSON\n"
               "        empty    200 with an empty body\n"
               "      ms (default 0) delays the other kinds too. Faults never apply to /_sim/.\n"
               "      {curl} -d path=/kelo/api/login/ -d kind=drop -d times=4 {url}/_sim/fault\n"
               "      {curl} -d path=/kelo/api/item/ -d cm=getlist -d kind=status -d status=503 "
               "{url}/_sim/fault\n"
               "\n"
               "  POST /_sim/pongs   answer=0|1\n"
               "      0: stop answering the WebSocket pings (the client's keep-alive then\n"
               "      fails); 1: answer them again.\n"
               "      {curl} -d answer=0 {url}/_sim/pongs\n"
               "\n"
               "  POST /_sim/down   seconds=<n>\n"
               "      Answers, then goes down (listening socket and every connection closed)\n"
               "      and comes back on the same port n seconds later.\n"
               "      {curl} -d seconds=10 {url}/_sim/down\n"
               "\n"
               "  POST /_sim/drop-sockets\n"
               "      Closes every notification socket abruptly; answers how many were open.\n"
               "      {curl} -X POST {url}/_sim/drop-sockets\n"
               "\n"
               "  GET /_sim/state\n"
               "      port, merchant_code, connected devices, open sockets, open invoices and\n"
               "      the number of requests received (this one included).\n"
               "      {curl} {url}/_sim/state\n")
        .replace(QLatin1String("{curl}"), curl)
        .replace(QLatin1String("{url}"), url);
}

} // namespace kelocloud
