# SPDX-License-Identifier: Apache-2.0
"""heads_test.py - networks of every head, packed without options: the images find the boxes of the street's
own three layers. And what is wrong with the options is named.

The networks are those of models/street/heads.py. See tool_test.py for the usage.
"""
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

from tool_test import STRIDE, TOOL, ToolTest, main

STREET = pathlib.Path(__file__).resolve().parents[2] / "models/street"
PERSON = 0
# Head that must be concluded for each family of heads.py, and whether it can express every box.
ALL, PERSONS, SOME = "all boxes", "persons", "some boxes"
FAMILIES = {
    "combined": ("combined", ALL), "combined-rows": ("combined", ALL), "combined-keypoints": ("combined", PERSONS),
    "end-to-end": ("end-to-end", ALL), "objectness": ("objectness", ALL),
    "objectness-offsets": ("objectness-offsets", ALL), "anchors": ("anchors", SOME), "anchors-5d": ("anchors", SOME),
    "anchors-decoded": ("objectness", SOME), "distance-bins": ("distance-bins", SOME),
    "distance-bins-many": ("distance-bins", ALL), "distance-bins-joined": ("distance-bins", SOME),
    "distance-bins-joined-planes": ("distance-bins", SOME), "distance-bins-one-output": ("distance-bins", SOME),
    "cls-obj-box-keypoints": ("class-objectness-box", PERSONS), "priors": ("priors", ALL),
    "priors-landmarks": ("priors", PERSONS), "priors-no-background": ("priors", ALL),
    "score-distance-keypoints": ("score-distance", PERSONS), "own-formula": ("own-formula", SOME),
    "boxes-and-scores": ("boxes-and-scores", ALL), "raw": ("raw", ALL),
    "best-classes": ("boxes-and-scores", ALL), "suppressed": ("boxes-and-scores", ALL), "top-k": ("end-to-end", ALL)}
# Families whose networks end in a selection, which is cut off, by the variant of heads.py that adds it.
SELECTING = {"best-classes": "combined-rows", "suppressed": "combined-rows", "top-k": "end-to-end"}


def are_same(left, right):
    return (left["class_id"] == right["class_id"] and abs(left["score"] - right["score"]) < .005
            and all(abs(left[side] - right[side]) <= 1 for side in ("x", "y", "width", "height")))


