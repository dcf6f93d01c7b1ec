// kelo-wire's link model: the two directions of an emulated link (delay, rate, random loss,
// drop-tail queue, blackhole), the built-in profiles and the control commands. No I/O and no
// clock of its own: the caller hands in packets and the time, kelowire.cpp moves the bytes.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace kelowire {

/// Time in nanoseconds on the caller's monotonic clock.
using Nanos = std::int64_t;

/// What one direction of the link does to the packets that cross it.
struct DirectionSettings
{
    double delayMs = 0;            ///< one-way delay, added after serialisation
    double rateKbit = 0;           ///< serialisation rate in kbit/s; 0: no limit
    double lossPercent = 0;        ///< random loss, 0 to 100
    std::int64_t queueBytes = 0;   ///< drop-tail limit of the waiting packets in bytes; 0: none
    std::int64_t queuePackets = 0; ///< drop-tail limit in packets; 0: none
};

/// The whole link: "up" carries terminal -> cloud, "down" cloud -> terminal.
struct LinkSettings
{
    DirectionSettings up;
    DirectionSettings down;
};

/// Counters of one direction since the start.
struct DirectionStats
{
    std::uint64_t packets = 0;          ///< carried (delivered to the other side)
    std::uint64_t bytes = 0;            ///< carried
    std::uint64_t lossPackets = 0;      ///< dropped by random loss
    std::uint64_t queuePackets = 0;     ///< dropped because the queue was full
    std::uint64_t blackholePackets = 0; ///< dropped by the blackhole
    std::uint64_t droppedBytes = 0;     ///< all drops together
};

/**
 * One direction. A packet offered at time t leaves at max(t, previous departure) +
 * size * 8 / rate and is delivered the one-way delay later; it is refused when the packets still
 * waiting to leave would pass the queue limit. Deliveries keep the order of arrival even when the
 * delay is lowered while packets are under way (takeDue() stops at the first packet not due).
 */
class Direction
{
public:
    explicit Direction(std::uint64_t seed);

    void configure(const DirectionSettings& settings);
    const DirectionSettings& settings() const { return current; }
    const DirectionStats& stats() const { return counters; }

    /// Takes @p packet arriving at @p now; false when it is dropped at once (blackhole, full
    /// queue). A packet chosen by random loss is accepted: it still uses its share of the rate
    /// and the queue, and is dropped when it would arrive.
    bool offer(std::vector<std::uint8_t> packet, Nanos now, bool blackhole);

    /// Removes the packets whose delivery time is <= @p now, oldest first, into @p out (packets
    /// lost on the way or caught by the blackhole are counted, not returned).
    void takeDue(Nanos now, bool blackhole, std::vector<std::vector<std::uint8_t>>* out);

    /// The next delivery time, or -1 when nothing is under way.
    Nanos nextDelivery() const;

    /// Packets and bytes that have not left yet at @p now (the queue).
    std::int64_t queuedPackets(Nanos now) const;
    std::int64_t queuedBytes(Nanos now) const;

private:
    struct InFlight
    {
        std::vector<std::uint8_t> data;
        Nanos departure;
        Nanos delivery;
        bool lost;
    };

    double nextRandom(); ///< uniform in [0, 1), from the seeded generator

    DirectionSettings current;
    DirectionStats counters;
    std::deque<InFlight> flight;
    Nanos lastDeparture = 0;
    std::uint64_t rng;
};

/// The settings of a built-in profile ("wifi", "4g", "lossy-wifi", "lan"); false if unknown.
bool profileSettings(const std::string& name, LinkSettings* out);
/// The names of the built-in profiles, space separated.
std::string profileNames();

/**
 * Applies one assignment "key=value" to @p settings. Keys: delay (ms), rate (kbit/s), loss
 * (percent), queue (bytes, or packets with a "p" suffix, 0: no limit), each for both directions
 * or prefixed "up." or "down." for one. False with @p error on a bad key or value (settings
 * unchanged).
 */
bool applyAssignment(const std::string& assignment, LinkSettings* settings, std::string* error);

/// The link: both directions, the blackhole switch and the control commands.
class Wire
{
public:
    explicit Wire(std::uint64_t seed = 1);

    void configure(const LinkSettings& settings);
    LinkSettings settings() const;
    void setBlackhole(bool on) { blackhole = on; }
    bool blackholed() const { return blackhole; }

    Direction& up() { return upLink; }
    Direction& down() { return downLink; }

    /// The earliest delivery time of either direction, or -1.
    Nanos nextDelivery() const;

    /**
     * Runs one control command line and returns the answer, which starts with "ok" or
     * "error: ". Commands: "blackhole on|off", "profile NAME", "set KEY=VALUE ...", "show",
     * "stats". @p now is used for the queue figures of "stats".
     */
    std::string command(const std::string& line, Nanos now);

private:
    Direction upLink;
    Direction downLink;
    bool blackhole = false;
    std::string profile = "none";
};

} // namespace kelowire
