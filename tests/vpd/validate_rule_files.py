#!/usr/bin/env python3
"""Checks the shipped rule files and PSU file against their JSON Schemas, and
that their entries do not collide."""

import json
import os
import sys
import unittest
from pathlib import Path

import jsonschema

DATA = Path(os.environ.get("HWTOPOD_SOURCE_ROOT", Path(__file__).parents[2])) / "data"

FILES = [
    "kelvane80_1u_pass1_trd.json",
    "bhs_backplanes.json",
    "bhs_risers.json",
    "bhs_2p_2psus.json",
]


def load(name):
    with open(DATA / name, encoding="utf-8") as stream:
        return json.load(stream)


def schema_for(name):
    return load("schemas/" + name.replace(".json", ".schema.json"))


def errors(name, document):
    schema = schema_for(name)
    validator_class = jsonschema.validators.validator_for(schema)
    validator_class.check_schema(schema)
    return list(validator_class(schema).iter_errors(document))


class ShippedFiles(unittest.TestCase):
    def test_every_file_matches_its_schema(self):
        for name in FILES:
            with self.subTest(file=name):
                self.assertEqual([e.message for e in errors(name, load(name))], [])

    def test_topology_entries_do_not_collide(self):
        trd = load("kelvane80_1u_pass1_trd.json")
        # A live VPD update finds its record by Connector == VpdLocation:
        # every board has its own location, and its connector is that.
        locations = []
        for entry in trd["backplanes"]["NormalBP"] + trd["risers"]:
            self.assertEqual(entry["Properties"]["Connector"], entry["Location"])
            locations.append(entry["Location"])
        self.assertEqual(len(locations), len(set(locations)))
        # Slot buses (BUS + 1 + i) do not overlap between risers.
        buses = [
            e["Properties"]["BUS"] + 1 + i
            for e in trd["risers"]
            for i in range(len(e["Properties"]["PCIeSlot"]))
        ]
        self.assertEqual(len(buses), len(set(buses)))

    def test_rules_are_unique_and_know_the_e3s_boards(self):
        for name in ("bhs_backplanes.json", "bhs_risers.json"):
            posids = [rule["POSID"] for rule in load(name)]
            self.assertEqual(len(posids), len(set(posids)), name)
        posids = {rule["POSID"] for rule in load("bhs_backplanes.json")}
        self.assertTrue({220, 221, 228} <= posids)


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
