// The simulator's server: the engine (io thread, listening socket, connections, outages, scripts
// and the record of exchanges).
#include "cloudengine_p.h"
#include "cloudwssession_p.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

namespace kelocloud {

namespace serverdetail {

QByteArray bytes(beast::string_view text)
{
    return QByteArray(text.data(), int(text.size()));
}

Engine::Engine(const CloudOptions& options) : options(options)
{
    const bool fromOptions = !options.secretKey.isEmpty();
    const QByteArray key = fromOptions ? options.secretKey : qgetenv("KELO_CLOUD_KEY");
    if (!key.isEmpty() && !state.setSecretKey(key))
        keyError =
            QStringLiteral("%1: %2").arg(fromOptions ? QStringLiteral("CloudOptions::secretKey")
                                                     : QStringLiteral("KELO_CLOUD_KEY"),
                                         CloudState::keyProblem(key));
}

bool Engine::start(QString* error)
{
    std::lock_guard<std::mutex> lock(lifecycle);
    if (io)
        return true;
    if (!keyError.isEmpty()) {
        *error = keyError;
        return false;
    }
    QString dir = options.caDir;
    if (dir.isEmpty()) {
        if (!tempDir)
            tempDir = std::make_unique<QTemporaryDir>();
        if (!tempDir->isValid()) {
            *error = QStringLiteral("cannot create a temporary directory for the CA");
            return false;
        }
        dir = tempDir->path();
    }
    PemPair server;
    error_code addressError;
    const auto address = net::ip::make_address_v4(listenAddress().toStdString(), addressError);
    if (addressError) {
        *error = QStringLiteral("invalid listen address: %1").arg(listenAddress());
        return false;
    }
    bindAddress = address;
    const QString extraIp = options.listenAddress.isEmpty() ? QString() : listenAddress();
    if (!ca.open(dir, options.reuseCa, error) ||
        !ca.issueServerCertificate(&server, error, extraIp))
        return false;

    tls = std::make_unique<ssl::context>(ssl::context::tls_server);
    tls->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                     ssl::context::no_sslv3 | ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1);
    error_code ec;
    const QByteArray chain = server.certificate + ca.certificatePem();
    tls->use_certificate_chain(net::buffer(chain.constData(), std::size_t(chain.size())), ec);
    if (!ec)
        tls->use_private_key(net::buffer(server.key.constData(), std::size_t(server.key.size())),
                             ssl::context::pem, ec);
    if (ec) {
        *error = QStringLiteral("TLS setup: %1").arg(QString::fromStdString(ec.message()));
        tls.reset();
        return false;
    }

