# SPDX-License-Identifier: Apache-2.0
"""run_sweep_test.py - olvex-det run under signals, full disks and file-size limits at each of its
calls that write, and under kills: what stands on the disk afterwards.

See tool_test.py for the usage and tests/support/sweep_preload.c, named by OLVEX_SWEEP_PRELOAD, for
what fails. OLVEX_CASE_STRIDE=5 fails every fifth call only.
"""
import itertools
import json
import os
import pathlib
import random
import resource
import shutil
import signal
import struct
import subprocess
import tempfile
import time

from tool_test import STRIDE, TOOL, ToolTest, main, make_network

FRAMES = 3
OLD = "of an earlier run\n"
OUTPUTS = ("--jsonl", "lines", "--mot", "mot", "--coco", "coco", "--summary-json", "summary",
           "--contact-sheet", "sheet.png", "--contact-frames", "1", "--pictures", "shown")


def write_noise(path, seed):
    path.write_bytes(b"P6 72 64 255\n" + random.Random(seed).randbytes(72 * 64 * 3))


class RunSweepTest(ToolTest):
    @classmethod
    def setUpClass(cls):
        shared = tempfile.TemporaryDirectory()
        cls.addClassCleanup(shared.cleanup)
        cls.shared = pathlib.Path(shared.name).resolve()
        cls.model = cls.shared / "model.qtm"
        make_network(cls.shared / "network.onnx", "decoded", 72, 64, 8)
        subprocess.run([TOOL, "pack", cls.shared / "network.onnx", "-o", cls.model, "--input-format",
                        "rgb", "--scale", "1/255", "--boxes", "boxes", "--scores", "scores"],
                       check=True, capture_output=True)
        cls.pictures = cls.shared / "pictures"
        cls.pictures.mkdir()
        for number in range(1, FRAMES + 1):
            write_noise(cls.pictures / f"{number}.ppm", number)

    def setUp(self):
        super().setUp()
        self.out = self.folder.resolve() / "out"

    def run_with(self, *outputs, pictures=None, **options):
        self.out.mkdir(exist_ok=True)
        return subprocess.run([TOOL, "run", self.model, pictures or self.pictures, "--quiet", *outputs],
                              cwd=self.out, capture_output=True, encoding="utf-8", timeout=120, **options)

    def fail_at(self, action, turn):
        """Runs once; returns the result, or None when the run was over before that turn."""
        for path in self.folder.glob("out/**/*.*"):
            path.unlink()
        self.out.mkdir(exist_ok=True)
        for name in ("lines", "mot", "coco", "summary", "sheet.png"):
            (self.out / name).write_text(OLD)
        mark = self.folder / "mark"
        mark.unlink(missing_ok=True)
        video = f"video.{('mkv', 'mp4', 'avi')[turn % 3]}"
        result = self.run_with(*OUTPUTS, "--video", video, env=self.preloaded(
            action if action == "full" else str(int(action)), turn, mark))
        return result if mark.exists() else None

    def preloaded(self, action, turn=0, mark=""):
        return {**os.environ, "LD_PRELOAD": os.environ["OLVEX_SWEEP_PRELOAD"], "SWEEP_AT": str(turn),
                "ASAN_OPTIONS": "verify_asan_link_order=0:detect_leaks=0", "SWEEP_MARK": str(mark),
                "SWEEP_ACTION": action, "SWEEP_FOLDER": str(self.out)}

    def frames_in(self, name, whole):
        """How many frames an output holds, None when it is an earlier one; fails when it is cut."""
        text = (self.out / name).read_text()
        if text == OLD:
            return None
        if name == "summary":
            return json.loads(text)["frames"]
        if name == "lines":
            self.assertEqual(text[-1:], "\n" if text else "")
            return len([json.loads(line) for line in text.splitlines()])
        found = json.loads(text) if name == "coco" else text.splitlines()
        self.assertIn(found, whole[name])
        return whole[name].index(found)

    def whole_outputs(self):
        """For mot and coco: what they hold after each number of frames."""
        self.assertEqual(self.run_with("--mot", "mot", "--coco", "coco").returncode, 0)
        rows = (self.out / "mot").read_text().splitlines()
        items = json.loads((self.out / "coco").read_text())
        return {"mot": [[row for row in rows if int(row.split(",")[0]) <= frames]
                        for frames in range(FRAMES + 1)],
                "coco": [[item for item in items if item["image_id"] <= frames]
                         for frames in range(FRAMES + 1)]}

    def assert_whole_or_named(self, result, action, whole):
        killed = action in (signal.SIGKILL, signal.SIGQUIT)
        frames = {name: self.frames_in(name, whole) for name in ("lines", "mot", "coco", "summary")}
        if result.returncode in (0, 130):
            self.assertEqual(len(set(frames.values())), 1, frames)
        for path in (self.out / "sheet.png", *(self.out / "shown").glob("*.png")):
            data = path.read_bytes()
            self.assertTrue(data == OLD.encode() or data.endswith(b"IEND\xaeB`\x82"), path)
        partial = list(self.out.glob("**/*.partial.*"))
        self.assertTrue(action == signal.SIGKILL or not partial, partial)
        for video in self.out.glob("video.*"):
            if result.returncode == 130 or (not killed and video.name not in result.stderr):
                self.assertEqual(self.tool("run", self.model, video, "--quiet").returncode, 0)

    def test_every_failure_leaves_whole_outputs_or_names_them(self):
        whole = self.whole_outputs()
        interrupted = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
        for action, code, step in (("full", 4, 1), (signal.SIGKILL, -9, 2),
                                   (signal.SIGQUIT, -3, 9), (signal.SIGXFSZ, 4, 4),
                                   *((number, 130, 9) for number in interrupted)):
            for turn in itertools.count(1, step * STRIDE):
                result = self.fail_at(action, turn)
                if result is None:
                    self.assertGreater(turn, 20)
                    break
                with self.subTest(action=action, turn=turn):
                    # The coder's own failed close or single write may lose nothing.
                    codes = (code, 0) if code == 4 else (code,)
                    self.assertIn(result.returncode, codes, result.stderr)
                    self.assert_whole_or_named(result, action, whole)
                    if result.returncode == 0:
                        self.assertEqual(self.frames_in("lines", whole), FRAMES)

    def write_pictures(self, folder, count):
        folder.mkdir()
        for number in range(1, count + 1):
            if number <= 60:
                write_noise(folder / f"{number}.ppm", number)
            else:
                os.link(folder / f"{number - 60}.ppm", folder / f"{number}.ppm")

    def start_long_run(self, *outputs, before=None):
        """A run that has written 400 frames and has more to come."""
        pictures = self.folder / "many"
        if not pictures.exists():
            self.write_pictures(pictures, 20000)
        self.out.mkdir(exist_ok=True)
        lines = self.out / "lines"
        lines.unlink(missing_ok=True)
        process = subprocess.Popen([TOOL, "run", self.model, pictures, "--jsonl", "lines", *outputs],
                                   cwd=self.out, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                   encoding="utf-8", preexec_fn=before)
        while process.poll() is None and (not lines.exists() or lines.stat().st_size < 4000000):
            time.sleep(0.01)
        return process

    def test_a_reader_that_ends_first_on_ctrl_c_is_no_failure(self):
        pictures = self.folder / "many"
        self.write_pictures(pictures, 20000)
        process = subprocess.Popen([TOOL, "run", self.model, pictures, "--jsonl", "-", "--quiet"],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        process.stdout.readline()
        time.sleep(1)  # the pipe is full, and the next line waits
        process.send_signal(signal.SIGINT)
        process.stdout.close()
        self.assertEqual((process.wait(60), process.stderr.read()), (130, b""))
        process.stderr.close()

    def test_what_a_kill_leaves(self):
        for name, playable in (("a.mkv", True), ("b.avi", True), ("c.mp4", False), ("d.mov", False)):
            with self.subTest(name):
                process = self.start_long_run("--video", name, "--coco", "coco")
                while process.poll() is None and (self.out / name).stat().st_size == 0:
                    time.sleep(0.01)  # the coder keeps the first 256 KiB
                process.kill()
                said = process.communicate()[1]
                self.assertEqual(playable, ".mkv to keep" not in said)
                lines = (self.out / "lines").read_text().splitlines(keepends=True)
                self.assertGreater(len([json.loads(line) for line in lines[:-1]]), 300)
                self.assertFalse((self.out / "coco").exists())
                (partial,) = self.out.glob("coco.partial.*")
                partial.unlink()
                self.tool("run", self.model, self.out / name, "--quiet", "--summary-json", "read",
                          code=0 if playable else 4)
                if playable:
                    read = json.loads((self.folder / "read").read_text())
                    self.assertGreater(read["frames"], 100)

    def test_hang_ups(self):
        process = self.start_long_run(
            before=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
        process.send_signal(signal.SIGHUP)
        time.sleep(0.2)
        self.assertIsNone(process.poll())
        process.send_signal(signal.SIGTERM)
        process.communicate()
        self.assertEqual(process.returncode, 130)
        process = self.start_long_run("--coco", "coco")
        for _ in range(3):  # by the terminal, by the shell, by the end of the login
            process.send_signal(signal.SIGHUP)
        process.communicate()
        self.assertEqual(process.returncode, 130)
        json.loads((self.out / "coco").read_text())

    def test_a_file_takes_one_run_and_signals_end_a_wait_for_its_reader(self):
        process = self.start_long_run()
        self.assertIn("another program", self.run_with("--jsonl", "lines").stderr)
        process.kill()
        process.communicate()
        os.mkfifo(self.folder / "pipe")
        process = subprocess.Popen([TOOL, "run", self.model, self.pictures, "--mot", "pipe"],
                                   cwd=self.folder, stderr=subprocess.PIPE)
        status = pathlib.Path(f"/proc/{process.pid}/status")
        while not int(status.read_text().split("SigCgt:")[1].split()[0], 16) & 1:
            time.sleep(0.01)  # SIGHUP would still end it at once
        while process.poll() is None:  # the first may come before it waits, and is remembered
            process.send_signal(signal.SIGHUP)
            time.sleep(0.5)
        process.communicate()
        self.assertEqual(process.returncode, 130)

    def test_file_size_limits_spare_other_outputs(self):
        result = self.run_with("--jsonl", "lines", "--mot", "mot", preexec_fn=lambda: (
            resource.setrlimit(resource.RLIMIT_FSIZE, (10000, 10000))))
        self.assertEqual(result.returncode, 4)
        self.assertIn("lines: cannot be written: File too large", result.stderr)
        self.assertEqual((self.out / "lines").read_text()[-1:], "\n")
        self.assertTrue((self.out / "mot").read_text().startswith("1,"))

    def test_failed_runs_touch_nothing(self):
        self.out.mkdir()
        names = ("lines", "mot", "coco", "summary", "sheet.png", "video.mkv")
        for name in names:
            (self.out / name).write_text(OLD)
        broken = self.folder / "1.png"
        broken.write_text("no picture")
        for pictures in (broken, self.folder / "nothing.mp4"):
            result = self.run_with(*OUTPUTS, "--video", "video.mkv", pictures=pictures)
            self.assertEqual(result.returncode, 4)
            self.assertEqual([(self.out / name).read_text() for name in names], [OLD] * len(names))

    def test_links_modes_and_closed_folders(self):
        self.out.mkdir()
        (self.out / "real").write_text(OLD)
        (self.out / "real").chmod(0o640)
        (self.out / "link").symlink_to("real")
        self.assertEqual(self.run_with("--coco", "link").returncode, 0)
        self.assertTrue((self.out / "link").is_symlink())
        self.assertTrue(json.loads((self.out / "real").read_text()))
        self.assertEqual((self.out / "real").stat().st_mode & 0o777, 0o640)
        found = (self.out / "real").read_text()
        self.assertEqual(self.run_with("--coco", "link", env=self.preloaded("stranger")).returncode, 0)
        self.assertEqual((self.out / "real").stat().st_mode & 0o777, 0o600)
        (self.out / "real").write_text(OLD * 1000)
        self.assertEqual(self.run_with("--coco", "link", env=self.preloaded("busy")).returncode, 0)
        self.assertEqual((self.out / "real").read_text(), found)
        self.assertFalse(list(self.out.glob("*.partial.*")))

    def test_cut_inputs(self):
        self.run_with("--video", "whole.avi", "--pictures", "jpegs", "--picture-format", "jpg")
        jpeg = self.out / "jpegs" / "frame_000003.jpg"
        data = jpeg.read_bytes()
        # A thumbnail's end marker counts no more than what stands behind the picture's.
        thumbnail = b"\xff\xe1\x00\x08\xff\xd8\xff\xd9\x00\x00"
        jpeg.write_bytes(data[:2] + thumbnail + data[2:] + b"maker's data")
        self.assertEqual(self.run_with(pictures=jpeg.parent).returncode, 0)
        jpeg.write_bytes(data[:2] + thumbnail + data[2:-100])
        for input_path, expected in ((jpeg.parent, FRAMES), (self.cut_video(), 50)):
            result = self.run_with("--summary-json", "summary", "--coco", "coco", "--jsonl", "lines",
                                   pictures=input_path)
            self.assertEqual(result.returncode, 4)
            self.assertIn("cut", result.stderr)
            summary = json.loads((self.out / "summary").read_text())
            self.assert_fits_schema(summary, "summary")
            self.assertEqual(summary["expected_frames"], expected)
            self.assertTrue(0 < summary["frames"] < expected)
            self.assertEqual(len((self.out / "lines").read_text().splitlines()), summary["frames"])
            self.assertEqual(len(json.loads((self.out / "coco").read_text())), summary["boxes"])
        self.assertIn("expected  50 frames", self.tool(
            "run", self.model, input_path, code=4, said=["damaged or cut"]).stdout)
        # A whole file may count frames that it does not show: an AVI of 50 that says 60, and an MP4 of
        # which an edit list shows the first 40 milliseconds. Whole are files whose parts end where they do.
        one_edit = b"elst" + (1).to_bytes(8, "big")
        longer = (self.out / "longer.avi").read_bytes().replace((50).to_bytes(4, "little"),
                                                                (60).to_bytes(4, "little"))
        edited = (self.out / "edited.mp4").read_bytes().replace(one_edit + (2000).to_bytes(4, "big"),
                                                                one_edit + (40).to_bytes(4, "big"))
        large_box = (1).to_bytes(4, "big") + b"free" + (16).to_bytes(8, "big")
        longest = (self.out / "longest.mkv").read_bytes()
        seconds = longest.index(b"\x44\x89\x88") + 3  # the double behind it is the duration
        longest = longest[:seconds] + struct.pack(">d", 1.2 * struct.unpack_from(">d", longest, seconds)[0]) + longest[seconds + 8:]
        for number, (data, whole) in enumerate((
                (longer, True), (longer + b"JUNK" + bytes(4), False), (longer[:-1], False), (edited, True),
                (longer + b"RIFF\x03\0\0\0" + bytes(4), True), (longer + b"RIFF\x04\0\0\0" + bytes(4), True), (longer + b"RIFF\x03\0\0\0" + bytes(3), False),
                (edited.replace(b"ftyp", b"wide", 1), True), (edited.replace(b"ftyp", b"skip", 1), True), (edited + large_box, True),
                (edited + large_box[:-1] + b"\x0f", False), (edited + bytes(4) + b"free", False), (edited + b"\0\0\0\x08none", True),
                (edited + b"\0\0\0\x07none", False), (edited + b"\0\0\0\x09none", False), (edited + b"\0\0\1\x08none" + bytes(256), True),
                (longest, True), *((longest + more, whole) for more, whole in (
                    (b"\xec\x81\0", True), (b"\xec\x81", False), (b"\xec\x81\0\0", False), (b"\x40\xec\x40\1\0", True), (b"\x10\0\0\xec\x80", True),
                    (b"\x08\0\0\0\xec\x80", False), (b"\xec\x01" + bytes(6) + b"\2\0\0", True), (b"\xec\0" + bytes(8), False), (b"\xec\xff", False))))):
            video = self.out / f"{number}.video"
            video.write_bytes(data)
            self.tool("run", self.model, video, code=0 if whole else 4, said=[
                ("; the file is whole" if whole else "damaged or cut")])

    def cut_video(self):
        pictures = self.folder / "fifty"
        self.write_pictures(pictures, 50)
        self.run_with("--video", "edited.mp4", pictures=pictures)
        self.run_with("--video", "longest.mkv", pictures=pictures)
        self.run_with("--video", "cut.avi", pictures=pictures)
        video = self.out / "cut.avi"
        shutil.copy(video, self.out / "longer.avi")
        video.write_bytes(video.read_bytes()[:video.stat().st_size * 2 // 3])
        return video

    def test_endless_logs_and_full_screens(self):
        (self.folder / "1.png").write_text("no picture")
        self.tool("run", self.model, self.folder / "1.png", "--log", "/dev/zero", code=4)
        for words in ("--help", "--version", "run --help", "eval coco --help"):
            with open("/dev/full", "w") as full:
                self.tool(*words.split(), stdout=full, code=4, said=["standard output"])


if __name__ == "__main__":
    main()
