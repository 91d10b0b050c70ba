# Sourced by scripts/test.sh and scripts/fuzz.sh: the fuzz build and its
# targets. Both run from the top of the checkout.

# build_fuzz_targets DIR: configures DIR (once) with clang, libFuzzer and
# AddressSanitizer+UndefinedBehaviorSanitizer, every finding aborting, and
# builds it. Logs go to DIR.setup.log and DIR.build.log; returns non-zero
# after printing what failed.
build_fuzz_targets() {
    local dir=$1
    if [ ! -f "$dir/build.ninja" ]; then
        if ! CC=clang CXX=clang++ meson setup "$dir" -Dwerror=true \
            -Dfuzzing=true -Dtests=disabled -Dbuildtype=debugoptimized \
            -Db_sanitize=address,undefined -Db_lundef=false \
            "-Dcpp_args=-fsanitize=fuzzer-no-link -fno-sanitize-recover=all" \
            >"$dir.setup.log" 2>&1; then
            cat "$dir.setup.log"
            echo "=== fuzzing: configure failed"
            return 1
        fi
    fi
    if ! ninja -C "$dir" >"$dir.build.log" 2>&1; then
        tail -50 "$dir.build.log"
        echo "=== fuzzing: build failed"
        return 1
    fi
}

# fuzz_targets DIR: the names of the targets built in DIR, one a line. A
# target added to fuzz/meson.build is picked up here without more ado.
fuzz_targets() {
    local binary
    for binary in "$1"/fuzz/fuzz-*; do
        [ -x "$binary" ] && [ -f "$binary" ] && basename "$binary" | sed 's/^fuzz-//'
    done
}

# Limits of every fuzzer run that a healthy input never comes near.
fuzz_options=(-timeout=25 -rss_limit_mb=2048)