class HeadsTest(ToolTest):
    @classmethod
    def setUpClass(cls):
        shared = tempfile.TemporaryDirectory()
        cls.addClassCleanup(shared.cleanup)
        cls.networks = pathlib.Path(shared.name)
        subprocess.run([sys.executable, "-B", STREET / "heads.py", "--all", "-o", cls.networks], check=True)
        for variant, family in SELECTING.items():
            subprocess.run([sys.executable, "-B", STREET / "heads.py", family, "--variant", variant, "-o",
                            cls.networks / f"{variant}.onnx"], check=True)

    def packed(self, family, *options, **expected):
        return self.tool("pack", self.networks / f"{family}.onnx", "-o", "out.qtm", *options, **expected)

    def found(self):
        self.tool("run", "out.qtm", STREET / "clip/street.mp4", "--limit", "2", "--jsonl", "out.jsonl")
        return [json.loads(line)["boxes"] for line in (self.folder / "out.jsonl").read_text().splitlines()]

    def assert_reports_kept(self, name, reports):
        """Measures of the proof may differ on another processor."""
        number = r"\d+(\.\d+)?(e-\d+)?"
        measured = rf"{number}( of {number})?(?= rows| boxes| % of| pixels)|(?<=scores ){number}|(?<=in place of ){number}"
        self.transcript = re.sub("(?m)^.*(street picture:|in place of).*$", lambda line: re.sub(measured, "N", line[0]),
                                 reports.replace(f"{self.networks}/", ""))
        self.assert_transcript_kept(name)

    def test_each_head_is_concluded_and_finds_the_same_boxes(self):
        self.packed("raw")
        wanted = self.found()
        self.assertGreater(min(map(len, wanted)), 5)
        reports = ""
        for family, (head, extent) in list(FAMILIES.items())[::STRIDE]:
            with self.subTest(family):
                self.transcript = ""
                report = self.packed(family).stdout
                reports += self.transcript
                self.assertIn(f"head       {head}\n", report)
                self.assertEqual("cut off the selection of boxes" in report, family in SELECTING)
                image = (self.folder / "out.qtm").read_bytes()
                self.assertIn(b'"proof": "proven"', image)
                for expected, boxes in zip(wanted, self.found()):
                    expected = [box for box in expected if extent != PERSONS or box["class_id"] == PERSON]
                    missing = [box for box in expected if not any(are_same(box, other) for other in boxes)]
                    self.assertTrue(len(missing) < len(expected) if extent == SOME else
                                    not missing and len(boxes) == len(expected), (expected, boxes))
                # The command in the report says the same.
                command = report.split("the same   olvex-det ")[1].splitlines()[0].split()
                self.tool(*command)
                self.assertEqual((self.folder / "out.qtm").read_bytes(), image)
        if STRIDE == 1:
            self.assert_reports_kept("heads", reports)

    def test_wrong_options_are_named_and_nothing_is_written(self):
        right = ["--network-order", "bgr"]
        for options, code, said in (
                (["--scale", "0", *right], 3, ["--scale 0"]),
                (["--scale", "1", *right], 3, ["with --mean 0 --scale 1/255", "Check --mean and --scale"]),
                (["--box-order", "xyxy", *right], 3, ["are empty, or their corners in the wrong order"]),
                (["--box-unit", "fractions", *right], 3, ["of the area of boxes lies in the picture"]),
                (["--head", "anchors"], 3, ["do not fit --head anchors", "output0 1x11x3024"]),
                (["--head", "combind"], 2, ["Did you mean combined?"])):
            self.packed("combined", *options, code=code, said=said)
            self.assertFalse((self.folder / "out.qtm").exists())
        self.packed("priors", "--prior-sizes", "16/32/64", code=2, said=["the network has 8472 rows"])
        self.packed("combined", "--network-order", "rgb", said=["with --network-order bgr scores rise"])
        self.packed("combined", "--scale", "0", *right, "--force", "--save-network", "saved.onnx")
        self.assertIn(b'"proof": "unproven"', (self.folder / "out.qtm").read_bytes())
        self.tool("pack", "saved.onnx", "-o", "again.qtm", "--boxes", "boxes", "--scores", "scores")
        self.tool("inspect", "out.qtm")
        self.assert_reports_kept("heads_refused", self.transcript)

    def test_a_network_of_ones_own_as_the_page_shows_it(self):
        subprocess.run([sys.executable, "-B", STREET / "heads.py", "combined", "-o", self.folder / "own.onnx",
                        "--variant", "metadata"], check=True)
        shutil.unpack_archive(STREET / "calibration.tar", self.folder)
        (self.folder / "calibration").rename(self.folder / "pictures")
        page = (STREET.parents[1] / "docs/model-images.md").read_text()
        arguments, shown = re.search(r"\$ git clone .*\n\$ libolvex_det/demo (.*)\n((?:.*\n)*?)```", page).groups()
        result = self.transcribe([STREET.parents[1] / "demo", *arguments.split()], "demo", stderr=subprocess.STDOUT,
                                 env={**os.environ, "OLVEX_DEMO_TOOL": TOOL, "OLVEX_DEMO_OUTPUT": "demo-output"})
        # Counts and times differ from machine to machine.
        self.assertEqual(*(re.sub(r"\d+(\.\d+)?|  +", "N", text) for text in (
            result.stdout.replace(f"{self.folder}/", ""), shown)))
        self.assertIn('"class_id"', (self.folder / "demo-output/own.jsonl").read_text())


if __name__ == "__main__":
    main()
