// SPDX-License-Identifier: Apache-2.0
// mot_overlaps.cpp - which boxes of a frame overlap: a sweep from left to right, so that only boxes which share a
// column of pixels are compared. Declared in mot.h.
#include <algorithm>
#include <limits>
#include <numeric>
#include <utility>

#include "tools/eval/mot/mot.h"

namespace olvex_tools {

namespace {

// A box on the way of the sweep.
struct SweptBox {
  double left;
  double right;
  double top;
  double bottom;
  std::size_t index;  // among its kind
  bool is_row;
};

// Stable, by the number that is below bound.
template <typename NumberOf>
void sort_by_number(std::size_t bound, NumberOf number_of, std::vector<WeightedPair>* pairs) {
  std::vector<std::size_t> places(bound + 1, 0);
  for (const WeightedPair& pair : *pairs) {
    ++places[number_of(pair) + 1];
  }
  std::partial_sum(places.begin(), places.end(), places.begin());
  std::vector<WeightedPair> sorted(pairs->size());
  for (const WeightedPair& pair : *pairs) {
    sorted[places[number_of(pair)]++] = pair;
  }
  *pairs = std::move(sorted);
}

class Sweep {
 public:
  Sweep(const std::vector<Box>& rows, const std::vector<Box>& columns)
      : rows_(rows), columns_(columns) {
    boxes_.reserve(rows.size() + columns.size());
    add(rows, true);
    add(columns, false);
    std::sort(boxes_.begin(), boxes_.end(),
              [](const SweptBox& left, const SweptBox& right) { return left.left < right.left; });
  }

  std::vector<WeightedPair> run() {
    for (const SweptBox& box : boxes_) {
      pair_with(box, box.is_row ? &open_columns_ : &open_rows_);
      (box.is_row ? open_rows_ : open_columns_).push_back(box);
    }
    // No comparison sort: the order of thousands of pairs per frame would cost more than finding them.
    sort_by_number(
        columns_.size(), [](const WeightedPair& pair) { return pair.column; }, &pairs_);
    sort_by_number(
        rows_.size(), [](const WeightedPair& pair) { return pair.row; }, &pairs_);
    return std::move(pairs_);
  }

 private:
  void add(const std::vector<Box>& boxes, bool is_row) {
    for (std::size_t i = 0; i < boxes.size(); ++i) {
      const Box& box = boxes[i];
      boxes_.push_back({box.x, box.x + box.width, box.y, box.y + box.height, i, is_row});
    }
  }

  // Those of others that end before the box begins are past for all that follow, and removed.
  void pair_with(const SweptBox& box, std::vector<SweptBox>* others) {
    for (std::size_t i = 0; i < others->size();) {
      const SweptBox& other = (*others)[i];
      if (other.right <= box.left) {
        (*others)[i] = others->back();
        others->pop_back();
        continue;
      }
      if (other.top < box.bottom && box.top < other.bottom) {
        add_pair(box.is_row ? box.index : other.index, box.is_row ? other.index : box.index);
      }
      ++i;
    }
  }

  void add_pair(std::size_t row, std::size_t column) {
    const double value = overlap_of(rows_[row], columns_[column]);
    if (value > 0) {
      pairs_.push_back({row, column, value});
    }
  }

  const std::vector<Box>& rows_;
  const std::vector<Box>& columns_;
  std::vector<SweptBox> boxes_;  // from left to right
  // Copies, one behind the other: going through them takes most of the time.
  std::vector<SweptBox> open_rows_;
  std::vector<SweptBox> open_columns_;
  std::vector<WeightedPair> pairs_;
};

}  // namespace

double overlap_of(const Box& left, const Box& right) {
  return std::min(overlap(left, right), 1.0);
}

bool reaches(double overlap, double threshold) {
  return overlap >= threshold - std::numeric_limits<double>::epsilon();
}

std::vector<WeightedPair> overlaps_between(const std::vector<Box>& rows,
                                           const std::vector<Box>& columns) {
  return Sweep(rows, columns).run();
}

std::vector<WeightedPair> matching_pairs(const std::vector<WeightedPair>& pairs) {
  std::vector<WeightedPair> matching;
  std::copy_if(pairs.begin(), pairs.end(), std::back_inserter(matching),
               [](const WeightedPair& pair) { return reaches(pair.weight, kMatchOverlap); });
  return matching;
}

}  // namespace olvex_tools
