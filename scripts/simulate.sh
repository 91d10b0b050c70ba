#!/usr/bin/env bash
# Runs the real hwtopod on a simulated Kelvane1u and shows what it found.
#
#   scripts/simulate.sh [--json] [--list] [--arch armhf] [scenario] [-- COMMAND...]
#
# The scenario is a name under sim/scenarios (default: healthy) or a
# directory. The command builds what is missing, lays the scenario out in a
# sandbox, starts a private system bus, a journald if none runs, the stand-in
# services and the daemon, waits until discovery has ended, prints the report
# of hwtopod-inspect (with --json one JSON document that adds what the
# stand-ins saw) and tears everything down, also on Ctrl-C or a failure.
#
# HWTOPOD_BUILD_DIR names a build to use as it is (the tests set it); without
# it the command builds ./build, or with --arch armhf the 32-bit ARM build
# ./build-armhf, whose programs run under emulation. HWTOPOD_SIM_TIMEOUT
# bounds each wait in seconds (default 120). Progress goes to standard error, the report to
# standard output. docs/simulation.md tells the scenario format.
# With -- COMMAND, the command runs in place of the report, once discovery
# has ended, with DBUS_SYSTEM_BUS_ADDRESS naming the private bus and
# HWTOPOD_ROOT the daemon's root; the simulator exits with its status. A
# consumer of the daemon's objects can be tried that way, or busctl.
set -euo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
json=0
arch=native
scenario=healthy
command=()
while [ $# -gt 0 ]; do
    case "$1" in
    --)
        shift
        command=("$@")
        break
        ;;
    --json) json=1 ;;
    --arch)
        arch=${2:-}
        shift
        if [ "$arch" != armhf ]; then
            echo "simulate: --arch takes armhf" >&2
            exit 2
        fi
        ;;
    --list)
        for dir in "$top"/sim/scenarios/*/; do
            name=$(basename "$dir")
            printf '%-22s %s\n' "$name" "$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1])).get("description",""))' "$dir/scenario.json")"
        done
        exit 0
        ;;
    -h | --help)
        sed -n '2,21p' "$0" | sed 's/^# \{0,1\}//'
        exit 0
        ;;
    -*)
        echo "simulate: unknown option $1" >&2
        exit 2
        ;;
    *) scenario=$1 ;;
    esac
    shift
done

if [ -d "$scenario" ]; then
    scenario_dir=$(cd "$scenario" && pwd)
else
    scenario_dir="$top/sim/scenarios/$scenario"
fi
if [ ! -f "$scenario_dir/scenario.json" ]; then
    echo "simulate: no scenario $scenario (scripts/simulate.sh --list shows them)" >&2
    exit 2
fi
timeout=${HWTOPOD_SIM_TIMEOUT:-120}

say() { echo "simulate: $*" >&2; }

# Build what is missing, unless a build is given.
if [ -n "${HWTOPOD_BUILD_DIR:-}" ]; then
    build=$HWTOPOD_BUILD_DIR
else
    build="$top/build"
    setup=()
    install=()
    if [ "$arch" = armhf ]; then
        build="$top/build-armhf"
        setup=(--cross-file "$top/cross/arm-linux-gnueabihf.ini")
        if [ ! -e /proc/sys/fs/binfmt_misc/qemu-arm ] || [ ! -e /etc/qemu-binfmt/arm ]; then
            install=(--armhf)
        fi
    fi
    if ! command -v meson >/dev/null || ! command -v dbus-daemon >/dev/null ||
        ! pkg-config --exists sdbus-c++ libgpiodcxx nlohmann_json libsystemd 2>/dev/null ||
        [ ${#install[@]} -gt 0 ]; then
        if [ "$(id -u)" -eq 0 ]; then
            bash "$top/scripts/install-deps.sh" "${install[@]}" >&2
        else
            sudo bash "$top/scripts/install-deps.sh" "${install[@]}" >&2
        fi
    fi
    [ -f "$build/build.ninja" ] || meson setup "${setup[@]}" "$build" "$top" >/dev/null
    ninja -C "$build" >/dev/null || {
        say "build failed"
        exit 1
    }
fi
for program in src/platforms/hwtopod tools/inspect/hwtopod-inspect sim/vpdd/vpdd \
    sim/pwrmgt/hwtopod-sim-pwrmgt sim/liquid_cooling/liquid-cooling sim/gpiod/libgpiod.so.2 \
    sim/nameholder/hwtopod-sim-nameholder; do
    [ -e "$build/$program" ] || {
        say "$build/$program is missing"
        exit 1
    }
done

sandbox=$(mktemp -d "${TMPDIR:-/tmp}/hwtopod-sim.XXXXXX")
pids=()
names=()
started_journald=""

stop_all() {
    local i pid
    # The daemon first, the bus last.
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        kill -TERM "${pids[$i]}" 2>/dev/null || true
    done
    for pid in "${pids[@]}"; do
        for _ in $(seq 40); do
            kill -0 "$pid" 2>/dev/null || break
            sleep 0.05
        done
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    pids=()
}
cleanup() {
    local status=$?
    trap - EXIT INT TERM HUP
    stop_all
    rm -rf "$sandbox"
    exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

# start <name> <command...>: in the background, output in the sandbox.
start() {
    local name=$1
    shift
    "$@" >"$sandbox/$name.out" 2>"$sandbox/$name.err" &
    pids+=($!)
    names+=("$name")
    say "started $name pid $!"
}

# wait_for <what> <command...>: until the command succeeds, or fail.
wait_for() {
    local what=$1 deadline=$((SECONDS + timeout))
    shift
    until "$@"; do
        if [ -n "${daemon_pid:-}" ] && ! kill -0 "$daemon_pid" 2>/dev/null; then
            say "hwtopod ended while waiting for $what; its last log lines:"
            tail -n 20 "$sandbox/hwtopod.err" >&2 || true
            exit 1
        fi
        if [ "$SECONDS" -ge "$deadline" ]; then
            say "timed out waiting for $what"
            exit 1
        fi
        sleep 0.1
    done
}
in_log() { grep -qF -- "$2" "$sandbox/$1" 2>/dev/null; }
count_in_log() { grep -cF -- "$2" "$sandbox/$1" 2>/dev/null || true; }
# in_log_times <log> <text> <count>: the text is in the log count times.
in_log_times() { [ "$(count_in_log "$1" "$2")" -ge "$3" ]; }
ended() { ! kill -0 "$1" 2>/dev/null; }

say "scenario $(basename "$scenario_dir"), sandbox $sandbox"
python3 "$top/sim/scenario.py" "$scenario_dir" "$sandbox" "$top/data"
# shellcheck source=/dev/null
. "$sandbox/scenario.env"

# The journal: the daemon's events go there. A journald that has gone leaves
# its socket file behind, so only a connect tells whether one listens.
journald_listens() {
    python3 -c 'import socket, sys
socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM).connect(sys.argv[1])' \
        /run/systemd/journal/socket 2>/dev/null
}
if ! journald_listens; then
    /lib/systemd/systemd-journald >/dev/null 2>&1 &
    started_journald=$!
    pids=("$started_journald" "${pids[@]}")
    names=(journald "${names[@]}")
    say "started journald pid $started_journald"
    wait_for journald journald_listens
fi

# A private system bus, with the policies a controller would have.
sed -e "s|@SOCKET@|$sandbox/bus.socket|" -e "s|@SOURCE@|$top|" \
    "$top/tests/data/system-bus.conf.in" >"$sandbox/bus.conf"
start bus dbus-daemon --config-file="$sandbox/bus.conf" --nofork --nopidfile --print-address=1
wait_for "the bus" test -s "$sandbox/bus.out"
export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$sandbox/bus.socket"
busctl=(busctl --address="$DBUS_SYSTEM_BUS_ADDRESS")

if [ "$SCENARIO_COOLING" = 1 ]; then
    start cooling "$build/sim/liquid_cooling/liquid-cooling"
    wait_for "the liquid cooling stand-in" in_log cooling.out ready
fi
if [ "$SCENARIO_PWRMGT" = 1 ]; then
    start pwrmgt "$build/sim/pwrmgt/hwtopod-sim-pwrmgt" --reply "$SCENARIO_PWRMGT_REPLY"
    wait_for "the power management stand-in" in_log pwrmgt.out ready
fi
if [ "$SCENARIO_NAME_HELD" = 1 ]; then
    start nameholder "$build/sim/nameholder/hwtopod-sim-nameholder" com.halvex.hwtopod
    wait_for "the holder of the daemon's name" in_log nameholder.out ready
fi
if [ "$SCENARIO_VPDD" = 1 ] && [ "$SCENARIO_VPDD_BEFORE" = 1 ]; then
    start vpdd "$build/sim/vpdd/vpdd" "$sandbox/vpdd.json"
    wait_for "the VPD stand-in" in_log vpdd.out "published $SCENARIO_READY_PATH"
fi

daemon_env=(
    HWTOPOD_ROOT="$sandbox/root"
    HALVEX_FPGA_IMAGES="$sandbox/fpga"
    HWTOPOD_SIM_GPIO="$sandbox/gpio"
    LD_LIBRARY_PATH="$build/sim/gpiod${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
)
# File system faults: the daemon in a mount namespace of its own (it keeps
# the process id, and its view is what the report reads).
confine=()
in_daemon_view=()
if [ -n "$SCENARIO_CONFINE" ]; then
    # shellcheck disable=SC2206
    confine=(unshare --mount --propagation private bash "$top/sim/confine.sh"
        --root "$sandbox/root" $SCENARIO_CONFINE --)
fi
start_daemon() {
    if [ "$SCENARIO_STATUS" = "<unset>" ]; then
        start hwtopod "${confine[@]}" env -u HWTOPOD_STATUS "${daemon_env[@]}" "$build/src/platforms/hwtopod"
    else
        start hwtopod "${confine[@]}" env HWTOPOD_STATUS="$SCENARIO_STATUS" "${daemon_env[@]}" "$build/src/platforms/hwtopod"
    fi
    daemon_pid=${pids[-1]}
    if [ -n "$SCENARIO_CONFINE" ]; then
        in_daemon_view=(nsenter --target "$daemon_pid" --mount --)
    fi
}
start_daemon
restart=0
if [ "$SCENARIO_STATUS" != normal ] && [ "$SCENARIO_STATUS" != "<unset>" ]; then
    restart=1
fi

# A daemon that must end by itself: its status is the outcome.
daemon_exit=""
await_daemon_exit() {
    local pid=$daemon_pid
    daemon_pid=""
    wait_for "the daemon to end" ended "$pid"
    wait "$pid" && daemon_exit=0 || daemon_exit=$?
    say "hwtopod ended with status $daemon_exit"
    if [ "$daemon_exit" != "$SCENARIO_DAEMON_EXIT" ]; then
        say "expected status $SCENARIO_DAEMON_EXIT"
        exit 1
    fi
}

# A daemon that runs: its peers as the scenario has them, until discovery
# has ended (or what the scenario waits for instead), then the edges.
follow_daemon() {
    wait_for "the daemon's service" in_log hwtopod.err "Service is set"
    if [ "$SCENARIO_VPDD" = 1 ] && [ "$SCENARIO_VPDD_BEFORE" != 1 ]; then
        start vpdd "$build/sim/vpdd/vpdd" "$sandbox/vpdd.json"
    fi
    if [ "$SCENARIO_VPDD_COMES_BACK" = 1 ]; then
        # The service ends halfway through and is started again, as its unit
        # would be.
        wait_for "the VPD stand-in's end" ended "${pids[-1]}"
        start vpdd2 "$build/sim/vpdd/vpdd" "$sandbox/vpdd-again.json"
    fi
    if [ "$SCENARIO_COOLING" != 1 ] && [ -n "$SCENARIO_COOLING_WHEN" ]; then
        wait_for "the cooling call to fail" in_log hwtopod.err "$SCENARIO_COOLING_WHEN"
        start cooling "$build/sim/liquid_cooling/liquid-cooling"
    fi

    # The end of discovery, or what the scenario names instead.
    if [ -s "$sandbox/waitfor.txt" ]; then
        while IFS=$'\t' read -r count text; do
            wait_for "\"$text\" ($count)" in_log_times hwtopod.err "$text" "$count"
        done <"$sandbox/waitfor.txt"
    elif [ "$restart" = 1 ]; then
        # The closing loop begins once waitForVpd has probed the objects.
        wait_for "discovery" in_log hwtopod.err "applyPlatformCoolingSettings: type"
    elif in_log hwtopod.err "[Base::matchVpdd] TRD files are not loaded"; then
        say "the daemon has no VPD match: no board discovery on this start"
        wait_for "the VPD stand-in" in_log vpdd.out "published $SCENARIO_READY_PATH"
    else
        wait_for "discovery" in_log hwtopod.err "Board discovery has ended"
    fi
    say "discovery has ended"
    wait_for "the device presence object" \
        "${busctl[@]}" introspect com.halvex.hwtopod /com/halvex/platform/hardware/device >/dev/null 2>&1

    # Fault line edges, once the monitor watches the lines.
    if [ "$SCENARIO_GPIO" = 1 ] && [ "$SCENARIO_EDGES" -gt 0 ]; then
        wait_for "the fault line monitor" in_log hwtopod.err "Setup VRs & powergoods in FPGA gpio device"
        seen=$(count_in_log hwtopod.err "found in fpga_gpio_table")
        while read -r line edge; do
            [ -n "$line" ] || continue
            echo "$line $edge" >"$sandbox/gpio/edges"
            say "edge $edge on $line"
            seen=$((seen + 1))
            wait_for "the edge on $line" in_log_times hwtopod.err "found in fpga_gpio_table" "$seen"
        done <"$sandbox/edges.txt"
    fi
}

if [ -n "$SCENARIO_DAEMON_EXIT" ]; then
    await_daemon_exit
else
    follow_daemon
    # Killed and started again, as its unit restarts it; its log is the last
    # process's.
    for ((n = 1; n < SCENARIO_STARTS; n++)); do
        kill -KILL "$daemon_pid"
        wait "$daemon_pid" 2>/dev/null || true
        say "hwtopod pid $daemon_pid killed"
        start_daemon
        follow_daemon
    done
fi

# Everything the daemon sent is in the journal before it is read.
journalctl --sync >/dev/null 2>&1 || sleep 0.5

if [ ${#command[@]} -gt 0 ]; then
    status=0
    HWTOPOD_ROOT="$sandbox/root" "${command[@]}" || status=$?
    exit "$status"
fi

# The daemon's view of the files, which a confined daemon has alone.
inspect=("${in_daemon_view[@]}" env HWTOPOD_ROOT="$sandbox/root"
    "$build/tools/inspect/hwtopod-inspect" --pid "${daemon_pid:-0}")
if [ "$json" = 1 ]; then
    if [ -z "$daemon_exit" ]; then
        # Its failures are in the report, and their reasons on stderr.
        "${inspect[@]}" --json >"$sandbox/report.json" || true
    fi
    python3 - "$sandbox" "$(basename "$scenario_dir")" "${daemon_pid:-0}" "$daemon_exit" <<'EOF'
import json, os, sys
sandbox, name, pid, exit_status = sys.argv[1:]
def lines(file):
    path = os.path.join(sandbox, file)
    return open(path).read().splitlines() if os.path.exists(path) else []
path = os.path.join(sandbox, "report.json")
report = json.load(open(path)) if os.path.exists(path) else {}
maps = "/proc/%s/maps" % pid
report["simulation"] = {
    "daemonExit": int(exit_status) if exit_status else None,
    "scenario": name,
    "description": open(os.path.join(sandbox, "description.txt")).read().strip(),
    "votes": [l for l in lines("pwrmgt.out") if l.startswith("Vote ")],
    "coolingCalls": [l for l in lines("cooling.out") if l.startswith("CreateSensors")],
    "vpdd": lines("vpdd.out") + lines("vpdd2.out"),
    "daemonLog": lines("hwtopod.err"),
    "gpioStandIn": os.path.exists(maps) and any(
        os.path.join("sim", "gpiod", "libgpiod.so") in l for l in open(maps)),
}
print(json.dumps(report, indent=2))
EOF
else
    echo "Scenario $(basename "$scenario_dir"): $(cat "$sandbox/description.txt")"
    if [ -n "$daemon_exit" ]; then
        echo "hwtopod ended with status $daemon_exit; its last log lines:"
        tail -n 5 "$sandbox/hwtopod.err" | sed 's/^/  /'
    else
        "${inspect[@]}" || true
    fi
    if [ -s "$sandbox/pwrmgt.out" ] && grep -q '^Vote ' "$sandbox/pwrmgt.out"; then
        echo
        echo "Power votes (power management stand-in)"
        echo "---------------------------------------"
        grep '^Vote ' "$sandbox/pwrmgt.out" | sed 's/^/  /'
    fi
fi
