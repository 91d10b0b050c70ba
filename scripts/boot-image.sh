#!/usr/bin/env bash
# Boots the cross-built daemon as a system service of a minimal Debian armhf
# system on the emulated AST2600 BMC board, and checks it there.
#
#   scripts/boot-image.sh                # the boot test; status 0 when it passes
#   scripts/boot-image.sh --interactive  # boot by hand, log in as root on ttyS4
#   scripts/boot-image.sh --base         # only make the cached base system
#
# The base system (Debian 13's systemd, dbus and the daemon's runtime
# libraries, made with mmdebstrap) and Debian 13's armmp-lpae kernel with
# the board's device tree are cached in $HWTOPOD_BOOT_CACHE (default
# /opt/hwtopod/boot-trixie-armhf) and made again when missing or when the
# package list below changes. Each run builds the daemon for 32-bit ARM
# against Debian 13's libraries in the Debian 13 root (scripts/debian13.sh;
# $HWTOPOD_BUILD_DIR, default ./build-armhf-trixie, inside the checkout,
# configured with the prefix /usr and built when needed), installs it into a
# second layer with `meson install --destdir`, adds the stand-ins of the
# platform's FPGA library and sibling services as units, and boots the two
# layers as one initramfs: the whole system lives in RAM, so no flash or
# disk driver is needed. The fault lines and the jumper are lines of the
# SoC's own GPIO controller, driven from the emulator's monitor, and the I2C
# buses the rule files name are the kernel's, partly behind emulated muxes
# (scripts/boot/board.py); the daemon uses Debian's GPIO library. The test
# unit in the guest prints "BOOTTEST ok|fail <check>" and "BOOTTEST figure
# <name> <value>" lines on the serial console and ends with "BOOTTEST done".
# Needs root (the base system keeps its owners) and the packages of
# install-deps.sh --boot (mmdebstrap among them, for the Debian 13 root).
# HWTOPOD_BOOT_OVERLAY names a directory whose files are laid over the image
# last, to try a change in the guest (a drop-in, a policy) without a
# rebuild; HWTOPOD_BOOT_LOG a file to keep the console's output in;
# HWTOPOD_BOOT_TIMEOUT the seconds a boot test may take (default 900).
set -euo pipefail
# The layers' modes become the guest's.
umask 022

top=$(cd "$(dirname "$0")/.." && pwd)
cache=${HWTOPOD_BOOT_CACHE:-/opt/hwtopod/boot-trixie-armhf}
build=${HWTOPOD_BUILD_DIR:-$top/build-armhf-trixie}
# Seconds the whole boot test may take under emulation on a loaded machine.
boot_timeout=${HWTOPOD_BOOT_TIMEOUT:-900}
# shellcheck source=scripts/debian-mirror.sh
. "$top/scripts/debian-mirror.sh"
say() { echo "boot-image: $*" >&2; }

mode=test
case "${1:-}" in
"") ;;
--interactive) mode=interactive ;;
--base) mode=base ;;
-h | --help)
    sed -n '2,31p' "$0" | sed 's/^# \{0,1\}//'
    exit 0
    ;;
*)
    say "unknown option $1"
    exit 2
    ;;
esac

# What the guest runs: systemd as PID 1, the system bus, the libraries the
# daemon and the stand-ins link (boost and nlohmann are headers only), kmod
# for the board's drivers, and the GPIO library's tools, with which the test
# times edges as the kernel sees them.
guest_packages=(
    systemd systemd-sysv dbus libsdbus-c++2 libgpiod3
    libsystemd0 libstdc++6 kmod gpiod
)
# The release the guest runs, and whose libraries the daemon is built
# against (in the Debian 13 root, scripts/debian13.sh).
suite=trixie
# The kernel's drivers of the board's GPIO controller, I2C buses and muxes,
# which Debian builds as modules.
board_modules=(gpio-aspeed i2c-aspeed i2c-mux i2c-mux-pca954x)
# The machine the image shows: the healthy one, with a regulator fault that
# stands from power-on on its register bit and its line.
scenario=$top/sim/scenarios/fault-at-start
kernel_package=linux-image-armmp-lpae
board_dtb=aspeed-ast2600-evb.dtb

