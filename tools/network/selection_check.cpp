// SPDX-License-Identifier: Apache-2.0
// selection_check.cpp - the tail of a network on arbitrary numbers, and the search for its rows.
#include "tools/network/selection_lifting.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <random>

#include "tools/network/constant_folding.h"

namespace olvex_tools {

namespace {

using Kind = SelectedPiece::Kind;

// ---- Computing the tail ---------------------------------------------------------------------------

bool is_computed(const onnx::NodeProto* node) {
  static const std::set<std::string> kMeasures = {"Shape", "Size", "Constant"};
  return node != nullptr &&
         (constant_operator(node->op_type()) != nullptr || kMeasures.count(node->op_type()) != 0);
}

// Everything that stands in front of values, up to what is not to be looked behind.
template <typename Stop>
std::set<std::string> values_before(const NetworkGraph& network, std::vector<std::string> waiting,
                                    Stop stop) {
  std::set<std::string> seen;
  while (!waiting.empty()) {
    const std::string value = waiting.back();
    waiting.pop_back();
    const onnx::NodeProto* const node = network.producer_of(value);
    if (!value.empty() && seen.insert(value).second && node != nullptr && !stop(value)) {
      waiting.insert(waiting.end(), node->input().begin(), node->input().end());
    }
  }
  return seen;
}

class Tail {
 public:
  Tail(const NetworkGraph& network, const SelectionClaim& claim)
      : network_(network), claim_(claim) {
    for (const SelectedOutput& output : claim.outputs) {
      wanted_.push_back(output.name);
      for (const SelectedPiece& piece : output.pieces) {
        wanted_.push_back(piece.all);
      }
    }
    wanted_.push_back(claim.scores);
  }

  // The network with arbitrary numbers in place of what computes the tables, and everything else folded.
  NetworkGraph compute() {
    fill_first_sources();
    cut_off_front();
    network_.graph()->clear_output();
    network_.update();
    fold_constants(&network_);
    return network_;
  }

 private:
  void fill_first_sources() {
    std::set<std::string> starts;
    for (const std::string& source : claim_.sources) {
      const std::set<std::string> before =
          values_before(network_, {source}, [](const std::string&) { return false; });
      if (std::none_of(claim_.sources.begin(), claim_.sources.end(), [&](const std::string& other) {
            return other != source && before.count(other) != 0;
          })) {
        starts.insert(source);
      }
    }
    const auto is_start = [&](const std::string& value) {
      return starts.count(value) != 0 || !is_computed(network_.producer_of(value));
    };
    for (const std::string& value : values_before(network_, wanted_, is_start)) {
      if (is_start(value) && network_.constant(value) == nullptr) {
        fill(value);
      }
    }
  }

  void fill(const std::string& name) {
    const Shape shape = network_.shape_of(name).value_or(Shape());
    const std::int64_t count = elements_of(shape);
    if (count <= 0 || count > kMostElements) {
      throw CannotLift{"the size of \"" + name + "\" is not known"};
    }
    // Of many scores most are small, as those of a network are.
    constexpr std::int64_t kMany = 100000;
    const double power = claim_.score_sources.count(name) == 0 ? 1 : count > kMany ? 32 : 4;
    ConstantValue value = new_value(onnx::TensorProto::FLOAT, shape);
    std::uniform_real_distribution<double> numbers(0, 1);
    for (double& number : value.numbers) {
      number = as_element(std::pow(numbers(random_), power), value.type);
    }
    for (onnx::NodeProto& node : *network_.graph()->mutable_node()) {
      for (std::string& output : *node.mutable_output()) {
        output = output == name ? name + "_computed" : output;
      }
    }
    write_constant(value, name, network_.graph()->add_initializer());
  }

  void cut_off_front() {
    network_.graph()->clear_output();
    for (const std::string& name : wanted_) {
      network_.graph()->add_output()->set_name(name);
    }
    network_.remove_unused();
  }

  NetworkGraph network_;
  const SelectionClaim& claim_;
  std::vector<std::string> wanted_;
  std::mt19937_64 random_;
};

// ---- Finding the rows -----------------------------------------------------------------------------

struct Table {
  std::vector<double> numbers;
  std::size_t rows = 0;
  std::size_t columns = 1;
  bool transposed = false;

  double at(std::size_t row, std::size_t column) const {
    return numbers[transposed ? column * rows + row : row * columns + column];
  }
};

// Columns of an output that are to be found in a table; or, without a table, that hold numbers of some kind.
struct Column {
  const Table* output = nullptr;
  std::size_t place = 0;
  const Table* table = nullptr;
  std::size_t table_place = 0;
  bool score = false;
};

bool are_same(double left, double right) {
  constexpr double kRounding = 1e-5;
  return std::fabs(left - right) <= kRounding * std::max(1e-3, std::fabs(left));
}

class RowSearch {
 public:
  RowSearch(const NetworkGraph& tail, const SelectionClaim& claim) : tail_(tail) {
    scores_ = &table(claim.scores);
    for (const SelectedOutput& output : claim.outputs) {
      add(output);
    }
    numbers_.erase(
        std::remove_if(numbers_.begin(), numbers_.end(),
                       [&](const Column& column) { return column.output->rows != rows_; }),
        numbers_.end());
  }

