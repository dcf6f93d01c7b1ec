// Pictures in flight (--only pictures-in-flight): a cold sync of 100 pictures whose server answers
// each after a fixed delay, one at a time against several at once.
#pragma once

#include "benchsupport.h"

namespace kelocloud {
class CloudServer;
}

namespace kelobench {

/// One row per setting of CDownloadFileMan::setMaxPicturesInFlight (1, 3, 6), each the median
/// of Runs cold syncs; the baseline column is the one-at-a-time run.
QList<Row> picturesInFlight(kelocloud::CloudServer& cloud);

} // namespace kelobench