# make_base: the cached base system as a compressed cpio archive, the kernel
# and the device tree. The kernel package is unpacked beside the system, not
# installed into it: installing would build an initramfs of its own under
# emulation; the few modules the guest needs are taken from it per run.
# The Debian mirror the machine's own apt uses (its first one, which is the
# main archive); the security archive is left out, since one of its indexes
# failing to fetch would stop mmdebstrap and a test guest needs none of it.
debian_mirror() { echo "${HWTOPOD_BOOT_MIRROR:-$(machine_mirror)}"; }
# suite_alias SUITE: the other name (stable, testing) the mirror's Release
# file gives the release.
suite_alias() {
    python3 -c 'import sys, urllib.request
for line in urllib.request.urlopen(sys.argv[1] + "/dists/" + sys.argv[2] + "/Release", timeout=60):
    if line.startswith(b"Suite:"):
        print(line.split()[1].decode())' "$(debian_mirror)" "$1"
}

make_base() {
    local stamp="$suite ${guest_packages[*]} $kernel_package"
    if [ "$(cat "$cache/stamp" 2>/dev/null)" = "$stamp" ] &&
        [ -s "$cache/base.cpio.gz" ] && [ -s "$cache/vmlinuz" ] && [ -s "$cache/kernel.deb" ] &&
        [ -s "$cache/$board_dtb" ]; then
        return
    fi
    say "making the base system in $cache (several minutes)"
    rm -rf "$cache"
    mkdir -p "$cache"
    local rootfs="$cache/rootfs" kernel="$cache/kernel"
    # bootstrap_from NAME: the system, from the mirror's release of that
    # name. The host runs ARM programs through a binfmt entry whose
    # interpreter is looked up inside the chroot: a static emulator is put
    # there for the maintainer scripts and taken out again.
    bootstrap_from() {
        rm -rf "$rootfs"
        mmdebstrap --arch=armhf --variant=minbase \
            --include="$(
                IFS=,
                echo "${guest_packages[*]}"
            )" \
            --dpkgopt='path-exclude=/usr/share/doc/*' \
            --dpkgopt='path-exclude=/usr/share/man/*' \
            --dpkgopt='path-exclude=/usr/share/info/*' \
            --dpkgopt='path-exclude=/usr/share/locale/*' \
            --setup-hook='mkdir -p "$1/usr/bin" && cp /usr/bin/qemu-arm-static "$1/usr/bin/qemu-arm"' \
            --customize-hook='chroot "$1" passwd -d root' \
            --customize-hook='echo hwtopod-bmc >"$1/etc/hostname"' \
            --customize-hook="chroot \"\$1\" sh -c 'cd /tmp && apt-get download -q \$(apt-cache depends $kernel_package | sed -n \"s/.*Depends: \\(linux-image-.*\\)/\\1/p\")'" \
            --customize-hook='mv "$1"/tmp/linux-image-*.deb "$1/.."/' \
            --customize-hook='rm -f "$1/usr/bin/qemu-arm"' \
            --customize-hook='rm -rf "$1"/var/cache/apt/* "$1"/var/lib/apt/lists/*' \
            "$1" "$rootfs" "deb $(debian_mirror) $1 main" >>"$cache/mmdebstrap.log" 2>&1
    }
    # A mirror caught syncing serves an index that its release's Release
    # file does not describe yet; the release's other name may still
    # describe it.
    : >"$cache/mmdebstrap.log"
    bootstrap_from "$suite" || {
        grep -q 'Mirror sync in progress' "$cache/mmdebstrap.log" &&
            bootstrap_from "$(suite_alias "$suite")"
    } || {
        tail -30 "$cache/mmdebstrap.log" >&2
        say "mmdebstrap failed (log in $cache/mmdebstrap.log)"
        exit 1
    }
    # The package is kept: modules for the guest are taken from it.
    mv "$cache"/linux-image-*.deb "$cache/kernel.deb"
    dpkg-deb -x "$cache/kernel.deb" "$kernel"
    cp "$kernel"/boot/vmlinuz-* "$cache/vmlinuz"
    find "$kernel" -name "$board_dtb" -exec cp {} "$cache/$board_dtb" \;
    [ -s "$cache/$board_dtb" ] || {
        say "the kernel package has no $board_dtb"
        exit 1
    }
    (cd "$rootfs" && find . | cpio -o -H newc --quiet | gzip -1 >"$cache/base.cpio.gz")
    rm -rf "$rootfs" "$kernel"
    echo "$stamp" >"$cache/stamp"
    say "base system made: $(du -h "$cache/base.cpio.gz" | cut -f1)"
}

