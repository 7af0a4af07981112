# SPDX-License-Identifier: Apache-2.0
"""Ways in which exporters write the same network otherwise, and faults that networks are packed with: these for
the families raw and boxes-and-scores, where what looks for such faults has to find them. heads.py --variant
applies both.
"""
import numpy as np
from onnx import helper, numpy_helper

KEPT = 300  # rows of top-k
DIMENSIONS = ("batch", None, "height", "width")
BOX_VALUES = 4
# Trained so, whatever is usual for a head; no graph shows it.
INPUT = {"mean": "0", "scale": "1/255", "color_order": "bgr"}


def _constants(model):
    return {i.name: i for i in model.graph.initializer}


class Facts:
    """What a network does not say by itself: names of its classes, key points of a box."""

    def __init__(self, class_names, points):
        self.class_names, self.points = class_names, points


def metadata(model, facts):
    """Names of classes as a dictionary's text, largest stride, task, and the input's height and width; and what
    every network has."""
    rows, columns = (d.dim_value for d in model.graph.input[0].type.tensor_type.shape.dim[2:])
    if not rows:
        raise SystemExit("heads.py: the variant metadata has to come before dynamic, which takes the size away")
    values = {"stride": "32", "task": "pose" if facts.points else "detect", "batch": "1",
              "imgsz": str([rows, columns]), "names": str(dict(enumerate(facts.class_names)))}
    if facts.points:
        values["kpt_shape"] = str([facts.points, 3])
    helper.set_model_props(model, {**INPUT, **values})


def _axes_of_cells(shape):
    """Axes whose length follows from the input's size: rows and columns of a map, or the longer one of a list."""
    return (2, 3) if len(shape) > 3 else (int(np.argmax(shape)),)


def dynamic(model, _facts):
    """Symbolic batch, height and width in the interface, and no batch in the targets of Reshape."""
    for dim, name in zip(model.graph.input[0].type.tensor_type.shape.dim, DIMENSIONS):
        if name:
            dim.dim_param = name
    for output in model.graph.output:
        dims = output.type.tensor_type.shape.dim
        if dims[0].dim_value == 1:
            dims[0].dim_param = "batch"
        for axis in _axes_of_cells([dim.dim_value for dim in dims]):
            dims[axis].dim_param = f"{output.name}_dim_{axis}"
    constants = _constants(model)
    for node in model.graph.node:
        if node.op_type == "Reshape" and node.input[1] in constants:
            target = numpy_helper.to_array(constants[node.input[1]]).copy()
            if target[0] == 1:
                target[0] = 0
                constants[node.input[1]].CopyFrom(numpy_helper.from_array(target, node.input[1]))


def shape_chains(model, _facts):
    """The first number of each Reshape's target comes from the tensor's own shape."""
    graph, constants = model.graph, _constants(model)
    nodes, zero = [], "shape_chains_zero"
    graph.initializer.append(numpy_helper.from_array(np.array(0, np.int64), zero))
    for node in graph.node:
        if node.op_type == "Reshape" and node.input[1] in constants:
            target = numpy_helper.to_array(constants[node.input[1]])
            if target[0] in (0, 1):
                nodes += _shape_chain(graph, node, target, zero)
        nodes.append(node)
    del graph.node[:]
    graph.node.extend(nodes)


def _shape_chain(graph, node, target, zero):
    """Nodes that compute the target; the node takes it from them."""
    base, tensors = f"{node.name}/target", []
    for i, number in enumerate(target[1:]):
        tensors.append(f"{base}_{i}")
        graph.initializer.append(numpy_helper.from_array(np.array([number], np.int64), tensors[-1]))
    node.input[1] = f"{base}/Concat_output_0"
    return [helper.make_node("Shape", [node.input[0]], [f"{base}/Shape_output_0"], name=f"{base}/Shape"),
            helper.make_node("Gather", [f"{base}/Shape_output_0", zero], [f"{base}/Gather_output_0"],
                             name=f"{base}/Gather", axis=0),
            helper.make_node("Unsqueeze", [f"{base}/Gather_output_0"], [f"{base}/Unsqueeze_output_0"],
                             name=f"{base}/Unsqueeze", axes=[0]),
            helper.make_node("Concat", [f"{base}/Unsqueeze_output_0", *tensors], [node.input[1]],
                             name=f"{base}/Concat", axis=0)]


