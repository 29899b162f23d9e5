#!/bin/bash
# The whole test suite: installs missing build packages, builds with warnings
# as errors and runs every test (unit, integration and the end-to-end tests in
# namespaces, which need root), then builds the tests again under
# AddressSanitizer + UndefinedBehaviorSanitizer and runs the unit tests.
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

echo "== all tests"
ctest --test-dir build/ci --output-on-failure -j "$jobs" --timeout 600
