#!/bin/sh
# Builds and runs the whole test suite twice: the release build, then the
# address + undefined-behaviour sanitizer build; after the release build,
# the install and Debian package check; then a minute of fuzzing (10 seconds
# for each of the six parsers). Ends with one line: N passed, M failed.
set -eu
cd "$(dirname "$0")/.."

# A bare machine may lack the build tools or GoogleTest.
missing=""
command -v cmake >/dev/null 2>&1 || missing="$missing cmake"
command -v g++ >/dev/null 2>&1 || missing="$missing g++"
command -v python3 >/dev/null 2>&1 || missing="$missing python3"
command -v make >/dev/null 2>&1 || missing="$missing make"
[ -f /usr/include/gtest/gtest.h ] || missing="$missing libgtest-dev"
if [ -n "$missing" ]; then
    if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then
        apt-get update -qq && apt-get install -y -qq $missing
    else
        echo "missing:$missing (install them, e.g. apt-get install$missing)" >&2
        exit 1
    fi
fi

# The tests' own scratch files go here too, and go with it.
scratch=$(mktemp -d "${TMPDIR:-/tmp}/quenby-run-all.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
trap 'exit 1' HUP INT TERM
export TMPDIR="$scratch"

passed=0
failed=0
count() { # count STATUS: one check that passed (0) or failed
    if [ "$1" = 0 ]; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
}

jobs=$(nproc 2>/dev/null || echo 2)
for preset in release sanitize; do
    echo "== $preset build"
    # QUENBY_TESTS=ON: a missing GoogleTest stops the configure, loudly.
    if ! { cmake --preset "$preset" -DQUENBY_TESTS=ON >/dev/null \
           && cmake --build --preset "$preset" -j "$jobs"; }; then
        count 1
        continue
    fi
    ctest --preset "$preset" -j "$jobs" > "$scratch/ctest.log" 2>&1 || true
    cat "$scratch/ctest.log"
    # "100% tests passed, 0 tests failed out of 34"
    summary=$(grep -E 'tests failed out of [0-9]+' "$scratch/ctest.log" || true)
    if [ -n "$summary" ]; then
        total=${summary##* }
        bad=$(echo "$summary" | sed -E 's/.* ([0-9]+) tests failed.*/\1/')
        passed=$((passed + total - bad))
        failed=$((failed + bad))
    else
        count 1
    fi
    if [ "$preset" = release ]; then
        status=0
        tests/install_check.sh build/release || status=$?
        count "$status"
    fi
done

# A short fuzz run of every parser of untrusted input (clang only): one
# check per target.
status=0
tests/fuzz_run.sh 10 > "$scratch/fuzz.log" 2>&1 || status=$?
cat "$scratch/fuzz.log"
fuzz_ok=$(grep -c '^fuzz_.*: Done' "$scratch/fuzz.log" || true)
fuzz_bad=$(grep -c '^fuzz_.* FAILED' "$scratch/fuzz.log" || true)
passed=$((passed + fuzz_ok))
failed=$((failed + fuzz_bad))
[ "$status" = 0 ] || [ "$fuzz_bad" -gt 0 ] || count 1

echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
