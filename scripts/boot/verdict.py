#!/usr/bin/env python3
"""Reads the serial console of a boot test run and gives its verdict.

Usage: verdict.py CONSOLE_LOG HEALTHY_REPORT

Prints each check's result and the figures, compares the daemon's reports
(hwtopod-inspect's JSON, sent base64-encoded by the guest) of the first
start and of the restart with the healthy machine's, and exits 0 only when
every check of the guest passed, none is missing, the run ended, the unit's
exposure is at most EXPOSURE_LIMIT, and both reports show the healthy
machine with the one regulator fault that the image's machine has from
power-on, the restart's with the records of both processes in turn.
"""

import base64
import json
import sys

CHECKS = ("discovery-ended", "match-before-vpd-service", "ready-by-notify",
          "links-resolve", "gpio-kernel-lines", "jumper-level",
          "fault-at-start", "non-root-reads", "non-root-refused",
          "restart-after-kill", "restart-events", "watchdog-restart",
          "fault-edges", "edge-timing", "missing-bus", "journal-priorities")
# The record of the fault that stands from power-on (the scenario
# fault-at-start), which each start reports once.
STANDING_FAULT = ("TKRMBPW0131N", "12V_PCIE_PWR1")
REPORTS = ("first", "restart")
# The most systemd-analyze security may rate the unit's exposure at.
EXPOSURE_LIMIT = 2.5


def read_console(path):
    results, figures, reports, done = {}, {}, {}, False
    with open(path, errors="replace") as stream:
        for raw in stream:
            # Kernel messages may share a line with the guest's output.
            at = raw.find("BOOTTEST ")
            if at < 0:
                continue
            words = raw[at:].strip().split(" ", 3)
            kind = words[1] if len(words) > 1 else ""
            if kind == "done":
                done = True
            elif kind == "ok" and len(words) > 2:
                results[words[2]] = None
            elif kind == "fail" and len(words) > 2:
                name = words[2].rstrip(":")
                results[name] = words[3] if len(words) > 3 else "failed"
            elif kind == "figure" and len(words) > 3:
                figures[words[2]] = words[3]
            elif kind == "report" and len(words) > 3:
                reports[words[2]] = reports.get(words[2], "") + words[3]
    return results, figures, reports, done


def boards(report):
    """What the daemon published of each board, with its links' buses."""
    picture = []
    for kind in ("risers", "backplanes", "midplanes"):
        for entry in report.get(kind) or []:
            links = [entry["i2c"]] if "i2c" in entry else [
                slot["i2c"] for slot in entry.get("slots", [])]
            picture.append((entry.get("path"), entry.get("interface"),
                            json.dumps(entry.get("properties"), sort_keys=True),
                            entry.get("seenBy"), entry.get("cable"),
                            entry.get("location"),
                            tuple((l.get("link"), l.get("bus")) for l in links)))
    return sorted(picture, key=repr)


def events(report):
    return sorted({(e["id"], e["args"]) for e in report.get("events", [])})


def compare(name, report, healthy):
    """The differences of a report from the healthy machine's."""
    why = []
    # The report after the restart holds the records of both processes.
    starts = REPORTS.index(name) + 1
    if boards(report) != boards(healthy):
        why.append("boards or links differ")
    if report.get("resultFiles") != healthy["resultFiles"]:
        why.append("result files differ")
    wanted = sorted(set(events(healthy)) | {STANDING_FAULT})
    if events(report) != wanted:
        why.append("events differ: %s" % sorted(
            set(events(report)) ^ set(wanted)))
    problems = [p for p in report.get("problems") or []
                if not p.startswith(STANDING_FAULT[0] + " ")]
    # Each start reports the standing fault once.
    if problems or len(report.get("problems") or []) != starts:
        why.append("problems: %s" % report.get("problems"))
    if report.get("failures"):
        why.append("failures: %s" % report["failures"])
    if report.get("service", {}).get("onBus") is not True:
        why.append("the daemon is not on the bus")
    # Each start's records in turn, the first process's before the next's.
    writers = [e.get("pid") for e in report.get("events", [])]
    runs = [p for i, p in enumerate(writers) if i == 0 or writers[i - 1] != p]
    if len(runs) != starts or len(set(runs)) != len(runs):
        why.append("records of processes %s, not of each start in turn" % runs)
    return ["report-%s: %s" % (name, w) for w in why]


def main():
    if len(sys.argv) != 3:
        raise SystemExit(__doc__)
    results, figures, reports, done = read_console(sys.argv[1])
    with open(sys.argv[2]) as stream:
        healthy = json.load(stream)
    failures = []
    for name in CHECKS:
        if name not in results:
            failures.append("%s: no result" % name)
        elif results[name] is not None:
            failures.append("%s: %s" % (name, results[name]))
        else:
            print("boot test: ok %s" % name)
    for name in REPORTS:
        try:
            report = json.loads(base64.b64decode(reports.get(name, "")))
        except ValueError as error:
            failures.append("report-%s: unreadable (%s)" % (name, error))
            continue
        found = compare(name, report, healthy)
        failures += found
        if not found:
            print("boot test: ok report-%s is the healthy machine" % name)
    if not done:
        failures.append("the guest did not end its checks")
    try:
        if float(figures["exposure"]) > EXPOSURE_LIMIT:
            failures.append("exposure: %s, above %s" % (
                figures["exposure"], EXPOSURE_LIMIT))
    except (KeyError, ValueError):
        failures.append("exposure: no figure")
    for name, value in figures.items():
        print("boot test: figure %s %s" % (name, value))
    for failure in failures:
        print("boot test: FAIL %s" % failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
