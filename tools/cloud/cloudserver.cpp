#include "cloudserver.h"

#include "devca.h"

#include <QHash>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QTemporaryDir>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <list>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace kelocloud {

QByteArray CloudExchange::header(const QByteArray& name) const
{
    for (const auto& h : headers)
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return h.second;
    return {};
}

bool CloudExchange::hasHeader(const QByteArray& name) const
{
    for (const auto& h : headers)
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return true;
    return false;
}

QUrlQuery CloudExchange::params() const
{
    return QUrlQuery(QString::fromUtf8(method == "POST" ? body : query));
}

QString CloudExchange::param(const QString& key) const
{
    return params().queryItemValue(key, QUrl::FullyDecoded);
}

namespace serverdetail {

namespace net = boost::asio;
namespace ssl = boost::asio::ssl;
namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;
using tcp = boost::asio::ip::tcp;
using error_code = boost::beast::error_code;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;
using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

const std::size_t maxRequestBody = 64 * 1024 * 1024;
const std::uint32_t maxRequestHeader = 1024 * 1024; // long "dt" texts travel in GET queries
const auto handshakeTimeout = std::chrono::seconds(30);
// The server sends its close_notify and waits this long for the client's before it closes the
// TCP connection anyway (QWebSocket, after a refused upgrade, never answers it).
const auto shutdownTimeout = std::chrono::milliseconds(300);

QByteArray bytes(beast::string_view text)
{
    return QByteArray(text.data(), int(text.size()));
}

/// Ends a TCP connection with a reset: no TLS close_notify, no FIN, unsent data dropped.
void resetConnection(beast::tcp_stream& stream)
{
    error_code ignored;
    stream.socket().set_option(net::socket_base::linger(true, 0), ignored);
    stream.close();
}

/**
 * A pass-through layer under a WebSocket stream that can swallow the pong frames the stream
 * writes by itself in answer to pings (it answers them inside every pending read, with no option
 * to turn that off). Everything else passes unchanged.
 */
template <class NextLayer> class PongGate
{
public:
    using executor_type = typename NextLayer::executor_type;

    PongGate(NextLayer&& next, const std::atomic<bool>* answerPings)
        : next(std::move(next)), answerPings(answerPings)
    {
    }

    executor_type get_executor() noexcept { return next.get_executor(); }
    NextLayer& next_layer() noexcept { return next; }
    const NextLayer& next_layer() const noexcept { return next; }

    template <class MutableBuffers, class Handler>
    auto async_read_some(const MutableBuffers& buffers, Handler&& handler)
    {
        return next.async_read_some(buffers, std::forward<Handler>(handler));
    }

    template <class ConstBuffers, class Handler>
    auto async_write_some(const ConstBuffers& buffers, Handler&& handler)
    {
        return net::async_initiate<Handler, void(error_code, std::size_t)>(
            [this](auto&& h, const ConstBuffers& b) {
                if (swallow(b))
                    net::post(get_executor(),
                              beast::bind_front_handler(std::forward<decltype(h)>(h), error_code(),
                                                        net::buffer_size(b)));
                else
                    next.async_write_some(b, std::forward<decltype(h)>(h));
            },
            handler, buffers);
    }

private:
    /// Whether @p buffers is exactly one unmasked pong frame (FIN + opcode 0xA) to drop.
    template <class ConstBuffers> bool swallow(const ConstBuffers& buffers) const
    {
        if (answerPings->load())
            return false;
        unsigned char head[2] = {0, 0};
        if (net::buffer_copy(net::buffer(head), buffers) < 2 || head[0] != 0x8A)
            return false;
        return net::buffer_size(buffers) == std::size_t(2 + (head[1] & 0x7F));
    }

    NextLayer next;
    const std::atomic<bool>* answerPings;
};

template <class NextLayer>
void teardown(beast::role_type role, PongGate<NextLayer>& stream, error_code& ec)
{
    using boost::beast::websocket::teardown;
    teardown(role, stream.next_layer(), ec);
}

template <class NextLayer, class Handler>
void async_teardown(beast::role_type role, PongGate<NextLayer>& stream, Handler&& handler)
{
    using boost::beast::websocket::async_teardown;
    async_teardown(role, stream.next_layer(), std::forward<Handler>(handler));
}

/// Anything the server can close at once on goDown() or stop().
class Connection
{
public:
    virtual ~Connection() = default;
    virtual void abort() = 0;
};

class WsSession;

struct Script
{
    QByteArray pathPrefix;
    QString cm;
    CloudReply reply;
    int times;
};

struct ServedFile
{
    QByteArray content;
    QByteArray contentType;
};

/// The server proper; everything below "io thread only" is touched by the io thread alone.
class Engine
{
public:
    explicit Engine(const CloudOptions& options);

