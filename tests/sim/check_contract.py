#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The running daemon against its D-Bus contract, SOURCE/docs/dbus/*.xml,
one file per fixed object below /com: same members, signatures and access,
less org.freedesktop.DBus. Run by: simulate.sh healthy -- this SOURCE"""

import glob, subprocess, sys, xml.etree.ElementTree as ET


def members(xml, path=None):
    node = ET.fromstring(xml)
    return {
        (path or node.get("name"), i.get("name"), m.tag, m.get("name"),
         m.get("access"), m.get("type") or "".join(
             a.get("type") for a in m.iter("arg")))
        for i in node.findall("interface")
        if not i.get("name").startswith("org.freedesktop.DBus.") for m in i}


def busctl(*arguments):
    return subprocess.check_output(["busctl", *arguments], text=True)


documented = set().union(*(members(open(f).read()) for f in glob.glob(
    sys.argv[1] + "/docs/dbus/*.xml")))
published = set().union(*(members(busctl(
    "--xml-interface", "introspect", "com.halvex.hwtopod", path), path)
    for path in busctl("--list", "tree", "com.halvex.hwtopod").split()
    if path.startswith("/com/")))
drift = [("documented only", *m) for m in documented - published] + [
    ("published only", *m) for m in published - documented]
print(*sorted(drift, key=str), sep="\n")
print(len({m[0] for m in published}), "objects,", len(drift), "differences")
sys.exit(bool(drift) or not published)