  void run() {
    if (data_.empty()) {
      return;
    }
    std::vector<const Column*> labels = {nullptr};
    if (scores_->columns > 1 && !numbers_.empty()) {
      labels.clear();
      for (const Column& column : numbers_) {
        labels.push_back(&column);
      }
    }
    if (std::none_of(labels.begin(), labels.end(),
                     [&](const Column* label) { return is_found(label); })) {
      throw CannotLift{labels.front() != nullptr && is_found(nullptr)
                           ? "behind it the numbers of the classes are changed"
                           : "on trial numbers it gave rows that are none of the candidates'"};
    }
  }

 private:
  Table read(const std::string& name, std::size_t columns) {
    const auto numbers = columns == 0 ? std::nullopt : tail_.numbers(name);
    const Shape shape = tail_.shape_of(name).value_or(Shape());
    if (!numbers) {
      throw CannotLift{"\"" + name + "\" cannot be computed from it on trial numbers"};
    }
    Table table = {*numbers, 0, columns, false};
    table.rows = table.numbers.size() / columns;
    const auto is_long = [](std::int64_t size) { return size > 1; };
    const auto first = std::find_if(shape.begin(), shape.end(), is_long);
    table.transposed = columns > 1 && first != shape.end() &&
                       *first == static_cast<std::int64_t>(columns) && table.rows != columns &&
                       shape.back() == static_cast<std::int64_t>(table.rows);
    return table;
  }

  const Table& table(const std::string& name) {
    const auto found = tables_.find(name);
    if (found != tables_.end()) {
      return found->second;
    }
    const Shape shape = tail_.shape_of(name).value_or(Shape());
    return tables_
        .emplace(name, read(name, shape.empty() ? 1 : static_cast<std::size_t>(shape.back())))
        .first->second;
  }

  void add(const SelectedOutput& output) {
    std::size_t columns = 0;
    bool has_data = false;
    for (const SelectedPiece& piece : output.pieces) {
      columns += static_cast<std::size_t>(piece.columns);
      has_data = has_data || piece.kind != Kind::kNumber;
    }
    const Table& values = tables_.emplace(output.name, read(output.name, columns)).first->second;
    if (has_data && rows_ != 0 && rows_ != values.rows) {
      throw CannotLift{"its outputs have different numbers of rows"};
    }
    rows_ = has_data ? values.rows : rows_;
    std::size_t place = 0;
    for (const SelectedPiece& piece : output.pieces) {
      for (std::size_t i = 0; i < static_cast<std::size_t>(piece.columns); ++i, ++place) {
        if (piece.kind == Kind::kNumber) {
          numbers_.push_back({&values, place, nullptr, 0, false});
        } else {
          data_.push_back({&values, place, &table(piece.all), i, piece.kind == Kind::kScore});
        }
      }
    }
  }

  bool is_found(const Column* label) const {
    std::size_t found = 0;
    for (std::size_t row = 0; row < rows_; ++row) {
      if (is_filling(row)) {
        continue;
      }
      std::size_t candidate = 0;
      while (candidate < scores_->rows && !is_same(row, candidate, label)) {
        ++candidate;
      }
      if (candidate == scores_->rows) {
        return false;
      }
      ++found;
    }
    return found > 0;
  }

  // Rows that only bring an output to a fixed size.
  bool is_filling(std::size_t row) const {
    return std::all_of(data_.begin(), data_.end(), [row](const Column& column) {
      const double value = column.output->at(row, column.place);
      return value == 0 || value == -1;
    });
  }

  bool is_same(std::size_t row, std::size_t candidate, const Column* label) const {
    bool has_score = false;
    for (const Column& column : data_) {
      const double value = column.output->at(row, column.place);
      has_score = has_score || column.score;
      if (column.score ? !has_class(*column.table, candidate, value, row, label)
                       : !are_same(column.table->at(candidate, column.table_place), value)) {
        return false;
      }
    }
    return has_score || label == nullptr ||
           has_class(*scores_, candidate, best(candidate), row, label);
  }

  bool has_class(const Table& scores, std::size_t candidate, double value, std::size_t row,
                 const Column* label) const {
    for (std::size_t k = 0; k < scores.columns; ++k) {
      const bool is_named = label == nullptr || scores.columns == 1 ||
                            label->output->at(row, label->place) == static_cast<double>(k);
      if (is_named && are_same(scores.at(candidate, k), value)) {
        return true;
      }
    }
    return false;
  }

  double best(std::size_t candidate) const {
    double most = scores_->at(candidate, 0);
    for (std::size_t k = 1; k < scores_->columns; ++k) {
      most = std::max(most, scores_->at(candidate, k));
    }
    return most;
  }

  const NetworkGraph& tail_;
  std::map<std::string, Table> tables_;
  const Table* scores_ = nullptr;
  std::size_t rows_ = 0;
  std::vector<Column> data_;
  std::vector<Column> numbers_;
};

}  // namespace

void check_selection(const NetworkGraph& network, const SelectionClaim& claim) {
  constexpr std::int64_t kMostScores = 1 << 22;
  const std::optional<Shape> scores = network.shape_of(claim.scores);
  if (scores && elements_of(*scores) > kMostScores) {
    throw CannotLift{"there are too many candidates and classes to try it on"};
  }
  const NetworkGraph tail = Tail(network, claim).compute();
  RowSearch(tail, claim).run();
}

}  // namespace olvex_tools
