#!/usr/bin/env python3
"""Soak run of the real hwtopod on the simulated Kelvane1u.

    python3 bench/soak.py [--build DIR] [--seconds N] [--edge-rate PER_S]
                          [--vpd-interval SECONDS] [--samples FILE]

Starts the daemon on the healthy scenario, as bench/run.py does, and once
discovery has ended keeps it busy for --seconds (default 600) with:
  - GPIO edges: CPU1_THERMTRIP rising and falling in turn, written to the GPIO
    library stand-in's edge FIFO at --edge-rate edges a second (default 2),
    an even number of them so that the line ends low;
  - VPD signals: the VPD stand-in announces all its objects again every
    --vpd-interval seconds (default 1), an InterfacesAdded signal for each.
Every 10 s it samples the daemon's VmRSS, VmHWM, open file descriptors,
threads, CPU time and the time it takes to answer a Ping, with the edges sent
and the VPD rounds done so far. At the end it prints a Markdown summary for
docs/performance.md. Everything it started is stopped on any exit, Ctrl-C,
SIGTERM and SIGHUP included.
"""

import argparse
import errno
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

import run

SAMPLE_SECONDS = 10
RISING_ID = "TKRMBPU0001N"
FALLING_ID = "TKRMBPU2001I"
EDGE_LINE = "CPU1_THERMTRIP"
DEVICE_PATH = "/com/halvex/platform/hardware/device"


class SoakDaemon(run.Daemon):
    """The daemon whose VPD stand-in repeats its objects and reports the
    rounds on its standard output."""

    def __init__(self, build, bus_address, votes_file, vpd_interval):
        super().__init__(build, bus_address, votes_file)
        self.vpd_interval = vpd_interval

    def start_vpdd(self):
        path = os.path.join(self.sandbox, "vpdd.json")
        with open(path) as stream:
            document = json.load(stream)
        document["repeat"] = {"interval": self.vpd_interval, "count": 0}
        with open(path, "w") as stream:
            json.dump(document, stream)
        super().start_vpdd()

    @property
    def rounds(self):
        """VPD rounds the stand-in has reported."""
        done = [line for line in list(self.vpdd_lines)
                if line.startswith("repeated ")]
        return int(done[-1].split()[1]) if done else 0

    def status(self):
        """VmRSS, VmHWM (KiB) and thread count from /proc/<pid>/status."""
        values = {}
        with open("/proc/%d/status" % self.process.pid) as status:
            for line in status:
                key, _, rest = line.partition(":")
                if key in ("VmRSS", "VmHWM", "Threads"):
                    values[key] = int(rest.split()[0])
        return values

    def fds(self):
        return len(os.listdir("/proc/%d/fd" % self.process.pid))


class EdgeWriter:
    """Writes edges into the GPIO stand-in's FIFO without ever blocking: an
    edge that finds the FIFO full is counted as dropped, not sent."""

    def __init__(self, fifo):
        # The stand-in holds the FIFO open for reading, so this open succeeds.
        self.fd = os.open(fifo, os.O_WRONLY | os.O_NONBLOCK | os.O_CLOEXEC)
        self.sent = {"rising": 0, "falling": 0}
        self.dropped = 0
        self.first = None

    def send(self):
        edge = "rising" if self.total() % 2 == 0 else "falling"
        try:
            os.write(self.fd, ("%s %s\n" % (EDGE_LINE, edge)).encode())
        except OSError as error:
            if error.errno != errno.EAGAIN:
                raise
            self.dropped += 1
            return
        if self.first is None:
            self.first = time.time()
        self.sent[edge] += 1

    def total(self):
        return self.sent["rising"] + self.sent["falling"]

    def close(self):
        os.close(self.fd)


def ping_ms(address):
    """Time for the daemon to answer a Ping, or None when it does not."""
    start = time.monotonic()
    done = subprocess.run(["busctl", "--address=" + address, "--timeout=10",
                           "call", "com.halvex.hwtopod", "/",
                           "org.freedesktop.DBus.Peer", "Ping"],
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          check=False)
    if done.returncode != 0:
        return None
    return (time.monotonic() - start) * 1000.0


def introspects(address):
    return subprocess.run(["busctl", "--address=" + address, "--timeout=10",
                           "introspect", "com.halvex.hwtopod", DEVICE_PATH],
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          check=False).returncode == 0


def slope_per_minute(samples, key):
    """Least-squares slope of samples[key] over time, per minute."""
    xs = [s["t"] / 60.0 for s in samples]
    ys = [s[key] for s in samples]
    if len(xs) < 2:
        return 0.0
    mean_x = sum(xs) / len(xs)
    mean_y = sum(ys) / len(ys)
    spread = sum((x - mean_x) ** 2 for x in xs)
    if spread == 0:
        return 0.0
    return sum((x - mean_x) * (y - mean_y) for x, y in zip(xs, ys)) / spread


