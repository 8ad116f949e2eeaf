#!/bin/sh
# Builds and runs the whole test suite twice: the release build, then the
# address + undefined-behaviour sanitizer build; after the release build,
# the install and Debian package check.
set -eu
cd "$(dirname "$0")/.."

# A bare machine may lack the build tools or GoogleTest.
missing=""
command -v cmake >/dev/null 2>&1 || missing="$missing cmake"
command -v g++ >/dev/null 2>&1 || missing="$missing g++"
command -v python3 >/dev/null 2>&1 || missing="$missing python3"
[ -f /usr/include/gtest/gtest.h ] || missing="$missing libgtest-dev"
if [ -n "$missing" ]; then
    if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then
        apt-get update -qq && apt-get install -y -qq $missing
    else
        echo "missing:$missing (install them, e.g. apt-get install$missing)" >&2
        exit 1
    fi
fi

jobs=$(nproc 2>/dev/null || echo 2)
for preset in release sanitize; do
    echo "== $preset build"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" -j "$jobs"
    ctest --preset "$preset" -j "$jobs"
    if [ "$preset" = release ]; then
        tests/install_check.sh build/release
    fi
done

# A short fuzz run of every parser of untrusted input (clang only).
tests/fuzz_run.sh 10
