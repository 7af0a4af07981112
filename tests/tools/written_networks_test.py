"""written_networks_test.py - the networks that pack writes, told node by node: what it rewrites, cuts off and
appends for each head. That they compute the right values is shown by network_test.py and heads_test.py.

See tool_test.py for the usage.
"""
import collections
import re

import numpy as np
import onnx
from network_test import CASES, joined, layers, logits, network, outputs_of_heads, shares, table
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


def numbers_of(values):
    values = np.asarray(values)
    if values.size <= MOST_VALUES:
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
    def write(self, path, *options):
        """Packs a network, and adds to the transcript what it changed of it."""
        self.tool("pack", path, "-o", "out.qtm", *options)
        packed = self.transcript
        self.tool("inspect", "out.qtm", "--network", "out.onnx")
        self.transcript = packed + changes(lines_of(self.folder / path), lines_of(self.folder / "out.onnx"))

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


if __name__ == "__main__":
    main()
