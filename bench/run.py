#!/usr/bin/env python3
"""Benchmarks of the real hwtopod on the simulated Kelvane1u.

    python3 bench/run.py [--build DIR] [--runs N] [--idle SECONDS] [--edges N]

Measures, on the healthy scenario of sim/scenarios with the stand-in services
on a private bus:
  - discovery time: from the VPD ready signal reaching the daemon (its log
    line "matchVpdd completed", stamped as it is read from the daemon's
    standard error) to the modification time of the last result file
    written; median of N runs (default 20) of a fresh daemon, and the same
    with 100 and 1,000 VPD objects (boards the rules do not know, and DIMMs);
  - resident memory (VmRSS) after discovery, and after 1,000 objects;
  - CPU time used in 60 s of idling after discovery;
  - GPIO edge to journal record: edges written to the GPIO library stand-in's
    FIFO, to the journal's receive time of the daemon's record; median and
    worst of 1,000 edges.
The VPD stand-in is started only after the daemon's FPGA read-out, so that
discovery does not wait for the hardware thread. Results are printed as a
Markdown table for docs/performance.md.
"""

import argparse
import json
import os
import queue
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SCENARIO = os.path.join(TOP, "sim/scenarios/healthy")
RESULTS = ("backplanes_found.json", "risers_found.json",
           "midplanes_found.json")


