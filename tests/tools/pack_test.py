# SPDX-License-Identifier: Apache-2.0
"""pack_test.py - olvex-det pack and inspect as their users see them: what is packed comes back, what
cannot work is refused with a reason, and no failure leaves a file behind.

See tool_test.py for the usage and tests/support/tiny_onnx.h for the networks.
"""
import json

from tool_test import ToolTest, main, make_network, write_cells, write_gray

OUT = ["-o", "out.qtm"]
LAYERS = ["--raw", "stride8", "stride16", "stride32", "--scale", "1/255"]
BOXES = ["--boxes", "boxes", "--scores", "scores", "--scale", "1/255"]
RAW = ["raw.onnx", *OUT, *LAYERS]
DECODED = ["boxes.onnx", *OUT, *BOXES]
CALIBRATE = ["--int16", "--input-format", "rgb", "--calibrate"]


class PackTest(ToolTest):
    def setUp(self):
        super().setUp()
        write_gray(self.folder / "black.ppm", 8, 8, 0)
        write_gray(self.folder / "white.ppm", 8, 8, 255)
        (self.folder / "damaged.ppm").write_text("P6 8 8")
        make_network(self.folder / "raw.onnx", "raw", 64, 64)
        make_network(self.folder / "boxes.onnx", "decoded", 64, 32)
        (self.folder / "names.txt").write_text("person\r\nbicycle\ncar\n\n")
        self.image = self.folder / "out.qtm"

    def packed(self, *arguments):
        """What inspect says of the image that these arguments make."""
        self.assertNotIn("DLA_", self.tool("pack", *arguments).stdout)  # the library's own log
        return self.inspected()

    def inspected(self):
        report = json.loads(self.tool("inspect", "out.qtm", "--json").stdout)
        self.assert_fits_schema(report, "inspect")
        return report

    def test_raw_layers_come_back_from_inspect_as_packed(self):
        found = self.packed(*RAW, "--int16", "--raw-scale", "1/256", "--model-out", "zrfsd",
                            "--lib-out", "zrpd", "--pair", "maker=we", "--title", "two classes",
                            "--size", "64x64", "--class-names", "names.txt")
        self.assertEqual(found["title"], "two classes")
        self.assertEqual([(pair["key"], pair["value"]) for pair in found["pairs"]["file"]],
                         [("model_out", "zrfsd"), ("lib_out", "zrpd"), ("maker", "we")])
        self.assertEqual(found["pairs"]["valid"], "file")
        self.assertEqual(found["type"], {"model_out": "zrfsd", "lib_out": "zrpd", "classes": 2,
                                         "key_points": 0, "source": "model_out"})
        self.assertEqual(found["class_map"],
                         [{"model": 1, "library": -1}, {"model": 2, "library": -2}])
        self.assertEqual(found["double_check"], {"target_class": 0, "with_classes": [1, 2]})
        self.assertEqual(found["decoder"]["kind"], "raw")
        self.assertEqual(found["inputs"][0]["format"], "NV12")
        self.assertEqual(found["outputs"][1],
                         {"name": "stride16", "shape": [1, 4, 4, 6], "format": "INT16",
                          "scale": 0.00390625, "bytes": 192})

    def test_pairs_in_the_first_name_replace_those_of_the_file(self):
        self.packed(*RAW, "--model-out", "zrfsd", "--pairs-in-name")
        image = self.image.read_bytes()
        self.image.write_bytes(b"model_out:zrpcn\n" + image[image.index(b"QTNX"):])
        found = self.inspected()
        self.assertEqual((found["pairs"]["valid"], found["type"]["model_out"]), ("name", "zrfsd"))
        self.assertEqual(found["image"]["offset"], 16)

    def test_channels_last_layers_are_taken_with_their_layout(self):
        make_network(self.folder / "last.onnx", "raw-nhwc", 64, 64)
        found = self.packed("last.onnx", *OUT, *LAYERS, "--layout", "nhwc", "--input-format", "bgr")
        self.assertEqual(found["outputs"][2]["shape"], [1, 2, 2, 6])
        self.assertEqual(found["type"]["source"], "channels")

    def test_box_lists_take_the_layout_that_the_options_ask_for(self):
        make_network(self.folder / "points.onnx", "decoded", 64, 32, 15)
        for network, options, outputs, third, key_points in (
                ("boxes.onnx", [], 5, "scores", 0), ("boxes.onnx", ["--no-classes"], 4, "indices", 0),
                ("points.onnx", ["--keypoints", "points"], 5, "points", 5)):
            found = self.packed(network, *OUT, *BOXES, "--max-boxes", "7", "--background", "0",
                                *options)
            self.assertEqual(found["decoder"]["kind"], "box_list")
            self.assertEqual((len(found["outputs"]), found["outputs"][2]["name"]), (outputs, third))
            self.assertEqual(found["outputs"][0]["shape"][2], 7)
            self.assertEqual(found["type"]["key_points"], key_points)
            self.assertEqual(found["description"]["outputs"]["scores"]["background"], 0)

    def test_a_printed_description_packs_the_same_image_again(self):
        options = ["--class-names", "names.txt", "--box-order", "cxcywh", "--box-unit", "pixels",
                   "--mean", "1,2.5,3", "--int16", "--input-format", "argb8888", "--min-score",
                   "0.25", "--network-order", "bgr"]
        self.packed(*DECODED, *options)
        first = self.image.read_bytes()
        printed = self.tool("pack", *DECODED, *options, "--print-description").stdout
        self.assertEqual(json.loads(printed)["class_names"], ["person", "bicycle", "car"])
        piped = self.tool("pack", *DECODED, *options[2:], "--print-description", "--class-names",
                          "/dev/stdin", input="person\nbicycle\ncar").stdout
        self.assertEqual(piped, printed)
        (self.folder / "description.json").write_text(printed)
        self.packed("--description", "description.json", "boxes.onnx", *OUT)
        self.assertEqual(self.image.read_bytes(), first)

    def test_calibration_gives_every_scale_a_tenth_of_room(self):
        make_network(self.folder / "points.onnx", "decoded", 64, 32, 63)
        pictures = self.folder / "pictures"
        pictures.mkdir()
        # A class of a raw layer is 20 x level / 255 - 10; a score is level / 255.
        for number, level in enumerate((51, 102, 0, 77)):
            write_gray(pictures / f"{number}.ppm", 8, 8, level)
        points = ["points.onnx", *OUT, *BOXES, "--keypoints", "points"]
        for arguments, reach in (  # largest value x 1.1; of boxes at least 64 pixels, of scores 1
                ([*RAW, *CALIBRATE, "pictures"], [11, 11, 11]),
                ([*RAW, *CALIBRATE, "pictures", "--calibrate-limit", "2"], [11, 11, 11]),
                ([*RAW, *CALIBRATE, "pictures", "--calibrate-limit", "1"], [6.6, 6.6, 6.6]),
                ([*RAW, *CALIBRATE, "pictures/1.ppm"], [2.2, 2.2, 2.2]),
                ([*DECODED, *CALIBRATE, "white.ppm"], [70.4, 32767, 1.1, 32767, 32767]),
                ([*DECODED, *CALIBRATE, "pictures", "--box-unit", "pixels"],
                 [64, 32767, 1, 32767, 32767]),
                ([*points, *CALIBRATE, "white.ppm"], [70.4, 1.1, 134.2, 32767, 32767])):
            with self.subTest(arguments):
                found = self.packed(*arguments)["outputs"]
                for tensor, expected in zip(found, reach, strict=True):
                    self.assertAlmostEqual(tensor["scale"] * 32767 / expected, 1, 4)
        said = self.tool("pack", *RAW, *CALIBRATE, "pictures").stdout
        self.assertIn("pictures, 4 frames\n             stride8: largest value 10, scale 0.000335704",
                      said)
        first = self.image.read_bytes()
        printed = self.tool("pack", *RAW, *CALIBRATE, "pictures", "--print-description").stdout
        (self.folder / "description.json").write_text(printed)
        self.packed("raw.onnx", *OUT, "--description", "description.json")
        self.assertEqual(self.image.read_bytes(), first)

    def test_calibrated_integers_find_the_boxes_of_floats(self):
        picture = self.folder / "picture.ppm"
        # No two planes have the same mean in a cell: each has one best class.
        picture.write_bytes(b"P6 64 64 255\n" + bytes(
            value for y in range(64) for x in range(64) for value in (3 * x, 60 + 2 * y, 0)))
        calibrate = [*CALIBRATE, picture]
        for arguments, step in ((RAW, 11 / 32767), (DECODED, 1.1 / 32767)):
            found = []
            for options in (calibrate[1:3], calibrate):
                self.tool("pack", *arguments, *options)
                result = self.tool("run", "out.qtm", picture, "--threshold", "0.1", "--jsonl", "-")
                found.append(json.loads(result.stdout)["boxes"])
            floats, integers = found
            self.assertGreater(len(floats), 10)
            self.assertEqual(len(integers), len(floats))
            # Equal scores may change places, so each box looks for its own.
            for box in floats:
                self.assertTrue(any(
                    abs(box["score"] - other["score"]) <= step and
                    box["class_id"] == other["class_id"] and
                    all(abs(box[side] - other[side]) <= 1 for side in ("x", "y", "width", "height"))
                    for other in integers), box)

    def test_a_refusal_says_why_and_changes_no_file(self):
        make_network(self.folder / "pixels.onnx", "pixels", 64, 64)
        make_network(self.folder / "points.onnx", "decoded", 64, 32, 15)
        (self.folder / "empty.txt").write_text("\n\n")
        (self.folder / "description.json").write_text(self.tool(
            "pack", *RAW, "--pair", "a=b", "--pairs-in-name", "--print-description").stdout)
        self.image.write_text("the former image")
        before = {path: path.read_bytes() for path in self.folder.iterdir()}
        for name in ("pack_refusals", "pack_values", "pack_contradictions"):
            self.transcript = ""
            self.assert_session_kept(name, after_each=lambda: self.assertEqual(
                {path: path.read_bytes() for path in self.folder.iterdir()}, before))

    def test_links_pipes_and_protected_files_keep_what_they_are(self):
        self.assert_session_kept("pack_outputs")

    def test_inspect_names_the_damage_and_tells_it_from_an_undecodable_model(self):
        self.assert_session_kept("inspect_damage")

    def test_what_is_packed_is_told_in_full(self):
        (self.folder / "names.txt").write_text("person\nbi\x7fcycle\n")
        cells = {(1, 1): (250, 0, 0), (4, 1): (0, 200, 40), (6, 2): (90, 90, 255)}  # the others are black
        for height in (32, 64):
            write_cells(self.folder / f"cells{height}.ppm", 64, height, cells)
        make_network(self.folder / "points.onnx", "decoded", 64, 32, 15)
        make_network(self.folder / "last.onnx", "raw-nhwc", 64, 64)
        for name in ("pack_reports", "inspect_facts"):
            self.transcript = ""
            self.assert_session_kept(name)

    def test_misspelt_words_are_answered_with_the_nearest_name(self):
        self.assert_session_kept("misspelt_words")

    def test_help_and_version_go_to_standard_output(self):
        self.assert_session_kept("help")
        self.assertIn("libolvex_det release version: ", self.tool("--version").stdout)


if __name__ == "__main__":
    main()
