#!/usr/bin/env bash
# Builds the benchmarks (Release) and runs them against the in-process local cloud; prints one
# table and writes it as JSON to _build/bench/results.json.
#   bash tools/run-bench.sh            (KELO_BENCH_IDLE_SECONDS=N shortens the idle figure)
#   bash tools/run-bench.sh --scale    (menu sync and catalogue rewrite at 100, 1,000 and 10,000
#                                       dishes; writes _build/bench/scale.{json,dat} and draws
#                                       docs/scale-per-dish.png and docs/scale-memory.png)
#   bash tools/run-bench.sh --link     (the SDK on a shop's link: each profile in the network lab
#                                       (tools/netlab/lab.sh), kelo_bench --link on the terminal
#                                       side; one table, JSON in _build/bench/link.json;
#                                       KELO_LINK_LOSSY=1 adds the lossy-wifi profile)
#   bash tools/run-bench.sh --day [MINUTES]
#                                      (a shop day of MINUTES (30) on the network lab: requests,
#                                       notices, outages, loss, 4G, kelo-cloud killed; writes
#                                       docs/shop-day.md and docs/shop-day.png; KELO_DAY_SEED=N)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=$root/_build/bench

if [ "$(id -u)" -eq 0 ] || command -v sudo >/dev/null; then
    bash tools/install-deps.sh
fi
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DKELO_BUILD_BENCH=ON -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_EXAMPLES=OFF >/dev/null
# The build is niced and takes at most KELO_BENCH_JOBS (2) jobs: on a shared machine it must not
# crowd out other people's work; the benchmark runs after it, at normal priority.
targets=(kelo_bench kelo kelo-cloud)
case ${1:-} in --link | --day) targets+=(kelo-wire) ;; esac # the network lab's link
nice -n 19 cmake --build "$build" --parallel "${KELO_BENCH_JOBS:-2}" --target "${targets[@]}"

if [ "${1:-}" = "--day" ]; then
    minutes=${2:-30}
    [[ $minutes =~ ^[0-9]+$ ]] && [ "$minutes" -ge 1 ] || { echo "run-bench: --day MINUTES (>= 1)" >&2; exit 2; }
    seed=${KELO_DAY_SEED:-1}
    echo "run-bench: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs), load $(cut -d' ' -f1-3 /proc/loadavg)"
    echo "run-bench: --day $minutes minutes, seed $seed" >&2
    started=$SECONDS
    status=0
    bash tools/netlab/lab.sh run --profile wifi --dishes 40 --picture-kb 20 --seed "$seed" \
        --build "$build" -- \
        bash -c 'exec ip netns exec "$KELO_LAB_TERM" "$@"' day \
        "$build/bench/kelo_bench" --day $((minutes * 60)) --seed "$seed" \
        --day-dat "$build/day.dat" --day-report "$build/day.md" --day-plot shop-day.png \
        | tee "$build/day.log" || status=$?
    wall=$((SECONDS - started))
    if command -v gnuplot >/dev/null && [ -s "$build/day.dat" ]; then
        gnuplot -e "dat='$build/day.dat'; out='$root/docs/shop-day.png'" tools/day-plot.gp
    fi
    {
        echo "# A shop day on the network lab"
        echo
        echo "Written by \`bash tools/run-bench.sh --day $minutes\` (bench/day.cpp): one SDK object plays a"
        echo "waiter's day against kelo-cloud across the lab's wire (docs/netlab.md) while the link is"
        echo "taken away, loses packets, turns to 4G and back, and kelo-cloud is killed and started"
        echo "again. The books and their limits are described at the top of bench/day.cpp. The run took"
        echo "$((wall / 60)) min $((wall % 60)) s end to end (build up to date, lab up and down included)."
        echo "Where the slow rise of resident memory comes from: docs/performance.md, \"The shop day's"
        echo "resident memory\"."
        echo
        if [ -s "$build/day.md" ]; then cat "$build/day.md"; else echo "The day wrote no report (exit status $status)."; fi
        echo
        echo "Violations as the day printed them:"
        echo
        echo '```'
        grep -E 'VIOLATION|SUMMARY' "$build/day.log" | head -n 60 || true
        echo '```'
    } > docs/shop-day.md
    echo "run-bench: report in docs/shop-day.md, plot in docs/shop-day.png ($wall s end to end)"
    exit "$status"
fi