def clip_inputs(model, _facts):
    """Clip with its limits as inputs in place of the network's own Relu; every second limit is a Constant."""
    graph, nodes = model.graph, []
    for number, node in enumerate(graph.node):
        if node.op_type == "Relu" and not node.name.startswith("/head/"):
            limits = {f"{node.name}/low": 0.0, f"{node.name}/high": 1e6}
            for name, value in limits.items():
                tensor = numpy_helper.from_array(np.array(value, np.float32), name)
                if number % 2:
                    graph.initializer.append(tensor)
                else:
                    nodes.append(helper.make_node("Constant", [], [name], value=tensor))
            node = helper.make_node("Clip", [node.input[0], *limits], list(node.output), name=node.name)
        nodes.append(node)
    del graph.node[:]
    graph.node.extend(nodes)


def _own_weights(model):
    """Weights of the network's own convolutions, by name: integers and the step between two of them."""
    constants, found = _constants(model), {}
    for node in model.graph.node:
        if node.op_type == "Conv" and not node.name.startswith("/head/"):
            values = numpy_helper.to_array(constants[node.input[1]])
            step = np.array(np.abs(values).max() / 127, np.float32)
            found[node.input[1]] = np.round(values / step).astype(np.int8), step
    return found


def rounded(model, _facts):
    """The weights of quantised, as ordinary ones."""
    constants = _constants(model)
    for name, (integers, step) in _own_weights(model).items():
        constants[name].CopyFrom(numpy_helper.from_array(integers.astype(np.float32) * step, name))


def quantised(model, _facts):
    """The network's weights as 8-bit integers behind DequantizeLinear, one scale for a convolution, and the
    input through QuantizeLinear and DequantizeLinear, which changes no value of 0 to 255 divided by 255."""
    graph, constants, front = model.graph, _constants(model), []
    picture = graph.input[0].name
    new_names = {picture: picture + "_dequantised"}
    for name, (integers, step) in _own_weights(model).items():
        new_names[name] = name + "_dequantised"
        front.append(helper.make_node("DequantizeLinear", _integers(graph, name, integers, step), [new_names[name]],
                                      name=name + "/Dequantize"))
        graph.initializer.remove(constants[name])
    for node in graph.node:
        node.input[:] = [new_names.get(name, name) for name in node.input]
    steps = _integers(graph, picture, None, np.array(1 / 255, np.float32))[1:]
    front += [helper.make_node("QuantizeLinear", [picture, *steps], [picture + "_quantised"], name="/input/Quantize"),
              helper.make_node("DequantizeLinear", [picture + "_quantised", *steps], [new_names[picture]],
                               name="/input/Dequantize")]
    nodes = front + list(graph.node)
    del graph.node[:]
    graph.node.extend(nodes)


def top_k(model, _facts):
    """The KEPT best rows of 1 x N x 6, best first."""
    graph = model.graph
    output = graph.output[0]
    dims = output.type.tensor_type.shape.dim
    if len(graph.output) != 1 or len(dims) != 3 or dims[2].dim_value != 6:
        raise SystemExit("heads.py: the variant top-k is for the family end-to-end")
    rows = "/top/rows"
    for node in graph.node:
        node.output[:] = [rows if name == output.name else name for name in node.output]
    for name, values in (("first", [4]), ("end", [5]), ("axis", [2]), ("count", [KEPT])):
        graph.initializer.append(numpy_helper.from_array(np.array(values, np.int64), f"/top/{name}"))
    graph.node.extend([
        helper.make_node("Slice", [rows, "/top/first", "/top/end", "/top/axis"], ["/top/column"], name="/top/Slice"),
        helper.make_node("Squeeze", ["/top/column"], ["/top/scores"], name="/top/Squeeze", axes=[2]),
        helper.make_node("TopK", ["/top/scores", "/top/count"], ["/top/values", "/top/indices"], name="/top/TopK",
                         axis=1),
        helper.make_node("Squeeze", ["/top/indices"], ["/top/order"], name="/top/Squeeze_1", axes=[0]),
        helper.make_node("Gather", [rows, "/top/order"], [output.name], name="/top/Gather", axis=1)])
    dims[1].dim_value = KEPT


