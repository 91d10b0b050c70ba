#!/usr/bin/env bash
# Installs what is missing, builds, and runs every check CI runs: the test
# suite in a normal build, again under AddressSanitizer and
# UndefinedBehaviorSanitizer, and again under ThreadSanitizer, and again
# cross-built for 32-bit ARM under emulation; then each fuzz target for a
# bounded time. Ends with one line "N passed, N failed".
set -uo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"

sudo_if_needed() {
    if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}
sudo_if_needed bash scripts/install-deps.sh || exit 1

passed=0
failed=0

# run_suite NAME BUILD_DIR MESON_OPTIONS...
run_suite() {
    local name=$1 dir=$2
    shift 2
    echo "=== $name: configure and build ($dir)"
    if [ ! -f "$dir/build.ninja" ]; then
        if ! meson setup "$dir" "$@" >"$dir.setup.log" 2>&1; then
            cat "$dir.setup.log"
            echo "=== $name: configure failed"
            failed=$((failed + 1))
            return
        fi
    fi
    if ! ninja -C "$dir" >"$dir.build.log" 2>&1; then
        tail -50 "$dir.build.log"
        echo "=== $name: build failed"
        failed=$((failed + 1))
        return
    fi
    echo "=== $name: tests"
    # suite_test_args: more options for meson test, split into words.
    # shellcheck disable=SC2086
    meson test -C "$dir" --print-errorlogs --num-processes 1 ${suite_test_args:-} 2>&1 | tee "$dir.test.log" | grep -E '^ *[0-9]+/[0-9]+ |^(Ok|Fail|Expected Fail|Unexpected Pass|Skipped|Timeout):'
    local ok fail timeout
    ok=$(grep -E '^Ok:' "$dir.test.log" | awk '{print $2}')
    fail=$(grep -E '^Fail:' "$dir.test.log" | awk '{print $2}')
    timeout=$(grep -E '^Timeout:' "$dir.test.log" | awk '{print $2}')
    if [ -z "$ok" ]; then
        echo "=== $name: no test summary"
        failed=$((failed + 1))
        return
    fi
    passed=$((passed + ${ok:-0}))
    failed=$((failed + ${fail:-0} + ${timeout:-0}))
}

run_suite "normal" build-ci -Dwerror=true
run_suite "address+undefined sanitizers" build-asan -Dwerror=true \
    -Db_sanitize=address,undefined -Db_lundef=false -Dbuildtype=debug

# The ThreadSanitizer build uses clang: gcc refuses the atomic fences of the
# asio headers under -fsanitize=thread. Reports go to files, so that those of
# the daemons the tests start as child processes are seen too; any report
# counts as one more failure.
tsan_reports="$top/build-tsan.reports"
rm -rf "$tsan_reports"
mkdir -p "$tsan_reports"
export TSAN_OPTIONS="halt_on_error=0 second_deadlock_stack=1 log_path=$tsan_reports/report"
CC=clang CXX=clang++ run_suite "thread sanitizer" build-tsan -Dwerror=true \
    -Db_sanitize=thread -Db_lundef=false -Dbuildtype=debug
unset TSAN_OPTIONS
if [ -n "$(ls -A "$tsan_reports")" ]; then
    cat "$tsan_reports"/* | head -200
    echo "=== thread sanitizer: reports in $tsan_reports"
    failed=$((failed + 1))
fi

# The 32-bit ARM target: cross-built against the armhf sysroot, its tests,
# and the daemon and stand-ins they start, run under user-mode emulation
# (the bus daemon and journald stay native). The whole suite runs: emulated,
# it takes about six minutes, most of them the simulator tests; the longer
# time limits allow for a loaded machine.
if sudo_if_needed bash scripts/install-deps.sh --armhf >build-armhf.deps.log 2>&1; then
    suite_test_args="--timeout-multiplier 4" run_suite "armhf (emulated)" \
        build-armhf --cross-file cross/arm-linux-gnueabihf.ini -Dwerror=true
else
    cat build-armhf.deps.log
    echo "=== armhf: could not install the cross tools and sysroot"
    failed=$((failed + 1))
fi

# run_fuzzers SECONDS: builds the fuzz targets with clang, libFuzzer and
# AddressSanitizer+UndefinedBehaviorSanitizer (every finding aborts), and
# runs each for SECONDS on its seed corpus in fuzz/corpus/<target>. New
# inputs go to a scratch directory, so the repository's corpus stays as it
# is. A crash, leak, time-out or sanitizer report fails the target; each
# target counts as one test.
run_fuzzers() {
    local seconds=$1 dir=build-fuzz
    echo "=== fuzzing: configure and build ($dir)"
    if [ ! -f "$dir/build.ninja" ]; then
        if ! CC=clang CXX=clang++ meson setup "$dir" -Dwerror=true \
            -Dfuzzing=true -Dtests=false -Dbuildtype=debugoptimized \
            -Db_sanitize=address,undefined -Db_lundef=false \
            "-Dcpp_args=-fsanitize=fuzzer-no-link -fno-sanitize-recover=all" \
            >"$dir.setup.log" 2>&1; then
            cat "$dir.setup.log"
            echo "=== fuzzing: configure failed"
            failed=$((failed + 1))
            return
        fi
    fi
    if ! ninja -C "$dir" >"$dir.build.log" 2>&1; then
        tail -50 "$dir.build.log"
        echo "=== fuzzing: build failed"
        failed=$((failed + 1))
        return
    fi
    local target scratch
    for target in record json-property psu-file os-release vpd-merge \
        riser-readout; do
        scratch=$(mktemp -d)
        echo "=== fuzzing: $target for ${seconds}s"
        if "$dir/fuzz/fuzz-$target" -max_total_time="$seconds" \
            -close_fd_mask=3 -timeout=25 -rss_limit_mb=2048 \
            -artifact_prefix="$dir/fuzz-$target-" \
            "$scratch" "fuzz/corpus/$target" >"$dir.$target.log" 2>&1; then
            grep -E '^#[0-9]+[[:space:]]+DONE' "$dir.$target.log" | tail -1
            passed=$((passed + 1))
        else
            tail -60 "$dir.$target.log"
            echo "=== fuzzing: $target FAILED (input in $dir/fuzz-$target-*)"
            failed=$((failed + 1))
        fi
        rm -rf "$scratch"
    done
}
run_fuzzers "${HWTOPOD_FUZZ_SECONDS:-50}"

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