class Daemon:
    """The daemon on a fresh sandbox, its standard error read line by line
    with the time each line arrived."""

    def __init__(self, build, bus_address, extra_objects=0):
        self.build = build
        self.sandbox = tempfile.mkdtemp(prefix="hwtopod-bench.")
        subprocess.run([sys.executable, os.path.join(TOP, "sim/scenario.py"),
                        SCENARIO, self.sandbox, os.path.join(TOP, "data")],
                       check=True)
        if extra_objects:
            add_objects(os.path.join(self.sandbox, "vpdd.json"),
                        extra_objects)
        self.env = dict(os.environ,
                        DBUS_SYSTEM_BUS_ADDRESS=bus_address,
                        HWTOPOD_ROOT=os.path.join(self.sandbox, "root"),
                        HALVEX_FPGA_IMAGES=os.path.join(self.sandbox, "fpga"),
                        HWTOPOD_SIM_GPIO=os.path.join(self.sandbox, "gpio"),
                        HWTOPOD_STATUS="normal",
                        LD_LIBRARY_PATH=os.path.join(build, "sim/gpiod"))
        self.lines = queue.Queue()
        self.log = []
        self.process = subprocess.Popen(
            [os.path.join(build, "src/platforms/hwtopod")], env=self.env,
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        self.vpdd = None

    def _read(self):
        for line in self.process.stderr:
            self.lines.put((time.time(), line.rstrip("\n")))

    def wait_for(self, text, timeout=120):
        """Time at which a log line holding text arrived."""
        for stamp, line in self.log:
            if text in line:
                return stamp
        deadline = time.time() + timeout
        while time.time() < deadline:
            try:
                stamp, line = self.lines.get(timeout=0.5)
            except queue.Empty:
                if self.process.poll() is not None:
                    raise RuntimeError("hwtopod ended")
                continue
            self.log.append((stamp, line))
            if text in line:
                return stamp
        raise RuntimeError("no log line with " + text)

    def count(self, text):
        while not self.lines.empty():
            self.log.append(self.lines.get())
        return sum(1 for _, line in self.log if text in line)

    def start_vpdd(self, stdout=subprocess.DEVNULL):
        self.vpdd = subprocess.Popen(
            [os.path.join(self.build, "sim/vpdd/vpdd"),
             os.path.join(self.sandbox, "vpdd.json")],
            env=self.env, stdout=stdout)

    def discovery_time(self):
        self.wait_for("Service is set")
        # The FPGA read-out is over once the fan types are logged.
        self.wait_for("getFpgaFanInfo 1U fan 8")
        self.start_vpdd()
        ready = self.wait_for("matchVpdd completed")
        subprocess.run(["busctl", "--address=" + self.env[
            "DBUS_SYSTEM_BUS_ADDRESS"], "--timeout=300", "call",
            "com.halvex.hwtopod", "/", "org.freedesktop.DBus.Peer", "Ping"],
            check=True, stdout=subprocess.DEVNULL)
        written = [os.stat(os.path.join(self.sandbox, "root/var/configuration",
                                        name)).st_mtime_ns
                   for name in RESULTS
                   if os.path.exists(os.path.join(
                       self.sandbox, "root/var/configuration", name))]
        return (max(written) / 1e9 - ready) * 1000.0

    def rss_kib(self):
        with open("/proc/%d/status" % self.process.pid) as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
        return 0

    def cpu_seconds(self):
        with open("/proc/%d/stat" % self.process.pid) as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def stop(self):
        for process in (self.vpdd, self.process):
            if process is not None:
                stop_process(process)
        shutil.rmtree(self.sandbox, ignore_errors=True)


def stop_process(process):
    """SIGTERM, and SIGKILL for a process still there 5 s later."""
    process.terminate()
    try:
        process.wait(5)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def add_objects(path, count):
    """count more objects before the ready object: a third backplane-type
    boards at locations without a TRD entry, a third riser-type boards with a
    position id no rule has, a third DIMMs."""
    with open(path) as stream:
        document = json.load(stream)
    ready = document["objects"].pop()
    for i in range(count):
        kind = i % 3
        properties = {"VpdFormat": "Halvex_Fullv3", "VpdFound": True,
                      "VpdName": "Extra %d" % i, "IpmiFruName": "",
                      "VpdLocation": {"type": "q", "value": 100 + i}}
        if kind == 0:
            properties.update(VpdId={"type": "y", "value": 0x70},
                              PosIdValue={"type": "y", "value": 48})
        elif kind == 1:
            properties.update(VpdId={"type": "y", "value": 0xE0},
                              PosIdValue={"type": "y", "value": 200})
        else:
            properties.update(VpdId={"type": "y", "value": 0x20},
                              VpdFormat="Halvex_Dimm")
        document["objects"].append(
            {"path": "/com/halvex/vpdd/EXTRA_%d" % i,
             "properties": properties})
    document["objects"].append(ready)
    with open(path, "w") as stream:
        json.dump(document, stream)


def journal_times(pid, ids):
    """Receive times, in seconds, of the daemon's records with these ids."""
    subprocess.run(["journalctl", "--sync"], check=False)
    out = subprocess.run(["journalctl", "-o", "json", "--no-pager",
                          "_PID=%d" % pid], check=True, capture_output=True,
                         text=True).stdout
    times = []
    for line in out.splitlines():
        record = json.loads(line)
        message = record.get("REDFISH_MESSAGE_ID", "")
        if any(message.endswith(i) for i in ids):
            times.append(int(record["__REALTIME_TIMESTAMP"]) / 1e6)
    return times


def start_bus(workdir):
    with open(os.path.join(TOP, "tests/data/system-bus.conf.in")) as f:
        config = f.read().replace("@SOCKET@", os.path.join(workdir, "bus"))
    with open(os.path.join(workdir, "bus.conf"), "w") as f:
        f.write(config)
    bus = subprocess.Popen(["dbus-daemon", "--config-file=" +
                            os.path.join(workdir, "bus.conf"), "--nofork",
                            "--nopidfile", "--print-address=1"],
                           stdout=subprocess.PIPE, text=True)
    bus.stdout.readline()
    return bus, "unix:path=" + os.path.join(workdir, "bus")


def start_services(build, address):
    """The power management and liquid cooling stand-ins on the bus."""
    return [subprocess.Popen(
        [os.path.join(build, program)], env=dict(
            os.environ, DBUS_SYSTEM_BUS_ADDRESS=address),
        stdout=subprocess.DEVNULL)
        for program in ("sim/pwrmgt/hwtopod-sim-pwrmgt",
                        "sim/liquid_cooling/liquid-cooling")]


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))]


