#pragma once

/// How long a test waits for something that should happen, in milliseconds. Generous: only a
/// failing test waits this long, and sanitizers or an emulator slow TLS down. A suite that waits
/// for something slower states it as a multiple of this wait.
constexpr int kWait = 30000;
