# SPDX-License-Identifier: Apache-2.0
"""written_networks_test.py - the networks that pack writes, told node by node: what it rewrites, cuts off and
appends for each head. That they compute the right values is shown by network_test.py and heads_test.py.

See tool_test.py for the usage.
"""
import collections
import re
import shlex

import numpy as np
import onnx
from network_test import CASES, ints, joined, layers, logits, network, outputs_of_heads, shares, table
from onnx import helper, numpy_helper
from tool_test import TOOL, ToolTest, main

MOST_VALUES = 24  # of longer constants the different values, and what shows their order


def boxes(*shape):
    """Centres and sizes in pixels."""
    return 16 + 32 * shares(*shape)


# Beside those of network_test.py, one of each code that a head can have.
MORE_HEADS = {
    "four_strides": table({"o": logits(1, 255, 12)}),
    "thirteen": table(layers({"o": lambda s, n: logits(1, 13, n, n)})),
    "eighty": table(layers({"o": lambda s, n: logits(1, 425, n, n)}, (32,))),
    "columns": table({"o": joined(boxes(1, 4, 84), shares(1, 3, 84), axis=1)}),
    "shown": table({"o": joined(boxes(1, 84, 4), shares(1, 84, 1), np.tile(joined(shares(1, 84, 2) * 64, shares(1, 84, 1)), 5))}),
}
HEADS = (
    ("it's_two", "--head", "raw"), ("it's_two", "--head", "anchors"), ("numbers", "--class-count", "5"), ("offsets",),
    ("offsets", "--cell-centre", "0.5", "--score-powers", "0.5,2"),
    *(("anchors", "--row-order", order) for order in ("anchors", "cells")),
    *(("anchors", "--row-order", "cells", "--centre-curve", centre, "--size-curve", size) for centre, size in (
        ("none", "exponential"), ("sigmoid", "sigmoid"), ("tanh", "square"), ("twice", "square-of-sigmoid"))),
    ("priors",), ("priors", "--prior-sizes", "1x2,3,4/5,6/7,8/9,10,11", "--strides", "8,16,32,64", "--variances", ".3,1"),
    ("landmarks",), ("landmarks_of_one",), ("landmarks_of_one", "--keypoint-activation", "none"), ("apart",), ("pointless",),
    ("distances",), ("bins",), ("gray",), ("own",), ("no_points",), ("counted",), ("older",), ("oldest",),
    ("thirteen", "--model-out", "zrlpd"), ("four_strides", "--row-order", "anchors"), ("eighty",), ("columns", "--head", "combined"), ("shown", "--head", "combined", "--class-count", "1"))


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
    values = {name: value_of(name, CONSTANTS) for name in inputs if name != "_"}
    call = " ".join([outputs, "=", operator, *("_" if name == "_" else f"of_{name}" for name in inputs)])
    return "", [(call, attributes), ("d = Shape k",), ("l = Cast d", {"to": 1}), ("c = Cast k", {"to": 1}), ("b = Reshape c flat",),
                ("j = Concat l b", {"axis": 0}), ("folded = Reshape j row",), ("mean = ReduceMean v", {"axes": [1]}), ("y = Add mean folded",)], None, {
        **{f"of_{name}": value for name, value in values.items()}, "flat": ints(-1), "row": ints(1, 1, -1)}, {"shape": (1, 192, 1)}


# What exporters put behind boxes b, scores s and key points p, which selects the best rows: named lists of nodes as
# network() takes them, behind those of the lists that a name begins with, and the outputs.
SUPPRESSED = [("st = Transpose s", {"perm": [0, 2, 1]}), ("chosen = NonMaxSuppression b st most near least",),
              *((f"{name} = Gather chosen {place}", {"axis": 1}) for name, place in (("classes", "i1"), ("rows", "i2"))),
              ("row = Reshape rows i-1",), ("flat = Squeeze b i0",), ("box = Gather flat row",), ("score = GatherND st chosen",),
              ("scores = Unsqueeze score i1",), ("class = Cast classes", {"to": 1})]
