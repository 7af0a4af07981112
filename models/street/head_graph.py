# SPDX-License-Identifier: Apache-2.0
"""The street network's graph, and nodes behind its three layers. head_families.py and head_priors.py use it
to write the network with other heads.

Operators and shapes are those that OpenCV 4.6 computes rightly: constants of a tensor's own shape or one
number for each channel, no constant divided by a tensor, no Clip with its limits as inputs.
"""
import functools

import numpy as np
import onnx
from onnx import helper, numpy_helper

CLASSES = 7
PERSON = (0, 1)           # the range of classes that heads of one class have
ALL = (0, CLASSES)
NEVER = -20.0             # the logit of what is not there
TINY = 1e-9               # keeps logarithms finite
STEEP = 1e6               # makes a step of a sigmoid


class HeadGraph:
    """A network that gets new nodes. Tensors are names."""

    def __init__(self, path):
        self.model = onnx.load(str(path))
        self.graph = self.model.graph
        shape = [d.dim_value for d in self.graph.input[0].type.tensor_type.shape.dim]
        self.height, self.width = shape[2:]
        self.layers = []
        for layer in self.graph.output:
            rows, columns = (d.dim_value for d in layer.type.tensor_type.shape.dim[2:])
            self.layers.append(Layer(self, layer.name, self.height // rows, rows, columns))
        self.raw_outputs = list(self.graph.output)
        del self.graph.output[:]
        self.count = 0

    def cells(self):
        return sum(layer.cells for layer in self.layers)

    def constant(self, values):
        values = np.asarray(values)
        values = values.astype(np.int64 if values.dtype.kind in "iu" else np.float32)
        self.count += 1
        name = f"/head/constant_{self.count}"
        self.graph.initializer.append(numpy_helper.from_array(values, name))
        return name

    def node(self, operation, *inputs, **attributes):
        """Appends a node; inputs are tensors, or numbers and arrays, which become constants. Its output."""
        names = [i if isinstance(i, str) else self.constant(np.atleast_1d(i)) for i in inputs]
        self.count += 1
        name = f"/head/{operation}_{self.count}"
        self.graph.node.append(helper.make_node(operation, names, [name + "_output_0"], name=name, **attributes))
        return name + "_output_0"

    def output(self, name, tensor, shape):
        """Makes a new tensor an output of the network, under that name."""
        for node in self.graph.node:
            for tensors in (node.input, node.output):
                for i, known in enumerate(tensors):
                    tensors[i] = name if known == tensor else known
        self.graph.output.append(helper.make_tensor_value_info(name, onnx.TensorProto.FLOAT, shape))

    # ---- Pieces that several heads are made of ----------------------------------------------------

    def sliced(self, tensor, first, end, axis=1):
        return self.node("Slice", tensor, np.array([first]), np.array([end]), np.array([axis]))

    def concat(self, tensors, axis=1):
        return tensors[0] if len(tensors) == 1 else self.node("Concat", *tensors, axis=axis)

    def affine(self, tensor, weights, bias=None, flat=False, stride=1):
        """weights (outputs x inputs) and bias for each cell, as a convolution of one cell."""
        weights = np.asarray(weights, np.float32)
        bias = np.zeros(len(weights)) if bias is None else np.asarray(bias, float)
        sides = 1 if flat else 2
        return self.node("Conv", tensor, weights.reshape(weights.shape + (1,) * sides), bias,
                         kernel_shape=[1] * sides, strides=[stride] * sides)

    def repeated(self, tensor, times, flat=False):
        """A tensor of one channel, that many times."""
        return tensor if times == 1 else self.affine(tensor, np.ones((times, 1)), flat=flat)

    def logit(self, probability):
        rest = self.node("Relu", self.node("Add", self.node("Mul", probability, -1.0), 1.0))
        return self.node("Sub", *(self.node("Log", self.node("Add", p, TINY)) for p in (probability, rest)))

    def masked(self, logits, mask):
        """logits where the mask is 1, NEVER where it is 0."""
        return self.node("Add", self.node("Mul", self.node("Add", logits, -NEVER), mask), NEVER)

    def step(self, tensor):
        """0 below 0, 1 above it."""
        return self.node("Sigmoid", self.node("Mul", tensor, STEEP))

    def best_class(self, logits, flat=False):
        """1 for the best class of a cell, 0 for the others. Logits, since small scores differ too little."""
        best = self.node("ReduceMax", logits, axes=[1], keepdims=1)
        ahead = self.node("Sub", logits, self.repeated(best, CLASSES, flat))
        return self.node("Relu", self.node("Add", self.node("Mul", ahead, STEEP), 1.0))

    def between(self, tensor, low, high):
        """1 where a value lies between the limits, otherwise 0."""
        above = self.step(self.node("Add", tensor, -low))
        below = self.step(self.node("Add", self.node("Mul", tensor, -1.0), high))
        return self.node("Mul", above, below)

    def clipped(self, tensor, low, high):
        above = self.node("Relu", self.node("Add", tensor, -low))
        return self.node("Add", self.node("Sub", above, self.node("Relu", self.node("Add", above, low - high))), low)

    def every(self, mask, groups, channels):
        """1 where all channels of a group are, for a mask of groups x channels."""
        return self.node("Relu", self.affine(mask, np.kron(np.eye(groups), np.ones((1, channels))),
                                             np.full(groups, 1.0 - channels)))

    def flat(self, tensor, channels, cells):
        return self.node("Reshape", tensor, np.array([1, channels, cells]))

    def joined(self, tensors, channels):
        """Maps of all layers as 1 x channels x N."""
        return self.concat([self.flat(tensor, channels, layer.cells)
                            for tensor, layer in zip(tensors, self.layers)], axis=2)

    def rows(self, tensor, channels, leading=(1,)):
        """A map as rows of that many channels: cells in order, and of a cell one row after the other."""
        cell_by_cell = self.node("Transpose", tensor, perm=[0, 2, 3, 1])
        return self.node("Reshape", cell_by_cell, np.array([*leading, -1, channels]))

    def grid(self, place):
        """Cell indices (x, y) plus place, 1 x 2 x N, and strides as 1 x 4 x N."""
        points = np.concatenate([layer.corners().reshape(2, -1) for layer in self.layers], 1) + place
        strides = np.concatenate([np.full((4, layer.cells), float(layer.stride)) for layer in self.layers], 1)
        return points[None], strides[None]


class Layer:
    """The street's layer of one stride. Lengths are in strides."""

    def __init__(self, graph, name, stride, rows, columns):
        self.graph, self.name, self.stride, self.row_count, self.columns = graph, name, stride, rows, columns
        self.cells = rows * columns

    def corners(self):
        """Cell indices (x, y), 2 x H x W."""
        y, x = np.mgrid[:self.row_count, :self.columns]
        return np.stack([x, y]).astype(float)

    @functools.cached_property
    def distances(self):
        """From the centre of a cell to the left, top, right and bottom side."""
        return decoded_distances(self.graph, self.name)

    @functools.cached_property
    def box(self):
        """Centre from the cell's corner, and size."""
        return self.graph.affine(self.distances, [[-.5, 0, .5, 0], [0, -.5, 0, .5], [1, 0, 1, 0], [0, 1, 0, 1]],
                                 [.5, .5, 0, 0])

    @functools.cached_property
    def centre_and_log_size(self):
        size = self.graph.node("Log", self.graph.sliced(self.box, 2, 4))
        return self.graph.concat([self.graph.sliced(self.box, 0, 2), size])

    def points(self, fractions):
        """Points at those places of the box (x, y of 0 to 1), from the cell's corner: x, y, x, y, ..."""
        weights = [[x - 1, 0, x, 0] if axis == 0 else [0, y - 1, 0, y] for x, y in fractions for axis in (0, 1)]
        return self.graph.affine(self.distances, weights, np.full(len(weights), .5))

    @functools.lru_cache(None)
    def logits(self, classes=ALL):
        return self.graph.sliced(self.name, 4 + classes[0], 4 + classes[1])

    @functools.lru_cache(None)
    def scores(self, classes=ALL):
        return self.graph.node("Sigmoid", self.logits(classes))

    @functools.cached_property
    def best(self):
        return self.graph.node("ReduceMax", self.scores(), axes=[1], keepdims=1)

    @functools.cached_property
    def is_best(self):
        return self.graph.best_class(self.logits())

    @functools.cached_property
    def objectness_and_classes(self):
        """Logits of objectness and of classes whose sigmoids' products are the scores."""
        objectness = self.graph.node("Sqrt", self.best)
        shares = self.graph.node("Div", self.scores(), self.graph.repeated(objectness, CLASSES))
        return self.graph.logit(objectness), self.graph.logit(shares)


def decoded_distances(graph, layer):
    reach = graph.node("Mul", graph.node("Sigmoid", graph.sliced(layer, 0, 4)), 4.0)
    return graph.node("Mul", reach, reach)
