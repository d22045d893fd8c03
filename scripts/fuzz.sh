#!/usr/bin/env bash
# fuzz.sh [TARGET...]
# Builds the libFuzzer targets of tests/fuzz with clang under AddressSanitizer
# and UndefinedBehaviorSanitizer, in a build folder of their own (build-fuzz),
# and runs each for a bounded time on a copy of its seed corpus
# (tests/fuzz/corpus/<target>/). Any crash, leak, sanitizer report or
# timeout fails the script; the findings stay in build-fuzz/findings/.
#
# Environment: ORVANTA_FUZZ_SECONDS (default 60) per target,
# ORVANTA_FUZZ_JOBS (default 2) for the build.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
seconds=${ORVANTA_FUZZ_SECONDS:-60}
jobs=${ORVANTA_FUZZ_JOBS:-2}
build=$root/build-fuzz
targets=("$@")
if ((${#targets[@]} == 0)); then
    targets=(fuzz_compare_version fuzz_convert_date_macro fuzz_json_path fuzz_config_document fuzz_version_reply)
fi

export CCACHE_BASEDIR=$root
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DORVANTA_SANITIZERS="address;undefined;fuzzer-no-link" \
    -DORVANTA_BUILD_FUZZERS=ON -DORVANTA_BUILD_BENCHMARKS=OFF -DORVANTA_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j "$jobs" --target "${targets[@]}"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=0
export LSAN_OPTIONS=suppressions=$root/tests/sanitizers/lsan.supp:print_suppressions=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export QT_QPA_PLATFORM=offscreen
home=$build/fuzz-home
mkdir -p "$home"
export HOME=$home XDG_CONFIG_HOME=$home/.config XDG_DATA_HOME=$home/.local/share XDG_CACHE_HOME=$home/.cache

status=0
for target in "${targets[@]}"; do
    corpus=$build/corpus/$target
    findings=$build/findings/$target
    rm -rf "$corpus" "$findings"
    mkdir -p "$corpus" "$findings"
    cp "$root/tests/fuzz/corpus/$target/"* "$corpus/"
    log=$build/findings/$target.log
    echo "== $target: ${seconds}s"
    if "$build/tests/fuzz/$target" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048 \
        -max_len=4096 -print_final_stats=1 -artifact_prefix="$findings/" "$corpus" >"$log" 2>&1; then
        grep -E '^stat::number_of_executed_units|^stat::average_exec_per_sec|^stat::peak_rss_mb' "$log" || true
    else
        echo "fuzz.sh: $target failed; see $log and $findings/" >&2
        tail -n 40 "$log" >&2
        status=1
    fi
done
exit $status