RANKED = [("best = ReduceMax s", {"axes": [2], "keepdims": 0}), ("score places = TopK best i20", {"axis": 1}), ("rows = Unsqueeze places i2",),
          ("of_box = Tile rows i1,1,4",), ("box = GatherElements b of_box", {"axis": 1}), ("scores = Unsqueeze score i2",),
          ("of_class = ArgMax s", {"axis": 2, "keepdims": 0}), ("class_ = GatherElements of_class places", {"axis": 1}),
          ("classes = Unsqueeze class_ i2",), ("class = Cast classes", {"to": 1})]
ROWS = [("column = Slice o i4 i5 i2",), ("list = Squeeze column i2",), ("score places = TopK list i20", {"axis": 1}), ("row = Reshape places i-1",),
        ("y = Gather o row", {"axis": 1})]
CORNERS = [("corners = MatMul b square",), *((text.replace(" b ", " corners "), *more) for text, *more in SUPPRESSED)]
WHOLE = ("y = Concat box scores class", {"axis": -1})
SELECTIONS = (
    *((f"{start} joined", tail, [WHOLE], "y") for start, tail in (("suppressed", SUPPRESSED), ("ranked", RANKED), ("corners", CORNERS), ("open", SUPPRESSED))),
    *((f"{start} apart", tail, [], "box score class") for start, tail in (("suppressed", SUPPRESSED), ("ranked", RANKED))),
    ("boxes alone", SUPPRESSED, [], "box"), ("scores alone", SUPPRESSED, [], "score"), ("classes alone", SUPPRESSED, [], "class"), ("rows", ROWS, [], "y"),
    ("rows and scores", ROWS, [], "y score"), ("with points", SUPPRESSED, [("points = Squeeze p i0",), ("point = Gather points row",)], "box score point"),
    ("points in rows", RANKED, [("of_point = Tile rows i1,1,10",), ("point = GatherElements p of_point", {"axis": 1}),
                                ("y = Concat box point scores class", {"axis": 2})], "y"),
    *((f"boxes {number}", SUPPRESSED, nodes, "y score class") for number, nodes in enumerate((
        [("y = Mul box sizes",)], [("z = Add box half",), ("y = Clip z lo hi",)], [("z = Div box size",), ("y = Neg z",)], [("y = Mul box three",)],
        [("y = Relu box",)], [("y = MatMul box square",)], [("y = MatMul box oblong",)], [("level = ReduceMean b", {"axes": [0, 1], "keepdims": 0}), ("y = Add box level",)], [("y = Mul box scores",)],
        [("y = Pow box class",)], [("z = Slice box i0 i2 i1",), ("w = Slice box i2 i4 i1",), ("v = Sub w z",), ("y = Concat z v", {"axis": 1})],
        [("z w = Split box", {"axis": 1}), ("u = Mul w half",), ("v = Sub z u",), ("w_ = Add z u",), ("y = Concat v w_", {"axis": 1})],
        [("z = Slice box i0 i9 i1",), ("y = Identity z",)], [("z = Slice box i-2 i9 i1",), ("w = Slice box i-9 i-2 i1",), ("y = Concat z w", {"axis": 1})],
        [("z = Slice box i0 i4 i1 i2",), ("y = Concat z z", {"axis": 1})], [("z = Slice box i4 i5 i1",), ("y = Concat box z", {"axis": 1})],
        [("y = Gather box i0,2,1,3", {"axis": 1})], [*((f"z{at} = Gather box i{at}", {"axis": 1}) for at in (0, 1, 2, -1)),
                                                     ("y = Concat z1 z0 z-1 z2", {"axis": 1})],
        [("z = Transpose box", {"perm": [1, 0]}), ("y = Reshape z i-1,4",)], [("y = Slice box i0 i3 i0",)], [("y = Gather box i0,1",)],
        [("z = Concat box scores", {"axis": 1}), ("y = Mul z half",)], [("y = Where i1 box box",)]))),
    ("pairs of numbers", SUPPRESSED, [("z = Concat class class", {"axis": 1}), ("y = Concat z box scores", {"axis": 1})], "y"),
    *((f"classes {number}", SUPPRESSED, nodes, "box score y") for number, nodes in enumerate((
        [("y = Add class one",)], [("y = CumSum class i0",)], [("z = Mul class two",), ("y = Div z two",)], [("y = Sub class class",)], [("y = Mul class score",)]))),
    ("fewer scores", RANKED, [("some = Slice score i0 i10 i1",)], "box some class"), ("best of each", SUPPRESSED, [("z = ReduceMax s", {"axes": [2]}), (
        "flat_ = Squeeze z i0",), ("y = Gather flat_ row",)], "box y class"), ("other rows", SUPPRESSED, [("y = Gather other row",)], "box score y"),
    ("two tables of scores", SUPPRESSED, [("sq = Squeeze s i0",), ("y = Gather sq row",), ("w = ReduceMax y", {"axes": [1]})], "box score y w"),
    ("places", [], [("best = ReduceMax s", {"axes": [2], "keepdims": 0}), ("score y = TopK best i20", {"axis": 1})], "score y b"),
    ("class by TopK", [], [("score class = TopK s i1", {"axis": 2})], "b score class"),
    ("untouched", SUPPRESSED, [], "b s box"), ("in front of a layer", SUPPRESSED, [("z = Unsqueeze box i0,1",), ("y = Conv z kernel",)], "y score"),
    ("filled up", RANKED, [("none = ConstantOfShape i1,4,6",), ("z = Concat box scores class", {"axis": 2}), ("y = Concat z none", {"axis": 1})], "y"))
