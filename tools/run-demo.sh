#!/usr/bin/env bash
# The main job: installs dependencies, builds the library, the simulator and the demo, then runs
# a terminal's whole day (kelo-demo) against the local cloud simulator (kelo-cloud).
set -euo pipefail
cd "$(dirname "$0")/.."

bash tools/install-deps.sh
build=_build/release
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKELO_BUILD_TESTS=OFF
cmake --build "$build" --parallel "$(nproc)"
exec bash tools/demo-day.sh "$build/tools/kelo-cloud" "$build/examples/kelo-demo" "$@"
