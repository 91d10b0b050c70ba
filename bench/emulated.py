#!/usr/bin/env python3
"""Memory of the 32-bit ARM daemon, run under user-mode emulation.

    python3 bench/emulated.py [--build build-armhf]

Starts the ARM build's daemon on the healthy scenario as bench/run.py does,
waits for discovery, and prints what the daemon itself holds: resident and
anonymous memory, virtual size, threads, and the stripped binary's size.

The process the kernel sees is the emulator, whose own translation buffers
and libraries would swamp the daemon's figures. So the emulator is told to
lay the ARM address space at a fixed host address (QEMU_GUEST_BASE), and
only the mappings inside those 4 GiB are counted. The emulator keeps the
free part of that space reserved as inaccessible anonymous mappings; those
are the runs of free space between the ARM program's own mappings, which
are left out of the virtual size as the ARM kernel would. The emulator runs
one thread of its own, which is not counted. Times mean nothing under
emulation and are not measured.
"""

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from run import (Daemon, TOP, ensure_journald, print_table,  # noqa: E402
                 start_bus, start_services, stop_process)

GUEST_BASE = 0x100000000
GUEST_END = GUEST_BASE + (1 << 32)
# Free space the emulator holds: large inaccessible anonymous reservations.
# The ARM program's own inaccessible regions (guard pages, the unused tails
# of malloc arenas, library alignment holes) are each at most 1 MiB.
FREE_RUN = 1 << 20


def guest_mappings(pid):
    mappings = []
    with open("/proc/%d/smaps" % pid) as smaps:
        for line in smaps:
            head = re.match(r"^([0-9a-f]+)-([0-9a-f]+) (\S+) \S+ \S+ \S+\s*(.*)$",
                            line)
            if head:
                mappings.append({"start": int(head[1], 16),
                                 "end": int(head[2], 16),
                                 "perms": head[3], "name": head[4]})
            elif line.split(":")[0] in ("Rss", "Anonymous"):
                mappings[-1][line.split(":")[0]] = int(line.split()[1])
    return [m for m in mappings
            if GUEST_BASE <= m["start"] and m["end"] <= GUEST_END]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=os.path.join(TOP, "build-armhf"))
    build = os.path.abspath(parser.parse_args().build)
    os.environ["QEMU_GUEST_BASE"] = hex(GUEST_BASE)
    ensure_journald()
    workdir = tempfile.mkdtemp(prefix="hwtopod-bench-bus.")
    bus, address = start_bus(workdir)
    services = start_services(build, address)
    try:
        daemon = Daemon(build, address)
        try:
            daemon.wait_for("Service is set")
            daemon.start_vpdd()
            daemon.wait_for("Board discovery has ended")
            pid = daemon.process.pid
            mappings = guest_mappings(pid)
            threads = len(os.listdir("/proc/%d/task" % pid)) - 1
        finally:
            daemon.stop()
    finally:
        for process in services + [bus]:
            stop_process(process)
        shutil.rmtree(workdir, ignore_errors=True)
    free = sum(m["end"] - m["start"] for m in mappings
               if m["perms"].startswith("---") and not m["name"]
               and m["end"] - m["start"] > FREE_RUN)
    size = sum(m["end"] - m["start"] for m in mappings) - free
    stripped = os.path.join(workdir + ".hwtopod")
    subprocess.run(["arm-linux-gnueabihf-strip", "-o", stripped,
                    os.path.join(build, "src/platforms/hwtopod")], check=True)
    kib = "{:,} KiB".format
    rows = (("VmRSS after discovery",
             kib(sum(m.get("Rss", 0) for m in mappings))),
            ("RssAnon after discovery",
             kib(sum(m.get("Anonymous", 0) for m in mappings))),
            ("VmSize after discovery", kib(size // 1024)),
            ("Threads", threads),
            ("Stripped binary", kib(os.path.getsize(stripped) // 1024)))
    os.unlink(stripped)
    print_table(rows)


if __name__ == "__main__":
    main()
