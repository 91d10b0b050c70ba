#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Builds the tree as an image does, in BUILD/image-build, with the options
the example recipe gives, installs it into a fresh DESTDIR and checks that
against the recipe and the daemon's needs; configures it once more with the
options the README gives and a prefix of its own, and checks that nothing
but the daemon's fixed data directory is installed outside that prefix.
Usage: check_image.py BUILD SOURCE [meson setup option...]"""

import hashlib, json, os, re, subprocess, sys, tempfile, unittest
from fnmatch import fnmatch
from pathlib import Path

BUILD, SOURCE = sys.argv[1:3]
RULE_DIR = "/usr/share/vantarack-bmc-apps/hwtopod"
# The recipe's variables in an image with a merged /usr (/lib is /usr/lib).
IMAGE_DIRS = {"bindir": "/usr/bin", "libexecdir": "/usr/libexec",
              "datadir": "/usr/share", "nonarch_libdir": "/usr/lib",
              "systemd_system_unitdir": "/usr/lib/systemd/system"}
# Recipes of the build's dependencies whose names differ; None: toolchain.
RECIPES = {"libsystemd": "systemd", "libgpiodcxx": "libgpiod",
           "nlohmann_json": "nlohmann-json", "threads": None}


def run(*command):
    done = subprocess.run(command, capture_output=True, text=True)
    assert done.returncode == 0, " ".join(command) + done.stdout + done.stderr
    return done.stdout


def readme_options():
    """The image build's options as the README and the integration guide
    write them, which must be the same."""
    lines = {name: re.findall(r"^ +meson setup build (-D.*-Dsimulator=.*)$",
                              Path(SOURCE, name).read_text(), re.M)
             for name in ("README.md", "docs/integration.md")}
    assert lines["README.md"] and lines["README.md"] == lines[
        "docs/integration.md"], lines
    return lines["README.md"][0].split()


def recipe():
    text = Path(SOURCE, "packaging/yocto/hwtopod_git.bb").read_text()
    text = text.replace("\\\n", " ")
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
        cls.setup = ["-Doptimization=0", "-Ddebug=false", "-Dfpga_library_dir="
                     + os.path.join(BUILD, "sim/libfpga"), *sys.argv[3:]]
        run("meson", "setup", *["--reconfigure"] * os.path.exists(build),
            build, SOURCE, "--prefix=/usr", *recipe()["EXTRA_OEMESON"],
            *cls.setup)
        run("ninja", "-C", build)
        run("meson", "install", "-C", build, "--no-rebuild", "--destdir", root)
        cls.targets = json.loads(run("meson", "introspect", build, "-a"))
        cls.files = [os.path.join(top, n)[len(root):]
                     for top, _, names in os.walk(root) for n in names]
        cls.unit, = [f for f in cls.files if f.endswith(".service")]
        cls.daemon = run("readelf", "-d", root + "/usr/bin/hwtopod")

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
        version = json.loads(run("meson", "introspect", os.path.join(
            BUILD, "image-build"), "--projectinfo"))["version"]
        self.assertEqual(values["PV"], [version + "+git"])
        self.assertEqual(values["SYSTEMD_SERVICE:${PN}"],
                         [os.path.basename(self.unit)])
        # Newer meson lists the build's own declared dependencies too.
        for dependency in self.targets["dependencies"]:
            if dependency.get("type") == "internal":
                continue
            name = RECIPES.get(dependency["name"], dependency["name"])
            self.assertIn(name, [None] + values["DEPENDS"], dependency)
        # The platform's library, found by name, not by pkg-config.
        self.assertIn("libfpga", set(values["DEPENDS"]) & set(values[
            "RDEPENDS:${PN}"]))
        licence = hashlib.md5(Path(SOURCE, "LICENSE").read_bytes())
        self.assertIn("md5=" + licence.hexdigest(), values["LIC_FILES_CHKSUM"][0])

    def test_installs_below_any_prefix(self):
        # What meson install would put where, read without building.
        prefix, build = "/opt/hwtopod-prefix", os.path.join(BUILD, "prefix-build")
        run("meson", "setup", *["--reconfigure"] * os.path.exists(build), build,
            SOURCE, "--prefix=" + prefix, *readme_options(), *self.setup)
        places = json.loads(run("meson", "introspect", build, "--installed"))
        outside = [path for path in places.values()
                   if not path.startswith((prefix + "/", RULE_DIR + "/"))]
        self.assertEqual(outside, [])
        self.assertIn(prefix + "/lib/systemd/system/vpdd.service.d/"
                      "after-hwtopod.conf", places.values())

    def test_daemon_rule_files_and_unit(self):
        self.assertIn("[libfpga.so.0]", self.daemon)
        self.assertNotIn(BUILD, self.daemon)
        # The daemon's fixed directory, whatever the prefix.
        for path in [*Path(SOURCE, "data").glob("*.json"),
                     *Path(SOURCE, "data/registries").glob("*.json")]:
            self.assertEqual(Path(self.root + RULE_DIR, path.name).read_bytes(),
                             path.read_bytes(), path)
        lines = Path(self.root + self.unit).read_text().splitlines()
        self.assertIn("ExecStart=/usr/bin/hwtopod", lines)
        helper = "/usr/libexec/hwtopod-start-status"
        self.assertIn("ExecStartPre=" + helper + " %t/hwtopod", lines)
        # Normal on the first start of a boot, which empties /run; a crash or
        # systemctl restart keeps the runtime directory.
        with tempfile.TemporaryDirectory() as runtime:
            starts = [run(self.root + helper, runtime) or Path(
                runtime, "status.env").read_text() for _ in range(3)]
        self.assertEqual(starts, ["HWTOPOD_STATUS=normal\n"] +
                         ["HWTOPOD_STATUS=restart\n"] * 2)

    def test_inspector_statuses(self):
        # No bus to ask, and a result file cut short: the report is no
        # picture of the daemon, and the status says so.
        results = self.root + "/var/configuration"
        os.makedirs(results, exist_ok=True)
        Path(results, "risers_found.json").write_text('{"risers": [')
        env = dict(os.environ, HWTOPOD_ROOT=self.root,
                   DBUS_SYSTEM_BUS_ADDRESS="unix:path=" + self.root + "/none")
        done, helped = (subprocess.run(
            [self.root + "/usr/bin/hwtopod-inspect", option], env=env,
            capture_output=True, text=True) for option in ("--json", "--help"))
        self.assertEqual(done.returncode, 1, done.stderr)
        self.assertIn("com.halvex.hwtopod is not on the system bus",
                      done.stderr)
        self.assertIn("cannot read " + results + "/risers_found.json",
                      done.stderr)
        # The installed registry is where the inspector looks for it.
        self.assertNotIn("EventRegistry", json.dumps(json.loads(done.stdout)))
        self.assertEqual((helped.returncode, helped.stderr), (0, ""))
        self.assertIn("Exit status:", helped.stdout)

if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
