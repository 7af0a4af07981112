# SPDX-License-Identifier: Apache-2.0
"""replay_pictures_test.py - boxes of a replay over pictures that were kept, and over those that the user gives.

See tool_test.py for the usage.
"""
import json
import struct

import cv2
import numpy

from recorded_files import CAMERA, messages, record
from tool_test import ToolTest, main, write_gray


def picture_in(data, message, flags=cv2.IMREAD_COLOR):
    """The JPEG picture of a message."""
    begin, end, _ = message
    return cv2.imdecode(numpy.frombuffer(data[data.index(b"\xff\xd8", begin, end):end], numpy.uint8), flags)


class ReplayPicturesTest(ToolTest):
    def test_boxes_are_drawn_over_kept_pictures(self):
        path, frames = self.folder / "kept.mcap", {}
        path.write_bytes(record([CAMERA, self.folder / "results", "frames=9", "input=nv12"], self.folder / "camera",
                                PICTURES=2, PICTURES_CROP="64,32,128,64"))
        for line in self.tool("replay", path, "--export", "jsonl", "-o", "-").stdout.splitlines():
            frames[json.loads(line)["frame"]] = json.loads(line)["boxes"]
        self.tool("replay", path, "--annotate", "drawn", "--export", "mcap", "-o", "viewer.mcap")
        self.tool("replay", path, "--annotate", "drawn.mkv", "--set", "threshold=1")
        video = cv2.VideoCapture(str(self.folder / "drawn.mkv"))
        self.assertEqual(sorted(drawn.name for drawn in (self.folder / "drawn").iterdir()),
                         [f"frame_00000{number}.jpg" for number in (2, 4, 6, 8)])
        for number in (2, 4, 6, 8):
            picture = cv2.imread(str(self.folder / f"drawn/frame_00000{number}.jpg"))
            sides = video.read()[1]
            self.assertEqual((picture.shape, sides.shape), ((128, 256, 3), (128, 512, 3)))
            self.assertNotEqual(frames[number], [])
            self.assertGreater(cv2.absdiff(sides[:100, :256], sides[:100, 256:]).max(), 80)  # nothing reaches 1
        self.assertFalse(video.read()[0])
        data = (self.folder / "viewer.mcap").read_bytes()
        boxes, pictures = messages(data, 1), messages(data, 2)
        self.assertEqual((len(boxes), len(pictures)), (9, 4))
        for number, (begin, *_) in enumerate(boxes, 1):
            count = struct.unpack_from("<I", data, begin + 25)[0]
            self.assertEqual(count, 8 * len(frames[number]))
            scale = (1, 1) if number % 2 else (256 / 1920, 128 / 1080)
            left, top = struct.unpack_from("<dd", data, begin + 29)
            self.assertEqual((left, top), (frames[number][0]["x"] * scale[0], frames[number][0]["y"] * scale[1]))
        for message in pictures:
            picture = picture_in(data, message)
            self.assertEqual(picture.shape, (128, 256, 3))
            self.assertTrue((abs(picture[:24].astype(int) - 96) < 12).all())  # nothing was kept there
            self.assertGreater(picture[40:90, 72:184].std(), 20)

    def test_boxes_are_drawn_over_pictures_that_the_user_gives(self):
        (self.folder / "plain.mcap").write_bytes(
            record([CAMERA, self.folder / "results", "frames=20", "track=0"], self.folder / "camera"))
        (self.folder / "given").mkdir()
        for number in range(6):
            write_gray(self.folder / f"given/{number}.pgm", 96, 54, 40 * number)
        self.tool("replay", "plain.mcap", "--set", "threshold=1", "--export", "mcap", "-o", "viewer.mcap", "--over",
                  "given", "--over-start", 3, "--from", 2)
        data = (self.folder / "viewer.mcap").read_bytes()
        self.assertEqual((len(messages(data, 1)), len(messages(data, 2))), (19, 6))
        for number, message in enumerate(messages(data, 2)):
            picture = picture_in(data, message, cv2.IMREAD_GRAYSCALE)
            self.assertAlmostEqual(picture.mean(), 40 * number, delta=3)
        times = [struct.unpack_from("<I", data, messages(data, channel)[k][0])[0] for channel, k in ((1, 1), (2, 0))]
        self.assertEqual(*times)
        self.tool("replay", "plain.mcap", "--annotate", "both.mkv", "--over", "given", "--set", "threshold=0.8")
        video = cv2.VideoCapture(str(self.folder / "both.mkv"))
        self.assertEqual((video.read()[1].shape, sum(video.read()[0] for _ in range(9))), ((54, 192, 3), 5))


if __name__ == "__main__":
    main()
