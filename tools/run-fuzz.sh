#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) and runs each for a bounded time
# (FUZZ_SECONDS, default 60) from the seed corpus in fuzz/corpus. A crash fails the run; its
# input is left in _build/fuzz/artifacts to be kept as a regression seed once fixed.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh clang-14 libclang-rt-14-dev

seconds=${FUZZ_SECONDS:-60}
build=_build/fuzz
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_COMPILER=clang++-14 -DKELO_BUILD_FUZZ=ON -DKELO_BUILD_TESTS=OFF \
    -DKELO_BUILD_TOOLS=OFF -DKELO_BUILD_EXAMPLES=OFF \
    -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer" \
    -DCMAKE_SHARED_LINKER_FLAGS="-fsanitize=address,undefined"
cmake --build "$build" --parallel "$(nproc)" --target fuzz_parsers fuzz_decoder fuzz_catalogue

mkdir -p "$build/artifacts"
export XDG_DATA_HOME="$PWD/$build/data" QT_QPA_PLATFORM=offscreen
export ASAN_OPTIONS="fast_unwind_on_malloc=0"
export LSAN_OPTIONS="suppressions=$PWD/tools/sanitizers/lsan.supp:print_suppressions=0"
for target in parsers decoder catalogue; do
    corpus="$build/corpus/$target"
    mkdir -p "$corpus"
    echo "== fuzz_$target for ${seconds}s"
    status=0
    "$build/fuzz/fuzz_$target" -seed="${FUZZ_SEED:-1}" -max_total_time="$seconds" -max_len=4096 -timeout=10 \
        -artifact_prefix="$build/artifacts/$target-" "$corpus" "fuzz/corpus/$target" \
        > "$build/fuzz_$target.log" 2>&1 || status=$?
    grep -E '^(#[0-9]+ *DONE|Done|==[0-9]+==|SUMMARY|INFO: Seed)' "$build/fuzz_$target.log" || true
    if [ "$status" -ne 0 ]; then
        echo "fuzz_$target failed; its log: $build/fuzz_$target.log, its input: $build/artifacts/"
        exit 1
    fi
done
echo "fuzz: every target ran ${seconds}s without a crash"
