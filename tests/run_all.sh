#!/bin/sh
# The whole test suite in the release and the sanitizer build, the install
# and package check after the release build, then a minute of fuzzing (10
# seconds for each of the six parsers). Ends with: N passed, M failed.
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

passed=0 failed=0
tally() { passed=$((passed + $1)); failed=$((failed + $2)); }

jobs=$(nproc 2>/dev/null || echo 2)
for preset in release sanitize; do
    echo "== $preset build"
    # QUENBY_TESTS=ON: a missing GoogleTest stops the configure, loudly.
    if cmake --preset "$preset" -DQUENBY_TESTS=ON >/dev/null && cmake --build --preset "$preset" -j "$jobs"; then
        ctest --preset "$preset" -j "$jobs" > "$scratch/ctest.log" 2>&1 || true
        cat "$scratch/ctest.log"
        # "100% tests passed, 0 tests failed out of 34"; no such line: one failure.
        set -- $(sed -n 's/.* \([0-9]*\) tests failed out of \([0-9]*\)$/\1 \2/p' "$scratch/ctest.log") 1 1
        tally $(($2 - $1)) "$1"
    else
        tally 0 1
    fi
    [ "$preset" != release ] || { tests/install_check.sh build/release && tally 1 0 || tally 0 1; }
done

# Fuzzing (clang only): one check per target, one failure if it fails before any.
status=0
tests/fuzz_run.sh 10 > "$scratch/fuzz.log" 2>&1 || status=$?
cat "$scratch/fuzz.log"
bad=$(grep -c '^fuzz_.* FAILED' "$scratch/fuzz.log" || true)
tally "$(grep -c '^fuzz_.*: Done' "$scratch/fuzz.log" || true)" $((bad == 0 && status != 0 ? 1 : bad))

echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
