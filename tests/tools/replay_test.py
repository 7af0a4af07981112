# SPDX-License-Identifier: Apache-2.0
"""replay_test.py - olvex-det replay and record: runs that the recorder took are played, damaged, cut and changed; boxes
of a replay are drawn over pictures that were kept, and over those that the user gives.

See tool_test.py for the usage. The camera is that of tests/recorder; olvex-det run is recorded, too, as it knows
every stage.
"""
import json
import os
import pathlib
import random
import re
import struct
import subprocess
import tempfile
import zlib

import cv2
import numpy

from recorded_files import CAMERA, MAGIC, changed, chunk, chunks, messages, record, spliced, without
from tool_test import STRIDE, TOOL, ToolTest, main, make_network, write_cells, write_gray

DAMAGE = os.environ["OLVEX_DAMAGE"]
SAME = re.compile(r"[^\n]*: (\d+) frames? and (\d+) calls?: no difference([^\n]*)\n")


def picture_in(data, message, flags=cv2.IMREAD_COLOR):
    """The JPEG picture of a message."""
    begin, end, _ = message
    return cv2.imdecode(numpy.frombuffer(data[data.index(b"\xff\xd8", begin, end):end], numpy.uint8), flags)


def frame_with_boxes(data, least=1):
    """The first frame message with so many boxes, its number, and where its boxes and its first cell begin."""
    for message in messages(data, 5):
        begin = at = message[0]
        number = struct.unpack_from("<I", data, begin)[0]
        at += 57
        at += 4 + 17 * struct.unpack_from("<I", data, at)[0]
        outputs = struct.unpack_from("<I", data, at)[0]
        at += 4
        cell = None
        for _ in range(outputs):
            size = struct.unpack_from("<I", data, at + 2)[0]
            if cell is None and data[at] == 1 and size and data[at + 8]:
                cell = at + 6 - begin
            at += 6 + size
        if struct.unpack_from("<I", data, at)[0] >= least and cell is not None:
            return message, number, at + 4 - begin, cell
    raise AssertionError("no frame has boxes")


