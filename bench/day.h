// --day: a terminal's shop day, compressed, on the network lab's terminal side. One Kelosdk plays a
// waiter's day against kelo-cloud (logins, menu syncs, orders, tables, merges, bills, e-wallet
// invoices paid by a notice or cancelled) while the wire loses the link, drops packets, changes
// profile and kelo-cloud is killed and started again. The books say which promise broke.
#pragma once

#include <QString>

namespace kelobench {

/// What one day is asked to play.
struct DayOptions
{
    int seconds = 180; ///< the day's length
    quint32 seed = 1;  ///< the same seed plays the same day (the same steps and link events)
    QString dat;       ///< gnuplot data: samples, calls and events (empty: none)
    QString report;    ///< Markdown report (empty: none)
    QString plot;      ///< the PNG's name as the report links it
};

/**
 * Plays one day inside the lab (KELO_LAB_API, KELO_LAB_CA, KELO_LAB_WIRE, KELO_LAB_WIRE_CTL,
 * KELO_LAB_CLOUD_RESTART). Prints every violation as it is seen and one summary line at the end.
 * 0: no violation; 1: at least one; 2: not inside the lab.
 */
int dayMode(const DayOptions& options);

} // namespace kelobench
