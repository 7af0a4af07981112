#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Renders the street: pictures or a clip, with the truth about every object in them.

    generate.py pictures --seeds 300000:300260 --mix busy_with_decoys -o test
    generate.py clip --seeds 400000 --seconds 40 -o clip

pictures: OUTPUT/pictures/000001.jpg and so on, spread over each scene, and OUTPUT/truth.json (COCO).
clip: OUTPUT/SEED.mp4, SEED.json (COCO), SEED.txt and SEED.decoys.txt (MOT) for each seed.
The same seeds give the same truth and pictures. truth.py has the formats, actors.py the mixes.
"""
import argparse
import functools
import multiprocessing
import os
import sys
from pathlib import Path

import cv2
import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

import actors
from camera import FRAME_HEIGHT, FRAME_WIDTH
from split import CLIP_RATE, CLIP_SECONDS, PICTURES_PER_SCENE, SCENE_SECONDS
from street import Scene
from truth import write_coco, write_mot

MIXES = {name.lower(): getattr(actors, name)
         for name in ("STREET", "BUSY", "BUSY_WITH_DECOYS", "SHOWN", "DECOYS", "STANDING")}


def _seeds(text):
    """"7" or "7:9" (7 and 8)."""
    first, _, end = text.partition(":")
    seeds = range(int(first), int(end) if end else int(first) + 1)
    if not seeds:
        raise argparse.ArgumentTypeError(f"{text}: no seeds; give FIRST or FIRST:END")
    return seeds


def _render_pictures(folder, mix, per_scene, scale, first, place):
    cv2.setNumThreads(1)
    seed = first + place
    scene = Scene(seed, mix, SCENE_SECONDS)
    rng = np.random.default_rng([seed, 2])
    frames = []
    for i in range(per_scene):
        frame, truths = scene.render((i + 0.5) * SCENE_SECONDS / per_scene)
        frame = cv2.resize(frame, None, fx=scale, fy=scale, interpolation=cv2.INTER_AREA)
        name = f"{place * per_scene + i + 1:06d}.jpg"
        quality = [cv2.IMWRITE_JPEG_QUALITY, int(rng.integers(40, 96))]
        if not cv2.imwrite(str(folder / name), frame, quality):
            raise OSError(f"{folder / name}: cannot be written")
        frames.append((name, truths))
    return frames


def _render_clip(output, mix, seconds, time_of_day, seed):
    cv2.setNumThreads(1)
    scene = Scene(seed, mix, seconds, time_of_day)
    path = output / f"{seed}.mp4"
    writer = cv2.VideoWriter(str(path), cv2.VideoWriter_fourcc(*"avc1"), CLIP_RATE,
                             (FRAME_WIDTH, FRAME_HEIGHT))
    if not writer.isOpened():
        raise OSError(f"{path}: cannot be written; is the disk full, or the video encoder missing?")
    frames = []
    for i in range(int(round(seconds * CLIP_RATE))):
        frame, truths = scene.render(i / CLIP_RATE)
        writer.write(frame)
        frames.append((f"{seed}.mp4", truths))
    writer.release()
    write_coco(output / f"{seed}.json", frames)
    write_mot(output / f"{seed}.txt", frames)
    write_mot(output / f"{seed}.decoys.txt", frames, decoys=True)


def _in_parallel(work, items, what):
    results = []
    with multiprocessing.Pool(os.cpu_count()) as pool:
        for result in pool.imap(work, items):
            results.append(result)
            if sys.stderr.isatty() or len(results) == len(items):
                print(f"\r{what}: {len(results)} of {len(items)}", end="", file=sys.stderr)
    print(file=sys.stderr)
    return results


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("what", choices=("pictures", "clip"))
    parser.add_argument("--seeds", type=_seeds, required=True, help="FIRST or FIRST:END")
    parser.add_argument("--mix", choices=sorted(MIXES), default="street", help="what is in the street")
    parser.add_argument("--seconds", type=float, default=CLIP_SECONDS, help="length of a clip")
    parser.add_argument("--time-of-day", choices=("day", "dusk", "night"), help="of clips; else at random")
    parser.add_argument("--per-scene", type=int, default=PICTURES_PER_SCENE, help="pictures")
    parser.add_argument("--scale", type=float, default=1.0, help="of pictures; the truth stays in frame "
                        "pixels")
    parser.add_argument("-o", "--output", type=Path, required=True, help="folder")
    options = parser.parse_args()
    mix = MIXES[options.mix]
    options.output.mkdir(parents=True, exist_ok=True)
    if options.what == "clip":
        work = functools.partial(_render_clip, options.output, mix, options.seconds, options.time_of_day)
        _in_parallel(work, options.seeds, "clips")
        return
    folder = options.output / "pictures"
    folder.mkdir(exist_ok=True)
    work = functools.partial(_render_pictures, folder, mix, options.per_scene, options.scale,
                             options.seeds[0])
    scenes = _in_parallel(work, range(len(options.seeds)), "scenes")
    write_coco(options.output / "truth.json", [frame for scene in scenes for frame in scene])


if __name__ == "__main__":
    main()
