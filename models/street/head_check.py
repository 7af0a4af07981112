# SPDX-License-Identifier: Apache-2.0
"""What the networks of heads.py give, over the street's clip: check() compares it with the street's own boxes in some
frames, measure() shows the average precision of each, packed by olvex-det without options."""
import functools
import json
import re
import subprocess
import sys
import tempfile
from pathlib import Path

import cv2
import numpy as np
import onnx
from onnx import numpy_helper

from head_decoders import DECODERS

CLIP = Path(__file__).resolve().parent / "clip" / "street.mp4"
FRAMES = (0, 110, 190, 290)
# The clip has nothing as large as to appear in the layer of stride 32, and little in that of stride 16: one
# frame is looked at again by a network with these biases changed, so that all cells' encodings count.
RAISED_FRAME = 110
RAISED = {"classes.1.bias": 8.0, "classes.2.bias": 9.0, "boxes.2.bias": 2.0}
SCORE = .05               # rows above it are compared
BOX_TOLERANCE = .5        # pixels, of sides and key points
SCORE_TOLERANCE = 1e-3
STRIDES = (8, 16, 32)
PERSONS_ONLY = ("combined-keypoints", "cls-obj-box-keypoints", "priors-landmarks", "score-distance-keypoints")
# Key points: places in the box, and how much surer than the person's logit each is.
PLACES = np.array([(.35, .3), (.65, .3), (.5, .5), (.4, .7), (.6, .7)])
SURER = np.array([2, 1.5, 1, .5, 0])


class Street:
    """The street's boxes of a frame, decoded from its own layers: all cells above SCORE / 2."""

    def __init__(self, layers, persons_only):
        parts = []
        for stride, layer in zip(STRIDES, layers):
            for y, x in np.ndindex(layer.shape[2:]):
                cell = layer[0, :, y, x].astype(float)
                logits = cell[4:5] if persons_only else cell[4:]
                score = 1 / (1 + np.exp(-logits.max()))
                if score > SCORE / 2:
                    sides = 16 / (1 + np.exp(-cell[:4])) ** 2
                    parts.append([x, y, stride, *sides, score, logits.argmax()])
        values = np.array(parts).reshape(-1, 9)
        self.cell, self.stride, self.sides = values[:, :2], values[:, 2], values[:, 3:7]
        self.scores, self.classes = values[:, 7], values[:, 8].astype(int)
        centre = (self.cell + .5) * self.stride[:, None]
        reach = self.sides * self.stride[:, None]
        self.boxes = np.concatenate([centre - reach[:, :2], centre + reach[:, 2:]], 1)

    def offset(self):
        """The box's centre from the cell's corner, in cells."""
        return .5 + (self.sides[:, 2:] - self.sides[:, :2]) / 2

    def size(self):
        return self.boxes[:, 2:] - self.boxes[:, :2]

    def points(self):
        return self.boxes[:, None, :2] + PLACES * self.size()[:, None]

    def point_scores(self):
        return 1 / (1 + (1 / self.scores - 1)[:, None] * np.exp(-SURER))


# ---- What a family can express ------------------------------------------------------------------


def _near_an_anchor(street):
    offset = street.offset()
    anchors = {8: ((10, 13), (16, 30), (33, 23)), 16: ((30, 61), (62, 45), (59, 119)),
               32: ((116, 90), (156, 198), (373, 326))}
    fits = [any((size < 3.99 * np.array(anchor)).all() for anchor in anchors[int(stride)])
            for size, stride in zip(street.size(), street.stride)]
    return ((offset > -.49) & (offset < 1.49)).all(1) & np.array(fits, bool)


def _within_the_bins(street):
    return (street.sides < 6.99).all(1)


def _within_many_bins(street):
    return (street.sides < 14.99).all(1)


def _of_the_own_layer(street):
    return (street.stride == 16) & (np.abs(street.offset()) < .99).all(1)


def _expressed(family, street):
    for start, rule in (("anchors", _near_an_anchor), ("distance-bins-many", _within_many_bins),
                        ("distance-bins", _within_the_bins), ("own-formula", _of_the_own_layer)):
        if family.replace("raw-as-", "").startswith(start):
            return rule(street)
    return np.ones(len(street.scores), bool)


# ---- Comparison ---------------------------------------------------------------------------------


