#!/bin/sh
# Runs inside the booted image, started by hwtopod-boottest.service once the
# daemon and the stand-ins have been started. Checks the daemon as systemd
# runs it and prints on the console, one line each:
#   BOOTTEST ok <check>            BOOTTEST fail <check>: <why>
#   BOOTTEST figure <name> <value> BOOTTEST report <name> <base64 line>
#   BOOTTEST done
# The reports are hwtopod-inspect's JSON, compared on the host with the
# healthy machine. Every wait is bounded, generously for emulation.
set -u

unit=hwtopod.service
state=/run/hwtopod-boottest
inspect=$(command -v hwtopod-inspect || echo /usr/local/bin/hwtopod-inspect)
nobody() { setpriv --reuid=nobody --regid=nogroup --clear-groups "$@"; }

failures=0
ok() { echo "BOOTTEST ok $1"; }
fail() {
    echo "BOOTTEST fail $1: $2"
    failures=$((failures + 1))
}
figure() { echo "BOOTTEST figure $1 $2"; }

show() { systemctl show -p "$1" --value "$unit"; }
# The daemon's own lines of this boot, of every process the unit ran.
daemon_lines() { journalctl -b -q _SYSTEMD_UNIT="$unit" _TRANSPORT=stdout "$@" -o cat; }
# records PID [JOURNALCTL OPTION...]: the process's event records in the
# journal's order, "ID|ARGS" a line.
records() {
    of=$1
    shift
    journalctl -b -q _PID="$of" "$@" -o export |
        awk -F = '$1 == "REDFISH_MESSAGE_ID" { id = substr($0, 20) }
            $1 == "REDFISH_MESSAGE_ARGS" { args = substr($0, 22) }
            # An empty line ends an entry. The id is given without its
            # registry prefix.
            $0 == "" { sub(/.*\./, "", id); if (id != "") print id "|" args
                id = ""; args = "" }'
}
# The journal's newest entry, to read what comes after it.
journal_cursor() { journalctl -b -q -n 1 -o export | sed -n 's/^__CURSOR=//p'; }
# Its event records, "ID ARGS" a line, of one process.
daemon_events() {
    journalctl -b -q _SYSTEMD_UNIT="$unit" _PID="$1" -o export |
        awk -v RS= -F '\n' '{ id = ""; args = "-"
            for (i = 1; i <= NF; i++) {
                if ($i ~ /^REDFISH_MESSAGE_ID=/) id = substr($i, 20)
                if ($i ~ /^REDFISH_MESSAGE_ARGS=/) args = substr($i, 22)
            }
            if (id != "") print id, args }' | sort
}

# wait_until SECONDS COMMAND...: polls once a second.
wait_until() {
    limit=$1
    shift
    while ! "$@"; do
        limit=$((limit - 1))
        [ "$limit" -gt 0 ] || return 1
        sleep 1
    done
}
# logged_by PID TEXT: the process with that id has logged the text.
logged_by() { journalctl -b -q _PID="$1" _TRANSPORT=stdout -o cat | grep -qF -- "$2"; }
# restarted_from PID RESTARTS: the unit runs a new process after more
# restarts than given, and it is active again.
restarted_from() {
    new=$(show MainPID)
    [ "$(show NRestarts)" -gt "$2" ] && [ "$new" != 0 ] && [ "$new" != "$1" ] &&
        [ "$(show ActiveState)" = active ]
}
report() {
    "$inspect" --json >"$state/$1.json" 2>"$state/$1.err" || true
    base64 -w 76 "$state/$1.json" | sed "s/^/BOOTTEST report $1 /"
}

mkdir -p "$state"
# The kernel's messages stay in the journal, off the console, so that none
# splits a line of the test's or a request to the board's driver.
dmesg -n 1

# 1. First start: active once the match is installed, then every board as
# signals from the VPD service ordered after it.
discovered() { daemon_lines | grep -qF "Board discovery has ended"; }
dump_log() {
    {
        systemctl status --no-pager -n 0 "$unit"
        journalctl -b -q -u "$unit" -n 80 -o short-monotonic --no-pager
    } 2>&1 | sed 's/^/BOOTTEST log /'
}
if wait_until 300 discovered && [ "$(show NRestarts)" = 0 ]; then
    ok discovery-ended
