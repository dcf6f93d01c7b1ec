#pragma once

// Private to the simulator's server: the notification socket of one device. Its WebSocket stream
// and every Beast template it needs are compiled once, in cloudwssession.cpp: the server's other
// sources see this class only.

#include "cloudengine_p.h"

#include <memory>

namespace kelocloud {
namespace serverdetail {

/// The notification socket of one device, after a successful upgrade.
class WsSession : public Connection, public std::enable_shared_from_this<WsSession>
{
public:
    WsSession(Engine& engine, TlsStream&& stream, const QString& devid);
    ~WsSession() override;

    /// Answers @p upgradeRequest and starts reading (and dropping) what the client sends.
    void accept(Request&& upgradeRequest);
    /// @p wholeFrame: one frame whatever its length (otherwise frames of 4 KiB at most).
    void send(const QByteArray& text, bool wholeFrame = false);
    void abort() override;

    bool isOpen() const { return open; }
    QString device() const { return devid; }

private:
    void read();
    void writeNext();

    struct Stream;
    std::unique_ptr<Stream> d;
    QString devid;
    bool open = false;
    std::atomic<int>& pings;
};

} // namespace serverdetail

} // namespace kelocloud
