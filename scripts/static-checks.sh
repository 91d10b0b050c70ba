#!/usr/bin/env bash
# The house style, checked: clang-format on every tracked C++ file, and
# clang-tidy (.clang-tidy) on the daemon's, the stand-ins', the tools' and
# the benchmarks' sources with the compile commands of BUILD_DIR. Prints one
# line per check, "ok NAME" or "FAILED NAME", and exits non-zero when one
# failed. Usage: static-checks.sh BUILD_DIR
set -uo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
build=${1:?usage: static-checks.sh BUILD_DIR}
status=0

mapfile -t cxx < <(git ls-files '*.cpp' '*.hpp' '*.h')
if clang-format --dry-run -Werror "${cxx[@]}"; then
    echo "ok format"
else
    echo "FAILED format: run clang-format -i on the files above"
    status=1
fi

mapfile -t sources < <(git ls-files 'src/*.cpp' 'sim/*.cpp' 'tools/*.cpp' \
    'bench/*.cpp')
# -quiet leaves only the findings; the header filter of .clang-tidy brings in
# the project's own headers.
if run-clang-tidy -quiet -j "$(nproc)" -p "$build" "${sources[@]}" \
    >"$build/clang-tidy.log" 2>&1 &&
    ! grep -qE '(warning|error): ' "$build/clang-tidy.log"; then
    echo "ok clang-tidy"
else
    grep -E '(warning|error): ' "$build/clang-tidy.log" | sort -u | head -100
    echo "FAILED clang-tidy: findings above, whole log in $build/clang-tidy.log"
    status=1
fi
exit $status
