#pragma once

// Private to the simulator's server (CloudServer): the engine that owns the io thread, the
// listening socket, the connections and everything the public API shares with them. The
// engine's functions are in cloudengine.cpp; an HTTPS connection is an HttpSession
// (cloudhttpsession.cpp), a notification socket a WsSession (cloudwssession_p.h).

#include "cloudserver.h"
#include "devca.h"

#include <QHash>
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
#include <boost/beast/websocket/rfc6455.hpp> // is_upgrade; the stream: cloudwssession.cpp

#include <atomic>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace kelocloud {

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

/// Ends a TCP connection with a reset: no TLS close_notify, no FIN, unsent data dropped.
inline void resetConnection(beast::tcp_stream& stream)
{
    error_code ignored;
    stream.socket().set_option(net::socket_base::linger(true, 0), ignored);
    stream.close();
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
    /// Records @p request, the @p onConnection-th on connection @p connection.
    CloudExchange record(const Request& request, quint64 connection, int onConnection);
    void recordUpgrade(const QUrlQuery& query, bool accepted);
    /// The script for @p exchange, if one matches (a CloseReused script only a request that is
    /// not its connection's first).
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
    /// The address served on: the options' listenAddress, or "127.0.0.1".
    QString listenAddress() const;

    CloudOptions options;
    CloudState state;
    QString keyError; ///< why the key of the options or the environment was refused
    std::unique_ptr<QTemporaryDir> tempDir;
    DevCa ca;
    net::ip::address_v4 bindAddress = net::ip::address_v4::loopback();

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
    std::atomic<int> stallConnections{0}; ///< accepted next, then held without a byte
    std::atomic<bool> up{false};
    std::atomic<quint16> port{0};
    std::atomic<std::thread::id> ioThreadId{};
    std::atomic<qint64> streamedBytes{0};        ///< of streamed bodies, written to a client
    std::atomic<quint64> connectionsAccepted{0}; ///< numbers the HTTPS connections

    std::mutex lifecycle; ///< start(), stop() and call() against each other
    std::unique_ptr<ssl::context> tls;
    std::unique_ptr<net::io_context> io;
    std::optional<net::executor_work_guard<net::io_context::executor_type>> work;
    std::thread thread;

    // io thread only
    std::optional<tcp::acceptor> acceptor;
    std::vector<std::weak_ptr<Connection>> connections;
    std::vector<std::weak_ptr<WsSession>> sockets;
    std::vector<tcp::socket> stalled;             ///< stallConnections(): open, never read
    std::optional<net::steady_timer> returnTimer; ///< the end of an outage of goDownFor()
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

inline bool isControlPath(const QByteArray& path)
{
    return path.startsWith(controlPathPrefix);
}

/// Serves one accepted connection: an HttpSession, tracked by @p engine, handshaking at once.
void openHttpSession(Engine& engine, tcp::socket&& socket);

} // namespace serverdetail

} // namespace kelocloud
