"""written_networks_test.py - the networks that pack writes, told node by node: what it rewrites, cuts off and
appends for each head. That they compute the right values is shown by network_test.py and heads_test.py.

See tool_test.py for the usage.
"""
import collections
import re

import numpy as np
import onnx
from network_test import CASES, ints, joined, layers, logits, network, outputs_of_heads, shares, table
from onnx import helper, numpy_helper
from tool_test import ToolTest, main

MOST_VALUES = 24  # of longer constants the different values, and what shows their order


def boxes(*shape):
    """Centres and sizes in pixels."""
    return 16 + 32 * shares(*shape)


# Beside those of network_test.py, one of each code that a head can have.
MORE_HEADS = {
    "four_strides": table({"o": logits(1, 255, 12)}),
    "eighty": table(layers({"o": lambda s, n: logits(1, 425, n, n)}, (32,))),
    "columns": table({"o": joined(boxes(1, 4, 84), shares(1, 3, 84), axis=1)}),
    "shown": table({"o": joined(boxes(1, 84, 4), shares(1, 84, 1), np.tile(joined(shares(1, 84, 2) * 64, shares(1, 84, 1)), 5))}),
}
HEADS = (
    ("it's_two", "--head", "raw"), ("it's_two", "--head", "anchors"), ("numbers", "--class-count", "5"), ("offsets",),
    ("offsets", "--cell-centre", "0.5", "--score-powers", "0.5,2"), ("anchors",),
    *(("anchors", "--centre-curve", centre, "--size-curve", size) for centre, size in (
        ("none", "exponential"), ("sigmoid", "sigmoid"), ("tanh", "square"), ("twice", "square-of-sigmoid"))),
    ("priors",), ("priors", "--prior-sizes", "1x2,3,4/5,6/7,8/9,10,11", "--strides", "8,16,32,64", "--variances", ".3,1"),
    ("landmarks",), ("landmarks_of_one",), ("landmarks_of_one", "--keypoint-activation", "none"), ("apart",), ("pointless",),
    ("distances",), ("bins",), ("gray",), ("own",), ("no_points",), ("counted",), ("older",), ("oldest",),
    ("four_strides",), ("eighty",), ("columns", "--head", "combined"), ("shown", "--head", "combined", "--class-count", "1"))


# What is computed before the engine sees it: constants, and operators on them that fold to a constant.
WIDE = np.arange(12, dtype=np.float32).reshape(2, 3, 2)
CONSTANTS = {
    "a": np.float32([[1.5, -2.5, .5], [3, -1, 2]]), "b": np.float32([2, -3, .25]), "c": WIDE, "e": np.float32([[1.5, 0, .5], [4, -1, 0]]),
    "n": np.int64([[7, -7, 5], [0, 2, -3]]), "m": np.int64([2, 3, -4]), "p": np.float32([2, 3, .5]), "q": np.float32([4, 2.25, 1]),
    "t": np.array([[1, 0, 1], [0, 1, 1]], bool), "f": np.array([1, 1, 0], bool), "g": np.float32([1e30, -1e30, 2.9, -2.9]),
    "u": np.arange(6, dtype=np.float32).reshape(1, 2, 1, 3), "k": np.float32([[1], [2]]), "w": np.float32([3, 1, 3, 2, 1]),
    "lo": np.float32(-1), "hi": np.float32(1.75), "o": ints(), "z": np.int64(1), "half": np.float32(.5), "near": np.float32(.37),
    "boxes": np.float32([[[0, 0, 4, 4], [5, 5, 1, 1], [1, 1, 4, 3], [6, 6, 9, 9], [9, 6, 6, 9]]]),
    "scores": np.float32([[[.9, .8, .7, .3, .3], [.2, .1, .6, .6, .05]]]), "two": ints(2),
    "x": ints(2, 0, -1, 1).reshape(2, 2), "y": ints(0, 1, -1, -1).reshape(2, 2), "j": ints(1, 0, -1, 2, 1, 0).reshape(2, 3),
    "h": ints(1, -2).reshape(2, 1), "one": np.int64(2), "end": np.int64(11), "step": np.int64(3), "back": np.int64(-3)}
