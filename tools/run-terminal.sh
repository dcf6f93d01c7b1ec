#!/usr/bin/env bash
# The touch-screen terminal against the local cloud: installs dependencies, builds the library,
# the simulator, the QML module Kelo and kelo-terminal, starts kelo-cloud and opens the terminal
# (1024x600) on the desktop. Options go to kelo-terminal, e.g.
#   bash tools/run-terminal.sh --screenshots docs/screenshots
# walks the whole day offscreen (no display needed) and writes one PNG per screen.
set -euo pipefail
cd "$(dirname "$0")/.."

bash tools/install-deps.sh
build=_build/release
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKELO_BUILD_TESTS=OFF
cmake --build "$build" --parallel "$(nproc)" --target kelo-cloud kelo-terminal
if [[ " $* " != *" --screenshots"* ]] && [ -z "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] &&
    [ -z "${QT_QPA_PLATFORM:-}" ]; then
    echo "run-terminal: no display; pass --screenshots DIR for the offscreen walk" >&2
    exit 2
fi
exec bash tools/terminal-day.sh "$build/tools/kelo-cloud" "$build/examples/kelo-terminal" "$@"
