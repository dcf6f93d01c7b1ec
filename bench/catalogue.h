// The catalogue CPU figure (4): the SDK's rewrite of a menu reply against the Qt work no
// rewrite can avoid, and the single rewrite that --callgrind runs for valgrind.
#pragma once

#include "benchsupport.h"

#include <QString>

namespace kelobench {

/// A menu reply of @p dishes dishes, as the catalogue rewrite sees it.
QString bigCatalogue(int dishes);

/// What the SDK does to a menu reply around the downloads, every picture taken as fetched.
QString sdkRewrite(const QString& text);

/// The Qt work that no rewrite can avoid: two parses and one compact serialisation.
QString rawRewrite(const QString& text);

Row catalogueCpu();

/// --callgrind: one rewrite (or none) of a catalogue of @p dishes dishes; prints its size.
int callgrindMode(const QString& which, int dishes);

} // namespace kelobench