    bool start(QString* error);
    void stop();

    /// Runs @p f on the io thread and returns its result; a default value when not running.
    template <class F> auto call(F f) -> decltype(f());

    // Shared with the public API, under `mutex`.
    CloudExchange record(const Request& request);
    void recordUpgrade(const QUrlQuery& query, bool accepted);
    std::optional<CloudReply> takeScript(const CloudExchange& exchange);
    CloudReply route(const CloudExchange& exchange);
    ControlReply control(const CloudExchange& exchange);
    void noteInvoice(const QString& cm, const QByteArray& answer);
    void forgetInvoice(const QString& code);

    // io thread only.
    bool listen(QString* error);
    void accept();
    void closeAll();
    bool comeBack();
    void planReturn(int ms);
    void track(const std::shared_ptr<Connection>& connection);
    void trackSocket(const std::shared_ptr<WsSession>& socket);
    std::vector<std::shared_ptr<WsSession>> openSockets();
    QString imageBase() const;

    CloudOptions options;
    CloudState state;
    QString keyError; ///< why the key of the options or the environment was refused
    std::unique_ptr<QTemporaryDir> tempDir;
    DevCa ca;

    mutable std::mutex mutex;
    QList<CloudExchange> exchanges;
    QList<CloudUpgrade> upgrades;
    std::list<Script> scripts;
    QHash<QByteArray, ServedFile> files;
    ControlHandler controlHandler;
    QSet<QString> openInvoices; ///< codes without their "#"

    std::atomic<bool> answerPings{true};
    std::atomic<int> pings{0};
    std::atomic<bool> refuseUpgrades{false};
    std::atomic<bool> up{false};
    std::atomic<quint16> port{0};
    std::atomic<std::thread::id> ioThreadId{};
    std::atomic<qint64> streamedBytes{0}; ///< of streamed bodies, written to a client

    std::mutex lifecycle; ///< start(), stop() and call() against each other
    std::unique_ptr<ssl::context> tls;
    std::unique_ptr<net::io_context> io;
    std::optional<net::executor_work_guard<net::io_context::executor_type>> work;
    std::thread thread;

    // io thread only
    std::optional<tcp::acceptor> acceptor;
    std::vector<std::weak_ptr<Connection>> connections;
    std::vector<std::weak_ptr<WsSession>> sockets;
    std::optional<net::steady_timer> returnTimer; ///< the end of an outage of goDownFor()
};

bool isControlPath(const QByteArray& path)
{
    return path.startsWith(controlPathPrefix);
}

/// The notification socket of one device, after a successful upgrade.
class WsSession : public Connection, public std::enable_shared_from_this<WsSession>
{
public:
    WsSession(Engine& engine, TlsStream&& stream, const QString& devid)
        : ws(std::move(stream), &engine.answerPings), devid(devid), pings(engine.pings)
    {
    }

    void accept(Request&& upgradeRequest)
    {
        request = std::move(upgradeRequest);
        ws.set_option(websocket::stream_base::decorator(
            [](websocket::response_type& r) { r.set(http::field::server, "kelo-cloud"); }));
        ws.control_callback([this](websocket::frame_type kind, beast::string_view) {
            if (kind == websocket::frame_type::ping)
                ++pings;
        });
        ws.async_accept(request, [self = shared_from_this()](error_code ec) {
            if (ec)
                return;
            self->open = true;
            self->read();
        });
    }

    /// @p wholeFrame: one frame whatever its length (otherwise frames of 4 KiB at most).
    void send(const QByteArray& text, bool wholeFrame = false)
    {
        if (!open)
            return;
        queue.push_back({std::string(text.constData(), std::size_t(text.size())), wholeFrame});
        if (queue.size() == 1)
            writeNext();
    }

    void abort() override
    {
        open = false;
        resetConnection(beast::get_lowest_layer(ws));
    }

