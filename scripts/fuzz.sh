#!/bin/bash
# Builds the libFuzzer targets (clang, ASan + UBSan, in build/fuzz) and runs
# each of them for SECONDS, then prints the executions and the coverage of
# every target. Exits non-zero when any target found something.
#
#   scripts/fuzz.sh SECONDS [TARGET...]     (default: every target)
#
# Each target's corpus grows in build/fuzz/corpus/<target> (seeded from the
# checked-in fuzz/corpus/<target>); crashing inputs land in
# build/fuzz/artifacts/<target>/ and the run's output in build/fuzz/logs/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

seconds=${1:?usage: scripts/fuzz.sh SECONDS [TARGET...]}
shift
build=build/fuzz
jobs=$(nproc)
[ "$jobs" -gt 2 ] && jobs=2

echo "== fuzz build (clang, ASan + UBSan, $build)"
CC=clang CXX=clang++ cmake -S . -B "$build" -DNOTIFY_FUZZ=ON -DBUILD_TESTING=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target fuzzers -j "$jobs" >/dev/null

if [ $# -gt 0 ]; then
    targets=("$@")
else
    mapfile -t targets < <(cd fuzz/corpus && ls -d fuzz_* | sort)
fi

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
mkdir -p "$build/logs"
failed=0
total=0
printf '%-34s %12s %9s %7s %7s %7s  %s\n' target executions exec/s cov ft corpus result
for t in "${targets[@]}"; do
    bin=$build/fuzz/$t
    corpus=$build/corpus/$t
    artifacts=$build/artifacts/$t/
    log=$build/logs/$t.log
    mkdir -p "$corpus" "$artifacts"
    maxlen=4096
    [ "$t" = fuzz_receive ] && maxlen=16384
    status=0
    # -timeout: one input running 10 s is a finding (a loop that never ends).
    timeout --kill-after=10 $((seconds + 120)) "$bin" -max_total_time="$seconds" \
        -print_final_stats=1 -timeout=10 -rss_limit_mb=2048 -max_len="$maxlen" \
        -artifact_prefix="$artifacts" "$corpus" "fuzz/corpus/$t" >"$log" 2>&1 || status=$?
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
    line=$(grep -E '^#[0-9]+.*cov: ' "$log" | tail -1 || true)
    cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$line")
    ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$line")
    files=$(find "$corpus" -type f | wc -l)
    if [ "$status" = 0 ]; then
        result=ok
    else
        failed=1
        # The required yDecode aborts are kept out by the targets' pre-check;
        # one that gets here means the pre-check and the decoder disagree.
        if grep -q "yDecode: Assertion \`\(c != '\\\\0'\|dstbuf\)' failed" "$log"; then
            result="required yDecode abort not caught by the pre-check (see $log)"
        else
            result="FINDING: $(grep -m1 -E 'ERROR: |runtime error|deadly signal|timeout|Assertion' "$log" || echo "exit $status") (see $log)"
        fi
    fi
    total=$((total + ${execs:-0}))
    printf '%-34s %12s %9s %7s %7s %7s  %s\n' "$t" "${execs:-?}" "${rate:-?}" "${cov:-?}" \
        "${ft:-?}" "$files" "$result"
done
echo "total executions: $total"
exit "$failed"
