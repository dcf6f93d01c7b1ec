// The simulator's server: one HTTPS connection, its requests and its upgrade to a notification
// socket.
#include "cloudengine_p.h"
#include "cloudwssession_p.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <chrono>

namespace kelocloud {

namespace serverdetail {

const std::size_t maxRequestBody = 64 * 1024 * 1024;
const std::uint32_t maxRequestHeader = 1024 * 1024; // long "dt" texts travel in GET queries
const auto handshakeTimeout = std::chrono::seconds(30);
// The server sends its close_notify and waits this long for the client's before it closes the
// TCP connection anyway (QWebSocket, after a refused upgrade, never answers it).
const auto shutdownTimeout = std::chrono::milliseconds(300);

/// One HTTPS connection: requests one after another (keep-alive), or one upgrade.
class HttpSession : public Connection, public std::enable_shared_from_this<HttpSession>
{
public:
    HttpSession(Engine& engine, tcp::socket&& socket)
        : engine(engine), stream(std::move(socket), *engine.tls), timer(stream.get_executor()),
          id(++engine.connectionsAccepted)
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
        const CloudExchange exchange = engine.record(request, id, ++served);
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
        if (scripted && scripted->fault == CloudReply::Fault::CloseReused) {
            // Handled as usual; only its answer is lost, as the connection closes as idle.
            engine.route(exchange);
            shutdown();
            return;
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
        case CloudReply::Fault::CloseReused: // handled in respond()
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
    const quint64 id;                ///< the connection's number (CloudExchange::connection)
    int served = 0;                  ///< requests read on this connection so far
    std::function<void()> afterSent; ///< of a control answer, once it is sent
};

void openHttpSession(Engine& engine, tcp::socket&& socket)
{
    auto session = std::make_shared<HttpSession>(engine, std::move(socket));
    engine.track(session);
    session->start();
}

} // namespace serverdetail

} // namespace kelocloud
