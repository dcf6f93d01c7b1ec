// The simulator's notification socket of one device (cloudwssession_p.h): the only source that
// compiles Beast's WebSocket stream.

#include "cloudwssession_p.h"

#include <boost/beast/websocket.hpp>

#include <deque>
#include <string>
#include <utility>

namespace kelocloud {
namespace serverdetail {
namespace {

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

} // namespace

struct WsSession::Stream
{
    Stream(TlsStream&& stream, const std::atomic<bool>* answerPings)
        : ws(std::move(stream), answerPings)
    {
    }

    websocket::stream<PongGate<TlsStream>> ws;
    Request request;
    beast::flat_buffer buffer;
    std::deque<std::pair<std::string, bool>> queue; // text, whole frame
};

WsSession::WsSession(Engine& engine, TlsStream&& stream, const QString& devid)
    : d(std::make_unique<Stream>(std::move(stream), &engine.answerPings)), devid(devid),
      pings(engine.pings)
{
}

WsSession::~WsSession() = default;

void WsSession::accept(Request&& upgradeRequest)
{
    d->request = std::move(upgradeRequest);
    d->ws.set_option(websocket::stream_base::decorator(
        [](websocket::response_type& r) { r.set(http::field::server, "kelo-cloud"); }));
    d->ws.control_callback([this](websocket::frame_type kind, beast::string_view) {
        if (kind == websocket::frame_type::ping)
            ++pings;
    });
    d->ws.async_accept(d->request, [self = shared_from_this()](error_code ec) {
        if (ec)
            return;
        self->open = true;
        self->read();
    });
}

void WsSession::send(const QByteArray& text, bool wholeFrame)
{
    if (!open)
        return;
    d->queue.push_back({std::string(text.constData(), std::size_t(text.size())), wholeFrame});
    if (d->queue.size() == 1)
        writeNext();
}

void WsSession::abort()
{
    open = false;
    resetConnection(beast::get_lowest_layer(d->ws));
}

// The frames a client sends are read (so that pings and the close handshake are handled) and
// dropped: the notification channel only goes from server to device.
void WsSession::read()
{
    d->ws.async_read(d->buffer, [self = shared_from_this()](error_code ec, std::size_t) {
        if (ec) {
            self->open = false;
            return;
        }
        self->d->buffer.consume(self->d->buffer.size());
        self->read();
    });
}

void WsSession::writeNext()
{
    d->ws.text(true);
    d->ws.auto_fragment(!d->queue.front().second);
    d->ws.async_write(net::buffer(d->queue.front().first),
                      [self = shared_from_this()](error_code ec, std::size_t) {
                          if (ec) {
                              self->d->queue.clear();
                              return;
                          }
                          self->d->queue.pop_front();
                          if (!self->d->queue.empty())
                              self->writeNext();
                      });
}

} // namespace serverdetail

} // namespace kelocloud
