#!/bin/sh
# Builds the fuzz targets and runs each for a while from its seed corpus.
#   tests/fuzz_run.sh [SECONDS_PER_TARGET]   (default 10)
# Any crash, leak or undefined behaviour fails the run; the finding is left
# in build/fuzz/findings/<target>/.
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-10}
if ! command -v clang++ >/dev/null 2>&1; then
    echo "clang++ is not installed: fuzzing skipped"
    exit 0
fi
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc 2>/dev/null || echo 2)"
status=0
for target in record_reader shadow_header bunch_lines query_index client_output option_lines; do
    work=build/fuzz/corpus/$target
    findings=build/fuzz/findings/$target
    mkdir -p "$work" "$findings"
    cp fuzz/corpus/$target/* "$work"/
    log=build/fuzz/$target.log
    if build/fuzz/fuzz_$target -max_total_time="$seconds" -close_fd_mask=3 -rss_limit_mb=2048 \
        -artifact_prefix="$findings/" "$work" > "$log" 2>&1; then
        echo "fuzz_$target: $(grep -E '^Done [0-9]+ runs' "$log" | tail -n 1)"
    else
        echo "fuzz_$target FAILED:"
        grep -E 'ERROR|runtime error|SUMMARY' "$log" | head -n 5
        status=1
    fi
done
exit $status
