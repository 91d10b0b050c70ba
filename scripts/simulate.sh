#!/usr/bin/env bash
# Builds the daemon, starts a private system bus, runs the real binary on a
# sandbox root and shows what it publishes, then tears everything down.
set -euo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
if [ "$(id -u)" -eq 0 ]; then bash scripts/install-deps.sh >/dev/null; else sudo bash scripts/install-deps.sh >/dev/null; fi
[ -f build/build.ninja ] || meson setup build >/dev/null
ninja -C build >/dev/null

work=$(mktemp -d /tmp/hwtopod-sim-XXXXXX)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT INT TERM

sed "s|@SOCKET@|$work/bus.socket|" tests/data/system-bus.conf.in >"$work/bus.conf"
dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile &
pids+=($!)
for _ in $(seq 100); do [ -S "$work/bus.socket" ] && break; sleep 0.05; done
export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/bus.socket"

root="$work/root"
mkdir -p "$root/etc" "$root/usr/share/vantarack-bmc-apps/hwtopod" "$root/var/configuration"
echo 'HALVEX_BUILDID="QDM413B"' >"$root/etc/os-release"
cp data/*.json "$root/usr/share/vantarack-bmc-apps/hwtopod/"

HWTOPOD_ROOT="$root" HWTOPOD_STATUS=normal build/src/platforms/hwtopod 2>"$work/hwtopod.log" &
pids+=($!)
for _ in $(seq 100); do grep -q "platformInfoInit added" "$work/hwtopod.log" 2>/dev/null && break; sleep 0.1; done

echo "== hwtopod log"
cat "$work/hwtopod.log"
echo "== objects of com.halvex.hwtopod"
busctl --address="$DBUS_SYSTEM_BUS_ADDRESS" tree com.halvex.hwtopod
for path in /com/halvex/platform/basecfg /com/halvex/platform/software/config /com/halvex/platform/hardware/chassis; do
    echo "== $path"
    busctl --address="$DBUS_SYSTEM_BUS_ADDRESS" introspect com.halvex.hwtopod "$path" | grep -v '^\.\(Get\|Set\|Introspect\|Ping\|GetAll\|GetMachineId\|PropertiesChanged\)\b' | grep -v 'org.freedesktop.DBus'
done
