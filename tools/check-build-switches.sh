#!/usr/bin/env bash
# Every combination of the build switches README documents (KELO_BUILD_TOOLS, _TESTS, _EXAMPLES,
# _BENCH, _QML, each ON and OFF: 32 builds) must configure and generate. Configure only, nothing
# is built: about a second each. Each goes into a throwaway folder, removed on exit.
# Where the suite is on, its tests that run the kelo-cloud tool are there exactly when the tool is
# built, and a build without the tool says at configure time which it left out.
# Usage: check-build-switches.sh [cmake arguments for every combination, e.g. -DKELO_QT_MAJOR=6]
set -euo pipefail
cd "$(dirname "$0")/.."

scratch=$(mktemp -d "${TMPDIR:-/tmp}/kelo-switches.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

switches=(TOOLS TESTS EXAMPLES BENCH QML)
# The tests that start kelo-cloud's binary.
tool_tests=(simulator install_package demo_day)
failures=()

for ((combo = 0; combo < 1 << ${#switches[@]}; combo++)); do
    args=() name=""
    declare -A on=()
    for i in "${!switches[@]}"; do
        if ((combo >> i & 1)); then on[${switches[$i]}]=ON; else on[${switches[$i]}]=OFF; fi
        args+=("-DKELO_BUILD_${switches[$i]}=${on[${switches[$i]}]}")
        name+="${switches[$i]}=${on[${switches[$i]}]} "
    done
    dir="$scratch/$combo"
    if ! cmake -S . -B "$dir" -G Ninja -Wno-dev "${args[@]}" "$@" >"$dir.log" 2>&1; then
        failures+=("$name: configure failed")
        echo "--- $name" >&2
        grep -A6 'CMake Error' "$dir.log" | head -30 >&2 || tail -20 "$dir.log" >&2
        rm -rf "$dir"
        unset on
        continue
    fi
    if [ "${on[TESTS]}" = ON ]; then
        listed=$(ctest --test-dir "$dir" -N)
        for t in "${tool_tests[@]}"; do
            # demo_day runs kelo-demo as well: it needs the examples too.
            [ "$t" = demo_day ] && [ "${on[EXAMPLES]}" = OFF ] && continue
            present=no
            grep -Eq "Test +#[0-9]+: $t\$" <<<"$listed" && present=yes
            if [ "${on[TOOLS]}" = ON ] && [ $present = no ]; then
                failures+=("$name: test $t missing although kelo-cloud is built")
            elif [ "${on[TOOLS]}" = OFF ] && [ $present = yes ]; then
                failures+=("$name: test $t listed without kelo-cloud")
            elif [ "${on[TOOLS]}" = OFF ] &&
                ! grep -q "Test $t left out: .*KELO_BUILD_TOOLS=OFF" "$dir.log"; then
                failures+=("$name: no configure message saying why test $t is left out")
            fi
        done
    fi
    rm -rf "$dir"
    unset on
done

if [ ${#failures[@]} -gt 0 ]; then
    printf 'build switches: %s\n' "${failures[@]}" >&2
    exit 1
fi
echo "build switches: all $((1 << ${#switches[@]})) combinations configure"
