// SPDX-License-Identifier: Apache-2.0
// fit_to_engine.cpp - the list of rewrites for OpenCV 4.6, and of the operators that it has.
// Declared in loadable.h; node_rewriting.h has the rewrites.
#include <map>
#include <set>

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/network/constant_folding.h"
#include "tools/network/loadable.h"
#include "tools/network/node_rewriting.h"

namespace olvex_tools {

namespace {

struct Rewrite {
  int (*apply)(NetworkGraph*);
  // The line of the report: "<before> 3 <many> <after>".
  const char* before;
  const char* one;
  const char* many;
  const char* after;
};

// The engine's reader needs a shape there, of any kind.
int declare_shapes_of_outputs(NetworkGraph* network) {
  int count = 0;
  for (onnx::ValueInfoProto& output : *network->graph()->mutable_output()) {
    auto* const type = output.mutable_type()->mutable_tensor_type();
    if (type->has_shape()) {
      continue;
    }
    for (const std::int64_t size : network->shape_of(output.name()).value_or(Shape())) {
      type->mutable_shape()->add_dim()->set_dim_value(size);
    }
    type->mutable_shape();
    ++count;
  }
  return count;
}

const Rewrite kToFloats[] = {
    {widen_halves, "turned", "weight", "weights", "of 16 bits into 32-bit floats"},
    {drop_quantised_activations, "kept", "quantised activation", "quantised activations",
     "in floats, within the range of the integers"},
    {dequantise_weights, "dequantised", "weight", "weights", "to floats"},
    {drop_dynamic_quantisation, "turned", "product", "products",
     "of integers into products of floats, weights dequantised exactly, activations in floats"},
};

const Rewrite kToKnownForms[] = {
    {compute_choices, "turned", "Where", "Where", "into products and sums"},
    {clip_by_extremes, "turned", "Max or Min with a number", "Max or Min with a number",
     "into Clip"},
    {choose_best_by_maximum, "turned", "TopK of one", "TopK of one", "into ReduceMax and ArgMax"},
    {slice_instead_of_gathering, "turned", "Gather of several places", "Gather of several places",
     "into Slice"},
    {slice_one_axis_at_a_time, "split", "Slice", "Slice", "into one for each axis or run"},
    {repeat_by_concatenation, "turned", "Expand or Tile", "Expand or Tile", "into copies"},
    {reshape_instead_of_squeezing, "turned", "Squeeze or Unsqueeze", "Squeeze or Unsqueeze",
     "into Reshape"},
    {normalise_softmax, "wrote out the axes of", "Softmax", "Softmax", ""},
    {widen_broadcasts, "widened the operands of", "node", "nodes", "to equal shapes"},
    {turn_clip_bounds_into_attributes, "turned the bounds of", "Clip", "Clip", "into attributes"},
    {turn_axes_into_attributes, "turned the axes of", "reduction", "reductions", "into attributes"},
    {turn_split_sizes_into_attributes, "turned the sizes of", "Split", "Split", "into attributes"},
    {write_usual_attributes, "wrote out the usual attributes of", "node", "nodes", ""},
    {declare_shapes_of_outputs, "wrote out the shapes of", "output", "outputs", ""},
};

template <std::size_t Count>
void apply(const Rewrite (&rewrites)[Count], NetworkGraph* network,
           std::vector<std::string>* lines) {
  for (const Rewrite& rewrite : rewrites) {
    const int count = rewrite.apply(network);
    if (count != 0) {
      const std::string after = rewrite.after;
      lines->push_back(std::string(rewrite.before) + " " +
                       counted(count, rewrite.one, rewrite.many) +
                       (after.empty() ? "" : " " + after));
    }
  }
}

// ---- Operators that the engine has ----------------------------------------------------------------

const std::set<std::string>& known_operators() {
  static const std::set<std::string> operators = {"Abs",
                                                  "Acos",
                                                  "Acosh",
                                                  "Add",
                                                  "ArgMax",
                                                  "ArgMin",
                                                  "Asin",
                                                  "Asinh",
                                                  "Atan",
                                                  "Atanh",
                                                  "AveragePool",
                                                  "BatchNormalization",
                                                  "Cast",
                                                  "Ceil",
                                                  "Celu",
                                                  "Clip",
                                                  "Concat",
                                                  "Constant",
                                                  "ConstantOfShape",
                                                  "Conv",
                                                  "ConvTranspose",
                                                  "Cos",
                                                  "Cosh",
                                                  "DepthToSpace",
                                                  "DequantizeLinear",
                                                  "Div",
                                                  "Dropout",
                                                  "Elu",
                                                  "Equal",
                                                  "Erf",
                                                  "Exp",
                                                  "Expand",
                                                  "Flatten",
                                                  "Floor",
                                                  "GRU",
                                                  "Gather",
                                                  "Gemm",
                                                  "GlobalAveragePool",
                                                  "GlobalMaxPool",
                                                  "Greater",
                                                  "HardSigmoid",
                                                  "HardSwish",
                                                  "Identity",
                                                  "InstanceNormalization",
                                                  "LRN",
                                                  "LSTM",
                                                  "LeakyRelu",
                                                  "Less",
                                                  "Log",
                                                  "LogSoftmax",
                                                  "MatMul",
                                                  "Max",
                                                  "MaxPool",
                                                  "MaxUnpool",
                                                  "Min",
                                                  "Mul",
                                                  "Neg",
                                                  "PRelu",
                                                  "Pad",
                                                  "Pow",
                                                  "QLinearConv",
                                                  "QLinearMatMul",
                                                  "QuantizeLinear",
                                                  "Reciprocal",
                                                  "ReduceL1",
                                                  "ReduceL2",
                                                  "ReduceLogSum",
                                                  "ReduceLogSumExp",
                                                  "ReduceMax",
                                                  "ReduceMean",
                                                  "ReduceMin",
                                                  "ReduceProd",
                                                  "ReduceSum",
                                                  "ReduceSumSquare",
                                                  "Relu",
                                                  "Reshape",
                                                  "Resize",
                                                  "Round",
                                                  "Selu",
                                                  "Shape",
                                                  "Shrink",
                                                  "Sigmoid",
                                                  "Sign",
                                                  "Sin",
                                                  "Sinh",
                                                  "Slice",
                                                  "Softmax",
                                                  "Softplus",
                                                  "Softsign",
                                                  "SpaceToDepth",
                                                  "Split",
                                                  "Sqrt",
                                                  "Squeeze",
                                                  "Sub",
                                                  "Sum",
                                                  "Tan",
                                                  "Tanh",
                                                  "ThresholdedRelu",
                                                  "Transpose",
                                                  "Unsqueeze",
                                                  "Upsample"};
  return operators;
}

const char* remedy_for(const std::string& operation) {
  static const std::set<std::string> selections = {
      "NonMaxSuppression", "TopK",     "NonZero", "GatherND", "GatherElements", "ScatterND",
      "ScatterElements",   "RoiAlign", "Unique",  "Compress"};
  static const std::set<std::string> branches = {"If", "Loop", "Scan"};
  if (selections.count(operation) != 0) {
    return "Export it without its last stage, the selection of boxes: the accelerator selects them";
  }
  if (branches.count(operation) != 0) {
    return "Export it with fixed sizes, so that nothing is decided while it runs";
  }
  return "Export it with operators that the engine has, or for an older version of them";
}

// Nothing when the engine computes the node rightly.
std::string fault_of(const onnx::NodeProto& node) {
  const bool is_standard = node.domain().empty() || node.domain() == "ai.onnx";
  if (!is_standard || known_operators().count(node.op_type()) == 0) {
    return node.op_type() + (is_standard ? "" : " of " + node.domain());
  }
  if (is_operator(node, "Resize")) {
    const auto text = [&](const char* name, const char* usual) {
      const onnx::AttributeProto* const attribute = find_attribute(node, name);
      return attribute == nullptr ? std::string(usual) : attribute->s();
    };
    const std::string mode = text("mode", "nearest");
    const std::string places = text("coordinate_transformation_mode", "half_pixel");
    const std::string rounding = text("nearest_mode", "round_prefer_floor");
    const bool is_rounded_rightly =
        rounding == "round_prefer_floor" || (rounding == "floor" && places == "asymmetric");
    if (mode == "cubic" || (mode == "nearest" && !is_rounded_rightly)) {
      return "Resize (" + mode + ", " + places + (mode == "nearest" ? ", " + rounding : "") + ")";
    }
  }
  return "";
}

}  // namespace

std::vector<std::string> fit_to_engine(NetworkGraph* network) {
  std::vector<std::string> lines;
  apply(kToFloats, network, &lines);
  if (!lines.empty()) {
    fold_constants(network);
  }
  apply(kToKnownForms, network, &lines);
  if (!lines.empty()) {
    network->remove_unused();
  }
  return lines;
}

std::vector<MissingOperator> missing_operators(const NetworkGraph& network) {
  std::map<std::string, std::size_t> places;
  std::vector<MissingOperator> missing;
  for (const onnx::NodeProto& node : network.model().graph().node()) {
    const std::string fault = fault_of(node);
    if (fault.empty()) {
      continue;
    }
    const auto [found, is_first] = places.emplace(fault, missing.size());
    if (is_first) {
      const std::string output = node.output_size() == 0 ? "" : node.output(0);
      missing.push_back(
          {fault, node.name().empty() ? output : node.name(), 0, remedy_for(node.op_type())});
    }
    ++missing[found->second].count;
  }
  return missing;
}

void require_known_operators(const NetworkGraph& network) {
  const std::vector<MissingOperator> missing = missing_operators(network);
  if (missing.empty()) {
    return;
  }
  std::vector<std::string> names;
  for (const MissingOperator& entry : missing) {
    names.push_back(entry.name + " (node \"" + entry.first_node + "\"" +
                    (entry.count > 1 ? " and " + std::to_string(entry.count - 1) + " more" : "") +
                    ")");
  }
  throw ToolError(kModelError, network.path() +
                                   ": the network engine, OpenCV 4.6, does not compute " +
                                   one_line(join(names, ", ")) + ", operators of version " +
                                   std::to_string(network.opset()) + ". " + missing.front().remedy);
}

}  // namespace olvex_tools
