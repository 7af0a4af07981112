# SPDX-License-Identifier: Apache-2.0
"""compare_test.py - olvex-det compare: which frames it shows, the sheet, and what it refuses.

See tool_test.py for the usage. Runs are written by hand; the pictures are plain.
"""
import json
import random

import cv2

from tool_test import ToolTest, main, write_gray

WIDTH, HEIGHT, FRAMES = 160, 120, 40


def box(x, class_id=0, **members):
    return {"x": x, "y": 20, "width": 20, "height": 30, "class_id": class_id, "class": "person",
            "score": 0.5, "track_id": None, "keypoints": [], **members}


def frame(number, boxes=(), width=WIDTH, **members):
    return {"schema_version": 1, "frame": number, "pts": (number - 1) * 40000, "source": "pictures",
            "size": {"width": width, "height": HEIGHT}, "boxes": list(boxes), "milliseconds":
            dict.fromkeys(("decode", "conversion", "network", "postprocessing"), 0), **members}


class CompareTest(ToolTest):
    def setUp(self):
        super().setUp()
        (self.folder / "pictures").mkdir()
        for number in range(1, FRAMES + 1):
            write_gray(self.folder / f"pictures/{number}.pgm", WIDTH, HEIGHT, number)
        self.write("same.jsonl", [frame(number, [box(10)]) for number in range(1, FRAMES + 1)])

    def write(self, name, lines):
        text = "".join((line if isinstance(line, str) else json.dumps(line)) + "\n"
                       for line in lines)
        (self.folder / name).write_text(text)

    def compare(self, *arguments, input="pictures", output="sheet.png", **options):
        return self.tool("compare", input, *arguments, "--output", output, **options)

    def frames_of(self, *arguments, **options):
        return self.compare(*arguments, **options).stdout.splitlines()[0]

    def test_frames_with_most_differences_are_spread_over_the_run(self):
        # The parts are 1-10, 11-20, 21-30 and 31-40; the middle of the first is 6.
        other = {10: [box(80)],                  # moved away: both boxes are alone
                 11: [box(80), box(120)],        # more, but too near to frame 10
                 17: [box(10, class_id=1)],      # of another class
                 24: [box(14)], 25: [box(17)],   # IoU 16/24 is a counterpart, 13/27 is none
                 38: [box(10), box(80)], 39: []}  # one box alone each, 38 is nearer to 36
        self.write("other.jsonl", [frame(number, other.get(number, [box(10)]))
                                   for number in range(1, FRAMES + 1)])
        runs = ["a=same.jsonl", "b=other.jsonl"]
        self.assertEqual(self.frames_of(*runs), "frames 10, 17, 25, 38")
        self.assertEqual(self.frames_of("a=same.jsonl", "b=same.jsonl"), "frames 6, 16, 26, 36")
        self.assertEqual(self.frames_of(*runs, "--at", "30,2,30"), "frames 2, 30")
        # Boxes without area are counterparts at the same place alone.
        for name, y in (("left", (20, 20)), ("right", (20, 21))):
            self.write(f"{name}.jsonl", [frame(number, [box(10, width=0, y=y[number - 1])])
                                         for number in (1, 2)])
        self.assertEqual(self.frames_of("a=left.jsonl", "b=right.jsonl", "--frames", 1), "frames 2")
        # A frame that only one run holds is not shown.
        self.write("short.jsonl", [frame(number) for number in (3, 10, 41)])
        self.assertEqual(self.frames_of("a=same.jsonl", "b=short.jsonl"), "frames 3, 10")

    def test_boxes_that_differ_from_the_first_run_are_outlined(self):
        # Tiles of 480x360 begin at (6 + 486 * column, 64): a pixel of the picture is three of the sheet.
        first, second = ([box(x, kind) for kind, x in zip((1, 3, 1, 3), places)]  # no red class
                         for places in ((4, 40, 80, 130), (4, 42, 86, 104)))  # IoU 1, 18/22, 14/26, none
        for name, boxes in (("first", first), ("second", second)):
            self.write(f"{name}.jsonl", [frame(1, boxes)])
        self.compare("a=first.jsonl", "b=second.jsonl", "c=first.jsonl")
        sheet = cv2.imread(str(self.folder / "sheet.png")).astype(int)
        colours = {"gained": (60, 255, 60), "moved": (0, 230, 255), "lost": (40, 40, 255)}

        def outlined(column, x, places=((-1, 20), (20, 20), (10, 30))):
            """By which colours a box at x is: left, right and below."""
            found = set()
            for across, down in places:
                left, top = 6 + 486 * column + 3 * (x + across), 64 + 3 * (20 + down)
                near = sheet[top - 3:top + 6, left - 3:left + 6]
                found.add(frozenset(name for name, colour in colours.items() if (abs(near - colour).max(axis=2) < 40).any()))
            return [set(names) for names in found]
        self.assertEqual([outlined(1, x) for x in (4, 42, 86, 104)], [[set()], [set()], [{"moved"}], [{"gained"}]])
        self.assertEqual(outlined(1, 130, ((20, 20), (10, 15), (10, 30))), [{"lost"}])  # crossed out in the middle
        self.assertEqual([outlined(column, x) for column in (0, 2) for x in (80, 130)], [[set()]] * 4)

    def test_names_of_classes_that_runs_lack(self):
        (self.folder / "names.txt").write_text("dog\ncat\n")
        lines = {"named": box(40), "bare": {name: value for name, value in box(40).items() if name != "class"}}
        for name, drawn in lines.items():
            self.write(f"{name}.jsonl", [frame(1, [drawn])])
        sheets = []
        for arguments in (["a=bare.jsonl"], ["a=bare.jsonl", "--class-names", "names.txt"], ["a=named.jsonl"],
                          ["a=named.jsonl", "--class-names", "names.txt"]):
            self.compare(*arguments)
            sheets.append((self.folder / "sheet.png").read_bytes())
        self.assertEqual([sheets[0] == sheets[1], sheets[1] == sheets[2], sheets[2] == sheets[3]], [False, False, True])
        self.compare("a=bare.jsonl", "--class-names", "missing", code=4, said=["cannot read the class names missing"])

    def test_the_sheet_can_be_a_jpeg(self):
        self.write("boxes.jsonl", [frame(1, [
            box(4294967295, score=None, track_id=7, keypoints=[{"x": None, "y": 1e9, "score": 1}]),
            box(0, class_id=1000000, width=4294967295)], width=2 * WIDTH)])
        self.compare("label" * 50 + "=boxes.jsonl", "--display", f"{2 * WIDTH}x{HEIGHT}",
                     output="wide.jpg")
        self.assertEqual((self.folder / "wide.jpg").read_bytes()[:3], b"\xff\xd8\xff")

    def test_links_pipes_and_protected_files_keep_what_they_are(self):
        self.assert_session_kept("compare_outputs")

    def test_lines_that_run_does_not_write_are_refused_with_their_place(self):
        self.assert_session_kept("compare_lines")
        self.assertFalse((self.folder / "sheet.png").exists())

    def test_choices_and_limits_are_told_in_full(self):
        chance = random.Random(9)
        for name in "abc":
            self.write(f"{name}.jsonl", [frame(number, [box(20 * left + chance.randrange(9), chance.randrange(2), width=chance.choice((0, 10, 20)))
                                                        for left in range(chance.randrange(5))])
                                         for number in range(1, FRAMES + 1) if chance.random() < 0.9])
        self.write("long.jsonl", [frame(number, [box(10)]) for number in range(1, 60)])
        self.write("half.jsonl", [frame(1, [box(10, width=10)]), frame(2, [box(10, width=9)]), frame(3, [box(10, height=0)]), frame(4, [box(11, height=0)])])
        self.write("flat.jsonl", [frame(number, [box(10, height=0)]) for number in range(1, 5)])
        (self.folder / "x=y.jsonl").write_bytes((self.folder / "same.jsonl").read_bytes())
        self.assert_session_kept("compare_choices")

    def test_errors_have_their_exit_code_and_name_the_cause(self):
        self.write("far.jsonl", [frame(FRAMES + 1)])
        self.write("large.jsonl", [frame(1, width=2 * WIDTH)])
        self.write("empty.jsonl", [])
        self.write("lines.png", [frame(1)])
        (self.folder / "1.bin").write_bytes(b"dump")
        self.assert_session_kept("compare_errors")


if __name__ == "__main__":
    main()
