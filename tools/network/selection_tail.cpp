// SPDX-License-Identifier: Apache-2.0
// selection_tail.cpp - tells a selection of results from one inside the network, by what follows it, and says
// which tables become the outputs in place of what was selected from them.
#include "tools/network/selection_tail.h"

#include <algorithm>
#include <optional>
#include <set>

#include "tools/common/text.h"
#include "tools/network/node_rewriting.h"
#include "tools/network/selection_lifting.h"

namespace olvex_tools {

// ---- The nodes that select ----------------------------------------------------------------------

namespace {

using onnx::NodeProto;

// Turns the four values of a box into four others, as corners into centre and size.
bool transforms_boxes(const NetworkGraph& network, const std::string& matrix) {
  return network.constant(matrix) != nullptr && network.shape_of(matrix) == Shape{4, 4};
}

// A layer of the network itself: what stands in front of it is no selection of results.
bool is_layer(const NetworkGraph& network, const NodeProto& node) {
  static const std::set<std::string> kLayers = {"Conv",
                                                "ConvTranspose",
                                                "Gemm",
                                                "LSTM",
                                                "GRU",
                                                "RNN",
                                                "Einsum",
                                                "RoiAlign",
                                                "GridSample",
                                                "Attention",
                                                "Resize",
                                                "MaxPool",
                                                "AveragePool",
                                                "ConvInteger",
                                                "MatMulInteger",
                                                "QLinearConv",
                                                "QLinearMatMul",
                                                "LayerNormalization",
                                                "InstanceNormalization"};
  if (node.op_type() == "MatMul") {
    return node.input_size() != 2 || !transforms_boxes(network, node.input(1));
  }
  return is_one_of(node, kLayers);
}

bool is_selector(const NetworkGraph& network, const NodeProto& node) {
  return node.output_size() > 0 && node.input_size() > 0 &&
         ((is_operator(node, "NonMaxSuppression") && node.input_size() > 1) ||
          (is_operator(node, "TopK") && !chooses_class(network, node)));
}

// Everything behind a node; nothing when a layer is there.
std::optional<std::set<std::string>> values_behind(const NetworkGraph& network,
                                                   const NodeProto& start) {
  std::set<std::string> found;
  std::vector<const NodeProto*> waiting = {&start};
  while (!waiting.empty()) {
    const NodeProto& node = *waiting.back();
    waiting.pop_back();
    if (is_layer(network, node)) {
      return std::nullopt;
    }
    for (const std::string& output : node.output()) {
      if (!output.empty() && found.insert(output).second) {
        const std::vector<const NodeProto*> users = network.users_of(output);
        waiting.insert(waiting.end(), users.begin(), users.end());
      }
    }
  }
  return found;
}

}  // namespace

bool is_one_of(const NodeProto& node, const std::set<std::string>& operations) {
  return operations.count(node.op_type()) != 0;
}

// Whether it leaves the elements as they are, in their order.
bool only_reshapes(const NodeProto& node) {
  return is_one_of(node,
                   {"Reshape", "Flatten", "Squeeze", "Unsqueeze", "Identity", "Cast", "Dropout"});
}

bool chooses_class(const NetworkGraph& network, const NodeProto& node) {
  if (node.op_type() != "TopK") {
    return false;
  }
  const auto count = network.numbers(node.input_size() > 1 ? node.input(1) : "");
  return count ? *count == std::vector<double>{1} : integer_attribute(node, "k", 0) == 1;
}

SelectionNodes find_selection(const NetworkGraph& network) {
  SelectionNodes nodes;
  for (const NodeProto& node : network.model().graph().node()) {
    if (!is_selector(network, node)) {
      continue;
    }
    if (const auto behind = values_behind(network, node)) {
      nodes.selectors.push_back(node.output(0));
      nodes.selected.insert(behind->begin(), behind->end());
    }
  }
  return nodes;
}

// ---- The cut ------------------------------------------------------------------------------------

namespace {

using Kind = SelectedPiece::Kind;

constexpr std::int64_t kBox = 4;

class Cut {
 public:
  Cut(const SelectionNodes& nodes, NetworkGraph* network)
      : nodes_(nodes), network_(*network), lifting_(nodes, network) {}

  SelectionCut run() {
    ranking_ = lifting_.ranked_scores();
    for (const NetworkTensor& output : network_.outputs()) {
      if (nodes_.selected.count(output.name) != 0) {
        outputs_.push_back({output.name, pieces_of(output.name)});
      } else {
        others_.push_back(output);
      }
    }
    name_results();
    network_.update();
    check_selection(network_, {outputs_, ranking_.all, lifting_.tables().sources(),
                               lifting_.tables().score_sources()});
    const std::string line = replace_outputs();
    return {{line}, "", suppressed_ ? Selection::kSuppression : Selection::kBest, decoded_tables_};
  }

 private:
  // The scores by which is selected are scores also where whole rows of them are.
  std::vector<SelectedPiece> pieces_of(const std::string& output) {
    std::vector<SelectedPiece> pieces = lifting_.lift(output);
    for (SelectedPiece& piece : pieces) {
      const bool ranks =
          piece.kind == Kind::kRows && piece.columns == 1 && piece.all == ranking_.all;
      piece.kind = ranks ? Kind::kScore : piece.kind;
    }
    return pieces;
  }

  bool has(Kind kind) const {
    return std::any_of(outputs_.begin(), outputs_.end(), [kind](const SelectedOutput& output) {
      return std::any_of(output.pieces.begin(), output.pieces.end(),
                         [kind](const SelectedPiece& piece) { return piece.kind == kind; });
    });
  }

