# SPDX-License-Identifier: Apache-2.0
"""run_inputs_test.py - olvex-det run over several inputs and parts of them, in one thread and in several, and
olvex-det merge.

See tool_test.py for the usage and run_test.py for the network.
"""
import functools
import http.server
import json
import pathlib
import shutil
import socket
import subprocess
import tempfile
import threading

import cv2
import numpy
from tool_test import STRIDE, TOOL, ToolTest, main, make_network, write_cells

WIDTH, HEIGHT = 72, 64
FRAMES = 120


def write_video(path, count=FRAMES):
    """Squares that move, frame by frame another picture."""
    writer = cv2.VideoWriter(str(path), cv2.CAP_FFMPEG, cv2.VideoWriter_fourcc(*"avc1"), 25, (WIDTH, HEIGHT))
    for number in range(count):
        picture = numpy.zeros((HEIGHT, WIDTH, 3), numpy.uint8)
        for square in range(4):
            left, top = (number * (square + 1)) % WIDTH // 8 * 8, (number // 9 + 2 * square) % 8 * 8
            picture[top:top + 8, left:left + 8] = numpy.roll((255, number, 40), square)
        writer.write(picture)
    writer.release()


def matroska_elements(data, start, end):
    """(id, start, end) of every element and of those in segments and clusters."""
    def number(place, marked):
        length = next(n for n in range(1, 9) if data[place] & (0x80 >> (n - 1)))
        value = int.from_bytes(data[place:place + length], "big")
        return place + length, value if marked else value & ((1 << 7 * length) - 1)
    while start < end:
        start, name = number(start, True)
        start, size = number(start, False)
        yield name, start, start + size
        if name in (0x18538067, 0x1f43b675):
            yield from matroska_elements(data, start, start + size)
        start += size