class _Tail:
    """Nodes behind boxes 1 x N x 4 and scores 1 x N x nc, into which the rows 1 x N x 4+nc are split."""

    def __init__(self, model, variant):
        self.graph, output = model.graph, model.graph.output[0]
        if len(model.graph.output) != 1 or len(output.type.tensor_type.shape.dim) != 3:
            raise SystemExit(f"heads.py: the variant {variant} is for the family combined-rows")
        columns = output.type.tensor_type.shape.dim[2].dim_value
        self.classes, self.count = columns - 4, 0
        for node in self.graph.node:
            node.output[:] = ["/tail/rows" if name == output.name else name for name in node.output]
        self.boxes, self.scores = self("Split", "/tail/rows", outputs=2, axis=2, split=[4, self.classes])
        self.output = output

    def __call__(self, operator, *inputs, outputs=1, **attributes):
        names = [self.constant(value) if not isinstance(value, str) else value for value in inputs]
        self.count += 1
        results = [f"/tail/{operator}_{self.count}_{i}" for i in range(outputs)]
        self.graph.node.append(helper.make_node(operator, names, results, name=results[0], **attributes))
        return results if outputs > 1 else results[0]

    def constant(self, value):
        self.count += 1
        kind = np.float32 if np.asarray(value).dtype == float else np.int64
        self.graph.initializer.append(numpy_helper.from_array(np.array(value, kind), f"/tail/constant_{self.count}"))
        return f"/tail/constant_{self.count}"

    def finish(self, values, axis, shape):
        self.graph.node.append(helper.make_node("Concat", values, [self.output.name], name="/tail/Concat", axis=axis))
        self.output.type.CopyFrom(helper.make_tensor_type_proto(1, shape))


def best_classes(model, _facts):
    """The best rows by their best class, and of those the KEPT best pairs of row and class."""
    tail = _Tail(model, "best-classes")
    _, places = tail("TopK", tail("ReduceMax", tail.scores, axes=[2], keepdims=0), [KEPT], outputs=2, axis=1)
    places = tail("Unsqueeze", places, axes=[2])
    boxes = tail("GatherElements", tail.boxes, tail("Tile", places, [1, 1, 4]), axis=1)
    scores = tail("GatherElements", tail.scores, tail("Tile", places, [1, 1, tail.classes]), axis=1)
    best, pairs = tail("TopK", tail("Flatten", scores, axis=1), [KEPT], outputs=2, axis=1)
    rows = tail("Unsqueeze", tail("Div", pairs, tail.classes), axes=[2])
    boxes = tail("GatherElements", boxes, tail("Tile", rows, [1, 1, 4]), axis=1)
    numbers = tail("Cast", tail("Unsqueeze", tail("Mod", pairs, tail.classes), axes=[2]), to=1)
    tail.finish([boxes, tail("Unsqueeze", best, axes=[2]), numbers], 2, [1, KEPT, 6])


def suppressed(model, _facts):
    """What NonMaxSuppression leaves, y first in its corners: n x 7 of batch, box, number of the class, score."""
    tail = _Tail(model, "suppressed")
    corners = np.array([[0, 1, 0, 1], [1, 0, 1, 0], [0, -.5, 0, .5], [-.5, 0, .5, 0]])
    boxes, scores = tail("MatMul", tail.boxes, corners), tail("Transpose", tail.scores, perm=[0, 2, 1])
    chosen = tail("NonMaxSuppression", boxes, scores, [KEPT], .5, .25)
    batch, number, row = (tail("Gather", chosen, [place], axis=1) for place in range(3))
    box = tail("Gather", tail("Squeeze", boxes, axes=[0]), tail("Reshape", row, [-1]), axis=0)
    score = tail("Unsqueeze", tail("GatherND", scores, chosen), axes=[1])
    tail.finish([tail("Cast", batch, to=1), box, tail("Cast", number, to=1), score], 1, [None, 7])


def _integers(graph, name, values, scale):
    """Adds what DequantizeLinear takes, and returns the names: integers (unless None), scale, zero."""
    zero = np.array(0, np.uint8 if values is None else np.int8)
    parts = {"_integers": values, "_scale": scale, "_zero": zero}
    graph.initializer.extend(numpy_helper.from_array(part, name + end) for end, part in parts.items()
                             if part is not None)
    return [name + end for end in parts]