# Where the axes of the boxes are no question.
PACKED_AS = {"open joined": [], "rows": ["--head", "combined", "--class-count", "3"], "boxes alone": [], "untouched": [], "rows and scores": [], **{
    f"ranked {how}": [] for how in ("joined", "apart")}, "points in rows": ["--class-count", "3"]}
OF_SELECTIONS = {
    "most": np.int64(20), "least": np.float32(.25), "sizes": np.float32([64, 32, 64, 32]), "size": np.float32([[64]]), "three": np.float32([1, 2, 3]),
    "square": np.float32([[0, 1, 0, 1], [1, 0, 1, 0], [0, -.5, 0, .5], [-.5, 0, .5, 0]]), "oblong": np.ones((4, 3), np.float32),
    "one": np.float32(1), "two": np.float32(2), "other": np.ones((80, 2), np.float32), "kernel": np.ones((1, 1, 1, 1), np.float32)}
# Rows of boxes, objectness and classes: what each column comes from is followed back through such nodes, or is not.
TRACED = [(f"{name} = Slice w i{first} i{end} i2",) for name, first, end in (("box", 0, 4), ("object", 4, 5), ("class", 5, 8))] + [
    ("is_object = Sigmoid object",), ("is_class = Sigmoid class",), ("all = Concat box is_object is_class", {"axis": 2})]
TRACES = (
    [("y = Identity all",)], [("y = Cast all", {"to": 1})], [("y = Transpose all", {"perm": [0, 2, 1]})], [("t = Transpose all", {"perm": [2, 0, 1]}), ("y = Transpose t", {
        "perm": [1, 2, 0]})], [("t = Reshape all i1,84,8,1",), ("y = Squeeze t i3",)], [("t = Unsqueeze all i0",), ("y = Reshape t i1,84,8",)],
    [("y = Flatten all", {"axis": 2})], [("y = Reshape all i1,8,84",)], [("y = Mul all one",)], [("y = Mul one all",)], [("y = Mul all all",)], [("y = Clip all lo hi",)],
    [("y = Sin all",)], [("p_ q_ = Split all i5,3", {"axis": 2}), ("y = Concat p_ q_", {"axis": 2})], [("p_ q_ r_ = Split all i2,3,3", {"axis": -1}), (
        "y = Concat p_ q_ r_", {"axis": -1})], [("p_ q_ = Split all i40,44", {"axis": 1}), ("y = Concat q_ p_", {"axis": 1})],
    *([(f"p_ = Slice all {first}",), (f"q_ = Slice all {second}",), ("y = Concat p_ q_", {"axis": axis})] for first, second, axis in (
        ("i0 i5 i2", "i-3 i99 i-1", 2), ("i0 i42 i1", "i42 i84 i1", 1), ("i0,0 i84,5 i1,2", "i0,5 i84,8 i1,2 i1,1", 2), ("i0 i8 i2 i2", "i1 i8 i2 i2", 2))))
