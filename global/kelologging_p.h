#pragma once

// Private to the library: the logging categories, one per area. Every log line of the library
// goes through one of them, so that a host can filter the areas with QT_LOGGING_RULES (e.g.
// "kelo.ws.debug=false") and see the area in its own message handler. The debug flags of the
// objects still decide whether a line is written at all; the rules only filter further.

#include <QLoggingCategory>

namespace kelo_log {

Q_DECLARE_LOGGING_CATEGORY(sdk)       // "kelo.sdk": the Kelosdk object's "KELOSDK>> " lines
Q_DECLARE_LOGGING_CATEGORY(http)      // "kelo.http": request objects and their failures
Q_DECLARE_LOGGING_CATEGORY(ws)        // "kelo.ws": the notification channel
Q_DECLARE_LOGGING_CATEGORY(catalogue) // "kelo.catalogue": picture downloads

} // namespace kelo_log
