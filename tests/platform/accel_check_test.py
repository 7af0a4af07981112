#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""accel-check over the scripted platform, sound and with one fault at a time, and over the host accelerator."""
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
CHECK = ROOT / "platform/check"
PROBE = os.environ["ACCEL_CHECK_PROBE"]
HOST = os.environ.get("ACCEL_CHECK_HOST")
EMULATOR = os.environ.get("EMULATOR", "").split()
SANITIZERS = os.environ["SANITIZERS"]
# The sanitizers leave signals to the program, and keep freed memory, so that growth says nothing.
SIGNALS = "handle_segv=0:handle_sigbus=0:handle_abort=0"
SANITIZER = {name: f"{os.environ.get(name, '')}:{SIGNALS}" for name in ("ASAN_OPTIONS", "TSAN_OPTIONS")}
CYCLES = 0 if SANITIZERS else 30

# Fault of the platform: (what is found, words of what was seen).
FAULTS = {
    "padded-rows": ("outputs are padded", "output 1: rows of 462 bytes are 512 bytes apart"),
    "padded-cells": ("outputs are padded", "output 1: cells of 22 bytes are 32 bytes apart"),
    "planes": ("channels are not innermost", "output 0: channels are 1512 bytes apart"),
    "zero-point": ("a zero point", "output 0 has a zero point of 1000"),
    "silent-zero-point": ("a zero point", "output 0: 0 comes out as 15.625"),
    "mixed-types": ("outputs of several element types", "output 1 of type 5"),
    "sigmoid": ("an activation of the platform's own", "as after a sigmoid"),
    "rectifier": ("an activation of the platform's own", "no value is negative"),
    "wrong-scale": ("a wrong scale", "output 0: values are 2 times the network's; fScalar is 0.03125"),
    "wraps": ("integers wrap around", "output 2: values beyond the ends of INT16"),
    "stray-dimension": ("the description contradicts itself", "output 0 has 4 dimensions, and 1 in the entry"),
    "exchanged-colours": ("colours are exchanged", "a frame that is red shows in the plane of blue"),
    "dense-frames": ("input rows are read at another pitch",
                     "rows of 42 bytes are read 42 bytes apart; they are 48 bytes apart"),
    "other-second-plane": ("U and V are read elsewhere", "not read 864 bytes after the first byte of Y"),
    "stale-input": ("a frame is not read again", "the same outputs"),
    "reads-beyond-frame": ("reads beyond the frame", "signal 11 ended the process in QV_IPU_Invoke"),
    "flush-discards": ("QV_SYS_FlushInvCache harms the frame", "other bytes after"),
    "incomplete": ("outputs are not complete", "100 of 21252 bytes"),
    "other-address": ("outputs are not where they were lent", "no byte"),
    "late": ("QV_IPU_Invoke returns before the end", "the invocation after"),
    "cached-output": ("outputs stay behind the CPU's cache", "old until QV_SYS_FlushInvCache"),
    "unaligned": ("a buffer that is not aligned", "no multiple of 2"),
    "mixed-channels": ("channels disturb each other", "the outputs of another channel"),
    "keeps-model": ("the model is used after QV_IPU_CreateCHN", "signal 11 ended the process in QV_IPU_Invoke"),
    "late-read": ("the model is used after QV_IPU_CreateCHN", "the read callback was called"),
    "other-context": ("the read callback gets another context", "reads come with another context than"),
    "reads-outside": ("reads outside the model", "1 bytes at offset 64"),
    "second-device": ("a second device is accepted", "returned 0 for a second one"),
    "small-code": ("a code of 1 to 13", "QV_IPU_CreateDevice returned 3"),
    "leaks": ("memory or descriptors grow", "30 channels, opened and closed, leave"),
    "crash-at-end": ("a teardown order fails", "signal 6 ended the process in QV_IPU_DestroyCHN"),
    "closes-twice": ("a teardown order fails", "1 calls on a closed channel succeed"),
}


class AccelCheckTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.image = self.folder / "probe.image"
        self.image.write_bytes(b"key:value\n" + b"QTNX".ljust(64, b"."))

    def check(self, program, *words, **settings):
        environment = {**os.environ, **SANITIZER, **{"OLVEX_PROBE_" + name: value for name, value in settings.items()}}
        return subprocess.run([*EMULATOR, program, *map(str, words)], env=environment, check=False, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def pack(self, image, *options):
        subprocess.run([os.environ["OLVEX_DET"], "pack", CHECK / "probe.onnx", "-o", image, "--raw", "full", "half",
                        "sixth", *options], check=True, stdout=subprocess.DEVNULL)

    def assert_proven(self, result, not_proven=0 if CYCLES else 1):
        self.assertEqual((0, f"0 findings, {not_proven} not proven"),
                         (result.returncode, result.stdout.rstrip().rpartition("proven, ")[2]),
                         result.stdout + result.stderr)

    def test_the_scripted_platform_supplies_everything(self):
        for output in ("FP32", "INT16"):
            for picture in ("NV12", "ARGB8888", "ABGR8888", "U8"):
                with self.subTest(output=output, picture=picture):
                    result = self.check(PROBE, "--cycles", CYCLES, self.image, OUTPUT=output, INPUT=picture)
                    self.assert_proven(result)
                    self.assertIn("\nproven      red, green and blue arrive as such\n", result.stdout)

    def test_each_fault_is_found_and_no_other(self):
        for fault, (name, seen) in FAULTS.items():
            if fault == "leaks" and not CYCLES:
                continue
            with self.subTest(fault=fault):
                result = self.check(PROBE, "--cycles", CYCLES, self.image, FAULT=fault)
                self.assertEqual(1, result.returncode, result.stdout + result.stderr)
                findings = re.findall(r"^FINDING     (.*)\n  seen      (.*)\n  library   .+\n  remedy    .+\n",
                                      result.stdout, re.MULTILINE)
                self.assertEqual({name}, {found for found, _ in findings}, result.stdout)
                self.assertTrue(any(seen in words for _, words in findings), result.stdout)

    def test_of_another_model_less_is_proven_and_said(self):
        result = self.check(PROBE, "--other-model", "--cycles", 0, self.image)
        self.assert_proven(result, 3)
        for words in ("values, layout, scale, zero point and activation: not the probe network",
                      "pitches and colours: not the probe network", "growth: no cycles"):
            self.assertIn(f"\nnot proven  {words}\n", result.stdout)

    def test_usage(self):
        empty = self.folder / "empty"
        empty.touch()
        rows = (((), "no image"), ((self.image, "more"), "more than one image: more"), (("--cycles",), "no value for"),
                (("--cycles", "1x"), "not 1x"), (("--cycles", "-1"), "not -1"), (("--sure",), "unknown option --sure"),
                ((self.folder / "none",), "none: No such file"), ((empty,), "empty: empty"),
                ((__file__[:-7] + "s.txt",), "No such file"), ((self.folder,), "no file"))
        for words, message in rows:
            result = self.check(PROBE, *words)
            self.assertEqual((2, ""), (result.returncode, result.stdout), words)
            self.assertIn(message, result.stderr)
        result = self.check(PROBE, "--help")
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        self.assertTrue(result.stdout.startswith("Usage: accel-check"))

    def test_the_page_has_each_fault(self):
        page = (ROOT / "docs/platform.md").read_text().replace("`", "")
        table = self.check(PROBE, "--faults").stdout
        rows = re.findall(r"(.+)\n  library   (.+)\n  remedy    (.+)\n", table)
        self.assertEqual(len(table.splitlines()), 3 * len(rows))
        for row in rows:
            self.assertIn(f"| {' | '.join(row)} |", page)

    @unittest.skipIf(SANITIZERS, "the platform needs the sanitizers' libraries")
    def test_the_line_of_the_page_builds_the_program(self):
        line = re.search(r"^\$CC (.*)$", (ROOT / "docs/platform.md").read_text(), re.MULTILINE)[0]
        libraries = pathlib.Path(os.environ["LIBRARIES"])
        line = line.replace("SDK/include", "platform/include").replace("SDK/lib -lIPU", f"{libraries} -lprobe_platform "
                                                                       f"-lqv_scripted -Wl,-rpath,{libraries}")
        subprocess.run(line.replace("-o accel-check", f"-o {self.folder}/accel-check -Wall -Wextra -Werror -pedantic"),
                       shell=True, cwd=ROOT, check=True)
        self.assert_proven(self.check(self.folder / "accel-check", "--cycles", 5, self.image))

    @unittest.skipUnless(HOST, "no host accelerator")
    def test_the_host_accelerator_supplies_everything(self):
        other = self.folder / "other.image"
        self.pack(other, "--mean", "9", "--scale", "1/2")
        for options in ((), ("--int16", "--raw-scale", "1/64,1/64,1/16"), ("--input-format", "argb8888"),
                        ("--input-format", "abgr8888"), ("--input-format", "rgb"), ("--input-format", "fp32")):
            with self.subTest(options=options):
                self.pack(self.image, "--mean", "0", "--scale", "1", *options)
                self.assert_proven(self.check(HOST, "--cycles", CYCLES, "--second", other, self.image))

    @unittest.skipUnless(HOST, "no packages for networks")
    def test_the_probe_is_what_its_script_writes(self):
        written = self.folder / "probe.onnx"
        subprocess.run([os.environ["SYSTEM_PYTHON"], "-B", CHECK / "probe_network.py", written], check=True)
        self.assertEqual((CHECK / "probe.onnx").read_bytes(), written.read_bytes())


if __name__ == "__main__":
    unittest.main()
