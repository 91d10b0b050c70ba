#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The running daemon against its D-Bus contract, SOURCE/docs/dbus/*.xml,
one file for each fixed object below /com: the same objects, interfaces,
members, signatures and property access, less the org.freedesktop.DBus
interfaces. Run on the simulator's private bus:
scripts/simulate.sh healthy -- check_contract.py SOURCE
"""

import glob
import subprocess
import sys
import xml.etree.ElementTree as ET


def members(xml):
    node = ET.fromstring(xml)
    return node.get("name"), {
        (i.get("name"), m.tag, m.get("name"), m.get("access"), m.get("type")
         or "".join(a.get("type") for a in m.iter("arg")))
        for i in node.findall("interface")
        if not i.get("name").startswith("org.freedesktop.DBus.") for m in i}


def busctl(*arguments):
    return subprocess.run(["busctl", *arguments], capture_output=True,
                          text=True, check=True).stdout


documented = dict(members(open(f).read())
                  for f in glob.glob(sys.argv[1] + "/docs/dbus/*.xml"))
published = {}
for path in busctl("--list", "tree", "com.halvex.hwtopod").split():
    found = members(busctl("--xml-interface", "introspect",
                           "com.halvex.hwtopod", path))[1]
    if path.startswith("/com/") and found:
        published[path] = found
drift = set()
for path in set(documented) | set(published):
    mine, theirs = documented.get(path, set()), published.get(path, set())
    drift |= {("documented only", path, *m) for m in mine - theirs}
    drift |= {("published only", path, *m) for m in theirs - mine}
print(*sorted(drift, key=str), sep="\n")
print(len(published), "objects published,", len(drift), "differences")
sys.exit(bool(drift) or not published)
