"""street_test.py - the whole chain on the street clip: packed images, library, measures.

usage: street_test.py OLVEX_DET IMAGE_FOLDER CLIP_FOLDER [unittest options]

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

    def run_clip(self, number_format, option, threshold, *options):
        output = self.folder / f"{number_format}{''.join(options)}{option}"
        self.tool("run", IMAGES / f"street-{number_format}.qtm", CLIP / "street.mp4", "--quiet",
                  "--threshold", threshold, option, output, *options)
        return output

    def persons(self, *options):
        """Boxes of persons in all frames: on persons that move, that stand, on decoys."""
        counts = {"moving": 0, "standing": 0, "decoy": 0}
        for line in self.run_clip("fp32", "--jsonl", 0.5, "--track", *options).read_text().splitlines():
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
        found = {}
        for number_format in ("fp32", "int16"):
            report = self.folder / "report.json"
            self.tool("eval", "coco", CLIP / "street.json",
                      self.run_clip(number_format, "--coco", 0.01), "--classes", REPORTED, "--min",
                      "AP50=0.9", "--min", "AP=0.65", "--json", report)
            found[number_format] = json.loads(report.read_text())["metrics"]["AP50"]
        self.assertGreater(found["int16"], found["fp32"] - 0.01)

    def test_tracking(self):
        for number_format in ("fp32", "int16"):
            self.tool("eval", "mot", CLIP / "street.txt",
                      self.run_clip(number_format, "--mot", 0.5, "--track", *STRICT), "--classes",
                      REPORTED, "--min", "MOTA=0.85", "--min", "IDF1=0.8")

    def test_stages_take_away_what_they_should(self):
        tracked, strict, moving = (self.persons(*options) for options in (
            (), STRICT, ("--ignore-static", *STRICT[1:])))
        self.assertGreater(tracked["decoy"], 200)
        self.assertLess(strict["decoy"], 0.3 * tracked["decoy"])
        self.assertGreater(strict["standing"] + strict["moving"],
                           0.95 * (tracked["standing"] + tracked["moving"]))
        self.assertGreater(tracked["standing"], 400)
        self.assertLess(moving["standing"], 0.1 * tracked["standing"])
        self.assertGreater(moving["moving"], 0.7 * tracked["moving"])


if __name__ == "__main__":
    unittest.main()