SOURCES = {"w": logits(1, 84, 8), "b": boxes(1, 84, 4), "s": shares(1, 84, 3), "p": shares(1, 84, 10) * 64, "o": joined(boxes(1, 84, 4), shares(1, 84, 3))}


def value_of(name, values):
    """A constant; i and numbers with commas are integers."""
    return ints(*map(int, name[1:].split(","))) if re.fullmatch("i-?[0-9][-0-9,]*", name) else values[name]


def selecting(nodes, outputs):
    model = onnx.load_from_string(table(SOURCES))
    graph = model.graph
    known = {"x", *(name for node in graph.node for name in node.output)}
    for text, *attributes in nodes:
        results, call = text.split(" = ")
        operator, *inputs = call.split()
        for name in inputs:
            if name not in known:
                graph.initializer.append(numpy_helper.from_array(np.asarray(value_of(name, {**CONSTANTS, **OF_SELECTIONS})), name))
        known.update(inputs, results.split())
        graph.node.append(helper.make_node(operator, inputs, results.split(), name=f"/tail/{results.split()[0]}", **dict(*attributes)))
    del graph.output[:]
    graph.output.extend(helper.make_tensor_value_info(name, onnx.TensorProto.FLOAT, None) for name in outputs.split())
    return model.SerializeToString()


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
    """The lines of the second network that the first has not, and those but constants that it has no more."""
    return "".join(f"  {sign} {line}\n" for sign, lines, others in (("-", before, after), ("+", after, before))
                   for line in lines if line not in others and (sign == "+" or ": " not in line))


