# SPDX-License-Identifier: Apache-2.0
"""Training pictures: scenes of the street as the network will see them, in memory-mapped arrays.

load(folder, name, seeds, mix) makes them on first use, with all cores, and keeps them for the next run.
"""
import functools
import multiprocessing
import os
import sys
from pathlib import Path

import cv2
import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "scene"))
sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

from figures import DECOY, HEAD_CLASS, PERSON  # noqa: E402
from split import PICTURES_PER_SCENE, SCENE_SECONDS, code_of_scenes  # noqa: E402
from street import MOST_HIDDEN, Scene  # noqa: E402

WIDTH, HEIGHT = 512, 288   # network pixels
MOST_OBJECTS = 64          # of a picture
# Rows of a picture's objects: class, left, top, right, bottom (network pixels), 1 to train on / 0 to
# ignore; class -1 ends them. Decoys are persons to ignore: which things are mistaken for persons in a real
# street is unknown, so training does not settle whether they are; but it does teach that they have no
# head, which is what strict mode needs.
COLUMNS = 6

_SMALLEST_HEAD = 4.0       # network pixels, side of a square of the same area
_SMALLEST = 8.0


def as_network_input(frame, rng):
    """What is left of a frame after a camera's compression, scaling and NV12."""
    quality = int(rng.integers(40, 96))
    frame = cv2.imdecode(cv2.imencode(".jpg", frame, [cv2.IMWRITE_JPEG_QUALITY, quality])[1],
                         cv2.IMREAD_COLOR)
    small = cv2.resize(frame, (WIDTH, HEIGHT), interpolation=cv2.INTER_AREA)
    return cv2.cvtColor(cv2.cvtColor(small, cv2.COLOR_BGR2YUV_I420), cv2.COLOR_YUV2BGR_I420)


def _objects(truths, scale):
    rows = np.full((MOST_OBJECTS, COLUMNS), -1.0, np.float32)
    for i, truth in enumerate(truths[:MOST_OBJECTS]):
        left, top = truth.left * scale, truth.top * scale
        right, bottom = left + truth.width * scale, top + truth.height * scale
        smallest = _SMALLEST_HEAD if truth.class_id == HEAD_CLASS else _SMALLEST
        class_id = PERSON if truth.class_id == DECOY else truth.class_id
        clear = (class_id == truth.class_id and truth.hidden <= MOST_HIDDEN and
                 (right - left) * (bottom - top) >= smallest ** 2)
        rows[i] = class_id, left, top, right, bottom, float(clear)
    return rows


def _render_scene(mix, seed):
    cv2.setNumThreads(1)
    scene = Scene(seed, mix, SCENE_SECONDS)
    rng = np.random.default_rng([seed, 1])
    pictures, objects = [], []
    for i in range(PICTURES_PER_SCENE):
        frame, truths = scene.render((i + 0.5) * SCENE_SECONDS / PICTURES_PER_SCENE)
        pictures.append(as_network_input(frame, rng))
        objects.append(_objects(truths, WIDTH / frame.shape[1]))
    return np.stack(pictures), np.stack(objects)


def load(folder, name, seeds, mix):
    """Pictures of a mix of actors.py: (pictures N x HEIGHT x WIDTH x 3 of 8 bits in BGR,
    objects N x MOST_OBJECTS x COLUMNS)."""
    folder.mkdir(parents=True, exist_ok=True)
    picture_path, object_path = folder / f"{name}.pictures.npy", folder / f"{name}.objects.npy"
    mark_path, mark = folder / f"{name}.mark", f"{seeds} {sorted(mix.items())} {code_of_scenes()}"
    count = len(seeds) * PICTURES_PER_SCENE
    if not (mark_path.exists() and mark_path.read_text() == mark):
        mark_path.unlink(missing_ok=True)
        pictures = np.lib.format.open_memmap(picture_path, "w+", np.uint8, (count, HEIGHT, WIDTH, 3))
        objects = np.zeros((count, MOST_OBJECTS, COLUMNS), np.float32)
        with multiprocessing.Pool(os.cpu_count()) as pool:
            for i, (some, rows) in enumerate(pool.imap(functools.partial(_render_scene, mix), seeds, 4)):
                part = slice(i * PICTURES_PER_SCENE, (i + 1) * PICTURES_PER_SCENE)
                pictures[part], objects[part] = some, rows
                print(f"\r{name}: {part.stop} of {count} pictures", end="", file=sys.stderr)
        print(file=sys.stderr)
        pictures.flush()
        np.save(object_path, objects)
        mark_path.write_text(mark)
    return np.load(picture_path, mmap_mode="r"), np.load(object_path)
