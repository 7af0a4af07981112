# SPDX-License-Identifier: Apache-2.0
"""scene_test.py - the street's truth is the truth: boxes, hidden shares, files.

usage: scene_test.py SCENE_FOLDER [unittest options]
"""
import json
import pathlib
import sys
import tempfile
import unittest

import numpy as np

SCENE = pathlib.Path(sys.argv.pop(1)).resolve()
sys.path[:0] = [str(SCENE), str(SCENE.parent)]

import actors  # noqa: E402
import figures  # noqa: E402
import split  # noqa: E402
import street  # noqa: E402
import truth as truth_files  # noqa: E402

EMPTY = {kind: 0 for kind in actors.STREET}


def standing(figure_class, x, y, seed=3):
    return actors.Actor(figure_class(np.random.default_rng(seed)), [(-1, x, y), (9, x, y)])


class SceneTest(unittest.TestCase):
    def scene(self, *standing_actors):
        scene = street.Scene(11, EMPTY, 2.0, "day")
        scene._light.sun = None  # soft shadows under the feet only
        scene.actors = list(standing_actors)
        return scene

    def truths(self, *standing_actors):
        return self.scene(*standing_actors).render(1.0)[1]

    def test_a_seed_is_a_scene(self):
        frame, truths = street.Scene(5, actors.BUSY, 4.0).render(2.0)
        again, same = street.Scene(5, actors.BUSY, 4.0).render(2.0)
        other, _ = street.Scene(6, actors.BUSY, 4.0).render(2.0)
        self.assertTrue(np.array_equal(frame, again))
        self.assertEqual([vars(t) for t in truths], [vars(t) for t in same])
        self.assertFalse(np.array_equal(frame, other))
        self.assertTrue(any(t.moving for t in truths))

    def test_boxes_fit_what_is_drawn(self):
        empty, nothing = self.scene().render(1.0)
        self.assertEqual(nothing, [])
        for figure, y in ((figures.Person, 8.0), (figures.Car, 12.0), (figures.Truck, 15.0),
                          (figures.Bicycle, 11.0), (figures.Dog, 8.0), (figures.Cat, 8.0)):
            frame, truths = self.scene(standing(figure, 0.3, y)).render(1.0)
            whole = truths[0]
            changed = np.abs(frame.astype(int) - empty).max(2) > 14
            rows, columns = np.nonzero(changed)
            self.assertLessEqual(abs(rows.min() - whole.top), 3, figure)
            # The lower part has shadows beside it.
            upper = rows < whole.top + 0.5 * whole.height
            self.assertGreaterEqual(columns[upper].min(), whole.left - 2, figure)
            self.assertLess(columns[upper].max(), whole.left + whole.width + 2, figure)
            inside = changed[whole.top:whole.top + whole.height, whole.left:whole.left + whole.width]
            self.assertGreater(inside.any(0).mean(), 0.85, figure)
            self.assertGreater(inside.any(1).mean(), 0.85, figure)

    def test_heads_sit_on_persons_and_riders(self):
        for figure in (figures.Person, figures.Bicycle):
            whole, head = self.truths(standing(figure, 0.3, 8.0))
            self.assertEqual((whole.class_id, head.class_id), (figure.class_id, figures.HEAD_CLASS))
            self.assertLessEqual(abs(head.top - whole.top), 1)
            self.assertTrue(whole.left <= head.left and
                            head.left + head.width <= whole.left + whole.width)
            self.assertLess(head.height, 0.3 * whole.height)
        for decoy in (figures.CoatStand, figures.Bin, figures.Poster):
            self.assertEqual([t.class_id for t in self.truths(standing(decoy, 0.3, 8.0))],
                             [figures.DECOY])

    def test_hidden_shares(self):
        behind, before = standing(figures.Dog, 0.0, 12.0), standing(figures.Truck, 0.0, 9.5)
        alone = self.truths(behind)[0]
        self.assertEqual((alone.hidden, alone.ignore), (0.0, False))
        pair = {t.class_id: t for t in self.truths(behind, before)}
        self.assertNotIn(figures.DOG, pair)  # not a pixel is seen
        self.assertEqual(pair[figures.TRUCK].hidden, self.truths(before)[0].hidden)
        parted = self.truths(behind, standing(figures.Person, 0.0, 10.0))
        dog = next(t for t in parted if t.class_id == figures.DOG)
        self.assertGreater(dog.hidden, 0.05)
        self.assertEqual(dog.ignore, dog.hidden > street.MOST_HIDDEN)
        self.assertEqual((dog.left, dog.width), (alone.left, alone.width))  # boxes are of whole objects

    def test_the_frame_cuts(self):
        cut = self.truths(standing(figures.Car, 6.5, 10.7))[0]
        self.assertGreater(cut.hidden, 0.2)
        self.assertEqual(cut.left + cut.width, 1024)
        self.assertGreater(cut.left, 0)

    def test_small_objects_are_to_be_ignored(self):
        near, far = (self.truths(standing(figures.Cat, 0.0, y))[0] for y in (8.0, 21.0))
        self.assertFalse(near.ignore)
        self.assertEqual(far.ignore, far.width * far.height < 24 ** 2)
        self.assertTrue(far.ignore)

    def test_files_agree(self):
        truths = self.truths(standing(figures.Person, 0.0, 8.0), standing(figures.Bin, 2.0, 8.0))
        with tempfile.TemporaryDirectory() as folder:
            coco, rows, decoys = (pathlib.Path(folder) / name for name in ("c.json", "m.txt", "d.txt"))
            frames = [("a.jpg", []), ("b.jpg", truths)]
            truth_files.write_coco(coco, frames)
            truth_files.write_mot(rows, frames)
            truth_files.write_mot(decoys, frames, decoys=True)
            annotations = json.loads(coco.read_text())["annotations"]
            lines = [line.split(",") for line in rows.read_text().splitlines()]
            self.assertEqual([[int(v) for v in line[2:6]] for line in lines],
                             [a["bbox"] for a in annotations])
            self.assertEqual([(2, a["category_id"]) for a in annotations],
                             [(int(line[0]), int(line[7])) for line in lines])
            self.assertEqual([line.split(",")[7] for line in decoys.read_text().splitlines()], ["-1"])

    def test_nothing_is_measured_on_training_scenes(self):
        ranges = {name: some for name, some in vars(split).items()
                  if isinstance(some, range) and name != "CALIBRATION"}
        self.assertLessEqual({"TRAINING", "LOOKALIKES", "TEST"}, set(ranges))
        seeds = [seed for some in ranges.values() for seed in some] + [split.DEMO]
        self.assertEqual(len(seeds), len(set(seeds)))
        self.assertLessEqual(set(split.CALIBRATION), set(split.TRAINING))


if __name__ == "__main__":
    unittest.main()
