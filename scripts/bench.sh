#!/bin/bash
# The benchmarks, in one command. As root, from anywhere:
#
#   bash scripts/bench.sh
#
# Installs what is missing (the build packages of scripts/deps.sh, and zlib and
# OpenSSL for the reference implementations the micro-benchmarks compare with),
# builds into build/bench, then runs, each phase bounded by a time-out:
#   0. the display program alone: start to window mapped and memory under
#      Xvfb, 20 runs, in turns with the Xlib program it replaced (built from
#      the history, commit 7fb3281, into build/bench/old-notifymessage);
#   1. the end-to-end latency phase alone: the shipped daemon with its real
#      timing against the development gateway inside tests/support/sandbox,
#      200 notifications one at a time, a burst of 100, the steps one by one;
#   2. start-up with the test timing seam, 10 runs; then, in the booted test
#      bed (bench/e2e/session.sh, its package built by ctest), the desktop
#      lookup and the installed daemon's path, today's probe beside session
#      discovery, 200 each;
#   3. together (they hardly use the CPU, so they do not disturb each other):
#      60 s idle connected then 60 s reconnecting, 60 s unreachable at
#      start-up (each daemon in a sandbox of its own), and the micro-benchmarks.
# Results go to build/bench/results/<time>/ (one log per phase, summary.txt)
# and the summary is printed. Every process started here ends with its
# sandbox or is waited for; nothing is left running. About seven minutes on
# two shared cores, plus the first build.
# ND_BUILD_JOBS limits the parallel build (default 2). "bash scripts/bench.sh
# display" runs phase 0 only; "bash scripts/bench.sh soak" runs only the soak
# of the kept acknowledgements (10 000 notifications, 100 gateway restarts,
# about 20 minutes; docs/reliability.md).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
if [ "$(id -u)" != 0 ]; then
    echo "bench: run as root (it installs packages and uses private namespaces)" >&2
    exit 2
fi

"$root/scripts/deps.sh"
# Only the benchmark programs link these; the daemon never does.
missing=()
for p in libbenchmark-dev zlib1g-dev libssl-dev; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "== Installing ${missing[*]}"
    DEBIAN_FRONTEND=noninteractive apt-get update -q
    DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

build="$root/build/bench"
echo "== Building into $build"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNOTIFY_BENCH=ON \
    -DBUILD_TESTING=ON >/dev/null
targets=(bench_display_start notifymessage)
[ "${1:-}" = display ] || targets+=(bench_micro bench_daemon bench_session bench_soak)
cmake --build "$build" -j "${ND_BUILD_JOBS:-2}" --target "${targets[@]}" >/dev/null

# The Xlib display program that the GTK one replaced, from the history, to be
# measured in the same run; nothing of it is kept in the tree.
old_commit=7fb3281
old="$build/old-notifymessage"
if [ ! -x "$old/notifymessage" ] && git -C "$root" cat-file -e "$old_commit" 2>/dev/null; then
    rm -rf "$old" && mkdir -p "$old"
    git -C "$root" archive "$old_commit" tools/notifymessage | tar -x -C "$old"
    g++ -O2 -std=c++17 -o "$old/notifymessage" "$old"/tools/notifymessage/*.cpp \
        $(pkg-config --cflags --libs x11 xft fontconfig) || echo "bench: old program not built" >&2
fi

out="$build/results/$(date +%Y%m%d-%H%M%S)"
mkdir -p "$out"
sandbox="$root/tests/support/sandbox"
harness="$build/bench/bench_daemon"

machine() {
    echo "machine: $(nproc) cores, $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n1)," \
        "$(awk '/MemTotal/ {printf "%.1f GiB", $2 / 1048576}' /proc/meminfo), kernel $(uname -r)"
    echo "load average: $(cut -d' ' -f1-3 /proc/loadavg) (1, 5, 15 min)"
}

# Background phases are waited for; an interrupt stops them by pid.
pids=()
stop() {
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
    done
}
trap stop EXIT INT TERM

# Runs a phase into $out/<name>.txt; a failure is reported and remembered.
status=0
phase() {
    local name=$1
    shift
    if ! "$@" >"$out/$name.txt" 2>&1; then
        echo "bench: phase $name failed; its log ends:" >&2
        tail -n 20 "$out/$name.txt" >&2
        status=1
    fi
}
show() { grep -v '^RESULT' "$out/$1.txt" || true; }

machine | tee "$out/machine-start.txt"

if [ "${1:-}" = soak ]; then
    echo "== Soak: 10 000 notifications, 100 gateway restarts (about 20 minutes)"
    phase soak timeout 3600 "$sandbox" --hostname bench-soak -- "$build/bench/bench_soak" 10000 100
    show soak
    sed -n 's/^RESULT //p' "$out/soak.txt" | tee "$out/summary.txt"
    exit "$status"
fi

echo "== 0/3 Display program: start to window mapped, memory (about a minute)"
phase display timeout 300 "$sandbox" --hostname bench-display -- \
    "$build/bench/bench_display_start" 20 "gtk=$build/tools/notifymessage/notifymessage" \
    "xlib=$old/notifymessage"
show display
if [ "${1:-}" = display ]; then
    exit "$status"
fi

echo "== 1/3 Latency, burst and steps (about a minute)"
phase latency timeout 300 "$sandbox" --hostname bench-desk -- "$harness" latency 200 100
show latency

echo "== 2/3 Start-up with the test timing seam"
phase startup timeout 120 "$sandbox" --hostname bench-desk -- "$harness" startup 10
show startup
if (cd "$build" && ctest -R '^system_package$' >/dev/null); then
    phase session timeout 600 bash "$root/bench/e2e/session.sh" "$build" 200
else
    echo "bench: the package did not build; the session phase is skipped" >&2
    status=1
    : >"$out/session.txt"
fi
show session

echo "== 3/3 Idle footprint (2 x 60 s and 60 s) beside the micro-benchmarks"
phase idle timeout 300 "$sandbox" --hostname bench-idle -- "$harness" idle 60 &
pids+=($!)
phase unreachable timeout 200 "$sandbox" --hostname bench-unreachable -- "$harness" unreachable 60 &
pids+=($!)
phase micro timeout 400 "$build/bench/bench_micro" --benchmark_min_time=0.1 \
    --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true --benchmark_out="$out/micro.json" \
    --benchmark_out_format=json
for pid in "${pids[@]}"; do
    wait "$pid" || status=1
done
pids=()
# (A background phase's failure shows in its log; its status is in its subshell.)
grep -q '^RESULT idle.disconnected.window' "$out/idle.txt" || status=1
grep -q '^RESULT idle.unreachable.window' "$out/unreachable.txt" || status=1
show idle
show unreachable

echo "== Micro-benchmarks (median of 5, CPU time; ratio above 1: ours is faster)"
if [ -s "$out/micro.json" ]; then
    python3 "$root/bench/micro_report.py" "$out/micro.json" | tee "$out/micro-summary.txt"
else
    : >"$out/micro-summary.txt"
fi

machine | tee "$out/machine-end.txt"
{
    cat "$out/machine-start.txt"
    cat "$out/display.txt" "$out/latency.txt" "$out/startup.txt" "$out/session.txt" "$out/idle.txt" "$out/unreachable.txt" |
        sed -n 's/^RESULT //p'
    cat "$out/micro-summary.txt" "$out/machine-end.txt"
} >"$out/summary.txt"
echo "== Results in $out (summary.txt)"
exit "$status"
