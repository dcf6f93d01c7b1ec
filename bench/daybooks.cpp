#include "daybooks.h"

#include "benchsupport.h"

#include <algorithm>
#include <random>
#include <vector>

namespace kelobench {

const char* linkEventName(LinkEventType type)
{
    static const char* names[] = {"blackhole", "loss", "4g", "cloud restart"};
    return names[static_cast<int>(type)];
}

QList<LinkEvent> planLinkEvents(double warmUp, double dayEnd, quint32 seed)
{
    // A generator of its own: the same seed gives the same link whatever the operator does.
    std::mt19937 plan(seed * 2654435761u + 1);
    auto u = [&plan](double a, double b) { return std::uniform_real_distribution<>(a, b)(plan); };
    QList<LinkEvent> events;
    double t = warmUp;
    while (true) {
        t += u(1, 3);
        if (t > dayEnd - 4)
            break;
        LinkEvent e{LinkEventType::Blackhole, t, t, 0, -1};
        const double r = u(0, 1);
        if (r < 0.35) {
            e.end = t + (u(0, 1) < 0.8 ? u(2, 15) : u(15, 60));
        } else if (r < 0.6) {
            e.type = LinkEventType::Loss;
            e.param = std::min(5, 2 + static_cast<int>(u(0, 4))); // 2 to 5 %
            e.end = t + u(5, 15);
        } else if (r < 0.85) {
            e.type = LinkEventType::Profile;
            e.end = t + u(10, 25);
        } else {
            e.type = LinkEventType::Restart;
            e.param = std::min(5, static_cast<int>(u(0, 6)));
            e.end = t + e.param + 1;
        }
        e.end = std::min(e.end, dayEnd);
        if (e.type == LinkEventType::Blackhole && e.end - e.start < 2)
            break;
        events.append(e);
        t = e.end;
    }
    return events;
}

bool outageAround(const QList<LinkEvent>& events, double t)
{
    for (const LinkEvent& e : events) {
        if (e.type != LinkEventType::Blackhole && e.type != LinkEventType::Restart)
            continue;
        const double end = e.actualEnd >= 0 ? e.actualEnd : e.end;
        if (e.start <= t + kNoticeWaitS && end >= t - kNoticeQuietBeforeS)
            return true;
    }
    return false;
}

Growth growthSince(const QList<ProcessSample>& samples, double baseFrom, double baseTo,
                   int lastCount)
{
    std::vector<double> baseRss, lastRss;
    int baseFds = 1 << 30, lastFds = 1 << 30;
    for (const ProcessSample& s : samples)
        if (s.t >= baseFrom && s.t < baseTo) {
            baseRss.push_back(s.rssMb);
            baseFds = std::min(baseFds, s.fds);
        }
    for (int i = std::max(0, static_cast<int>(samples.size()) - lastCount); i < samples.size();
         ++i) {
        lastRss.push_back(samples[i].rssMb);
        lastFds = std::min(lastFds, samples[i].fds);
    }
    Growth g;
    if (baseRss.empty() || lastRss.empty())
        return g;
    g.measured = true;
    g.rssMb = median(lastRss) - median(baseRss);
    g.fds = lastFds - baseFds;
    return g;
}

} // namespace kelobench
