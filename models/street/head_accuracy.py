# SPDX-License-Identifier: Apache-2.0
"""Average precision of the networks of heads.py over the street's clip, each packed by olvex-det without options."""
import functools
import json
import re
import subprocess
import sys
import tempfile
from pathlib import Path

CLIP = Path(__file__).resolve().parent / "clip"
# Of boxes that count. An image of decoded boxes hands over none below it, a raw one does.
SCORE = "0.05"
TOLERANCE = .005
ALL, PERSON = "0,1,2,3,4,5,6", "0"


class Failed(Exception):
    """olvex-det ended with an error, which the text is."""


class HeadAccuracy:
    """Files are in the folder; write(family, variants, path) writes a network."""

    def __init__(self, tool, write, folder):
        self.tool, self.write, self.folder = tool, write, Path(folder)

    def call(self, *arguments):
        try:
            result = subprocess.run([self.tool, *map(str, arguments)], capture_output=True, text=True)
        except OSError as error:
            raise Failed(f"cannot start {self.tool}: {error.strerror}") from error
        if result.returncode != 0:
            raise Failed(f"olvex-det {' '.join(map(str, arguments))}\n{result.stderr}".rstrip())
        return result.stdout

    @functools.lru_cache(None)
    def head_and_boxes(self, family, variants):
        """The head that pack concluded, and the file of what the image finds."""
        name = " ".join((family, *variants))
        network, image, boxes = (self.folder / f"{name}.{kind}" for kind in ("onnx", "qtm", "json"))
        print(f"== {name}", file=sys.stderr, flush=True)
        self.write(family, variants, network)
        report = self.call("pack", network, "-o", image)
        self.call("run", image, CLIP / "street.mp4", "--threshold", SCORE, "--coco", boxes, "--quiet")
        return re.search(r"^  head +(\S+)$", report, re.MULTILINE).group(1), boxes

    def figures(self, family, variants, classes):
        report = self.folder / "report.json"
        self.call("eval", "coco", CLIP / "street.json", self.head_and_boxes(family, variants)[1], "--classes", classes,
                  "--json", report)
        return json.loads(report.read_text())["metrics"]


def measure(tool, families, variants, write):
    """Prints a row for each of the families (name: reference, whether it has persons only); 1 when one is off.
    The references are measured without the variants."""
    print("| family | head | AP | AP50 | compared with | its AP | difference |\n|---|---|---|---|---|---|---|")
    failed = False
    with tempfile.TemporaryDirectory() as folder:
        accuracy = HeadAccuracy(tool, write, folder)
        for family, (reference, persons_only) in families.items():
            classes = PERSON if persons_only else ALL
            try:
                found = accuracy.figures(family, variants, classes)
                wanted = accuracy.figures(reference, (), classes)
            except Failed as error:
                print(f"heads.py: {family}: {error}", file=sys.stderr, flush=True)
                failed = True
                continue
            difference = round(found["AP"] - wanted["AP"], 4) + 0.0  # no -0.0
            failed |= abs(difference) > TOLERANCE
            print(f"| `{' '.join((family, *variants))}` | `{accuracy.head_and_boxes(family, variants)[0]}` | "
                  f"{found['AP']:.3f} | {found['AP50']:.3f} | `{reference}`{', persons' if persons_only else ''} | "
                  f"{wanted['AP']:.3f} | {difference:+.4f} |", flush=True)
    return int(failed)