class Stop(Exception):
    pass


# While processes are being started, a signal waits until each of them is
# known to the teardown. (Blocking signals instead would pass the block on
# to the processes started.)
deferred = {"now": False, "signals": []}


def stop_on_signal(number, _frame):
    if deferred["now"]:
        deferred["signals"].append(number)
        return
    raise Stop("signal %d" % number)


def defer_signals(now):
    deferred["now"] = now
    if not now and deferred["signals"]:
        raise Stop("signal %d" % deferred["signals"][0])


def soak(daemon, address, args):
    """The run after discovery: the samples, the edge writer and how often
    journald had to be started."""
    log = sys.stderr
    daemon.wait_for("Board discovery has ended")
    daemon.wait_for("Setup VRs & powergoods in FPGA gpio")
    edges = EdgeWriter(os.path.join(daemon.sandbox, "gpio/edges"))
    samples = []
    start = time.monotonic()
    end = start + args.seconds
    total_edges = int(args.seconds * args.edge_rate) // 2 * 2
    next_sample = start
    next_edge = start
    journald_starts = 0
    try:
        while True:
            now = time.monotonic()
            if daemon.process.poll() is not None:
                print("soak: hwtopod ended with %d" %
                      daemon.process.returncode, file=log)
                break
            # Others on the machine may stop the journald they started; a
            # record sent while none listens is lost, and the daemon logs it.
            if not run.journald_listens():
                run.ensure_journald()
                journald_starts += 1
                print("soak: journald had gone, started one", file=log)
                now = time.monotonic()
            if now >= next_sample:
                status = daemon.status()
                sample = {"t": now - start, "rss": status["VmRSS"],
                          "hwm": status["VmHWM"],
                          "threads": status["Threads"], "fds": daemon.fds(),
                          "cpu": daemon.cpu_seconds(),
                          "edges": edges.total(), "rounds": daemon.rounds,
                          "handled": daemon.count("found in fpga_gpio_table"),
                          "signals": daemon.count("Get interface "),
                          "refused": daemon.count(
                              "the journal refused the record"),
                          "ping_ms": ping_ms(address)}
                samples.append(sample)
                print("soak: %4.0f s rss %d KiB hwm %d KiB fds %d threads %d "
                      "cpu %.2f s edges %d rounds %d ping %s" % (
                          sample["t"], sample["rss"], sample["hwm"],
                          sample["fds"], sample["threads"], sample["cpu"],
                          sample["edges"], sample["rounds"],
                          "-" if sample["ping_ms"] is None else
                          "%.1f ms" % sample["ping_ms"]), file=log)
                if now >= end:
                    break
                next_sample = min(next_sample + SAMPLE_SECONDS, end)
            if now >= next_edge and edges.total() < total_edges:
                edges.send()
                # A late loop does not make up for lost time with a burst.
                next_edge = max(next_edge + 1.0 / args.edge_rate, now)
            wake = next_sample
            if edges.total() < total_edges:
                wake = min(wake, next_edge)
            # At least once a second, to notice the daemon ending.
            time.sleep(max(0.0, min(wake - time.monotonic(), 1.0)))
    finally:
        edges.close()
    return samples, edges, journald_starts