if [ "${1:-}" = "--link" ]; then
    json=$build/link.json
    rm -f "$json"
    echo "run-bench: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs), load $(cut -d' ' -f1-3 /proc/loadavg)"
    # One lab per menu size and profile; the bench runs on the terminal's side of the wire.
    link() { # profile dishes [kelo_bench --link options...]
        local profile=$1 dishes=$2
        shift 2
        echo "run-bench: --link $profile, $dishes dishes x 30 KB" >&2
        bash tools/netlab/lab.sh run --profile "$profile" --dishes "$dishes" --picture-kb 30 \
            --build "$build" -- \
            bash -c 'exec ip netns exec "$KELO_LAB_TERM" "$@"' link-bench \
            "$build/bench/kelo_bench" --link "$profile" --dishes "$dishes" --json "$json" "$@" \
            >&2
    }
    link wifi 100
    link 4g 50
    link wifi 300 --what cold,cold-one
    link 4g 300 --what cold --cold-runs 1 # one at a time would take 96 s more
    if [ "${KELO_LINK_LOSSY:-0}" = 1 ]; then
        link lossy-wifi 100 --what request,cold,warm
    fi
    "$build/bench/kelo_bench" --link-report "$json"
    echo "run-bench: results in $json"
    exit 0
fi

if [ "${1:-}" = "--scale" ]; then
    declare -A per
    echo "run-bench: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs), load $(cut -d' ' -f1-3 /proc/loadavg)"
    "$build/bench/kelo_bench" --scale --scale-dat "$build/scale.dat" --json "$build/scale.json"
    # The rewrite's instructions per dish at both ends (callgrind; the load does not move them).
    if command -v valgrind >/dev/null; then
        count() {
            local out=$build/callgrind.scale.$1.$2
            valgrind --tool=callgrind --callgrind-out-file="$out" \
                "$build/bench/kelo_bench" --callgrind "$1" --dishes "$2" >/dev/null 2>&1
            awk '/^(summary|totals):/ {print $2; exit}' "$out"
        }
        for n in 100 10000; do
            per[$n]=$(( ($(count sdk $n) - $(count none $n)) / n ))
            echo "run-bench: catalogue rewrite, $n dishes: ${per[$n]} instructions per dish (callgrind)"
        done
        awk -v a="${per[10000]}" -v b="${per[100]}" \
            'BEGIN { printf "run-bench: rewrite instructions per dish, 10k vs 100: %.2f (goal <= 1.2)\n", a / b }'
    fi
    if command -v gnuplot >/dev/null; then
        gnuplot -e "dat='$build/scale.dat'; outdir='$root/docs'" tools/scale-plot.gp
        echo "run-bench: plots in docs/scale-per-dish.png and docs/scale-memory.png"
    else
        echo "run-bench: gnuplot missing (tools/install-deps.sh installs it): no plots" >&2
    fi
    echo "run-bench: results in $build/scale.json"
    exit 0
fi

args=(--json "$build/results.json" --idle-seconds "${KELO_BENCH_IDLE_SECONDS:-60}"
    --cloud-exe "$build/tools/kelo-cloud")

# Instruction counts of the catalogue rewrite: whole-program counts minus a run that only
# builds the catalogue, so that only the rewrite is left.
if command -v valgrind >/dev/null; then
    instructions() {
        local out=$build/callgrind.$1
        valgrind --tool=callgrind --callgrind-out-file="$out" \
            "$build/bench/kelo_bench" --callgrind "$1" >/dev/null 2>&1
        awk '/^(summary|totals):/ {print $2; exit}' "$out"
    }
    echo "run-bench: callgrind (catalogue rewrite)" >&2
    none=$(instructions none)
    sdk=$(instructions sdk)
    base=$(instructions baseline)
    args+=(--callgrind-counts "$((sdk - none))" "$((base - none))")
fi

lib=$(readlink -f "$build/libkelo.so.1" 2>/dev/null || find "$build" -name 'libkelo.so.1*' -type f | head -1)
if [ -n "$lib" ]; then
    strip -o "$build/libkelo.stripped" "$lib"
    args+=(--lib-size "$(stat -c %s "$build/libkelo.stripped")")
fi
armhf=$root/_build/armhf/libkelo.so.1
if [ -e "$armhf" ] && command -v arm-linux-gnueabihf-strip >/dev/null; then
    arm-linux-gnueabihf-strip -o "$build/libkelo.armhf.stripped" "$(readlink -f "$armhf")"
    args+=(--lib-size-armhf "$(stat -c %s "$build/libkelo.armhf.stripped")")
fi

echo "run-bench: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs), load $(cut -d' ' -f1-3 /proc/loadavg)"
"$build/bench/kelo_bench" "${args[@]}"
echo "run-bench: results in $build/results.json"
