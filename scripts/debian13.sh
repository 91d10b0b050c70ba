#!/usr/bin/env bash
# Runs a command in a Debian 13 (trixie) root, as a new user on Debian 13
# meets the project: the root is a plain mmdebstrap system with apt, cached
# in $HWTOPOD_DEBIAN13_ROOT (default /opt/hwtopod/debian13) and made again
# when missing or when its package list below changes; the checkout is
# bound at its own path, so build directories made inside keep their
# paths; scripts/install-deps.sh, run inside by the command, installs what
# is missing. The mounts live in a mount namespace of their own and go with
# the command. Needs root and mmdebstrap (install-deps.sh --debian13).
#
#   scripts/debian13.sh [COMMAND [ARG...]]   (default: an interactive shell)
set -euo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
root=${HWTOPOD_DEBIAN13_ROOT:-/opt/hwtopod/debian13}
# shellcheck source=scripts/debian-mirror.sh
. "$top/scripts/debian-mirror.sh"
say() { echo "debian13: $*" >&2; }

# The mirror this machine's own sources name, as the boot system does.
debian_mirror() { echo "${HWTOPOD_DEBIAN_MIRROR:-$(machine_mirror)}"; }

# What a fresh Debian 13 machine has before the project's own script runs:
# apt, run as root. Everything else is install-deps.sh's to add.
base_packages=(ca-certificates)
stamp="trixie ${base_packages[*]}"
if [ "$(cat "$root/.hwtopod-stamp" 2>/dev/null)" != "$stamp" ]; then
    say "making the Debian 13 root in $root"
    rm -rf "$root"
    mkdir -p "$(dirname "$root")"
    mmdebstrap --variant=apt --include="$(
        IFS=,
        echo "${base_packages[*]}"
    )" trixie "$root" "deb $(debian_mirror) trixie main" >"$root.log" 2>&1 || {
        tail -30 "$root.log" >&2
        say "mmdebstrap failed (log in $root.log)"
        exit 1
    }
    echo "$stamp" >"$root/.hwtopod-stamp"
fi

[ $# -gt 0 ] || set -- bash -i
# A private /run and /tmp: the tests start their own bus daemons and, when
# none listens, a journald, which then belong to this root alone. In a PID
# namespace of its own, whatever the command leaves running (such a
# journald) ends with it.
exec unshare --mount --propagation private --pid --fork -- bash -euc '
    root=$1 top=$2
    shift 2
    # The root a mount of its own, as / is on a machine: the simulator
    # confines the daemon in a mount namespace made from it.
    mount --bind "$root" "$root"
    mkdir -p "$root/$top"
    mount --bind "$top" "$root/$top"
    mount -t proc proc "$root/proc"
    mount --rbind /sys "$root/sys"
    mount --rbind /dev "$root/dev"
    mount -t tmpfs tmpfs "$root/run"
    mount -t tmpfs tmpfs "$root/tmp"
    cp /etc/resolv.conf "$root/etc/resolv.conf" 2>/dev/null || true
    # The root becomes the namespace'"'"'s own root, not a chroot: a process
    # in a mount namespace made from it then sees the same paths as one
    # outside (the journal'"'"'s _EXE of a confined simulated daemon, say).
    mkdir -p "$root/.hwtopod-old-root"
    cd "$root"
    pivot_root . .hwtopod-old-root
    cd /
    umount -l /.hwtopod-old-root
    # Not the last command, so that this shell stays process 1 and reaps
    # what is orphaned.
    status=0
    env -i HOME=/root TERM="${TERM:-dumb}" \
        PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
        LANG=C.UTF-8 CI="${CI:-}" HWTOPOD_FUZZ_RUNS="${HWTOPOD_FUZZ_RUNS:-}" \
        bash -c "cd \"\$0\" && exec \"\$@\"" "$top" "$@" || status=$?
    exit "$status"
' debian13 "$root" "$top" "$@"
