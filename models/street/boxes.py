"""Boxes of truth files and of runs, and which belong together. Used by measure.py."""
import json
from collections import defaultdict

import numpy as np


class Row:
    """One box of one frame. id is a track id, or -1."""

    def __init__(self, frame, id_, left, top, width, height, class_id, considered=True, moving=False):
        self.frame, self.id, self.class_id = frame, id_, class_id
        self.box = np.array([left, top, left + width, top + height], float)
        self.considered, self.moving = considered, moving


def read_truth(path):
    """Rows of a MOT truth file by frame."""
    frames = defaultdict(list)
    for line in open(path, encoding="utf-8"):
        frame, id_, left, top, width, height, considered, class_id, _, moving = map(float, line.split(","))
        frames[int(frame)].append(Row(int(frame), int(id_), left, top, width, height, int(class_id),
                                      considered > 0, moving > 0))
    return frames


def read_run(path):
    """Rows of a run's JSON lines by frame."""
    frames = defaultdict(list)
    for line in open(path, encoding="utf-8"):
        record = json.loads(line)
        for box in record["boxes"]:
            id_ = -1 if box["track_id"] is None else box["track_id"]
            left, top, right, bottom = box["corners"]
            frames[record["frame"]].append(Row(record["frame"], id_, left, top, right - left, bottom - top,
                                               box["class_id"]))
    return frames


def overlaps(rows, others):
    """Intersection over union of every row with every other."""
    if not rows or not others:
        return np.zeros((len(rows), len(others)))
    a = np.array([r.box for r in rows])[:, None]
    b = np.array([r.box for r in others])[None]
    extent = np.clip(np.minimum(a[..., 2:], b[..., 2:]) - np.maximum(a[..., :2], b[..., :2]), 0, None)
    both = extent.prod(-1)
    return both / ((a[..., 2:] - a[..., :2]).prod(-1) + (b[..., 2:] - b[..., :2]).prod(-1) - both)


def matches(rows, others, least=0.5):
    """Pairs (row, other) of one class with at least that overlap, the best first, each used once."""
    table = overlaps(rows, others)
    for i, row in enumerate(rows):
        for j, other in enumerate(others):
            if row.class_id != other.class_id:
                table[i, j] = 0.0
    pairs = []
    while table.size and table.max() >= least:
        i, j = np.unravel_index(table.argmax(), table.shape)
        pairs.append((rows[i], others[j]))
        table[i], table[:, j] = 0.0, 0.0
    return pairs
