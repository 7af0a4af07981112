// SPDX-License-Identifier: Apache-2.0
// node_rewriting.h - what the rewrites for the engine share: putting nodes in the place of one, and changing
// attributes. fit_to_engine.cpp lists the rewrites.
#ifndef TOOLS_NETWORK_NODE_REWRITING_H
#define TOOLS_NETWORK_NODE_REWRITING_H

#include <functional>
#include <string>
#include <vector>

#include "tools/network/network_graph.h"

namespace olvex_tools {

// The nodes that compute what one node computes. The last that is added takes over its output.
class Replacement {
 public:
  Replacement(const onnx::NodeProto& node, NetworkGraph* network)
      : node_(node), network_(*network) {}

  const onnx::NodeProto& node() const { return node_; }
  const NetworkGraph& network() const { return network_; }
  const std::string& output() const { return node_.output(0); }
  // Empty for one that is left out.
  std::string input(int index) const {
    return index < node_.input_size() ? node_.input(index) : std::string();
  }
  // Nothing unless every size is known.
  std::optional<Shape> shape_of(const std::string& value) const;

  std::string add(const std::string& operation, const std::vector<std::string>& inputs,
                  const std::vector<Attribute>& attributes = {}) {
    return network_.add_node(output(), operation, inputs, attributes);
  }
  std::string add_integers(const std::vector<std::int64_t>& values) {
    return network_.add_integers(output() + "_integers", values);
  }
  std::string add_floats(const Shape& shape, const std::vector<float>& values) {
    return network_.add_floats(output() + "_floats", shape, values);
  }
  std::string add_reshape(const std::string& value, const Shape& shape) {
    return add("Reshape", {value, add_integers(shape)});
  }

 private:
  const onnx::NodeProto& node_;
  NetworkGraph& network_;
};

// Offers each node to rewrite, which adds the nodes that are to stand in its place, or adds none and returns
// false. Returns how many were replaced; the network is up to date.
int replace_nodes(NetworkGraph* network, const std::function<bool(Replacement*)>& rewrite);

// While the index of names is in use, nodes are cleared at their place and removed afterwards, by this:
// the index goes by places.
void remove_cleared_nodes(NetworkGraph* network);

// Whether the node is that standard operator.
bool is_operator(const onnx::NodeProto& node, const std::string& name);

void set_attribute(const Attribute& attribute, onnx::NodeProto* node);
void keep_first_input(onnx::NodeProto* node);

// ---- The rewrites; each returns how many it made ---------------------------------------------------

// engine_quantisation.cpp
int widen_halves(NetworkGraph* network);
int dequantise_weights(NetworkGraph* network);
int drop_quantised_activations(NetworkGraph* network);
int drop_dynamic_quantisation(NetworkGraph* network);

// engine_selections.cpp
int compute_choices(NetworkGraph* network);
int clip_by_extremes(NetworkGraph* network);
int choose_best_by_maximum(NetworkGraph* network);
int slice_instead_of_gathering(NetworkGraph* network);
int slice_one_axis_at_a_time(NetworkGraph* network);
int repeat_by_concatenation(NetworkGraph* network);

// engine_forms.cpp
int reshape_instead_of_squeezing(NetworkGraph* network);
int normalise_softmax(NetworkGraph* network);
int widen_broadcasts(NetworkGraph* network);
// The nodes of value repeated to shape; the last of them is the result. Nothing is added, and value is the
// result, when it has the shape.
std::string add_widening(const std::string& value, const Shape& from, const Shape& to,
                         Replacement* replacement);

// engine_forms.cpp: forms that the declared version of the operators does not have, so they come last
int turn_clip_bounds_into_attributes(NetworkGraph* network);
int turn_axes_into_attributes(NetworkGraph* network);
int turn_split_sizes_into_attributes(NetworkGraph* network);
int write_usual_attributes(NetworkGraph* network);

}  // namespace olvex_tools

#endif  // TOOLS_NETWORK_NODE_REWRITING_H
