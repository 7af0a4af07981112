# SPDX-License-Identifier: Apache-2.0
"""run_test.py - olvex-det run as its users see it: files in, files out, exit codes.

See tool_test.py for the usage. The network's candidates are the cells of a grid of 8 pixels, scored
by their mean red, green and blue; see tests/support/tiny_onnx.h.
"""
import json
import os
import pathlib
import shutil
import signal
import struct
import subprocess
import tempfile
import time

import cv2
from network_test import network
from tool_test import TOOL, ToolTest, main, make_network, write_cells, write_gray

WIDTH, HEIGHT, CELL = 72, 64, 8  # NV12 rows of this width are padded


def write_picture(path, squares, width=WIDTH):
    write_cells(path, width, HEIGHT, squares)


def read_json_lines(text):
    return [json.loads(line) for line in text.splitlines()]


def box_rows(frames):
    """(frame, x, y, width, height, score, class) of every box, in order."""
    return [(frame["frame"], box["x"], box["y"], box["width"], box["height"], box["score"],
             box["class_id"]) for frame in frames for box in frame["boxes"]]


def exact_rows(frames):
    """The same with the corners instead of the whole pixels."""
    return [(frame["frame"], *box["corners"][:2], box["corners"][2] - box["corners"][0],
             box["corners"][3] - box["corners"][1], box["score"], box["class_id"])
            for frame in frames for box in frame["boxes"]]


def track_ids(frames):
    return [box["track_id"] for frame in frames for box in frame["boxes"]]


