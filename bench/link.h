// --link: the SDK on a shop's link (the network lab's terminal side, talking to kelo-cloud across
// a wire with delay, bandwidth and loss), each figure beside a hand-written client on one shared
// QNetworkAccessManager and beside what the link itself allows.
#pragma once

#include <QString>
#include <QStringList>

namespace kelobench {

/**
 * One lab run: reads KELO_LAB_API, KELO_LAB_CA, KELO_LAB_WIRE and KELO_LAB_WIRE_CTL, measures
 * the figures named in @p what ("request", "cold", "warm", "pictures", "channel", "outage"; empty:
 * all), prints them and merges them into the JSON file @p json under @p profile and @p dishes. 1 if
 * the lab is not there or the SDK never connected.
 */
int linkMode(const QString& profile, int dishes, const QStringList& what, const QString& json,
             int coldRuns, int outageSeconds);

/// Prints the whole table of a JSON file that linkMode() filled (every lab run of run-bench.sh).
int linkReport(const QString& json);

} // namespace kelobench