  void name_results() {
    if (has(Kind::kRows) && !has(Kind::kScore) && !has(Kind::kNumber)) {
      for (const SelectedOutput& output : outputs_) {
        add_result("rows", rows_of(output).all);
      }
    } else if (has(Kind::kRows) || others_.empty()) {
      name_tables();
    }
  }

  // All columns of rows that an output has.
  SelectedPiece rows_of(const SelectedOutput& output) {
    SelectedPiece rows = {Kind::kRows, "", 0};
    std::vector<std::string> tables;
    for (const SelectedPiece& piece : output.pieces) {
      if (piece.kind == Kind::kRows) {
        tables.push_back(piece.all);
        rows.columns += piece.columns;
      }
    }
    rows.all = tables.empty() ? "" : lifting_.tables().joined(tables);
    return rows;
  }

  void name_tables() {
    const SelectedPiece suppressed = lifting_.suppressed_boxes();
    suppressed_ = !suppressed.all.empty();
    decoded_tables_ = true;
    std::vector<SelectedPiece> tables;
    for (const SelectedOutput& output : outputs_) {
      const SelectedPiece rows = rows_of(output);
      if (rows.columns > 0) {
        tables.push_back(rows);
      }
    }
    std::stable_partition(tables.begin(), tables.end(),
                          [](const SelectedPiece& table) { return table.columns == kBox; });
    if (tables.empty()) {
      tables.push_back(suppressed);
    }
    if (tables.size() > 2 || tables[0].columns < kBox ||
        (tables.size() == 2 && tables[0].columns != kBox)) {
      throw CannotLift{"which of its results are boxes cannot be seen"};
    }
    const SelectedPiece& first = tables[0];
    add_result("boxes",
               first.columns == kBox ? first.all : lifting_.tables().sliced(first.all, 0, kBox));
    add_result("scores", scores());
    if (first.columns > kBox) {
      add_result("keypoints", lifting_.tables().sliced(first.all, kBox, first.columns - kBox));
    } else if (tables.size() == 2) {
      add_result("keypoints", tables[1].all);
    }
  }

  std::string scores() const {
    std::set<std::string> all;
    for (const SelectedOutput& output : outputs_) {
      for (const SelectedPiece& piece : output.pieces) {
        if (piece.kind == Kind::kScore) {
          all.insert(piece.all);
        }
      }
    }
    const std::string table = all.empty() ? ranking_.all : *all.begin();
    if (all.size() > 1 || table.empty()) {
      throw CannotLift{"which of its results are the scores cannot be seen"};
    }
    return table;
  }

  void add_result(const std::string& name, const std::string& table) {
    results_.push_back(network_.add_node(name, "Identity", {table}));
    hints_.push_back(name);
  }

  std::string replace_outputs() {
    std::vector<NetworkTensor> results;
    for (const std::string& name : results_) {
      results.push_back({name, network_.shape_of(name).value_or(Shape())});
    }
    const std::string operators = join(cut_operators(), ", ");
    network_.set_outputs(results.empty() ? others_ : results);
    network_.remove_unused();
    network_.update();
    name_plainly();
    std::vector<std::string> texts;
    for (const NetworkTensor& result : network_.outputs()) {
      texts.push_back(describe(result));
    }
    return "cut off the selection of boxes from node \"" +
           (first_.name().empty() ? first_.output(0) : first_.name()) + "\" on (" + operators +
           "), as the library selects; the outputs are now " + join(texts, ", ");
  }

  // The names that they were to have may have been those of the outputs that are gone.
  void name_plainly() {
    std::vector<NetworkTensor> results = network_.outputs();
    for (std::size_t i = 0; i < results_.size(); ++i) {
      for (onnx::NodeProto& node : *network_.graph()->mutable_node()) {
        if (node.output(0) == results_[i]) {
          results[i].name = results_[i] == hints_[i] ? hints_[i] : network_.unused_name(hints_[i]);
          node.set_output(0, results[i].name);
          node.set_name(results[i].name);
        }
      }
    }
    network_.set_outputs(results);
    network_.update();
  }

  // Notes the first node, too.
  std::vector<std::string> cut_operators() {
    std::set<std::string> names;
    for (const onnx::NodeProto& node : network_.model().graph().node()) {
      if (node.output_size() > 0 && nodes_.selected.count(node.output(0)) != 0) {
        first_ = names.empty() ? node : first_;
        names.insert(node.op_type());
      }
    }
    return {names.begin(), names.end()};
  }

  const SelectionNodes& nodes_;
  NetworkGraph& network_;
  SelectionLifting lifting_;
  SelectedPiece ranking_;
  std::vector<SelectedOutput> outputs_;
  std::vector<NetworkTensor> others_;
  std::vector<std::string> results_;
  std::vector<std::string> hints_;
  onnx::NodeProto first_;
  bool suppressed_ = false;
  bool decoded_tables_ = false;
};

}  // namespace

SelectionCut cut_selection(NetworkGraph* network) {
  const SelectionNodes nodes = find_selection(*network);
  if (nodes.selectors.empty()) {
    return {};
  }
  NetworkGraph changed = *network;
  try {
    SelectionCut cut = Cut(nodes, &changed).run();
    *network = std::move(changed);
    return cut;
  } catch (const CannotLift& reason) {
    const onnx::NodeProto& node = *network->producer_of(nodes.selectors.front());
    SelectionCut cut;
    cut.obstacle = "the selection of boxes from " + node.op_type() + " (node \"" +
                   (node.name().empty() ? node.output(0) : node.name()) +
                   "\") on cannot be cut off: " + reason.what;
    return cut;
  }
}

}  // namespace olvex_tools
