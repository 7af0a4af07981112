#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the camera service over the scripted accelerator, each call of the platform failing in turn, and over the
host accelerator on the street's clip, recorded by each attachment; replays what was recorded."""
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

RECORDER, OLVEX_DET, MODELS = (os.environ[name] for name in ("RECORDER", "OLVEX_DET", "MODELS"))
WAYS = {way: os.environ[way] for way in ("PLAIN", "FRONT", "WRAP")}
FRAMES = 100  # of each scripted run
STRIDE = int(os.environ["OLVEX_CASE_STRIDE"])  # only every n-th call fails


class CameraServiceTest(unittest.TestCase):
    def setUp(self):
        holder = tempfile.TemporaryDirectory()
        self.addCleanup(holder.cleanup)
        self.folder = pathlib.Path(holder.name)
        for name in "ab":
            (self.folder / name).write_bytes(b"QTNX0123456789ab")

    def start(self, program, *arguments, preload=True, **settings):
        environment = {name: value for name, value in os.environ.items() if not name.startswith("OLVEX_RECORDER")}
        environment.update(OLVEX_RECORDER_FILE=str(self.folder / "out"), OLVEX_RECORDER_MODE="always",
                           OLVEX_RECORDER_FILES="1", **settings)
        if preload:
            environment["LD_PRELOAD"] = RECORDER
            environment["ASAN_OPTIONS"] = environment.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        return subprocess.Popen([program, *map(str, arguments)], env=environment, cwd=self.folder, encoding="utf-8",
                                stderr=subprocess.PIPE)

    def run_scripted(self, *faults, code=0):
        """Runs it, replays it, and returns what it logged and the lines of its boxes."""
        process = self.start(os.environ["SCRIPTED"], "a", "b", FRAMES, "made", "boxes",
                             SERVICE_FAULTS=" ".join(f"{call}:{result}" for call, result in faults))
        said = process.communicate()[1]
        self.assertEqual(process.returncode, code, (faults, said))
        if len(faults) < 3:  # otherwise it cannot be destroyed either
            self.assertNotIn("left over", said, faults)
        self.replay(said)
        return said, (self.folder / "boxes").read_text().splitlines()

    def replay(self, said):
        result = subprocess.run([OLVEX_DET, "replay", self.folder / "out.1.mcap"], capture_output=True, encoding="utf-8")
        self.assertEqual((result.returncode, result.stderr), (0, ""), (said, result.stdout))
        self.assertRegex(result.stdout, r"^[^\n]*: \d+ frames? and \d+ calls?: no difference[^\n]*\n$")

    def test_each_call_of_the_platform_fails(self):
        _, undisturbed = self.run_scripted()
        self.assertEqual(len(undisturbed), 4 * FRAMES)
        for call in range(1, FRAMES, STRIDE):
            with self.subTest(call):
                said, boxes = self.run_scripted((call, 77))
                self.assertIn(f"camera_service: {FRAMES} frames\n", said)
                self.assertEqual(boxes[-40:], undisturbed[-40:], said)
                self.assertGreater(len(boxes), 4 * FRAMES - 6, said)

    def test_what_goes_on_failing_is_given_up(self):
        said, boxes = self.run_scripted((30, 12), (31, 12))
        self.assertEqual(len(re.findall("is given up: its outputs cannot be decoded", said)), 1, said)
        self.assertTrue(2 * FRAMES <= len(boxes) < 3 * FRAMES)
        for first, last, code in ((3, 400, 77), (40, 400, 12), (40, 400, 77)):
            said, _ = self.run_scripted(*((call, code) for call in range(first, last)), code=1)
            self.assertIn("is given up", said)

    def test_a_model_is_exchanged_when_it_runs(self):
        (self.folder / "a.new").write_bytes(b"QTNX0123456789ab, newer")
        (self.folder / "b.new").write_bytes(b"half a model")
        said, boxes = self.run_scripted()
        self.assertIn("a is exchanged", said)
        self.assertIn("b.new does not run here, and is not taken", said)
        self.assertEqual((self.folder / "a").read_bytes(), b"QTNX0123456789ab, newer")
        self.assertEqual(sorted(path.name for path in self.folder.iterdir()), ["a", "b", "b.bad", "boxes", "out.1.mcap"])
        self.assertEqual(len(boxes), 4 * FRAMES)

    def test_it_stops_when_asked(self):
        for name in (signal.SIGTERM, signal.SIGINT):
            process = self.start(os.environ["SCRIPTED"], "a", "b")
            recording = self.folder / "out.1.mcap"
            while process.poll() is None and (not recording.exists() or recording.stat().st_size < 50000):
                time.sleep(0.01)
            process.send_signal(name)
            said = process.communicate()[1]
            self.assertEqual(process.returncode, 0, said)
            self.assertNotIn("left over", said)
            recording.unlink()
        self.assertEqual(subprocess.run([os.environ["SCRIPTED"], "a"], stderr=subprocess.DEVNULL).returncode, 2)

    @unittest.skipUnless(MODELS, "too slow under sanitizers")
    def test_the_street_is_recorded_by_each_attachment(self):
        import cv2
        frames, clip = 24, cv2.VideoCapture(os.environ["CLIP"])
        with open(self.folder / "pictures", "wb") as pictures:
            for _ in range(frames):
                planes = cv2.cvtColor(cv2.resize(clip.read()[1], (512, 288)), cv2.COLOR_BGR2YUV_I420)
                chroma = planes[288:].reshape(2, -1).transpose()
                pictures.write(planes[:288].tobytes() + chroma.tobytes())
        for kind in ("fp32", "int16"):
            shutil.copy(f"{MODELS}/street-{kind}.qtm", self.folder / kind)
        with open(self.folder / "pictures", "rb") as pictures:
            plain = subprocess.run([WAYS["PLAIN"], "fp32", "int16", "1000", "-", "none"], cwd=self.folder,
                                   stdin=pictures, capture_output=True, encoding="utf-8")
        self.assertIn(f"camera_service: {frames} frames\n", plain.stderr)
        boxes = (self.folder / "none").read_text()
        self.assertTrue(boxes.count(" fp32 ") > frames < boxes.count(" int16 "), boxes)
        for way, program in WAYS.items():
            process = self.start(program, "fp32", "int16", frames, "pictures", way, preload=way == "PLAIN")
            said = process.communicate()[1]
            self.assertEqual((self.folder / way).read_text(), boxes, said)
            self.replay(said)
            (self.folder / "out.1.mcap").unlink()


if __name__ == "__main__":
    unittest.main(verbosity=2)
