"""SigMF as the command writes it, checked by python3-jsonschema and taken apart by Python's own tar reader.

    test_sigmf.py ORVEL

sigmf.schema.json has the rules of SigMF 1.2.5 for the fields that the command writes; it is ours, not the official
schema, which no package of Debian holds.
"""

import json
import pathlib
import subprocess
import sys
import tarfile
import tempfile
import unittest

import jsonschema

ORVEL = pathlib.Path()
SCHEMA = json.loads((pathlib.Path(__file__).parent / "sigmf.schema.json").read_text(encoding="utf-8"))
VALIDATOR = jsonschema.Draft202012Validator(SCHEMA)


class Sigmf(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory(prefix="orvel-sigmf-")
        self.addCleanup(scratch.cleanup)
        self.scratch = pathlib.Path(scratch.name)

    def orvel(self, *arguments):
        done = subprocess.run([ORVEL, *arguments], cwd=self.scratch, capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout

    def metadata(self, name):
        metadata = json.loads((self.scratch / name).read_text(encoding="utf-8"))
        VALIDATOR.validate(metadata)
        return metadata

    def test_the_schema_refuses_what_breaks_the_rules(self):
        self.assertTrue(VALIDATOR.is_valid({"global": {"core:datatype": "cu8", "core:version": "1.2.5"},
                                            "captures": [], "annotations": []}))
        for datatype, version in (("ci17_le", "1.2.5"), ("cu8", "1.2"), ("ci16", "1.2.5")):
            broken = {"global": {"core:datatype": datatype, "core:version": version}, "captures": [], "annotations": []}
            self.assertFalse(VALIDATOR.is_valid(broken), datatype)

    def test_a_simulated_pair_and_the_frames_marked_in_a_copy(self):
        stations = ["opera=K2QRX,freq=100,snr=0,start=1", "orvel-s=DL1QXA,freq=-60,snr=0,start=2"]
        self.orvel("simulate", "-o", "x.sigmf-data", "--iq", "--rate", "1000", *stations)
        metadata = self.metadata("x.sigmf-meta")
        self.assertEqual(metadata["global"]["core:datatype"], "ci16_le")
        self.assertEqual(metadata["global"]["core:sample_rate"], 1000)
        rows = self.orvel("decode", "x.sigmf-meta", "--dial", "137000", "--json", "--sigmf-annotate", "y.sigmf-meta")
        spots = [json.loads(row) for row in rows.splitlines()]
        marked = self.metadata("y.sigmf-meta")
        self.assertEqual(marked["global"], metadata["global"])
        self.assertEqual([a["core:label"] for a in marked["annotations"]], ["K2QRX", "DL1QXA"])
        for spot, annotation in zip(spots, marked["annotations"]):
            self.assertAlmostEqual(annotation["core:sample_start"], 1000 * spot["t_start"], delta=1)
            self.assertAlmostEqual(annotation["core:sample_count"], 30592, delta=1)
            self.assertLess(annotation["core:freq_lower_edge"], spot["rf_hz"])
            self.assertGreater(annotation["core:freq_upper_edge"], spot["rf_hz"])

    def test_a_simulated_archive(self):
        self.orvel("simulate", "-o", "a.sigmf", "--format", "float", "--seconds", "3", "--no-noise")
        with tarfile.open(self.scratch / "a.sigmf") as archive:
            self.assertEqual(archive.getnames(), ["a/a.sigmf-meta", "a/a.sigmf-data"])
            self.assertEqual(archive.getmember("a/a.sigmf-data").size, 3 * 12000 * 4)
            archive.extractall(self.scratch)
        self.assertEqual(self.metadata("a/a.sigmf-meta")["global"]["core:datatype"], "rf32_le")


if __name__ == "__main__":
    ORVEL = pathlib.Path(sys.argv.pop(1)).resolve()
    unittest.main()
