# SPDX-License-Identifier: Apache-2.0
"""doctor_test.py - each fault that doctor names is found in an image that has it, and nothing in a sound one.

The images are those of the street network, with a fault in the network or in the description.
"""
import json
import re
import shutil
import struct
import subprocess
import sys
import zlib

import cv2

import tool_test
from tool_test import STRIDE, TOOL, ToolTest, main

STREET = tool_test.DATA.parents[2] / "models/street"
PACK = ("--network-order", "bgr", "--scale", "1/255", "--class-names", str(STREET / "classes.txt"),
        "--model-out", "zrpcnh", "--lib-out", "zrpcn")
RAW = ("--raw", "stride8", "stride16", "stride32")
DECODED = ("--boxes", "boxes", "--scores", "scores")
HEADER = struct.Struct("<4sIIIQ")


def edited(image, header, fields):
    """The image with other text in its header, and other values in its description, by their paths."""
    start = image.index(b"QTNX")
    pattern, version, size, _, network = HEADER.unpack_from(image, start)
    middle = start + HEADER.size + size
    description = json.loads(image[start + HEADER.size:middle])
    for path, value in fields.items():
        place, *keys = description, *(int(key) if key.isdigit() else key for key in path.split("."))
        for key in keys[:-1]:
            place = place[key]
        place[keys[-1]] = value
    text = json.dumps(description).encode()
    rest = text + image[middle:]
    return (image[:start].replace(*header) +
            HEADER.pack(pattern, version, len(text), zlib.crc32(rest), network) + rest)


# Of the image: what it was packed from, the header's text to replace, fields of the description to change.
# Then the checks that find something, and a text of the first remedy.
NO_TEXT = (b"", b"")
LAYERS = [{"name": f"stride{stride}"} for stride in (16, 8, 32)]
CASES = {
    "sound": ("fp32", NO_TEXT, {}, (), ""),
    "sound INT16": ("int16", NO_TEXT, {}, (), ""),
    "sound decoded": ("decoded", NO_TEXT, {}, (), ""),
    "planes for cells": ("fp32", NO_TEXT, {f"outputs.layers.{i}.layout": "NHWC" for i in range(3)},
                         ("decoding",), "--layout nchw"),
    "word": ("fp32", (b"zrpcnh", b"zrpcncd"), {}, ("decoding",), "--model-out zrpcnh or zrpcnf"),
    "word of decoded": ("decoded", (b"zrpcnh", b"zrpcncd"), {}, ("classes",), "--model-out zrpcnh or zrpcnf"),
    "class names": ("fp32", NO_TEXT, {"class_names": ["person"]}, ("classes",), "7 lines"),
    "order of layers": ("fp32", NO_TEXT, {"outputs.layers": LAYERS}, ("layer order",),
                        "--raw stride8 stride16 stride32"),
    "stride twice": ("raw-again", NO_TEXT, {"outputs.layers.1.name": "stride8_again"}, ("layer order",),
                     "of each stride"),
    "sigmoid": ("raw-sigmoid", NO_TEXT, {}, ("scores",), "before its sigmoid"),
    "sigmoid twice": ("decoded-sigmoid", NO_TEXT, {}, ("scores",), "last sigmoid"),
    "logits": ("decoded-logits", NO_TEXT, {}, ("scores",), "append a sigmoid"),
    "overflow": ("raw-overflow", NO_TEXT, {}, ("finite",), "--mean and --scale"),
    "everything passes": ("raw-sure", NO_TEXT, {}, ("limits", "boxes at 0.9"), "--threshold"),
    "pixels": ("decoded-pixels", NO_TEXT, {}, ("boxes",), "--box-unit pixels"),
    "fractions": ("decoded", NO_TEXT, {"outputs.boxes.unit": "pixels"}, ("boxes",), "--box-unit fractions"),
    "box order": ("decoded", NO_TEXT, {"outputs.boxes.order": "cxcywh"}, ("boxes",), "--box-order xyxy"),
    "INT16 saturates": ("int16", NO_TEXT, {f"outputs.layers.{i}.scale": 1e-5 for i in range(3)},
                        ("INT16 scales",), "--raw-scale 0.0"),
    "INT16 wastes bits": ("int16", NO_TEXT, {"outputs.layers.1.scale": 0.5}, ("INT16 scales",), "--raw-scale 0.0"),
    "candidates": ("decoded", NO_TEXT, {"outputs.max_boxes": 3}, ("limits",), "--max-boxes "),
    "no input": ("fp32", NO_TEXT, {"input.scale": [0, 0, 0]}, ("input values", "boxes at 0.1", "mean and scale"),
                 "1/255"),
    "no scale": ("fp32", NO_TEXT, {"input.scale": [1, 1, 1]}, ("mean and scale",), "--mean 0 --scale 1/255"),
    "mean": ("fp32", NO_TEXT, {"input.mean": [127.5] * 3}, ("mean and scale",), "--mean 0 --scale 1/255"),
    "mean of decoded": ("decoded", NO_TEXT, {"input.mean": [127.5] * 3, "input.scale": [1 / 127.5] * 3},
                        ("mean and scale",), "--mean 0 --scale 1/255"),
    "colours": ("int16", NO_TEXT, {"input.network_order": "rgb"}, ("colours",), "--network-order bgr"),
}


def told_of(check):
    """A check's line, without measures that may differ on another processor."""
    seen, *rest = list(check.values())[2:]
    number = r"-?\b\d+(\.\d+)?(e[+-]?\d+)?\b"
    measured = check["name"] not in ("decoding", "layer order", "classes", "input values")
    scaled = check["name"] in ("INT16 scales", "limits")
    return "  " + " | ".join([check["name"] + ": " + (re.sub(number, "N", seen) if measured else seen),
                              *(re.sub(number, "N", text) if scaled else text for text in rest)]) + "\n"


class DoctorTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.bases = {}
        shutil.unpack_archive(STREET / "calibration.tar", self.folder)
        (self.folder / "pictures").mkdir()
        for picture in sorted((self.folder / "calibration").iterdir())[:5]:
            picture.rename(self.folder / "pictures" / picture.name)

    def base(self, kind):
        """The bytes of an image: fp32 and int16 are of the street network, others FAMILY[-VARIANT] of heads.py."""
        if kind not in self.bases:
            family, _, variant = kind.partition("-")
            network = STREET / "street.onnx"
            if kind not in ("fp32", "int16"):
                network = self.folder / f"{kind}.onnx"
                family_of_head = "boxes-and-scores" if family == "decoded" else family
                subprocess.run([sys.executable, "-B", STREET / "heads.py", family_of_head, "-o", network,
                                *(("--variant", variant) if variant else ())], check=True)
            self.tool("pack", network, "-o", "base.qtm", *PACK, *(DECODED if family == "decoded" else RAW),
                      *(("--int16", "--calibrate", "pictures") if kind == "int16" else ()))
            self.bases[kind] = (self.folder / "base.qtm").read_bytes()
        return self.bases[kind]

    def found(self, image, *inputs):
        """The findings by their checks, and the report."""
        (self.folder / "image.qtm").write_bytes(image)
        result = subprocess.run([TOOL, "doctor", "image.qtm", *inputs, "--json", "-"], cwd=self.folder,
                                stdout=subprocess.PIPE, timeout=600, encoding="utf-8")
        report = json.loads(result.stdout)
        self.assert_fits_schema(report, "doctor")
        findings = {check["name"]: check for check in report["checks"] if check["state"] == "found"}
        self.assertEqual((result.returncode, report["findings"]), (1 if findings else 0, len(findings)))
        return findings, report

    def test_names_each_fault_and_no_other(self):
        told = ""
        for name, (kind, header, fields, checks, remedy) in list(CASES.items())[::STRIDE]:
            with self.subTest(name):
                findings, report = self.found(edited(self.base(kind), header, fields), "pictures")
                self.assertEqual(tuple(findings), checks, findings)
                told += f"{name}\n" + "".join(line for line in map(told_of, report["checks"]) if line not in told)
                if checks:
                    self.assertIn(remedy, findings[checks[0]]["remedy"])

        if STRIDE == 1:
            self.assert_kept("doctor_findings", told)

    def test_names_a_wrong_aspect(self):
        (self.folder / "narrow").mkdir()
        (self.folder / "squeezed").mkdir()
        for picture in sorted((self.folder / "pictures").iterdir()):
            whole = cv2.imread(str(picture))
            cv2.imwrite(str(self.folder / "narrow" / picture.name), whole[:, :200])
            cv2.imwrite(str(self.folder / "squeezed" / picture.name), cv2.resize(whole, (200, 288)))
        for pictures, resize, remedy in (("narrow", "stretch", "letterbox"), ("narrow", "letterbox", None),
                                         ("squeezed", "letterbox-centred", "stretch"), ("squeezed", "stretch", None)):
            with self.subTest(pictures, resize=resize):
                findings, _ = self.found(edited(self.base("fp32"), NO_TEXT, {"input.resize": resize}), pictures)
                self.assertEqual(list(findings), ["aspect"] if remedy else [], findings)
                if remedy:
                    self.assertEqual((findings["aspect"]["means"], findings["aspect"]["remedy"]), (
                        "pictures of another aspect are stretched, and objects lose their shape" if pictures == "narrow" else
                        "pictures are made smaller with their aspect kept, which the network is not trained for",
                        f"pack with --resize {remedy}"))

    def test_says_what_it_cannot_check_and_refuses_what_it_cannot_read(self):
        image = self.base("fp32")
        findings, report = self.found(image)
        self.assertEqual((findings, report["frames"], report["thresholds"]), ({}, 0, None))
        self.assertIn("needs pictures", [check["text"] for check in report["checks"]])
        # The frames are spread over all inputs, and over the pictures of a folder.
        for limit, frames in ((1, 1), (3, 3), (50, 6)):
            _, report = self.found(image, "pictures", "pictures/000003.jpg", "--limit", str(limit))
            self.assertEqual(report["frames"], frames)
        (self.folder / "old.json").write_text("old")
        (self.folder / "cut.qtm").write_bytes(image[:-9])
        for arguments, code, said in ((("image.qtm", "--limit", "0"), 2, "--limit"),
                                      (("image.qtm", "--json", "image.qtm"), 2, "--json"),
                                      (("cut.qtm", "--json", "old.json"), 3, "cut.qtm"),
                                      (("image.qtm", "missing", "--json", "old.json"), 4, "missing"),
                                      (("image.qtm", "--json", "/dev/full"), 4, "/dev/full")):
            self.tool("doctor", *arguments, code=code, said=[said])
        self.assertEqual((self.folder / "old.json").read_text(), "old")
        self.assert_fits_schema(json.loads((self.tool("doctor", "image.qtm", "--json", "old.json"),
                                            self.folder / "old.json")[1].read_text()), "doctor")

    def test_report_of_a_fault(self):
        (self.folder / "street.qtm").write_bytes(edited(self.base("decoded"), NO_TEXT, {"outputs.max_boxes": 3}))
        result = self.tool("doctor", "street.qtm", "pictures", code=1)
        self.assertRegex(result.stdout, r"(?m)^FINDING  limits .*5 of 5 frames have more candidates than 3, at most")
        self.assertRegex(result.stdout, r"(?m)^threshold +0\.1 .* 0\.9\nboxes( +9){9}\n1 finding\n")


if __name__ == "__main__":
    main()