def summary(daemon, address, samples, edges, journald_starts, started):
    if not samples:
        print("hwtopod ended before the first sample")
        return
    warm, last = samples[0], samples[-1]
    # The last edges a moment to reach the monitor.
    deadline = time.monotonic() + 5
    while daemon.count("found in fpga_gpio_table") - warm["handled"] \
            < edges.total() and time.monotonic() < deadline \
            and daemon.process.poll() is None:
        time.sleep(0.1)
    alive = daemon.process.poll() is None
    answering = alive and introspects(address)
    handled = daemon.count("found in fpga_gpio_table")
    records = {RISING_ID: 0, FALLING_ID: 0}
    if edges.first is not None:
        for message in records:
            records[message] = sum(
                1 for stamp in run.journal_times(daemon.process.pid,
                                                 (message,))
                if stamp >= edges.first - 0.5)
    second_half = [s for s in samples if s["t"] >= last["t"] / 2]
    rows = [
        ("Run", "%.0f s after discovery, sampled every %d s (%d samples)" %
         (last["t"], SAMPLE_SECONDS, len(samples))),
        ("VmRSS after warm-up / at the end / maximum",
         "%d / %d / %d KiB" % (warm["rss"], last["rss"],
                               max(s["rss"] for s in samples))),
        ("VmRSS slope (least squares)",
         "%+.1f KiB per minute over the run, %+.1f over its second half" %
         (slope_per_minute(samples, "rss"),
          slope_per_minute(second_half, "rss"))),
        ("VmHWM after warm-up / at the end",
         "%d / %d KiB" % (warm["hwm"], last["hwm"])),
        ("Open fds after warm-up / at the end / maximum",
         "%d / %d / %d" % (warm["fds"], last["fds"],
                           max(s["fds"] for s in samples))),
        ("Threads after warm-up / at the end / maximum",
         "%d / %d / %d" % (warm["threads"], last["threads"],
                           max(s["threads"] for s in samples))),
        ("CPU time during the run",
         "%.2f s = %.2f %% of one core" % (
             last["cpu"] - warm["cpu"],
             100.0 * (last["cpu"] - warm["cpu"]) / max(last["t"], 1))),
        ("GPIO edges sent (rising / falling), dropped at a full FIFO",
         "%d (%d / %d), %d" % (edges.total(), edges.sent["rising"],
                               edges.sent["falling"], edges.dropped)),
        ("Edges the monitor logged", "%d" % (handled - warm["handled"])),
        ("Journal records for them (%s / %s)" % (RISING_ID, FALLING_ID),
         "%d (%d / %d)" % (sum(records.values()), records[RISING_ID],
                           records[FALLING_ID])),
        ("Records the journal refused (daemon's error lines)",
         "%d" % (daemon.count("the journal refused the record") -
                 warm["refused"])),
        ("journald found gone and started again during the run",
         "%d" % journald_starts),
        ("VPD rounds (all objects announced again)", "%d" % daemon.rounds),
        ("VPD interface updates the daemon logged during the run",
         "%d" % (daemon.count("Get interface ") - warm["signals"])),
        ("busctl Ping round trip at the samples, median / worst",
         ping_summary(samples)),
        ("Daemon alive and answering at the end",
         "yes" if answering else
         ("alive, introspection failed" if alive else "no, it ended")),
        ("Wall-clock time of the whole run", "%.0f s" %
         (time.monotonic() - started)),
    ]
    print("| Measure | Result |")
    print("|---|---|")
    for name, value in rows:
        print("| %s | %s |" % (name, value))


def ping_summary(samples):
    times = sorted(s["ping_ms"] for s in samples if s["ping_ms"] is not None)
    failed = sum(1 for s in samples if s["ping_ms"] is None)
    if not times:
        return "no answer"
    text = "%.1f / %.1f ms" % (times[len(times) // 2], times[-1])
    if failed:
        text += ", %d without an answer" % failed
    return text


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=os.path.join(run.TOP, "build"))
    parser.add_argument("--seconds", type=int, default=600)
    parser.add_argument("--edge-rate", type=float, default=2.0,
                        help="GPIO edges a second (default 2)")
    parser.add_argument("--vpd-interval", type=float, default=1.0,
                        help="seconds between VPD rounds (default 1)")
    parser.add_argument("--samples", help="write the samples as JSON here")
    args = parser.parse_args()
    if args.seconds < 1 or args.edge_rate <= 0 or args.vpd_interval <= 0:
        parser.error("--seconds, --edge-rate and --vpd-interval must be "
                     "positive")
    build = os.path.abspath(args.build)
    started = time.monotonic()
    # SIGINT too: a shell starts a background job with it ignored.
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, stop_on_signal)
    run.ensure_journald()

    workdir = tempfile.mkdtemp(prefix="hwtopod-soak-bus.")
    processes = []
    daemon = None
    try:
        defer_signals(True)
        bus, address = run.start_bus(workdir)
        processes.append(bus)
        processes.extend(run.start_services(build, address, workdir))
        daemon = SoakDaemon(build, address,
                            os.path.join(workdir, "pwrmgt.out"),
                            args.vpd_interval)
        defer_signals(False)
        print("soak: hwtopod pid %d, discovery %.2f ms" %
              (daemon.process.pid, daemon.discovery_time()), file=sys.stderr)
        samples, edges, journald_starts = soak(daemon, address, args)
        if args.samples:
            with open(args.samples, "w") as stream:
                json.dump(samples, stream, indent=1)
        summary(daemon, address, samples, edges, journald_starts, started)
    except Stop as reason:
        print("soak: stopped (%s)" % reason, file=sys.stderr)
        sys.exit(130)
    finally:
        # Ctrl-C or a signal during the teardown must not leave processes.
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, signal.SIG_IGN)
        if daemon is not None:
            daemon.stop()
        for process in reversed(processes):
            run.stop_process(process)
        shutil.rmtree(workdir, ignore_errors=True)


if __name__ == "__main__":
    main()
