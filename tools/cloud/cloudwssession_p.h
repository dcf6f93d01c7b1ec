#pragma once

// Private to the simulator's server: the notification socket of one device.

#include "cloudengine_p.h"

#include <deque>
#include <string>
#include <utility>

namespace kelocloud {

namespace serverdetail {

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
} // namespace serverdetail

} // namespace kelocloud