    bool isOpen() const { return open; }
    QString device() const { return devid; }

private:
    // The frames a client sends are read (so that pings and the close handshake are handled)
    // and dropped: the notification channel only goes from server to device.
    void read()
    {
        ws.async_read(buffer, [self = shared_from_this()](error_code ec, std::size_t) {
            if (ec) {
                self->open = false;
                return;
            }
            self->buffer.consume(self->buffer.size());
            self->read();
        });
    }

    void writeNext()
    {
        ws.text(true);
        ws.auto_fragment(!queue.front().second);
        ws.async_write(net::buffer(queue.front().first),
                       [self = shared_from_this()](error_code ec, std::size_t) {
                           if (ec) {
                               self->queue.clear();
                               return;
                           }
                           self->queue.pop_front();
                           if (!self->queue.empty())
                               self->writeNext();
                       });
    }

    websocket::stream<PongGate<TlsStream>> ws;
    QString devid;
    Request request;
    beast::flat_buffer buffer;
    std::deque<std::pair<std::string, bool>> queue; // text, whole frame
    bool open = false;
    std::atomic<int>& pings;
};

/// One HTTPS connection: requests one after another (keep-alive), or one upgrade.
class HttpSession : public Connection, public std::enable_shared_from_this<HttpSession>
{
public:
    HttpSession(Engine& engine, tcp::socket&& socket)
        : engine(engine), stream(std::move(socket), *engine.tls), timer(stream.get_executor())
    {
    }

    void start()
    {
        beast::get_lowest_layer(stream).expires_after(handshakeTimeout);
        stream.async_handshake(ssl::stream_base::server,
                               [self = shared_from_this()](error_code ec) {
                                   if (ec)
                                       return; // e.g. a client that does not trust the CA
                                   beast::get_lowest_layer(self->stream).expires_never();
                                   self->readRequest();
                               });
    }

    void abort() override
    {
        if (upgraded)
            return; // the stream now belongs to the WebSocket session
        timer.cancel();
        resetConnection(beast::get_lowest_layer(stream));
    }

private:
    void readRequest()
    {
        parser.emplace();
        parser->body_limit(maxRequestBody);
        parser->header_limit(maxRequestHeader);
        http::async_read(
            stream, buffer, *parser, [self = shared_from_this()](error_code ec, std::size_t) {
                if (!ec)
                    self->onRequest();
                else if (ec.category() ==
                             http::make_error_code(http::error::bad_target).category() &&
                         ec != http::error::end_of_stream)
                    self->refuseMalformed();
            });
    }

    /// A request that does not parse gets 400 and the connection is closed.
    void refuseMalformed()
    {
        request = {};
        request.version(11);
        request.keep_alive(false);
        reply = CloudReply();
        reply.status = 400;
        reply.body = "malformed request\n";
        reply.headers = {{"Content-Type", "text/plain"}};
        writeWhole();
    }

    void onRequest()
    {
        request = parser->release();
        const CloudExchange exchange = engine.record(request);
        std::optional<CloudReply> scripted = engine.takeScript(exchange);
        const int delayMs = scripted ? scripted->delayMs : 0;
        if (scripted && scripted->normalAnswer)
            scripted.reset();
        if (delayMs <= 0) {
            respond(exchange, scripted);
            return;
        }
        timer.expires_after(std::chrono::milliseconds(delayMs));
        timer.async_wait([self = shared_from_this(), exchange, scripted](error_code ec) {
            if (!ec)
                self->respond(exchange, scripted);
        });
    }

    void respond(const CloudExchange& exchange, const std::optional<CloudReply>& scripted)
    {
        const bool upgrade = websocket::is_upgrade(request) && exchange.path == "/kelo/ntf/";
        if (upgrade && !scripted) {
            upgradeToWebSocket(exchange);
            return;
        }
        if (upgrade) {
            // A client whose upgrade is not taken does not go on with HTTP on that connection.
            engine.recordUpgrade(exchange.params(), false);
            request.keep_alive(false);
        }
        if (scripted) {
            reply = *scripted;
        } else if (isControlPath(exchange.path)) {
            ControlReply control = engine.control(exchange);
            reply = control.reply;
            reply.delayMs = 0;
            reply.fault = CloudReply::Fault::None;
            afterSent = std::move(control.afterSent);
            if (afterSent)
                request.keep_alive(false); // so that the answer is whole before the action
        } else {
            reply = engine.route(exchange);
        }
        answer();
    }

