#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the probe network of accel-check. Argument: the file; probe.onnx beside this script is what it writes.

Input "picture" is 1x3x18x42, red, green, blue of 0 to 255. Outputs are three layers of 11 channels: "full" of
18x42 cells, "half" of 9x21, an odd width, "sixth" of 3x7. probe.c computes the same values:
  full     channels 0 to 2 are the input, 3 to 8 constants; 9 rises by 13 a row, 10 by 6 a column
  half     channels 0 to 8 carry their index; 9 rises by 26 a row, 10 by 12 a column
  sixth  the same with values that 16 bits do not hold
"""
import sys

import numpy
import onnx
from onnx import TensorProto, helper, numpy_helper

WIDTH, HEIGHT, PLANES = 42, 18, 3


def number(name, values):
    return numpy_helper.from_array(numpy.asarray(values, dtype=numpy.float32), name)


def layer(name, step, shown, constants, by_row, by_column):
    """A convolution of one pixel each step pixels, which shows the input in its first channels, then two ramps."""
    rows, columns = (HEIGHT - 1) // step + 1, (WIDTH - 1) // step + 1
    weights = numpy.zeros((len(constants), PLANES, 1, 1))
    for k in range(shown):
        weights[k, k] = 1
    ramps = numpy.stack([numpy.add.outer(a * numpy.arange(rows), b * numpy.arange(columns))
                         for a, b in ((by_row, 0), (0, by_column))])
    flat, zeros, ramp = (f"{name}_{part}" for part in ("flat", "zeros", "ramp"))
    strides = {"kernel_shape": [1, 1], "strides": [step, step]}
    nodes = [helper.make_node("Conv", ["picture", flat + "_weights", flat + "_constants"], [flat], flat, **strides),
             helper.make_node("Conv", ["picture", zeros + "_weights"], [zeros], zeros, **strides),
             helper.make_node("Add", [zeros, ramp + "_values"], [ramp], ramp),
             helper.make_node("Concat", [flat, ramp], [name], name, axis=1)]
    numbers = [number(flat + "_weights", weights), number(flat + "_constants", constants),
               number(zeros + "_weights", numpy.zeros((2, PLANES, 1, 1))), number(ramp + "_values", ramps[None])]
    shape = [1, len(constants) + 2, rows, columns]
    return nodes, numbers, helper.make_tensor_value_info(name, TensorProto.FLOAT, shape)


def main():
    layers = [layer("full", 1, PLANES, [0, 0, 0, -120, 0, 40, 80, 160, 240], 13, 6),
              layer("half", 2, 0, [25 * k - 75 for k in range(9)], 26, 12),
              layer("sixth", 6, 0, [25000 * k - 100000 for k in range(9)], 20000, 12000)]
    picture = helper.make_tensor_value_info("picture", TensorProto.FLOAT, [1, PLANES, HEIGHT, WIDTH])
    graph = helper.make_graph(sum((nodes for nodes, _, _ in layers), []), "probe", [picture],
                              [output for _, _, output in layers], sum((numbers for _, numbers, _ in layers), []))
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 11)])
    model.ir_version = 6
    onnx.checker.check_model(model)
    with open(sys.argv[1], "wb") as file:
        file.write(model.SerializeToString(deterministic=True))


if __name__ == "__main__":
    main()
