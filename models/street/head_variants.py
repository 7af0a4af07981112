"""Ways in which exporters write the same network otherwise. heads.py --variant applies them."""
import numpy as np
from onnx import helper, numpy_helper

DIMENSIONS = ("batch", None, "height", "width")


def _constants(model):
    return {i.name: i for i in model.graph.initializer}


def metadata(model, classes_path):
    """Names of classes as a dictionary's text, largest stride, task, and the input's height and width."""
    names = dict(enumerate(classes_path.read_text(encoding="utf-8").split()))
    rows, columns = (d.dim_value for d in model.graph.input[0].type.tensor_type.shape.dim[2:])
    if not rows:
        raise SystemExit("heads.py: the variant metadata has to come before dynamic, which takes the size away")
    points = any(d.dim_value == 20 for o in model.graph.output for d in o.type.tensor_type.shape.dim)
    values = {"stride": "32", "task": "pose" if points else "detect", "batch": "1",
              "imgsz": str([rows, columns]), "names": str(names)}
    helper.set_model_props(model, values)


def dynamic(model, _classes_path):
    """Symbolic batch, height and width in the interface, and no batch in the targets of Reshape."""
    for dim, name in zip(model.graph.input[0].type.tensor_type.shape.dim, DIMENSIONS):
        if name:
            dim.dim_param = name
    for output in model.graph.output:
        dims = output.type.tensor_type.shape.dim
        for axis, dim in enumerate(dims):
            if axis == 0 and dim.dim_value == 1:
                dim.dim_param = "batch"
            elif dim.dim_value > 64:
                dim.dim_param = f"{output.name}_dim_{axis}"
    constants = _constants(model)
    for node in model.graph.node:
        if node.op_type == "Reshape" and node.input[1] in constants:
            target = numpy_helper.to_array(constants[node.input[1]]).copy()
            if target[0] == 1:
                target[0] = 0
                constants[node.input[1]].CopyFrom(numpy_helper.from_array(target, node.input[1]))


def shape_chains(model, _classes_path):
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


def clip_inputs(model, _classes_path):
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


def quantised(model, _classes_path):
    """The network's weights as 8-bit integers behind DequantizeLinear, one scale for a convolution, and the
    input through QuantizeLinear and DequantizeLinear. The boxes are those of the rounded weights."""
    graph, constants, nodes, known = model.graph, _constants(model), [], {}
    for node in graph.node:
        weights = node.input[1] if node.op_type == "Conv" and not node.name.startswith("/head/") else None
        if weights in constants and weights not in known:
            values = numpy_helper.to_array(constants[weights])
            known[weights] = weights + "_dequantised"
            scale = np.array(np.abs(values).max() / 127, np.float32)
            inputs = _integers(graph, weights, np.round(values / scale).astype(np.int8), scale)
            nodes.append(helper.make_node("DequantizeLinear", inputs, [known[weights]], name=weights + "/Dequantize"))
            graph.initializer.remove(constants[weights])
        if weights in known:
            node.input[1] = known[weights]
        nodes.append(node)
    picture = graph.input[0].name
    for node in nodes:
        for i, name in enumerate(node.input):
            node.input[i] = picture + "_dequantised" if name == picture else name
    steps = _integers(graph, picture, None, np.array(1 / 255, np.float32))
    quantise = helper.make_node("QuantizeLinear", [picture, *steps[1:]], [picture + "_quantised"],
                                name="/input/Quantize")
    back = helper.make_node("DequantizeLinear", [picture + "_quantised", *steps[1:]], [picture + "_dequantised"],
                            name="/input/Dequantize")
    del graph.node[:]
    graph.node.extend([quantise, back] + nodes)


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
    "quantised": (quantised, "weights as 8-bit integers behind DequantizeLinear; other boxes, of rounded weights"),
    "dynamic": (dynamic, "symbolic batch, height and width"),
}