    void upgradeToWebSocket(const CloudExchange& exchange)
    {
        const QUrlQuery query = exchange.params();
        auto value = [&](const char* key) {
            return query.queryItemValue(QLatin1String(key), QUrl::FullyDecoded);
        };
        const bool admitted =
            !engine.refuseUpgrades && engine.state.admitWebSocket(value("appuser"), value("devid"),
                                                                  value("ws_session"), value("tk"));
        engine.recordUpgrade(query, admitted);
        if (!admitted) {
            reply = CloudReply();
            reply.status = 403;
            reply.body = "upgrade refused\n";
            reply.headers = {{"Content-Type", "text/plain"}};
            request.keep_alive(false);
            answer();
            return;
        }
        upgraded = true;
        auto socket = std::make_shared<WsSession>(engine, std::move(stream), value("devid"));
        engine.trackSocket(socket);
        socket->accept(std::move(request));
    }

    void answer()
    {
        switch (reply.fault) {
        case CloudReply::Fault::ResetBeforeHeaders:
            abort();
            return;
        case CloudReply::Fault::NeverAnswer:
            hold();
            return;
        case CloudReply::Fault::ResetMidBody:
            writeHalf();
            return;
        case CloudReply::Fault::None:
            if (reply.streamBytes > 0)
                writeStreamed();
            else
                writeWhole();
            return;
        }
    }

    void buildResponse()
    {
        response = {};
        response.version(request.version());
        response.result(unsigned(reply.status));
        response.set(http::field::server, "kelo-cloud");
        response.set(http::field::content_type, "application/json");
        for (const auto& h : reply.headers)
            response.set(beast::string_view(h.first.constData(), std::size_t(h.first.size())),
                         beast::string_view(h.second.constData(), std::size_t(h.second.size())));
        response.body().assign(reply.body.constData(), std::size_t(reply.body.size()));
        response.keep_alive(request.keep_alive());
        response.prepare_payload();
        if (reply.chunked)
            response.chunked(true);
    }

    /// The headers, then reply.streamBytes bytes made piece by piece (chunked if asked), then
    /// the connection is closed.
    void writeStreamed()
    {
        streamHeader = {};
        streamHeader.version(request.version());
        streamHeader.result(unsigned(reply.status));
        streamHeader.set(http::field::server, "kelo-cloud");
        streamHeader.set(http::field::content_type, "application/octet-stream");
        for (const auto& h : reply.headers)
            streamHeader.set(
                beast::string_view(h.first.constData(), std::size_t(h.first.size())),
                beast::string_view(h.second.constData(), std::size_t(h.second.size())));
        streamHeader.keep_alive(false);
        if (reply.chunked)
            streamHeader.chunked(true);
        else
            streamHeader.content_length(std::uint64_t(reply.streamBytes));
        streamSerializer.emplace(streamHeader);
        streamLeft = reply.streamBytes;
        streamPiece.assign(64 * 1024, 'k');
        http::async_write_header(stream, *streamSerializer,
                                 [self = shared_from_this()](error_code ec, std::size_t) {
                                     if (ec)
                                         return self->abort();
                                     self->writeStreamPiece();
                                 });
    }

    void writeStreamPiece()
    {
        auto next = [self = shared_from_this()](error_code ec, std::size_t written) {
            if (ec)
                return self->abort();
            self->engine.streamedBytes += qint64(written);
            self->writeStreamPiece();
        };
        if (streamLeft <= 0) {
            if (reply.chunked && !streamEnded) {
                streamEnded = true;
                net::async_write(stream, http::make_chunk_last(), std::move(next));
                return;
            }
            shutdown();
            return;
        }
        const std::size_t n = std::size_t(std::min<qint64>(streamLeft, qint64(streamPiece.size())));
        streamLeft -= qint64(n);
        if (reply.chunked)
            net::async_write(stream, http::make_chunk(net::buffer(streamPiece.data(), n)),
                             std::move(next));
        else
            net::async_write(stream, net::buffer(streamPiece.data(), n), std::move(next));
    }

