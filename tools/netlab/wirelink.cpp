// kelo-wire's link model: directions, profiles, assignments and control commands.
#include "wirelink.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace kelowire {

namespace {

constexpr Nanos nanosPerMs = 1000000;

/// splitmix64: a tiny generator with a good spread, so a seed gives the same losses every run.
std::uint64_t splitmix(std::uint64_t* state)
{
    std::uint64_t z = (*state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

std::string number(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

/// A whole non-negative decimal value, or a finite non-negative one when @p fraction is set.
bool parseNumber(const std::string& text, bool fraction, double* out)
{
    if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ')
        return false;
    errno = 0;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (errno != 0 || end != text.c_str() + text.size() || !std::isfinite(value) || value < 0)
        return false;
    if (!fraction && value != std::floor(value))
        return false;
    *out = value;
    return true;
}

std::string describe(const DirectionSettings& s)
{
    std::string queue =
        s.queuePackets > 0 ? std::to_string(s.queuePackets) + "p" : std::to_string(s.queueBytes);
    return "delay=" + number(s.delayMs) + " rate=" + number(s.rateKbit) +
           " loss=" + number(s.lossPercent) + " queue=" + queue;
}

std::string describe(const char* name, const Direction& d, Nanos now)
{
    const DirectionStats& s = d.stats();
    return std::string(name) + " packets=" + std::to_string(s.packets) +
           " bytes=" + std::to_string(s.bytes) + " lost=" + std::to_string(s.lossPackets) +
           " queue_drops=" + std::to_string(s.queuePackets) +
           " blackhole_drops=" + std::to_string(s.blackholePackets) +
           " dropped_bytes=" + std::to_string(s.droppedBytes) +
           " queued_packets=" + std::to_string(d.queuedPackets(now)) +
           " queued_bytes=" + std::to_string(d.queuedBytes(now));
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Direction

Direction::Direction(std::uint64_t seed) : rng(seed)
{
    splitmix(&rng);
}

void Direction::configure(const DirectionSettings& settings)
{
    current = settings;
}

double Direction::nextRandom()
{
    return double(splitmix(&rng) >> 11) * (1.0 / 9007199254740992.0);
}

bool Direction::offer(std::vector<std::uint8_t> packet, Nanos now, bool blackhole)
{
    const std::int64_t size = std::int64_t(packet.size());
    if (blackhole) {
        ++counters.blackholePackets;
        counters.droppedBytes += std::uint64_t(size);
        return false;
    }
    // Drop-tail: the packets that have not left yet, plus this one, must fit.
    const bool fullPackets =
        current.queuePackets > 0 && queuedPackets(now) + 1 > current.queuePackets;
    const bool fullBytes = current.queueBytes > 0 && queuedBytes(now) + size > current.queueBytes;
    if (fullPackets || fullBytes) {
        ++counters.queuePackets;
        counters.droppedBytes += std::uint64_t(size);
        return false;
    }
    const Nanos start = std::max(now, lastDeparture);
    const Nanos serialisation =
        current.rateKbit > 0 ? Nanos(std::llround(double(size) * 8e6 / current.rateKbit)) : 0;
    const Nanos departure = start + serialisation;
    // One queue, taken from the front only: a packet never overtakes an earlier one, even when
    // the delay was lowered in between (it then waits for the one ahead of it).
    const Nanos delivery = departure + Nanos(std::llround(current.delayMs * nanosPerMs));
    const bool lost = current.lossPercent > 0 && nextRandom() * 100.0 < current.lossPercent;
    lastDeparture = departure;
    flight.push_back({std::move(packet), departure, delivery, lost});
    return true;
}

void Direction::takeDue(Nanos now, bool blackhole, std::vector<std::vector<std::uint8_t>>* out)
{
    while (!flight.empty() && flight.front().delivery <= now) {
        InFlight& p = flight.front();
        const std::uint64_t size = p.data.size();
        if (blackhole) {
            ++counters.blackholePackets;
            counters.droppedBytes += size;
        } else if (p.lost) {
            ++counters.lossPackets;
            counters.droppedBytes += size;
        } else {
            ++counters.packets;
            counters.bytes += size;
            out->push_back(std::move(p.data));
        }
        flight.pop_front();
    }
}

Nanos Direction::nextDelivery() const
{
    return flight.empty() ? -1 : flight.front().delivery;
}

std::int64_t Direction::queuedPackets(Nanos now) const
{
    std::int64_t n = 0;
    for (auto it = flight.rbegin(); it != flight.rend() && it->departure > now; ++it)
        ++n;
    return n;
}

std::int64_t Direction::queuedBytes(Nanos now) const
{
    std::int64_t n = 0;
    for (auto it = flight.rbegin(); it != flight.rend() && it->departure > now; ++it)
        n += std::int64_t(it->data.size());
    return n;
}

// ---------------------------------------------------------------------------------------------
// Profiles. Queues hold about 1.5 bandwidth-delay products of their direction (rate x round
// trip x 1.5), at least 24,000 bytes (16 full-size packets): enough for one TCP flow to fill the
// link, small enough that a full queue adds at most 1.5 round trips of delay, as a home router or
// a mobile base station does.

bool profileSettings(const std::string& name, LinkSettings* out)
{
    LinkSettings s;
    if (name == "wifi" || name == "lossy-wifi") {
        // 80 ms round trip, 20 Mbit/s: BDP 200,000 bytes.
        s.up = {40, 20000, 0, 300000, 0};
        s.down = s.up;
        if (name == "lossy-wifi") {
            s.up.lossPercent = 2;
            s.down.lossPercent = 2;
        }
    } else if (name == "4g") {
        // 150 ms round trip; down 1.6 Mbit/s (BDP 30,000 bytes), up 0.75 Mbit/s (14,063).
        s.down = {75, 1600, 0, 45000, 0};
        s.up = {75, 750, 0, 24000, 0};
    } else if (name == "lan") {
        // 1 ms round trip, 1 Gbit/s: BDP 125,000 bytes.
        s.up = {0.5, 1000000, 0, 187500, 0};
        s.down = s.up;
    } else {
        return false;
    }
    *out = s;
    return true;
}

std::string profileNames()
{
    return "wifi 4g lossy-wifi lan";
}

bool applyAssignment(const std::string& assignment, LinkSettings* settings, std::string* error)
{
    const std::size_t eq = assignment.find('=');
    if (eq == std::string::npos || eq == 0) {
        *error = "expected KEY=VALUE, got \"" + assignment + "\"";
        return false;
    }
    std::string key = assignment.substr(0, eq);
    std::string value = assignment.substr(eq + 1);
    bool up = true, down = true;
    if (key.compare(0, 3, "up.") == 0) {
        down = false;
        key = key.substr(3);
    } else if (key.compare(0, 5, "down.") == 0) {
        up = false;
        key = key.substr(5);
    }
    bool queueInPackets = false;
    double v = 0;
    bool ok = false;
    if (key == "delay" || key == "rate") {
        ok = parseNumber(value, true, &v);
    } else if (key == "loss") {
        ok = parseNumber(value, true, &v) && v <= 100;
    } else if (key == "queue") {
        queueInPackets = !value.empty() && value.back() == 'p';
        if (queueInPackets)
            value.pop_back();
        ok = parseNumber(value, false, &v) && v <= 1e12;
    } else {
        *error = "unknown key \"" + assignment.substr(0, eq) +
                 "\" (delay, rate, loss, queue, each optionally up. or down.)";
        return false;
    }
    if (!ok) {
        *error =
            "bad value for " + assignment.substr(0, eq) + ": \"" + assignment.substr(eq + 1) + "\"";
        return false;
    }
    for (DirectionSettings* d : {up ? &settings->up : nullptr, down ? &settings->down : nullptr}) {
        if (!d)
            continue;
        if (key == "delay")
            d->delayMs = v;
        else if (key == "rate")
            d->rateKbit = v;
        else if (key == "loss")
            d->lossPercent = v;
        else {
            d->queueBytes = queueInPackets ? 0 : std::int64_t(v);
            d->queuePackets = queueInPackets ? std::int64_t(v) : 0;
        }
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Wire

Wire::Wire(std::uint64_t seed) : upLink(seed * 2 + 1), downLink(seed * 2 + 2) {}

void Wire::configure(const LinkSettings& settings)
{
    upLink.configure(settings.up);
    downLink.configure(settings.down);
}

LinkSettings Wire::settings() const
{
    return {upLink.settings(), downLink.settings()};
}

Nanos Wire::nextDelivery() const
{
    const Nanos a = upLink.nextDelivery(), b = downLink.nextDelivery();
    if (a < 0)
        return b;
    if (b < 0)
        return a;
    return std::min(a, b);
}

std::string Wire::command(const std::string& line, Nanos now)
{
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;)
        words.push_back(w);
    if (words.empty())
        return "error: empty command\n";
    const std::string& verb = words[0];
    if (verb == "blackhole" && words.size() == 2 && (words[1] == "on" || words[1] == "off")) {
        blackhole = words[1] == "on";
        return "ok blackhole " + words[1] + "\n";
    }
    if (verb == "profile" && words.size() == 2) {
        LinkSettings s;
        if (!profileSettings(words[1], &s))
            return "error: unknown profile \"" + words[1] + "\" (" + profileNames() + ")\n";
        configure(s);
        profile = words[1];
        return "ok profile " + profile + "\n";
    }
    if (verb == "set" && words.size() >= 2) {
        LinkSettings s = settings();
        std::string error;
        for (std::size_t i = 1; i < words.size(); ++i)
            if (!applyAssignment(words[i], &s, &error))
                return "error: " + error + "\n";
        configure(s);
        profile = "custom";
        return "ok\n";
    }
    if (verb == "show" && words.size() == 1) {
        return "ok\nprofile " + profile + "\nup " + describe(upLink.settings()) + "\ndown " +
               describe(downLink.settings()) + "\nblackhole " + (blackhole ? "on" : "off") + "\n";
    }
    if (verb == "stats" && words.size() == 1) {
        return "ok\n" + describe("up", upLink, now) + "\n" + describe("down", downLink, now) +
               "\nblackhole " + (blackhole ? "on" : "off") + "\n";
    }
    return "error: unknown command \"" + line +
           "\" (blackhole on|off, profile NAME, set KEY=VALUE..., show, stats)\n";
}

} // namespace kelowire