def by_case(text):
    """Changes of a network of many cases, in their order and without their numbers, so that further ones change no
    other line."""
    cases = collections.defaultdict(list)
    for line in text.splitlines(True):
        number = re.search(r"^  [-+] (?:output )?[a-z]+(\d+)", line)
        number = number[1] if number else ""
        cases[int(number or -1)].append(re.sub(rf"\b([a-z]+){number}(?=_|\b)", r"\1", line) if number else line)
    return "".join("".join(lines) for _, lines in sorted(cases.items()))


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
        self.assert_transcript_kept("written_heads")

    def test_what_is_rewritten_for_the_engine(self):
        for opset in (11, 13):
            (self.folder / "in.onnx").write_bytes(network([entry for entry in CASES if entry[4].get("opset", 13) == opset], opset))
            self.packed("in.onnx", "--boxes", "boxes", "--scores", "scores")
            self.transcript += by_case(changes(lines_of(self.folder / "in.onnx"), lines_of(self.folder / "out.onnx")))
        self.assert_transcript_kept("written_rewrites")

    def test_what_is_cut_off_behind_boxes_and_scores(self):
        for name, tail, nodes, outputs in SELECTIONS:
            (self.folder / "in.onnx").write_bytes(selecting([*tail, *nodes], outputs))
            self.transcript += f"# {name}\n"
            options = [*PACKED_AS.get(name, ["--box-axes", "yx" if "5" in name else "xy"]), "--force"]
            result = self.transcribe([TOOL, "pack", "in.onnx", "-o", "out.qtm", *options], shlex.join(["olvex-det", "pack", *options]))
            if result.returncode == 0:
                report = self.transcript
                self.tool("inspect", "out.qtm", "--network", "out.onnx")
                self.transcript = report + changes(lines_of(self.folder / "in.onnx"), lines_of(self.folder / "out.onnx"))
        self.transcript = re.sub(r"at most \S+ pixels apart, scores \S+", "at most N pixels apart, scores N", self.transcript)
        self.assert_transcript_kept("written_selections")

    def test_what_rows_come_from(self):
        for nodes in TRACES:
            (self.folder / "in.onnx").write_bytes(selecting([*TRACED, *nodes], "y"))
            head = self.transcribe([TOOL, "inspect", "in.onnx"], "inspect").stdout.partition("\nhead ")[2]
            self.transcript = self.transcript.partition("$ inspect")[0] + f"{nodes}\n{head}"
        self.assert_transcript_kept("written_traces")

    def test_what_is_remarked_of_options_scores_and_the_engine(self):
        def write(name, scores=None, **outputs):
            (self.folder / f"{name}.onnx").write_bytes(table({"b": boxes(1, 84, 4), "s": scores} if scores is not None else outputs))
        write("layers", **layers({"o": lambda s, n: logits(1, 6, n, n)}))
        few = np.zeros((1, 84, 2))
        for name, value in (("alike", 0), ("nearly", .99e-9), ("barely", 1.005e-9)):
            few[0, 3, 1] = value
            write(name, few)
        for name, least, most in (("below", -2e-4, .4), ("within", -5e-5, .4), ("above", 0, 1.0002), ("up_to", 0, 1.00005)):
            scores = np.linspace(.1, .4, 168).reshape(1, 84, 2)
            scores[0, 5], scores[0, 9] = least, most
            write(name, scores)
        for name, sure, score, box, others in (
                ("ten_one", 10, .6, (3, 3, 3, 9), (3, 3, 20, 20)), ("nine_one", 9, .6, (3, 9, 9, 9), (3, 3, 20, 20)), ("thin", 1, .502, (3, 3, 4, 9), ()),
                ("thinner", 1, .502, (3, 3, 3.9, 9), ()), ("flat", 1, .502, (3, 3, 9, 3.9), ()), ("unsure", 1, .498, (3, 3, 9, 9), ()),
                *((f"beyond{number}", 1, .6, box, ()) for number, box in enumerate((
                    (-6.3, 0, 57.7, 9), (-6.5, 0, 57.5, 9), (0, -6.5, 9, 57.5), (6.5, 0, 70.5, 9), (0, 6.5, 9, 70.5)))),
                ("many", 16, .6, (3, 3, 9, 9), (3, 3, 9, 9)), ("crowd", 17, .6, (3, 3, 9, 9), (3, 3, 9, 9))):
            scores = np.linspace(.1, .2, 168).reshape(1, 84, 2)
            scores[0, :sure, 0] = score
            write(name, b=np.array([box] + [others or box] * 83).reshape(1, 84, 4), s=scores)
        for name, sizes in (("low", (1, 3, 1, 64)), ("narrow", (1, 3, 64, 1)), ("last", (1, 8, 8, 3)), ("lowest", (1, 1, 64, 3))):
            (self.folder / f"{name}.onnx").write_bytes(network([], sizes=sizes))
        (self.folder / "engine.onnx").write_bytes(network([folded("Slice c i0 i0 i0")]))
        model = onnx.load_from_string(table(layers({"b": lambda s, n: logits(1, n * n, 4), "c": lambda s, n: shares(1, n * n, 2),
                                                      "o": lambda s, n: shares(1, n * n, 1)})))
        for version in (6, 9):
            model.opset_import[0].version = version
            (self.folder / f"version{version}.onnx").write_bytes(model.SerializeToString())
        self.assert_session_kept("written_remarks")

    def test_what_is_computed_of_constants(self):
        (self.folder / "in.onnx").write_bytes(network([folded(entry) for entry in FOLDED]))
        self.packed("in.onnx", "--boxes", "boxes", "--scores", "scores")
        weights = {weight.name: numpy_helper.to_array(weight) for weight in onnx.load(self.folder / "out.onnx").graph.initializer}
        for number, entry in enumerate(FOLDED):
            values = weights.get(f"y{number}_floats", weights.get(f"folded{number}"))
            call, attributes = entry if isinstance(entry, tuple) else (entry, {})
            named = {name: value.name if isinstance(value, onnx.TensorProto) else value for name, value in attributes.items()}
            self.transcript += f"{call} {named or ''}: {numbers_of(values, 99)}\n"
        self.assert_transcript_kept("written_constants")


if __name__ == "__main__":
    main()