    void writeWhole()
    {
        buildResponse();
        http::async_write(stream, response,
                          [self = shared_from_this()](error_code ec, std::size_t) {
                              if (ec) {
                                  self->runAfterSent();
                                  return;
                              }
                              if (self->response.keep_alive())
                                  self->readRequest();
                              else
                                  self->shutdown();
                          });
    }

    /// The headers with the full Content-Length, then half the body, then a reset.
    void writeHalf()
    {
        buildResponse();
        serializer.emplace(response);
        http::async_write_header(
            stream, *serializer, [self = shared_from_this()](error_code ec, std::size_t) {
                if (ec)
                    return;
                const std::string& body = self->response.body();
                net::async_write(self->stream, net::buffer(body.data(), body.size() / 2),
                                 [self](error_code, std::size_t) { self->abort(); });
            });
    }

    /// Keeps the connection open without answering: reads (and drops) whatever comes until
    /// the client goes away or the server closes it.
    void hold()
    {
        stream.async_read_some(net::buffer(scratch),
                               [self = shared_from_this()](error_code ec, std::size_t) {
                                   if (!ec)
                                       self->hold();
                               });
    }

    void shutdown()
    {
        beast::get_lowest_layer(stream).expires_after(shutdownTimeout);
        stream.async_shutdown([self = shared_from_this()](error_code) {
            beast::get_lowest_layer(self->stream).close();
            self->runAfterSent();
        });
    }

    void runAfterSent()
    {
        if (!afterSent)
            return;
        const std::function<void()> action = std::move(afterSent);
        afterSent = nullptr;
        action();
    }

    Engine& engine;
    TlsStream stream;
    net::steady_timer timer;
    beast::flat_buffer buffer;
    std::optional<http::request_parser<http::string_body>> parser;
    Request request;
    CloudReply reply;
    Response response;
    std::optional<http::response_serializer<http::string_body>> serializer;
    http::response<http::empty_body> streamHeader;
    std::optional<http::response_serializer<http::empty_body>> streamSerializer;
    std::string streamPiece;
    qint64 streamLeft = 0;
    bool streamEnded = false;
    char scratch[512];
    bool upgraded = false;
    std::function<void()> afterSent; ///< of a control answer, once it is sent
};

template <class F> auto Engine::call(F f) -> decltype(f())
{
    using Result = decltype(f());
    if (std::this_thread::get_id() == ioThreadId.load())
        return f();
    std::lock_guard<std::mutex> lock(lifecycle);
    if (!io)
        return Result();
    std::packaged_task<Result()> task(std::move(f));
    std::future<Result> result = task.get_future();
    net::post(*io, [&task] { task(); });
    return result.get();
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
    if (!ca.open(dir, options.reuseCa, error) || !ca.issueServerCertificate(&server, error))
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
    const tcp::endpoint endpoint(net::ip::address_v4::loopback(), port.load());
    acceptor->open(endpoint.protocol(), ec);
    if (!ec)
        acceptor->set_option(net::socket_base::reuse_address(true), ec);
    if (!ec)
        acceptor->bind(endpoint, ec);
    if (!ec)
        acceptor->listen(net::socket_base::max_listen_connections, ec);
    if (ec) {
        *error = QStringLiteral("cannot listen on 127.0.0.1:%1: %2")
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
            auto session = std::make_shared<HttpSession>(*this, std::move(socket));
            track(session);
            session->start();
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
    return QStringLiteral("https://127.0.0.1:%1").arg(port);
}

CloudExchange Engine::record(const Request& request)
{
    CloudExchange exchange;
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

struct CloudServer::Impl : serverdetail::Engine
{
    using Engine::Engine;
};

CloudServer::CloudServer(const CloudOptions& options) : d(new Impl(options)) {}

CloudServer::~CloudServer()
{
    stop();
}

bool CloudServer::start(QString* error)
{
    QString ignored;
    return d->start(error ? error : &ignored);
}

void CloudServer::stop()
{
    d->stop();
}

quint16 CloudServer::port() const
{
    return d->port;
}

QString CloudServer::hostPort() const
{
    return QStringLiteral("127.0.0.1:%1").arg(d->port);
}

QString CloudServer::caCertificatePath() const
{
    return d->ca.certificatePath();
}

QByteArray CloudServer::caCertificatePem() const
{
    return d->ca.certificatePem();
}

CloudState& CloudServer::state()
{
    return d->state;
}

QList<CloudExchange> CloudServer::exchanges() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->exchanges;
}

QList<CloudExchange> CloudServer::exchanges(const QByteArray& pathPrefix, const QString& cm) const
{
    QList<CloudExchange> matching;
    for (const CloudExchange& exchange : exchanges())
        if (exchange.path.startsWith(pathPrefix) &&
            (cm.isEmpty() || exchange.param(QStringLiteral("cm")) == cm))
            matching.append(exchange);
    return matching;
}

void CloudServer::clearExchanges()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->exchanges.clear();
    d->upgrades.clear();
}

void CloudServer::scriptReply(const QByteArray& pathPrefix, const QString& cm,
                              const CloudReply& reply, int times)
{
    if (times <= 0)
        return;
    std::lock_guard<std::mutex> lock(d->mutex);
    d->scripts.push_back({pathPrefix, cm, reply, times});
}

void CloudServer::clearScripts()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->scripts.clear();
}