    io = std::make_unique<net::io_context>(1);
    // A restarted server takes its previous port again when the options leave the choice to
    // the OS, so that clients keep their address; another one if that port is taken meanwhile.
    if (options.port == 0 && port != 0 && !listen(error))
        port = 0;
    else if (options.port != 0)
        port = options.port;
    if (!acceptor && !listen(error)) {
        io.reset();
        tls.reset();
        return false;
    }
    work.emplace(io->get_executor());
    accept();
    up = true;
    thread = std::thread([this] {
        ioThreadId = std::this_thread::get_id();
        io->run();
    });
    return true;
}

void Engine::stop()
{
    std::lock_guard<std::mutex> lock(lifecycle);
    if (!io)
        return;
    net::post(*io, [this] {
        closeAll();
        io->stop();
    });
    thread.join();
    ioThreadId = std::thread::id();
    // Handlers that never ran (and the connections they hold) go with the io_context, which
    // must still see the TLS context alive.
    connections.clear();
    sockets.clear();
    stalled.clear();
    acceptor.reset();
    returnTimer.reset();
    work.reset();
    io.reset();
    tls.reset();
    up = false;
}

bool Engine::listen(QString* error)
{
    error_code ec;
    acceptor.emplace(*io);
    const tcp::endpoint endpoint(bindAddress, port.load());
    acceptor->open(endpoint.protocol(), ec);
    if (!ec)
        acceptor->set_option(net::socket_base::reuse_address(true), ec);
    if (!ec)
        acceptor->bind(endpoint, ec);
    if (!ec)
        acceptor->listen(net::socket_base::max_listen_connections, ec);
    if (ec) {
        *error = QStringLiteral("cannot listen on %1:%2: %3")
                     .arg(listenAddress())
                     .arg(port.load())
                     .arg(QString::fromStdString(ec.message()));
        acceptor.reset();
        return false;
    }
    port = acceptor->local_endpoint().port();
    return true;
}

void Engine::accept()
{
    acceptor->async_accept([this](error_code ec, tcp::socket socket) {
        if (ec == net::error::operation_aborted || !acceptor || !acceptor->is_open())
            return;
        if (!ec) {
            // Small answers go out at once instead of waiting on Nagle's algorithm for the
            // client's ACK (about 40 ms per picture on loopback otherwise).
            error_code ignored;
            socket.set_option(tcp::no_delay(true), ignored);
            int stall = stallConnections.load();
            while (stall > 0 && !stallConnections.compare_exchange_weak(stall, stall - 1)) {
            }
            if (stall > 0)
                stalled.push_back(std::move(socket));
            else
                openHttpSession(*this, std::move(socket));
        }
        accept();
    });
}

void Engine::closeAll()
{
    if (acceptor) {
        error_code ignored;
        acceptor->close(ignored);
    }
    for (const auto& weak : connections)
        if (auto connection = weak.lock())
            connection->abort();
    for (const auto& weak : sockets)
        if (auto socket = weak.lock())
            socket->abort();
    connections.clear();
    sockets.clear();
    stalled.clear(); // closes them
    up = false;
}

bool Engine::comeBack()
{
    if (returnTimer)
        returnTimer->cancel();
    if (up)
        return true;
    QString error;
    if (!listen(&error)) {
        qWarning("kelo-cloud: %s", qPrintable(error));
        return false;
    }
    accept();
    up = true;
    return true;
}

void Engine::planReturn(int ms)
{
    returnTimer.emplace(*io);
    returnTimer->expires_after(std::chrono::milliseconds(std::max(ms, 0)));
    returnTimer->async_wait([this](error_code ec) {
        if (!ec)
            comeBack();
    });
}

template <class T> void prune(std::vector<std::weak_ptr<T>>& list)
{
    list.erase(std::remove_if(list.begin(), list.end(), [](const auto& w) { return w.expired(); }),
               list.end());
}

void Engine::track(const std::shared_ptr<Connection>& connection)
{
    prune(connections);
    connections.push_back(connection);
}

void Engine::trackSocket(const std::shared_ptr<WsSession>& socket)
{
    prune(sockets);
    sockets.push_back(socket);
}

std::vector<std::shared_ptr<WsSession>> Engine::openSockets()
{
    prune(sockets);
    std::vector<std::shared_ptr<WsSession>> open;
    for (const auto& weak : sockets)
        if (auto socket = weak.lock(); socket && socket->isOpen())
            open.push_back(socket);
    return open;
}

QString Engine::imageBase() const
{
    if (!options.pictureHost.isEmpty())
        return options.pictureHost;
    return QStringLiteral("https://%1:%2").arg(listenAddress()).arg(port);
}

QString Engine::listenAddress() const
{
    return options.listenAddress.isEmpty() ? QStringLiteral("127.0.0.1") : options.listenAddress;
}

CloudExchange Engine::record(const Request& request, quint64 connection, int onConnection)
{
    CloudExchange exchange;
    exchange.connection = connection;
    exchange.onConnection = onConnection;
    exchange.method = bytes(request.method_string());
    exchange.target = bytes(request.target());
    const int mark = exchange.target.indexOf('?');
    exchange.hasQuery = mark >= 0;
    exchange.path = exchange.hasQuery ? exchange.target.left(mark) : exchange.target;
    exchange.query = exchange.hasQuery ? exchange.target.mid(mark + 1) : QByteArray();
    exchange.body = QByteArray(request.body().data(), int(request.body().size()));
    for (const auto& field : request)
        exchange.headers.append({bytes(field.name_string()), bytes(field.value())});
    std::lock_guard<std::mutex> lock(mutex);
    exchanges.append(exchange);
    return exchange;
}

void Engine::recordUpgrade(const QUrlQuery& query, bool accepted)
{
    std::lock_guard<std::mutex> lock(mutex);
    upgrades.append({query, accepted});
}

std::optional<CloudReply> Engine::takeScript(const CloudExchange& exchange)
{
    if (isControlPath(exchange.path))
        return std::nullopt;
    std::lock_guard<std::mutex> lock(mutex);
    for (auto it = scripts.begin(); it != scripts.end(); ++it) {
        if (!exchange.path.startsWith(it->pathPrefix))
            continue;
        if (!it->cm.isEmpty() && exchange.param(QStringLiteral("cm")) != it->cm)
            continue;
        if (it->reply.fault == CloudReply::Fault::CloseReused && exchange.onConnection < 2)
            continue;
        CloudReply reply = it->reply;
        if (--it->times <= 0)
            scripts.erase(it);
        return reply;
    }
    return std::nullopt;
}

QByteArray pictureType(const QByteArray& content)
{
    if (content.startsWith("\x89PNG"))
        return "image/png";
    if (content.startsWith("\xFF\xD8"))
        return "image/jpeg";
    if (content.startsWith("GIF8"))
        return "image/gif";
    return "application/octet-stream";
}

CloudReply Engine::route(const CloudExchange& exchange)
{
    CloudReply reply;
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto file = files.constFind(exchange.path);
        if (file != files.constEnd()) {
            reply.body = file->content;
            reply.headers = {{"Content-Type", file->contentType}};
            return reply;
        }
    }
    const QByteArray picture = state.picture(exchange.path);
    if (!picture.isEmpty()) {
        reply.body = picture;
        reply.headers = {{"Content-Type", pictureType(picture)}};
        return reply;
    }
    if (exchange.path.startsWith("/kelo/api/")) {
        const QUrlQuery params = exchange.params();
        auto value = [&](const char* key) {
            return params.queryItemValue(QLatin1String(key), QUrl::FullyDecoded);
        };
        const CloudState::Answer answer =
            state.handle(exchange.path, value("cm"), value("tk"), value("dt"), imageBase());
        noteInvoice(value("cm"), answer.body);
        reply.status = answer.status;
        reply.body = answer.body;
        reply.headers = {{"Content-Type", answer.contentType}};
        return reply;
    }
    reply.status = 404;
    reply.body = "not found\n";
    reply.headers = {{"Content-Type", "text/plain"}};
    return reply;
}