def journald_listens():
    # A journald that has gone leaves its socket file behind.
    try:
        socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM).connect(
            "/run/systemd/journal/socket")
        return True
    except OSError:
        return False


def ensure_journald():
    if not journald_listens():
        subprocess.Popen(["/lib/systemd/systemd-journald"],
                         start_new_session=True)
        time.sleep(1)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=os.path.join(TOP, "build"))
    parser.add_argument("--runs", type=int, default=20)
    parser.add_argument("--idle", type=int, default=60)
    parser.add_argument("--edges", type=int, default=1000)
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    ensure_journald()

    workdir = tempfile.mkdtemp(prefix="hwtopod-bench-bus.")
    bus, address = start_bus(workdir)
    services = start_services(build, address)
    rows = []
    try:
        # Discovery of the healthy machine, a fresh daemon each time.
        times = []
        rss = None
        for run in range(args.runs):
            daemon = Daemon(build, address)
            try:
                times.append(daemon.discovery_time())
                if run == 0:
                    rss = daemon.rss_kib()
                    # Idle CPU, after discovery and the first passes of the
                    # service loop.
                    daemon.wait_for("setLiquidCooling called successfully!")
                    time.sleep(11)
                    before = daemon.cpu_seconds()
                    time.sleep(args.idle)
                    idle = daemon.cpu_seconds() - before
                    rows.append(("Idle CPU over %d s after discovery" %
                                 args.idle, "%.2f s CPU = %.3f %% of one core"
                                 % (idle, 100.0 * idle / args.idle)))
                    # Edges through the GPIO stand-in.
                    daemon.wait_for("Setup VRs & powergoods in FPGA gpio")
                    fifo = os.path.join(daemon.sandbox, "gpio/edges")
                    sent = []
                    seen = daemon.count("found in fpga_gpio_table")
                    with open(fifo, "w") as edges:
                        for i in range(args.edges):
                            edge = "rising" if i % 2 == 0 else "falling"
                            sent.append(time.time())
                            edges.write("CPU1_THERMTRIP %s\n" % edge)
                            edges.flush()
                            seen += 1
                            while daemon.count("found in fpga_gpio_table") \
                                    < seen:
                                time.sleep(0.0005)
                    received = journal_times(daemon.process.pid,
                                             ("TKRMBPU0001N", "TKRMBPU2001I"))
                    latency = [(r - s) * 1000 for s, r in
                               zip(sent, received[-len(sent):])]
                    rows.append(("GPIO edge to journal record, %d edges"
                                 % len(latency),
                                 "median %.3f ms, worst %.3f ms" %
                                 (statistics.median(latency), max(latency))))
            finally:
                daemon.stop()
        rows.insert(0, ("Discovery, healthy machine (%d runs)" % len(times),
                        "median %.2f ms, min %.2f, max %.2f" %
                        (statistics.median(times), min(times), max(times))))
        rows.insert(1, ("Resident memory after discovery", "%d KiB" % rss))
        for count, runs in ((100, 5), (1000, 5)):
            measured = []
            for run in range(runs):
                daemon = Daemon(build, address, count)
                try:
                    measured.append(daemon.discovery_time())
                    if count == 1000 and run == 0:
                        rows.append(("Resident memory after %d more objects"
                                     % count, "%d KiB" % daemon.rss_kib()))
                finally:
                    daemon.stop()
            rows.append(("Discovery with %d more VPD objects (%d runs)"
                         % (count, runs), "median %.2f ms, min %.2f, max %.2f"
                         % (statistics.median(measured), min(measured),
                            max(measured))))
    finally:
        for process in services + [bus]:
            stop_process(process)
        shutil.rmtree(workdir, ignore_errors=True)
    print("| Measure | Result |")
    print("|---|---|")
    for name, value in rows:
        print("| %s | %s |" % (name, value))


if __name__ == "__main__":
    main()