class ReplayTest(ToolTest):
    @classmethod
    def setUpClass(cls):
        shared = tempfile.TemporaryDirectory()
        cls.addClassCleanup(shared.cleanup)
        cls.shared = pathlib.Path(shared.name)
        cls.plain = cls.camera("plain", "frames=20", "track=0")
        cls.tracked = cls.camera("tracked", "frames=50", "fail=49")

    @classmethod
    def camera(cls, name, *arguments, **settings):
        return record([CAMERA, str(cls.shared / name), *arguments], cls.shared / name, **settings)

    def played(self, data, *options, code=0, said=()):
        path = self.folder / "recording.mcap"
        path.write_bytes(data)
        return self.tool("replay", path, *options, code=code, said=said)

    def assert_same(self, data, frames, note=""):
        result = self.played(data)
        self.assertEqual(result.stderr, "")
        self.assertRegex(result.stdout, SAME)
        match = SAME.fullmatch(result.stdout)
        self.assertEqual((int(match[1]), match[3]), (frames, note), result.stdout)
        return result

    def test_recorded_runs_of_a_camera_come_out_the_same(self):
        self.assert_same(self.plain, 20)
        self.assert_same(self.tracked, 50)
        for arguments, frames in ((("kind=int16",), 60), (("kind=points",), 60), (("kind=list",), 60),
                                  (("handles=3", "frames=40"), 120), (("threshold=0", "frames=3"), 3),
                                  (("threshold_at=5", "frames=9"), 9), (("threshold=nan", "frames=3"), 3)):
            with self.subTest(arguments):
                self.assert_same(self.camera("case", *arguments), frames)
        self.assert_same(self.camera("case", "frames=9", WHOLE=3, PICTURES=4, INPUT_CRC=1), 9)

    def test_every_stage_of_a_run_comes_out_the_same(self):
        frames = self.folder / "frames"
        frames.mkdir()
        for number in range(12):
            write_cells(frames / f"{number:03}.ppm", 96, 64,
                        {(1 + number // 2, 2): (250, 0, 0), (8, 5): (0, 240, 0), (3, 6): (0, 0, 200)})
        for kind, options in (("decoded", ("--boxes", "boxes", "--scores", "scores")),
                              ("raw", ("--raw", "stride8", "stride16", "stride32", "--scale", "1/255"))):
            network, model = self.folder / f"{kind}.onnx", self.folder / f"{kind}.qtm"
            make_network(network, kind, 96, 64, 8)
            packed = subprocess.run([TOOL, "pack", network, "-o", model, *options, "--input-format", "rgb"],
                                    capture_output=True)
            self.assertEqual(packed.returncode, 0, packed.stderr)
            for stages in ((), ("--track",), ("--track", "--ignore-static"), ("--stable",), ("--track", "--strict", "--stable"),
                           ("--memory",)):
                with self.subTest((kind, *stages)):
                    command = [TOOL, "run", "--quiet", *stages, "--threshold", "0.3", model, frames, "--jsonl",
                               self.folder / "out.jsonl"]
                    self.assert_same(record(command, self.folder / "run"), 12)

    def test_one_flipped_bit_of_a_tensor_is_found_in_its_frame(self):
        message, number, boxes, cell = frame_with_boxes(self.plain)
        logit = cell + 3 + self.plain[message[0] + cell + 2] + 16
        byte = self.plain[message[0] + logit + 2]
        result = self.played(changed(self.plain, message, logit + 2, bytes([byte ^ 1])), code=1)
        self.assertRegex(result.stdout, rf": frame {number}, box \d+ score: recorded 0\.\d+ \(0x\w+\), played ")
        x = struct.unpack_from("<H", self.plain, message[0] + boxes)[0]
        result = self.played(changed(self.plain, message, boxes, struct.pack("<H", x + 1)), code=1)
        self.assertIn(f": frame {number}, box 1 x: recorded {x + 1}, played {x}\n", result.stdout)
        self.assertTrue(result.stdout.endswith("differences: box x 1\n"), result.stdout)

    def test_a_changed_option_result_or_call_is_found(self):
        inits = [message for message in messages(self.plain, 4) if self.plain[message[0]] == 5]
        result = self.played(changed(self.plain, inits[0], 48, struct.pack("<f", 0.6)), code=1)
        number = frame_with_boxes(self.plain)[1]
        self.assertIn(f": frame {number}, number of boxes: recorded ", result.stdout)
        for offset, value, words in ((24, struct.pack("<i", 9), "InitHandle, result: recorded 9, played 0"),
                                     (52, struct.pack("<I", 960), rf": frame {number}, box 1 ")):
            result = self.played(changed(self.plain, inits[0], offset, value), code=1)
            self.assertIn(words, result.stdout)
        channel = next(message for message in messages(self.plain, 4) if self.plain[message[0]] == 24)
        result = self.played(changed(self.plain, channel, 56, struct.pack("<I", 7)), code=1)
        self.assertIn("ALGO_DET_InitHandle, QV_IPU_CreateCHN argument 3: recorded 0x7, played 0x1\n", result.stdout)

    def test_what_is_missing_and_another_library_are_said(self):
        frame, options = messages(self.tracked, 5)[7], [
            message for message in messages(self.tracked, 4) if self.tracked[message[0]] == 8][0]
        result = self.played(without(self.tracked, frame), said=["recording.mcap: 1 frame is missing: after that, "])
        self.assertIn("before a key frame, without their boxes", result.stdout)
        self.played(without(self.tracked, options), code=1, said=["recording.mcap: 1 call is missing: what differs"])
        lost = messages(self.plain, 7)[-1]
        self.played(changed(self.plain, lost, 17, struct.pack("<Q", 2)), said=["recording.mcap: 2 calls are missing"])
        self.assertIn("lost      0 frames and 2 calls\n", self.tool("record", "info", "recording.mcap").stdout)
        about = messages(self.plain, 1)[0]
        at = self.plain.index(b"commit_det#", about[0]) - about[0]
        self.played(changed(self.plain, about, at, b"commit_old"), said=[
            "made by library commit_old", "what differs may be a change of the library"])
        carried = messages(self.plain, 4)[0]
        self.played(changed(changed(self.plain, carried, 1, b"\1"), about, about[1] - about[0] - 1, b"\0"),
                    said=["not all calls in force at its start are in it"])

    def test_calls_that_handed_nothing_back_are_played(self):
        last = max(struct.unpack_from("<I", self.plain, begin + 4)[0] for begin, *_ in messages(self.plain, 4))
        records = b"".join(
            struct.pack("<BQHIQQ", 5, 22 + 52, 4, 0, 0, 0)
            + struct.pack("<BBHIIIIIiQQII", function, 0, 1, last + k, 0, 9, 0, 0, 0, 0, 0, 0, 0)
            for k, function in enumerate((1, 3, 11), 1))
        at = messages(self.plain, 7)[-1][2][0]
        self.assert_same(spliced(self.plain, at, at, chunk(len(records), zlib.crc32(records), records)), 20)

    def test_hostile_chunks_take_no_more_than_a_multiple_of_their_size(self):
        head, count = chunks(self.plain)[0][1], 20000
        data = self.plain[:head] + b"".join(chunk(49 * (count - k), 1) for k in range(count)) + bytes(49)
        path, whole = self.folder / "hostile.mcap", self.folder / "whole.mcap"
        path.write_bytes(data)
        self.assertIn("was not made by a recorder, and is not looked through",
                      self.tool("record", "repair", path, "-o", whole).stdout)
        end = chunks(self.plain)[1][0]
        size = 9 + struct.unpack_from("<Q", self.plain, head + 1)[0]
        self.assertEqual(self.plain[head], 7)
        self.played(self.plain[:end] + self.plain[head:head + size] * 2 + self.plain[end:], code=4,
                    said=[f"byte {end}: a second message index of a channel"])

    def test_what_ends_early_or_is_damaged_is_played_up_to_there(self):
        ends = [end for _, end in chunks(self.plain)]
        numbers = messages(self.plain, 5)
        head = chunks(self.plain)[0][1]
        generator = random.Random(14)
        for _ in range(max(2, 20 // STRIDE)):
            cut = generator.randrange(head, ends[-1])
            whole = sum(end <= cut for *_, (_, end) in numbers)
            result = self.played(self.plain[:cut])
            self.assertEqual(int(SAME.fullmatch(result.stdout)[1]) if result.stdout else 0, whole)
            self.assertRegex(result.stderr, r"recording.mcap: byte \d+: the (file ends within a record|recording has no end)")
            bit = generator.randrange(8 * ends[-1])  # the summary behind is for viewers
            data = bytearray(self.plain)
            data[bit // 8] ^= 1 << bit % 8
            path = self.folder / "flipped.mcap"
            path.write_bytes(data)
            result = subprocess.run([TOOL, "replay", path], capture_output=True, encoding="utf-8")
            self.assertIn(result.returncode, (0, 4), (bit, result))
            self.assertRegex(result.stderr, r"flipped.mcap: byte \d+: ", bit)

    def test_a_thousand_cuts_and_flips_are_named(self):
        for name in ("plain", "tracked"):
            result = subprocess.run([DAMAGE, self.shared / f"{name}.1.mcap", str(1000 // STRIDE)], capture_output=True)
            self.assertEqual(result.returncode, 0, result.stderr)

    def test_a_killed_run_is_played_up_to_its_last_whole_frame(self):
        data = self.camera("killed", "pause=100", "kill=30")  # three seconds for the first frame to be written
        result = self.played(data, said=["recording.mcap: byte "])
        frames = len(messages(data, 5))
        self.assertTrue(0 < frames <= 30, frames)
        self.assertEqual(int(SAME.fullmatch(result.stdout)[1]), frames)

    def test_a_damaged_recording_is_repaired(self):
        middle = chunks(self.tracked)[-30]
        data = bytearray(self.tracked)
        data[middle[0] + 60] ^= 4
        path, whole = self.folder / "damaged.mcap", self.folder / "whole.mcap"
        path.write_bytes(data)
        frames = len(messages(self.tracked, 5))
        self.assertIn(f"byte {middle[0]}: the chunk is damaged", self.tool("replay", path, code=4).stderr)
        result = self.tool("record", "repair", path, "-o", whole)
        self.assertIn(f"whole.mcap: {frames - 1} frames in ", result.stdout)
        self.assertRegex(result.stdout, rf"lost \d+ bytes: byte {middle[0]}: the chunk is damaged: its CRC is wrong\n")
        self.assertEqual(whole.stat().st_mode & 0o777, 0o600)
        self.assertRegex(self.tool("replay", whole).stdout, rf"{frames - 1} frames .*no difference; before a key frame")
        path.write_bytes(self.tracked[:middle[0] + 30])
        self.assertIn("the file ends within a record", self.tool("record", "repair", path, "-o", whole).stdout)
        self.assertEqual(self.tool("replay", whole).stderr, "")

    def test_a_part_is_played_warm(self):
        path, part = self.folder / "tracked.mcap", self.folder / "part.mcap"
        path.write_bytes(self.tracked)
        for numbers, note in (((5, 30), "; before a key frame, without their boxes: 17"), ((1, 9), ""), ((30, 49), "; before a key frame, without their boxes: 20")):
            self.tool("record", "cut", path, "--from", numbers[0], "--to", numbers[1], "-o", part)
            self.assert_same(part.read_bytes(), numbers[1] - numbers[0] + 1, note)
        warm = self.camera("warm", "pause=20", "frames=90", "trigger=60", "track=0", MODE="trigger", BEFORE_S=1, AFTER_S=1)
        self.assertGreater(struct.unpack_from("<I", warm, messages(warm, 5)[0][0])[0], 1)
        self.assert_same(warm, len(messages(warm, 5)))
        path.write_bytes(warm)
        start = re.search(r"time +(\S+) to ", self.tool("record", "info", path).stdout)[1]
        for around in (start, "0"):
            self.tool("record", "cut", path, "--around", around, "--before", "0.001", "--after", "0.3", "-o", part)
            self.assertTrue(0 < len(messages(part.read_bytes(), 5)) < 16)
            self.assertEqual(messages(part.read_bytes(), 5)[0][1] - messages(part.read_bytes(), 5)[0][0],
                             messages(warm, 5)[0][1] - messages(warm, 5)[0][0])

    def test_what_gives_away_a_place_is_left_out_and_the_rest_plays(self):
        path, public = self.folder / "tracked.mcap", self.folder / "public.mcap"
        path.write_bytes(self.tracked)
        self.assertIn(bytes(self.shared), self.tracked)
        self.tool("record", "anonymise", path, "-o", public)
        data = public.read_bytes()
        for secret in (bytes(self.shared), b"commit_det_id", b"x86_64", b"/config/ipu"):
            self.assertNotIn(secret, data)
        self.assert_same(data, 50)

    def test_other_options_change_what_they_change(self):
        path = self.folder / "plain.mcap"
        path.write_bytes(self.plain)
        scores = []
        for message in messages(self.plain, 5):
            with_boxes = self.tool("replay", path, "--export", "coco", "-o", "-") if not scores else None
            scores = scores or [box["score"] for box in json.loads(with_boxes.stdout)]
        lost = sum(score < 0.6 for score in scores)
        result = self.tool("replay", path, "--set", "threshold=0.6", "--changes", "changes.jsonl")
        changes = [json.loads(line) for line in (self.folder / "changes.jsonl").read_text().splitlines()]
        for change in changes:
            self.assert_fits_schema(change, "replay_change")
        self.assertEqual(sum(change["change"] == "lost" for change in changes), lost)
        self.assertIn(f": 0 boxes gained, {lost} lost, 0 moved; 0 tracks joined, 0 split\n", result.stdout)
        self.tool("replay", path, "--set", "threshold=0.2", code=2,
                  said=["--set threshold=0.2: ", "holds of frame 1 only what scores 0.25 or more"])
        self.assert_tracks_are_compared()
        result = self.tool("replay", path, "--set", "track=1,track-frames=2,stable=1,stable-sensitivity=0.2")
        self.assertRegex(result.stdout, r"frames changed: \d+ boxes gained, [1-9]\d* lost")

    def assert_tracks_are_compared(self):
        path, tracks = self.folder / "tracked.mcap", {}
        path.write_bytes(self.tracked)
        for run, options in enumerate(((), ("--set", "threshold=0.7"))):
            lines = self.tool("replay", path, *options, "--export", "jsonl", "-o", "-").stdout
            for frame in map(json.loads, lines.splitlines()):
                for box in frame["boxes"]:
                    place = (frame["frame"], *(box[name] for name in ("class_id", "x", "y", "width", "height")))
                    tracks.setdefault(place, [None, None])[run] = box["track_id"]
        pairs = {tuple(pair) for pair in tracks.values() if None not in pair}
        split = sum(sum(pair[0] == track for pair in pairs) > 1 for track in {pair[0] for pair in pairs})
        joined = sum(sum(pair[1] == track for pair in pairs) > 1 for track in {pair[1] for pair in pairs})
        self.assertGreater(min(split, joined), 0)
        result = self.tool("replay", path, *options, "--changes", "tracks.jsonl")
        self.assertIn(f" lost, 0 moved; {joined} tracks joined, {split} split\n", result.stdout)
        changes = list(map(json.loads, (self.folder / "tracks.jsonl").read_text().splitlines()))
        self.assertEqual(sum(change["change"] in ("joined", "split") for change in changes), joined + split)

    def test_frames_are_exported_as_run_writes_them(self):
        path = self.folder / "plain.mcap"
        path.write_bytes(self.plain)
        lines = self.tool("replay", path, "--export", "jsonl", "-o", "-", "--from", 2, "--to", 7).stdout
        frames = [json.loads(line) for line in lines.splitlines()]
        self.assertEqual([frame["frame"] for frame in frames], list(range(2, 8)))
        camera = (self.shared / "plain").read_text().splitlines()
        for frame in frames:
            self.assert_fits_schema(frame, "frame")
            boxes = "".join(f" {box['class_id']} {box['x']} {box['y']} {box['width']} {box['height']} "
                            f"{struct.unpack('<f', struct.pack('<f', box['score']))[0]:.9g};" for box in frame["boxes"])
            self.assertEqual(f"run 0:{boxes}", camera[frame["frame"] - 1])
        self.tool("replay", path, "--log", "library.log")
        log = (self.folder / "library.log").read_text()
        self.assertEqual((log.count("ALGO_DET_Run Done"), log.count("release version: ")), (20, 1))

    def test_refusals(self):
        (self.folder / "plain.mcap").write_bytes(self.plain)
        (self.folder / "empty.mcap").write_bytes(b"")
        (self.folder / "magic.mcap").write_bytes(MAGIC)
        other = self.plain.replace(b"olvex_recorder 1", b"olvex_recorder 2", 1)
        (self.folder / "newer.mcap").write_bytes(other)
        (self.folder / "foreign.mcap").write_bytes(self.plain.replace(b"olvex_recorder 1", b"some_program 0.1", 1))
        (self.folder / "start.mcap").write_bytes(self.plain[:chunks(self.plain)[0][1] - 1])
        (self.folder / "text.mp4").write_text("no video")
        self.assert_session_kept("replay_errors")


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