VARIANTS = {
    "metadata": (metadata, "names, stride, task, imgsz among the model's properties"),
    "shape-chains": (shape_chains, "targets of Reshape from Shape, Gather, Unsqueeze and Concat"),
    "clip-inputs": (clip_inputs, "Clip with its limits as inputs in place of Relu"),
    "quantised": (quantised, "weights as 8-bit integers behind DequantizeLinear; the boxes are those of rounded"),
    "rounded": (rounded, "weights with 8 bits, without operators for it"),
    "top-k": (top_k, f"of end-to-end the {KEPT} best rows, by TopK and Gather"),
    "best-classes": (best_classes, f"of combined-rows the {KEPT} best pairs of row and class, 1 x {KEPT} x 6"),
    "suppressed": (suppressed, "of combined-rows what NonMaxSuppression leaves, n x 7"),
    "dynamic": (dynamic, "symbolic batch, height and width"),
}


# ---- Faults ---------------------------------------------------------------------------------------

class _End:
    """The last nodes of one output, which keeps its name."""

    def __init__(self, graph, output):
        self.graph, self.name = graph, output.name
        self.shape = [d.dim_value for d in output.type.tensor_type.shape.dim]
        self.inner = f"{self.name}/before"
        for node in graph.node:
            for tensors in (node.input, node.output):
                tensors[:] = [self.inner if tensor == self.name else tensor for tensor in tensors]

    def constant(self, name, values):
        self.graph.initializer.append(numpy_helper.from_array(np.asarray(values), f"{self.name}/{name}"))
        return f"{self.name}/{name}"

    def node(self, operation, *inputs, last=False, **attributes):
        result = self.name if last else f"{self.name}/{operation}_{len(self.graph.node)}"
        self.graph.node.append(helper.make_node(operation, inputs, [result], name=f"{result}/node", **attributes))
        return result

    def affine(self, factors, offsets):
        """Of constants of the tensor's own shape, which OpenCV 4.6 computes rightly."""
        full = [np.broadcast_to(np.asarray(numbers, np.float32), self.shape).copy() for numbers in (factors, offsets)]
        scaled = self.node("Mul", self.inner, self.constant("factors", full[0]))
        self.node("Add", scaled, self.constant("offsets", full[1]), last=True)


def _outputs(model):
    return [(_End(model.graph, output), output.name) for output in model.graph.output]


def _class_channels(value):
    """A number for each channel of a raw layer: none for the box, value for the classes."""
    return np.array([0.0] * BOX_VALUES + [value] * 7).reshape(1, -1, 1, 1)


def sigmoid(model, _facts):
    for end, name in _outputs(model):
        if name == "boxes":
            end.node("Identity", end.inner, last=True)
        elif name == "scores":
            end.node("Sigmoid", end.inner, last=True)
        else:
            parts = []
            for i, (first, last) in enumerate(((0, BOX_VALUES), (BOX_VALUES, end.shape[1]))):
                limits = [end.constant(f"limit_{i}_{k}", np.array([n])) for k, n in enumerate((first, last, 1))]
                parts.append(end.node("Slice", end.inner, *limits))
            end.node("Concat", parts[0], end.node("Sigmoid", parts[1]), axis=1, last=True)


def sure(model, _facts):
    for end, _ in _outputs(model):
        end.affine(1.0, _class_channels(30.0))


def overflow(model, _facts):
    for end, _ in _outputs(model):
        end.affine(3e38, _class_channels(0.0))


def logits(model, _facts):
    for end, name in _outputs(model):
        end.affine(*((8.0, -4.0) if name == "scores" else (1.0, 0.0)))


def pixels(model, _facts):
    height, width = (d.dim_value for d in model.graph.input[0].type.tensor_type.shape.dim[2:])
    for end, name in _outputs(model):
        end.affine([width, height, width, height] if name == "boxes" else 1.0, 0.0)


def again(model, _facts):
    first = model.graph.output[0]
    name = f"{first.name}_again"
    model.graph.node.append(helper.make_node("Identity", [first.name], [name], name=f"{name}/node"))
    model.graph.output.add().CopyFrom(first)
    model.graph.output[-1].name = name


FAULTS = {
    "sigmoid": (sigmoid, "fault: class scores pass a sigmoid, which the library, or the network, applies already"),
    "sure": (sure, "fault, of raw: all cells are objects"),
    "overflow": (overflow, "fault, of raw: values beyond those of 32-bit floats"),
    "logits": (logits, "fault, of boxes-and-scores: scores beyond 0..1"),
    "again": (again, "the first output a second time, as ..._again"),
    "pixels": (pixels, "boxes-and-scores with pixels in place of fractions"),
}
