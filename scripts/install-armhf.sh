#!/usr/bin/env bash
# Makes what the 32-bit ARM (armhf) build and its emulated test run need,
# called by install-deps.sh --armhf. Safe to run again: each step is skipped
# when its result is there. install-deps.sh has installed the cross compiler
# and the emulator already; this script makes
# - a sysroot with the armhf builds of every library the daemon, the tools
#   and the tests link, at /opt/hwtopod/sysroot-armhf (the path the cross
#   file names). The armhf packages are not installed beside the native
#   ones: their index is read by an apt of its own (its lists and its empty
#   status file under $sysroot.apt), which resolves their dependencies, and
#   each downloaded package is unpacked into the sysroot. That works whatever
#   state the machine's own armhf index is in (one of the indexes may fail
#   to fetch: what the others have is enough);
# - binfmt_misc, so that ARM programs started by the tests run under the
#   emulator as any program does, their libraries found in the sysroot.
set -euo pipefail

sysroot=/opt/hwtopod/sysroot-armhf
say() { echo "install-armhf: $*"; }

# What the build links, and what the emulated programs load. The C++
# library's headers are those of the cross compiler's version, whichever
# release of Debian it comes from.
gcc_major=$(arm-linux-gnueabihf-g++ -dumpversion | cut -d. -f1)
libraries=(
    libc6-dev "libstdc++-$gcc_major-dev" libsdbus-c++-dev libsystemd-dev
    libgpiod-dev libgtest-dev libgmock-dev libboost-dev nlohmann-json3-dev
)
stamp="$sysroot/.hwtopod-packages"

# alias_sources FILE: the machine's sources, as its own apt has read them,
# each under the suite name (stable, oldstable...) its Release file gives.
alias_sources() {
    # shellcheck disable=SC2016
    apt-get indextargets --format '$(REPO_URI) $(SUITE) $(COMPONENT)' 'Created-By: Packages' |
        sort -u | sed 's/^/deb /' >"$1"
}
if [ "$(cat "$stamp" 2>/dev/null)" != "${libraries[*]}" ]; then
    state="$sysroot.apt"
    rm -rf "$state"
    mkdir -p "$state/lists/partial" "$state/archives/partial" "$sysroot"
    : >"$state/status"
    apt_armhf=(apt-get -q -o APT::Architecture=armhf -o APT::Architectures::=armhf
        -o Dir::State::Lists="$state/lists" -o Dir::State::status="$state/status"
        -o Dir::Cache="$state" -o Dir::Cache::archives="$state/archives"
        -o Debug::NoLocking=1)
    # A failed index leaves the others usable; a missing package fails below.
    "${apt_armhf[@]}" update >"$state/update.log" 2>&1 || say "some armhf indexes did not download (see $state/update.log)"
    # A mirror caught syncing serves an index its release's Release file
    # does not describe yet; the release's other name (stable, testing) may
    # still describe it: the same sources under that name are tried instead.
    if grep -q 'Mirror sync in progress' "$state/update.log"; then
        mkdir -p "$state/sources.list.d"
        alias_sources "$state/sources.list"
        apt_armhf+=(-o Dir::Etc::SourceList="$state/sources.list" -o Dir::Etc::SourceParts="$state/sources.list.d")
        "${apt_armhf[@]}" update >>"$state/update.log" 2>&1 || say "the armhf indexes did not download under the release's other name either"
    fi
    "${apt_armhf[@]}" install -y --download-only --no-install-recommends \
        "${libraries[@]}" >"$state/download.log" 2>&1 || {
        tail -20 "$state/download.log" >&2
        say "could not download the armhf libraries"
        exit 1
    }
    for deb in "$state"/archives/*.deb; do
        dpkg-deb -x "$deb" "$sysroot"
    done
    # Absolute symbolic links would point out of the sysroot: the linker
    # and the emulator need them relative.
    find "$sysroot" -type l -lname '/*' | while read -r link; do
        target=$(readlink "$link")
        ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot$target")" "$link"
    done
    # Debian's merged /usr: the dynamic loader is looked up in /lib.
    [ -e "$sysroot/lib/ld-linux-armhf.so.3" ] || {
        mkdir -p "$sysroot/lib"
        ln -sfn ../usr/lib/ld-linux-armhf.so.3 "$sysroot/lib/ld-linux-armhf.so.3"
    }
    rm -rf "$state/archives"
    echo "${libraries[*]}" >"$stamp"
    say "armhf sysroot in $sysroot"
fi

# ARM programs run under the emulator, which looks up their loader and
# libraries under /etc/qemu-binfmt/arm first: there is the sysroot, so that
# no environment has to be handed down to the programs the tests start.
if [ ! -e /etc/qemu-binfmt/arm ]; then
    mkdir -p /etc/qemu-binfmt
    ln -sfn "$sysroot" /etc/qemu-binfmt/arm
fi
binfmt=/proc/sys/fs/binfmt_misc
if [ ! -e "$binfmt/register" ]; then
    mount -t binfmt_misc binfmt_misc "$binfmt"
fi
if [ ! -e "$binfmt/qemu-arm" ]; then
    printf '%s' ':qemu-arm:M::\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00:\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff:/usr/bin/qemu-arm:' >"$binfmt/register"
    say "ARM programs run under /usr/bin/qemu-arm"
fi