else
    fail discovery-ended "no \"Board discovery has ended\" in 300 s, or only after $(show NRestarts) restarts"
    # Nothing below can pass.
    dump_log
    echo "BOOTTEST done"
    exit 0
fi
pid=$(show MainPID)
# The figures once discovery has ended: memory and threads as the ARM kernel
# counts them, and the time from the unit leaving its inactive state (start
# status helper included) to the line.
for field in VmRSS RssAnon Threads; do
    figure "$field" "$(awk -v f="$field:" '$1 == f { print $2 $3 }' "/proc/$pid/status")"
done
started=$(show InactiveExitTimestampMonotonic)
ended=$(journalctl -b -q _PID="$pid" _TRANSPORT=stdout -o short-monotonic |
    grep -F "Board discovery has ended" | head -1 | sed 's/^\[ *\([0-9]*\)\.\([0-9]*\)\].*/\1\2/')
if [ -n "$ended" ] && [ "$started" -gt 0 ]; then
    figure discovery-seconds "$(awk -v a="$started" -v b="$ended" 'BEGIN { printf "%.2f", (b - a) / 1e6 }')"
fi
# How confined the unit is, as systemd rates it (the host requires 2.5 at
# most), with the settings that count against it.
security=$(systemd-analyze security --no-pager "$unit" 2>&1)
figure exposure "$(printf '%s\n' "$security" | sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\).*/\1/p')"
printf '%s\n' "$security" | grep '^✗' | sed 's/  */ /g; s/^/BOOTTEST log /'
# The VPD unit recorded the bus's match rules just before its own start.
if grep "sender='com.halvex.vpdd'" "$state/matches" 2>/dev/null | grep -q "member='InterfacesAdded'"; then
    ok match-before-vpd-service
else
    fail match-before-vpd-service "the daemon had no InterfacesAdded match when the VPD service started"
fi
if logged_by "$pid" "matchVpdd completed" && [ "$(show Type)" = notify ]; then
    ok ready-by-notify
else
    fail ready-by-notify "Type=$(show Type), or the VPD objects did not come as signals"
