# SPDX-License-Identifier: Apache-2.0
"""eval_mot_test.py - olvex-det eval mot against values that were computed by hand.

See tool_test.py for the usage. Boxes are squares of 100 pixels unless a test says otherwise: shifted
by d pixels, two of them overlap by (100 - d) / (100 + d).
"""
import itertools
import json
import random
import re

from tool_test import ToolTest, main

NAMES = "HOTA DetA DetRe DetPr AssA AssRe AssPr LocA MOTA MOTP IDF1 IDP IDR".split()
FAR = 1000  # between objects that shall not overlap


def truth(frame, track, left, consider=1, class_id=0, size="100,100"):
    return f"{frame},{track},{left},0,{size},{consider},{class_id},1\n"


def result(frame, track, left, class_id=0, size="100,100"):
    return f"{frame},{track},{left},0,{size},0.9,{class_id},-1,-1\n"


def span(kind, frames, track, left, *more):
    return "".join(kind(frame, track, left, *more) for frame in frames)


def overlap(left, right):
    return max(0, 100 - abs(left - right)) / (100 + abs(left - right))


def two_objects(frames):
    return span(truth, frames, 1, 0) + span(truth, frames, 2, FAR)


SWAPPED = (span(result, (1, 2), 5, 0) + span(result, (3, 4), 6, 0) +
           span(result, (1, 2), 6, FAR) + span(result, (3, 4), 5, FAR))
PERFECT = span(result, range(1, 5), 5, 0) + span(result, range(1, 5), 6, FAR)

TWO_CLIPS = (span(truth, range(1, 1500, 97), 1, 0), span(result, range(1, 1500, 97), 6, 30))

