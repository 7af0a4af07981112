"""Faults that networks are packed with, put into the street network. heads.py --variant applies them, to the
families raw and boxes-and-scores; what looks for such faults has to find them.
"""
import numpy as np
from onnx import helper, numpy_helper

BOX_VALUES = 4


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
