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
        """Boxes of persons in all frames, by track."""
        counts = {}
        for line in self.run_clip("fp32", "--jsonl", 0.5, "--track", *options).read_text().splitlines():
            for box in json.loads(line)["boxes"]:
                if box["class_id"] == 0:
                    counts[box["track_id"]] = counts.get(box["track_id"], 0) + 1
        return counts

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
        self.assertLess(sum(strict.values()), 0.9 * sum(tracked.values()))
        self.assertLess(sum(moving.values()), 0.8 * sum(tracked.values()))
        self.assertLessEqual(set(moving), set(tracked))


if __name__ == "__main__":
    unittest.main()
