#!/usr/bin/env python3
"""Installs the build into a fresh DESTDIR and checks the tree a BMC image
recipe would package: the binaries, the rule files and event registry where
the daemon reads them, the systemd unit with its start status helper and
tmpfiles.d entry, the D-Bus policy, and nothing of the simulator (the FPGA
library stand-in included).

Usage: check_install.py <build dir> <source dir> <prefix> <bindir> <libexecdir>
    <unit dir> <tmpfiles dir> <policy dir>
"""

import json
import os
import stat
import subprocess
import sys
import tempfile
import unittest

BUILD, SOURCE, PREFIX, BINDIR, LIBEXECDIR, UNITS, TMPFILES, POLICIES = \
    sys.argv[1:9]
RULE_DIR = "usr/share/vantarack-bmc-apps/hwtopod"


def under(root, *parts):
    return os.path.join(root, PREFIX.lstrip("/"), *parts)


class InstalledTree(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.root = cls.tmp.name
        subprocess.run(["meson", "install", "-C", BUILD, "--no-rebuild",
                        "--quiet", "--destdir", cls.root], check=True,
                       stdout=subprocess.DEVNULL)
        cls.files = []
        for top, _, names in os.walk(cls.root):
            cls.files += [os.path.relpath(os.path.join(top, n), cls.root)
                          for n in names]

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def assertExecutable(self, path):
        self.assertTrue(os.path.isfile(path), path)
        self.assertTrue(os.stat(path).st_mode & stat.S_IXUSR, path)

    def test_binaries_and_rule_files(self):
        self.assertExecutable(under(self.root, BINDIR, "hwtopod"))
        self.assertExecutable(under(self.root, BINDIR, "hwtopod-inspect"))
        # The daemon's fixed directory, whatever the prefix.
        rules = os.path.join(self.root, RULE_DIR)
        shipped = {n: os.path.join(SOURCE, d, n)
                   for d in ("data", "data/registries")
                   for n in os.listdir(os.path.join(SOURCE, d))
                   if n.endswith(".json")}
        self.assertEqual(sorted(os.listdir(rules)), sorted(shipped))
        for name, source_path in shipped.items():
            with open(os.path.join(rules, name), "rb") as installed, \
                    open(source_path, "rb") as source:
                self.assertEqual(installed.read(), source.read(), name)
        dynamic = subprocess.run(
            ["readelf", "-d", under(self.root, BINDIR, "hwtopod")],
            check=True, capture_output=True, text=True).stdout
        self.assertIn("[libfpga.so.0]", dynamic)
        self.assertNotIn(BUILD, dynamic)

    def test_inspector_status_without_the_daemon(self):
        # No bus to ask, and a result file cut short: the report is no
        # picture of the daemon, and the status says so.
        results = os.path.join(self.root, "var/configuration")
        os.makedirs(results, exist_ok=True)
        with open(os.path.join(results, "risers_found.json"), "w") as f:
            f.write('{"risers": [')
        env = dict(os.environ, HWTOPOD_ROOT=self.root,
                   DBUS_SYSTEM_BUS_ADDRESS="unix:path=" + self.root + "/none")
        run = subprocess.run(
            [under(self.root, BINDIR, "hwtopod-inspect"), "--json"],
            env=env, capture_output=True, text=True)
        self.assertEqual(run.returncode, 1, run.stderr)
        self.assertIn("com.halvex.hwtopod is not on the system bus",
                      run.stderr)
        self.assertIn("cannot read " + results + "/risers_found.json",
                      run.stderr)
        # The installed registry is where the inspector looks for it.
        self.assertNotIn("EventRegistry", json.dumps(json.loads(run.stdout)))

    def test_unit_starts_the_installed_daemon(self):
        with open(os.path.join(self.root, UNITS.lstrip("/"),
                               "hwtopod.service")) as f:
            unit = f.read()
        self.assertNotIn("@", unit)
        lines = unit.splitlines()
        self.assertIn("ExecStart=" + os.path.join(PREFIX, BINDIR, "hwtopod"),
                      lines)
        helper = os.path.join(PREFIX, LIBEXECDIR, "hwtopod-start-status")
        self.assertIn("ExecStartPre=" + helper + " %t/hwtopod", lines)
        self.assertExecutable(os.path.join(self.root, helper.lstrip("/")))
        self.assertTrue(os.path.isfile(os.path.join(
            self.root, TMPFILES.lstrip("/"), "hwtopod.conf")))
        self.assertTrue(os.path.isfile(os.path.join(
            self.root, POLICIES.lstrip("/"), "com.halvex.hwtopod.conf")))

    def test_start_status_normal_once_per_boot(self):
        helper = under(self.root, LIBEXECDIR, "hwtopod-start-status")
        with tempfile.TemporaryDirectory() as run:
            runtime = os.path.join(run, "hwtopod")

            def start():
                subprocess.run([helper, runtime], check=True)
                with open(os.path.join(runtime, "status.env")) as f:
                    return f.read()

            self.assertEqual(start(), "HWTOPOD_STATUS=normal\n")
            # A crash or systemctl restart: the runtime directory stays.
            self.assertEqual(start(), "HWTOPOD_STATUS=restart\n")
            self.assertEqual(start(), "HWTOPOD_STATUS=restart\n")
            # A new boot empties /run.
            subprocess.run(["rm", "-rf", runtime], check=True)
            self.assertEqual(start(), "HWTOPOD_STATUS=normal\n")

    def test_nothing_of_the_simulator_or_the_tests(self):
        for path in self.files:
            name = os.path.basename(path)
            self.assertFalse(name.startswith(("libgpiod", "libfpga")), path)
            self.assertNotIn(name, ("vpdd", "hwtopod-sim-pwrmgt",
                                    "liquid-cooling"), path)
            self.assertFalse(name.endswith("-test"), path)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