# name: (truth, result, {metric or count: value})
CASES = {
    "perfect": (two_objects(range(1, 5)), PERFECT,
                {**dict.fromkeys(NAMES, 1), "truths": 8, "objects": 2, "mostly_tracked": 2,
                 "misses": 0, "false_boxes": 0, "id_switches": 0, "fragments": 0}),
    # Each id is right in 2 of the 6 frames that it or the object have: 4 + 4 - 2.
    "ids swapped midway": (two_objects(range(1, 5)), SWAPPED,
                           {"id_switches": 2, "fragments": 0, "MOTA": 1 - 2 / 8, "IDF1": 4 / 8,
                            "DetA": 1, "AssA": 1 / 3, "AssRe": 1 / 2, "AssPr": 1 / 2, "HOTA": (1 / 3) ** 0.5}),
    "gap": (span(truth, range(1, 11), 1, 0), span(result, (1, 2, 3, 4, 7, 8, 9, 10), 5, 0),
            {"fragments": 1, "misses": 2, "id_switches": 0, "MOTA": 0.8, "mostly_tracked": 1,
             "IDF1": 16 / 18, "DetA": 0.8, "AssA": 0.8, "HOTA": 0.8}),
    "another id after a gap": (span(truth, range(1, 6), 1, 0),
                               span(result, (1, 2), 5, 0) + span(result, (4,), 6, 0),
                               {"fragments": 1, "id_switches": 1, "misses": 2, "IDF1": 4 / 8,
                                "AssA": (2 * 2 / 5 + 1 / 5) / 3, "partly_tracked": 1,
                                "AssRe": (2 * 2 / 5 + 1 / 5) / 3, "AssPr": 1, "DetRe": 3 / 5, "DetPr": 1}),
    "absent is no gap": (span(truth, (1, 2, 7, 8), 1, 0), span(result, (1, 2, 7, 8), 5, 0),
                         {"fragments": 0, "HOTA": 1, "MOTA": 1}),
    "found in 1 of 6": (span(truth, range(1, 7), 1, 0), result(1, 5, 0), {"mostly_lost": 1}),
    "found in 1 of 5": (span(truth, range(1, 6), 1, 0), result(1, 5, 0), {"partly_tracked": 1}),
    "false boxes": (span(truth, (1, 2), 1, 0),
                    span(result, (1, 2), 5, 0) + span(result, range(1, 7), 6, FAR),
                    {"false_boxes": 6, "MOTA": -2, "DetA": 2 / 8, "DetRe": 1, "DetPr": 2 / 8, "AssA": 1, "IDP": 2 / 8, "IDR": 1}),
    "no truth": ("", result(1, 5, 0), {**dict.fromkeys(NAMES), "false_boxes": 1}),
    "no result": (truth(1, 1, 0), "", {**dict.fromkeys(NAMES, 0), "MOTP": None, "LocA": None,
                                       "IDP": None, "DetPr": None, "misses": 1, "mostly_lost": 1}),
    # Id 6 is of another class and id 7 nearer to the object that counts.
    "ignored": (truth(1, 1, 0) + truth(1, 2, FAR, 0, 3) + truth(1, 3, 20, 0),
                result(1, 7, 0) + result(1, 6, FAR), {"MOTA": 1, "results": 1, "truths": 1}),
    "ignored once": (truth(1, 1, 0) + truth(1, 2, FAR, 0),
                     result(1, 5, 0) + result(1, 6, FAR) + result(1, 7, FAR), {"false_boxes": 1}),
    "another class": (truth(1, 1, 0, 1, 2), result(1, 5, 0, 1),
                      {"misses": 1, "false_boxes": 1, "MOTA": -1, "HOTA": 0}),
    # The best single pair (0 and 10) would leave 30 without one.
    "crowded": (truth(1, 1, 0) + truth(1, 2, 30), result(1, 5, 10) + result(1, 6, -20),
                {"misses": 0, "false_boxes": 0, "MOTP": 80 / 120}),
    "a match is kept": (span(truth, (1, 2), 1, 0), result(1, 5, 0) + result(2, 5, 30) +
                        result(2, 6, 0), {"id_switches": 0, "false_boxes": 1,
                                          "MOTP": (1 + 70 / 130) / 2}),
    "a match is not kept": (span(truth, (1, 2), 1, 0), result(1, 5, 0) + result(2, 5, 40) +
                            result(2, 6, 0), {"id_switches": 1, "false_boxes": 1, "MOTP": 1}),
    # In frame 4 both ids fit; id 6 fits the object better, as id 5 has 20 other frames.
    "HOTA follows whole tracks": (span(truth, range(1, 5), 1, 0),
                                  span(result, (1, 2, 4), 5, 0) + span(result, (3, 4), 6, 0) +
                                  span(result, range(5, 25), 5, FAR),
                                  {"AssA": (2 * 2 / (4 + 23 - 2) + 2 * 2 / (4 + 2 - 2)) / 4,
                                   "DetA": 4 / 25}),
    # Ten of the nineteen thresholds are up to 0.5; at the others LocA counts 1.
    "overlap at the threshold": (truth(1, 1, 0), result(1, 5, 0, 0, "100,50"),
                                 {"misses": 0, "MOTP": 0.5, "HOTA": 10 / 19, "DetA": 10 / 19,
                                  "LocA": (10 * 0.5 + 9) / 19}),
    "overlap below it": (truth(1, 1, 0), result(1, 5, 0, 0, "100,49.9"),
                         {"misses": 1, "false_boxes": 1, "MOTP": None, "IDF1": 0, "HOTA": 9 / 19}),
}