make_base
[ "$mode" = base ] && exit 0

# The 32-bit ARM build against the guest's release: configured, built and
# installed in the Debian 13 root (scripts/debian13.sh), with that
# release's cross compiler and armhf libraries, which install-deps.sh
# --armhf adds there when missing; the root sees the checkout only, so the
# build directory is in it. Installed as an image installs it, under /usr:
# the system bus reads policies from /usr/share/dbus-1/system.d, not from
# below /usr/local. The tests are the other stages'.
case "$build/" in
"$top"/*) ;;
*)
    say "the build directory $build is not inside the checkout $top"
    exit 2
    ;;
esac
# shellcheck disable=SC2016
"$top/scripts/debian13.sh" bash -euc '
    build=$1
    bash scripts/install-deps.sh --armhf >"$build.deps.log" 2>&1 || {
        tail -30 "$build.deps.log"
        exit 1
    }
    if [ ! -f "$build/build.ninja" ]; then
        meson setup "$build" . --cross-file cross/arm-linux-gnueabihf.ini \
            -Dwerror=true -Dtests=disabled --prefix=/usr
    fi
    ninja -C "$build" -j 2
    rm -rf "$build/image"
    DESTDIR="$build/image" meson install -C "$build" --no-rebuild --quiet
' boot-image "$build" >&2

work=$(mktemp -d "${TMPDIR:-/tmp}/hwtopod-boot.XXXXXX")
qemu_pid=""
cleanup() {
    [ -z "$qemu_pid" ] || kill "$qemu_pid" 2>/dev/null || true
    [ -z "${driver_pid:-}" ] || kill "$driver_pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

# The second layer: the daemon as an image installs it, and the stand-ins.
layer="$work/layer"
mv "$build/image" "$layer"
sim="$layer/usr/lib/hwtopod-sim"
mkdir -p "$sim" "$layer/etc/systemd/system/multi-user.target.wants" \
    "$layer/usr/share/dbus-1/system.d"
chmod 0755 "$layer"
# The console the kernel opens for init, before systemd mounts /dev.
mkdir -p "$layer/dev"
mknod -m 0600 "$layer/dev/console" c 5 1
# The stand-ins' bus policies: the system bus denies what they do not allow.
cp "$top"/sim/*/com.halvex.*.conf "$layer/usr/share/dbus-1/system.d/"
# The platform's register library is found by its soname, as on a real
# controller.
install -m 0755 "$build/sim/libfpga/libfpga.so.0.1.0" "$layer/usr/lib/libfpga.so.0"
install -m 0755 "$build/sim/vpdd/vpdd" "$build/sim/pwrmgt/hwtopod-sim-pwrmgt" \
    "$build/sim/liquid_cooling/liquid-cooling" "$sim/"
