# SPDX-License-Identifier: Apache-2.0
"""Heads without priors: builders that append them to the street's graph. head_priors.py has the others,
heads.py the command. Each ends as exporters end it: the last nodes are the family's own.
"""
import numpy as np

from head_graph import ALL, CLASSES, PERSON, decoded_distances

# Places of the key points in a box: eyes, nose, corners of the mouth.
POINTS = ((.35, .3), (.65, .3), (.5, .5), (.4, .7), (.6, .7))
POINT_LOGITS = (2.0, 1.5, 1.0, .5, 0.0)  # a point's score is the sigmoid of the person's logit and this
BINS = 8
MANY_BINS = 16                           # enough for all distances of the street
OWN_STRIDE = 16                          # the layer that own_formula has
OWN_LOGIT = 8.0                          # of the best class, before the softmax; others have 0


def raw(graph):
    graph.graph.output.extend(graph.raw_outputs)


def raw_limited(graph, reach):
    """The street's own layers without the boxes of the cells where reach(graph, layer) is 0."""
    for layer in graph.layers:
        logits = graph.masked(layer.logits(), graph.repeated(reach(graph, layer), CLASSES))
        graph.output(f"limited_stride{layer.stride}", graph.concat([graph.sliced(layer.name, 0, 4), logits]),
                     [1, 4 + CLASSES, layer.row_count, layer.columns])


# ---- Decoded in the graph -----------------------------------------------------------------------


def _corners(graph, cells):
    """Upper left and lower right corners in cells of their strides, 1 x 2 x N each, and the strides."""
    distances = decoded_distances(graph, cells)
    points, strides = graph.grid(.5)
    points = graph.constant(points)
    return (graph.node("Sub", points, graph.sliced(distances, 0, 2)),
            graph.node("Add", points, graph.sliced(distances, 2, 4)), strides)


def _centre_and_size(graph, cells):
    """Boxes in pixels, 1 x 4 x N."""
    low, high, strides = _corners(graph, cells)
    centre = graph.node("Div", graph.node("Add", low, high), 2.0)
    return graph.node("Mul", graph.concat([centre, graph.node("Sub", high, low)]), strides)


def _raw_cells(graph):
    return graph.joined([layer.name for layer in graph.layers], 4 + CLASSES)


def _combined(graph):
    cells = _raw_cells(graph)
    boxes = _centre_and_size(graph, cells)
    return graph.concat([boxes, graph.node("Sigmoid", graph.sliced(cells, 4, 4 + CLASSES))])


def combined(graph):
    graph.output("output0", _combined(graph), [1, 4 + CLASSES, graph.cells()])


def combined_rows(graph):
    graph.output("output0", graph.node("Transpose", _combined(graph), perm=[0, 2, 1]),
                 [1, graph.cells(), 4 + CLASSES])


def combined_keypoints(graph):
    cells = _raw_cells(graph)
    low, high, strides = _corners(graph, cells)
    logits = graph.sliced(cells, 4 + PERSON[0], 4 + PERSON[1])
    parts = [_centre_and_size(graph, cells), graph.node("Sigmoid", logits)]
    size = graph.node("Sub", high, low)
    for place, surer in zip(POINTS, POINT_LOGITS):
        inside = graph.node("Mul", size, np.array(place).reshape(1, 2, 1))
        parts.append(graph.node("Mul", graph.node("Add", low, inside), strides[:, :2]))
        parts.append(graph.node("Sigmoid", graph.node("Add", logits, surer)))
    graph.output("output0", graph.concat(parts), [1, 5 + 3 * len(POINTS), graph.cells()])


def end_to_end(graph):
    cells = _raw_cells(graph)
    low, high, strides = _corners(graph, cells)
    logits = graph.sliced(cells, 4, 4 + CLASSES)
    best = graph.node("ReduceMax", graph.node("Sigmoid", logits), axes=[1], keepdims=1)
    class_id = graph.affine(graph.best_class(logits, flat=True), np.arange(CLASSES)[None], flat=True)
    boxes = graph.node("Mul", graph.concat([low, high]), strides)
    graph.output("output0", graph.node("Transpose", graph.concat([boxes, best, class_id]), perm=[0, 2, 1]),
                 [1, graph.cells(), 6])