class RunTest(ToolTest):
    @classmethod
    def setUpClass(cls):
        shared = tempfile.TemporaryDirectory()
        cls.addClassCleanup(shared.cleanup)
        cls.network = f"{shared.name}/network.onnx"
        make_network(cls.network, "decoded", WIDTH, HEIGHT, 8)
        cls.model = cls.pack("rgb")

    @classmethod
    def pack(cls, frame_format, *options):
        image = f"{cls.network}.{frame_format}{len(options)}.qtm"
        options = options or ("--boxes", "boxes", "--scores", "scores")
        if frame_format == "fp32":
            options += ("--frame-order", "bgr")
        subprocess.run([TOOL, "pack", cls.network, "-o", image, "--input-format", frame_format,
                        "--scale", "1/255", *options], check=True, capture_output=True)
        return image

    def run_tool(self, *arguments, **options):
        return self.tool("run", *arguments, **options)

    def frames_of(self, *arguments, **options):
        return read_json_lines(self.run_tool(*arguments, "--jsonl", "-", **options).stdout)

    def moving_squares(self):
        """A red square that darkens, and from frame 4 a green one that jumps at frame 9."""
        folder = self.folder / "pictures"
        folder.mkdir()
        for number in range(1, 13):
            squares = {(1, 2): (250 if number <= 6 else 200, 0, 0)}
            if number >= 4:
                squares[(5, 6) if number < 9 else (7, 1)] = (0, 225, 0)
            write_picture(folder / f"frame{number}.ppm", squares)
        return folder

    def test_outputs_agree_and_results_stay_clean(self):
        display = f"{2 * WIDTH + 5}x{HEIGHT + 9}"
        result = self.run_tool(self.model, self.moving_squares(), "--track", "--jsonl", "-", "--mot",
                               "mot", "--coco", "coco", "--summary-json", "summary", "--log", "log",
                               "--display", display, said=["12 frames"])
        self.assertNotIn("DLA_", result.stderr)
        written = {path.name: path.read_text() for path in self.folder.iterdir() if path.is_file()}
        frames = read_json_lines(result.stdout)
        for frame in frames:
            self.assert_fits_schema(frame, "frame")
        self.assertEqual([pathlib.Path(frame["source"]).name for frame in frames],
                         [f"frame{number}.ppm" for number in range(1, 13)])
        self.run_tool(self.model, "pictures", "--track", "--display", display, "--whole-pixels", "--mot", "mot",
                      "--coco", "coco")
        whole = {name: (self.folder / name).read_text() for name in ("mot", "coco")}
        rows = box_rows(frames)
        for texts, number, expected in ((written, float, exact_rows(frames)), (whole, int, rows)):
            mot = [line.split(",") for line in texts["mot"].splitlines()]
            found = [(int(row[0]), *map(number, row[2:6]), float(row[6]), int(row[7])) for row in mot]
            self.assertEqual([(item["image_id"], *item["bbox"], item["score"], item["category_id"])
                              for item in json.loads(texts["coco"])], found)
            self.assertTrue(all(abs(a - b) < 1e-4 for row, other in zip(found, expected)
                                for a, b in zip(row, other)) and len(found) == len(expected), (found, expected))
        self.assertTrue(any(side % 1 for row in exact_rows(frames) for side in row[1:5]))
        self.assertEqual([int(row[1]) for row in mot], track_ids(frames))
        summary = json.loads(written["summary"])
        self.assert_fits_schema(summary, "summary")
        self.assertEqual((summary["frames"], summary["boxes"], summary["tracks"]),
                         (12, len(rows), 3))
        self.assertIn("DLA_INFO:", written["log"])

    def test_track_ids_stay_with_their_objects(self):
        # In frame 7 the scores change places; with the tracker the order of the list does not.
        pictures = self.moving_squares()
        places = {}
        for frame in self.frames_of(self.model, pictures, "--track"):
            for box in frame["boxes"]:
                places.setdefault((box["x"], box["y"]), set()).add(box["track_id"])
        self.assertEqual(places, {(8, 16): {1}, (40, 48): {2}, (56, 8): {3}})
        untracked = self.frames_of(self.model, pictures)
        self.assertEqual([box["class_id"] for box in untracked[6]["boxes"]], [1, 0])
        self.assertEqual(set(track_ids(untracked)), {None})

    def test_ids_go_on_where_pictures_change_size(self):
        for number, width in ((1, WIDTH), (2, 2 * WIDTH)):
            write_picture(self.folder / f"{number}.ppm", {(4, 4): (255, 0, 0)}, width)
        tracked = [self.model, self.folder, "--track", "--threshold", "0.3"]
        frames = read_json_lines(self.run_tool(*tracked, "--jsonl", "-", said=["--display"]).stdout)
        self.assertEqual(track_ids(frames), [1, 2])
        self.assertEqual([frame["size"]["width"] for frame in frames], [WIDTH, 2 * WIDTH])
        box = self.frames_of(*tracked, "--display", "720x640")[0]["boxes"][0]
        self.assertEqual((box["track_id"], box["y"], box["height"]), (1, 320, 80))

    def test_every_frame_format_finds_the_same_and_dumps_replay(self):
        picture = self.folder / "7.ppm"
        classes = {(x + i, y + j): label for i in (0, 1) for j in (0, 1)
                   for x, y, label in ((1, 2, 0), (5, 4, 1), (7, 6, 2))}
        write_picture(picture, {cell: [255 * (plane == label) for plane in range(3)]
                                for cell, label in classes.items()})
        dumps = self.folder / "dumps"
        ini = self.folder / "dump.ini"
        ini.write_text(f"[SET_ENV]\nQK_ALGO_I={dumps}")
        for frame_format in ("nv12", "argb8888", "abgr8888", "rgb", "bgr", "fp32"):
            with self.subTest(frame_format):
                model = self.pack(frame_format)
                dumps.mkdir()
                frames = self.frames_of(model, picture, environment={"QK_ALGO_S": str(ini)})
                self.assertEqual(set(classes.items()), {
                    ((box["x"] // CELL, box["y"] // CELL), box["class_id"]) for box in frames[0]["boxes"]})
                replayed = self.frames_of(model, dumps, "--pictures", self.folder / "shown")
                self.assertEqual(box_rows(replayed), box_rows(frames))
                dump = next(dumps.iterdir())
                dump.write_bytes(dump.read_bytes()[:-1])
                self.run_tool(model, dump, code=4, said=[str(dump.stat().st_size)])
                dump.unlink()
                dumps.rmdir()

    def test_key_points_display_size_and_models_in_memory(self):
        model = self.pack("rgb", "--boxes", "boxes", "--scores", "scores", "--keypoints", "points",
                          "--no-classes")
        picture = self.folder / "picture.ppm"
        write_picture(picture, {(3, 2): (255, 0, 0)})
        frames = self.frames_of(model, picture, "--display", f"{10 * WIDTH}x{10 * HEIGHT}")
        (box,) = frames[0]["boxes"]
        self.assertEqual((box["x"], box["y"], box["width"], box["height"]), (240, 160, 80, 80))
        row = 2 * (WIDTH // CELL) + 3
        values = [(row + 1) * (k + 1) / 1024 * 10 * (HEIGHT if k % 2 else WIDTH) for k in range(8)]
        found = [value for point in box["keypoints"] for value in (point["x"], point["y"])]
        self.assertEqual(len(found), len(values))
        self.assertLess(max(abs(a - b) for a, b in zip(found, values)), 0.05)
        self.assertEqual(box_rows(self.frames_of(self.model, picture, "--memory")),
                         box_rows(self.frames_of(self.model, picture)))

    def test_pictures_keep_their_aspect_and_get_their_boxes_back(self):
        picture = self.folder / "wide.ppm"
        write_picture(picture, {(i, j): (255, 0, 0) for i in (2, 3) for j in (2, 3)}, 2 * WIDTH)
        for frame_format, resize, top in (("rgb", "letterbox", 0), ("nv12", "letterbox-centred", HEIGHT // 4)):
            model = self.pack(frame_format, "--boxes", "boxes", "--scores", "scores", "--keypoints", "points",
                              "--no-classes", "--min-score", "0.44", "--resize", resize)
            shown = self.frames_of(model, picture, "--display", f"{4 * WIDTH}x{2 * HEIGHT}", "--threshold", "0.44")
            # Padding is gray enough for a box in each of its cells, but none of them is in the picture.
            (box,) = shown[0]["boxes"]
            self.assertEqual([box[side] for side in ("x", "y", "width", "height")], [32] * 4)
            row = (top // CELL + 1) * (WIDTH // CELL) + 1
            for k, point in enumerate(box["keypoints"]):
                x, y = ((row + 1) * (2 * k + i) / 1024 for i in (1, 2))
                self.assertAlmostEqual(point["x"], 4 * WIDTH * x, places=3)
                self.assertAlmostEqual(point["y"], max(0, (HEIGHT * y - top) * 4), places=3)

    def test_frames_in_which_a_limit_left_out_boxes_are_counted(self):
        make_network(self.folder / "grid.onnx", "decoded", 160, 160, 0)
        write_cells(self.folder / "1.ppm", 160, 160, {(x, y): (255, 0, 0) for x in range(20) for y in range(20)})
        write_cells(self.folder / "2.ppm", 160, 160, {(x, y): (255, 0, 0) for x in range(10) for y in range(20)})
        for most, text in ((400, "limit   1 frame with more boxes than the 200"),
                           (100, "limit   2 frames with more candidates than the 100")):
            self.tool("pack", "grid.onnx", "-o", "grid.qtm", "--boxes", "boxes", "--scores", "scores", "--scale",
                      "1/255", "--input-format", "rgb", "--max-boxes", most)
            run = self.run_tool("grid.qtm", self.folder, "--summary-json", "summary")
            self.assertEqual([text in run.stdout, run.stdout.count("limit")], [True, 1])
            summary = json.loads((self.folder / "summary").read_text())
            self.assertEqual((summary["frames_with_cut_boxes"], summary["frames_with_dropped_candidates"],
                              summary["boxes"]), (1, 0, 400) if most == 400 else (0, 2, 200))

    def test_pictures_are_drawn(self):
        self.run_tool(self.model, self.moving_squares(), "--skip", 2, "--limit", 7, "--video",
                      "video.mp4", "--pictures", "shown", "--contact-sheet", "sheet.png",
                      "--contact-frames", 4)
        shown = sorted((self.folder / "shown").iterdir())
        self.assertEqual([path.name for path in shown],
                         [f"frame_{number:06}.png" for number in range(3, 10)])
        for path, least in ((shown[0], (WIDTH, HEIGHT)), (self.folder / "sheet.png", (400, 400))):
            size = struct.unpack(">II", path.read_bytes()[16:24])
            self.assertTrue(size[0] >= least[0] and size[1] >= least[1], (path, size))
        self.assertEqual(len(self.frames_of(self.model, "video.mp4")), 7)
        self.run_tool(self.model, "video.mp4", "--skip", 3, "--jsonl", "lines")
        frames = read_json_lines((self.folder / "lines").read_text())
        self.assertEqual([(frame["frame"], frame["pts"], frame["source"]) for frame in frames],
                         [(number, 40000 * number - 40000, "video.mp4") for number in range(4, 8)])
        self.assertEqual(self.tool("compare", "video.mp4", "a=lines", "--at", "7,5", "-o", "sheet.png").stdout.splitlines()[0], "frames 5, 7")

    def test_errors_have_their_exit_code_and_name_the_cause(self):
        write_picture(self.folder / "picture.ppm", {})
        (self.folder / "damaged.qtm").write_bytes(pathlib.Path(self.model).read_bytes()[:-100])
        (self.folder / "broken.png").write_bytes(b"\x89PNG but not really")
        (self.folder / "empty.mp4").touch()
        (self.folder / "empty").mkdir()
        (self.folder / "folder.mp4").mkdir()
        (self.folder / "kept.mp4").write_text("old")
        (self.folder / "x\x1b\x9b.png").write_text("no picture")
        os.mkfifo(self.folder / "pipe.mp4")
        (self.folder / "model.qtm").symlink_to(self.model)
        self.assert_session_kept("run_errors")
        write_picture(self.folder / "shades.ppm", {(1, 2): (250, 0, 0), (3, 2): (200, 0, 0), (5, 2): (100, 0, 0), (7, 2): (50, 0, 0)})
        (self.folder / "sizes").mkdir()
        for number, width in ((1, WIDTH), (2, 2 * WIDTH)):
            write_picture(self.folder / f"sizes/{number}.ppm", {(4, 4): (255, 0, 0)}, width)
        for name in ("run_values", "run_remarks"):
            self.transcript = ""
            self.assert_session_kept(name)
        self.assertEqual((self.folder / "kept.mp4").read_text(), "old")
        reader, writer = os.pipe()
        os.close(reader)
        with os.fdopen(writer, "w") as closed:
            self.run_tool("model.qtm", "picture.ppm", "--jsonl", "-", code=4, stdout=closed, said=["ended"])

    def test_names_that_stand_for_something_else(self):
        pictures = self.moving_squares()
        (self.folder / "link").symlink_to("/dev/stdout")
        for name in ("link", "//dev/stdout", "/proc/thread-self/fd/1"):
            result = self.run_tool(self.model, pictures, "--quiet", "--jsonl", name, "--video",
                                   "http:a.mp4")
            self.assertEqual(len(read_json_lines(result.stdout)), 12)
        self.assertEqual(len(self.frames_of(self.model, "http:a.mp4")), 12)
        with open(self.folder / "lines", "w") as lines:
            self.run_tool(self.model, pictures, "--jsonl", "lines", code=2, stdout=lines,
                          said=["redirected"])

    def test_fitted_and_gray_pictures_are_told_in_full(self):
        options = ("--boxes", "boxes", "--scores", "scores", "--keypoints", "points", "--no-classes", "--min-score", "0.44", "--resize")
        for resize in ("letterbox", "letterbox-centred"):
            (self.folder / f"{resize}.qtm").symlink_to(self.pack("rgb" if resize == "letterbox" else "nv12", *options, resize))
        cells = {(i, j): (255, 0, 0) for i in (2, 3) for j in (2, 3)}
        for name, width, height in (("wide", 2 * WIDTH, HEIGHT), ("tall", WIDTH, 3 * HEIGHT)):
            write_cells(self.folder / f"{name}.ppm", width, height, cells)
        write_gray(self.folder / "odd.pgm", 145, 73, 200)
        (self.folder / "shades.pgm").write_bytes(b"P5 12 16 255\n" + bytes(range(64, 256)))
        (self.folder / "gray.onnx").write_bytes(network([], sizes=(1, 1, 16, 12)))
        (self.folder / "both").mkdir()
        write_picture(self.folder / "both/1.ppm", cells, WIDTH)
        write_picture(self.folder / "both/2.ppm", cells, 2 * WIDTH)
        self.assert_session_kept("run_fitted")
        for name, shape in (("odd.mkv", (74, 146, 3)), ("both.avi", (HEIGHT, WIDTH, 3))):
            video = cv2.VideoCapture(str(self.folder / name))
            shown = [frame for _, frame in (video.read() for _ in range(2)) if frame is not None]
            self.assertEqual({frame.shape for frame in shown}, {shape})
        # What is fitted into the first one's size has a black border.
        self.assertLess(max(shown[1][-8:].max(), shown[1][:8].max()), 40)

    def test_codecs_that_are_not_installed_are_named(self):
        built, other = pathlib.Path(TOOL).parents[1], self.folder / "other"
        for file in (TOOL, *built.glob("lib/libolvex_det.so.?"), *built.glob("lib/libqv_*.so")):
            copy = other / pathlib.Path(file).relative_to(built)
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(file, copy)
        shutil.copy(built / "lib/libolvex_picture_codec.so", self.folder)  # the current folder is no place
        result = subprocess.run([other / "bin/olvex-det", "run", self.model, self.moving_squares()],
                                cwd=self.folder, capture_output=True, encoding="utf-8")
        self.assertEqual(result.returncode, 70)
        self.assertRegex(result.stderr, "libolvex_picture_codec.so: cannot open .*Install olvex-det with all")

    def test_an_interrupted_run_leaves_complete_files(self):
        pictures = self.moving_squares()
        for number in range(13, 5000):
            os.link(pictures / "frame5.ppm", pictures / f"frame{number}.ppm")
        out = {name: self.folder / name for name in ("jsonl", "mot", "coco", "video.mp4")}
        process = subprocess.Popen([TOOL, "run", self.model, pictures, "--jsonl", out["jsonl"],
                                    "--mot", out["mot"], "--coco", out["coco"], "--video",
                                    out["video.mp4"]], stdout=subprocess.DEVNULL)
        while process.poll() is None and not (out["mot"].exists() and out["mot"].stat().st_size):
            time.sleep(0.01)
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(timeout=60), 130)
        frames = read_json_lines(out["jsonl"].read_text())
        self.assertTrue(0 < len(frames) < 4999)
        boxes = len(box_rows(frames))
        self.assertEqual(len(out["mot"].read_text().splitlines()), boxes)
        self.assertEqual(len(json.loads(out["coco"].read_text())), boxes)
        self.assertEqual(len(self.frames_of(self.model, out["video.mp4"])), len(frames))


if __name__ == "__main__":
    main()
