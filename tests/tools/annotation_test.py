# SPDX-License-Identifier: Apache-2.0
"""annotation_test.py - what olvex-det draws: boxes, labels, key points, sheets of frames, the worst pictures
of an evaluation, and the progress line.

See tool_test.py for the usage. The pictures are compared pixel by pixel with those in data/, which also
show a reader what they look like.
"""
import json
import os
import pty
import re
import subprocess

import cv2
import numpy as np

from tool_test import TOOL, ToolTest, main, make_network, write_cells, write_gray

def box(x, y, width, height, class_id=0, score=0.5, track_id=None, points=(), name="person"):
    return {"x": x, "y": y, "width": width, "height": height, "class_id": class_id, "class": name,
            "score": score, "track_id": track_id,
            "keypoints": [{"x": px, "y": py, "score": 1} for px, py in points]}


def line(number, boxes, size, pts=0):
    return json.dumps({"schema_version": 1, "frame": number, "pts": pts, "source": "p", "boxes": boxes,
                       "size": dict(zip(("width", "height"), size)), "milliseconds": {}}) + "\n"


class AnnotationTest(ToolTest):
    def test_a_sheet_shows_boxes_labels_times_and_what_differs(self):
        pictures = self.folder / "pictures"
        pictures.mkdir()
        for number in (1, 2, 3):
            write_gray(pictures / f"{number}.pgm", 320, 180, 40 * number)
        far = 4294967295
        first = [[box(60, 60, 80, 90, 0, 0.876, 7, [(70, 80), (None, 90), (1e9, 100)]),
                  box(62, 64, 80, 90, 1, 1, 12, name="car"), box(300, 170, 60, 60, 2, 0.5, name=None),
                  box(0, 0, 20, 20, 3, None, name=""), box(200, 5, far, far, 4, -0.004, name="bus")],
                 [box(10, 20, 30, 40)], []]
        second = [[box(60, 60, 80, 90, 0, 0.876, 7)], [box(10, 20, 30, 40), box(90, 20, 30, 40, 9)], []]
        for name, run in (("a", first), ("b", second)):
            for members in (row for row in run[0] if row["class"] is None):
                del members["class"]
            (self.folder / f"{name}.jsonl").write_text("".join(
                line(number, boxes, (320, 180), pts) for number, boxes, pts in zip(
                    (1, 2, 3), run, (59999999, 3599999000, 3723400001))))
        self.tool("compare", "pictures", "first=a.jsonl", f"{'long ' * 12}=b.jsonl", "-o", "sheet.png")
        self.assert_picture_kept("compare_sheet.png", (self.folder / "sheet.png").read_bytes())
        # Tall pictures, many columns: narrow tiles with bars.
        write_gray(self.folder / "tall.pgm", 40, 200)
        (self.folder / "tall.jsonl").write_text(line(1, [box(10, 20, 20, 60)], (80, 200)))
        self.tool("compare", "tall.pgm", *[f"{i}=tall.jsonl" for i in range(7)], "--display", "80x200",
                  "-o", "narrow.png")
        self.assert_picture_kept("compare_narrow.png", (self.folder / "narrow.png").read_bytes())

    def test_run_draws_what_it_finds(self):
        make_network(self.folder / "n.onnx", "decoded", 192, 128, 8)
        (self.folder / "names.txt").write_text("red\n\nblue\n")
        pictures = self.folder / "pictures"
        pictures.mkdir()
        for number in range(1, 15):
            write_cells(pictures / f"{number:02}.ppm", 192, 128, {
                (number + 4, 6): (255, 0, 0), (2, 12): (0, 240, 0), (20, 14): (0, 0, 225)})
        pack = ["pack", "n.onnx", "-o", "n.qtm", "--input-format", "rgb", "--scale", "1/255", "--boxes",
                "boxes", "--scores", "scores", "--class-names", "names.txt"]
        self.tool(*pack)
        run = ["run", "n.qtm", "pictures", "--quiet"]
        self.tool(*run, "--track", "--limit", 2, "--pictures", "shown", "--contact-sheet", "sheet.png",
                  "--contact-frames", 3, "--jsonl", "shown.jsonl")
        self.assert_picture_kept("run_picture.png", (self.folder / "shown/frame_000002.png").read_bytes())
        # Blurred although it is not reported; nothing else changes but one outline.
        self.tool(*run, "--limit", 2, "--classes", "blue", "--blur", "red", "--no-labels", "--line-width", 1,
                  "--pictures", "blurred")
        self.tool(*run, "--limit", 2, "--jsonl", "all.jsonl")
        found = json.loads((self.folder / "all.jsonl").read_text().splitlines()[1])["boxes"]
        boxes = {box["class_id"]: box for box in found}
        left, top, width, height = (boxes[0][side] for side in ("x", "y", "width", "height"))
        plain, blurred = (cv2.imread(str(self.folder / name)).astype(int) for name in ("pictures/02.ppm", "blurred/frame_000002.png"))
        changed = abs(plain - blurred).max(2) > 0
        inside = np.s_[top:top + height + 1, left:left + width + 1]
        self.assertGreater(changed[inside].mean(), 0.3)
        changed[inside] = False
        rows, columns = np.nonzero(changed)
        left, top, width, height = (boxes[2][side] for side in ("x", "y", "width", "height"))
        self.assertEqual((left, top, left + width, top + height), (columns.min(), rows.min(), columns.max(), rows.max()))
        self.assertFalse(changed[top + 1:top + height, left + 1:left + width].any())
        self.tool(*run, "--video", "shown.mp4")
        self.assertIn(b"avc1", (self.folder / "shown.mp4").read_bytes())  # H.264
        self.tool(*pack, "--keypoints", "points", "--no-classes")
        for frames in (3, 4):  # with and without thinning out
            self.tool(*run, "--display", "384x256", "--contact-sheet", "sheet.png", "--contact-frames",
                      frames)
            self.assert_picture_kept(f"contact_sheet_{frames}.png", (self.folder / "sheet.png").read_bytes())

    def test_the_worst_pictures_show_every_fate(self):
        write_gray(self.folder / "7.pgm", 520, 400)
        truth = {"images": [{"id": 7, "width": 260, "height": 200}],
                 "categories": [{"id": 1, "name": "person"}, {"id": 2, "name": "car"}],
                 "annotations": [{"id": n, "image_id": 7, "category_id": kind, "bbox": where}
                                 for n, (kind, where) in enumerate((
                                     (1, [20, 30, 60, 100]), (2, [150, 30, 80, 50]),
                                     (1, [125, 120, 45, 50])))]}
        results = [{"image_id": 7, "category_id": kind, "bbox": where, "score": score}
                   for kind, where, score in ((1, [22, 35, 60, 100], 0.912), (1, [155, 33, 80, 50], 0.75),
                                              (2, [-25, 150, 50, 1000], 0.5))]
        (self.folder / "truth.json").write_text(json.dumps(truth))
        (self.folder / "results.json").write_text(json.dumps(results))
        self.tool("eval", "coco", "truth.json", "results.json", "--worst-pictures", "worst", "--input",
                  "7.pgm")
        (picture,) = (self.folder / "worst").iterdir()
        self.assert_picture_kept(picture.name, picture.read_bytes())
        # A truth that does not tell both sizes is drawn as it is.
        shown = []
        for sizes in ({"width": 520, "height": 400}, {"width": 260}, {"height": 200}, {}):
            truth["images"] = [{"id": 7, **sizes}]
            (self.folder / "truth.json").write_text(json.dumps(truth))
            self.tool("eval", "coco", "truth.json", "results.json", "--worst-pictures", "worst", "--input", "7.pgm")
            shown.append(picture.read_bytes())
        self.assertEqual(shown, shown[:1] * 4)

    def test_progress_is_shown_on_a_terminal_alone(self):
        make_network(self.folder / "n.onnx", "decoded", 96, 64)
        self.tool("pack", "n.onnx", "-o", "n.qtm", "--input-format", "rgb", "--boxes", "boxes", "--scores",
                  "scores", "--min-score", "999")
        (self.folder / "pictures").mkdir()
        for number in range(1, 1500):
            path = self.folder / f"pictures/{number}.pgm"
            os.link(self.folder / "pictures/1.pgm", path) if number > 1 else write_gray(path, 96, 64)
        leader, follower = pty.openpty()
        process = subprocess.Popen([TOOL, "run", "n.qtm", "pictures", "--jsonl", "lines"],
                                   cwd=self.folder, stdout=subprocess.DEVNULL, stderr=follower)
        os.close(follower)
        shown = b""
        try:
            while True:
                shown += os.read(leader, 65536)
        except OSError:  # nothing has the terminal open any more
            self.assertEqual(process.wait(timeout=60), 0)
        os.close(leader)
        steps = re.findall(r"\r\x1b\[K\[(#*)(\.*)\] +(\d+)%  (\d+)/1499  \d+\.\d frames/s  "
                           r"(?:\d+ min )?\d+ s left", shown.decode())
        self.assertTrue(steps, shown[:500])
        for done, left, percent, frames in steps:
            self.assertEqual(len(done + left), 24)
            self.assertEqual(len(done), int(frames) * 24 // 1499)
            self.assertEqual(int(percent), round(int(frames) * 100 / 1499))
        self.assertTrue(shown.endswith(b"\r\x1b[K"), shown[-100:])


if __name__ == "__main__":
    main()