# The machine, laid out by the simulator's own scenario code; its lines'
# levels are the emulator's (board.py drive).
python3 "$top/sim/scenario.py" "$scenario" "$work/scenario" "$top/data"
cp -r "$work/scenario/fpga" "$work/scenario/vpdd.json" "$sim/"
cp "$work/scenario/root/etc/os-release" "$layer/etc/os-release"
# The board's drivers, loaded by systemd-modules-load before any service.
# The kernel package keeps them, compressed, in /usr/lib/modules, where
# the guest's kmod finds them.
kernel_version=$(dpkg-deb -f "$cache/kernel.deb" Package | sed 's/^linux-image-//')
modules="$work/modules"
mkdir -p "$modules"
in_package="./usr/lib/modules/$kernel_version"
# shellcheck disable=SC2046
dpkg-deb --fsys-tarfile "$cache/kernel.deb" |
    tar -x -C "$modules" --wildcards --no-wildcards-match-slash \
        "$in_package/modules.*" \
        $(printf "$in_package/kernel/drivers/*/%s.ko* " "${board_modules[@]}") \
        $(printf "$in_package/kernel/drivers/*/*/%s.ko* " "${board_modules[@]}") 2>/dev/null || true
for m in "${board_modules[@]}"; do
    [ -n "$(find "$modules" -name "$m.ko*")" ] || {
        say "the kernel package has no module $m"
        exit 1
    }
done
# depmod lives in the administrator's path, which a user's may not have;
# its base directory is the one above lib/modules.
PATH=$PATH:/usr/sbin:/sbin depmod -b "$modules/usr" "$kernel_version"
mkdir -p "$layer/usr/lib"
cp -r "$modules/usr/lib/modules" "$layer/usr/lib/"
mkdir -p "$layer/etc/modules-load.d"
printf '%s\n' "${board_modules[@]}" >"$layer/etc/modules-load.d/hwtopod-board.conf"
python3 "$top/scripts/boot/board.py" dtb "$cache/$board_dtb" "$work/board.dtb" "$scenario"
mkdir -p "$layer/usr/lib/tmpfiles.d"
# The FPGA device nodes the daemon waits for.
printf 'f /dev/%s 0600 root root -\n' fpga-cdev fpga-r0 fpga-r0-adi \
    >"$layer/usr/lib/tmpfiles.d/hwtopod-sim.conf"

# The VPD stand-in runs as the VPD service's unit that the build names, and
# is ordered by the drop-in that meson install put beside that unit.
vpd_dropin=$(cd "$layer" && find . -path '*/systemd/system/*.service.d/after-hwtopod.conf' | head -1)
vpd_unit=$(basename "$(dirname "$vpd_dropin")" .d)
[ -n "$vpd_dropin" ] || {
    say "meson install put no ordering drop-in of the VPD service into the image"
    exit 1
}
units=(hwtopod-sim-pwrmgt.service hwtopod-sim-cooling.service "$vpd_unit")
cp "$top/scripts/boot/units/hwtopod-sim-pwrmgt.service" \
    "$top/scripts/boot/units/hwtopod-sim-cooling.service" "$layer/etc/systemd/system/"
cp "$top/scripts/boot/units/hwtopod-sim-vpdd.service" "$layer/etc/systemd/system/$vpd_unit"
mkdir -p "$layer/etc/systemd/system/hwtopod.service.d" "$layer/etc/systemd/system/$vpd_unit.d"
cat >"$layer/etc/systemd/system/hwtopod.service.d/stand-ins.conf" <<CONF
[Service]
Environment=HALVEX_FPGA_IMAGES=/usr/lib/hwtopod-sim/fpga
CONF
unit_file=$(cd "$layer" && find . -path '*/systemd/system/hwtopod.service' | head -1)
[ -n "$unit_file" ] || {
    say "meson install put no hwtopod.service into the image"
    exit 1
}
ln -sfn "${unit_file#.}" "$layer/etc/systemd/system/multi-user.target.wants/hwtopod.service"
for u in "${units[@]}"; do
    ln -sfn "/etc/systemd/system/$u" "$layer/etc/systemd/system/multi-user.target.wants/$u"
done

append="console=ttyS4,115200 rdinit=/sbin/init"
# The login prompt on the console: the image has no udev, so the device unit
# that the serial getty waits for never appears; the console getty needs none.
ln -sfn /dev/null "$layer/etc/systemd/system/serial-getty@ttyS4.service"
if [ "$mode" = interactive ]; then
    mkdir -p "$layer/etc/systemd/system/getty.target.wants"
    ln -sfn /lib/systemd/system/console-getty.service \
        "$layer/etc/systemd/system/getty.target.wants/console-getty.service"
