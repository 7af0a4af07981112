# SPDX-License-Identifier: Apache-2.0
"""platform_test.py - run, inspect and doctor over another platform's library: the scripted one with the probe network
of accel-check. See tool_test.py for the usage."""
import json
import os
import pathlib
import shutil

from tool_test import ToolTest, main, write_cells

PLATFORM = pathlib.Path(os.environ["OLVEX_TEST_PLATFORM"])
PROBE = pathlib.Path(__file__).resolve().parents[2] / "platform/check/probe.onnx"
CELLS = {(0, 0): (255, 0, 0), (2, 1): (0, 200, 90), (3, 0): (40, 40, 255)}
os.environ.update(OLVEX_PROBE_INPUT="ARGB8888", OLVEX_PROBE_OUTPUT="FP32")


class PlatformTest(ToolTest):
    def setUp(self):
        super().setUp()
        (self.folder / "probe.img").write_bytes(b"QTNX".ljust(64, b"."))
        write_cells(self.folder / "picture.ppm", 40, 16, CELLS)

    def boxes(self, image, *options):
        lines = self.tool("run", image, "picture.ppm", "--quiet", "--jsonl", "-", *options).stdout.splitlines()
        frames = [json.loads(line) for line in lines]
        self.assertTrue(all(frame["milliseconds"]["network"] > 0 for frame in frames))
        return [frame["boxes"] for frame in frames]

    def test_one_network_has_the_same_boxes_on_two_platforms(self):
        self.tool("pack", PROBE, "-o", "host.qtm", "--raw", "full", "half", "sixth", "--mean", "0", "--scale", "1",
                  "--input-format", "argb8888")
        on_host = self.boxes("host.qtm", "--threshold", "0.2")
        self.assertGreater(len(on_host[0]), 50)
        for options in ((), ("--memory",), ("--firmware", "any")):
            self.assertEqual(on_host, self.boxes("probe.img", "--threshold", "0.2", "--platform", PLATFORM, *options))
        # An image of the host accelerator is opaque, too, as soon as its library is named.
        host = PLATFORM.with_name("libqv_host.so")
        self.assertEqual(on_host, self.boxes("host.qtm", "--threshold", "0.2", "--platform", host))

    def test_what_the_image_does_not_tell_is_said(self):
        (self.folder / "lib").mkdir()
        for library in (PLATFORM, PLATFORM.with_name("libqv_scripted.so")):
            shutil.copy(library, self.folder / "lib")
        foreign = bytearray(PLATFORM.read_bytes())
        foreign[18:20] = b"\x16\x00"  # a processor of another kind
        (self.folder / "lib/foreign.so").write_bytes(foreign)
        (self.folder / "headless.img").write_bytes(b"key:value\n")
        self.assert_session_kept("opaque_images")

    def test_the_json_fits_its_schema(self):
        report = json.loads(self.tool("inspect", "probe.img", "--json", "--platform", PLATFORM).stdout)
        self.assert_fits_schema(report, "inspect")
        self.assertEqual((None, str(PLATFORM), 64), (report["description"], report["platform"], report["bytes"]))
        self.tool("doctor", "probe.img", "--json", "doctor.json", "--platform", PLATFORM)
        self.assert_fits_schema(json.loads((self.folder / "doctor.json").read_text()), "doctor")

    def test_libraries_that_are_no_platform_are_refused(self):
        own = PLATFORM.parent
        for library, said in ((own / "libqv_replay.so", "libqv_replay.so: it is a part of this program"),
                              (own / "libolvex_picture_codec.so", "it has no QV_IPU_CreateDevice")):
            self.tool("inspect", "probe.img", "--platform", library, code=5, said=[said])

    def test_a_run_does_not_overwrite_its_platform(self):
        copy = shutil.copy(PLATFORM, self.folder / "platform.so")
        self.tool("run", "probe.img", "picture.ppm", "--jsonl", copy, "--platform", copy, code=2)
        self.assertEqual(PLATFORM.read_bytes(), pathlib.Path(copy).read_bytes())


if __name__ == "__main__":
    main()
