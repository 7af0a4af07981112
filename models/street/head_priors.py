# SPDX-License-Identifier: Apache-2.0
"""Heads whose cells have several boxes of given sizes: anchors and priors. Builders for heads.py, like those
of head_families.py.

The street has one box for each cell. It goes to one of the cell's anchors, the others are empty.
"""
import numpy as np

from head_families import POINTS
from head_graph import ALL, CLASSES, NEVER, PERSON, TINY

# Width and height in pixels, by stride.
ANCHORS = {8: ((10, 13), (16, 30), (33, 23)), 16: ((30, 61), (62, 45), (59, 119)),
           32: ((116, 90), (156, 198), (373, 326))}
EDGE = .0005  # how near the sigmoid of an anchor's value comes to 0 and 1

# Sides of square priors in pixels, by stride.
SIDES = {8: (10, 16, 24), 16: (32, 48), 32: (64, 96), 64: (128, 192, 256)}
LANDMARK_SIDES = {8: (16, 32), 16: (64, 128), 32: (256, 512)}
CENTRE_VARIANCE, SIZE_VARIANCE = .1, .2


def _in_order(groups):
    """Weights that sort channels: groups are (anchors, channels of each); the result has for each anchor the
    channels of all groups."""
    starts = np.cumsum([0] + [anchors * channels for anchors, channels in groups])
    order = [start + anchor * channels + channel for anchor in range(groups[0][0])
             for start, (_, channels) in zip(starts, groups) for channel in range(channels)]
    return np.eye(starts[-1])[order]


def _nearest(graph, layer, sides):
    """1 for the one of ascending sides (of squares, in pixels) that is nearest to the box in area, otherwise 0."""
    sides = np.array(sides, float) / layer.stride
    between = np.log(sides[:-1] * sides[1:])
    log_area = graph.affine(layer.centre_and_log_size, [[0, 0, 1, 1]])
    above = graph.step(graph.affine(log_area, np.ones((len(between), 1)), -between))
    count = len(sides)
    weights = np.eye(count, count - 1, k=-1) - np.eye(count, count - 1)
    return graph.affine(above, weights, np.eye(count)[0])


# ---- Anchors ------------------------------------------------------------------------------------


def _values_and_reached(graph, layer):
    """Of each anchor the box as sigmoids, and 1 where they can express it: an anchor reaches sizes up to four
    times its own, and centres up to half a cell beyond the cell."""
    anchors = np.array(ANCHORS[layer.stride], float) / layer.stride
    count = len(anchors)
    roots = graph.node("Sqrt", graph.sliced(layer.box, 2, 4))
    weights = np.concatenate([np.diag([.5, .5, *(.5 / np.sqrt(anchor))]) for anchor in anchors])
    values = graph.affine(graph.concat([graph.sliced(layer.box, 0, 2), roots]), weights, [.25, .25, 0, 0] * count)
    return values, graph.every(graph.between(values, EDGE, 1 - EDGE), count, 4)


def anchor_reach(graph, layer):
    """1 where one of the cell's anchors can express the box."""
    return graph.node("ReduceMax", _values_and_reached(graph, layer)[1], axes=[1], keepdims=1)


def _anchor_map(graph, layer):
    """1 x A*(5+nc) x H x W, logits. A box goes to the anchor nearest in area, or where that does not reach it,
    to the first that does; a box that none reaches cannot be expressed."""
    count = len(ANCHORS[layer.stride])
    values, reached = _values_and_reached(graph, layer)
    first = graph.node("Relu", graph.affine(reached, np.eye(count) - np.tri(count, k=-1)))
    nearest = graph.node("Mul", _nearest(graph, layer, np.sqrt(np.prod(ANCHORS[layer.stride], 1))), reached)
    without = graph.affine(nearest, -np.ones((count, count)), np.ones(count))
    chosen = graph.node("Add", nearest, graph.node("Mul", first, without))
    boxes = graph.logit(graph.clipped(values, EDGE, 1 - EDGE))
    objectness, classes = layer.objectness_and_classes
    objectness = graph.masked(graph.repeated(objectness, count), chosen)
    classes = graph.affine(classes, np.tile(np.eye(CLASSES), (count, 1)))
    return graph.affine(graph.concat([boxes, objectness, classes]),
                        _in_order([(count, 4), (count, 1), (count, CLASSES)]))


def _by_anchor(graph, tensor, layer):
    """1 x A x H x W x (5+nc)."""
    split = graph.node("Reshape", tensor, np.array([1, len(ANCHORS[layer.stride]), 5 + CLASSES,
                                                    layer.row_count, layer.columns]))
    return graph.node("Transpose", split, perm=[0, 1, 3, 4, 2])


def anchors(graph):
    for layer in graph.layers:
        graph.output(f"output_stride_{layer.stride}", _anchor_map(graph, layer),
                     [1, len(ANCHORS[layer.stride]) * (5 + CLASSES), layer.row_count, layer.columns])


def anchors_5d(graph):
    for layer in graph.layers:
        tensor = _by_anchor(graph, _anchor_map(graph, layer), layer)
        graph.output(f"output_stride_{layer.stride}", tensor,
                     [1, len(ANCHORS[layer.stride]), layer.row_count, layer.columns, 5 + CLASSES])


