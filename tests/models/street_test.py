# SPDX-License-Identifier: Apache-2.0
"""street_test.py - the whole chain on the street clip: packed images, library, measures.

usage: street_test.py OLVEX_DET IMAGE_FOLDER CLIP_FOLDER [unittest options]

Runs see a part of the clip; the figures of docs/accuracy.md are measured elsewhere, by measure.py.
The minima lie a little below what is measured, for builds whose engine rounds differently; what they
guard against (a wrong decoder, a shifted box, a lost scale, a broken tracker) costs far more.
"""
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

TOOL, IMAGES, CLIP = (pathlib.Path(sys.argv.pop(1)).resolve() for _ in range(3))
REPORTED = "0,1,2,3,4,5"
TRACKED = range(1, 121)  # frames of the clip
DETECTED = range(181, 201)
STRICT = ("--strict", "--static-sensitivity", "0.5")


def read_truth():
    """Persons and decoys by frame: left, top, width, height, kind."""
    rows = {}
    for name in ("street.txt", "street.decoys.txt"):
        for line in (CLIP / name).read_text().splitlines():
            frame, _, left, top, width, height, _, class_id, _, moving = map(float, line.split(","))
            if class_id <= 0:
                kind = "decoy" if class_id < 0 else "moving" if moving else "standing"
                rows.setdefault(int(frame), []).append((left, top, width, height, kind))
    return rows


TRUTH = read_truth()


class StreetTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def tool(self, *arguments):
        result = subprocess.run([TOOL, *map(str, arguments)], capture_output=True, text=True)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def run_clip(self, number_format, frames, *options):
        self.tool("run", IMAGES / f"street-{number_format}.qtm", CLIP / "street.mp4", "--quiet", "--skip",
                  frames[0] - 1, "--limit", len(frames), *options)

    def track(self, number_format, *options):
        """Boxes of persons: on persons that move, that stand, on decoys. Leaves the MOT rows."""
        self.run_clip(number_format, TRACKED, "--threshold", 0.5, "--track", "--jsonl",
                      self.folder / "lines", "--mot", self.folder / "rows", *options)
        counts = {"moving": 0, "standing": 0, "decoy": 0}
        for line in (self.folder / "lines").read_text().splitlines():
            record = json.loads(line)
            for box in record["boxes"]:
                if box["class_id"] == 0:
                    counts[self.kind_of(record["frame"], box)] += 1
        return counts

    def kind_of(self, frame, box):
        """What the centre of a box lies on, the smallest thing first."""
        x, y = box["x"] + box["width"] / 2, box["y"] + box["height"] / 2
        on = [(width * height, kind) for left, top, width, height, kind in TRUTH.get(frame, ())
              if left <= x <= left + width and top <= y <= top + height]
        return min(on)[1] if on else "decoy"

    def test_detection(self):
        truth = json.loads((CLIP / "street.json").read_text())
        for name, member in (("images", "id"), ("annotations", "image_id")):
            truth[name] = [item for item in truth[name] if item[member] in DETECTED]
        (self.folder / "truth").write_text(json.dumps(truth))
        found = {}
        for number_format in ("fp32", "int16"):
            self.run_clip(number_format, DETECTED, "--threshold", 0.01, "--coco", self.folder / "boxes")
            self.tool("eval", "coco", self.folder / "truth", self.folder / "boxes", "--classes", REPORTED,
                      "--min", "AP50=0.97", "--min", "AP=0.8", "--json", self.folder / "report")
            found[number_format] = json.loads((self.folder / "report").read_text())["metrics"]["AP50"]
        self.assertGreater(found["int16"], found["fp32"] - 0.01)

    def assert_tracks(self):
        (self.folder / "truth").write_text("".join(
            line for line in (CLIP / "street.txt").read_text().splitlines(keepends=True)
            if int(line.split(",")[0]) in TRACKED))
        self.tool("eval", "mot", self.folder / "truth", self.folder / "rows", "--classes", REPORTED, "--min",
                  "MOTA=0.92", "--min", "IDF1=0.8")

    def test_stages_take_away_what_they_should(self):
        tracked, moving = (self.track("fp32", *options) for options in (
            (), ("--ignore-static", *STRICT[1:])))
        strict = self.track("fp32", *STRICT)
        self.assert_tracks()
        self.assertGreater(tracked["decoy"], 150)
        self.assertLess(strict["decoy"], 0.1 * tracked["decoy"])
        self.assertGreater(strict["standing"] + strict["moving"],
                           0.95 * (tracked["standing"] + tracked["moving"]))
        self.assertGreater(tracked["standing"], 200)
        self.assertLess(moving["standing"], 0.1 * tracked["standing"])
        self.assertGreater(moving["moving"], 0.6 * tracked["moving"])

    def test_integers_are_tracked_too(self):
        self.track("int16", *STRICT)
        self.assert_tracks()


if __name__ == "__main__":
    unittest.main()
