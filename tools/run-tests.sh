#!/usr/bin/env bash
# The whole test suite, as CI runs it. Installs dependencies, then runs stages in order and stops
# at the first that fails:
#   native     the layers' include order (tools/check-layers.sh), every combination of the build
#              switches configures (tools/check-build-switches.sh, configure only), then build into
#              _build/tests (warnings are errors, a random signing key) and run ctest; then the API
#              reference (tools/make-docs.sh api: fails on any Doxygen warning, an undocumented
#              public declaration or enum value, or a stale docs/architecture.svg)
#   netlab     the SDK across the network lab's wire (tools/netlab/lab.sh): every request kind on
#              a lossy link, the menu as a clean link gives it, a kept-alive connection closed
#              under a request, a silent outage (and a request sent into a 30 s one ending on its
#              deadline, the channel back within seconds); functional checks, no timings (the native
#              stage's build, or _build/netlab when run alone); then a 3-minute shop day
#              (kelo_bench --day 180: outages, loss, 4G, kelo-cloud killed; non-zero on any
#              broken promise of its books)
#   fuzz       each libFuzzer target for FUZZ_SECONDS (default 30) from the seeds
#   sanitize   the suite under AddressSanitizer + UndefinedBehaviorSanitizer + LeakSanitizer
#   armhf      the suite cross-built for 32-bit ARM (Release) and run under qemu-arm
#   packages   the Debian packages for amd64 and armhf (contents, relations, lintian), the ABI
#              guard (abidiff against abi/, the exported-symbol list), and a consumer built against
#              the installed amd64 packages and against the armhf ones unpacked into the sysroot
#   qt6        the suite built against Qt 6 into _build/qt6 (-DKELO_QT_MAJOR=6) and run; then both
#              majors installed side by side into one prefix, a host built against each
# Usage: run-tests.sh [--quick | stage ...]   (no argument: all seven; --quick: native)
set -euo pipefail
cd "$(dirname "$0")/.."

stages=(native netlab fuzz sanitize armhf packages qt6)
if [ "${1:-}" = "--quick" ]; then
    stages=(native)
elif [ $# -gt 0 ]; then
    stages=("$@")
fi

bash tools/install-deps.sh

# The native stage builds with a signing key of its own, new on every run, so that the build test
# can prove that no installed file holds the build's key (kelo-cloud legitimately holds the
# development key, its default) and that every suite works with a key other than the default.
# The other stages keep the development key, for which some signatures are recorded.
native() {
    local build=_build/tests key
    bash tools/check-layers.sh # includes follow the layers' order (global/ at the bottom)
    key=$(head -c 1024 /dev/urandom | LC_ALL=C tr -dc 'A-Za-z0-9' | cut -c1-32)
    bash tools/check-build-switches.sh
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKELO_WARNINGS_AS_ERRORS=ON \
        -DKELO_SECRET_KEY="$key"
    cmake --build "$build" --parallel "$(nproc)"
    ctest --test-dir "$build" --output-on-failure --parallel 2 --timeout 300
    bash tools/make-docs.sh api
}
# Qt 6 with a key of its own too. The side-by-side check needs a Qt 5 build as well: the native
# stage's when it ran before, otherwise the library and its tools without the suite, into
# _build/qt6-side-qt5 (each install is checked with its own build's key).
qt6() {
    local build=_build/qt6 side=_build/tests key
    key=$(head -c 1024 /dev/urandom | LC_ALL=C tr -dc 'A-Za-z0-9' | cut -c1-32)
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKELO_WARNINGS_AS_ERRORS=ON \
        -DKELO_QT_MAJOR=6 -DKELO_SECRET_KEY="$key"
    cmake --build "$build" --parallel "$(nproc)"
    ctest --test-dir "$build" --output-on-failure --parallel 2 --timeout 300
    if [ ! -f "$side/CMakeCache.txt" ]; then
        side=_build/qt6-side-qt5
        cmake -S . -B "$side" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKELO_WARNINGS_AS_ERRORS=ON \
            -DKELO_QT_MAJOR=5 -DKELO_SECRET_KEY="$key" -DKELO_BUILD_TESTS=OFF
        cmake --build "$side" --parallel "$(nproc)"
    fi
    bash tests/install/check-side-by-side.sh "$side" "$build" "$build/tools/kelo-cloud-qt6"
}
# The native stage's build when it ran before (only the lab's tools are added), otherwise a build
# of the library, the suite and the lab's tools alone into _build/netlab. kelo-cloud is handed the
# build's signing key. lab.sh removes its namespaces and processes when it ends, also on failure.
netlab() {
    local build=_build/tests key
    if [ ! -f "$build/CMakeCache.txt" ]; then
        build=_build/netlab
        cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKELO_WARNINGS_AS_ERRORS=ON \
            -DKELO_BUILD_EXAMPLES=OFF
    fi
    cmake -S . -B "$build" -DKELO_BUILD_BENCH=ON >/dev/null # the shop day is a mode of kelo_bench
    cmake --build "$build" --parallel "$(nproc)" --target tst_netlab tst_lab_outage kelo-cloud \
        kelo-wire kelo_bench
    key=$(sed -n 's/^KELO_SECRET_KEY:[A-Z]*=//p' "$build/CMakeCache.txt")
    KELO_CLOUD_KEY=$key bash tools/netlab/lab.sh run --profile lossy-wifi --dishes 40 \
        --picture-kb 30 --build "$build" -- \
        bash -c 'exec ip netns exec "$KELO_LAB_TERM" "$@"' netlab "$build/tests/netlab/tst_netlab"
    # A 30 s silent outage on shop Wi-Fi: a request sent into it ends on its deadline, the
    # channel is back within seconds of the link's return.
    KELO_CLOUD_KEY=$key bash tools/netlab/lab.sh run --profile wifi --dishes 10 \
        --picture-kb 30 --build "$build" -- \
        bash -c 'exec ip netns exec "$KELO_LAB_TERM" env KELO_SERVER_HOST="$KELO_LAB_API" "$@"' \
        netlab "$build/tests/tst_lab_outage"
    # Seed 10's day: 10 link events, among them a 55 s blackhole and two kelo-cloud restarts.
    KELO_CLOUD_KEY=$key bash tools/netlab/lab.sh run --profile wifi --dishes 40 \
        --picture-kb 20 --seed 1 --build "$build" -- \
        bash -c 'exec ip netns exec "$KELO_LAB_TERM" "$@"' day "$build/bench/kelo_bench" \
        --day 180 --seed 10
}
sanitize() { bash tools/run-sanitizers.sh; }
fuzz() { FUZZ_SECONDS=${FUZZ_SECONDS:-30} bash tools/run-fuzz.sh; }
armhf() { bash tools/run-tests-armhf.sh; }
packages() {
    bash tools/make-packages.sh amd64
    bash tools/abi.sh check
    bash tools/make-packages.sh armhf
    bash tests/packages/check-consumer.sh _build/packages/amd64 _build/packages/armhf _build/armhf-sysroot
}

summary=()
for stage in "${stages[@]}"; do
    case "$stage" in native | netlab | sanitize | fuzz | armhf | packages | qt6) ;; *) echo "unknown stage: $stage" >&2; exit 2 ;; esac
    echo "=== stage $stage"
    start=$SECONDS
    "$stage"
    summary+=("$stage $((SECONDS - start)) s")
done
printf '=== stage times: %s\n' "$(IFS=', '; echo "${summary[*]}")"