class Comparison:
    """Sums over the frames of one family."""

    def __init__(self):
        self.rows = self.street_rows = self.left_out = 0
        self.box_difference = self.score_difference = 0.0
        self.faults = []

    def add(self, frame, rows, street, expressed):
        found = np.flatnonzero(rows.scores > SCORE)
        wanted = np.flatnonzero((street.scores > SCORE + SCORE_TOLERANCE) & expressed)
        partners = [self._partner(rows, row, street) for row in found]
        self.rows += len(found)
        self.street_rows += int((street.scores > SCORE).sum())
        self.left_out += int(((street.scores > SCORE) & ~expressed).sum())
        missing = set(wanted) - set(partners)
        if len(found) != len(set(partners)):
            self.faults.append(f"frame {frame}: {len(found)} rows for {len(set(partners))} of the street")
        if missing:
            self.faults.append(f"frame {frame}: {len(missing)} rows of the street are missing")

    def _partner(self, rows, row, street):
        """The street's row that is nearest in box and score, of the same class; notes the difference."""
        box = np.abs(street.boxes - rows.boxes[row]).max(1)
        score = np.abs(street.scores - rows.scores[row])
        if rows.points is not None:
            box = np.maximum(box, np.abs(street.points() - rows.points[row]).max((1, 2)))
        if rows.point_scores is not None:
            score = np.maximum(score, np.abs(street.point_scores() - rows.point_scores[row]).max(1))
        distance = np.maximum(box / BOX_TOLERANCE, score / SCORE_TOLERANCE)
        distance[street.classes != rows.classes[row]] = np.inf
        if not len(distance) or not np.isfinite(distance).any():
            self.faults.append(f"row {row}: the street has no such class")
            return -1
        nearest = int(distance.argmin())
        self.box_difference = max(self.box_difference, float(box[nearest]))
        self.score_difference = max(self.score_difference, float(score[nearest]))
        return nearest

    def passed(self):
        return (self.rows > 0 and not self.faults and self.box_difference <= BOX_TOLERANCE
                and self.score_difference <= SCORE_TOLERANCE)


def _pictures(width, height):
    clip, pictures = cv2.VideoCapture(str(CLIP)), {}
    for frame in range(max(FRAMES) + 1):
        good, picture = clip.read()
        if not good:
            raise SystemExit(f"heads.py: cannot read frame {frame} of {CLIP}")
        if frame in FRAMES:
            pictures[frame] = cv2.dnn.blobFromImage(picture, 1 / 255, (width, height))
    return pictures


def _loaded(data, names):
    """A function that runs a network; its outputs by name."""
    network = cv2.dnn.readNetFromONNX(np.frombuffer(data, np.uint8))

    def run(picture):
        network.setInput(picture)
        return dict(zip(names, network.forward(names)))

    return run


def _raised(model):
    raised = type(model)()
    raised.CopyFrom(model)
    for values in raised.graph.initializer:
        if values.name in RAISED:
            values.CopyFrom(numpy_helper.from_array(numpy_helper.to_array(values) + np.float32(RAISED[values.name]),
                                                    values.name))
    return raised


def _names(model):
    return [output.name for output in model.graph.output]


def _shape_faults(model, outputs):
    stated = {o.name: tuple(d.dim_value for d in o.type.tensor_type.shape.dim) for o in model.graph.output}
    return [f"{name} is {outputs[name].shape}, not {shape}" for name, shape in stated.items()
            if outputs[name].shape != shape]


def _runs(model, pictures):
    """(frame, picture, outputs by name) of the network and of the one with raised biases."""
    for network, frames in ((model, FRAMES), (_raised(model), (RAISED_FRAME,))):
        run = _loaded(network.SerializeToString(), _names(model))
        for frame in frames:
            yield frame, pictures[frame], run(pictures[frame])


def _compared(family, model, pictures, street_layers):
    comparison = Comparison()
    try:
        for layers, (frame, picture, outputs) in zip(street_layers, _runs(model, pictures)):
            height, width = picture.shape[2:]
            comparison.faults += _shape_faults(model, outputs)
            street = Street(layers, family in PERSONS_ONLY)
            comparison.add(frame, DECODERS[family](outputs, width, height), street, _expressed(family, street))
    except cv2.error as error:
        comparison.faults.append(str(error).strip())
    return comparison


def check(models, network):
    """Prints a line for each family; 1 when one differs from the street, otherwise 0."""
    street = onnx.load(str(network))
    height, width = (d.dim_value for d in street.graph.input[0].type.tensor_type.shape.dim[2:])
    pictures = _pictures(width, height)
    street_layers = [list(outputs.values()) for _, _, outputs in _runs(street, pictures)]
    print(f"{len(FRAMES)} frames, one of them twice; rows with a score above {SCORE}\n"
          f"{'family':28} {'rows':>5} {'street':>6} {'not expressed':>13} {'box':>8} {'score':>8}")
    failed = False
    for family, model in models.items():
        result = _compared(family, model, pictures, street_layers)
        failed |= not result.passed()
        print(f"{family:28} {result.rows:5} {result.street_rows:6} {result.left_out:13} {result.box_difference:8.4f} "
              f"{result.score_difference:8.5f}  {'same' if result.passed() else 'DIFFERS'}", flush=True)
        for fault in result.faults[:5]:
            print(f"    {fault}")
    return int(failed)


# ---- Average precision

# Of boxes that count. An image of decoded boxes hands over none below it, a raw one does.
COUNTED = "0.05"
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
        self.call("run", image, CLIP, "--threshold", COUNTED, "--coco", boxes, "--quiet")
        return re.search(r"^  head +(\S+)$", report, re.MULTILINE).group(1), boxes

    def figures(self, family, variants, classes):
        report = self.folder / "report.json"
        self.call("eval", "coco", CLIP.with_suffix(".json"), self.head_and_boxes(family, variants)[1], "--classes", classes,
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
