#include "kelologging_p.h"

// Every level of every category is on by default, as the plain qDebug() lines were.
namespace kelo_log {

Q_LOGGING_CATEGORY(sdk, "kelo.sdk")
Q_LOGGING_CATEGORY(http, "kelo.http")
Q_LOGGING_CATEGORY(ws, "kelo.ws")
Q_LOGGING_CATEGORY(catalogue, "kelo.catalogue")

} // namespace kelo_log
