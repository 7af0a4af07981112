// selection_tail.cpp - which tables become the outputs in place of what was selected from them.
#include "tools/network/selection_tail.h"

#include <algorithm>
#include <set>

#include "tools/common/text.h"
#include "tools/network/selection_check.h"
#include "tools/network/selection_lifting.h"

namespace olvex_tools {

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
    check_selection(network_,
                    {outputs_, ranking_.all, lifting_.sources(), lifting_.score_sources()});
    const std::string line = replace_outputs();
    return {{line}, "", decoded_tables_};
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
    rows.all = tables.empty() ? "" : lifting_.joined(tables);
    return rows;
  }

  void name_tables() {
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
      tables.push_back(lifting_.suppressed_boxes());
    }
    if (tables.size() > 2 || tables[0].columns < kBox ||
        (tables.size() == 2 && tables[0].columns != kBox)) {
      throw CannotLift{"which of its results are boxes cannot be seen"};
    }
    const SelectedPiece& first = tables[0];
    add_result("boxes", first.columns == kBox ? first.all : lifting_.sliced(first.all, 0, kBox));
    add_result("scores", scores());
    if (first.columns > kBox) {
      add_result("keypoints", lifting_.sliced(first.all, kBox, first.columns - kBox));
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
  }

  std::string replace_outputs() {
    std::vector<NetworkTensor> results;
    for (const std::string& name : results_) {
      results.push_back({name, network_.shape_of(name).value_or(Shape())});
    }
    if (results.empty()) {
      results = others_;
    }
    std::vector<std::string> texts;
    for (const NetworkTensor& result : results) {
      texts.push_back(describe(result));
    }
    const std::string operators = join(cut_operators(), ", ");
    network_.set_outputs(results);
    network_.remove_unused();
    const onnx::NodeProto& first = first_;
    return "cut off the selection of boxes from node \"" +
           (first.name().empty() ? first.output(0) : first.name()) + "\" on (" + operators +
           "), as the library selects; the outputs are now " + join(texts, ", ");
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
  onnx::NodeProto first_;
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
