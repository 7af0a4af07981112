// SPDX-License-Identifier: Apache-2.0
// mot_assignment.cpp - optimal assignment by shortest augmenting paths: H. W. Kuhn, "The Hungarian
// method for the assignment problem", Naval Research Logistics Quarterly 2, 1955; R. Jonker,
// A. Volgenant, "A shortest augmenting path algorithm for dense and sparse linear assignment
// problems", Computing 38, 1987. Declared in mot.h.
#include "tools/eval/mot/mot.h"

#include <algorithm>
#include <limits>

namespace olvex_tools {

namespace {

constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();
constexpr double kInfinite = std::numeric_limits<double>::infinity();

// Rows and columns have prices, none below 0, which always fulfil
//   row price + column price >= weight, with equality for assigned pairs, and
//   unassigned rows and columns have price 0.
// That proves the assignment optimal. What a pair's prices exceed its weight by is its slack. Rows
// come in one by one; each looks for the path of least slack that ends at a free column or at a row
// that gives its column up for nothing else. In the worst case this takes rows * columns * rows
// steps; a search never leaves the rows and columns that pairs connect with its row, so that the
// objects of a frame that overlap few results take few steps.
class Assigner {
 public:
  Assigner(std::size_t rows, std::size_t columns, const std::vector<WeightedPair>& pairs)
      : pairs_of_row_(rows),
        row_prices_(rows, 0),
        column_prices_(columns, 0),
        pair_of_row_(rows, nullptr),
        row_of_column_(columns, kNone),
        distances_(columns, kInfinite),
        reached_by_(columns, nullptr) {
    for (const WeightedPair& pair : pairs) {
      if (pair.weight > 0) {
        pairs_of_row_[pair.row].push_back(&pair);
      }
    }
  }

  std::vector<WeightedPair> solve() {
    for (std::size_t row = 0; row < pairs_of_row_.size(); ++row) {
      add_row(row);
    }
    std::vector<WeightedPair> chosen;
    for (const WeightedPair* pair : pair_of_row_) {
      if (pair != nullptr) {
        chosen.push_back(*pair);
      }
    }
    return chosen;
  }

 private:
  // A row that the search has come to, and how far it is from where the search began.
  struct Visit {
    std::size_t row;
    double distance;
  };

  void add_row(std::size_t root) {
    double price = 0;
    for (const WeightedPair* pair : pairs_of_row_[root]) {
      price = std::max(price, pair->weight - column_prices_[pair->column]);
    }
    row_prices_[root] = price;

    visits_.clear();
    open_columns_.clear();
    double nearest_end = kInfinite;
    std::size_t giving_up = kNone;  // the row at which the path of length nearest_end ends
    std::size_t free_column = kNone;
    Visit visit = {root, 0};
    while (true) {
      visits_.push_back(visit);
      if (visit.distance + row_prices_[visit.row] < nearest_end) {
        nearest_end = visit.distance + row_prices_[visit.row];
        giving_up = visit.row;
      }
      reach_columns_from(visit);
      const std::size_t column = take_nearest_column(nearest_end);
      if (column == kNone) {
        break;
      }
      if (row_of_column_[column] == kNone) {
        nearest_end = distances_[column];
        free_column = column;
        break;
      }
      visit = {row_of_column_[column], distances_[column]};
    }
    move_prices(nearest_end);
    assign(root, free_column, giving_up);
    forget_search();
  }

  void reach_columns_from(const Visit& visit) {
    for (const WeightedPair* pair : pairs_of_row_[visit.row]) {
      const double slack = row_prices_[visit.row] + column_prices_[pair->column] - pair->weight;
      const double distance = visit.distance + std::max(slack, 0.0);
      double& known = distances_[pair->column];
      if (distance < known) {
        if (known == kInfinite) {
          open_columns_.push_back(pair->column);
        }
        known = distance;
        reached_by_[pair->column] = pair;
      }
    }
  }

  // Removes the nearest of the open columns and returns it; kNone if all are at limit or beyond.
  std::size_t take_nearest_column(double limit) {
    std::size_t nearest = kNone;  // index into open_columns_
    for (std::size_t i = 0; i < open_columns_.size(); ++i) {
      if (distances_[open_columns_[i]] < limit &&
          (nearest == kNone || is_nearer(open_columns_[i], open_columns_[nearest]))) {
        nearest = i;
      }
    }
    if (nearest == kNone) {
      return kNone;
    }
    closed_columns_.push_back(open_columns_[nearest]);
    open_columns_[nearest] = open_columns_.back();
    open_columns_.pop_back();
    return closed_columns_.back();
  }

  // Of two at the same distance a free column is nearer: the search ends there.
  bool is_nearer(std::size_t column, std::size_t other) const {
    if (distances_[column] != distances_[other]) {
      return distances_[column] < distances_[other];
    }
    return row_of_column_[column] == kNone && row_of_column_[other] != kNone;
  }

  // So that the path to the end has no slack and no pair gets a negative one.
  void move_prices(double length) {
    for (const Visit& visit : visits_) {
      row_prices_[visit.row] = std::max(row_prices_[visit.row] - (length - visit.distance), 0.0);
    }
    for (const std::size_t column : closed_columns_) {
      column_prices_[column] += length - distances_[column];
    }
  }

  // Walks from the end back to the root; each row on the way takes the column that the path gives
  // it and leaves its own to the row before.
  void assign(std::size_t root, std::size_t free_column, std::size_t giving_up) {
    std::size_t column = free_column;
    if (column == kNone) {
      if (giving_up == root) {
        return;
      }
      column = pair_of_row_[giving_up]->column;
      pair_of_row_[giving_up] = nullptr;
    }
    while (true) {
      const WeightedPair* const pair = reached_by_[column];
      const WeightedPair* const old_pair = pair_of_row_[pair->row];
      pair_of_row_[pair->row] = pair;
      row_of_column_[column] = pair->row;
      if (pair->row == root) {
        return;
      }
      column = old_pair->column;
    }
  }

  void forget_search() {
    for (const auto* columns : {&open_columns_, &closed_columns_}) {
      for (const std::size_t column : *columns) {
        distances_[column] = kInfinite;
      }
    }
    closed_columns_.clear();
  }

  std::vector<std::vector<const WeightedPair*>> pairs_of_row_;
  std::vector<double> row_prices_;
  std::vector<double> column_prices_;
  std::vector<const WeightedPair*> pair_of_row_;  // assigned; null: none
  std::vector<std::size_t> row_of_column_;        // assigned; kNone: the column is free
  // Of the search under way:
  std::vector<Visit> visits_;
  std::vector<std::size_t> open_columns_;    // reached
  std::vector<std::size_t> closed_columns_;  // reached, and nothing nearer can come
  std::vector<double> distances_;            // to a column, kInfinite: not reached
  std::vector<const WeightedPair*> reached_by_;
};

}  // namespace

std::vector<WeightedPair> best_assignment(std::size_t rows, std::size_t columns,
                                          const std::vector<WeightedPair>& pairs) {
  return Assigner(rows, columns, pairs).solve();
}

}  // namespace olvex_tools
