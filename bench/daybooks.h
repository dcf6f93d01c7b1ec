// The shop day's rules without its event loop: the seeded plan of link events, which notices
// are owed, and how memory and descriptors are compared. bench/day.cpp plays the day with them;
// tests/tst_daybooks.cpp checks them.
#pragma once

#include <QList>

namespace kelobench {

/// A notice is owed only if the link had no outage this long before it was sent: the channel
/// sees a silent outage after three unanswered pings 3 s apart, plus a tick.
constexpr double kNoticeQuietBeforeS = 12;
/// How long the books watch for a notice after the cloud took it (an outage in that time
/// excuses it too).
constexpr double kNoticeWaitS = 10;
/// Resident memory may grow this much after the warm-up.
constexpr double kRssGrowthMb = 5;

enum class LinkEventType
{
    Blackhole,
    Loss,
    Profile,
    Restart
};

/// One thing done to the link. Blackholes and restarts are outages.
struct LinkEvent
{
    LinkEventType type;
    double start;     ///< seconds into the day
    double end;       ///< planned end
    int param;        ///< loss: percent; restart: seconds kelo-cloud stays down
    double actualEnd; ///< < 0: not over yet (a restart ends when kelo-cloud listens again)
};

const char* linkEventName(LinkEventType type);

/**
 * The day's link events, one at a time from @p warmUp until @p dayEnd, 1 to 3 s apart (35 %
 * blackholes of 2 to 15 s, or 15 to 60 s one time in five; 25 % 2 to 5 % loss for 5 to 15 s;
 * 25 % 4G for 10 to 25 s; 15 % kelo-cloud killed and back 0 to 5 s later): about 125 events in
 * 30 minutes, at least 100. The same seed gives the same plan.
 */
QList<LinkEvent> planLinkEvents(double warmUp, double dayEnd, quint32 seed);

/// Whether an outage (blackhole, restart) overlaps [@p t - kNoticeQuietBeforeS, @p t +
/// kNoticeWaitS]: a notice sent at @p t is then not owed.
bool outageAround(const QList<LinkEvent>& events, double t);

/// One sample of the process: seconds into the day, resident MB, open descriptors.
struct ProcessSample
{
    double t;
    double rssMb;
    int fds;
};

struct Growth
{
    bool measured = false; ///< both windows had samples
    double rssMb = 0;      ///< median of the last window less median of the base window
    int fds = 0;           ///< minimum of the last window less minimum of the base window
};

/**
 * Growth from the base window [@p baseFrom, @p baseTo) to the last @p lastCount samples. Medians
 * for memory; minima for descriptors, which connections opening and closing move up for a
 * moment.
 */
Growth growthSince(const QList<ProcessSample>& samples, double baseFrom, double baseTo,
                   int lastCount = 5);

} // namespace kelobench