def boxes_and_scores(graph):
    cells = _raw_cells(graph)
    low, high, strides = _corners(graph, cells)
    size = np.array([graph.width, graph.height] * 2).reshape(1, 4, 1)
    boxes = graph.node("Mul", graph.concat([low, high]), strides / size)
    scores = graph.node("Sigmoid", graph.sliced(cells, 4, 4 + CLASSES))
    graph.output("boxes", graph.node("Transpose", boxes, perm=[0, 2, 1]), [1, graph.cells(), 4])
    graph.output("scores", graph.node("Transpose", scores, perm=[0, 2, 1]), [1, graph.cells(), CLASSES])


# ---- Objectness, offsets in cells ---------------------------------------------------------------


def _offset_rows(graph):
    """Offsets, log sizes, objectness and classes of all cells, 1 x N x 12."""
    maps = []
    for layer in graph.layers:
        objectness, classes = (graph.node("Sigmoid", logits) for logits in layer.objectness_and_classes)
        maps.append(graph.concat([layer.centre_and_log_size, objectness, classes]))
    return graph.node("Transpose", graph.joined(maps, 5 + CLASSES), perm=[0, 2, 1])


def objectness_offsets(graph):
    graph.output("output", _offset_rows(graph), [1, graph.cells(), 5 + CLASSES])


def objectness(graph):
    rows = _offset_rows(graph)
    corners, strides = (values.transpose(0, 2, 1) for values in graph.grid(0.0))
    centre = graph.node("Mul", graph.node("Add", graph.sliced(rows, 0, 2, 2), corners), strides[..., :2])
    size = graph.node("Mul", graph.node("Exp", graph.sliced(rows, 2, 4, 2)), strides[..., :2])
    scores = graph.sliced(rows, 4, 5 + CLASSES, 2)
    graph.output("output", graph.concat([centre, size, scores], axis=2), [1, graph.cells(), 5 + CLASSES])


def cls_obj_box_keypoints(graph):
    parts = {"cls": [], "obj": [], "bbox": [], "kps": []}
    for layer in graph.layers:
        score = layer.scores(PERSON)
        root = graph.node("Sqrt", score)
        parts["obj"].append((graph.logit(root), 1))
        parts["cls"].append((graph.logit(graph.node("Mul", score, root)), 1))
        parts["bbox"].append((layer.centre_and_log_size, 4))
        parts["kps"].append((layer.points(POINTS), 2 * len(POINTS)))
    for name, maps in parts.items():
        for layer, (tensor, channels) in zip(graph.layers, maps):
            rows = graph.rows(tensor, channels)
            rows = graph.node("Sigmoid", rows) if channels == 1 else rows
            graph.output(f"{name}_{layer.stride}", rows, [1, layer.cells, channels])


def own_reach(graph, layer):
    """1 where own_formula can express the box: its centre is less than a cell away from the cell's corner."""
    if layer.stride != OWN_STRIDE:
        return graph.affine(layer.name, np.zeros((1, 4 + CLASSES)))
    return graph.every(graph.between(graph.sliced(layer.box, 0, 2), -.999, .999), 1, 2)


def own_formula(graph):
    layer = next(layer for layer in graph.layers if layer.stride == OWN_STRIDE)
    centre = graph.clipped(graph.sliced(layer.box, 0, 2), -.999, .999)
    offsets = graph.node("Mul", graph.node("Sub", *(
        graph.node("Log", graph.node("Add", graph.node("Mul", centre, sign), 1.0)) for sign in (1.0, -1.0))), .5)
    shares = graph.affine(graph.sliced(layer.box, 2, 4),
                          np.diag([OWN_STRIDE / graph.width, OWN_STRIDE / graph.height]))
    surest = np.exp(OWN_LOGIT) / (np.exp(OWN_LOGIT) + CLASSES - 1)
    objectness_ = graph.node("Pow", graph.node("Mul", layer.best, surest ** -.4), 1 / .6)
    classes = graph.node("Transpose", graph.node("Mul", layer.is_best, OWN_LOGIT), perm=[0, 3, 2, 1])
    classes = graph.node("Transpose", graph.node("Softmax", classes, axis=3), perm=[0, 3, 2, 1])
    objectness_ = graph.node("Sigmoid", graph.masked(graph.logit(objectness_), own_reach(graph, layer)))
    graph.output("output", graph.concat([objectness_, offsets, graph.logit(shares), classes]),
                 [1, 5 + CLASSES, layer.row_count, layer.columns])


