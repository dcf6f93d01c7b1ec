// kelo-wire: a user-space link emulator for the network lab (tools/netlab/lab.sh). It opens two
// TUN devices, one for the terminal's side and one for the cloud's, and carries every IP packet
// between them through the link model of wirelink.h (delay, rate, loss, queue, blackhole). A
// path-based AF_UNIX control socket changes the link while it runs ("kelo-wire ctl"). Plain
// POSIX and Linux headers only, so that it builds wherever the library does.
#include "wirelink.h"

#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using kelowire::Nanos;

// Control clients: at most this many at once, each dropped when it has not sent its whole
// command line within the deadline (a stuck client must not hold a slot for ever).
constexpr std::size_t maxClients = 16;
constexpr Nanos clientDeadline = 2000000000;
constexpr std::size_t maxCommand = 4096;
// Packets read from one TUN device in one round before the other side gets its turn.
constexpr int readBurst = 64;
// How long "kelo-wire ctl" waits for the answer.
constexpr int ctlTimeoutSeconds = 5;

const char usage[] =
    "usage:\n"
    "  kelo-wire --term-tun NAME --cloud-tun NAME --control SOCKET [--profile NAME]\n"
    "            [--seed N] [KEY=VALUE...]\n"
    "      carries IP packets between the two TUN devices (made here) until SIGTERM or until\n"
    "      the parent process ends. \"up\" is terminal -> cloud, \"down\" cloud -> terminal.\n"
    "  kelo-wire ctl SOCKET COMMAND...\n"
    "      commands: blackhole on|off, profile NAME, set KEY=VALUE..., show, stats\n"
    "keys: delay (ms), rate (kbit/s, 0: no limit), loss (percent), queue (bytes, or packets\n"
    "with a p suffix; 0: no limit), each for both directions or prefixed up. or down.\n"
    "profiles: wifi 4g lossy-wifi lan\n";

Nanos now()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return Nanos(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int openTun(const std::string& name)
{
    const int fd = ::open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        std::fprintf(stderr, "kelo-wire: /dev/net/tun: %s\n", std::strerror(errno));
        return -1;
    }
    ifreq ifr{};
    ifr.ifr_flags = IFF_TUN | IFF_NO_PI;
    std::snprintf(ifr.ifr_name, IFNAMSIZ, "%s", name.c_str());
    if (::ioctl(fd, TUNSETIFF, &ifr) != 0) {
        std::fprintf(stderr, "kelo-wire: TUN device %s: %s\n", name.c_str(), std::strerror(errno));
        ::close(fd);
        return -1;
    }
    return fd;
}

bool socketAddress(const std::string& path, sockaddr_un* out)
{
    *out = {};
    out->sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof out->sun_path) {
        std::fprintf(stderr, "kelo-wire: bad socket path \"%s\"\n", path.c_str());
        return false;
    }
    std::memcpy(out->sun_path, path.c_str(), path.size());
    return true;
}

int listenControl(const std::string& path)
{
    sockaddr_un address;
    if (!socketAddress(path, &address))
        return -1;
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    // A socket file left by a wire that died is taken over; a live one is not.
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe >= 0 &&
        ::connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        std::fprintf(stderr, "kelo-wire: %s is in use by another wire\n", path.c_str());
        ::close(probe);
        ::close(fd);
        return -1;
    }
    if (probe >= 0)
        ::close(probe);
    ::unlink(path.c_str());
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd, 8) != 0) {
        std::fprintf(stderr, "kelo-wire: control socket %s: %s\n", path.c_str(),
                     std::strerror(errno));
        ::close(fd);
        return -1;
    }
    return fd;
}

