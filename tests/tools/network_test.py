# SPDX-License-Identifier: Apache-2.0
"""network_test.py - networks that pack rewrites compute what they computed: each case runs in the engine as
packed, and is compared with the same arithmetic in numpy.

See tool_test.py for the usage.
"""
import json
import os
import random
import resource
import subprocess

import cv2
import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper
from tool_test import TOOL, ToolTest, main, make_network

SEED = np.random.default_rng(7)
OUT = ["-o", "out.qtm", "--boxes", "boxes", "--scores", "scores"]


def floats(*shape):
    return SEED.uniform(0.25, 1.5, shape).astype(np.float32)


def ints(*values):
    return np.array(values, np.int64)


def softmax(x, *axes):
    e = np.exp(x - x.max(axes, keepdims=True))
    return e / e.sum(axes, keepdims=True)


def network(cases, opset=13, sizes=None, metadata=None):
    """A picture x, boxes and scores, and for each case the output y of its own nodes "y z = Operator a b", in which
    v is x / 255 in the case's shape; names end in the number of the case. None in sizes leaves a dimension open."""
    weights = {"k255": np.float32(1 / 255), "shape_of_boxes": ints(1, 48, 4)}
    made = [helper.make_node("Mul", ["x", "k255"], ["x01"]), helper.make_node("Reshape", ["x01", "shape_of_boxes"], ["boxes"]),
            helper.make_node("Sigmoid", ["boxes"], ["scores"])]
    for number, (_, nodes, _, own, options) in enumerate(cases):
        own = {**own, "shape": ints(*options.get("shape", (1, 3, 8, 8)))}
        weights.update({f"{name}{number}": value for name, value in own.items()})
        for text, *attributes in [("v = Reshape x01 shape",), *nodes]:
            outputs, call = text.split(" = ")
            operator, *inputs = call.split()
            made.append(helper.make_node(
                operator, ["" if name == "_" else name if name == "x01" else f"{name}{number}" for name in inputs],
                [f"{name}{number}" for name in outputs.split()], name=f"node_{len(made)}", **dict(*attributes)))
    graph = helper.make_graph(
        made, "graph", [helper.make_tensor_value_info("x", TensorProto.FLOAT, sizes or (1, 3, 8, 8))],
        [helper.make_tensor_value_info(name, TensorProto.FLOAT, None)
         for name in ["boxes", "scores"] + [f"y{number}" for number in range(len(cases))]],
        [numpy_helper.from_array(np.asarray(value), name) for name, value in weights.items()])
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", opset)], ir_version=7)
    helper.set_model_props(model, metadata or {})
    return model.SerializeToString()


def table(outputs, metadata=None, front="x", planes=3, said=None):
    """Outputs of these values whatever the picture is; front is what the network itself makes of it first. An output
    in parts is joined along the dimension in which they differ; ("Add", values) is a part that is decoded, with zeros for
    the cells, and other operators are what stands behind the weights."""
    nodes = [helper.make_node("Mul", ["x", "half"], ["scaled"]), helper.make_node("GlobalAveragePool", [front], ["mean"])]
    weights = {"half": np.float32(.5)}
    shapes = {}
    for output, parts in outputs.items():
        parts = [part if isinstance(part, tuple) else ("", part) for part in (parts if isinstance(parts, list) else [parts])]
        names = [output] if len(parts) == 1 else [f"{output}_{number}" for number in range(len(parts))]
        for name, (operator, values) in zip(names, parts):
            weights.update({f"{name}w": np.zeros((values.size, planes, 1, 1), np.float32), f"{name}b": np.float32(values.ravel()),
                            f"{name}s": ints(*values.shape)})
            behind = operator.split()
            steps = [f"{name}f", *(f"{name}_before_{step}" for step in range(len(behind))), name]
            nodes += [helper.make_node("Conv", ["mean", f"{name}w", f"{name}b"], steps[:1], kernel_shape=[1, 1]),
                      helper.make_node("Reshape", [steps[0], f"{name}s"], steps[1:2])]
            weights.update({f"{name}Add": np.zeros(values.shape, np.float32), f"{name}Pow": np.float32(2)})
            nodes += [helper.make_node(operator, [before] + [f"{name}{operator}"] * (operator in ("Add", "Pow")), [after])
                      for operator, before, after in zip(behind, steps[1:], steps[2:])]
        first, second = parts[0][1].shape, parts[-1][1].shape
        axis = next((i for i, sizes in enumerate(zip(first, second)) if sizes[0] != sizes[1]), len(first) - 1)
        shapes[output] = joined(*(values for _, values in parts), axis=axis).shape
        if len(parts) > 1:
            nodes.append(helper.make_node("Concat", names, [output], axis=axis))
    graph = helper.make_graph(
        nodes[front == "x":], "graph", [helper.make_tensor_value_info("x", TensorProto.FLOAT, (1, planes, 64, 64))],
        [helper.make_tensor_value_info(name, TensorProto.FLOAT, said or shape) for name, shape in shapes.items()],
        [numpy_helper.from_array(np.asarray(value), name) for name, value in weights.items()])
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)], ir_version=7)
    helper.set_model_props(model, metadata or {})
    return model.SerializeToString()


