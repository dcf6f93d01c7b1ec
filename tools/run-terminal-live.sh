#!/usr/bin/env bash
# The terminal's day in a real X window, driven by taps: installs dependencies (Xvfb and xdotool
# among them), builds kelo-terminal and its live-window test, runs the test (its own X server and
# simulator; both stop with it) and keeps the live screenshots in DIR.
# Usage: run-terminal-live.sh DIR    e.g. docs/screenshots/live
set -euo pipefail
cd "$(dirname "$0")/.."
[ $# -eq 1 ] || { echo "usage: $0 DIR" >&2; exit 2; }
shots=$(realpath -m "$1")

bash tools/install-deps.sh
build=_build/live
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" --parallel "$(nproc)" --target kelo-terminal tst_terminal_live
mkdir -p "$shots"
KELO_LIVE_SHOTS=$shots QT_QPA_PLATFORM=offscreen "$build/tests/tst_terminal_live"
echo "run-terminal-live: the live screenshots are in $shots"
