#!/usr/bin/env bash
# Installs what is missing, builds, and runs every check CI runs, stage by
# stage (docs/testing.md says what each covers): the whole suite in a normal
# build on this Debian; the house style; the suite's unit and daemon tests
# again under AddressSanitizer and UndefinedBehaviorSanitizer, and under
# ThreadSanitizer; the 32-bit ARM build, its unit and daemon tests under
# emulation; the whole suite again in a Debian 13 root, against the newer
# generation of the GPIO and D-Bus libraries; the ARM build booted as a
# system service on the emulated BMC board; then each fuzz target on its
# corpus and a fixed number of runs. Each stage prints its time. Ends with
# one line "N passed, N failed".
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
run_started=$SECONDS

# stage NAME: marks the start of a stage; the previous one's time is printed.
stage_name=""
stage_started=$SECONDS
stage() {
    if [ -n "$stage_name" ]; then
        echo "=== time: $stage_name $((SECONDS - stage_started)) s"
    fi
    stage_name=$1
    stage_started=$SECONDS
}

# run_suite NAME BUILD_DIR MESON_OPTIONS...: configures (once), builds and
# tests. suite_test_args: more options for meson test, split into words;
# in_root: a command that every step runs under (the Debian 13 root).
in_root=()
run_suite() {
    local name=$1 dir=$2
    shift 2
    echo "=== $name: configure and build ($dir)"
    if [ ! -f "$dir/build.ninja" ]; then
        if ! "${in_root[@]}" meson setup "$dir" "$@" >"$dir.setup.log" 2>&1; then
            cat "$dir.setup.log"
            echo "=== $name: configure failed"
            failed=$((failed + 1))
            return
        fi
    fi
    if ! "${in_root[@]}" ninja -C "$dir" >"$dir.build.log" 2>&1; then
        tail -50 "$dir.build.log"
        echo "=== $name: build failed"
        failed=$((failed + 1))
        return
    fi
    echo "=== $name: tests"
    # shellcheck disable=SC2086
    "${in_root[@]}" meson test -C "$dir" --print-errorlogs --num-processes 1 ${suite_test_args:-} 2>&1 | tee "$dir.test.log" | grep -E '^ *[0-9]+/[0-9]+ |^(Ok|Fail|Expected Fail|Unexpected Pass|Skipped|Timeout):'
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

stage "normal"
run_suite "normal" build-ci -Dwerror=true
# The house style on the normal build's compile commands: clang-format on
# every C++ file and clang-tidy on the sources, one test each.
stage "static checks"
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

# The sanitizer builds and the emulated ARM build run every suite but the
# simulator's: its scenarios drive the same daemon code as the daemon tests
# here, through many more runs of the whole daemon, and take most of a
# suite's time; they run in the normal build of both Debian generations.
stage "address+undefined sanitizers"
suite_test_args="--no-suite sim" run_suite "address+undefined sanitizers" \
    build-asan -Dwerror=true \
    -Db_sanitize=address,undefined -Db_lundef=false -Dbuildtype=debug

# The ThreadSanitizer build uses clang: gcc refuses the atomic fences of the
# asio headers under -fsanitize=thread. Reports go to files, so that those of
# the daemons the tests start as child processes are seen too; any report
# counts as one more failure.
tsan_reports="$top/build-tsan.reports"
rm -rf "$tsan_reports"
mkdir -p "$tsan_reports"
export TSAN_OPTIONS="halt_on_error=0 second_deadlock_stack=1 log_path=$tsan_reports/report suppressions=$top/scripts/tsan.supp"
stage "thread sanitizer"
CC=clang CXX=clang++ suite_test_args="--no-suite sim" run_suite \
    "thread sanitizer" build-tsan -Dwerror=true \
    -Db_sanitize=thread -Db_lundef=false -Dbuildtype=debug
unset TSAN_OPTIONS
if [ -n "$(ls -A "$tsan_reports")" ]; then
    cat "$tsan_reports"/* | head -200
    echo "=== thread sanitizer: reports in $tsan_reports"
    failed=$((failed + 1))
fi

# The 32-bit ARM target: cross-built against the armhf sysroot, its tests,
# and the daemon and stand-ins they start, run under user-mode emulation
# (the bus daemon and journald stay native). The simulator's suite is left
# out: emulated it took most of ten minutes, and the boot test below runs
# the daemon on the emulated board for real (built against Debian 13 there:
# this stage is the one 32-bit run of Debian 12's libraries).
stage "armhf (emulated)"
if sudo_if_needed bash scripts/install-deps.sh --armhf >build-armhf.deps.log 2>&1; then
    suite_test_args="--timeout-multiplier 4 --no-suite sim" run_suite \
        "armhf (emulated)" build-armhf \
        --cross-file cross/arm-linux-gnueabihf.ini -Dwerror=true --prefix=/usr
else
    cat build-armhf.deps.log
    echo "=== armhf: could not install the cross tools and sysroot"
    failed=$((failed + 1))
fi

# Debian 13, as a new user meets the project there: a plain Debian 13 root
# (scripts/debian13.sh, cached like the boot system), in which
# install-deps.sh installs what is missing; then the normal build with the
# newer generation of the GPIO and D-Bus libraries, the whole suite with the
# image-only build check, and the simulator's healthy machine.
stage "debian 13"
if sudo_if_needed bash scripts/install-deps.sh --debian13 >build-d13.deps.log 2>&1 &&
    sudo_if_needed bash scripts/debian13.sh bash scripts/install-deps.sh >>build-d13.deps.log 2>&1; then
    in_root=(sudo_if_needed bash scripts/debian13.sh)
    run_suite "debian 13" build-d13 -Dwerror=true
    echo "=== debian 13: the simulator's healthy machine"
    if "${in_root[@]}" env HWTOPOD_BUILD_DIR="$top/build-d13" \
        bash scripts/simulate.sh healthy >build-d13.simulate.log 2>&1; then
        grep -m1 -E 'backplane|riser' build-d13.simulate.log || true
        passed=$((passed + 1))
    else
        tail -40 build-d13.simulate.log
        echo "=== debian 13: simulator FAILED"
        failed=$((failed + 1))
    fi
    in_root=()
else
    tail -40 build-d13.deps.log
    echo "=== debian 13: could not make the root or install into it"
    failed=$((failed + 1))
fi

# The boot test: a minimal Debian 13 armhf system that boots on the
# emulated AST2600 BMC board, with the daemon cross-built in the Debian 13
# root against that release's libraries (build-armhf-trixie), where systemd
# runs it beside the stand-ins' units (scripts/boot-image.sh). One test; the
# first run on a machine also makes the cached system, which takes minutes.
stage "boot test"
echo "=== boot test on the emulated BMC board"
if sudo_if_needed bash scripts/install-deps.sh --boot >build-boot.deps.log 2>&1 &&
    sudo_if_needed bash scripts/boot-image.sh >build-boot.log 2>&1; then
    grep '^boot test: ' build-boot.log
    passed=$((passed + 1))
else
    cat build-boot.deps.log
    tail -100 build-boot.log
    echo "=== boot test FAILED"
    failed=$((failed + 1))
fi

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
stage "fuzzing"
run_fuzzers "${HWTOPOD_FUZZ_RUNS:-20000}"
stage ""
echo "=== time: whole run $((SECONDS - run_started)) s"

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
