#!/bin/bash
# The whole test suite: installs missing build packages, builds with warnings
# as errors and runs every test (unit, integration and the end-to-end tests in
# namespaces, which need root), then builds the tests again under
# AddressSanitizer + UndefinedBehaviorSanitizer and runs the unit tests, builds
# the integration and end-to-end tests (and the daemon they start) under
# ThreadSanitizer and runs them, and runs every fuzz target for 5 seconds.
# Exits non-zero on any failure.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=$(nproc)

scripts/deps.sh

echo "== format check"
files=$(git ls-files '*.cpp' '*.h' 2>/dev/null || true)
if [ -n "$files" ]; then
    # shellcheck disable=SC2086
    clang-format --dry-run -Werror $files
fi

echo "== build (warnings as errors)"
cmake -S . -B build/ci -DNOTIFY_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/ci -j "$jobs"

echo "== build (AddressSanitizer + UndefinedBehaviorSanitizer)"
cmake -S . -B build/ci-asan -DNOTIFY_WERROR=ON -DNOTIFY_SANITIZE=ON \
    -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build/ci-asan -j "$jobs"

echo "== sanitizer tests (unit)"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir build/ci-asan -L unit --output-on-failure -j "$jobs" --timeout 300

echo "== ThreadSanitizer build (integration and end-to-end tests, the daemon)"
# Without -Werror: instrumentation makes GCC warn about code it accepts
# otherwise; the warning-free build above is the one that holds that line.
cmake -S . -B build/ci-tsan -DNOTIFY_TSAN=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
for dir in build/ci-tsan/tests/integration/*/ build/ci-tsan/tests/e2e/*/; do
    make -C "$dir" -j "$jobs" >/dev/null
done

echo "== ThreadSanitizer tests (integration, e2e)"
# The daemon's standard error is /dev/null once it has detached, so every
# instrumented process writes its reports to files, which must not appear.
tsan_reports=$root/build/ci-tsan/reports
rm -rf "$tsan_reports"
mkdir -p "$tsan_reports"
# The burst of 1000 notifications (e2e_faults_burst) is left out here for
# time: under ThreadSanitizer its 5000 process starts take minutes.
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 log_path=$tsan_reports/tsan" \
    ctest --test-dir build/ci-tsan -L 'integration|e2e' -E '^e2e_faults_burst$' \
    --output-on-failure -j "$jobs" --timeout 600
if [ -n "$(ls -A "$tsan_reports")" ]; then
    cat "$tsan_reports"/* >&2
    echo "ThreadSanitizer reported the above" >&2
    exit 1
fi

echo "== fuzz targets (5 s each)"
scripts/fuzz.sh 5

# Last, so that the suite's own summary closes the output.
echo "== all tests"
ctest --test-dir build/ci --output-on-failure -j "$jobs" --timeout 600
