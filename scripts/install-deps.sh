#!/usr/bin/env bash
# Installs everything needed to build, run and test hwtopod on a fresh Debian
# (12, bookworm, or 13, trixie) machine. Safe to run again: packages already
# present are skipped.
# With --armhf also what the 32-bit ARM build and its emulated run need
# (scripts/install-armhf.sh); with --boot that and what the boot test on the
# emulated BMC board needs (scripts/boot-image.sh makes its cached system);
# with --debian13 what makes the Debian 13 root (scripts/debian13.sh).
set -euo pipefail

armhf=0
boot=0
debian13=0
case "${1:-}" in
--armhf) armhf=1 ;;
--boot) armhf=1 boot=1 ;;
--debian13) debian13=1 ;;
esac

packages=(
    meson ninja-build pkg-config g++ clang libclang-rt-dev clang-format
    clang-tidy
    libsdbus-c++-dev libsystemd-dev libboost-dev nlohmann-json3-dev
    libgpiod-dev libgtest-dev libgmock-dev
    dbus-daemon dbus systemd python3 python3-jsonschema
)
# The cross compiler (through ccache, as the cross file names it) and the
# user-mode emulator; the rest of the ARM build is install-armhf.sh's.
if [ "$armhf" = 1 ]; then
    packages+=(crossbuild-essential-armhf qemu-user ccache)
fi
# The guest's system is made with Debian's own tools; its maintainer scripts
# run under a static emulator copied into it; the board is emulated whole,
# with its device tree changed and its kernel modules indexed on the host.
if [ "$boot" = 1 ]; then
    packages+=(mmdebstrap arch-test qemu-user-static qemu-system-arm cpio
        device-tree-compiler kmod)
fi

if [ "$debian13" = 1 ]; then
    packages=(mmdebstrap)
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    echo "install-deps: all packages present"
else
    if [ "$(id -u)" -ne 0 ]; then
        echo "install-deps: missing ${missing[*]}; run as root" >&2
        exit 1
    fi
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
    echo "install-deps: installed ${missing[*]}"
fi

if [ "$armhf" = 1 ]; then
    bash "$(dirname "$0")/install-armhf.sh"
fi