ControlReply Engine::control(const CloudExchange& exchange)
{
    ControlHandler handler;
    {
        std::lock_guard<std::mutex> lock(mutex);
        handler = controlHandler;
    }
    if (handler)
        return handler(exchange);
    ControlReply none;
    none.reply.status = 404;
    none.reply.body = "not found\n";
    none.reply.headers = {{"Content-Type", "text/plain"}};
    return none;
}

QString invoiceKey(QString code)
{
    return code.remove(QLatin1Char('#'));
}

/// Keeps the count of open invoices from the merchant's answers to "create" and "cancel".
void Engine::noteInvoice(const QString& cm, const QByteArray& answer)
{
    const bool create = cm == QLatin1String("create");
    if (!create && cm != QLatin1String("cancel"))
        return;
    const QJsonObject envelope = QJsonDocument::fromJson(answer).object();
    const QString code = envelope.value("dt").toObject().value("invoice_code").toString();
    if (envelope.value("err").toInt(-1) != 0 || code.isEmpty())
        return;
    std::lock_guard<std::mutex> lock(mutex);
    if (create)
        openInvoices.insert(invoiceKey(code));
    else
        openInvoices.remove(invoiceKey(code));
}

void Engine::forgetInvoice(const QString& code)
{
    std::lock_guard<std::mutex> lock(mutex);
    openInvoices.remove(invoiceKey(code));
}

} // namespace serverdetail

} // namespace kelocloud