fi
# Each link leads to the kernel's own directory of its bus: one the I2C
# driver or a mux driver made, with the adapter's name in it.
links_resolve() {
    for link in /dev/*_i2c; do
        bus=$(basename "$(readlink "$link")")
        [ "$(readlink -f "$link")" = "$(readlink -f "/sys/bus/i2c/devices/$bus")" ] &&
            [ -s "$link/name" ] || return 1
    done
}
if links_resolve; then
    ok links-resolve
else
    fail links-resolve "$(ls -l /dev/*_i2c 2>&1; ls /sys/bus/i2c/devices 2>&1)"
fi
report first

# The daemon watches the SoC's GPIO lines through Debian's GPIO library.
monitoring() { logged_by "$1" "Setup VRs & powergoods in FPGA gpio device: gpiochip0"; }
why=""
grep -q '/usr/lib/arm-linux-gnueabihf/libgpiod\.so' "/proc/$pid/maps" ||
    why="$why; the daemon has not loaded Debian's libgpiod"
grep -q 'hwtopod-sim' "/proc/$pid/maps" && why="$why; the daemon has loaded a stand-in"
wait_until 120 monitoring "$pid" || why="$why; no monitoring of gpiochip0 in 120 s"
# The kernel's view of the lines, where debugfs is there to show it.
watched=55
[ ! -r /sys/kernel/debug/gpio ] || watched=$(grep -c '|monitor *)' /sys/kernel/debug/gpio)
[ "$watched" = 55 ] || why="$why; the kernel shows $watched lines held by the monitor, not 55"
if [ -z "$why" ]; then ok gpio-kernel-lines; else fail gpio-kernel-lines "${why#; }"; fi
# The jumper's line was set open (high) before the board ran.
jumper=$(busctl --system get-property com.halvex.hwtopod /com/halvex/platform/hardware/config \
    com.halvex.lowSecurityJmp Status 2>&1)
if [ "$jumper" = "i 1" ]; then ok jumper-level; else fail jumper-level "Status is $jumper"; fi
# The regulator fault that stands from power-on on its line and its register
# bit: reported once, by the start-up scan of the registers; the line,
# watched from then on, sees no edge.
standing=$(records "$pid" | grep -c '^TKRMBPW0131N|12V_PCIE_PWR1$')
if logged_by "$pid" "powerFaultDetect: bit VR_FAULT_3_N error" && [ "$standing" = 1 ]; then
    ok fault-at-start
else
    fail fault-at-start "$standing records of the standing fault, or no start-up scan line"
fi

# 2. What anybody may do on the bus, and what only root may.
if nobody busctl --system introspect com.halvex.hwtopod /com/halvex/platform/basecfg >/dev/null &&
    nobody busctl --system get-property com.halvex.hwtopod /com/halvex/platform/basecfg \
        com.halvex.hwtopod.hardware MaxCpu >/dev/null &&
    nobody busctl --system call com.halvex.hwtopod / \
        org.freedesktop.DBus.ObjectManager GetManagedObjects >/dev/null; then
    ok non-root-reads
else
    fail non-root-reads "a user other than root could not read the objects"
fi
denied() { "$@" 2>&1 | grep -q "org.freedesktop.DBus.Error.AccessDenied"; }
# own_name and set_max_cpu take the command that runs dbus-send, if any.
set_max_cpu() {
    "$@" dbus-send --system --print-reply --dest=com.halvex.hwtopod /com/halvex/platform/basecfg \
        org.freedesktop.DBus.Properties.Set string:com.halvex.hwtopod.hardware string:MaxCpu variant:uint32:4
}
own_name() {
    "$@" dbus-send --system --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
        org.freedesktop.DBus.RequestName string:com.halvex.hwtopod uint32:0
}
# Root's call reaches the daemon, which refuses it in its own words: the
# denial seen by the other user is the bus's.
why=""
denied own_name nobody || why="$why; the name could be requested: $(own_name nobody 2>&1 | head -2)"
denied set_max_cpu nobody || why="$why; Properties.Set was not denied: $(set_max_cpu nobody 2>&1 | head -2)"
denied set_max_cpu && why="$why; root's Properties.Set was denied by the bus"
if [ -z "$why" ]; then
    ok non-root-refused
else
    fail non-root-refused "${why#; }"
fi

# 3. Killed: systemd starts it again, as a restart.
pid=$(show MainPID)
restarts=$(show NRestarts)
first_events=$(daemon_events "$pid")
systemctl kill -s KILL "$unit"
if wait_until 180 restarted_from "$pid" "$restarts"; then
    pid=$(show MainPID)
    if tr '\0' '\n' <"/proc/$pid/environ" | grep -qx 'HWTOPOD_STATUS=restart' &&
        wait_until 300 logged_by "$pid" "Board discovery has ended"; then
        ok restart-after-kill
    else
        fail restart-after-kill "process $pid is not marked as a restart, or did not read the VPD objects"
    fi
else
    fail restart-after-kill "not running again 180 s after SIGKILL"
fi
# Every start runs the presence analysis and the probes again, so a restart
# repeats the first start's records; it must add none of its own.
restart_events=$(daemon_events "$pid")
if [ -n "$first_events" ] && [ "$first_events" = "$restart_events" ]; then
    ok restart-events
else
    fail restart-events "the restart's records differ: $(printf '%s\n' "$restart_events" | tr '\n' ';')"
fi
report restart

# 4. The io loop stops feeding the watchdog: systemd restarts the daemon.
restarts=$(show NRestarts)
watchdog=$(show WatchdogUSec)
kill -STOP "$pid"
if [ "$watchdog" != 0 ] && [ "$watchdog" != infinity ] &&
    wait_until 300 restarted_from "$pid" "$restarts" &&
    journalctl -b -q -u "$unit" -o cat | grep -q "Watchdog timeout"; then
    ok watchdog-restart
else
    fail watchdog-restart "WatchdogSec=$watchdog; no watchdog restart of a stopped process in 300 s"
fi

# 5. Edges of the fault lines, made by the emulator on the test's request:
# each gives exactly the record the machine's fault line table says, or
# none. The requests go to the board's driver (board.py drive) on the
# console, and the driver acknowledges each by an edge of BOOTTEST_ACK.
request=0
# held_by_gpiomon NAME: gpiomon waits on the line.
held_by_gpiomon() { grep -Eq "\\($1 *\\|gpiomon" /sys/kernel/debug/gpio 2>/dev/null; }
# board REQUEST...: true once the driver has carried it out.
board() {
    request=$((request + 1))
    # shellcheck disable=SC2046
    timeout 300 gpiomon --num-events=1 $(gpiofind BOOTTEST_ACK) >/dev/null 2>&1 &
    acknowledged=$!
    wait_until 30 held_by_gpiomon BOOTTEST_ACK
    echo "BOOTTEST request $request $*"
    wait "$acknowledged"
}
# The process the watchdog started, once its start-up records are written.
pid=$(show MainPID)
wait_until 300 logged_by "$pid" "Board discovery has ended"
wait_until 120 monitoring "$pid"
cursor=$(journal_cursor)
since() { records "$pid" --after-cursor="$cursor"; }
has_records() { [ "$(since | grep -c .)" -ge "$1" ]; }
wanted=""
# edge NAME LEVEL [RECORD]: with a record, waits for it, so that the records
# of different lines come in the order of their edges. After a failure the
# edges left are not made.
edge() {
    [ -z "$why" ] || return
    board set "$1" "$2" || why="$why; the driver did not set $1 to $2"
    [ $# -lt 3 ] && return
    wanted="$wanted$3
"
    wait_until 60 has_records "$(printf %s "$wanted" | grep -c .)" ||
        why="$why; no record after $1 went to $2"
}
why=""
# Both edges of a line with a record for each, of the line whose fault level
# is low, of lines with no record when the fault ends, and of a line the
# table does not watch.
edge CPU1_THERMTRIP 1 'TKRMBPU0001N|1::'
edge CPU1_THERMTRIP 0 'TKRMBPU2001I|1::'
edge HPM_SCM_STBY_RDY 0 'TKRMBPW0133N|'
edge HPM_SCM_STBY_RDY 1
edge VR_FAULT_20_N 1 'TKRMBPW0129N|2::P12V_MEM'
edge VR_FAULT_20_N 0
edge VR_FAULT_17_N 1
edge VR_FAULT_17_N 0
edge VR_FAULT_43_N 1 'TKRMBPW0131N|OCP slot 1'
edge VR_FAULT_43_N 0
edge CPU2_THERMTRIP 1 'TKRMBPU0001N|2::'
edge CPU2_THERMTRIP 0 'TKRMBPU2001I|2::'
got=$(since)
[ "$got" = "$(printf %s "$wanted")" ] || why="$why; records: $(printf '%s\n' "$got" | tr '\n' ';')"
if [ -z "$why" ]; then ok fault-edges; else fail fault-edges "${why#; }"; fi

# 6. The time from an edge to its record: the driver flips the probe line
# and then CPU1_THERMTRIP, 120 times 250 ms apart; the kernel's time of
# each probe edge, as gpiomon reads it, against the journal's time of the
# record (both the guest's monotonic clock).
edges=120
cursor=$(journal_cursor)
# shellcheck disable=SC2046
timeout 600 gpiomon --num-events="$edges" --format='%s %n' $(gpiofind BOOTTEST_EDGE_PROBE) \
    >"$state/probe" 2>&1 &
probe=$!
wait_until 30 held_by_gpiomon BOOTTEST_EDGE_PROBE
why=""
board pulse CPU1_THERMTRIP "$edges" 250 || why="$why; the driver did not make the edges"
wait "$probe" || why="$why; gpiomon saw no $edges edges: $(tail -2 "$state/probe")"
wait_until 120 has_records "$edges" || why="$why; $(since | grep -c .) records of $edges edges"
expected_burst=$(awk -v n="$edges" 'BEGIN { for (i = 1; i <= n; i++)
    print (i % 2 ? "TKRMBPU0001N" : "TKRMBPU2001I") "|1::" }')
[ "$(since)" = "$expected_burst" ] || why="$why; the records are not the edges' in order"
if [ -z "$why" ]; then
    # The records' times as the journal shows them, in seconds.
    latencies=$(journalctl -b -q _PID="$pid" --after-cursor="$cursor" -o short-monotonic \
        REDFISH_MESSAGE_ID=EventRegistry.1.0.TKRMBPU0001N REDFISH_MESSAGE_ID=EventRegistry.1.0.TKRMBPU2001I |
        sed 's/^\[ *\([0-9.]*\)\].*/\1/' | paste -d ' ' "$state/probe" - |
        awk '{ printf "%.3f\n", ($3 * 1e9 - ($1 * 1e9 + $2)) / 1e6 }' | sort -n)
    figure edge-to-record-edges "$edges"
    figure edge-to-record-median-ms "$(printf '%s\n' "$latencies" | awk '{ v[NR] = $1 }
        END { print (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2) }')"
    figure edge-to-record-worst-ms "$(printf '%s\n' "$latencies" | tail -1)"
    ok edge-timing