def slow_down(path):
    """Shows each frame of a Matroska file longer than the one before."""
    data, cluster = bytearray(path.read_bytes()), 0
    for name, start, end in matroska_elements(data, 0, len(data)):
        if name == 0xe7:
            cluster = int.from_bytes(data[start:end], "big")
        elif name == 0xa3:
            time = cluster + int.from_bytes(data[start + 1:start + 3], "big", signed=True)
            data[start + 1:start + 3] = (time + time * time // 8000 - cluster).to_bytes(2, "big", signed=True)
    path.write_bytes(data)


class RunInputsTest(ToolTest):
    @classmethod
    def setUpClass(cls):
        shared = tempfile.TemporaryDirectory()
        cls.addClassCleanup(shared.cleanup)
        cls.shared = pathlib.Path(shared.name)
        make_network(cls.shared / "network.onnx", "decoded", WIDTH, HEIGHT, 8)
        cls.model = cls.shared / "model.qtm"
        subprocess.run([TOOL, "pack", cls.shared / "network.onnx", "-o", cls.model, "--input-format", "rgb", "--scale",
                        "1/255", "--boxes", "boxes", "--scores", "scores"], check=True, capture_output=True)
        write_video(cls.shared / "steady.mp4")
        write_video(cls.shared / "steady.mkv")
        shutil.copy(cls.shared / "steady.mkv", cls.shared / "varying.mkv")
        slow_down(cls.shared / "varying.mkv")

    def setUp(self):
        super().setUp()
        for file in self.shared.glob("*.m*"):
            (self.folder / file.name).symlink_to(file)
        (self.folder / "model.qtm").symlink_to(self.model)

    def run_tool(self, *arguments, **options):
        return self.tool("run", self.model, *arguments, "--quiet", **options)

    def frames_of(self, *arguments, **options):
        """What JSON Lines say of each frame but the times it took."""
        frames = [json.loads(line) for line in self.run_tool(*arguments, "--jsonl", "-", **options).stdout.splitlines()]
        return [{**frame, "milliseconds": None} for frame in frames]

    def make_videos(self):
        (self.folder / "videos").mkdir()
        for name in ("a2.mp4", "a10.mp4", "b.mkv"):
            shutil.copy(self.folder / f"steady{name[-4:]}", self.folder / "videos" / name)

    def test_several_inputs_are_read_in_turn(self):
        self.make_videos()
        pictures = self.folder / "pictures"
        pictures.mkdir()
        for number in (1, 2, 10):
            write_cells(pictures / f"{number}.ppm", WIDTH, HEIGHT, {(number % 9, 2): (250, 0, 0)})
        frames = self.frames_of("videos", "videos/a?.mp4", "pictures/*.ppm", "--track")
        self.assertEqual([name for name in dict.fromkeys(frame["source"] for frame in frames)],
                         ["videos/a2.mp4", "videos/a10.mp4", "videos/b.mkv", *(f"pictures/{n}.ppm" for n in (1, 2, 10))])
        self.assertEqual([frame["frame"] for frame in frames[-4:]], [FRAMES, 1, 2, 3])
        ids = [{box["track_id"] for frame in frames[n * FRAMES:(n + 1) * FRAMES] for box in frame["boxes"]} for n in range(4)]
        self.assertTrue(all(max(a) < min(b) for a, b in zip(ids, ids[1:])), "ids are given once")
        self.run_tool("videos", "--track", "--mot", "{name}.txt", "--summary-json", "summary", "--limit", 2 * FRAMES + 5)
        self.run_tool("videos/a10.mp4", "--track", "--mot", "alone.txt")
        self.assertEqual((self.folder / "a10.txt").read_text(), (self.folder / "alone.txt").read_text())
        summary = json.loads((self.folder / "summary").read_text())
        self.assert_fits_schema(summary, "summary")
        tracks = sum(len({row.split(",")[1] for row in (self.folder / f"{name}.txt").read_text().splitlines()})
                     for name in ("a2", "a10", "b"))
        self.assertEqual((summary["frames"], summary["input"], summary["tracks"]), (2 * FRAMES + 5, "videos", tracks))
        (self.folder / "videos/picture.ppm").symlink_to(pictures / "1.ppm")
        self.assertIn("left out 3 videos", self.tool("run", self.model, "videos").stderr)
        (self.folder / "videos/picture.ppm").unlink()
        # What is finished stays when the next input's output cannot be written.
        (self.folder / "b.json").mkdir()
        self.run_tool("videos", "--coco", "{name}.json", code=4, said=["b.json: cannot be written"])
        self.assertGreater(len(json.loads((self.folder / "a10.json").read_text())), FRAMES)
        self.transcript = ""
        self.assert_session_kept("run_inputs")

    def test_streams(self):
        whole = self.frames_of("steady.mkv")
        with open(self.folder / "steady.mkv", "rb") as video:
            piped = subprocess.Popen(["cat"], stdin=video, stdout=subprocess.PIPE)
            frames = self.frames_of("-", stdin=piped.stdout)
            piped.wait()
            piped.stdout.close()
        self.assertEqual(frames, [{**frame, "source": "standard input"} for frame in whole])
        quiet = type("Quiet", (http.server.SimpleHTTPRequestHandler,), {"log_message": lambda *_: None})
        with http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(quiet, directory=self.folder)) as server:
            threading.Thread(target=server.serve_forever, daemon=True).start()
            address = f"http://127.0.0.1:{server.server_port}/steady.mkv"
            self.assertEqual(self.frames_of(address), [{**frame, "source": address} for frame in whole])
            self.run_tool(address + "s", code=4, said=["steady.mkvs: no video can be had from there"])
            server.shutdown()
        with socket.create_server(("127.0.0.1", 0)) as silent:
            for scheme in ("http", "rtsp"):
                address = f"{scheme}://127.0.0.1:{silent.getsockname()[1]}/x"
                self.run_tool(address, "--timeout", 1, code=4, said=[f"{address}: no answer within 1 second"])

    def test_parts_are_the_frames_that_counting_gives(self):
        self.run_tool("varying.mkv", "--threshold", 1, "--video", "varying.mp4")
        for video in ("steady.mp4", "steady.mkv", "varying.mkv", "varying.mp4")[::STRIDE]:
            self.run_tool(video, "--threshold", 1, "--pictures", "whole")
            whole = self.frames_of(video)
            for start in (2, 101, FRAMES):
                time = f"{whole[start - 1]['pts'] / 1e6 - 0.001:.3f}s"
                for option in (("--start", start), ("--skip", start - 1), ("--start", time)):
                    self.assertEqual(self.frames_of(video, *option), whole[start - 1:], (video, option))
                self.run_tool(video, "--start", start, "--threshold", 1, "--pictures", "part")
                for picture in (self.folder / "part").iterdir():
                    self.assertEqual(picture.read_bytes(), (self.folder / "whole" / picture.name).read_bytes(), (video, start))
                shutil.rmtree(self.folder / "part")
            self.assertEqual(self.frames_of(video, "--start", 2, "--every", 7), whole[1::7])
            self.assertEqual(self.frames_of(video, "--every", 50, "--limit", 2), whole[:100:50])
            since = whole[99]["pts"]
            self.assertEqual(self.frames_of(video, "--start", 100, "--duration", "1.2s"),
                             [frame for frame in whole[99:] if frame["pts"] - since < 1200000])
            some = self.frames_of(video, "--classes", "2,0")
            self.assertEqual([[box for box in frame["boxes"] if box["class_id"] != 1] for frame in whole],
                             [frame["boxes"] for frame in some])
        for number in range(1, 8):
            write_cells(self.folder / f"{number}.ppm", WIDTH, HEIGHT, {})
        self.assertEqual([frame["frame"] for frame in self.frames_of("?.ppm", "--start", "0:00.08", "--every", 2)], [3, 5, 7])

    def test_annotated_video_keeps_the_times_of_its_frames(self):
        times = [frame["pts"] for frame in self.frames_of("varying.mkv", "--video", "kept.mp4", "--start", 20)]
        self.assertGreater(times[-1] - times[-2], 1.2 * (times[1] - times[0]))
        self.assertEqual([frame["pts"] for frame in self.frames_of("kept.mp4")], [time - times[0] for time in times])
        said = self.tool("run", self.model, "varying.mkv", "--video", "lost.mkv").stderr
        self.assertIn("varying rate", said)
        cut = self.folder / "cut.mkv"
        cut.write_bytes((self.folder / "varying.mkv").read_bytes()[:-3000])
        self.run_tool("cut.mkv", "--jsonl", "lines", "--video", "cut.mp4", code=4, said=["cut.mkv: ended after", "cut"])
        self.assertEqual(len(self.frames_of("cut.mp4")), len((self.folder / "lines").read_text().splitlines()))

    def test_shards_make_the_whole_again(self):
        self.make_videos()
        outputs = {"mot": "txt", "coco": "json"}
        for options in ((), ("--start", 8, "--every", 3, "--limit", 40)):
            whole = [argument for name in outputs for argument in (f"--{name}", name)]
            self.run_tool("steady.mkv", *options, *whole)
            for shard in range(1, 5):
                part = [argument for name in outputs for argument in (f"--{name}", f"{name}{shard}")]
                self.run_tool("steady.mkv", *options, *part, "--shard", f"{shard}/4")
            for name in outputs:
                self.tool("merge", *(f"{name}{shard}" for shard in range(1, 5)), "-o", "merged")
                self.assertEqual((self.folder / "merged").read_text(), (self.folder / name).read_text(), name)
        for shard in (1, 2):
            self.run_tool("videos", "--shard", f"{shard}/2", "--jsonl", f"{shard}.jsonl")
        merged = self.tool("merge", "1.jsonl", "2.jsonl", "-o", "-").stdout
        self.assertEqual([{**json.loads(line), "milliseconds": None} for line in merged.splitlines()], self.frames_of("videos"))
        self.transcript = ""
        self.assert_session_kept("merge")

    def assert_same_with_jobs(self, *arguments, code=0):
        """Exit code, messages and files are those of one thread."""
        seen = []
        for jobs in (1, 2, 5):
            out = self.folder / "out"
            out.mkdir()
            self.run_tool(*arguments, "--jsonl", "out/lines", "--mot", "out/mot", "--coco", "out/coco", "--video",
                          "out/video.mkv", "--pictures", "out/shown", "--jobs", jobs, code=code)
            files = {path.relative_to(out): path.read_bytes() for path in out.rglob("*.*") if path.suffix != ".mkv"}
            files["lines"] = [{**json.loads(line), "milliseconds": None} for line in (out / "lines").read_text().splitlines()]
            files.update((name, (out / name).read_bytes()) for name in ("mot", "coco"))
            video = cv2.VideoCapture(str(out / "video.mkv"))
            files["video"] = int(video.get(cv2.CAP_PROP_FRAME_COUNT))
            said = self.transcript.splitlines()[1:]
            self.transcript = ""
            shutil.rmtree(out)
            seen.append((said, files))
        self.assertTrue(seen[0] == seen[1] == seen[2], arguments)
        return seen[0]

    def test_threads_change_nothing(self):
        pictures = self.folder / "pictures"
        pictures.mkdir()
        for number in range(1, 32):
            write_cells(pictures / f"{number}.ppm", WIDTH * (1 + number // 28), HEIGHT, {(number % 9, number % 8): (250, 90, 0)})
        for options in ((), ("--track", "--stable"), ("--strict",)):
            self.assert_same_with_jobs("steady.mp4", "--limit", 40, *options)
            self.assert_same_with_jobs("pictures", *options)
        (pictures / "25.ppm").write_text("no picture")
        for options in ((), ("--track",)):
            said, files = self.assert_same_with_jobs("pictures", *options, code=4)
            self.assertEqual((len(files["lines"]), len(said)), (24, 2))
            self.assertIn("25.ppm: cannot be read as a picture", said[0])
        trace = self.folder / "trace"
        for jobs in (1, 4):
            self.run_tool("steady.mp4", "--limit", 9, "--trace", "trace", "--jobs", jobs)
            events = [event for event in json.loads(trace.read_text()) if event["ph"] == "X"]
            for frame in range(1, 10):
                spans = [event for event in events if event["args"]["frame"] == frame]
                self.assertEqual([span["name"] for span in spans], ["decode", "conversion", "network", "output"])
                for before, after in zip(spans, spans[1:]):
                    self.assertLessEqual(before["ts"] + before["dur"], after["ts"] + 0.002)
        self.run_tool("steady.mp4", "--jsonl", "/dev/full", code=4, said=["/dev/full: cannot be written"])


if __name__ == "__main__":
    main()
