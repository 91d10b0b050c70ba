#!/usr/bin/env python3
"""The emulated AST2600 board of the boot test, wired as the machine is.

Usage:
  board.py dtb SOURCE TARGET SCENARIO   the board's device tree, changed
  board.py qemu SCENARIO                the emulator's options, one a line
  board.py drive QMP CONSOLE SCENARIO   the test's hand on the fault lines

The machine's fault lines and its security jumper are named lines of the
SoC's GPIO controller, in the order of the simulator's line list, from pin
A0 on; one more line, "BOOTTEST_EDGE_PROBE", follows an edge of a fault line
so that the guest can time the edge as the kernel saw it. The I2C buses the
rule files name from 30 on are channels of emulated pca9548 muxes: mux k
sits at 0x70 on the SoC's bus k and its channels get the bus numbers
30 + 8k to 37 + 8k through the device tree's aliases.

`drive` runs beside the emulator, which is started paused: it sets every
line to the scenario's level before the board runs, then serves the guest.
The guest asks on its console, which the emulator writes to a file (the
board's one serial port, and the emulator gives the guest no other way
out), with a line "BOOTTEST request ID VERB ARGS...":
  set NAME LEVEL                the line to 0 or 1
  pulse NAME COUNT MILLISECONDS COUNT edges of the line, each after an edge
                                of the probe line, that many milliseconds
                                apart
and once the request is carried out the driver flips the line
"BOOTTEST_ACK", on which the guest waits. A request it cannot carry out is
written to its standard error and not acknowledged. With "-" for the
console the lines are set, the board is let run, and no request is read.
"""

import json
import os
import socket
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                "..", "..", "sim"))
import scenario as sim  # noqa: E402

PROBE = "BOOTTEST_EDGE_PROBE"
ACK = "BOOTTEST_ACK"
GPIO = "/ahb/apb/gpio@1e780000"
GPIO_QOM = "/machine/soc/gpio"
# The SoC's I2C buses, found by their aliases i2c0 to i2c15: kernels name
# their nodes differently.
I2C_BUSES = 16
FIRST_MUX_BUS = 30
MUX_ADDRESS = 0x70
PIN_GROUPS = [chr(ord("A") + n) for n in range(26)]


def line_names():
    return list(sim.fault_lines()) + [PROBE, ACK]


