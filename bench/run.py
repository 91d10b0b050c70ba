#!/usr/bin/env python3
"""Benchmarks of the real hwtopod on the simulated Kelvane1u.

    python3 bench/run.py [--build DIR] [--runs N] [--more-runs N]
                         [--idle SECONDS] [--edges N]

Measures, on the healthy scenario of sim/scenarios with the stand-in services
on a private bus:
  - discovery time: from the VPD stand-in's monotonic stamp taken right
    before it sends the ready object's signal, to the monotonic time at which
    the last result file was renamed into place (an inotify watch, read
    after the daemon's "Board discovery has ended", which the discovery
    worker logs after its last file); median of N runs (default 20) of a
    fresh daemon, and of --more-runs runs (default 5) with 100 and with
    1,000 more VPD objects (boards the rules do not know, and DIMMs);
  - the floor of each run: the calls the daemon made in that time, counted
    from the stand-ins' records (FRU name sets and property reads at the VPD
    stand-in, votes at the power management stand-in), timed as plain round
    trips on the same bus by bench/hwtopod-bench-floor, each on a connection
    of its own as the daemon makes its client calls, and discovery / floor;
  - the split of a discovery, from what the kernel and the log already
    keep, so that nothing is added to the daemon: the discovery worker's
    time on a CPU, waiting for one, and blocked (on peers, the bus thread,
    file syncs), from /proc/<pid>/task/<tid>/schedstat before the VPD
    stand-in starts and after discovery; its blocks and preemptions (the
    context switches of /proc/<pid>/task/<tid>/status); the bus thread's CPU
    time; the log lines from "matchVpdd completed" to "Board discovery has
    ended"; the result files renamed; and, like the floor, what the syncs of
    as many files of the same size and of their directory take in a row on
    the same file system;
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
import ctypes
import json
import os
import select
import shutil
import socket
import statistics
import struct
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
    """The daemon on a fresh sandbox, with what it logs and what its VPD
    stand-in records."""

    def __init__(self, build, bus_address, votes_file, extra_objects=0):
        self.build = build
        self.votes_file = votes_file
        self.sandbox = tempfile.mkdtemp(prefix="hwtopod-bench.")
        subprocess.run([sys.executable, os.path.join(TOP, "sim/scenario.py"),
                        SCENARIO, self.sandbox, os.path.join(TOP, "data")],
                       check=True)
        if extra_objects:
            add_objects(os.path.join(self.sandbox, "vpdd.json"),
                        extra_objects)
        with open(os.path.join(self.sandbox, "vpdd.json")) as stream:
            self.ready_path = json.load(stream)["objects"][-1]["path"]
        self.vpdd_lines = []
        self.calls = (0, 0)
        self.split = {}
        results = os.path.join(self.sandbox, "root/var/configuration")
        os.makedirs(results, exist_ok=True)
        self.results = ResultWatch(results)
        self.env = dict(os.environ,
                        DBUS_SYSTEM_BUS_ADDRESS=bus_address,
                        HWTOPOD_ROOT=os.path.join(self.sandbox, "root"),
                        HALVEX_FPGA_IMAGES=os.path.join(self.sandbox, "fpga"),
                        HWTOPOD_SIM_GPIO=os.path.join(self.sandbox, "gpio"),
                        HWTOPOD_STATUS="normal",
                        LD_LIBRARY_PATH=os.path.join(build, "sim/gpiod"))
        # The log goes to a file that is looked at now and then, not to a
        # pipe read at once: a reader woken by every line would take the CPU
        # that the daemon discovers with.
        err_path = os.path.join(self.sandbox, "hwtopod.err")
        with open(err_path, "w") as err:
            self.process = subprocess.Popen(
                [os.path.join(build, "src/platforms/hwtopod")], env=self.env,
                stdout=subprocess.DEVNULL, stderr=err)
        self.err = open(err_path)
        self.log = []
        self.partial = ""
        self.vpdd = None

    def _poll(self):
        *lines, self.partial = (self.partial + self.err.read()).split("\n")
        self.log.extend(lines)

    def wait_for(self, text, timeout=120):
        """Waits for a log line holding text."""
        deadline = time.monotonic() + timeout
        seen = 0
        while True:
            self._poll()
            if any(text in line for line in self.log[seen:]):
                return
            seen = len(self.log)
            if self.process.poll() is not None:
                raise RuntimeError("hwtopod ended")
            if time.monotonic() > deadline:
                raise RuntimeError("no log line with " + text)
            time.sleep(0.01)

    def count(self, text):
        self._poll()
        return sum(1 for line in self.log if text in line)

    def start_vpdd(self):
        self.vpdd = subprocess.Popen(
            [os.path.join(self.build, "sim/vpdd/vpdd"),
             os.path.join(self.sandbox, "vpdd.json")],
            env=self.env, stdout=subprocess.PIPE, text=True)
        threading.Thread(target=self._read_vpdd, daemon=True).start()

    def _read_vpdd(self):
        for line in self.vpdd.stdout:
            self.vpdd_lines.append(line.rstrip("\n"))

    def vpdd_records(self, kind):
        """(monotonic ns, rest) of the VPD stand-in's stamped lines that
        begin with kind."""
        records = []
        for line in list(self.vpdd_lines):
            rest, _, stamp = line.rpartition(" at ")
            if line.startswith(kind + " ") and stamp.isdigit():
                records.append((int(stamp), rest[len(kind) + 1:]))
        return records

    def discovery_time(self):
        """Milliseconds from the VPD ready object's signal leaving the VPD
        stand-in to the last result file renamed into place; the calls the
        daemon made to its peers in between are kept in self.calls."""
        self.wait_for("Service is set")
        # The FPGA read-out is over once the fan types are logged.
        self.wait_for("getFpgaFanInfo 1U fan 8")
        votes_before = count_votes(self.votes_file)
        threads_before = self.thread_stats()
        self.start_vpdd()
        # Logged on the discovery worker after its last result file, so
        # every rename of this discovery is in the watch's queue by now.
        self.wait_for("Board discovery has ended")
        threads_after = self.thread_stats()
        written = self.results.drain()
        self.sync_vpdd()
        ready = [stamp for stamp, path in self.vpdd_records("published")
                 if path == self.ready_path]
        if not written or not ready:
            raise RuntimeError("no result file or no ready signal")
        end = max(written)
        calls = [stamp for kind in ("set", "call Get")
                 for stamp, _ in self.vpdd_records(kind)
                 if ready[0] <= stamp <= end]
        self.calls = (len(calls), count_votes(self.votes_file) - votes_before)
        took = (end - ready[0]) / 1e6
        self.split = self.split_of(took, threads_before, threads_after)
        self.split["renames"] = len(written)
        self.split["sync floor"] = self.sync_floor(len(written))
        return took

    def thread_stats(self):
        """{thread name: (ns on a CPU, ns waiting for one, voluntary and
        involuntary context switches)} of the daemon's named threads."""
        stats = {}
        tasks = "/proc/%d/task" % self.process.pid
        for tid in os.listdir(tasks):
            try:
                with open(os.path.join(tasks, tid, "comm")) as comm:
                    name = comm.read().strip()
                with open(os.path.join(tasks, tid, "schedstat")) as stat:
                    cpu, waiting = map(int, stat.read().split()[:2])
                with open(os.path.join(tasks, tid, "status")) as status:
                    switches = dict(line.split(":\t") for line in status
                                    if "ctxt_switches" in line)
            except OSError:
                continue
            stats[name] = (cpu, waiting,
                           int(switches["voluntary_ctxt_switches"]),
                           int(switches["nonvoluntary_ctxt_switches"]))
        return stats

    def split_of(self, took, before, after):
        """The split of a discovery of took ms, from the thread stats before
        the VPD stand-in started and after discovery had ended. Before the
        ready signal the worker only merges the other objects' signals, so
        its figures are those of the discovery, give or take that."""
        def delta(name):
            if name not in before or name not in after:
                raise RuntimeError("no daemon thread named " + name)
            return [b - a for a, b in zip(before[name], after[name])]
        worker = delta("discovery")
        bus = delta("bus")
        self._poll()
        start = max(i for i, line in enumerate(self.log)
                    if "matchVpdd completed" in line)
        end = max(i for i, line in enumerate(self.log)
                  if "Board discovery has ended" in line)
        return {"cpu": worker[0] / 1e6, "runnable": worker[1] / 1e6,
                "blocked": max(0.0, took - (worker[0] + worker[1]) / 1e6),
                "blocks": worker[2], "preempted": worker[3],
                "bus cpu": bus[0] / 1e6, "bus blocks": bus[2],
                "lines": end - start + 1}

    def sync_floor(self, renames, repeats=5):
        """Median ms that as many renames of freshly written and synced
        files, of the result files' sizes now, and one sync of their
        directory take in a row, in a directory of the sandbox on the same
        file system."""
        results = os.path.join(self.sandbox, "root/var/configuration")
        texts = []
        for name in RESULTS:
            try:
                with open(os.path.join(results, name), "rb") as stream:
                    texts.append(stream.read())
            except FileNotFoundError:
                pass
        directory = os.path.join(self.sandbox, "sync-floor")
        os.makedirs(directory, exist_ok=True)
        times = []
        for _ in range(repeats):
            start = time.monotonic_ns()
            for i in range(renames if texts else 0):
                path = os.path.join(directory, "%d.json" % (i % len(texts)))
                with open(path + ".tmp", "wb") as stream:
                    stream.write(texts[i % len(texts)])
                    stream.flush()
                    os.fsync(stream.fileno())
                os.rename(path + ".tmp", path)
            fd = os.open(directory, os.O_RDONLY | os.O_DIRECTORY)
            os.fsync(fd)
            os.close(fd)
            times.append((time.monotonic_ns() - start) / 1e6)
        return statistics.median(times)

    def sync_vpdd(self):
        """Waits until every line the VPD stand-in has written so far has
        been read: a call that it records, and then its record."""
        subprocess.run(["busctl", "--address=" + self.env[
            "DBUS_SYSTEM_BUS_ADDRESS"], "call", "com.halvex.vpdd", "/sync",
            "org.freedesktop.DBus.Properties", "Get", "ss", "sync", "sync"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 10
        while not any(line.startswith("call Get /sync ")
                      for line in list(self.vpdd_lines)):
            if time.monotonic() > deadline:
                raise RuntimeError("the VPD stand-in does not record calls")
            time.sleep(0.005)

    def floor(self, repeats=5):
        """Median milliseconds of the same calls as plain round trips on the
        same bus: (VPD calls, votes, ms)."""
        out = subprocess.run(
            [os.path.join(self.build, "bench/hwtopod-bench-floor"),
             str(self.calls[0]), str(self.calls[1]), str(repeats)],
            env=self.env, check=True, capture_output=True, text=True).stdout
        return self.calls + (float(out.split()[1]),)

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
        self.results.close()
        self.err.close()
        shutil.rmtree(self.sandbox, ignore_errors=True)


class ResultWatch:
    """Monotonic times, in ns, at which result files were renamed into
    place in a directory, stamped by a thread that waits on an inotify
    watch of it (the rename is how the daemon writes them)."""

    IN_MOVED_TO = 0x80

    def __init__(self, directory):
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.fd = self.libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        if self.fd < 0 or self.libc.inotify_add_watch(
                self.fd, directory.encode(), self.IN_MOVED_TO) < 0:
            raise OSError(ctypes.get_errno(), "inotify on " + directory)
        self.stamps = []
        # drain() wakes the thread through this pipe; nothing else does
        # but the watch, so the thread costs the daemon no CPU meanwhile.
        self.wake, self.asked = os.pipe()
        self.drained = threading.Event()
        self.thread = threading.Thread(target=self._watch, daemon=True)
        self.thread.start()

    def _read(self):
        try:
            data = os.read(self.fd, 65536)
        except BlockingIOError:
            return
        stamp = time.monotonic_ns()
        offset = 0
        while offset < len(data):
            _, _, _, length = struct.unpack_from("iIII", data, offset)
            name = data[offset + 16:offset + 16 + length].rstrip(b"\0")
            offset += 16 + length
            if name.decode() in RESULTS:
                self.stamps.append(stamp)

    def _watch(self):
        while True:
            ready, _, _ = select.select([self.fd, self.wake], [], [])
            self._read()
            if self.wake in ready:
                if os.read(self.wake, 1) == b"q":
                    return
                self.drained.set()

    def drain(self):
        """Every stamp, after what is queued now has been read."""
        self.drained.clear()
        os.write(self.asked, b"d")
        if not self.drained.wait(10):
            raise RuntimeError("the result file watch does not answer")
        return list(self.stamps)

    def close(self):
        os.write(self.asked, b"q")
        self.thread.join()
        for fd in (self.fd, self.wake, self.asked):
            os.close(fd)


def count_votes(path):
    """Power votes the power management stand-in has logged so far."""
    with open(path) as stream:
        return sum(1 for line in stream if line.startswith("Vote "))


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
    config = config.replace("@SOURCE@", TOP)
    with open(os.path.join(workdir, "bus.conf"), "w") as f:
        f.write(config)
    bus = subprocess.Popen(["dbus-daemon", "--config-file=" +
                            os.path.join(workdir, "bus.conf"), "--nofork",
                            "--nopidfile", "--print-address=1"],
                           stdout=subprocess.PIPE, text=True)
    bus.stdout.readline()
    return bus, "unix:path=" + os.path.join(workdir, "bus")


def start_services(build, address, workdir):
    """The power management and liquid cooling stand-ins on the bus; the
    first one's record of votes goes to workdir/pwrmgt.out."""
    env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=address)
    with open(os.path.join(workdir, "pwrmgt.out"), "w") as votes:
        return [subprocess.Popen([os.path.join(build, program)], env=env,
                                 stdout=out)
                for program, out in (
                    ("sim/pwrmgt/hwtopod-sim-pwrmgt", votes),
                    ("sim/liquid_cooling/liquid-cooling",
                     subprocess.DEVNULL))]


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
    if journald_listens():
        return
    # It outlives the benchmark, so it must not hold the caller's output
    # open: a shell reading the benchmark's output would wait for ever.
    subprocess.Popen(["/lib/systemd/systemd-journald"],
                     start_new_session=True, stdin=subprocess.DEVNULL,
                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 5
    while not journald_listens() and time.monotonic() < deadline:
        time.sleep(0.01)


def idle_and_edges(daemon, args, rows):
    """Idle CPU after discovery and the first passes of the service loop,
    then GPIO edges through the stand-in to their journal records."""
    daemon.wait_for("setLiquidCooling called successfully!")
    time.sleep(11)
    before = daemon.cpu_seconds()
    time.sleep(args.idle)
    idle = daemon.cpu_seconds() - before
    rows.append(("Idle CPU over %d s after discovery" % args.idle,
                 "%.2f s CPU = %.3f %% of one core"
                 % (idle, 100.0 * idle / args.idle)))
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
            while daemon.count("found in fpga_gpio_table") < seen:
                time.sleep(0.0005)
    received = journal_times(daemon.process.pid,
                             ("TKRMBPU0001N", "TKRMBPU2001I"))
    latency = [(r - s) * 1000 for s, r in zip(sent, received[-len(sent):])]
    rows.append(("GPIO edge to journal record, %d edges" % len(latency),
                 "median %.3f ms, worst %.3f ms"
                 % (statistics.median(latency), max(latency))))


def discovery_rows(build, address, votes, runs, extra, first):
    """Rows of runs discoveries, each by a fresh daemon with extra more VPD
    objects, and of the floor of each; first(daemon) is called on the first
    daemon after its discovery."""
    times = []
    floors = []
    splits = []
    for run in range(runs):
        daemon = Daemon(build, address, votes, extra)
        try:
            times.append(daemon.discovery_time())
            floors.append(daemon.floor())
            splits.append(daemon.split)
            if run == 0:
                first(daemon)
        finally:
            daemon.stop()
    what = "more VPD objects" if extra else ""
    name = ("Discovery with %d %s" % (extra, what)) if extra else \
        "Discovery, healthy machine"
    ratios = [t / f[2] for t, f in zip(times, floors)]
    calls = sorted(set((f[0] + f[1]) for f in floors))
    return [
        ("%s (%d runs)" % (name, runs), "median %.2f ms, min %.2f, max %.2f"
         % (statistics.median(times), min(times), max(times))),
        ("Its floor: %s calls, each on a connection of its own"
         % " or ".join(str(c) for c in calls),
         "median %.2f ms" % statistics.median(f[2] for f in floors)),
        ("Its ratio discovery / floor", "median %.2f, min %.2f, max %.2f"
         % (statistics.median(ratios), min(ratios), max(ratios))),
    ] + split_rows(splits)


def split_rows(splits):
    """The medians of the runs' splits."""
    def median(key):
        return statistics.median(split[key] for split in splits)
    files = sorted(set(split["renames"] for split in splits))
    return [
        ("Split: discovery worker on a CPU / waiting for one / blocked",
         "median %.2f / %.2f / %.2f ms"
         % (median("cpu"), median("runnable"), median("blocked"))),
        ("Split: its blocks / its preemptions",
         "median %d / %d" % (median("blocks"), median("preempted"))),
        ("Split: bus thread on a CPU, its blocks",
         "median %.2f ms, %d" % (median("bus cpu"), median("bus blocks"))),
        ("Split: log lines, result files renamed",
         "median %d, %d" % (median("lines"), median("renames"))),
        ("Split: result files synced and renamed in a row (%s files and "
         "one sync of their directory)" % " or ".join(str(f) for f in files),
         "median %.2f ms" % median("sync floor")),
    ]


def print_table(rows):
    """The figures as the Markdown table of docs/performance.md."""
    print("| Measure | Result |")
    print("|---|---|")
    for name, value in rows:
        print("| %s | %s |" % (name, value))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=os.path.join(TOP, "build"))
    parser.add_argument("--runs", type=int, default=20)
    parser.add_argument("--more-runs", type=int, default=5,
                        help="runs with 100 and with 1,000 more objects")
    parser.add_argument("--idle", type=int, default=60)
    parser.add_argument("--edges", type=int, default=1000)
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    ensure_journald()

    workdir = tempfile.mkdtemp(prefix="hwtopod-bench-bus.")
    bus, address = start_bus(workdir)
    services = start_services(build, address, workdir)
    votes = os.path.join(workdir, "pwrmgt.out")
    rows = []
    extra_rows = []
    try:
        def first(daemon):
            extra_rows.append(("Resident memory after discovery",
                               "%d KiB" % daemon.rss_kib()))
            idle_and_edges(daemon, args, extra_rows)
        rows += discovery_rows(build, address, votes, args.runs, 0, first)
        rows += extra_rows
        for count in (100, 1000):
            def memory(daemon, count=count):
                if count == 1000:
                    rows.append(("Resident memory after %d more objects"
                                 % count, "%d KiB" % daemon.rss_kib()))
            rows += discovery_rows(build, address, votes, args.more_runs,
                                   count, memory)
    finally:
        for process in services + [bus]:
            stop_process(process)
        shutil.rmtree(workdir, ignore_errors=True)
    print_table(rows)


if __name__ == "__main__":
    main()