def logits(*shape):
    return np.random.default_rng(1).normal(0, 3, shape)


def low(values, *channels, axis=1):
    """With these far below the others, as logits of scores are."""
    return values - 9 * np.isin(np.arange(values.shape[axis]), channels).reshape([-1 if i == axis else 1 for i in range(values.ndim)])


def shares(*shape):
    return 1 / (1 + np.exp(-logits(*shape)))


def joined(*parts, axis=2):
    return np.concatenate(parts, axis)


def layers(kinds, strides=(8, 16, 32)):
    """Outputs of these strides, cells in rows."""
    return {f"{name}{stride}": of(stride, 64 // stride) for stride in strides for name, of in kinds.items()}


def cells(strides=(8, 16, 32)):
    """Boxes of 20 x 10 pixels in the middle of every cell of a picture of 64 x 64."""
    middles = [((column + .5) * stride, (row + .5) * stride)
               for stride in strides for row in range(64 // stride) for column in range(64 // stride)]
    return np.float32([[(x - 10, y - 5, x + 10, y + 5) for x, y in middles]])


def in_rows(content, order, anchors=3):
    """The layers 1 x A C x H x W of table() as rows 1 x H W A x C, by this order of the dimensions A, C, H, W."""
    model = onnx.load_from_string(content)
    for output in model.graph.output:
        channels, height, width = (size.dim_value for size in output.type.tensor_type.shape.dim[1:])
        shape = (1, height * width * anchors, channels // anchors)
        model.graph.initializer.extend([numpy_helper.from_array(ints(1, anchors, channels // anchors, height, width), f"{output.name}x"),
                                        numpy_helper.from_array(ints(*shape), f"{output.name}y")])
        model.graph.node.extend([
            helper.make_node("Reshape", [output.name, f"{output.name}x"], [f"{output.name}z"]),
            helper.make_node("Transpose", [f"{output.name}z"], [f"{output.name}t"], perm=[0, *order]),
            helper.make_node("Reshape", [f"{output.name}t", f"{output.name}y"], [f"{output.name}_rows"])])
        output.CopyFrom(helper.make_tensor_value_info(f"{output.name}_rows", TensorProto.FLOAT, shape))
    return model.SerializeToString()


def outputs_of_heads():
    """By their names, networks whose head inspect has to conclude, or refuse."""
    pair = {"b": lambda s, n: logits(1, n * n, 4), "c": lambda s, n: shares(1, n * n, 2)}
    own = joined(shares(1, 1, 4, 4), logits(1, 4, 4, 4), shares(1, 3, 4, 4), axis=1)
    likely = np.exp(logits(1, 168, 3))
    likely /= likely.sum(2, keepdims=True)
    return {
        "it's_two": table(layers({"s": lambda s, n: logits(1, 39, n, n)})),
        "numbers": table({"o": joined(shares(1, 84, 5), np.floor(shares(1, 84, 1) * 5))}),
        "lies": table({"b": logits(1, 84, 4)}, said=(1, 80, 4)),
        "offsets": table({"o": joined(logits(1, 85, 4), shares(1, 85, 8))}, {"names": "['a', 'b', 'c', 'd', 'e', 'f', 'g']"}),
        "anchors": table({"o": logits(1, 252, 12)}, {"Labels": "a,b,c,d,e,f,g"}),
        "priors": table({"b": logits(1, 235, 4), "s": shares(1, 235, 3)}),
        "landmarks": table({"b": logits(1, 168, 4), "s": likely, "p": logits(1, 168, 10)}),
        "landmarks_of_one": table({"b": logits(1, 168, 4), "s": likely[..., :2] / likely[..., :2].sum(2, keepdims=True), "p": logits(1, 168, 15)}),
        "apart": table(layers({**pair, "o": lambda s, n: shares(1, n * n, 1), "k": lambda s, n: logits(1, n * n, 10)})),
        "pointless": table(layers({**pair, "o": lambda s, n: shares(1, n * n, 1)})),
        "distances": table(layers(pair), {"names": "{1: 'b'}"}),
        "bins": table(layers({"o": lambda s, n: joined(logits(1, n * n, 32), shares(1, n * n, 2))}), {"classes": "a\nb"}),
        "gray": table(layers({"o": lambda s, n: logits(1, 6, n, n)}), planes=1),
        "uneven": table({name: logits(1, 6, rows, 8) for name, rows in (("a", 8), ("b", 7), ("c", 6))}),
        "own": table({"o": own}, front="scaled"),
        "no_points": table(layers({"c": lambda s, n: logits(1, n * n, 20), "b": pair["b"], "o": lambda s, n: logits(1, n * n, 1)})),
        "not_raw": table(layers({"o": lambda s, n: logits(1, 6, n, n)}), {"names": "['men\'s shoe']"}),
        "counted": table(layers({"o": lambda s, n: joined(logits(1, n * n, 1) - 9, logits(1, n * n, 32))}), {"names": "x"}),
        "older": table(layers({"o": lambda s, n: low(logits(1, 21, n, n), 4, 11, 18)}, (16, 32))),
        "oldest": table(layers({"o": lambda s, n: low(logits(1, 125, n, n), *range(4, 125, 25))}, (32,))),
        # Two readings, and what tells them apart: the level of values, the rows of a cell, the order of dimensions.
        "either": table({"o": [("Add", cells()), shares(1, 84, 4) / 3]}),
        "sure": table({"o": [("Add", cells()), np.float32([[(i % 5 == 0, .1, .9, .2) for i in range(84)]])]}),
        "classes": table({"o": [("Add", cells()), np.float32([[(i % 5 == 0, .1, 0, .2) for i in range(84)]])]}),
        "two_of_each": table({"o": [("Add", cells().repeat(2, 1)), shares(1, 168, 4)]}),
        "columns": table({"o": [("Add", cells().transpose(0, 2, 1)), logits(1, 5, 84) - 6]}),
        "never": table({"o": [("Add", cells()), shares(1, 84, 1), ("Sigmoid", np.full((1, 84, 1), -200.))]}),
        "always": table({"o": [("Add", cells()), shares(1, 84, 1), ("Sigmoid", np.full((1, 84, 1), 200.))]}),
        "y_first": table({"o": [("Add", cells()[..., [1, 0, 3, 2]]), shares(1, 84, 1)]}),
        "named": table({"conf": logits(1, 235, 4), "loc": logits(1, 235, 4)}),
        "unnamed": table({"a": logits(1, 235, 4), "b": logits(1, 235, 4)}),
        "box_scores": table({"box_scores": shares(1, 84, 4), "box_coords": ("Add", cells())}),
        "centre-ness": table(layers({"cls": lambda s, n: shares(1, 3, n, n), "ctr": lambda s, n: shares(1, 1, n, n),
                                     "reg": lambda s, n: ("Relu", logits(1, 4, n, n))})),
        "far": table(layers({"cls": lambda s, n: shares(1, 3, n, n), "ctr": lambda s, n: shares(1, 1, n, n),
                             "reg": lambda s, n: ("Relu", 99 * logits(1, 4, n, n))})),
        "four": table(layers({"a": lambda s, n: logits(1, 4, n, n) - 5, "b": lambda s, n: logits(1, 1, n, n), "c": lambda s, n: logits(1, 4, n, n)})),
        "bins_or_anchors": table(layers({"o": lambda s, n: logits(1, 33, n, n)})),
        "low_class": table(layers({"o": lambda s, n: low(logits(1, 33, n, n), 32)})),
        "low_objectness": table(layers({"o": lambda s, n: low(logits(1, 18, n, n), 4)})),
        "background": table({"b": logits(1, 235, 4), "s": shares(1, 235, 2)}, {"names": "['BACKGROUND', 'face']"}),
        "point_logits": table({"p": logits(1, 168, 10), "b": logits(1, 168, 4), "s": logits(1, 168, 2)}),
        "layers_of_priors": table(layers({"b": lambda s, n: logits(1, 2 * n * n, 4), "p": lambda s, n: logits(1, 2 * n * n, 10), "s": lambda s, n: likely[:, :2 * n * n, :2]
                                          / likely[:, :2 * n * n, :2].sum(2, keepdims=True)})),
        "boxes_apart": table({"b": ("Add", cells().reshape(1, 84, 1, 4)), "s": shares(1, 84, 3)}),
        "fractions": table({"b": ("Add", cells() / 64), "landmarks": ("Add", np.tile(cells()[..., :2] / 64, 5).clip(0, 1)), "s": shares(1, 84, 1)}),
        "anchors_last": table(layers({"o": lambda s, n: logits(1, n, n, 3, 7)})),
        "channels_last": table(layers({"o": lambda s, n: low(logits(1, n, n, 6), 4, 5, axis=3)})),
        "beside": table({"o": [("Add", cells().transpose(0, 2, 1)), shares(1, 3, 84)], **layers({"raw": lambda s, n: logits(1, 7, n, n)})}),
        "two_sets": table({"o": logits(1, 20, 25)}, {"names": str(list("abcdefghijklmnopqrst"))}),
        "cell_by_cell": in_rows(table(layers({"o": lambda s, n: ("Neg", logits(1, 21, n, n))})), (3, 4, 1, 2)),
        "anchor_by_anchor": in_rows(table(layers({"o": lambda s, n: ("Neg", logits(1, 21, n, n))})), (1, 3, 4, 2))}


METADATA = (
    {"mean": "0.485,0.456,0.406", "std": "[0.229, 0.224, 0.225]", "channel_order": "BGR", "resize": "stretch"},
    {"pixel_mean": "103.53 116.28 123.675", "pixel_std": "57.375,57.12,58.395", "letterbox": "center"},
    {"image_mean": "1", "std": "0.5", "keep_ratio": "false"}, {"image_mean": "127.5", "stds": "0.5", "resize_mode": "letterbox"},
    {"scale_values": "255", "letterbox": "0", "names": "['a', \"b\", 'c']"}, {"norm": "2", "names": '{"0": "a", "1": "b", "2": "c"}'},
    {"norm": "2.5", "color_space": "yuv", "std": "0", "labels": "a\nb\nc"}, {"Scale": "1,2", "Mean": "none", "names": "a"},
    {"mean": "0", "names": "{1: 'b', 0: 'a', 2: 'c'}"})

A, ROW, COLUMN, PLANES = floats(1, 48, 4), floats(4), floats(48, 1), floats(3, 1, 1)
WEIGHT8 = SEED.integers(-128, 128, (5, 3, 3, 3)).astype(np.int8)
SCALES, ZEROS = floats(5) / 50, np.array([0, 3, -5, 7, 1], np.int8)
DEQUANTISED = (WEIGHT8.astype(np.float32) - ZEROS.reshape(5, 1, 1, 1)) * SCALES.reshape(5, 1, 1, 1)
WINDOW = floats(5, 3, 1, 1)
LIST, DEEP = (1, 48, 4), (1, 3, 2, 4, 8)
NEAREST = {"mode": "nearest", "coordinate_transformation_mode": "asymmetric", "nearest_mode": "floor"}


def convolved(v, weights):
    wide = np.pad(v, ((0, 0), (0, 0), (1, 1), (1, 1)))
    return sum(np.einsum("oi,nihw->nohw", weights[:, :, i, j], wide[:, :, i:i + 8, j:j + 8])
               for i in range(3) for j in range(3))


def case(said, nodes, expected, weights=None, **options):
    return said, nodes, expected, weights or {}, options


def arithmetic():
    """Every operation of two operands with every shape that exporters write, the second constant or computed."""
    for name, function in (("Add", np.add), ("Sub", np.subtract), ("Mul", np.multiply), ("Div", np.divide)):
        for shape, others in (((1, 3, 8, 8), ((), (3, 1, 1), (1, 1, 8, 8), (8,), (1, 1, 8, 1), (1, 3, 8, 8), (1, 1, 1, 1))),
                              (LIST, ((1, 48, 1), (48, 1), (1, 1, 4), (4,), (48, 4), (1, 1, 1))),
                              ((1, 1, 192), ((1, 5, 1),)), (DEEP, ((1, 3, 1, 1, 8), (8,), (4, 1)))):
            for other in others:
                for computed in (False, True) if len(other) > 1 else (False,):  # the engine has no values of one dimension
                    for order in (1, -1):
                        w, size = floats(*other), int(np.prod(other))
                        nodes = [("f = Reshape v flat",), ("s = Slice f from to axis",), ("r = Reshape s like",), ("c = Add r w",)]
                        yield case("", [*(nodes if computed else []), (f"y = {name} " + " ".join(["v", "c" if computed else "w"][::order]),)],
                                   lambda v, f=function, w=w, o=order, n=size * computed: f(
                                       *[v + .0, w + (v.ravel()[:n].reshape(w.shape) if n else 0)][::o]),
                                   {"w": w, "flat": ints(1, -1), "from": ints(0), "to": ints(size), "axis": ints(1), "like": ints(*other)}, shape=shape)


CASES = [
    *(case("Clip", [(f"y = Clip v {bounds}",)], lambda v, b=limits: np.clip(v, *b), {"l": np.float32(.2), "h": np.float32(.6)})
      for bounds, limits in (("l h", (.2, .6)), ("l", (.2, 9)), ("_ h", (0, .6)))),
    case("Max", [("a = Max v l",), ("y = Min h a",)], lambda v: np.clip(v, .2, .6), {"l": np.float32([.2]), "h": np.float32(.6)}),
    case("folded", [("k = Constant", {"value_float": .5}), ("a = Mul v k",), ("l = Constant", {"value": numpy_helper.from_array(np.float32([.25]))}), ("b = Add a l",),
                    ("m = Constant", {"value": numpy_helper.from_array(np.float32([3]))}), ("y = Mul b m",)], lambda v: (v * .5 + .25) * 3),
    case("folded", [("s = Shape v",), ("n = Gather s one",), ("m = Mul n two",), ("u = Unsqueeze m zero",), ("c = Concat u rest", {"axis": 0}),
                    ("y = Reshape v c",)], lambda v: v.reshape(6, -1), {"one": np.int64(1), "two": np.int64(2), "zero": ints(0), "rest": ints(-1)}),
    case("folded", [("r = Range zero n one",), ("c = Cast r", {"to": 1}), ("d = Add c half",), ("e = Expand d sizes",), ("t = Transpose e", {"perm": [1, 0]}),
                    ("f = Slice t zeros sevens zeros",), ("g = Concat f l", {"axis": 0}), ("y = Add v g",)],
         lambda v: v + np.vstack([np.repeat(np.arange(7)[:, None] + .5, 8, 1), np.full((1, 8), 9)]),
         {"zero": np.int64(0), "n": np.int64(8), "one": np.int64(1), "half": np.float32(.5), "sizes": ints(8, 8), "zeros": ints(0),
          "sevens": ints(7), "l": np.full((1, 8), 9, np.float32)}),
    *(case("Split", [("y z = Split v sizes", {"axis": axis})], lambda v, c=cut: v[c], {"sizes": sizes})
      for axis, sizes, cut in ((1, ints(1, 2), np.s_[:, :1]), (-1, ints(3, 5), np.s_[..., :3]))),
    *(case("Squeeze", [(f"y = {call}", *attributes)], lambda v, s=to: v.reshape(s), {"two": ints(2), "some": ints(1, 3), "last": ints(-1)},
           shape=shape, opset=opset)
      for call, attributes, to, shape, opset in (
          ("Squeeze v two", [], (1, 24, 8), (1, 24, 1, 8), 13), ("Squeeze v", [{"axes": [-1]}], (1, 24, 8), (1, 24, 8, 1), 11),
          ("Squeeze v", [], (24, 8), (1, 24, 1, 8), 13), ("Unsqueeze v some", [], (1, 1, 24, 1, 8), (1, 24, 8), 13),
          ("Unsqueeze v last", [], (1, 24, 8, 1), (1, 24, 8), 13))),
    case("Softmax", [("y = Softmax v", {"axis": 1})], lambda v: softmax(v, 1, 2, 3), opset=11),
    case("Softmax", [("y = Softmax v",)], lambda v: softmax(v, 3)),
    case("reduction", [("y = ReduceSum v a", {"keepdims": 0})], lambda v: v.sum(2), {"a": ints(-1)}, shape=LIST),
    case("TopK of one", [("t i = TopK v one", {"axis": -1}), ("c = Cast i", {"to": 1}), ("y = Add t c",)],
         lambda v: v.max(-1, keepdims=True) + v.argmax(-1)[..., None], {"one": ints(1)}, shape=LIST),
    case("Gather", [("y = Gather v i", {"axis": -1})], lambda v: v[..., [3, 0, 1]], {"i": ints(3, 0, -3)}, shape=LIST),
    case("Gather", [("y = Gather v i", {"axis": 1})], lambda v: v[:, [2]], {"i": ints(2)}),
    *(case("Slice", [(f"y = Slice v {inputs}",)], lambda v, c=cut: v[c], {"a": ints(0, 1), "b": ints(2, 3), "c": ints(3, 1), "f": ints(-1),
                                                                       "e": ints(-2**63 + 1), "o": ints(1), "n": ints(-1)})
      for inputs, cut in (("a b c", np.s_[:, 1:3, :, 0:2]), ("f e o n", np.s_[:, ::-1]))),
    *(case("Expand or Tile", [(f"y = {operator} v n",)], lambda v, n=times: np.tile(v, n), {"n": ints(*sizes)}, shape=shape)
      for operator, sizes, times, shape in (("Tile", (1, 2, 1, 3), (1, 2, 1, 3), (1, 3, 8, 8)), ("Expand", (5, 192), (1, 5, 1), (1, 1, 192)),
                                            ("Expand", (1, 192, 20), (1, 1, 20), (1, 192, 1)))),
    case("Where", [("g = Greater v h",), ("y = Where g v l",)], lambda v: np.where(v > .5, v, ROW), {"h": np.float32(.5), "l": ROW}, shape=LIST),
    case("Where", [("y = Where g v l",)], lambda v: np.where(np.arange(4) > 1, v, -1), {"g": np.arange(4) > 1, "l": np.float32(-1)}, shape=LIST),
    case("equal shapes", [("y = Pow v e",)], lambda v: v**2, {"e": np.full(LIST, 2, np.float32)}, shape=LIST),
    case("usual attributes", [("y = Conv v w",)], lambda v: np.einsum("oi,nihw->nohw", WINDOW[..., 0, 0], v), {"w": WINDOW}),
    case("16 bits", [("h = Cast v", {"to": 10}), ("i = Mul h w",), ("y = Cast i", {"to": 1})],
         lambda v: v * PLANES.astype(np.float16).astype(np.float32), {"w": PLANES.astype(np.float16)}),
    case("dequantised", [("w = DequantizeLinear q s z", {"axis": 0}), ("y = Conv v w", {"kernel_shape": [3, 3], "pads": [1, 1, 1, 1]})],
         lambda v: convolved(v, DEQUANTISED), {"q": WEIGHT8, "s": SCALES, "z": ZEROS}),
    case("within the range", [("q = QuantizeLinear v s z",), ("d = DequantizeLinear q s z",), ("y = Add d s",)],
         lambda v: np.clip(v, -.1, .41) + .002, {"s": np.float32(.002), "z": np.uint8(50)}),
    case("of integers", [("q s z = DynamicQuantizeLinear v",), ("i = ConvInteger q w z wz", {"pads": [1, 1, 1, 1]}), ("c = Cast i", {"to": 1}),
                         ("m = Mul s ws",), ("y = Mul c m",)],
         lambda v: convolved(v, WEIGHT8 - np.float32(4)) * .01, {"w": WEIGHT8, "wz": np.int8(4), "ws": np.float32(.01)}),
    case("of integers", [("q s z = DynamicQuantizeLinear v",), ("i = MatMulInteger q w z",), ("c = Cast i", {"to": 1}), ("m = Mul s ws",), ("y = Mul c m",)],
         lambda v: v @ WEIGHT8[0, 0, :2, :2].repeat(2, 0).astype(np.float32) * .01,
         {"w": WEIGHT8[0, 0, :2, :2].repeat(2, 0), "ws": np.float32(.01)}, shape=LIST),
    case("equal shapes", [("m = ReduceMean v", {"axes": [-1]}), ("d = Sub v m",), ("p = Pow d two",), ("n = ReduceMean p", {"axes": [-1]}), ("e = Add n eps",),
                          ("r = Sqrt e",), ("o = Div d r",), ("g = Mul o w",), ("y = Add g w",)],
         lambda v: (v - v.mean(-1, keepdims=True)) / np.sqrt(v.var(-1, keepdims=True) + 1e-5) * ROW + ROW,
         {"two": np.float32(2), "eps": np.float32(1e-5), "w": ROW}, shape=LIST),
    case("", [("y = Resize v _ s", NEAREST)], lambda v: v.repeat(2, 2).repeat(2, 3), {"s": np.float32([1, 1, 2, 2])}),
    *arithmetic()]


# All that the engine computes; the others are those with a remedy of their own, and some without.
KNOWN = """Abs Acos Acosh Add ArgMax ArgMin Asin Asinh Atan Atanh AveragePool BatchNormalization Cast Ceil Celu Clip Concat Constant
ConstantOfShape Conv ConvTranspose Cos Cosh DepthToSpace DequantizeLinear Div Dropout Elu Equal Erf Exp Expand Flatten Floor GRU Gather Gemm
GlobalAveragePool GlobalMaxPool Greater HardSigmoid HardSwish Identity InstanceNormalization LRN LSTM LeakyRelu Less Log LogSoftmax MatMul Max
MaxPool MaxUnpool Min Mul Neg PRelu Pad Pow QLinearConv QLinearMatMul QuantizeLinear Reciprocal ReduceL1 ReduceL2 ReduceLogSum ReduceLogSumExp
ReduceMax ReduceMean ReduceMin ReduceProd ReduceSum ReduceSumSquare Relu Reshape Resize Round Selu Shape Shrink Sigmoid Sign Sin Sinh Slice
Softmax Softplus Softsign SpaceToDepth Split Sqrt Squeeze Sub Sum Tan Tanh ThresholdedRelu Transpose Unsqueeze Upsample"""
OTHERS = "NonMaxSuppression TopK TopK NonZero GatherND GatherElements ScatterND ScatterElements RoiAlign Unique Compress If Loop Scan Einsum Mod Not"
RESIZES = [(mode, places, rounding) for mode in ("nearest", "linear") for places in ("asymmetric", "half_pixel")
           for rounding in ("floor", "round_prefer_floor", "ceil")] + [("cubic", "half_pixel", "floor")]


class NetworkTest(ToolTest):
    def packed(self, content, *options):
        (self.folder / "in.onnx").write_bytes(content)
        said = self.tool("pack", "in.onnx", *OUT, *options).stdout
        self.tool("inspect", "out.qtm", "--network", "out.onnx")
        return said, cv2.dnn.readNetFromONNX(str(self.folder / "out.onnx"))

    def test_each_rewrite_keeps_the_arithmetic(self):
        rewrites = ""
        picture = SEED.uniform(20, 255, (1, 3, 8, 8)).astype(np.float32)
        for opset in (11, 13):
            cases = [entry for entry in CASES if entry[4].get("opset", 13) == opset]
            report, engine = self.packed(network(cases, opset))
            rewrites += "".join(line for line in report.splitlines(True) if line.startswith("  network"))
            engine.setInput(picture)
            for number, (said, nodes, expected, weights, options) in enumerate(cases):
                with self.subTest(nodes, weights={name: np.shape(value) for name, value in weights.items()}):
                    self.assertIn(said, report)
                    found = engine.forward(f"y{number}")
                    wanted = expected((picture / 255).reshape(options.get("shape", (1, 3, 8, 8))))
                    self.assertEqual(found.shape, wanted.shape)
                    np.testing.assert_allclose(found, wanted, rtol=1e-4, atol=1e-4)
        self.assert_kept("network_rewrites", rewrites)

    def test_open_sizes_come_from_the_option_or_from_the_metadata(self):
        for open_sizes in ((None, 3, None, None), (None, 3, 8, 8), (1, 3, None, 8)):
            for metadata, options in (({"imgsz": "[8, 8]"}, ()), ({}, ["--size", "8x8"])):
                report = self.packed(network([], sizes=open_sizes, metadata=metadata), *options)[0]
                self.assertIn("to x 1x3x8x8", report)

    def test_what_is_concluded_of_outputs_metadata_and_options(self):
        for name, content in outputs_of_heads().items():
            (self.folder / f"{name}.onnx").write_bytes(content)
        make_network(self.folder / "boxes.onnx", "decoded", 64, 32)
        for number, metadata in enumerate(METADATA):
            model = onnx.load(self.folder / "boxes.onnx")
            helper.set_model_props(model, metadata)
            onnx.save(model, self.folder / f"metadata{number}.onnx")
        self.assert_session_kept("network_heads")

    def test_fusion_that_changes_described_outputs_is_switched_off(self):
        for operators, differs in (("Pow Neg", True), ("Neg", False)):  # the engine fuses the first two into another power
            for options, outputs in ((OUT[2:], {"boxes": cells(), "scores": (operators, logits(1, 84, 2))}),
                                     (["--raw", "o8", "o16", "o32"], layers({"o": lambda s, n, o=operators: (o, logits(1, 6, n, n))}))):
                (self.folder / "in.onnx").write_bytes(table(outputs))
                said = self.tool("pack", "in.onnx", *OUT[:2], *options).stderr
                self.assertEqual("it is switched off in the image" in said, differs)
                self.assertEqual(b'"fusion": false' in (self.folder / "out.qtm").read_bytes(), differs)

    def test_what_is_left_is_refused_with_operator_and_node(self):
        top = case("", [("y i = TopK v k",)], None, {"k": ints(2)})
        inner = case("", [("t i = TopK v k",), ("y = MatMul t w",)], None, {"k": ints(2), "w": floats(2, 8)})
        cubic = case("", [("y = Resize v _ s", {**NEAREST, "mode": "cubic"})], None, {"s": np.float32([1, 1, 2, 2])})
        short = case("", [("y = ConvTranspose v w",)], None, {"w": floats(3)})  # libonnx crashes on it
        for content, code, said in (
                (network([short]), 3, ["in.onnx: the records of the network are damaged"]),
                (network([top]), 3, ["in.onnx: ", 'TopK (node "node_4")', "version 13", "selection of boxes"]),
                (network([inner]), 3, ['TopK (node "node_4")', "version 13", "selection of boxes"]),
                (network([cubic]), 3, ["Resize (cubic"]),
                (network([], sizes=(1, 3, None, None)), 2, ["x 1x3x?x?", "--size"]),
                (network([], sizes=(1, None, 8, 8)), 3, ["number of planes open"])):
            (self.folder / "in.onnx").write_bytes(content)
            self.tool("pack", "in.onnx", *OUT[:2 if b"MatMul" in content else None], code=code, said=said)
            self.assertFalse((self.folder / "out.qtm").exists())

    def test_operators_that_the_engine_lacks_are_told_with_a_remedy(self):
        operators = [case("", [(f"y = {operator} v",)], None) for operator in f"{KNOWN} {OTHERS}".split()]
        foreign = case("", [("y = Clip v", {"domain": "own.operators"})], None)
        resizes = [case("", [("y = Resize v _ s", {"mode": mode, "coordinate_transformation_mode": places, "nearest_mode": rounding})],
                        None, {"s": np.float32([1, 1, 2, 2])}) for mode, places, rounding in RESIZES]
        usual = case("", [("y = Resize v _ s",)], None, {"s": np.float32([1, 1, 2, 2])})
        (self.folder / "operators.onnx").write_bytes(network([*operators, foreign]))
        (self.folder / "resizes.onnx").write_bytes(network([*resizes, usual]))
        self.assert_session_kept("network_operators")

    def test_open_sizes_and_parts_that_are_missing_or_too_many_are_told(self):
        for number, (key, value) in enumerate((("img_size", "8"), ("image_size", "8,8"), ("input_size", "(3, 16, 8)"), ("input_shape", "1x3x8x16"),
                                               ("imgsz", "65535"), ("imgsz", "65536"), ("imgsz", "0"), ("imgsz", "8, 0"), ("imgsz", "none"))):
            (self.folder / f"open{number}.onnx").write_bytes(network([], sizes=(None, 3, None, None), metadata={key: value}))
        unused = case("", [("a = Sigmoid v",), ("y = Sigmoid v",), ("b = Sigmoid a",)], None)
        for name, change in (("weights", lambda graph: graph.input.append(helper.make_tensor_value_info("k255", TensorProto.FLOAT, ()))),
                             ("pictures", lambda graph: graph.input.append(helper.make_tensor_value_info("z", TensorProto.FLOAT, (1, 3, 4, 4)))),
                             ("nothing", lambda graph: graph.ClearField("output")), ("flat", lambda graph: graph.input[0].CopyFrom(
                                 helper.make_tensor_value_info("x", TensorProto.FLOAT, (3, 8, 8)))),
                             ("outside", lambda graph: graph.initializer[0].__setattr__("data_location", TensorProto.EXTERNAL))):
            model = onnx.load_from_string(network([unused]))
            change(model.graph)
            (self.folder / f"{name}.onnx").write_bytes(model.SerializeToString())
        self.assert_session_kept("network_parts")

    def test_inspect_tells_what_a_network_holds_and_lacks(self):
        (self.folder / "in.onnx").write_bytes(network(
            [case("", [("a = Clip v l",), ("y i = TopK a k",)], None, {"k": ints(2), "l": np.float32(0)})], 13, (None, 3, 8, 8),
            {"task": "detect"}))
        found = json.loads(self.tool("inspect", "in.onnx", "--json", code=1).stdout)
        self.assert_fits_schema(found, "inspect_network")
        self.assertEqual(found["inputs"], [{"name": "x", "shape": [None, 3, 8, 8]}])
        self.assertEqual((found["operators"]["Reshape"], found["opset"], found["metadata"]), (2, 13, {"task": "detect"}))
        self.assertEqual([(entry["operator"], entry["first_node"]) for entry in found["missing_operators"]], [("TopK", "node_5")])
        text = self.tool("inspect", "in.onnx", code=1).stdout
        for part in ("x ?x3x8x8", "Clip 1, Mul 1, ", "task: detect", "fixed the open sizes", "bounds of 1 Clip", "engine lacks    TopK"):
            self.assertIn(part, text)
        self.tool("inspect", "in.onnx", "--network", "in.onnx", code=2, said=["overwrite"])
        make_network(self.folder / "two words.onnx", "decoded", 72, 64, 8)
        found = json.loads(self.tool("inspect", "two words.onnx", "--json").stdout)["head"]
        self.assertEqual((found["family"], found["fault"]), ("boxes-and-scores", None))
        subprocess.run(f"PATH={os.path.dirname(TOOL)}:$PATH; {found['commands'][0]} --force", shell=True, check=True,
                       cwd=self.folder, stdout=subprocess.DEVNULL)
        self.assertIn("planes red, green, blue", self.tool("inspect", "two words.qtm").stdout)

    def test_damaged_networks_are_refused_or_packed_within_limits(self):
        def limit():
            if b"__asan_init" not in TOOL_BYTES and b"__tsan_init" not in TOOL_BYTES:
                resource.setrlimit(resource.RLIMIT_DATA, (1 << 30, 1 << 30))
        chance = random.Random(5)
        whole = [network([entry]) for entry in CASES[::9]]
        for _ in range(60):
            content = bytearray(chance.choice(whole))
            for _ in range(chance.randint(0, 4)):
                content[chance.randrange(len(content))] = chance.randrange(256)
            content = content[:chance.choice((len(content), len(content), chance.randrange(len(content))))]
            (self.folder / "in.onnx").write_bytes(content)
            result = self.transcribe([TOOL, "pack", "in.onnx", *OUT], "pack", preexec_fn=limit, errors="replace")
            self.assertIn(result.returncode, (0, 2, 3), result.stderr)
            only_notes = all(line.startswith("olvex-det pack: note: ") for line in result.stderr.splitlines())
            self.assertEqual(result.returncode == 0, only_notes, result.stderr)
            self.assertNotRegex(result.stderr, r"partial|assert|cv::|\.cpp")


with open(TOOL, "rb") as tool:
    TOOL_BYTES = tool.read()

if __name__ == "__main__":
    main()
