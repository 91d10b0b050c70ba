#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Builds the tree as an image does (no tests, no simulator, libfpga found
by name: the stand-in's of BUILD) in BUILD/image-build, installs it into a
fresh DESTDIR and checks what it put down against the example recipe and
the daemon's needs. Usage: check_image.py BUILD SOURCE [setup option...]
"""

import hashlib
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest
from fnmatch import fnmatch

BUILD, SOURCE = sys.argv[1:3]
RULE_DIR = "/usr/share/vantarack-bmc-apps/hwtopod"
# The recipe's variables in an image with a merged /usr, where the unit and
# tmpfiles directories below /lib and /usr/lib are one.
IMAGE_DIRS = {"bindir": "/usr/bin", "libexecdir": "/usr/libexec",
              "datadir": "/usr/share", "nonarch_libdir": "/usr/lib",
              "systemd_system_unitdir": "/usr/lib/systemd/system"}
# Recipes of the build's dependencies whose names differ; None: toolchain.
RECIPES = {"libsystemd": "systemd", "libgpiodcxx": "libgpiod",
           "nlohmann_json": "nlohmann-json", "threads": None}


def run(*command, **options):
    done = subprocess.run(command, capture_output=True, text=True, **options)
    assert done.returncode == 0, " ".join(command) + done.stdout + done.stderr
    return done.stdout


def recipe():
    """Its assignments, values expanded and split into words."""
    with open(os.path.join(SOURCE, "packaging/yocto/hwtopod_git.bb")) as f:
        text = f.read().replace("\\\n", " ")
    values = {}
    for name, op, value in re.findall(r'^(\S+) (\+?=) "(.*)"$', text, re.M):
        words = re.sub(r"\$\{(\w+)\}", lambda m: IMAGE_DIRS.get(m[1], m[0]),
                       value).split()
        values[name] = values.get(name, []) * (op == "+=") + words
    return values


class ImageBuild(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        root = cls.root = cls.tmp.name
        # Kept, so that a later run rebuilds only what changed; without
        # optimisation or debug information, which matter not here.
        build = os.path.join(BUILD, "image-build")
        run("meson", "setup", *["--reconfigure"] * os.path.exists(build),
            build, SOURCE, "--prefix=/usr", "-Dtests=disabled",
            "-Dsimulator=disabled", "-Doptimization=0", "-Ddebug=false",
            "-Dfpga_library_dir=" + os.path.join(BUILD, "sim/libfpga"),
            *sys.argv[3:])
        run("ninja", "-C", build)
        run("meson", "install", "-C", build, "--no-rebuild", "--destdir", root)
        cls.targets = json.loads(run("meson", "introspect", build, "-a"))
        cls.files = [os.path.join(top, n)[len(root):]
                     for top, _, names in os.walk(root) for n in names]
        cls.unit, = [f for f in cls.files if f.endswith(".service")]
        cls.daemon = run("readelf", "-d", root + "/usr/bin/hwtopod")

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def test_builds_only_what_it_installs_and_the_recipe_claims(self):
        for target in self.targets["targets"]:
            self.assertTrue(target["installed"] or
                            target["type"] == "static library", target["name"])
        values = recipe()
        claims = values["FILES:${PN}"]
        for path in self.files:
            path = re.sub("^/lib/", "/usr/lib/", path)
            self.assertTrue(any(fnmatch(path, c) or path.startswith(c + "/")
                                for c in claims), path + " is not claimed")
        name = os.path.basename(self.unit)
        self.assertEqual(values["SYSTEMD_SERVICE:${PN}"], [name])
        self.assertIn(IMAGE_DIRS["systemd_system_unitdir"] + "/" + name,
                      claims)
        for dependency in self.targets["dependencies"]:
            name = RECIPES.get(dependency["name"], dependency["name"])
            self.assertIn(name, [None] + values["DEPENDS"], dependency)
        # The platform's library is found by name, not by pkg-config.
        for library in re.findall(r"\[(libfpga)\.so", self.daemon):
            self.assertIn(library, values["DEPENDS"])
            self.assertIn(library, values["RDEPENDS:${PN}"])
        with open(os.path.join(SOURCE, "LICENSE"), "rb") as f:
            self.assertIn("md5=" + hashlib.md5(f.read()).hexdigest(),
                          values["LIC_FILES_CHKSUM"][0])

    def test_daemon_rule_files_and_unit(self):
        self.assertIn("[libfpga.so.0]", self.daemon)
        self.assertNotIn(BUILD, self.daemon)
        # The daemon's fixed directory, whatever the prefix.
        shipped = {n: os.path.join(d, n) for d in (
            SOURCE + "/data", SOURCE + "/data/registries")
            for n in os.listdir(d) if n.endswith(".json")}
        self.assertEqual(sorted(os.listdir(self.root + RULE_DIR)),
                         sorted(shipped))
        for name, path in shipped.items():
            with open(self.root + RULE_DIR + "/" + name, "rb") as f, \
                    open(path, "rb") as source:
                self.assertEqual(f.read(), source.read(), name)
        with open(self.root + self.unit) as f:
            lines = f.read().splitlines()
        self.assertIn("ExecStart=/usr/bin/hwtopod", lines)
        helper = "/usr/libexec/hwtopod-start-status"
        self.assertIn("ExecStartPre=" + helper + " %t/hwtopod", lines)
        with tempfile.TemporaryDirectory() as runtime:
            def start():
                run(self.root + helper, runtime + "/hwtopod")
                with open(runtime + "/hwtopod/status.env") as f:
                    return f.read().strip()

            # Normal on the first start of a boot, which empties /run; a
            # crash or systemctl restart keeps the runtime directory.
            self.assertEqual([start(), start(), start()], [
                "HWTOPOD_STATUS=normal"] + ["HWTOPOD_STATUS=restart"] * 2)

    def test_inspector_statuses(self):
        # No bus to ask, and a result file cut short: the report is no
        # picture of the daemon, and the status says so.
        results = self.root + "/var/configuration"
        os.makedirs(results, exist_ok=True)
        with open(results + "/risers_found.json", "w") as f:
            f.write('{"risers": [')
        env = dict(os.environ, HWTOPOD_ROOT=self.root,
                   DBUS_SYSTEM_BUS_ADDRESS="unix:path=" + self.root + "/none")

        def inspect(*arguments):
            return subprocess.run([self.root + "/usr/bin/hwtopod-inspect",
                                   *arguments], env=env, capture_output=True,
                                  text=True)

        done = inspect("--json")
        self.assertEqual(done.returncode, 1, done.stderr)
        self.assertIn("com.halvex.hwtopod is not on the system bus",
                      done.stderr)
        self.assertIn("cannot read " + results + "/risers_found.json",
                      done.stderr)
        # The installed registry is where the inspector looks for it.
        self.assertNotIn("EventRegistry", json.dumps(json.loads(done.stdout)))
        done = inspect("--help")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertIn("Exit status:", done.stdout)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