class EvalMotTest(ToolTest):
    def evaluate(self, *texts, options=(), **more):
        """The JSON and what was printed, for truth and result of one clip or more."""
        files = [self.folder / f"{'result' if i % 2 else 'truth'}_{i // 2}.txt"
                 for i in range(len(texts))]
        for file, text in zip(files, texts):
            file.write_text(text, newline="")
        report = self.folder / "report.json"
        done = self.tool("eval", "mot", *files, "--json", report, *options, **more)
        values = json.loads(report.read_text())
        self.assert_fits_schema(values, "eval_mot")
        self.curve = values["combined"].pop("over_overlap")
        self.transcript += re.sub(r"\d+\.\d+", lambda number: str(round(float(number[0]), 9)), json.dumps(values)) + "\n"
        return values, done

    def assert_values(self, part, expected):
        for name, value in expected.items():
            found = {**part["metrics"], **part["counts"]}[name]
            if value is None:
                self.assertIsNone(found, name)
            else:
                self.assertAlmostEqual(found, value, 9, name)

    def test_values_computed_by_hand(self):
        for name, (truths, results, expected) in CASES.items():
            with self.subTest(name):
                values, done = self.evaluate(truths, results)
                self.assert_values(values["combined"], expected)
                self.assert_values(values["clips"][0], expected)
                row = done.stdout.splitlines()[1].split()  # of the first clip
                self.assertEqual(row, ["truth_0"] + [
                    "-" if value is None else f"{value:.3f}"
                    for value in values["combined"]["metrics"].values()])

    def test_hota_over_the_overlap(self):
        # Half of the boxes overlap by 1, half by 0.5, each half under an id of its own.
        self.evaluate(span(truth, range(1, 9), 1, 0),
                      span(result, range(1, 5), 5, 0) + span(result, range(5, 9), 6, 0, 0, "100,50"), options=["--plot", "hota.svg"])
        def steps(low, high):
            return [low] * 10 + [high] * 9
        for name, wanted in {"overlap": [(i + 1) / 20 for i in range(19)], "DetA": steps(1, 4 / 12), "DetRe": steps(1, 0.5),
                             "DetPr": steps(1, 0.5), "AssA": [0.5] * 19, "AssRe": [0.5] * 19, "AssPr": [1] * 19,
                             "HOTA": steps(0.5 ** 0.5, (4 / 12 / 2) ** 0.5), "LocA": steps(0.75, 1)}.items():
            for found, value in zip(self.curve[name], wanted, strict=True):
                self.assertAlmostEqual(found, value, 9, name)
        self.assert_kept("eval_mot_hota.svg", (self.folder / "hota.svg").read_text())
        self.evaluate("", result(1, 5, 0), options=["--plot", "none.svg"])
        self.assertIsNone(self.curve)
        self.assertIn("there is no truth", (self.folder / "none.svg").read_text())

    def test_assignments_are_the_best_of_all(self):
        generator = random.Random(1)
        # With a frame in between no match is kept from the frame before.
        frames = {frame: [[generator.randrange(160) for _ in range(5)] for _ in range(2)]
                  for frame in range(1, 40, 2)}
        texts = ["".join(kind(frame, track, left) for frame, sides in frames.items()
                         for track, left in enumerate(sides[side]))
                 for side, kind in enumerate((truth, result))]
        values = self.evaluate(*texts)[0]["combined"]

        def best(table):
            return max(sum(table[i][j] for i, j in enumerate(order))
                       for order in itertools.permutations(range(5)))
        overlaps = [[[overlap(i, j) if overlap(i, j) >= 0.5 else 0 for j in results] for i in truths]
                    for truths, results in frames.values()]
        together = [[sum(table[i][j] > 0 for table in overlaps) for j in range(5)] for i in range(5)]
        matches = 100 - values["counts"]["misses"]
        self.assertAlmostEqual(values["metrics"]["MOTP"] * matches, sum(map(best, overlaps)), 9)
        self.assertAlmostEqual(values["metrics"]["IDF1"], best(together) / 100, 9)

    def test_clips_are_combined(self):
        one = (span(truth, range(1, 5), 1, 0), span(result, range(1, 5), 5, 0))
        values, done = self.evaluate(*one, two_objects(range(1, 5)), SWAPPED)
        self.assert_values(values["combined"], {
            "truths": 12, "MOTA": 1 - 2 / 12, "IDF1": 8 / 12, "AssA": (4 + 8 / 3) / 12,
            "HOTA": (5 / 9) ** 0.5})
        self.assertEqual([clip["name"] for clip in values["clips"]], ["truth_0", "truth_1"])
        self.assertEqual([line.split()[0] for line in done.stdout.splitlines()[1:4]],
                         ["truth_0", "truth_1", "combined"])
        self.tool("eval", "mot", "truth_0.txt", "result_0.txt", "truth_1.txt", code=2,
                  said=["no RESULT for the TRUTH truth_1.txt"])
        self.tool("eval", "mot", *["truth_0.txt", "result_0.txt"] * 2, "--timeline", "t.svg", code=2,
                  said=["one clip"])

    def test_classes(self):
        texts = (truth(1, 1, 0) + truth(1, 2, FAR, 1, 4), result(1, 5, 0) + result(1, 6, FAR, 7))
        values, done = self.evaluate(*texts)
        self.assertEqual([part["class"] for part in values["per_class"]], [0, 4, 7])
        for part, expected in zip(values["per_class"], ({"MOTA": 1}, {"MOTA": 0}, {"MOTA": None})):
            self.assert_values(part, expected)
        self.assertIn("class 7", done.stdout)
        values = self.evaluate(*texts, options=["--classes", "0,7"])[0]
        self.assertEqual(values["classes"], [0, 7])
        self.assert_values(values["combined"], {"truths": 1, "false_boxes": 1, "misses": 0})
        self.tool("eval", "mot", "a", "b", "--classes", "person", code=2)

    def test_files_of_other_programs_are_taken_as_they_are(self):
        boxes = [(frame, track, 300 * track + 5 * frame) for frame in (1, 2, 3) for track in (1, 2)]
        plain = "".join(f"{frame},{track},{left},0,100,100,1@\n" for frame, track, left in boxes)
        ends = ["", ",-1", ",-1,-1", ",-1,-1,-1"]
        counted = plain.replace("@", ",1,1")
        distractor = "1,9,3000,0,100,100,0,8,1\n"
        for truths, results in (*((counted + distractor, plain.replace("@", end) + "1,9,3000,0,100,100,1\n") for end in ends),
                                *((plain.replace("@", end), plain.replace("@", end)) for end in ends),
                                *((plain.replace("@", end), plain.replace("@", ",4")) for end in ends)):
            self.assert_values(self.evaluate(truths, results)[0]["combined"],
                               {"truths": 6, "results": 6, "MOTA": 1, "IDF1": 1})
        # The class of what is to be ignored does not matter.
        decoy = "2,9,3000,0,100,100,0\n"
        results = plain.replace("@", ",1") + "2,9,3000,0,100,100,1,7\n"
        self.assert_values(self.evaluate(counted + decoy, results)[0]["combined"], {"results": 6, "MOTA": 1})
        classes = self.evaluate(plain.replace("@", ""), plain.replace("@", ",4"))[0]["per_class"]
        self.assertEqual([(part["class"], part["name"]) for part in classes], [(4, None)])

        (self.folder / "names.txt").write_text("person\ncar\n\ntruck\n")
        (self.folder / "map.txt").write_text("# what they mean\n 1 = person \n\n7=car\r\n5=-\n")
        truths = (truth(1, 1, 0, 1, 1) + truth(1, 2, FAR, 1, 7) + truth(1, 3, 2 * FAR, 1, 5) + truth(1, 4, 3 * FAR, 1, 3))
        results = (result(1, 5, 0) + result(1, 6, FAR, 1) + result(1, 7, 2 * FAR) + result(1, 8, 3 * FAR, 3) + result(1, 9, 4 * FAR, 9))
        names = ["--class-names", "names.txt", "--class-map"]
        for mapped in (["map.txt"], ["1=0,7=car,5=-"]):
            values, done = self.evaluate(truths, results, options=[*names, *mapped, "--result-class-map", "9=-"])
            self.assert_values(values["combined"], {"truths": 3, "results": 3, "MOTA": 1})
            self.assertEqual([(part["class"], part["name"]) for part in values["per_class"]],
                             [(0, "person"), (1, "car"), (3, "truck")])
            self.assertEqual([part["class_name"] for part in values["clips"][0]["objects"]], ["person", "car", None, "truck"])
            self.assertEqual([line.split()[0] for line in done.stdout.splitlines()[2:5]], ["person", "car", "truck"])
        # Without --class-names a name stands for the number that is given it first.
        values = self.evaluate(truths, results, options=["--class-map", "1=foot,7=foot", "--result-class-map", "0=foot,1=foot,9=bird"])[0]
        self.assert_values(values["per_class"][0], {"truths": 2, "results": 3, "misses": 0, "false_boxes": 1})
        self.assertEqual((values["per_class"][0]["class"], values["per_class"][0]["name"]), (1, "foot"))
        self.transcript = ""
        self.assert_session_kept("eval_mot_classes")

    def test_runs(self):
        truths = (span(truth, range(1, 8), 1, 0) + span(truth, (8, 9), 1, 0, 0) +
                  span(truth, (3, 4), 2, FAR, 1, 2))
        results = span(result, (1, 2, 4), 5, 0) + span(result, (5, 6), 12, 0)
        values = self.evaluate(truths, results)[0]
        first, second = values["clips"][0]["objects"]
        self.assertEqual(first, {
            "truth_id": 1, "class": 0, "class_name": None, "first": 1, "last": 9, "ignored": [{"first": 8, "last": 9}],
            "runs": [{"first": a, "last": b, "result_id": c}
                     for a, b, c in ((1, 2, 5), (4, 4, 5), (5, 6, 12))]})
        self.assertEqual((second["class"], second["first"], second["runs"]), (2, 3, []))

    def test_false_tracks_and_classes_without_results(self):
        truths = span(truth, range(1, 7), 1, 0) + span(truth, (3, 4), 2, FAR, 1, 2) + span(truth, (1, 2), 3, 2 * FAR, 0, 2)
        results = (span(result, range(1, 7), 5, 0) + span(result, (2, 3, 5), 9, 0) + span(result, (1, 6), 8, FAR, 4) +
                   span(result, range(7, 9), 5, 0))
        tracks = self.evaluate(truths, results, options=["--timeline", "drawn.svg"])[0]["clips"][0]["false_tracks"]
        self.assertEqual([(track["result_id"], track["class"], track["finds_an_object"],
                           [(part["first"], part["last"]) for part in track["frames"]]) for track in tracks],
                         [(8, 4, False, [(1, 1), (6, 6)]), (9, 0, False, [(2, 3), (5, 5)]), (5, 0, True, [(7, 8)])])
        drawn = (self.folder / "drawn.svg").read_text()
        self.assertIn("left out, never in the result: class 2 (2 objects)", drawn)
        self.assertEqual([drawn.count(text) for text in ("id 2<", "id 3<", "id 9, false in frames 2 to 3<", "id 5, false in frames 7 to 8<")],
                         [0, 0, 1, 1])
        self.evaluate(truths, "", options=["--timeline", "drawn.svg"])
        self.assertIn("class 2  id 2<", (self.folder / "drawn.svg").read_text())

    def test_reports_and_timelines_are_told_in_full(self):
        truths = (span(truth, range(10, 60), 1, 0) + span(truth, range(20, 30), 22, FAR, 1, 2) +
                  span(truth, range(60, 70), 1, 0, 0) + span(truth, range(12, 16), 3, 2 * FAR, 0))
        results = (span(result, range(10, 30), 5, 0) + span(result, (31, 33, 34, 35), 1234567, 8) +
                   span(result, range(36, 60), 5, 0) + span(result, range(21, 25), 7, FAR, 2) +
                   span(result, range(40, 42), 8, 3 * FAR))
        names = ("a&<b>\x1b[31m.txt", "\t\udcff.txt", f"{'long' * 8}.txt", "one.txt", "two.txt", "none.txt")
        for name, text in zip(names, (truths, results, *TWO_CLIPS, "", "")):
            (self.folder / name).write_text(text)
        for files, options in ((names[:4], ()), (names[2:4], ("--classes", "0")),
                               (names[:2], ("--timeline", "short.svg")),
                               (names[2:4], ("--timeline", "long.svg")),
                               (names[4:], ("--timeline", "none.svg"))):
            self.tool("eval", "mot", *files, *options)
        self.assert_transcript_kept("eval_mot_reports")
        for name in ("short", "long", "none"):
            self.assert_kept(f"eval_mot_{name}.svg", (self.folder / f"{name}.svg").read_text())

    def test_lint(self):
        frames = range(1, 11)
        moving = "".join(truth(frame, 1, 60 * frame) for frame in frames)
        right = "".join(result(frame, 5, 60 * frame) for frame in frames)
        many = "".join(result(1, track, FAR * track) for track in range(6, 106))
        cases = {
            "empty_truth": ("", right), "empty_result": (moving, "# none\n"),
            "repeated_ids": (moving, right + result(10, 5, 600)),
            "frames_from_zero": (moving, result(0, 5, 0) + right),
            "many_boxes_in_frame": (moving, right + many),
            "boxes_without_area": (moving, right + result(1, 6, 0, 0, "0,9") + result(2, 6, 0, 0, "9,-9")),
            "frames_beyond_truth": (moving, right + result(11, 5, 660)),
            "frames_shifted": (moving, "".join(result(f, 5, 60 * f + 60) for f in frames)),
            "class_ids_shifted": (moving, right.replace("0.9,0", "0.9,1")),
            "": (moving, right)}
        for kind, texts in cases.items():
            with self.subTest(kind):
                values, done = self.evaluate(*texts)
                self.assertEqual([finding["kind"] for finding in values["warnings"]],
                                 [kind] if kind else [])
                self.assertEqual(done.stderr.count("warning: "), 1 if kind else 0)
        values, done = self.evaluate(*cases["repeated_ids"])
        self.assert_values(values["combined"], {"MOTA": 1})
        self.assert_transcript_kept("eval_mot_lint")

    def test_warnings_begin_where_they_are_told_to(self):
        def rows(kind, number, track=0, **more):
            return "".join(kind(6, track + i, FAR * i, **more) for i in range(number))

        def frames(found, others, raised):
            """Boxes that are found as they are, and others under the wrong class."""
            return (span(truth, range(2, 2 + found + others), 1, 0, 1, 1), span(result, range(2, 2 + found), 5, 0, 1) +
                    span(result, range(2 + found, 2 + found + others), 5, 0, 1 + raised))

        clips = [
            *((rows(truth, number), rows(result, other)) for number, other in ((100, 100), (101, 101))),
            *((rows(truth, 6), rows(result, found) + rows(result, shifted, 50, class_id=1))
              for found, shifted in ((0, 4), (0, 5), (5, 6))),
            frames(60, 65, 1), frames(60, 66, -1), frames(66, 72, 1), frames(66, 73, 1),
            (span(truth, range(1, 41), 1, 0), span(result, range(2, 42), 5, 0)), (span(truth, range(2, 42), 1, 0), span(result, range(1, 41), 5, 0)),
            (truth(0, 1, 0), result(0, 1, 0)), (truth(0, 1, 0), result(1, 1, 0)), (truth(1, 1, 0), result(0, 1, 0)), (truth(0, 1, 0), ""),
            *((truth(1, 1, 0, size=size), result(1, 1, 0, size=size)) for size in ("0,9", "9,0", "0.001,9", "9,-0.001")),
            (truth(5, 1, 0), result(5, 1, 0) + result(5, 1, 9) + result(6, 1, 0)), (truth(5, 1, 0), result(5, 1, 0) + result(5, 1, 9) * 2 + rows(result, 2))]
        self.evaluate(*itertools.chain(*clips))
        self.assert_transcript_kept("eval_mot_limits")

    def test_random_scenes_are_told_in_full(self):
        generator = random.Random(4)
        texts = []
        for _ in range(3):
            scene = ["", ""]
            tracks = [(generator.uniform(0, 500), generator.uniform(-6, 6), generator.randrange(2)) for _ in range(8)]
            for frame in range(1, 60):
                for track, (left, speed, kind) in enumerate(tracks):
                    place = f"{left + speed * frame:.1f}"
                    if frame in range(3 * track, 40 + 3 * track) and generator.random() < 0.9:
                        scene[0] += truth(frame, track + 1, place, int(generator.random() > 0.05 * (track % 3)), kind)
                    if generator.random() < 0.8:
                        scene[1] += result(frame, track + 11 + 10 * (frame // (13 + track)), float(place) + generator.uniform(-40, 40),
                                           kind if generator.random() < 0.95 else 1 - kind, f"{generator.uniform(70, 130):.1f},100")
            texts += scene
        self.evaluate(*texts)
        self.tool("eval", "mot", "truth_1.txt", "result_1.txt", "--classes", "1", "--timeline", "scene.svg")
        self.assert_transcript_kept("eval_mot_scenes")
        self.assert_kept("eval_mot_scene.svg", (self.folder / "scene.svg").read_text())

    def test_rows_are_read_with_tolerance(self):
        text = "\ufeff# frame,id\r\n\r\n 1 , 1.0 ,0,0,\t100,100,1,0,-1,1\r\n2,1,0,0,100,100,1,0,0.5"
        values = self.evaluate(text, span(result, (2, 1), 5, 0).rstrip("\n"))[0]
        self.assert_values(values["combined"], {"truths": 2, "MOTA": 1})

    def test_unusable_files(self):
        self.assert_session_kept("eval_mot_files")

    def test_minimums_and_outputs(self):
        texts = (two_objects(range(1, 5)), SWAPPED)
        values = self.evaluate(*texts, options=["--min", "MOTA=0.75"])[0]
        self.assertEqual(values["minimums"], [{"metric": "MOTA", "minimum": 0.75, "met": True}])
        values = self.evaluate(*texts, options=["--min", "MOTA=0.7", "--min", "IDF1=0.51"], code=1)[0]
        self.assertEqual([minimum["met"] for minimum in values["minimums"]], [True, False])
        self.evaluate("", "", options=["--min", "HOTA=0"], code=1)
        files = ("eval", "mot", "truth_0.txt", "result_0.txt")
        self.tool(*files, "--min", "HOTTA=1", code=2)
        self.tool(*files, "--json", "truth_0.txt", code=2)
        self.tool(*files, "--json", "x", "--timeline", "./x", code=2)
        self.tool(*files, "--json", "/dev/null", "--timeline", "/dev/null")
        self.tool(*files, "--timeline", "missing/x.svg", code=4)
        done = self.tool(*files, "--json", "-")
        self.assertEqual(json.loads(done.stdout)["schema_version"], 1)
        self.assertIn("MOTA", done.stderr)
        self.assert_transcript_kept("eval_mot_outputs")


if __name__ == "__main__":
    main()
