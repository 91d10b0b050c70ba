#!/usr/bin/env bash
# Installs what is missing, builds, and runs every check CI runs: the test
# suite in a normal build and again under AddressSanitizer and
# UndefinedBehaviorSanitizer. Ends with one line "N passed, N failed".
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
    meson test -C "$dir" --print-errorlogs --num-processes 1 2>&1 | tee "$dir.test.log" | grep -E '^ *[0-9]+/[0-9]+ |^(Ok|Fail|Expected Fail|Unexpected Pass|Skipped|Timeout):'
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

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
