"""Ways in which exporters write the same network otherwise. heads.py --variant applies them."""
import numpy as np
from onnx import helper, numpy_helper

KEPT = 300  # rows of top-k
DIMENSIONS = ("batch", None, "height", "width")
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
    "dynamic": (dynamic, "symbolic batch, height and width"),
}