/// kelo-wire ctl SOCKET COMMAND...: prints the answer; status 0 for "ok", 1 otherwise.
int control(int argc, char** argv)
{
    if (argc < 4) {
        std::fputs(usage, stderr);
        return 2;
    }
    sockaddr_un address;
    if (!socketAddress(argv[2], &address))
        return 2;
    std::string line;
    for (int i = 3; i < argc; ++i)
        line += std::string(i > 3 ? " " : "") + argv[i];
    line += '\n';
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval timeout{ctlTimeoutSeconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        std::fprintf(stderr, "kelo-wire ctl: %s: %s\n", argv[2], std::strerror(errno));
        return 1;
    }
    if (::send(fd, line.data(), line.size(), MSG_NOSIGNAL) != ssize_t(line.size())) {
        std::fprintf(stderr, "kelo-wire ctl: cannot send: %s\n", std::strerror(errno));
        return 1;
    }
    ::shutdown(fd, SHUT_WR);
    std::string answer;
    char buffer[4096];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
        answer.append(buffer, std::size_t(n));
    ::close(fd);
    const bool ok = answer.compare(0, 2, "ok") == 0;
    std::fputs(answer.c_str(), ok ? stdout : stderr);
    if (answer.empty())
        std::fputs("kelo-wire ctl: no answer\n", stderr);
    return ok ? 0 : 1;
}

struct Client
{
    int fd;
    Nanos deadline;
    std::string input;
};

struct Options
{
    std::string termTun, cloudTun, controlPath;
    std::string profile = "lan";
    std::uint64_t seed = 1;
    std::vector<std::string> assignments;
};

bool parseOptions(int argc, char** argv, Options* o)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--term-tun" && hasValue)
            o->termTun = argv[++i];
        else if (arg == "--cloud-tun" && hasValue)
            o->cloudTun = argv[++i];
        else if (arg == "--control" && hasValue)
            o->controlPath = argv[++i];
        else if (arg == "--profile" && hasValue)
            o->profile = argv[++i];
        else if (arg == "--seed" && hasValue)
            o->seed = std::strtoull(argv[++i], nullptr, 10);
        else if (arg.find('=') != std::string::npos && arg[0] != '-')
            o->assignments.push_back(arg);
        else
            return false;
    }
    return !o->termTun.empty() && !o->cloudTun.empty() && !o->controlPath.empty();
}

/// Reads what the TUN device @p fd holds (a burst at most) into @p direction.
void readPackets(int fd, kelowire::Direction& direction, bool blackhole)
{
    std::vector<std::uint8_t> buffer(65536);
    for (int i = 0; i < readBurst; ++i) {
        const ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n <= 0)
            return;
        direction.offer(std::vector<std::uint8_t>(buffer.begin(), buffer.begin() + n), now(),
                        blackhole);
    }
}

/// Writes the packets due on @p direction to the TUN device @p fd.
void deliver(kelowire::Direction& direction, bool blackhole, int fd)
{
    std::vector<std::vector<std::uint8_t>> due;
    direction.takeDue(now(), blackhole, &due);
    for (const auto& packet : due) {
        // A device that is down (or a full device queue) loses the packet, as a link would.
        [[maybe_unused]] const ssize_t written = ::write(fd, packet.data(), packet.size());
    }
}