def anchors_decoded(graph):
    parts, rows = [], 0
    for layer in graph.layers:
        sizes = np.array(ANCHORS[layer.stride], float)
        shape = (1, len(sizes), layer.row_count, layer.columns, 2)
        values = graph.node("Sigmoid", _by_anchor(graph, _anchor_map(graph, layer), layer))
        corners = np.broadcast_to(layer.corners().transpose(1, 2, 0) - .5, shape)
        centre = graph.node("Mul", graph.sliced(values, 0, 2, 4), 2.0)
        centre = graph.node("Mul", graph.node("Add", centre, corners), float(layer.stride))
        size = graph.node("Pow", graph.node("Mul", graph.sliced(values, 2, 4, 4), 2.0), 2.0)
        size = graph.node("Mul", size, np.broadcast_to(sizes[:, None, None], shape))
        both = graph.concat([centre, size, graph.sliced(values, 4, 5 + CLASSES, 4)], axis=4)
        parts.append(graph.node("Reshape", both, np.array([1, -1, 5 + CLASSES])))
        rows += len(sizes) * layer.cells
    graph.output("output", graph.concat(parts), [1, rows, 5 + CLASSES])


# ---- Priors -------------------------------------------------------------------------------------


def _locations(graph, layer, all_sides):
    sides = np.array(all_sides[layer.stride], float) / layer.stride
    weights = np.concatenate([np.diag([1 / (CENTRE_VARIANCE * side)] * 2 + [1 / SIZE_VARIANCE] * 2) for side in sides])
    bias = np.concatenate([[-.5 / (CENTRE_VARIANCE * side)] * 2 + [-np.log(side) / SIZE_VARIANCE] * 2
                           for side in sides])
    return graph.affine(layer.centre_and_log_size, weights, bias)


def _landmarks(graph, layer, all_sides):
    sides = np.array(all_sides[layer.stride], float) / layer.stride
    weights = np.concatenate([np.eye(2 * len(POINTS)) / (CENTRE_VARIANCE * side) for side in sides])
    bias = np.repeat(-.5 / (CENTRE_VARIANCE * sides), 2 * len(POINTS))
    return graph.affine(layer.points(POINTS), weights, bias)


def _logits_with_background(graph, layer, all_sides, classes):
    """Before the softmax: background, then classes, of which a cell has its best one only: the scores of all
    together could exceed 1."""
    count, columns = len(all_sides[layer.stride]), classes[1] - classes[0]
    scores = layer.scores(classes)
    if columns > 1:
        scores = graph.node("Mul", scores, layer.is_best)
    nearest = _nearest(graph, layer, all_sides[layer.stride])
    chosen = graph.affine(nearest, np.kron(np.eye(count), np.ones((columns, 1))))
    scores = graph.node("Mul", graph.affine(scores, np.tile(np.eye(columns), (count, 1))), chosen)
    background = graph.node("Relu", graph.affine(scores, -np.kron(np.eye(count), np.ones((1, columns))),
                                                 np.ones(count)))
    both = graph.affine(graph.concat([background, scores]), _in_order([(count, 1), (count, columns)]))
    return graph.node("Log", graph.node("Add", both, TINY))


def _logits(graph, layer, all_sides):
    count = len(all_sides[layer.stride])
    nearest = _nearest(graph, layer, all_sides[layer.stride])
    chosen = graph.affine(nearest, np.kron(np.eye(count), np.ones((CLASSES, 1))))
    return graph.masked(graph.affine(layer.logits(ALL), np.tile(np.eye(CLASSES), (count, 1))), chosen)


def _empty_map(graph, values):
    """A layer of twice the last stride, with the same values in each cell."""
    last = graph.layers[-1]
    rows, columns = -(-last.row_count // 2), -(-last.columns // 2)
    return graph.affine(last.name, np.zeros((len(values), 4 + CLASSES)), values, stride=2), rows * columns


def _all_rows(graph, maps, channels):
    return graph.concat([graph.rows(tensor, channels) for tensor in maps])


def _four_strides(graph, logits_of, empty_logits):
    """Locations and logits of the three layers, and of a fourth without objects; and the number of priors."""
    locations = [_locations(graph, layer, SIDES) for layer in graph.layers]
    logits = [logits_of(layer) for layer in graph.layers]
    count = len(SIDES[64])
    locations.append(_empty_map(graph, np.zeros(4 * count))[0])
    empty, cells = _empty_map(graph, np.tile(empty_logits, count))
    priors_ = sum(layer.cells * len(SIDES[layer.stride]) for layer in graph.layers) + cells * count
    return _all_rows(graph, locations, 4), _all_rows(graph, logits + [empty], len(empty_logits)), priors_


def priors(graph):
    locations, logits, count = _four_strides(
        graph, lambda layer: _logits_with_background(graph, layer, SIDES, ALL), [0.0] + [NEVER] * CLASSES)
    graph.output("scores", graph.node("Softmax", logits, axis=2), [1, count, 1 + CLASSES])
    graph.output("boxes", locations, [1, count, 4])


def priors_no_background(graph):
    locations, logits, count = _four_strides(graph, lambda layer: _logits(graph, layer, SIDES), [NEVER] * CLASSES)
    graph.output("scores", graph.node("Sigmoid", logits), [1, count, CLASSES])
    graph.output("boxes", locations, [1, count, 4])


def priors_landmarks(graph):
    sides = LANDMARK_SIDES
    count = sum(layer.cells * len(sides[layer.stride]) for layer in graph.layers)
    points = 2 * len(POINTS)
    locations = _all_rows(graph, [_locations(graph, layer, sides) for layer in graph.layers], 4)
    logits = _all_rows(graph, [_logits_with_background(graph, layer, sides, PERSON) for layer in graph.layers], 2)
    landmarks = _all_rows(graph, [_landmarks(graph, layer, sides) for layer in graph.layers], points)
    graph.output("loc", locations, [1, count, 4])
    graph.output("conf", graph.node("Softmax", logits, axis=2), [1, count, 2])
    graph.output("landms", landmarks, [1, count, points])