# ---- Distances ----------------------------------------------------------------------------------


def bin_reach(graph, layer, bins=BINS):
    """1 where bins can express the box: no side lies beyond the last bin."""
    return graph.every(graph.between(layer.distances, -1.0, bins - 1.001), 1, 4)


def _class_and_bin_maps(graph, layer, bins=BINS):
    """Class probabilities and the logarithms of the bins' shares. A distance lies between two bins, which
    share it."""
    weights = np.kron(np.eye(4), np.ones((bins, 1)))
    away = graph.node("Abs", graph.affine(layer.distances, weights, -np.tile(np.arange(bins), 4)))
    shares = graph.node("Relu", graph.node("Add", graph.node("Mul", away, -1.0), 1.0))
    logits = graph.masked(layer.logits(ALL), graph.repeated(bin_reach(graph, layer, bins), CLASSES))
    return graph.node("Sigmoid", logits), graph.node("Log", graph.node("Add", shares, 1e-9))


def _as_rows(graph, tensor, channels, layer):
    return graph.node("Transpose", graph.flat(tensor, channels, layer.cells), perm=[0, 2, 1])


def distance_bins(graph, bins=BINS):
    maps = [_class_and_bin_maps(graph, layer, bins) for layer in graph.layers]
    for part, (name, channels) in enumerate((("cls_pred_stride", CLASSES), ("dis_pred_stride", 4 * bins))):
        for layer, pair in zip(graph.layers, maps):
            graph.output(f"{name}_{layer.stride}", _as_rows(graph, pair[part], channels, layer),
                         [1, layer.cells, channels])


def distance_bins_many(graph):
    distance_bins(graph, MANY_BINS)


def distance_bins_joined(graph):
    for layer in graph.layers:
        both = graph.concat(_class_and_bin_maps(graph, layer))
        graph.output(f"output_stride_{layer.stride}", _as_rows(graph, both, CLASSES + 4 * BINS, layer),
                     [1, layer.cells, CLASSES + 4 * BINS])


def distance_bins_joined_planes(graph):
    for layer in graph.layers:
        graph.output(f"output_stride_{layer.stride}", graph.concat(_class_and_bin_maps(graph, layer)),
                     [1, CLASSES + 4 * BINS, layer.row_count, layer.columns])


def distance_bins_one_output(graph):
    maps = [graph.concat(_class_and_bin_maps(graph, layer)) for layer in graph.layers]
    graph.output("output", graph.node("Transpose", graph.joined(maps, CLASSES + 4 * BINS), perm=[0, 2, 1]),
                 [1, graph.cells(), CLASSES + 4 * BINS])


def score_distance_keypoints(graph):
    """Two anchors in each cell, both at its corner: the first takes what is taller than wide."""
    parts = {"score": [], "bbox": [], "kps": []}
    twice = np.ones((2, 1))
    for layer in graph.layers:
        taller = graph.step(graph.affine(layer.box, [[0, 0, -1, 1]]))
        chosen = graph.affine(taller, [[1], [-1]], [0, 1])
        logits = graph.repeated(layer.logits(PERSON), 2)
        parts["score"].append((graph.masked(logits, chosen), 1))
        parts["bbox"].append((graph.affine(layer.distances, np.kron(twice, np.eye(4)), [-.5, -.5, .5, .5] * 2), 4))
        points = 2 * len(POINTS)
        parts["kps"].append((graph.affine(layer.points(POINTS), np.kron(twice, np.eye(points))), points))
    for name, maps in parts.items():
        for layer, (tensor, channels) in zip(graph.layers, maps):
            rows = graph.rows(tensor, channels, leading=())
            rows = graph.node("Sigmoid", rows) if channels == 1 else rows
            graph.output(f"{name}_{layer.stride}", rows, [2 * layer.cells, channels])
