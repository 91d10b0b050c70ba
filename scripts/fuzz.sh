#!/usr/bin/env bash
# Exploratory fuzzing: scripts/fuzz.sh [SECONDS] [TARGET]
#
# Builds the fuzz targets (build-fuzz) and runs TARGET, or every target one
# after the other, for SECONDS each (default 600) from a random seed on its
# corpus in fuzz/corpus/<target>. Inputs that reach new code are kept in
# build-fuzz/explore/<target> for the next run; findings are written to
# build-fuzz/findings/<target>-crash-<hash> (or leak-, timeout-, oom-), and
# the run goes on past them. A finding, once fixed, goes into
# fuzz/corpus/<target> under a name that says what it found, so that every
# CI run replays it.
set -uo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
# shellcheck source=scripts/fuzz-common.sh
. scripts/fuzz-common.sh

seconds=${1:-600}
only=${2:-}
dir=build-fuzz

build_fuzz_targets "$dir" || exit 1
targets=$(fuzz_targets "$dir")
if [ -n "$only" ]; then
    if ! grep -qx "$only" <<<"$targets"; then
        echo "no fuzz target $only; there are:" $targets
        exit 2
    fi
    targets=$only
fi

mkdir -p "$dir/findings"
status=0
for target in $targets; do
    explore="$dir/explore/$target"
    log="$dir/explore-$target.log"
    mkdir -p "$explore"
    echo "=== $target for ${seconds}s (log $log)"
    # Fork mode with one job: a finding is saved and fuzzing goes on. The
    # jobs' own output goes to files of libFuzzer's; standard error stays
    # open so that the report of a finding reaches the log.
    "$dir/fuzz/fuzz-$target" -fork=1 -ignore_crashes=1 -ignore_timeouts=1 \
        -ignore_ooms=1 -max_total_time="$seconds" -close_fd_mask=1 \
        "${fuzz_options[@]}" \
        -artifact_prefix="$dir/findings/$target-" \
        "$explore" "fuzz/corpus/$target" >"$log" 2>&1
    # The last status line: executions, coverage, features, crashes.
    grep -E '^#[0-9]+: cov: ' "$log" | tail -1
    found=$(find "$dir/findings" -name "$target-*" | wc -l)
    echo "=== $target: $found finding(s) in $dir/findings"
    [ "$found" -eq 0 ] || status=1
done
exit $status