void CloudServer::setControlHandler(ControlHandler handler)
{
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->controlHandler = std::move(handler);
    }
    // Control requests run on the server's thread: once this call went through it, none of
    // the previous handler is still running.
    d->call([] { return 0; });
}

void CloudServer::putFile(const QByteArray& path, const QByteArray& content,
                          const QByteArray& contentType)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->files.insert(path, {content, contentType});
}

int CloudServer::webSocketCount() const
{
    return d->call([this] { return int(d->openSockets().size()); });
}

QStringList CloudServer::connectedDevices() const
{
    return d->call([this] {
        QStringList devices;
        for (const auto& socket : d->openSockets())
            if (!devices.contains(socket->device()))
                devices.append(socket->device());
        return devices;
    });
}

QList<CloudUpgrade> CloudServer::upgrades() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->upgrades;
}

bool CloudServer::pushText(const QString& devid, const QByteArray& text)
{
    return pushToDevice(devid, text) > 0;
}

int CloudServer::pushToDevice(const QString& devid, const QByteArray& text)
{
    return d->call([&] {
        int sent = 0;
        for (const auto& socket : d->openSockets())
            if (socket->device() == devid) {
                socket->send(text);
                ++sent;
            }
        return sent;
    });
}

int CloudServer::pushAll(const QByteArray& text)
{
    return d->call([&] {
        const auto open = d->openSockets();
        for (const auto& socket : open)
            socket->send(text);
        return int(open.size());
    });
}

int CloudServer::pingCount() const
{
    return d->pings;
}

void CloudServer::setAnswerPings(bool answer)
{
    d->answerPings = answer;
}

int CloudServer::dropWebSockets()
{
    return d->call([this] {
        const int open = int(d->openSockets().size());
        // Sockets still in their opening handshake go too.
        for (const auto& weak : d->sockets)
            if (auto socket = weak.lock())
                socket->abort();
        d->sockets.clear();
        return open;
    });
}

void CloudServer::setRefuseUpgrades(bool refuse)
{
    d->refuseUpgrades = refuse;
}

void CloudServer::goDown()
{
    d->call([this] {
        if (d->returnTimer)
            d->returnTimer->cancel();
        d->closeAll();
        return 0;
    });
}

bool CloudServer::comeBack()
{
    return d->call([this] { return d->comeBack(); });
}

void CloudServer::goDownFor(int ms)
{
    d->call([this, ms] {
        d->closeAll();
        d->planReturn(ms);
        return 0;
    });
}

bool CloudServer::isUp() const
{
    return d->up;
}

bool CloudServer::markInvoicePaid(const QString& invoiceCode, int* delivered)
{
    CloudState::Notice notice;
    if (!d->state.markInvoicePaid(invoiceCode, &notice))
        return false;
    d->forgetInvoice(invoiceCode);
    const int sent = pushToDevice(notice.devid, notice.text);
    if (delivered)
        *delivered = sent;
    return true;
}

int CloudServer::openInvoiceCount() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->openInvoices.size();
}

int CloudServer::pushWholeFrame(const QString& devid, const QByteArray& text)
{
    return d->call([&] {
        int sent = 0;
        for (const auto& socket : d->openSockets())
            if (socket->device() == devid) {
                socket->send(text, true);
                ++sent;
            }
        return sent;
    });
}

qint64 CloudServer::streamedBytes() const
{
    return d->streamedBytes;
}

} // namespace kelocloud
