#!/usr/bin/env bash
# The whole test suite: installs dependencies, builds into _build/tests and runs ctest.
set -euo pipefail
cd "$(dirname "$0")/.."

bash tools/install-deps.sh
build=_build/tests
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKELO_WARNINGS_AS_ERRORS=ON
cmake --build "$build" --parallel "$(nproc)"
ctest --test-dir "$build" --output-on-failure --parallel 2 --timeout 300