def pin(offset):
    """The emulator's property of the controller's line at the offset."""
    return "gpio%s%d" % (PIN_GROUPS[offset // 8], offset % 8)


def muxes(scenario_dir):
    """The muxes the scenario's buses need, by the SoC bus they sit on."""
    buses = sim.load(scenario_dir).get("i2cBuses", [])
    return sorted({(bus - FIRST_MUX_BUS) // 8 for bus in buses
                   if bus >= FIRST_MUX_BUS})


def make_dtb(source, target, scenario_dir):
    subprocess.run(["cp", source, target], check=True)

    def put(*args):
        subprocess.run(["fdtput", target] + list(args), check=True)

    def soc_bus_node(n):
        return subprocess.run(["fdtget", "-t", "s", target, "/aliases", "i2c%d" % n],
                              check=True, capture_output=True, text=True).stdout.strip()

    put("-t", "s", GPIO, "gpio-line-names", *line_names())
    # The evaluation board's I2C buses claim pins through the pin controller,
    # some of which carry the lines here, and a claimed pin is refused to a
    # GPIO request; the emulated buses need no pin muxing.
    for n in range(I2C_BUSES):
        for name in ("pinctrl-0", "pinctrl-names"):
            subprocess.run(["fdtput", "-d", target, soc_bus_node(n), name],
                           check=False, stderr=subprocess.DEVNULL)
    for soc_bus in muxes(scenario_dir):
        bus = soc_bus_node(soc_bus)
        mux = "%s/i2c-mux@%x" % (bus, MUX_ADDRESS)
        put("-t", "s", bus, "status", "okay")
        put("-c", mux)
        put("-t", "s", mux, "compatible", "nxp,pca9548")
        put("-t", "x", mux, "reg", "%x" % MUX_ADDRESS)
        put("-t", "x", mux, "#address-cells", "1")
        put("-t", "x", mux, "#size-cells", "0")
        for channel in range(8):
            node = "%s/i2c@%d" % (mux, channel)
            put("-c", node)
            put("-t", "x", node, "reg", "%x" % channel)
            put("-t", "x", node, "#address-cells", "1")
            put("-t", "x", node, "#size-cells", "0")
            put("-t", "s", "/aliases",
                "i2c%d" % (FIRST_MUX_BUS + 8 * soc_bus + channel), node)


def qemu_options(scenario_dir):
    options = []
    for soc_bus in muxes(scenario_dir):
        options += ["-device", "pca9548,bus=aspeed.i2c.bus.%d,address=0x%x"
                    % (soc_bus, MUX_ADDRESS)]
    return options


class Monitor:
    """The emulator's QMP socket."""

    def __init__(self, path):
        self.stream = connect(path).makefile("rw")
        self.stream.readline()
        self.command("qmp_capabilities")

    def command(self, name, **arguments):
        request = {"execute": name}
        if arguments:
            request["arguments"] = arguments
        self.stream.write(json.dumps(request) + "\n")
        self.stream.flush()
        while True:
            line = self.stream.readline()
            if not line:
                raise RuntimeError("the emulator closed its monitor")
            reply = json.loads(line)
            if "error" in reply:
                raise RuntimeError(reply["error"].get("desc", "error"))
            if "return" in reply:
                return reply["return"]

    def set_line(self, offset, level):
        self.command("qom-set", path=GPIO_QOM, property=pin(offset),
                     value=bool(level))


def connect(path):
    # The emulator makes its socket as it starts.
    for _ in range(300):
        try:
            client = socket.socket(socket.AF_UNIX)
            client.connect(path)
            return client
        except OSError:
            client.close()
            time.sleep(0.1)
    raise SystemExit("board.py: no emulator socket %s" % path)


def answer(monitor, levels, offsets, request):
    """Carries out a request; false when it is none the driver knows."""
    words = request.split()

    def flip(name, level=None):
        level = 1 - levels[name] if level is None else level
        monitor.set_line(offsets[name], level)
        levels[name] = level

    if len(words) == 3 and words[0] == "set" and words[1] in offsets and \
            words[2] in ("0", "1"):
        flip(words[1], int(words[2]))
        return True
    if len(words) == 4 and words[0] == "pulse" and words[1] in offsets and \
            words[2].isdigit() and words[3].isdigit():
        for _ in range(int(words[2])):
            # The probe first: the kernel's time of its edge is never later
            # than the fault line's.
            flip(PROBE)
            flip(words[1])
            time.sleep(int(words[3]) / 1000)
        return True
    return False


def requests(console_path):
    """The guest's requests as they appear in the console's file."""
    with open(console_path, "rb") as console:
        pending = b""
        while True:
            chunk = console.read()
            if not chunk:
                time.sleep(0.05)
                continue
            lines = (pending + chunk).split(b"\n")
            pending = lines.pop()
            for raw in lines:
                # Kernel messages may share a line with a request.
                at = raw.find(b"BOOTTEST request ")
                if at >= 0:
                    yield raw[at:].decode(errors="replace").split(None, 3)


def drive(qmp_path, console_path, scenario_dir):
    monitor = Monitor(qmp_path)
    offsets = {name: n for n, name in enumerate(line_names())}
    levels = dict(sim.fault_lines(), **{PROBE: 0, ACK: 0})
    levels.update(sim.load(scenario_dir).get("gpio", {}).get("levels", {}))
    for name, level in levels.items():
        monitor.set_line(offsets[name], level)
    monitor.command("cont")
    if console_path == "-":
        return
    while not os.path.exists(console_path):
        time.sleep(0.1)
    for words in requests(console_path):
        try:
            if len(words) == 4 and answer(monitor, levels, offsets, words[3]):
                monitor.set_line(offsets[ACK], 1 - levels[ACK])
                levels[ACK] = 1 - levels[ACK]
                continue
            print("board.py: unknown request %s" % words, file=sys.stderr)
        except RuntimeError as error:
            print("board.py: %s: %s" % (words, error), file=sys.stderr)


def main():
    command = sys.argv[1] if len(sys.argv) > 1 else ""
    if command == "dtb" and len(sys.argv) == 5:
        make_dtb(*sys.argv[2:])
    elif command == "qemu" and len(sys.argv) == 3:
        print("\n".join(qemu_options(sys.argv[2])))
    elif command == "drive" and len(sys.argv) == 5:
        drive(*sys.argv[2:])
    else:
        raise SystemExit(__doc__)


if __name__ == "__main__":
    main()
