#!/usr/bin/env python3
"""Turns a simulator scenario (sim/scenarios/<name>/scenario.json) into a
sandbox: the root file system the daemon sees through HWTOPOD_ROOT, the
register images of the FPGA library stand-in, the line file and edge FIFO of
the GPIO library stand-in, the VPD stand-in's object file, and scenario.env
with what the simulator command needs to run the services. The format is
described in docs/simulation.md.

Usage: scenario.py <scenario directory> <sandbox directory> <data directory>
"""

import json
import os
import shutil
import sys

RULE_DIR = "usr/share/vantarack-bmc-apps/hwtopod"
CHASSIS_DIR = "sys/devices/platform/ahb/ahb:apb/1e6ef010.chassis/hwmon/hwmon0"
LIST_KEYS = ("registers", "topology", "edges")
DICT_KEYS = ("gpio", "vpdd", "pwrmgt", "cooling", "rules", "confine",
             "truncate", "results")


def fault_lines():
    """Every fault line of the machine with its level when not at fault."""
    names = ["HPM_SCM_STBY_RDY"]
    names += ["VR_FAULT_%d_N" % n for n in range(1, 35)]
    names += ["VR_FAULT_%d_N" % n for n in range(43, 52)]
    names += ["VR_FAULT_%d_N" % n for n in range(53, 65)]
    names += ["CONN%d_BP_PG" % n for n in (9, 10, 11, 21, 20, 22, 23, 12, 13,
                                            14, 15, 4, 3, 2, 1)]
    names += ["CPU1_THERMTRIP", "CPU2_THERMTRIP", "LOW_SECURITY_JMP_N"]
    # HPM_SCM_STBY_RDY is at fault when low, the others when high; the
    # security jumper is open (high).
    return {name: 1 if name in ("HPM_SCM_STBY_RDY", "LOW_SECURITY_JMP_N")
            else 0 for name in names}


def load(directory, seen=()):
    """The scenario with what it inherits merged in."""
    name = os.path.basename(os.path.normpath(directory))
    if name in seen:
        raise SystemExit("scenario %s inherits from itself" % name)
    with open(os.path.join(directory, "scenario.json")) as stream:
        own = json.load(stream)
    # File references are relative to the scenario that names them.
    vpdd = own.get("vpdd", {})
    if isinstance(vpdd.get("objects"), str):
        vpdd["objects"] = os.path.join(directory, vpdd["objects"])
    for key in ("rules", "results"):
        for name, given in own.get(key, {}).items():
            if isinstance(given, str):
                own[key][name] = os.path.join(directory, given)
    parent_name = own.pop("inherits", None)
    if parent_name is None:
        return own
    parent = load(os.path.join(os.path.dirname(os.path.normpath(directory)),
                               parent_name), seen + (name,))
    merged = dict(parent)
    for key, value in own.items():
        if key in LIST_KEYS:
            merged[key] = parent.get(key, []) + value
        elif key in DICT_KEYS:
            combined = dict(parent.get(key, {}))
            for inner, inner_value in value.items():
                if isinstance(inner_value, dict) and isinstance(
                        combined.get(inner), dict):
                    combined[inner] = {**combined[inner], **inner_value}
                elif isinstance(inner_value, list) and isinstance(
                        combined.get(inner), list):
                    combined[inner] = combined[inner] + inner_value
                else:
                    combined[inner] = inner_value
            merged[key] = combined
        else:
            merged[key] = value
    return merged


def number(value):
    return int(value, 0) if isinstance(value, str) else int(value)


def write(path, data, mode="w"):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, mode) as stream:
        stream.write(data)


def build_images(scenario, fpga):
    images = {"local": bytearray(1024), "remote0": bytearray(1024)}
    adi = bytearray(1024)
    for entry in scenario.get("registers", []):
        image, block, offset, value = entry[:4]
        images[image][number(block) * 16 + number(offset)] = number(value)
    for entry in scenario.get("topology", []):
        position, a_exp, b_exp, a_act, b_act, status = entry[:6]
        base = (number(position) - 1) * 4
        adi[base:base + 4] = bytes([number(a_exp), number(b_exp),
                                    (number(b_act) << 4) | number(a_act),
                                    number(status)])
    os.makedirs(fpga, exist_ok=True)
    missing = scenario.get("missingImages", [])
    for image, data in images.items():
        if image not in missing:
            write(os.path.join(fpga, image + ".img"), bytes(data), "wb")
    if "adi" not in missing:
        write(os.path.join(fpga, "remote0-adi-20-8.img"), bytes(adi), "wb")
    for image, size in scenario.get("truncate", {}).items():
        os.truncate(os.path.join(fpga, image + ".img"), number(size))


def build_vpdd(scenario, sandbox):
    vpdd = scenario.get("vpdd", {})
    with open(vpdd["objects"]) as stream:
        document = json.load(stream)
    objects = document["objects"]
    removed = set(vpdd.get("remove", []))
    objects = [o for o in objects if o["path"] not in removed]
    for path, changes in vpdd.get("set", {}).items():
        for candidate in objects:
            if candidate["path"] == path:
                candidate.setdefault("properties", {}).update(changes)
    objects += vpdd.get("add", [])
    # The object that tells the daemon that the service is complete comes
    # last, as the real service publishes it.
    ready = vpdd.get("readyPath", "/com/halvex/vpdd/DIMM_32")
    objects.sort(key=lambda o: o["path"] == ready)
    document["objects"] = objects
    document["startDelay"] = vpdd.get("startDelay", 0)
    for key in ("burst", "repeat"):
        if key in vpdd:
            document[key] = vpdd[key]
    if vpdd.get("crashAfter") is not None:
        # The service that comes back after the crash publishes everything.
        write(os.path.join(sandbox, "vpdd-again.json"),
              json.dumps(document, indent=2))
        document["crashAfter"] = vpdd["crashAfter"]
    write(os.path.join(sandbox, "vpdd.json"), json.dumps(document, indent=2))
    return ready