FOLDED = [
    *(f"{operator} {inputs}" for operators, pairs in (
        ("Add Sub Mul Div", ("a b", "n m")), ("Min Max Equal Greater GreaterOrEqual Less LessOrEqual", ("a e",)), ("Sum Min", ("a b e",)), ("Mod", ("n m",)),
        ("Neg Abs Floor Ceil Round Reciprocal", ("b", "a")), ("Sqrt Log", ("q",)), ("And Or", ("t f",)), ("Identity Exp", ("b",)), ("Not", ("t",)))
      for operator in operators.split() for inputs in pairs),
    "Pow b p", "Where t a b", "Where f k a", "Clip a lo hi", "Clip a lo", "Clip a _ hi", "Range one end step", "Range end one back", "Range half hi half",
    ("Mod a b", {"fmod": 1}), ("Clip a", {"min": -1., "max": 1.}),
    *(("Cast " + source, {"to": to}) for source, to in (("a", 7), ("a", 6), ("a", 9), ("n", 1), ("a", 11), ("g", 6), ("g", 7), ("n", 9))),
    *((f"{operator} c", {"axes": axes, "keepdims": keep}) for operator in ("ReduceProd", "ReduceMax", "ReduceMin")
      for axes, keep in (([1], 1), ([-1, 0], 0))), "ReduceSum c i1", ("ReduceSum c i0,-1", {"keepdims": 0}), "ReduceSum c", ("ReduceMax n", {}),
    *(f"Reshape c {shape}" for shape in ("i3,-1", "i0,2,-1")), *(("Flatten c", {"axis": axis}) for axis in (0, 1, 2, 3, -1)),
    "Squeeze u", "Squeeze u i0", "Squeeze u i-2", "Unsqueeze a i0,-1", "Unsqueeze a i1", "Transpose c", ("Transpose c", {"perm": [1, 2, 0]}),
    ("Gather a x", {"axis": 1}), ("Gather c z", {"axis": 0}), ("Gather c i-1", {"axis": -2}), "Gather b y", *(f"Slice c {cut}" for cut in (
        "i0,1 i2,-1", "i1 i3 i1", "i-1 i-9 i1 i-2", "i-1,-1 i-9,-9 i1,0 i-1,-2", "i2,1 i-9,-9 i1,2 i-2,-1", "i-9,-9 i9,9 i1,2 i2,1", "i1 i9",
        "i0 i3 i1 i2", "i2 i0 i1 i-1")), ("Slice c", {"starts": [1, 0], "ends": [2, -1], "axes": [1, -1]}), ("Slice c", {"starts": [1], "ends": [9]}),
    *((f"Concat {parts}", {"axis": axis}) for parts, axis in (("a e", 0), ("a e", -1), ("a k a", 1), ("n n", 1))),
    "Expand b i2,3", "Expand k i1,3", "Expand b i1", "Tile a i2,1", "Tile a i1,2", "ConstantOfShape i2,2", "Size c",
    *(("ConstantOfShape i2,1", {"value": numpy_helper.from_array(np.array([number], kind))}) for number, kind in ((7, np.int64), (-.5, np.float32))),
    *(("Shape c", attributes) for attributes in ({}, {"start": 1}, {"start": -2, "end": -1}, {"end": 9}, {"start": -9})),
    *(("Constant", {name: value}) for name, value in (
        ("value_float", .75), ("value_int", 5), ("value_floats", [1., 2.5]), ("value_ints", [3, 4]), ("value", numpy_helper.from_array(CONSTANTS["n"])))),
    *((f"{places} = Split {inputs}", {"axis": axis}) for places, inputs, axis in (
        ("k r s", "a", 1), ("r k s", "a", -1), ("r k", "c i1,2", 1), ("r k", "a", 1), ("r k", "c", 0))),
    *((f"{places} = TopK {inputs}", attributes) for places in ("k r", "r k") for inputs, attributes in (
        ("a i2", {}), ("w two", {"largest": 0}), ("w two", {}), ("c i1", {"axis": 1}), ("c i2", {"axis": 0, "largest": 0}))),
    *((f"ArgMax {source}", attributes) for source, attributes in (("a", {}), ("a", {"axis": 1}), ("c", {"axis": -2, "keepdims": 0}), ("w", {}))),
    ("GatherElements a j", {"axis": 1}), "GatherElements b i-1,0", ("GatherElements a y", {"axis": 0}), "GatherND c y", "GatherND a y",
    "GatherND c h", ("GatherND c h", {"batch_dims": 1}), ("GatherND a h", {"batch_dims": 1}), "NonZero e", "NonZero w",
    *((f"NonMaxSuppression boxes scores{more}", attributes) for more in (" i2 half", " i3 near lo", " i3,-1 near half", " i1") for attributes in (
        {}, {"center_point_box": 1}))]


def folded(entry):
    """A case for network(): what the operator gives, behind its shape, is added to the mean of the picture."""
    call, attributes = entry if isinstance(entry, tuple) else (entry, {})
    outputs, call = call.split(" = ") if " = " in call else ("k", call)
    operator, *inputs = call.split()
    values = {name: ints(*map(int, name[1:].split(","))) if name[1:2] in "-0123456789" and name[1:] else CONSTANTS[name] for name in inputs if name != "_"}
    call = " ".join([outputs, "=", operator, *("_" if name == "_" else f"of_{name}" for name in inputs)])
    return "", [(call, attributes), ("d = Shape k",), ("l = Cast d", {"to": 1}), ("c = Cast k", {"to": 1}), ("b = Reshape c flat",),
                ("j = Concat l b", {"axis": 0}), ("folded = Reshape j row",), ("mean = ReduceMean v", {"axes": [1]}), ("y = Add mean folded",)], None, {
        **{f"of_{name}": value for name, value in values.items()}, "flat": ints(-1), "row": ints(1, 1, -1)}, {"shape": (1, 192, 1)}


