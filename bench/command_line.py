#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures `olvex-det run` against a plain loop of OpenCV in Python over the same frames: the street clip as a video,
with the boxes tracked and as an annotated video, and its first frames as JPEG files. Needs the packages of tools/setup
test, and the street network packed: cmake --build --preset dev --target olvex-det street_images

The loop reads a frame, makes the network's input of it, runs the network, and writes what the tool writes: nothing, or
the frame to a video. It decodes no boxes, draws none and tracks none, so it does less. OpenCV's threads are as they
are by default. Each round times both back to back, by the clock, the start of each program included; the ratio is the
median over the rounds.

Exit codes: 0 measured, 1 a failure or a ratio below what is required, 2 wrong usage.
"""
import argparse
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "scripts"))
import common  # noqa: E402

STREET = common.ROOT / "models/street"
REQUIRED = {"video": 1.3, "annotated video": 1.3, "pictures": 1.7}
LOOP = """
import pathlib, sys
import cv2
network, source, output, limit = sys.argv[1], pathlib.Path(sys.argv[2]), sys.argv[3], int(sys.argv[4])
net = cv2.dnn.readNetFromONNX(network)
names = net.getUnconnectedOutLayersNames()
def frames():
    if source.is_dir():
        yield from (cv2.imread(str(path)) for path in sorted(source.iterdir()))
        return
    video = cv2.VideoCapture(str(source))
    for _ in range(limit):
        yield video.read()[1]
writer = None
for frame in frames():
    net.setInput(cv2.dnn.blobFromImage(frame, 1 / 255, (640, 384)))
    net.forward(names)
    if output:
        if writer is None:
            writer = cv2.VideoWriter(output, cv2.VideoWriter_fourcc(*"avc1"), 10, frame.shape[1::-1])
        writer.write(frame)
if writer is not None:
    writer.release()
"""


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/dev", help="folder of the build (default: %(default)s)")
    parser.add_argument("--rounds", type=int, default=5, help="default: %(default)s")
    parser.add_argument("--frames", type=int, default=300, help="of the clip, at most 300 (default: %(default)s)")
    parser.add_argument("--jobs", type=int, default=0, help="of olvex-det run (default: by the machine)")
    parser.add_argument("--report", action="store_true", help="measure only, require nothing")
    return parser.parse_args()


def seconds(command):
    start = time.monotonic()
    common.run(command, "test", stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return time.monotonic() - start


def write_pictures(folder, count):
    import cv2
    folder.mkdir()
    video = cv2.VideoCapture(str(STREET / "clip/street.mp4"))
    for number in range(count):
        cv2.imwrite(str(folder / f"{number:06}.jpg"), video.read()[1])


def works(tool, image, folder, arguments):
    """{name: (command of the tool, command of the loop)}"""
    clip, pictures = STREET / "clip/street.mp4", folder / "pictures"
    run = [tool, "run", image, "--quiet", "--limit", arguments.frames, "--jobs", arguments.jobs]
    loop = [sys.executable, "-c", LOOP, STREET / "street.onnx"]
    return {
        "video": ([*run, clip, "--track", "--mot", folder / "mot"], [*loop, clip, "", arguments.frames]),
        "annotated video": ([*run, clip, "--track", "--mot", folder / "mot", "--video", folder / "a.mp4"],
                            [*loop, clip, folder / "b.mp4", arguments.frames]),
        "pictures": ([*run, pictures, "--coco", folder / "coco"], [*loop, pictures, "", arguments.frames]),
    }


def main():
    arguments = parse_arguments()
    build = common.ROOT / arguments.build
    tool, image = build / "bin/olvex-det", build / "models/street-fp32.qtm"
    for file in (tool, image):
        if not file.exists():
            raise common.Failure(f"{file} is missing: cmake --build {build} --target olvex-det street_images")
    missed = False
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        write_pictures(folder / "pictures", arguments.frames)
        rows = []
        for work, commands in works(tool, image, folder, arguments).items():
            times = [[seconds(command) for command in commands] for _ in range(arguments.rounds)]
            ratio = statistics.median(loop / run for run, loop in times)
            run, loop = (statistics.median(column) for column in zip(*times))
            rows.append((work, f"{loop:.2f}", f"{run:.2f}", f"{ratio:.2f}", REQUIRED[work]))
            missed = missed or ratio < REQUIRED[work]
        common.print_table(("work", "loop, s", "olvex-det run, s", "ratio", "required"), rows)
    return 1 if missed and not arguments.report else 0


if __name__ == "__main__":
    common.run_script(main)