int run(int argc, char** argv)
{
    // Ends with the process that started it (lab.sh), also when that one is killed.
    const pid_t parent = ::getppid();
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent)
        return 0;
    // Wake-ups on time to the microsecond: the default slack of 50 us would add up to 0.1 ms
    // per round trip, a tenth of the "lan" profile's.
    ::prctl(PR_SET_TIMERSLACK, 1UL);

    Options options;
    if (!parseOptions(argc, argv, &options)) {
        std::fputs(usage, stderr);
        return 2;
    }
    kelowire::LinkSettings settings;
    if (!kelowire::profileSettings(options.profile, &settings)) {
        std::fprintf(stderr, "kelo-wire: unknown profile \"%s\" (%s)\n", options.profile.c_str(),
                     kelowire::profileNames().c_str());
        return 2;
    }
    for (const std::string& assignment : options.assignments) {
        std::string error;
        if (!kelowire::applyAssignment(assignment, &settings, &error)) {
            std::fprintf(stderr, "kelo-wire: %s\n", error.c_str());
            return 2;
        }
    }
    kelowire::Wire wire(options.seed);
    wire.command("profile " + options.profile, 0);
    if (!options.assignments.empty()) {
        std::string line = "set";
        for (const std::string& assignment : options.assignments)
            line += " " + assignment;
        wire.command(line, 0);
    }

    sigset_t quit;
    sigemptyset(&quit);
    sigaddset(&quit, SIGTERM);
    sigaddset(&quit, SIGINT);
    sigaddset(&quit, SIGHUP);
    sigprocmask(SIG_BLOCK, &quit, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    const int signals = ::signalfd(-1, &quit, SFD_NONBLOCK | SFD_CLOEXEC);
    const int term = openTun(options.termTun);
    const int cloud = term >= 0 ? openTun(options.cloudTun) : -1;
    const int listener = cloud >= 0 ? listenControl(options.controlPath) : -1;
    if (signals < 0 || listener < 0)
        return 1;
    std::printf("kelo-wire ready: %s <-> %s, control %s\n", options.termTun.c_str(),
                options.cloudTun.c_str(), options.controlPath.c_str());
    std::fflush(stdout);

    std::vector<Client> clients;
    bool running = true;
    while (running) {
        std::vector<pollfd> fds{
            {signals, POLLIN, 0},
            {term, POLLIN, 0},
            {cloud, POLLIN, 0},
            {listener, clients.size() < maxClients ? short(POLLIN) : short(0), 0}};
        for (const Client& c : clients)
            fds.push_back({c.fd, POLLIN, 0});

        Nanos wake = wire.nextDelivery();
        for (const Client& c : clients)
            wake = wake < 0 ? c.deadline : std::min(wake, c.deadline);
        timespec timeout{};
        timespec* timeoutPtr = nullptr;
        if (wake >= 0) {
            const Nanos wait = std::max<Nanos>(0, wake - now());
            timeout = {time_t(wait / 1000000000), long(wait % 1000000000)};
            timeoutPtr = &timeout;
        }
        if (::ppoll(fds.data(), fds.size(), timeoutPtr, nullptr) < 0 && errno != EINTR)
            break;

        if (fds[0].revents & POLLIN)
            running = false;
        if (fds[1].revents & POLLIN)
            readPackets(term, wire.up(), wire.blackholed());
        if (fds[2].revents & POLLIN)
            readPackets(cloud, wire.down(), wire.blackholed());
        deliver(wire.up(), wire.blackholed(), cloud);
        deliver(wire.down(), wire.blackholed(), term);

        if (fds[3].revents & POLLIN) {
            const int fd = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd >= 0)
                clients.push_back({fd, now() + clientDeadline, {}});
        }
        for (std::size_t i = 0; i < clients.size();) {
            Client& c = clients[i];
            const pollfd* p = i + 4 < fds.size() && fds[i + 4].fd == c.fd ? &fds[i + 4] : nullptr;
            bool done = now() >= c.deadline;
            if (p && (p->revents & (POLLIN | POLLHUP | POLLERR))) {
                char buffer[1024];
                const ssize_t n = ::read(c.fd, buffer, sizeof buffer);
                if (n > 0)
                    c.input.append(buffer, std::size_t(n));
                const std::size_t end = c.input.find('\n');
                if (n == 0 || end != std::string::npos || c.input.size() > maxCommand) {
                    const std::string answer = c.input.size() > maxCommand
                                                   ? std::string("error: command too long\n")
                                                   : wire.command(c.input.substr(0, end), now());
                    [[maybe_unused]] const ssize_t written =
                        ::send(c.fd, answer.data(), answer.size(), MSG_NOSIGNAL);
                    done = true;
                } else if (n < 0 && errno != EAGAIN) {
                    done = true;
                }
            }
            if (done) {
                ::close(c.fd);
                clients.erase(clients.begin() + std::ptrdiff_t(i));
            } else {
                ++i;
            }
        }
    }
    for (const Client& c : clients)
        ::close(c.fd);
    ::close(listener);
    ::unlink(options.controlPath.c_str());
    ::close(term);
    ::close(cloud);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc >= 2 && std::string(argv[1]) == "ctl")
        return control(argc, argv);
    if (argc >= 2 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h")) {
        std::fputs(usage, stdout);
        return 0;
    }
    return run(argc, argv);
}