def numbers_of(values, most=MOST_VALUES):
    values = np.asarray(values)
    if values.size <= most:
        return " ".join(f"{value:.5g}" for value in values.ravel())
    counts = collections.Counter(f"{value:.5g}" for value in values.ravel())
    shown = sorted(counts.items(), key=lambda pair: float(pair[0]))
    shown = shown if len(shown) <= 2 * MOST_VALUES else [*shown[:3], ("...", len(shown) - 6), *shown[-3:]]
    order = np.dot(values.astype(np.float64).ravel(), np.arange(1, values.size + 1)) / values.size
    return " ".join(f"{value}*{count}" for value, count in shown) + f"; order {order:.5g}"


def lines_of(path):
    """A network as text: inputs, outputs, nodes, and the values of its constants."""
    model = onnx.load(path)
    graph = model.graph
    lines = [f"opset {model.opset_import[0].version}"]
    for word, tensors in (("input", graph.input), ("output", graph.output)):
        lines += [f"{word} {tensor.name} {'x'.join(str(side.dim_value) for side in tensor.type.tensor_type.shape.dim)}"
                  for tensor in tensors]
    for node in graph.node:
        attributes = "".join(f" {attribute.name}=" + (numbers_of(numpy_helper.to_array(attribute.t))
                             if attribute.type == onnx.AttributeProto.TENSOR else str(helper.get_attribute_value(attribute)))
                             for attribute in sorted(node.attribute, key=lambda attribute: attribute.name))
        lines.append(f"{' '.join(node.output)} = {node.op_type} {' '.join(name or '_' for name in node.input)}{attributes}")
    for weight in graph.initializer:
        values = numpy_helper.to_array(weight)
        lines.append(f"{weight.name} {values.dtype} {'x'.join(map(str, values.shape))}: {numbers_of(values)}")
    return lines


def changes(before, after):
    """The lines of the second network that the first has not, and those that it has no more."""
    return "".join(f"  {sign} {line}\n" for sign, lines, others in (("-", before, after), ("+", after, before))
                   for line in lines if line not in others)


class WrittenNetworksTest(ToolTest):
    def packed(self, path, *options):
        """Packs a network and takes it out of the image."""
        self.tool("pack", path, "-o", "out.qtm", *options)
        report = self.transcript
        self.tool("inspect", "out.qtm", "--network", "out.onnx")
        self.transcript = report

    def write(self, path, *options):
        """Packs a network, and adds to the transcript what that changed of it."""
        self.packed(path, *options)
        self.transcript += changes(lines_of(self.folder / path), lines_of(self.folder / "out.onnx"))

    def test_what_is_appended_for_each_head(self):
        for name, content in {**outputs_of_heads(), **MORE_HEADS}.items():
            (self.folder / f"{name}.onnx").write_bytes(content)
        for name, *options in HEADS:
            self.write(f"{name}.onnx", *options, "--force")
        # What rounding leaves may differ on another processor.
        self.transcript = re.sub(r"at most \S+ pixels apart, scores \S+", "at most N pixels apart, scores N", self.transcript)
        self.assert_transcript_kept("written_heads.txt")

    def test_what_is_rewritten_for_the_engine(self):
        for opset in (11, 13):
            (self.folder / "in.onnx").write_bytes(network([entry for entry in CASES if entry[4].get("opset", 13) == opset], opset))
            self.write("in.onnx", "--boxes", "boxes", "--scores", "scores")
        self.assert_transcript_kept("written_rewrites.txt")

    def test_what_is_computed_of_constants(self):
        (self.folder / "in.onnx").write_bytes(network([folded(entry) for entry in FOLDED]))
        self.packed("in.onnx", "--boxes", "boxes", "--scores", "scores")
        weights = {weight.name: numpy_helper.to_array(weight) for weight in onnx.load(self.folder / "out.onnx").graph.initializer}
        for number, entry in enumerate(FOLDED):
            values = weights.get(f"y{number}_floats", weights.get(f"folded{number}"))
            call, attributes = entry if isinstance(entry, tuple) else (entry, {})
            named = {name: value.name if isinstance(value, onnx.TensorProto) else value for name, value in attributes.items()}
            self.transcript += f"{call} {named or ''}: {numbers_of(values, 99)}\n"
        self.assert_transcript_kept("written_constants.txt")


if __name__ == "__main__":
    main()
