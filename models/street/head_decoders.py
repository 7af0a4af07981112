# SPDX-License-Identifier: Apache-2.0
"""Decoders of the families of heads.py, in numpy, written from what a family's outputs mean. They share no
code and no table with what writes the networks, so that a fault in one shows as a difference.

A decoder takes the outputs by name and the input's width and height, and returns Rows.
"""
import numpy as np


class Rows:
    """Boxes as two corners in pixels of the input, scores of the best class, its id; points or None."""

    def __init__(self, boxes, scores, points=None, point_scores=None):
        scores = scores if scores.ndim == 2 else scores[:, None]
        self.boxes, self.scores, self.classes = boxes, scores.max(1), scores.argmax(1)
        self.points, self.point_scores = points, point_scores


def sigmoid(x):
    return 1 / (1 + np.exp(-x.astype(float)))


def corners_of(x, y, width, height):
    return np.stack([x - width / 2, y - height / 2, x + width / 2, y + height / 2], 1)


def all_cells(width, height, strides=(8, 16, 32), each=1):
    """Column, row and stride of the cells in the order of the rows, `each` rows for a cell."""
    parts = []
    for stride in strides:
        columns, rows = -(-width // stride), -(-height // stride)
        for row in range(rows):
            for column in range(columns):
                parts.extend([(column, row, stride)] * each)
    return np.array(parts, float).T


def of_strides(outputs, name):
    return [outputs[f"{name}_{stride}"] for stride in (8, 16, 32)]


def only(outputs):
    (values,) = outputs.values()
    return values


# ---- Decoded in the graph -----------------------------------------------------------------------


def combined(outputs, _width, _height):
    x, y, w, h, *scores = only(outputs)[0]
    return Rows(corners_of(x, y, w, h), np.stack(scores, 1))


def combined_rows(outputs, _width, _height):
    rows = only(outputs)[0]
    return Rows(corners_of(*rows[:, :4].T), rows[:, 4:])


def combined_keypoints(outputs, _width, _height):
    values = only(outputs)[0].T
    points = values[:, 5:].reshape(len(values), -1, 3)
    return Rows(corners_of(*values[:, :4].T), values[:, 4], points[..., :2], points[..., 2])


def end_to_end(outputs, _width, _height):
    rows = only(outputs)[0]
    found = Rows(rows[:, :4], rows[:, 4])
    found.classes = rows[:, 5].astype(int)
    if not np.array_equal(found.classes, rows[:, 5]):
        raise ValueError("a class id is no whole number")
    return found


def boxes_and_scores(outputs, width, height):
    return Rows(outputs["boxes"][0] * [width, height, width, height], outputs["scores"][0])


def objectness(outputs, _width, _height):
    rows = only(outputs)[0]
    return Rows(corners_of(*rows[:, :4].T), rows[:, 5:] * rows[:, 4:5])


# ---- Offsets in cells ---------------------------------------------------------------------------


def objectness_offsets(outputs, width, height):
    rows = only(outputs)[0].astype(float)
    column, row, stride = all_cells(width, height)
    boxes = corners_of((column + rows[:, 0]) * stride, (row + rows[:, 1]) * stride,
                       np.exp(rows[:, 2]) * stride, np.exp(rows[:, 3]) * stride)
    return Rows(boxes, rows[:, 5:] * rows[:, 4:5])


def cls_obj_box_keypoints(outputs, width, height):
    classes, objects, boxes, points = (np.concatenate(of_strides(outputs, name), 1)[0].astype(float)
                                       for name in ("cls", "obj", "bbox", "kps"))
    column, row, stride = all_cells(width, height)
    x, y = (boxes[:, 0] + column) * stride, (boxes[:, 1] + row) * stride
    places = np.stack([(points[:, 0::2] + column[:, None]) * stride[:, None],
                       (points[:, 1::2] + row[:, None]) * stride[:, None]], 2)
    return Rows(corners_of(x, y, np.exp(boxes[:, 2]) * stride, np.exp(boxes[:, 3]) * stride),
                np.sqrt(classes * objects), places)


def own_formula(outputs, width, height):
    values = only(outputs)[0].astype(float)
    rows, columns = values.shape[1:]
    found, scores = [], []
    for row in range(rows):
        for column in range(columns):
            objectness_, dx, dy, w, h, *classes = values[:, row, column]
            x, y = (column + np.tanh(dx)) / columns * width, (row + np.tanh(dy)) / rows * height
            found.append((x, y, sigmoid(w) * width, sigmoid(h) * height))
            scores.append(objectness_ ** .6 * np.array(classes) ** .4)
    return Rows(corners_of(*np.array(found).T), np.array(scores))


# ---- Distances ----------------------------------------------------------------------------------


def _binned(scores, bins, width, height):
    bins = bins.reshape(len(bins), 4, -1).astype(float)
    shares = np.exp(bins - bins.max(2, keepdims=True))
    shares /= shares.sum(2, keepdims=True)
    column, row, stride = all_cells(width, height)
    left, top, right, bottom = (shares * range(bins.shape[2])).sum(2).T * stride
    x, y = (column + .5) * stride, (row + .5) * stride
    return Rows(np.stack([x - left, y - top, x + right, y + bottom], 1), scores)


def distance_bins(outputs, width, height):
    scores, bins = (np.concatenate(of_strides(outputs, name), 1)[0] for name in ("cls_pred_stride", "dis_pred_stride"))
    return _binned(scores, bins, width, height)


def distance_bins_joined(outputs, width, height):
    rows = np.concatenate(of_strides(outputs, "output_stride"), 1)[0]
    return _binned(rows[:, :-32], rows[:, -32:], width, height)


def distance_bins_joined_planes(outputs, width, height):
    rows = np.concatenate([layer[0].reshape(layer.shape[1], -1) for layer in of_strides(outputs, "output_stride")], 1).T
    return _binned(rows[:, :-32], rows[:, -32:], width, height)


def distance_bins_one_output(outputs, width, height):
    rows = only(outputs)[0]
    return _binned(rows[:, :-32], rows[:, -32:], width, height)


def score_distance_keypoints(outputs, width, height):
    scores, sides, points = (np.concatenate(of_strides(outputs, name)) for name in ("score", "bbox", "kps"))
    column, row, stride = all_cells(width, height, each=2)
    x, y = column * stride, row * stride
    left, top, right, bottom = sides.T * stride
    places = np.stack([x[:, None] + points[:, 0::2] * stride[:, None],
                       y[:, None] + points[:, 1::2] * stride[:, None]], 2)
    return Rows(np.stack([x - left, y - top, x + right, y + bottom], 1), scores, places)


def raw(outputs, width, height):
    values = np.concatenate([layer[0].reshape(layer.shape[1], -1) for layer in outputs.values()], 1).T
    column, row, stride = all_cells(width, height)
    left, top, right, bottom = (4 * sigmoid(values[:, :4]).T) ** 2 * stride
    x, y = (column + .5) * stride, (row + .5) * stride
    return Rows(np.stack([x - left, y - top, x + right, y + bottom], 1), sigmoid(values[:, 4:]))


# ---- Anchors and priors -------------------------------------------------------------------------

_ANCHOR_SIZES = {8: [10, 13, 16, 30, 33, 23], 16: [30, 61, 62, 45, 59, 119], 32: [116, 90, 156, 198, 373, 326]}


def anchors_5d(outputs, _width, _height):
    boxes, scores = [], []
    for stride, layer in zip((8, 16, 32), of_strides(outputs, "output_stride")):
        values = sigmoid(layer[0])
        for anchor in range(3):
            width, height = _ANCHOR_SIZES[stride][2 * anchor:2 * anchor + 2]
            for row in range(values.shape[1]):
                columns = np.arange(values.shape[2])
                cell = values[anchor, row]
                boxes.append(corners_of((2 * cell[:, 0] - .5 + columns) * stride, (2 * cell[:, 1] - .5 + row) * stride,
                                        (2 * cell[:, 2]) ** 2 * width, (2 * cell[:, 3]) ** 2 * height))
                scores.append(cell[:, 4:5] * cell[:, 5:])
    return Rows(np.concatenate(boxes), np.concatenate(scores))


def anchors(outputs, width, height):
    split = {name: np.stack(np.split(layer[0], 3)).transpose(0, 2, 3, 1)[None] for name, layer in outputs.items()}
    return anchors_5d(split, width, height)


def _against_priors(boxes, width, height, sides):
    """Boxes, and centre and side of each row's prior."""
    layers = [all_cells(width, height, (stride,), len(sizes)) for stride, sizes in sides.items()]
    column, row, stride = np.concatenate(layers, 1)
    side = np.concatenate([np.resize(sizes, cells.shape[1]) for cells, sizes in zip(layers, sides.values())])
    x, y = (column + .5) * stride, (row + .5) * stride
    return corners_of(x + boxes[:, 0] * .1 * side, y + boxes[:, 1] * .1 * side,
                      side * np.exp(boxes[:, 2] * .2), side * np.exp(boxes[:, 3] * .2)), x, y, side


_FOUR_STRIDES = {8: [10, 16, 24], 16: [32, 48], 32: [64, 96], 64: [128, 192, 256]}


def priors(outputs, width, height):
    boxes = _against_priors(outputs["boxes"][0].astype(float), width, height, _FOUR_STRIDES)[0]
    return Rows(boxes, outputs["scores"][0][:, 1:])


def priors_no_background(outputs, width, height):
    return Rows(_against_priors(outputs["boxes"][0].astype(float), width, height, _FOUR_STRIDES)[0],
                outputs["scores"][0])


def priors_landmarks(outputs, width, height):
    boxes, x, y, side = _against_priors(outputs["loc"][0].astype(float), width, height,
                                        {8: [16, 32], 16: [64, 128], 32: [256, 512]})
    marks = outputs["landms"][0].reshape(-1, 5, 2) * (.1 * side)[:, None, None] + np.stack([x, y], 1)[:, None]
    return Rows(boxes, outputs["conf"][0][:, 1], marks)


DECODERS = {
    "combined": combined, "combined-rows": combined_rows, "combined-keypoints": combined_keypoints,
    "end-to-end": end_to_end, "objectness": objectness, "objectness-offsets": objectness_offsets,
    "anchors": anchors, "anchors-5d": anchors_5d, "anchors-decoded": objectness,
    "distance-bins": distance_bins, "distance-bins-many": distance_bins,
    "distance-bins-joined": distance_bins_joined,
    "distance-bins-joined-planes": distance_bins_joined_planes,
    "distance-bins-one-output": distance_bins_one_output, "cls-obj-box-keypoints": cls_obj_box_keypoints,
    "priors": priors, "priors-landmarks": priors_landmarks, "priors-no-background": priors_no_background,
    "score-distance-keypoints": score_distance_keypoints, "own-formula": own_formula,
    "boxes-and-scores": boxes_and_scores, "raw": raw, "raw-as-anchors": raw, "raw-as-distance-bins": raw,
    "raw-as-own-formula": raw,
}
