# SPDX-License-Identifier: Apache-2.0
"""eval_coco_test.py - olvex-det eval coco against values worked out by hand, and against a second,
plainer implementation of the same definitions on random boxes.

See tool_test.py for the usage. A truth box is (image, class, [x, y, width, height], members), a
result (image, class, box, score).
"""
import itertools
import json
import random

from tool_test import ToolTest, main

A, B, C = [0, 0, 100, 100], [300, 0, 100, 100], [600, 0, 100, 100]  # boxes apart from each other
NOWHERE = [0, 500, 100, 100]


def tile(i):
    """Boxes of 20x20 that do not touch, as many as one likes."""
    return [i % 40 * 24, 200 + i // 40 * 24, 20, 20]


def truth_file(boxes, classes=("person",), pictures=(1,), first_class=0):
    return {"images": [{"id": i, "width": 1000, "height": 1000, "file_name": f"{i}.jpg"}
                       for i in pictures],
            "annotations": [{"id": n, "image_id": image, "category_id": kind, "bbox": box,
                             **(members[0] if members else {})}
                            for n, (image, kind, box, *members) in enumerate(boxes, 1)],
            "categories": [{"id": i, "name": name} for i, name in enumerate(classes, first_class)]}


def result_file(results):
    return [{"image_id": image, "category_id": kind, "bbox": box, "score": score}
            for image, kind, box, score in results]


# ---- the second implementation ----

def overlap(found, box, crowd):
    width = min(found[0] + found[2], box[0] + box[2]) - max(found[0], box[0])
    height = min(found[1] + found[3], box[1] + box[3]) - max(found[1], box[1])
    common = max(width, 0) * max(height, 0)
    return common / (found[2] * found[3] + (0 if crowd else box[2] * box[3] - common))


def judged(truth, found, threshold, least, most, limit):
    """(score, found something or None where it does not count) of a picture's results of a class."""
    rows = [(box, members.get("iscrowd"), members.get("iscrowd") or members.get("ignore") or
             not least <= members.get("area", box[2] * box[3]) <= most)
            for _, _, box, members in truth]
    used, verdicts = set(), []
    for _, _, box, score in sorted(found, key=lambda row: -row[3])[:limit]:
        chosen = max(((not ignored, overlap(box, other, crowd), i)
                      for i, (other, crowd, ignored) in enumerate(rows)
                      if (crowd or i not in used) and overlap(box, other, crowd) >= threshold),
                     default=None)
        if chosen is None:
            verdicts.append((score, False if least <= box[2] * box[3] <= most else None))
        else:
            used.add(chosen[2])
            verdicts.append((score, True if chosen[0] else None))
    return verdicts, sum(not ignored for _, _, ignored in rows)


def reference(truth, results, classes, pictures, thresholds, least=0, most=1e10, limit=100):
    """(mean precision, mean recall) or (None, None)."""
    precisions, recalls = [], []
    for kind in range(classes):
        for threshold in thresholds:
            verdicts, number = [], 0
            for picture in pictures:
                mine = [[row for row in rows if row[:2] == (picture, kind)]
                        for rows in (truth, results)]
                more, positives = judged(*mine, threshold, least, most, limit)
                verdicts, number = verdicts + more, number + positives
            if number == 0:
                continue
            points, right, wrong = [], 0, 0
            for _, verdict in sorted(verdicts, key=lambda row: -row[0]):
                right, wrong = right + (verdict is True), wrong + (verdict is False)
                points.append((right / number, right / max(right + wrong, 1)))
            recalls.append(right / number)
            precisions += [max((precision for recall, precision in points if recall >= level * 0.01),
                               default=0) for level in range(101)]
    return tuple(sum(values) / len(values) if values else None for values in (precisions, recalls))


def random_case(seed):
    numbers = random.Random(seed)
    truth, results = [], []
    for picture in range(1, 13):
        for _ in range(numbers.randrange(6)):
            width, height = (round(2 ** numbers.uniform(3, 8)) for _ in range(2))
            box = [numbers.randrange(300), numbers.randrange(300), width, height]
            members = {"area": width * height * numbers.choice([0.6, 1]),
                       "iscrowd": int(numbers.random() < 0.1),
                       "ignore": int(numbers.random() < 0.1)}
            truth.append((picture, numbers.randrange(3), box, members))
            for _ in range(numbers.randrange(4)):
                moved = [box[i] + numbers.uniform(-0.15, 0.15) * box[2 + i % 2] for i in range(4)]
                results.append((picture, truth[-1][1], moved, numbers.randrange(20) / 20))
    numbers.shuffle(results)
    return truth, results


def in_short(value):
    """A report's JSON with rounded numbers, and curves as the values in turn, each with how often it comes."""
    if isinstance(value, dict):
        return {name: in_short(member) for name, member in value.items()}
    if isinstance(value, list) and len(value) == 101:
        return " ".join(f"{level:g}*{len(list(run))}" for level, run in itertools.groupby(value))
    return [in_short(item) for item in value] if isinstance(value, list) else \
        round(value, 9) if isinstance(value, float) else value


def without_curves(report):
    """The report with the best thresholds alone, and of each class what tells it from others."""
    def best(scores):
        return scores and scores["best"]
    classes = [{**item, "scores": best(item["scores"]), "metrics": list(item["metrics"].values())}
               for item in report["classes"]]
    return {**report, "classes": classes, "scores": best(report["scores"])}


def kept_by(truth, results, classes, pictures, threshold):
    """Hits, kept results and truth boxes of these classes, each class judged by itself among the results from a score on."""
    hits = kept = boxes = 0
    for kind, picture in itertools.product(classes, pictures):
        here = [row for row in truth if row[:2] == (picture, kind)]
        found = [row for row in results if row[:2] == (picture, kind) and row[3] >= threshold]
        verdicts, number = judged(here, found, 0.5, 0, 1e10, 100)
        hits += sum(hit is True for _, hit in verdicts)
        kept += sum(hit is not None for _, hit in verdicts)
        boxes += number
    return hits, kept, boxes


class EvalCocoTest(ToolTest):
    def evaluate(self, truth, results, *options, **more):
        """truth and results: files' contents; the JSON of the evaluation."""
        (self.folder / "truth.json").write_text(json.dumps(truth))
        (self.folder / "results.json").write_text(json.dumps(results))
        output = self.tool("eval", "coco", "truth.json", "results.json", "--json", "-", *options,
                           **more)
        report = json.loads(output.stdout)
        self.assert_fits_schema(report, "eval_coco")
        self.transcript += json.dumps(in_short(without_curves(report)), ensure_ascii=False) + "\n"
        return report

    def metrics(self, truth, results, *options, classes=("person",), pictures=(1,)):
        return self.evaluate(truth_file(truth, classes, pictures), result_file(results),
                             *options)["metrics"]

    def assert_metrics(self, actual, **wanted):
        for name, value in wanted.items():
            if value is None:
                self.assertIsNone(actual[name], name)
            else:
                self.assertAlmostEqual(actual[name], value, 9, name)

    def test_worked_out_by_hand(self):
        half = 51 / 101  # levels up to recall 0.50
        small, medium, large = [0, 0, 20, 20], [100, 0, 50, 50], [200, 0, 200, 200]
        crowd, ignored = {"iscrowd": 1}, {"ignore": 1}
        many = [(1, 0, tile(i), 0.9) for i in range(100)]
        found_a = (1, 0, A, 0.9)
        cases = {
            "perfect": ([(1, 0, A), (1, 0, B)], [found_a, (1, 0, B, 0.2)],
                        dict(AP=1, AP50=1, AP75=1, APl=1, APs=None, AR1=0.5, AR10=1, AR100=1)),
            "no result": ([(1, 0, A)], [], dict(AP=0, AP50=0, AR100=0, ARl=0, APm=None)),
            "no truth": ([], [found_a], dict(AP=None, AP50=None, AR1=None, ARl=None)),
            "hit, then false": ([(1, 0, A), (1, 0, B)], [found_a, (1, 0, C, 0.8)],
                                dict(AP50=half, AP=half, AR100=0.5)),
            "false, then hit": ([(1, 0, A), (1, 0, B)], [(1, 0, C, 0.95), found_a],
                                dict(AP50=half / 2)),
            "the second of one box is false": ([(1, 0, A), (1, 0, B)],
                                               [found_a, (1, 0, A, 0.8), (1, 0, B, 0.7)],
                                               dict(AP50=(51 + 50 * 2 / 3) / 101)),
            "equal scores stay in order": ([(1, 0, A)], [(1, 0, C, 0.9), found_a], dict(AP50=0.5)),
            "the best overlap is taken": ([(1, 0, A), (1, 0, [0, 0, 100, 90])],
                                          [(1, 0, [0, 0, 100, 91], 0.9), (1, 0, A, 0.8)],
                                          dict(AP=1)),
            "overlap .62": ([(1, 0, A)], [(1, 0, [0, 0, 100, 62], 1)], dict(AP=0.3, AP75=0)),
            "overlap .75": ([(1, 0, A)], [(1, 0, [0, 0, 100, 75], 1)], dict(AP=0.6, AP75=1)),
            "overlap .50": ([(1, 0, A)], [(1, 0, [0, 0, 100, 50], 1)], dict(AP=0.1, AP50=1)),
            "overlap below .50": ([(1, 0, A)], [(1, 0, [0, 0, 100, 49.9], 1)], dict(AP50=0)),
            "ignored": ([(1, 0, A), (1, 0, B, ignored)], [(1, 0, B, 0.9), (1, 0, A, 0.8)],
                        dict(AP=1, AR100=1)),
            "ignored, found twice": ([(1, 0, A), (1, 0, B, ignored)],
                                     [(1, 0, B, 0.9), (1, 0, B, 0.85), (1, 0, A, 0.8)],
                                     dict(AP=0.5)),
            "crowd, found twice": ([(1, 0, A), (1, 0, B, crowd)],
                                   [(1, 0, B, 0.9), (1, 0, [320, 0, 30, 30], 0.85), found_a],
                                   dict(AP=1)),
            "others before ignored": ([(1, 0, A, ignored), (1, 0, [0, 0, 100, 60])],
                                      [(1, 0, A, 0.9)], dict(AP=0.3)),
            "areas": ([(1, 0, small), (1, 0, medium), (1, 0, large)],
                      [(1, 0, [500, 0, 10, 10], 0.9), (1, 0, small, 0.8), (1, 0, medium, 0.7)],
                      dict(APs=0.5, APm=1, APl=0, ARs=1, ARm=1, ARl=0)),
            "area of the object": ([(1, 0, large, {"area": 500})], [(1, 0, large, 1)],
                                   dict(APs=1, APl=None)),
            "area in two ranges": ([(1, 0, [0, 0, 32, 32])], [], dict(APs=0, APm=0, APl=None)),
            "rank 101": ([(1, 0, A)], many + [(1, 0, A, 0.8)], dict(AR100=0, AP50=0)),
            "rank 100": ([(1, 0, A)], many[1:] + [(1, 0, A, 0.8)],
                         dict(AR100=1, AR10=0, AR1=0, AP50=0.01)),
            # 35 * 0.01 is a little more than 7 / 20: its level is not reached.
            "7 of 20": ([(1, 0, tile(i)) for i in range(20)],
                        [(1, 0, tile(i), 0.9) for i in range(7)], dict(AP50=35 / 101)),
        }
        for name, (truth, results, wanted) in cases.items():
            with self.subTest(name):
                self.assert_metrics(self.metrics(truth, results), **wanted)

    def test_pictures_come_by_id(self):
        truth = [(1, 0, A), (2, 0, A)]
        results = [(2, 0, A, 0.9), (1, 0, C, 0.9)]  # the false one is ranked first
        self.assert_metrics(self.metrics(truth, results, pictures=(2, 1)), AP50=51 / 101 / 2)

    def test_classes_without_truth_are_left_out(self):
        file = truth_file([(1, 0, A), (1, 1, B)], ("person", "car", "dog"))
        results = result_file([(1, 0, A, 0.9), (1, 2, C, 0.9)])
        report = self.evaluate(file, results)
        self.assertEqual([(item["name"], item["AP"], item["AP50"]) for item in report["classes"]],
                         [("person", 1, 1), ("car", 0, 0), ("dog", None, None)])
        self.assert_metrics(report["metrics"], AP=0.5, AR100=0.5)
        text = self.tool("eval", "coco", "truth.json", "results.json").stdout
        self.assertRegex(text, r"(?m)^dog( +-){7} +0 +0 +1$")
        for classes in ("0,dog", "person,2"):
            report = self.evaluate(file, results, "--classes", classes)
            self.assertEqual((report["metrics"]["AP"], report["truth_boxes"], report["results"]),
                             (1, 1, 2))
        self.tool("eval", "coco", "truth.json", "results.json", "--classes", "persn", code=2,
                  said=["Did you mean person?"])

    def test_agrees_with_a_plainer_implementation(self):
        overlaps = [0.5 + i * ((0.95 - 0.5) / 9) for i in range(10)]
        ranges = {"s": (0, 1024), "m": (1024, 9216), "l": (9216, 1e10)}
        for seed in range(6):
            truth, results = random_case(seed)
            actual = self.metrics(truth, results, classes=("a", "b", "c"), pictures=range(1, 13))

            def expect(*more):
                return reference(truth, results, 3, range(1, 13), *more)

            wanted = dict(zip(("AP", "AR100"), expect(overlaps)))
            wanted.update(AP50=expect([0.5])[0], AP75=expect([0.75])[0])
            for limit in (1, 10):
                wanted[f"AR{limit}"] = expect(overlaps, 0, 1e10, limit)[1]
            for name, (least, most) in ranges.items():
                wanted.update(zip((f"AP{name}", f"AR{name}"), expect(overlaps, least, most)))
            self.assert_metrics(actual, **wanted)
        self.assert_transcript_kept("eval_coco_random")

    def assert_curve(self, scores, judge, levels):
        for i in range(0, 101, 4):
            hits, kept, boxes = judge(i / 100)
            self.assert_metrics({name: scores[name][i] for name in ("precision", "recall", "F1")},
                                precision=hits / kept if kept else None, recall=hits / boxes, F1=2 * hits / (kept + boxes))
        hits, kept, boxes = max((judge(level) for level in levels), key=lambda found: found[0] / (found[1] + found[2]))
        self.assert_metrics(scores["best"], F1=2 * hits / (kept + boxes), precision=hits / kept, recall=hits / boxes)
        self.assertEqual(judge(scores["best"]["threshold"]), (hits, kept, boxes))

    def test_curves_over_the_score_agree_with_a_plainer_implementation(self):
        for seed in range(3):
            truth, results = random_case(seed)
            report = self.evaluate(truth_file(truth, ("a", "b", "c"), range(1, 13)), result_file(results))
            levels = sorted({row[3] for row in results}, reverse=True)
            for scores, classes in ((report["scores"], range(3)), *((item["scores"], [item["id"]]) for item in report["classes"])):
                self.assert_curve(scores, lambda threshold: kept_by(truth, results, classes, range(1, 13), threshold), levels)
        # Between two scores the threshold has as few decimals, two at least, as part them.
        for high, low, wanted in ((0.87654, 0.3, 0.87), (0.87654, 0.87, 0.876), (0.29, 0.1, 0.29), (0.5, 0.4999999, 0.5), (2.5, 0.4, 2.5)):
            report = self.evaluate(truth_file([(1, 0, A)]), result_file([(1, 0, A, high), (1, 0, B, low)]))
            self.assertEqual(report["scores"]["best"]["threshold"], wanted)
        report = self.evaluate(truth_file([(1, 0, A)], ("a", "b")), result_file([(1, 0, B, 0.9), (1, 1, B, 0.9)]))
        self.assertEqual((report["scores"]["best"], report["classes"][1]["scores"]), (None, None))

    def test_metrics_of_a_class_are_those_of_it_alone(self):
        truth, results = random_case(7)
        options = ("--min", "ARs:b=0", "--min", "AP75:c=0")
        report = self.evaluate(truth_file(truth, ("a", "b", "c"), range(1, 13)), result_file(results), *options)
        for item in report["classes"]:
            alone = self.evaluate(truth_file(truth, ("a", "b", "c"), range(1, 13)), result_file(results), "--classes", item["name"])
            self.assertEqual(item["metrics"], alone["metrics"])

    def test_confusion_and_worst_pictures(self):
        near = [10, 0, 100, 100]
        file = truth_file([(1, 0, A), (1, 1, B), (1, 0, C), (2, 0, B, {"ignore": 1}), (3, 0, A)],
                          ("person", "car"), (1, 2, 3))
        results = result_file([(1, 0, A, 0.9), (1, 1, near, 0.99),  # A goes to the larger overlap
                               (1, 0, B, 0.6), (1, 1, NOWHERE, 0.5), (1, 0, C, 0.4),
                               (2, 1, B, 0.9), (3, 0, A, 0.9)])
        report = self.evaluate(file, results)
        self.assertEqual({(cell["truth"], cell["result"]): cell["count"]
                          for cell in report["confusion"]["cells"]},
                         {("person", "person"): 2, ("car", "person"): 1, ("person", None): 1,
                          (None, "car"): 2})
        self.assertEqual([(item["image_id"], item["missed"], item["false"], item["hit"])
                          for item in report["worst_pictures"]], [(1, 2, 3, 1), (2, 0, 1, 0)])
        report = self.evaluate(file, results, "--confusion-score", "0.4", "--worst", "1")
        self.assertEqual([item["missed"] for item in report["worst_pictures"]], [1])
        self.assertIn(["car", "1", "0", "0"],
                      [line.split() for line in self.tool(
                          "eval", "coco", "truth.json", "results.json").stdout.splitlines()])

    def test_draws_the_worst_pictures(self):
        folder = self.folder / "pictures"
        folder.mkdir()
        for number in (5, 12):
            (folder / f"{number:05}.ppm").write_bytes(b"P6 500 500 255\n" + bytes(500 * 500 * 3))
        file = truth_file([(12, 0, A), (12, 0, NOWHERE)], pictures=(5, 12))
        results = result_file([(12, 0, A, 0.9), (12, 0, C, 0.8)])
        options = ("--worst-pictures", "worst", "--input")
        self.evaluate(file, results, *options, folder)
        self.assertEqual([path.name for path in (self.folder / "worst").iterdir()],
                         ["worst_01_image_12.png"])
        (folder / "00012.ppm").unlink()
        for options, code, said in ((options + (folder,), 4, "no frame with the image id 12"),
                                    (options[:2], 2, "--input"), (options + ("/dev/video0",), 4, "a camera does not show"),
                                    (options + ("absent",), 4, "absent: No such file")):
            self.tool("eval", "coco", "truth.json", "results.json", *options, code=code, said=[said])
        done = self.tool("eval", "coco", "missing", "missing", *options[:2], "--input", "/dev/video0", code=4)
        self.assertIn("camera", done.stderr)  # before anything is read

    def test_reports_and_curves_are_told_in_full(self):
        names = ["bird", "a\x1b[31m\n\x7f & <b>", "naïve" * 5, "z"]
        boxes = [(1 + i % 3, i % 3, [30 * i, 40 * (i % 5), 25 + 9 * i, 30 + i]) for i in range(20)]
        truth = boxes + [(2, 0, A, {"iscrowd": 1}), (3, 1, B, {"ignore": 1})]
        found = [(image, (kind + (i % 7 == 6)) % 3, [x + i, y, w, h], 1 - i / 25)
                 for i, (image, kind, (x, y, w, h)) in enumerate(boxes) if i % 6] + [(1, 3, C, 0.75)]
        file = truth_file(truth, names, (1, 2, 3))
        file["images"][1]["file_name"] = "\x1b[2J\t2.jpg"
        for options in ((), ("--classes", "bird,z", "--worst", 0), ("--worst", 1)):
            self.evaluate(file, result_file(found), *options, "--plot", "curves.svg", "--plot-scores", "scores.svg",
                          "--plot-confusion", "confusion.svg")
        many = [f"class {i}" for i in range(26)]
        self.evaluate(truth_file([(1, i, tile(i)) for i in range(26)], many),
                      result_file([(1, (i + i % 2) % 26, tile(i), 0.9) for i in range(26)]),
                      "--plot", "many.svg", "--plot-confusion", "narrow.svg")
        self.evaluate(truth_file([], ["a"]), [], "--plot", "none.svg", "--plot-scores", "none-scores.svg", "--plot-confusion", "empty.svg")
        self.assertIn("no class has truth", (self.folder / "none-scores.svg").read_text())
        self.assertIn('<title>class 1 as class 2: 1 of 1</title>', (self.folder / "narrow.svg").read_text())
        self.assert_transcript_kept("eval_coco_reports")
        for name in ("curves", "many", "none", "scores", "confusion"):
            self.assert_kept(f"eval_coco_{name}.svg", (self.folder / f"{name}.svg").read_text())

    def test_minimums(self):
        file = truth_file([(1, 0, A), (1, 1, B)], ("person", "a=b", "dog"))
        results = result_file([(1, 0, A, 0.9)])
        met = ("--min", "AP=0.5", "--min", "AP50:person=1")
        report = self.evaluate(file, results, *met)
        self.assertEqual(report["minimums"], [{"metric": "AP", "minimum": 0.5, "met": True},
                                              {"metric": "AP50:person", "minimum": 1, "met": True}])
        report = self.evaluate(file, results, *met, "--min", "AP50:a=b=0.1", "--min", "AP:dog=0",
                               "--min", "AP=0.5001", code=1)
        self.assertEqual([item["met"] for item in report["minimums"]], [True, True] + 3 * [False])
        for value in ("AP5=0.1", "mAP=0.1", "AP", "AP=", "AP=nan", "AP=1e999", "AP=0.5x", "=1"):
            self.tool("eval", "coco", "truth.json", "results.json", "--min", value, code=2)
        for classes in (9, 10):  # two metrics each, beside twelve: the list holds 30
            file = truth_file([(1, i, tile(i)) for i in range(classes)], [f"c{i}" for i in range(classes)])
            (self.folder / "truth.json").write_text(json.dumps(file))
            self.tool("eval", "coco", "truth.json", "results.json", "--min", "AP5=1", code=2)
        self.assert_transcript_kept("eval_coco_minimums")

    def test_lint(self):
        boxes = [[100 + 150 * i, 600, 100, 100] for i in range(5)]
        truth = [(1, i % 3, box) for i, box in enumerate(boxes)]
        right = [(1, i % 3, box, 0.9) for i, box in enumerate(boxes)]
        corners = [(1, i % 3, [x, y, x + w, y + h], 0.9) for i, (x, y, w, h) in enumerate(boxes)]
        down = [(image, kind - 1, box, score) for image, kind, box, score in right]
        gaps = truth_file(truth, ("a", "b", "c"))
        for name, old in (("categories", "id"), ("annotations", "category_id")):
            for item in gaps[name]:
                item[old] = {0: 1, 1: 3, 2: 7}[item[old]]
        frames = [(i, 0, tile(20 * i)) for i in range(1, 6)]
        shifted = [(i - 1, 0, box, 0.9) for i, _, box in frames]
        wrong_area = [(1, 0, [5, 5, 0, 9], 0.9), (1, 0, [5, 5, 9, -9], 0.8)]
        classes = ("a", "b", "c")
        file = truth_file(truth, classes)
        twice = truth_file(truth + [(1, 0, [1, 1, 1, -1])], classes)
        twice["annotations"][1]["id"] = 1
        many = [(1, 0, tile(i), 0.9) for i in range(101)]
        cases = {
            "nothing": (file, right, {}),
            "truth": (twice, right, {"duplicate_annotation_ids": 1, "boxes_without_area": 1}),
            "area": (file, right + wrong_area, {"boxes_without_area": 2}),
            "outside": (file, right + [(1, 0, [-5, 0, 9, 9], 0.5)], {"boxes_outside_picture": 1}),
            "edges": (file, right + [(1, 0, [-1, -1, 1002, 1002], 0.5)], {}),
            "low": (file, right + [(1, 0, [0, 500, 9, 501.1], 0.5)], {"boxes_outside_picture": 1}),
            "corners": (file, corners, {"corners_instead_of_size": 5}),
            "corners at the edge": (file, corners + [(1, 0, [900, 900, 1001, 1001], 0.5)],
                                    {"corners_instead_of_size": 6}),
            "scores": (file, right + [(1, 0, NOWHERE, 1.5)], {"scores_out_of_range": 1}),
            "repeated": (file, right + right[:2], {"duplicate_results": 2}),
            "100 of classes": (file, [many[i][:1] + (i % 3,) + many[i][2:] for i in range(101)],
                               {"many_boxes_in_picture": 1}),
            "100 of a class": (file, many, {"many_boxes_in_picture": 1, "many_boxes_of_class": 1}),
            "classes from 1": (truth_file([(1, i + 1, box) for _, i, box in truth], classes,
                                          first_class=1), right, {"class_ids_shifted": 3}),
            "classes down": (file, down, {"class_ids_shifted": 3}),
            "classes by place": (gaps, right, {"class_ids_shifted": 3}),
            "class unknown": (file, right + [(1, 8, NOWHERE, 0.5)], {"unknown_classes": 1}),
            "pictures": (truth_file(frames, pictures=range(0, 6)), shifted,
                         {"image_ids_shifted": 5}),
        }
        for name, (given, results, wanted) in cases.items():
            with self.subTest(name):
                report = self.evaluate(given, result_file(results))
                self.assertEqual({item["kind"]: item["count"] for item in report["warnings"]},
                                 wanted)
        # Frames from 0 name a picture that is not there; the warning says why.
        (self.folder / "truth.json").write_text(json.dumps(truth_file(frames, pictures=range(1, 6))))
        self.tool("eval", "coco", "truth.json", "results.json", code=4)
        self.assert_transcript_kept("eval_coco_lint")

    def test_limits_are_where_they_are_told_to_be(self):
        inside, corner = [(1, 0, [50, 50, 20, 20], 0.9)], (1, 0, [100, 100, 950, 950], 0.9)
        wide, lone, crowd, ignored = [500, 500, 400, 300], [(1, 0, A)], {"iscrowd": 1}, {"ignore": 1}
        row = [(1, i, tile(2 * i)) for i in range(9)]
        right = [(1, i, tile(2 * i), 0.9) for i in range(9)]
        shift = [(1, i + 1, tile(2 * i), 0.9) for i in range(8)]
        both = lone + [(2, 0, A)]
        cases = [
            *((f"edge {box}", lone, [(1, 0, box, 0.9)]) for box in (
                [-1, 0, 9, 9], [-1.01, 0, 9, 9], [0, -1, 9, 9], [0, -1.01, 9, 9], [992, 0, 9, 9], [992.01, 0, 9, 9], [0, 992, 9, 9],
                [0, 992.01, 9, 9], [5, 5, 0, 9], [5, 5, 9, 0], [5, 5, 1e-6, 9], [5, 5, 9, 1e-6])),
            *((f"corners {len(boxes)} {last}", lone, [corner] * 2 + [(1, 0, box, 0.9) for box in boxes] + [(1, 0, last, 0.9)])
              for boxes, last in (([[10, 10, 20, 20]] * 7, [1, 1, 5, 5]), ([[10, 10, 20, 20]] * 8, [1, 1, 5, 5]),
                                  ([], [5, 1, 5, 5]), ([], [1, 5, 5, 5]), ([], [1, 1, 1001, 5]), ([], [1, 1, 1001.1, 5]),
                                  ([], [1, 1, 5, 1001]), ([], [1, 1, 5, 1001.1]))),
            *((f"{bad} of {of} are no corners", lone, [corner] * (of - bad) + inside * bad) for bad, of in ((1, 99), (1, 100), (1, 101))),
            ("one corner", lone, [corner]),
            *((f"score {score}", lone, [(1, 0, A, 0.5), (1, 0, B, score)]) for score in (0, -0.001, 1, 1.001)),
            *((f"{many} in a picture", both, [(picture, 0, tile(i), 0.9) for picture, number in enumerate(many, 1) for i in range(number)])
              for many in ((100, 1), (101, 101), (101, 102), (102, 101))),
            *((f"{few} of {plain} classes shifted", row, right[:plain] + shift[plain:plain + few])
              for plain, few in ((0, 3), (0, 4), (2, 4), (2, 5), (3, 5), (4, 4))),
            *((f"overlap of {width} at {score}", [(1, 0, A), (1, 1, B)], [(1, 0, [0, 0, width, 100], score), (1, 0, [300, 0, width, 100], 0.9)])
              for width, score in ((50, 0.5), (49.9, 0.5), (50, 0.49))),
            ("ignored and crowd", [(1, 0, A, ignored), (1, 0, wide, crowd), (1, 1, B)], [
                (1, 0, A, 0.9), (1, 1, A, 0.8), (1, 0, [500, 500, 60, 60], 0.9), (1, 1, [500, 500, 60, 60], 0.7), (1, 1, [560, 500, 900, 60], 0.6),
                (1, 0, B, 0.9), (1, 0, B, 0.8), (1, 1, [300, 0, 100, 60], 0.9)]),
            ("equal overlaps", [(1, 0, A), (1, 1, A), (1, 0, B)], [(1, 1, A, 0.6), (1, 0, A, 0.6), (1, 1, B, 0.7), (1, 0, B, 0.6)]),
            ("as bad as another", both, [(2, 0, B, 0.9), (1, 0, B, 0.9)]),
            ("again and again", lone, [(1, 0, B, 0.9), (1, 0, A, 0.9), (1, 0, A, 0.8), (1, 0, B, 0.7), (1, 0, A, 0.6)]),
        ]
        for name, truth, results in cases:
            self.transcript += f"# {name}\n"
            self.evaluate(truth_file(truth, [f"c{i}" for i in range(9)], (1, 2)), result_file(results), "--worst", "1")
        sizeless = truth_file(lone, ["a"], (1, 2))
        sizeless["images"][0]["width"] = sizeless["images"][1]["height"] = 0
        self.evaluate(sizeless, result_file([(1, 0, [-9, 0, 9, 9], 0.9), (2, 0, [-9, 0, 9, 9], 0.9)]))
        pictures = truth_file([(i, 0, A) for i in range(2, 8)], pictures=range(2, 8))
        for step in (-1, 1):
            for few in (3, 4, 6):
                self.evaluate(pictures, result_file([(i + step, 0, A, 0.9) for i in range(8 - few - (step > 0), 8 - (step > 0))
                                                     if 2 <= i + step < 8]))
        for number in ("-0.001", "0", "1", "1.001"):
            self.tool("eval", "coco", "truth.json", "results.json", "--confusion-score", number, code=0 if "00" not in number else 2)
        self.assert_transcript_kept("eval_coco_limits")

    def test_refuses_bad_files(self):
        self.assert_session_kept("eval_coco_files")

    def test_refuses_wrong_usage(self):
        self.assert_session_kept("eval_coco_usage")


if __name__ == "__main__":
    main()
