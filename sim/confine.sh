#!/usr/bin/env bash
# Runs a command with faults of its file system, in the mount namespace that
# the simulator makes for it with `unshare --mount --propagation private`:
#
#   confine.sh --root DIR [--no-journal] [--configuration read-only|full] \
#       -- command...
#
# --no-journal leaves the journal's socket as a journald that has gone
# leaves it: there, but nobody reads it.
# --configuration read-only makes DIR/var/configuration read-only;
# --configuration full puts it on a small file system that is full, with
# the files it held before. The command replaces this script, so that it
# keeps its process id.
set -euo pipefail

root=""
journal=1
configuration=""
while [ $# -gt 0 ]; do
    case "$1" in
    --root) root=$2; shift ;;
    --no-journal) journal=0 ;;
    --configuration) configuration=$2; shift ;;
    --) shift; break ;;
    *) echo "confine: unknown option $1" >&2; exit 2 ;;
    esac
    shift
done
[ -n "$root" ] && [ $# -gt 0 ] || { echo "confine: --root DIR -- command" >&2; exit 2; }

if [ "$journal" = 0 ]; then
    mkdir -p /run/systemd/journal
    mount -t tmpfs -o size=64k,mode=0755 hwtopod-no-journal /run/systemd/journal
    python3 -c 'import socket, sys
socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM).bind(sys.argv[1])' \
        /run/systemd/journal/socket
fi

directory="$root/var/configuration"
case "$configuration" in
"") ;;
read-only)
    mount --bind "$directory" "$directory"
    mount -o remount,bind,ro "$directory"
    ;;
full)
    kept=$(mktemp -d)
    cp -a "$directory/." "$kept/"
    mount -t tmpfs -o size=16k,mode=0755 hwtopod-full "$directory"
    cp -a "$kept/." "$directory/"
    rm -rf "$kept"
    # Whatever space is left is taken.
    dd if=/dev/zero of="$directory/.filler" bs=1k 2>/dev/null || true
    ;;
*) echo "confine: --configuration read-only|full" >&2; exit 2 ;;
esac

exec "$@"
