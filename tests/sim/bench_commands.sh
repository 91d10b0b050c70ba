#!/usr/bin/env bash
# Each benchmark command as small as it goes (one run, a second of idling, a
# few edges) must run to its end and print every figure; the figures
# themselves are not judged. Arguments: build directory, source directory.
set -uo pipefail
build=$1
bench=$2/bench

expect_rows() {
    local out=$1 row
    shift
    for row in "$@"; do
        grep -qF "| $row" <<<"$out" || { echo "no figure: $row"; exit 1; }
    done
}

out=$(python3 "$bench/run.py" --build "$build" --runs 1 --more-runs 1 \
    --idle 1 --edges 4) || exit 1
echo "$out"
expect_rows "$out" "Discovery, healthy machine (1 runs) | median" \
    "Its floor: " "Its ratio discovery / floor | median" \
    "Split: discovery worker on a CPU / waiting for one / blocked | median" \
    "Split: its blocks" "Split: bus thread" "Split: log lines" "Split: result files" \
    "Resident memory after discovery" "Idle CPU over 1 s" \
    "GPIO edge to journal record, 4 edges" \
    "Discovery with 1000 more VPD objects (1 runs) | median" \
    "Resident memory after 1000 more objects"

out=$(python3 "$bench/soak.py" --build "$build" --seconds 1) || exit 1
echo "$out"
expect_rows "$out" "VmRSS after warm-up" "Edges the monitor logged"