fi
if [ "$mode" = test ]; then
    mkdir -p "$layer/usr/lib/hwtopod-boottest"
    install -m 0755 "$top/scripts/boot/guest-check.sh" "$layer/usr/lib/hwtopod-boottest/"
    sed "s/hwtopod-sim-vpdd.service/$vpd_unit/" "$top/scripts/boot/units/hwtopod-boottest.service" \
        >"$layer/etc/systemd/system/hwtopod-boottest.service"
    ln -sfn /etc/systemd/system/hwtopod-boottest.service \
        "$layer/etc/systemd/system/multi-user.target.wants/hwtopod-boottest.service"
    # The bus's match rules as the VPD service starts: the daemon's must be
    # there by then.
    cat >"$layer/etc/systemd/system/$vpd_unit.d/boottest.conf" <<CONF
[Service]
ExecStartPre=/bin/sh -c 'mkdir -p /run/hwtopod-boottest && dbus-send --system --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus.Debug.Stats.GetAllMatchRules >/run/hwtopod-boottest/matches 2>&1 || true'
CONF
fi

# Files to try in the guest without a rebuild, laid over everything else,
# the test's own files included.
[ -z "${HWTOPOD_BOOT_OVERLAY:-}" ] || cp -a "$HWTOPOD_BOOT_OVERLAY/." "$layer/"

# One initramfs of both layers: the kernel unpacks concatenated archives in
# order, the second's files over the first's.
(cd "$layer" && find . | cpio -o -H newc -R 0:0 --quiet | gzip -1 >"$work/layer.cpio.gz")
cat "$cache/base.cpio.gz" "$work/layer.cpio.gz" >"$work/initrd"

# Started paused: the board's driver sets the lines' levels and lets it run.
# In the test it also reads the guest's requests in the console's file.
mapfile -t board_devices < <(python3 "$top/scripts/boot/board.py" qemu "$scenario")
qemu=(qemu-system-arm -M ast2600-evb -m 1G -kernel "$cache/vmlinuz"
    -dtb "$work/board.dtb" -initrd "$work/initrd" -append "$append" -S
    -qmp "unix:$work/qmp.sock,server=on,wait=off" "${board_devices[@]}")
driver_pid=""
# start_driver CONSOLE_FILE|-
start_driver() {
    python3 "$top/scripts/boot/board.py" drive "$work/qmp.sock" "$1" "$scenario" \
        2>"$work/driver.log" &
    driver_pid=$!
}
if [ "$mode" = interactive ]; then
    say "booting; log in as root without a password, leave with Ctrl-a x"
    start_driver -
    "${qemu[@]}" -nographic
    exit
fi

console="$work/console.log"
say "booting the image (console in ${HWTOPOD_BOOT_LOG:-$console})"
"${qemu[@]}" -display none -monitor none -serial "file:$console" -no-reboot &
qemu_pid=$!
start_driver "$console"
deadline=$((SECONDS + boot_timeout))
while kill -0 "$qemu_pid" 2>/dev/null && kill -0 "$driver_pid" 2>/dev/null &&
    ! grep -q 'BOOTTEST done' "$console" 2>/dev/null; do
    if [ "$SECONDS" -ge "$deadline" ]; then
        say "no \"BOOTTEST done\" after $boot_timeout s"
        break
    fi
    sleep 2
done
kill "$qemu_pid" 2>/dev/null || true
wait "$qemu_pid" 2>/dev/null || true
qemu_pid=""
[ -z "${HWTOPOD_BOOT_LOG:-}" ] || cp "$console" "$HWTOPOD_BOOT_LOG"
python3 "$top/scripts/boot/verdict.py" "$console" "$top/tests/sim/healthy-inspect.json" || {
    tail -60 "$console" | tr -d '\r' >&2
    cat "$work/driver.log" >&2
    exit 1
}
