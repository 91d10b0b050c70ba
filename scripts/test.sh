#!/usr/bin/env bash
# Installs what is missing, builds, and runs every check CI runs: the test
# suite in a normal build, again under AddressSanitizer and
# UndefinedBehaviorSanitizer, again under ThreadSanitizer, and again
# cross-built for 32-bit ARM under emulation; that build booted as a system
# service on the emulated BMC board; then each fuzz target on its corpus and
# a fixed number of runs. Ends with one line "N passed, N failed".
set -uo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
# shellcheck source=scripts/fuzz-common.sh
. scripts/fuzz-common.sh

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
# The house style on the normal build's compile commands: clang-format on
# every C++ file and clang-tidy on the sources, one test each.
echo "=== static checks (build-ci)"
if [ -f build-ci/compile_commands.json ]; then
    static_log=build-ci.static.log
    bash scripts/static-checks.sh build-ci >"$static_log" 2>&1
    grep -vE '^(ok|FAILED) ' "$static_log" | head -100
    grep -E '^(ok|FAILED) ' "$static_log"
    passed=$((passed + $(grep -c '^ok ' "$static_log")))
    failed=$((failed + $(grep -c '^FAILED ' "$static_log")))
else
    echo "=== static checks: no compile commands"
    failed=$((failed + 1))
fi

run_suite "address+undefined sanitizers" build-asan -Dwerror=true \
    -Db_sanitize=address,undefined -Db_lundef=false -Dbuildtype=debug

# The ThreadSanitizer build uses clang: gcc refuses the atomic fences of the
# asio headers under -fsanitize=thread. Reports go to files, so that those of
# the daemons the tests start as child processes are seen too; any report
# counts as one more failure.
tsan_reports="$top/build-tsan.reports"
rm -rf "$tsan_reports"
mkdir -p "$tsan_reports"
export TSAN_OPTIONS="halt_on_error=0 second_deadlock_stack=1 log_path=$tsan_reports/report suppressions=$top/scripts/tsan.supp"
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
# time limits allow for a loaded machine. The prefix is an image's, as the
# boot test below installs this build.
if sudo_if_needed bash scripts/install-deps.sh --armhf >build-armhf.deps.log 2>&1; then
    suite_test_args="--timeout-multiplier 4" run_suite "armhf (emulated)" \
        build-armhf --cross-file cross/arm-linux-gnueabihf.ini -Dwerror=true --prefix=/usr
else
    cat build-armhf.deps.log
    echo "=== armhf: could not install the cross tools and sysroot"
    failed=$((failed + 1))
fi

# The boot test: the armhf build above installed into a minimal Debian
# system that boots on the emulated AST2600 BMC board, where systemd runs the
# daemon beside the stand-ins' units (scripts/boot-image.sh). One test; the
# first run on a machine also makes the cached system, which takes minutes.
echo "=== boot test on the emulated BMC board"
boot_started=$SECONDS
if sudo_if_needed bash scripts/install-deps.sh --boot >build-boot.deps.log 2>&1 &&
    sudo_if_needed env HWTOPOD_BUILD_DIR="$top/build-armhf" bash scripts/boot-image.sh >build-boot.log 2>&1; then
    grep '^boot test: ' build-boot.log
    passed=$((passed + 1))
else
    cat build-boot.deps.log
    tail -100 build-boot.log
    echo "=== boot test FAILED"
    failed=$((failed + 1))
fi
echo "=== boot test: $((SECONDS - boot_started)) s"

# run_fuzzers RUNS: each fuzz target replays its whole seed corpus in
# fuzz/corpus/<target>, then mutates it for RUNS executions from a fixed
# seed, so that one commit always gets the same verdict; exploring for new
# findings is scripts/fuzz.sh. New inputs go to a scratch directory, so the
# repository's corpus stays as it is. A crash, leak, time-out or sanitizer
# report fails the target; each target counts as one test.
run_fuzzers() {
    local runs=$1 dir=build-fuzz
    echo "=== fuzzing: configure and build ($dir)"
    if ! build_fuzz_targets "$dir"; then
        failed=$((failed + 1))
        return
    fi
    # What would make two runs differ: the corpus read back from the
    # scratch directory at times given by the clock (-reload), and
    # addresses, which reach the mutations through compared pointers (no
    # address randomization where the kernel allows it to be turned off).
    local fixed=()
    if setarch "$(uname -m)" -R true 2>/dev/null; then
        fixed=(setarch "$(uname -m)" -R)
    fi
    local target scratch log fuzzer
    for target in $(fuzz_targets "$dir"); do
        scratch=$(mktemp -d)
        log="$dir.$target.log"
        fuzzer=("${fixed[@]}" "$dir/fuzz/fuzz-$target" -close_fd_mask=3
            -reload=0 "${fuzz_options[@]}" -artifact_prefix="$dir/fuzz-$target-")
        echo "=== fuzzing: $target, its corpus and $runs runs from seed 1"
        if "${fuzzer[@]}" -runs=0 "fuzz/corpus/$target" >"$log" 2>&1 &&
            "${fuzzer[@]}" -runs="$runs" -seed=1 "$scratch" \
                "fuzz/corpus/$target" >>"$log" 2>&1; then
            grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -1
            passed=$((passed + 1))
        else
            tail -60 "$log"
            echo "=== fuzzing: $target FAILED (input in $dir/fuzz-$target-*)"
            failed=$((failed + 1))
        fi
        rm -rf "$scratch"
    done
}
run_fuzzers "${HWTOPOD_FUZZ_RUNS:-20000}"

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
