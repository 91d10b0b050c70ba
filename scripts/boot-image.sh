#!/usr/bin/env bash
# Boots the cross-built daemon as a system service of a minimal Debian armhf
# system on the emulated AST2600 BMC board, and checks it there.
#
#   scripts/boot-image.sh                # the boot test; status 0 when it passes
#   scripts/boot-image.sh --interactive  # boot by hand, log in as root on ttyS4
#   scripts/boot-image.sh --base         # only make the cached base system
#
# The base system (Debian's systemd, dbus and the daemon's runtime libraries,
# made with mmdebstrap) and Debian's armmp-lpae kernel with the board's
# device tree are cached in $HWTOPOD_BOOT_CACHE (default
# /opt/hwtopod/boot-armhf) and made again when missing or when the package
# list below changes. Each run installs the 32-bit ARM build
# ($HWTOPOD_BUILD_DIR, default ./build-armhf, configured with the prefix /usr
# and built when needed) into a second layer with `meson install --destdir`, adds the
# stand-ins of the platform's FPGA library and sibling services as units, and
# boots the two layers as one initramfs: the whole system lives in RAM, so no
# flash or disk driver is needed. The test unit in the guest prints
# "BOOTTEST ok|fail <check>" and "BOOTTEST figure <name> <value>" lines on
# the serial console and ends with "BOOTTEST done". Needs root (the base
# system keeps its owners) and the packages of install-deps.sh --boot.
# HWTOPOD_BOOT_OVERLAY names a directory whose files are laid over the image
# last, to try a change in the guest (a drop-in, a policy) without a
# rebuild; HWTOPOD_BOOT_LOG a file to keep the console's output in;
# HWTOPOD_BOOT_TIMEOUT the seconds a boot test may take (default 900).
set -euo pipefail
# The layers' modes become the guest's.
umask 022

top=$(cd "$(dirname "$0")/.." && pwd)
cache=${HWTOPOD_BOOT_CACHE:-/opt/hwtopod/boot-armhf}
build=${HWTOPOD_BUILD_DIR:-$top/build-armhf}
# Seconds the whole boot test may take under emulation on a loaded machine.
boot_timeout=${HWTOPOD_BOOT_TIMEOUT:-900}
say() { echo "boot-image: $*" >&2; }

mode=test
case "${1:-}" in
"") ;;
--interactive) mode=interactive ;;
--base) mode=base ;;
-h | --help)
    sed -n '2,25p' "$0" | sed 's/^# \{0,1\}//'
    exit 0
    ;;
*)
    say "unknown option $1"
    exit 2
    ;;
esac

# What the guest runs: systemd as PID 1, the system bus, the libraries the
# daemon and the stand-ins link (boost and nlohmann are headers only), kmod
# for kernel modules that later checks may load.
guest_packages=(
    systemd systemd-sysv dbus libsdbus-c++1 libgpiod2
    libsystemd0 libstdc++6 kmod
)
kernel_package=linux-image-armmp-lpae
board_dtb=aspeed-ast2600-evb.dtb

