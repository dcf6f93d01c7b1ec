#!/usr/bin/env bash
# The whole test suite cross-built for 32-bit ARM (armhf) and run under qemu-arm: makes (or reuses)
# the sysroot in _build/armhf-sysroot, builds into _build/armhf, runs ctest and prints the
# stripped size of the armhf libkelo.so.1. The build is Release, as a device gets it (the native
# stage covers the Debug checks), which also makes the emulated tests faster. Run as root (or with sudo) the first time: the sysroot
# step installs the cross compiler and qemu-user.
set -euo pipefail
cd "$(dirname "$0")/.."

sysroot=_build/armhf-sysroot
build=_build/armhf
jobs=${KELO_ARMHF_JOBS:-2}

phase_start=$SECONDS
timings=()
phase_done() { timings+=("$1 $((SECONDS - phase_start)) s"); phase_start=$SECONDS; }

bash tools/install-deps.sh
bash tools/make-armhf-sysroot.sh "$sysroot"
phase_done sysroot

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKELO_WARNINGS_AS_ERRORS=ON \
    -DKELO_BUILD_TESTS=ON -DKELO_BUILD_EXAMPLES=OFF -DKELO_BUILD_QML=ON \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchain-armhf.cmake" -DKELO_ARMHF_SYSROOT="$PWD/$sysroot"
cmake --build "$build" --parallel "$jobs"
phase_done build

# Test programs run under qemu (CMAKE_CROSSCOMPILING_EMULATOR): CPU-bound work is 5 to 30 times
# slower than natively, network round trips about 1.5 times.
status=0
ctest --test-dir "$build" --output-on-failure --parallel "$jobs" --timeout 600 || status=$?
phase_done tests

stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
arm-linux-gnueabihf-strip -o "$stripped" "$build/libkelo.so.1"
echo "armhf libkelo.so.1 stripped: $(stat -c %s "$stripped") bytes"
printf 'armhf time: %s\n' "${timings[@]}"
exit $status
