#pragma once

// Private to the library: stamping a cached picture through its open file.

#include <QFile>

#include <limits>

#include <sys/stat.h>
#include <time.h>

namespace kelo_picture {

// time_t is 32 bits wide on some 32-bit ARM systems: clamp rather than wrap, since a wrapped time
// would stamp a picture decades away. A stamp past the range never matches the file's time again,
// so such a picture is fetched anew on every run instead of being shown stale.
inline time_t toTimeT(qint64 seconds)
{
    using Limits = std::numeric_limits<time_t>;
    if (seconds > static_cast<qint64>(Limits::max()))
        return Limits::max();
    if (seconds < static_cast<qint64>(Limits::min()))
        return Limits::min();
    return static_cast<time_t>(seconds);
}

/// Sets the times of the open @p file: access = its last-read second, modification = @p stampMs
/// in whole seconds. Works on the descriptor, never on the name: whatever has been put at the
/// file's name since it was opened (a link to another file, say) is left alone. Buffered data is
/// written first, so that nothing changes the file's times after the stamp.
inline bool stampOpenFile(QFile& file, unsigned long long stampMs)
{
    if (!file.isOpen() || !file.flush())
        return false;
    const int fd = file.handle();
    struct stat status;
    if (fd < 0 || ::fstat(fd, &status) != 0)
        return false;
    struct timespec times[2];
    times[0].tv_sec = status.st_atime;
    times[0].tv_nsec = 0;
    times[1].tv_sec = toTimeT(static_cast<qint64>(stampMs / 1000));
    times[1].tv_nsec = 0;
    return ::futimens(fd, times) == 0;
}

} // namespace kelo_picture