# make_base: the cached base system as a compressed cpio archive, the kernel
# and the device tree. The kernel package is unpacked beside the system, not
# installed into it: installing would build an initramfs of its own under
# emulation, and the guest needs none of its modules yet.
# The Debian mirror the machine's own apt uses (its first one, which is the
# main archive); the security archive is left out, since one of its indexes
# failing to fetch would stop mmdebstrap and a test guest needs none of it.
debian_mirror() {
    local uri
    uri=$(sed -n 's/^URIs: *//p' /etc/apt/sources.list.d/*.sources 2>/dev/null | head -1)
    [ -n "$uri" ] || uri=$(awk '$1 == "deb" { print $2; exit }' /etc/apt/sources.list 2>/dev/null)
    echo "${HWTOPOD_BOOT_MIRROR:-${uri%% *}}"
}

make_base() {
    local stamp="${guest_packages[*]} $kernel_package"
    if [ "$(cat "$cache/stamp" 2>/dev/null)" = "$stamp" ] &&
        [ -s "$cache/base.cpio.gz" ] && [ -s "$cache/vmlinuz" ] && [ -s "$cache/kernel.deb" ] &&
        [ -s "$cache/$board_dtb" ]; then
        return
    fi
    say "making the base system in $cache (several minutes)"
    rm -rf "$cache"
    mkdir -p "$cache"
    local rootfs="$cache/rootfs" kernel="$cache/kernel"
    # The host runs ARM programs through a binfmt entry whose interpreter is
    # looked up inside the chroot: a static emulator is put there for the
    # maintainer scripts and taken out again.
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
        bookworm "$rootfs" "deb $(debian_mirror) bookworm main" >"$cache/mmdebstrap.log" 2>&1 || {
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

# The 32-bit ARM build, configured and built when missing. Installed as an
# image installs it, under /usr: the system bus reads policies from
# /usr/share/dbus-1/system.d, not from below /usr/local.
if [ ! -f "$build/build.ninja" ]; then
    meson setup "$build" "$top" --cross-file "$top/cross/arm-linux-gnueabihf.ini" \
        -Dwerror=true --prefix=/usr >&2
elif ! meson introspect --buildoptions "$build" |
    python3 -c 'import json, sys; sys.exit(not any(o["name"] == "prefix" and o["value"] == "/usr" for o in json.load(sys.stdin)))'; then
    say "configuring $build with the prefix /usr"
    meson configure "$build" --prefix=/usr >&2
fi
ninja -C "$build" >&2

work=$(mktemp -d "${TMPDIR:-/tmp}/hwtopod-boot.XXXXXX")
qemu_pid=""
cleanup() {
    [ -z "$qemu_pid" ] || kill "$qemu_pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

# The second layer: the daemon as an image installs it, and the stand-ins.
layer="$work/layer"
DESTDIR="$layer" meson install -C "$build" --no-rebuild --quiet >&2
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
# controller; the GPIO library stand-in only by the daemon's drop-in.
install -m 0755 "$build/sim/libfpga/libfpga.so.0.1.0" "$layer/usr/lib/libfpga.so.0"
install -m 0755 "$build/sim/gpiod/libgpiod.so.2.2.2" "$sim/libgpiod.so.2"
install -m 0755 "$build/sim/vpdd/vpdd" "$build/sim/pwrmgt/hwtopod-sim-pwrmgt" \
    "$build/sim/liquid_cooling/liquid-cooling" "$top/scripts/boot/i2c-buses" "$sim/"
# The healthy machine, laid out by the simulator's own scenario code.
python3 "$top/sim/scenario.py" "$top/sim/scenarios/healthy" "$work/scenario" "$top/data"
cp -r "$work/scenario/fpga" "$work/scenario/gpio" "$work/scenario/vpdd.json" "$sim/"
cp "$work/scenario/root/etc/os-release" "$layer/etc/os-release"
python3 -c 'import json, sys
print("\n".join(str(b) for b in json.load(open(sys.argv[1]))["i2cBuses"]))' \
    "$top/sim/scenarios/healthy/scenario.json" >"$sim/i2c-buses.txt"
mkdir -p "$layer/usr/lib/tmpfiles.d"
# The FPGA device nodes the daemon waits for.
printf 'f /dev/%s 0600 root root -\n' fpga-cdev fpga-r0 fpga-r0-adi \
    >"$layer/usr/lib/tmpfiles.d/hwtopod-sim.conf"

units=(hwtopod-sim-i2c hwtopod-sim-pwrmgt hwtopod-sim-cooling hwtopod-sim-vpdd)
for u in "${units[@]}"; do
    cp "$top/scripts/boot/units/$u.service" "$layer/etc/systemd/system/"
done
mkdir -p "$layer/etc/systemd/system/hwtopod.service.d" "$layer/etc/systemd/system/hwtopod-sim-vpdd.service.d"
cat >"$layer/etc/systemd/system/hwtopod.service.d/stand-ins.conf" <<CONF
[Service]
Environment=HALVEX_FPGA_IMAGES=/usr/lib/hwtopod-sim/fpga
Environment=HWTOPOD_SIM_GPIO=/usr/lib/hwtopod-sim/gpio
Environment=LD_LIBRARY_PATH=/usr/lib/hwtopod-sim
CONF
# The VPD service's unit is ordered by the drop-in an image gives it.
cp "$top/packaging/vpd-after-hwtopod.conf" "$layer/etc/systemd/system/hwtopod-sim-vpdd.service.d/"
unit_file=$(cd "$layer" && find . -path '*/systemd/system/hwtopod.service' | head -1)
[ -n "$unit_file" ] || {
    say "meson install put no hwtopod.service into the image"
    exit 1
}
ln -sfn "${unit_file#.}" "$layer/etc/systemd/system/multi-user.target.wants/hwtopod.service"
for u in "${units[@]}"; do
    ln -sfn "/etc/systemd/system/$u.service" "$layer/etc/systemd/system/multi-user.target.wants/$u.service"
done

# Files to try in the guest without a rebuild, laid over everything else.
[ -z "${HWTOPOD_BOOT_OVERLAY:-}" ] || cp -a "$HWTOPOD_BOOT_OVERLAY/." "$layer/"

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
    cp "$top/scripts/boot/units/hwtopod-boottest.service" "$layer/etc/systemd/system/"
    ln -sfn /etc/systemd/system/hwtopod-boottest.service \
        "$layer/etc/systemd/system/multi-user.target.wants/hwtopod-boottest.service"
    # The bus's match rules as the VPD service starts: the daemon's must be
    # there by then.
    cat >"$layer/etc/systemd/system/hwtopod-sim-vpdd.service.d/boottest.conf" <<CONF
[Service]
ExecStartPre=/bin/sh -c 'mkdir -p /run/hwtopod-boottest && dbus-send --system --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus.Debug.Stats.GetAllMatchRules >/run/hwtopod-boottest/matches 2>&1 || true'
CONF
fi

# One initramfs of both layers: the kernel unpacks concatenated archives in
# order, the second's files over the first's.
(cd "$layer" && find . | cpio -o -H newc -R 0:0 --quiet | gzip -1 >"$work/layer.cpio.gz")
cat "$cache/base.cpio.gz" "$work/layer.cpio.gz" >"$work/initrd"

qemu=(qemu-system-arm -M ast2600-evb -m 1G -kernel "$cache/vmlinuz"
    -dtb "$cache/$board_dtb" -initrd "$work/initrd" -append "$append")
if [ "$mode" = interactive ]; then
    say "booting; log in as root without a password, leave with Ctrl-a x"
    "${qemu[@]}" -nographic
    exit
fi

console="$work/console.log"
say "booting the image (console in ${HWTOPOD_BOOT_LOG:-$console})"
"${qemu[@]}" -display none -monitor none -serial "file:$console" -no-reboot &
qemu_pid=$!
deadline=$((SECONDS + boot_timeout))
while kill -0 "$qemu_pid" 2>/dev/null && ! grep -q 'BOOTTEST done' "$console" 2>/dev/null; do
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
    exit 1
}
