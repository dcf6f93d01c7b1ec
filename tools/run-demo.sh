#!/usr/bin/env bash
# The main job: installs dependencies, builds and installs the library into _build/prefix, and
# runs the local cloud simulator in the foreground (Ctrl-C stops it).
set -euo pipefail
cd "$(dirname "$0")/.."

bash tools/install-deps.sh
build=_build/release
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKELO_BUILD_TESTS=OFF \
    -DCMAKE_INSTALL_PREFIX="$PWD/_build/prefix"
cmake --build "$build" --parallel "$(nproc)"
cmake --install "$build"
exec "$build/tools/kelo-cloud" "$@"