else
    fail edge-timing "${why#; }"
fi


# 7. A bus that has gone: the mux on the SoC's bus 2 unbound, so the links
# to its channels lead nowhere; started again, the daemon says so for each
# and leaves the links alone.
echo 2-0070 >/sys/bus/i2c/drivers/pca954x/unbind
dangling=""
for link in /dev/*_i2c; do
    [ -e "$link" ] || dangling="$dangling $link"
done
old=$(show MainPID)
systemctl restart "$unit"
pid=$(show MainPID)
why=""
[ -n "$dangling" ] || why="$why; unbinding the mux took no bus away"
if wait_until 300 logged_by "$pid" "Board discovery has ended" && [ "$pid" != "$old" ]; then
    for link in $dangling; do
        logged_by "$pid" "[ERR] CANNOT FIND THE PATH : /sys/bus/i2c/devices/$(basename "$(readlink "$link")")" ||
            why="$why; no error line for $link"
        [ -L "$link" ] || why="$why; $link was removed"
    done
else
    why="$why; no discovery after the restart"
fi
if [ -z "$why" ]; then ok missing-bus; else fail missing-bus "${why#; }"; fi

# 8. The journal's priorities: of the daemon's lines, -p err shows exactly
# its ERROR and CRITICAL lines of this boot, -p warning those and its
# WARNING lines (the restarts above wrote one at least), and no line keeps
# the journal's prefix in its text.
# at_priority PRIORITY LEVELS: sets why when they differ.
at_priority() {
    expected=$(daemon_lines | grep -E "^\[($2)\] ")
    shown=$(daemon_lines -p "$1")
    # What `journalctl -u hwtopod -p PRIORITY` shows holds them, beside
    # systemd's own lines about the unit.
    all_shown=$(journalctl -b -q -u "$unit" -p "$1" -o cat)
    missing=$(printf '%s\n' "$expected" | while IFS= read -r line; do
        printf '%s\n' "$all_shown" | grep -qxF -- "$line" || echo "$line"
    done)
    if [ "$expected" != "$shown" ] || [ -n "$missing" ]; then
        why="$why; $(printf '%s\n' "$expected" | grep -c .) $2 lines, $(printf '%s\n' "$shown" | grep -c .) at -p $1"
    fi
}
why=""
at_priority err 'ERROR|CRITICAL'
printf '%s\n' "$expected" | grep . | sed 's/^/BOOTTEST line /'
at_priority warning 'WARNING|ERROR|CRITICAL'
[ -n "$expected" ] || why="$why; no WARNING line at all"
leaked=$(daemon_lines | grep -c '^<[0-9]>')
[ "$leaked" = 0 ] || why="$why; $leaked lines begin with a priority prefix"
if [ -z "$why" ]; then
    ok journal-priorities
else
    fail journal-priorities "${why#; }"
fi

# What went wrong is in the unit's log.
[ "$failures" = 0 ] || dump_log
echo "BOOTTEST done"
