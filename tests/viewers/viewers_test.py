#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Reads recordings, and what olvex-det makes of them, with the reader library of stock viewers, in node and in a
browser. Ends with code 77, which ctest shows as skipped, where tests/viewers/install has not been run."""
import base64
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

VIEWERS, CAMERA, RECORDER, OLVEX_DET = (os.environ[name] for name in ("VIEWERS", "CAMERA", "RECORDER", "OLVEX_DET"))
BROWSER = shutil.which("chromium") or shutil.which("google-chrome")
FRAMES = 40


class ViewersTest(unittest.TestCase):
    def setUp(self):
        holder = tempfile.TemporaryDirectory()
        self.addCleanup(holder.cleanup)
        self.folder = pathlib.Path(holder.name)
        self.recording = self.record("camera.1.mcap")

    def record(self, name, **settings):
        settings = {"FILE": self.folder / name.removesuffix(".1.mcap"), "MODE": "always", "FILES": "1", "PICTURES": "9",
                    **settings}
        streams = [int(str(settings["FILE"])[3:])] if "fd:" in str(settings["FILE"]) else []
        environment = {**os.environ, "LD_PRELOAD": RECORDER,
                       **{f"OLVEX_RECORDER_{key}": str(value) for key, value in settings.items()}}
        subprocess.run([CAMERA, self.folder / "results", f"frames={FRAMES}", "handles=2"], env=environment, check=True,
                       stdout=subprocess.DEVNULL, pass_fds=streams)
        return self.folder / name

    def tool(self, *arguments):
        return subprocess.run([OLVEX_DET, *map(str, arguments)], check=True, capture_output=True, encoding="utf-8").stdout

    def read(self, *paths):
        result = subprocess.run(["node", f"{VIEWERS}/count_recording.mjs", *map(str, paths)], capture_output=True, encoding="utf-8")
        self.assertEqual(result.returncode, 0, result.stderr)
        return [json.loads(line) for line in result.stdout.splitlines()]

    def check(self, path, is_closed=True, has_index=True, annotated=True):
        """What the reader finds is what olvex-det says of the file; returns it."""
        found, = self.read(path)
        info = self.tool("record", "info", path)
        self.assertIn(f"frames    {found['frames']}, ", info)
        self.assertIn(f", with {found['boxes']} boxes\n", info)
        self.assertIn(f"pictures  {found['topics'].get('/olvex/picture', 0)}\n", info)
        self.assertGreater(found["boxes"], found["frames"] / 2)
        self.assertEqual(found["annotated"], found["boxes"] if annotated else 0)
        self.assertEqual((found["is_closed"], found["indexed"]), (is_closed, found["messages"] if has_index else None))
        return found

    def test_recordings_of_each_kind_are_read(self):
        self.assertEqual(self.check(self.recording)["frames"], 2 * FRAMES)
        with open(self.folder / "stream", "wb") as stream:
            self.record("stream", FILE=f"fd:{stream.fileno()}")
        self.assertEqual(self.check(self.folder / "stream", has_index=False)["frames"], 2 * FRAMES)
        cut, repaired = self.folder / "cut.mcap", self.folder / "repaired.mcap"
        cut.write_bytes(self.recording.read_bytes()[:self.recording.stat().st_size // 2])
        found = self.check(cut, is_closed=False, has_index=False)
        self.tool("record", "repair", cut, "-o", repaired)
        self.assertEqual(self.check(repaired)["frames"], found["frames"])
        self.tool("record", "cut", self.recording, "--from", 11, "--to", 30, "-o", cut)
        self.assertGreaterEqual(self.check(cut)["frames"], 20)
        self.tool("record", "anonymise", self.recording, "-o", self.folder / "public.mcap")
        self.assertEqual(self.check(self.folder / "public.mcap", annotated=False)["frames"], 2 * FRAMES)

    def test_what_is_exported_is_read(self):
        exported = self.folder / "exported.mcap"
        self.tool("replay", self.recording, "--export", "mcap", "-o", exported)
        frames = [json.loads(line) for line in self.tool("replay", self.recording, "--export", "jsonl", "-o", "-").splitlines()]
        found, = self.read(exported)
        self.assertEqual((found["annotated"], found["pictures"]), (sum(len(frame["boxes"]) for frame in frames), 8))
        self.assertEqual(sum(count for topic, count in found["topics"].items() if topic.endswith("/boxes")), len(frames))
        self.assertEqual(found["indexed"], found["messages"])

    def test_a_damaged_byte_is_noticed_by_the_reader(self):
        data = bytearray(self.recording.read_bytes())
        data[data.index(b"\7" * 1000) + 500] ^= 1  # within a picture
        self.recording.write_bytes(data)
        result = subprocess.run(["node", f"{VIEWERS}/count_recording.mjs", self.recording], capture_output=True)
        self.assertNotEqual(result.returncode, 0)

    @unittest.skipUnless(BROWSER, "no browser here: neither chromium nor google-chrome")
    def test_a_browser_counts_the_boxes(self):
        page = self.folder / "page.html"
        text = base64.b64encode(self.recording.read_bytes()).decode()
        script = pathlib.Path(VIEWERS, "page.js").read_text()
        page.write_text(f'<meta charset="utf-8"><pre id="recording">{text}</pre><pre id="result"></pre><script>{script}</script>')
        shown = subprocess.run([BROWSER, "--headless", "--no-sandbox", "--disable-gpu", f"--user-data-dir={self.folder}/profile",
                                "--virtual-time-budget=60000", "--dump-dom", page.as_uri()],
                               capture_output=True, encoding="utf-8", timeout=300)
        found, = self.read(self.recording)
        self.assertIn(f'<pre id="result">{json.dumps(found, separators=(",", ":"))}</pre>', shown.stdout, shown.stderr[-2000:])


if __name__ == "__main__":
    if not pathlib.Path(VIEWERS, "page.js").exists() or not shutil.which("node"):
        print(f"SKIPPED: viewers' reader is not here. Run tests/viewers/install {pathlib.Path(VIEWERS).parent}, which "
              "needs node and npm", file=sys.stderr)
        sys.exit(77)
    unittest.main(verbosity=2)