def build_root(scenario, root, data_dir):
    rules = os.path.join(root, RULE_DIR)
    os.makedirs(rules, exist_ok=True)
    for directory in (data_dir, os.path.join(data_dir, "registries")):
        for name in sorted(os.listdir(directory)):
            if name.endswith(".json"):
                shutil.copy(os.path.join(directory, name), rules)
    for name, given in scenario.get("rules", {}).items():
        target = os.path.join(rules, name)
        if given is None:
            if os.path.exists(target):
                os.remove(target)
        else:
            shutil.copy(given, target)
    write(os.path.join(root, "etc/os-release"),
          scenario.get("osRelease", 'HALVEX_BUILDID="QDM413B"\n'))
    configuration = os.path.join(root, "var/configuration")
    os.makedirs(configuration, exist_ok=True)
    for name, given in scenario.get("results", {}).items():
        shutil.copy(given, os.path.join(configuration, name))
    dev = os.path.join(root, "dev")
    os.makedirs(dev, exist_ok=True)
    for node in scenario.get("fpgaNodes",
                             ["fpga-cdev", "fpga-r0", "fpga-r0-adi"]):
        write(os.path.join(dev, node), "")
    devices = os.path.join(root, "sys/bus/i2c/devices")
    os.makedirs(devices, exist_ok=True)
    for bus in scenario.get("i2cBuses", []):
        name = "i2c-%d" % bus
        os.makedirs(os.path.join(root, "sys/devices/platform/ahb/i2c", name))
        os.symlink("../../../devices/platform/ahb/i2c/" + name,
                   os.path.join(devices, name))
    if scenario.get("intrusion") is not None:
        write(os.path.join(root, CHASSIS_DIR, "intrusion_raw"),
              "%d\n" % scenario["intrusion"])


def build_gpio(scenario, gpio, root):
    given = scenario.get("gpio", {})
    if given.get("lines") is None:
        return False
    # The controller's device node, where the daemon looks for controllers
    # itself (the newer GPIO library has no walk of its own).
    write(os.path.join(root, "dev/gpiochip0"), "")
    levels = fault_lines()
    levels.update(given.get("levels", {}))
    os.makedirs(gpio, exist_ok=True)
    write(os.path.join(gpio, "lines"),
          "".join("%s %d\n" % (name, level) for name, level in levels.items()))
    os.mkfifo(os.path.join(gpio, "edges"))
    return True


def main():
    if len(sys.argv) != 4:
        raise SystemExit(__doc__)
    directory, sandbox, data_dir = sys.argv[1:]
    scenario = load(directory)
    root = os.path.join(sandbox, "root")
    build_root(scenario, root, data_dir)
    build_images(scenario, os.path.join(sandbox, "fpga"))
    ready = build_vpdd(scenario, sandbox)
    has_gpio = build_gpio(scenario, os.path.join(sandbox, "gpio"), root)
    edges = scenario.get("edges", [])
    write(os.path.join(sandbox, "edges.txt"),
          "".join("%s %s\n" % (line, edge) for line, edge in edges))
    status = scenario.get("status", "normal")
    vpdd = scenario.get("vpdd", {})
    pwrmgt = scenario.get("pwrmgt", {})
    cooling = scenario.get("cooling", {})
    confine = scenario.get("confine", {})
    confine_options = []
    if confine.get("journal") is False:
        confine_options.append("--no-journal")
    if confine.get("configuration"):
        confine_options += ["--configuration", confine["configuration"]]
    # Log lines to wait for, instead of the end of discovery: a text, or a
    # text and how often it must have been written.
    wait_for = [[1, given] if isinstance(given, str) else given[::-1]
                for given in scenario.get("waitFor", [])]
    write(os.path.join(sandbox, "waitfor.txt"),
          "".join("%d\t%s\n" % (count, text) for count, text in wait_for))
    env = {
        "SCENARIO_STATUS": "<unset>" if status is None else status,
        "SCENARIO_VPDD_DELAY": str(vpdd.get("startDelay", 0)),
        "SCENARIO_VPDD": "1" if vpdd.get("running", True) else "0",
        "SCENARIO_VPDD_BEFORE": "1" if vpdd.get("before") else "0",
        "SCENARIO_VPDD_COMES_BACK": "1" if vpdd.get("comesBack") else "0",
        "SCENARIO_READY_PATH": ready,
        "SCENARIO_PWRMGT": "1" if pwrmgt.get("running", True) else "0",
        "SCENARIO_PWRMGT_REPLY": str(pwrmgt.get("reply", 0)),
        "SCENARIO_COOLING": "1" if cooling.get("running", True) else "0",
        "SCENARIO_COOLING_WHEN": cooling.get("startWhen", ""),
        "SCENARIO_CONFINE": " ".join(confine_options),
        "SCENARIO_NAME_HELD": "1" if scenario.get("nameHeld") else "0",
        "SCENARIO_DAEMON_EXIT": str(scenario.get("daemonExit", "")),
        "SCENARIO_GPIO": "1" if has_gpio else "0",
        "SCENARIO_EDGES": str(len(edges)),
        "SCENARIO_STARTS": str(scenario.get("starts", 1)),
    }
    write(os.path.join(sandbox, "scenario.env"),
          "".join("%s='%s'\n" % item for item in env.items()))
    write(os.path.join(sandbox, "description.txt"),
          scenario.get("description", "") + "\n")


if __name__ == "__main__":
    main()
