// SPDX-License-Identifier: Apache-2.0
// score_order.cpp - the order of descending scores, many scores at a time. score_order_plain.cpp
// is the plain version.
//
// The exchanges of the partition are found for up to 64 elements at once, without a branch per
// element (an idea of S. Edelkamp and A. Weiss, "BlockQuicksort: Avoiding Branch Mispredictions in
// Quicksort", ESA 2016). The scan upwards stops at scores that are not greater than the pivot, the
// scan downwards at those that are not less, and the k-th stops of both are exchanged as long as
// the first is not after the second. One bit per stop is enough.
#include "base/postprocess/score_order.h"

#include <math.h>
#include <string.h>

#include "utils/numeric/lanes.h"

namespace {

const ptrdiff_t kBlock = 64;
const ptrdiff_t kFew = 16;
// The longer part of each partition waits while the shorter is sorted, so that each part that waits
// has at most half the elements of the one before.
const int kMaxWaiting = 32;

typedef olvex::scratch<float, kUsualBoxes> Scores;

// Elements left to right, both inclusive.
struct Range {
  ptrdiff_t left;
  ptrdiff_t right;
};

// What is sorted: the scores and, along with them, the boxes' indices.
struct Keys {
  float* scores;
  uint32_t* indices;

  void exchange(ptrdiff_t a, ptrdiff_t b) const {
    const float score = scores[a];
    scores[a] = scores[b];
    scores[b] = score;
    const uint32_t index = indices[a];
    indices[a] = indices[b];
    indices[b] = index;
  }
};

// Which scores the scans pass.
struct IsGreater {
  template <typename Number>
  auto operator()(const Number& score, float pivot) const -> decltype(score > pivot) {
    return score > pivot;
  }
};
struct IsLess {
  template <typename Number>
  auto operator()(const Number& score, float pivot) const -> decltype(score < pivot) {
    return score < pivot;
  }
};

// Bit k is set when the scan stops at scores[k].
template <typename Passes>
uint64_t find_stops(const float* scores, ptrdiff_t count, float pivot, Passes passes) {
  const ptrdiff_t lanes = static_cast<ptrdiff_t>(olvex::kFloatLanes);
  uint64_t passed = 0;
  ptrdiff_t k = 0;
  for (; k + lanes <= count; k += lanes) {
    const olvex::Floats some = olvex::load<olvex::Floats>(scores + k);
    passed |= static_cast<uint64_t>(olvex::bits_of(passes(some, pivot))) << k;
  }
  for (; k < count; ++k) {
    passed |= static_cast<uint64_t>(passes(scores[k], pivot)) << k;
  }
  // NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult): count is 1 to kBlock
  const uint64_t all = ~static_cast<uint64_t>(0) >> (kBlock - count);
  return ~passed & all;
}

ptrdiff_t lowest(uint64_t stops) {
  return __builtin_ctzll(stops);
}

ptrdiff_t highest(uint64_t stops) {
  return kBlock - 1 - __builtin_clzll(stops);
}

uint64_t without_lowest(uint64_t stops) {
  return stops & (stops - 1);
}

uint64_t without_highest(uint64_t stops) {
  const uint64_t top = static_cast<uint64_t>(1) << (kBlock - 1);
  return stops ^ (top >> __builtin_clzll(stops));
}

// Exchanges what two blocks of count elements, one after each scan, have to exchange. A scan goes
// on after its block when that has no stops left, and at its next stop otherwise.
void partition_blocks(const Keys& keys, ptrdiff_t count, float pivot, ptrdiff_t& i, ptrdiff_t& j) {
  const ptrdiff_t low = i;
  const ptrdiff_t high = j - count + 1;
  uint64_t upward = find_stops(keys.scores + low, count, pivot, IsGreater());
  uint64_t downward = find_stops(keys.scores + high, count, pivot, IsLess());
  while (upward != 0 && downward != 0) {
    const ptrdiff_t up = lowest(upward);
    const ptrdiff_t down = highest(downward);
    keys.exchange(low + up, high + down);
    upward = without_lowest(upward);
    downward = without_highest(downward);
  }
  i = upward != 0 ? low + lowest(upward) : low + count;
  j = downward != 0 ? high + highest(downward) : high - 1;
}

// The rest of a partition, of up to 64 elements between the scans. Beyond them, and where elements
// have changed places, either scan stops.
void partition_rest(const Keys& keys, float pivot, ptrdiff_t& i, ptrdiff_t& j) {
  if (i > j) {
    return;
  }
  const ptrdiff_t start = i;
  const ptrdiff_t count = j - i + 1;
  uint64_t upward = find_stops(keys.scores + start, count, pivot, IsGreater());
  uint64_t downward = find_stops(keys.scores + start, count, pivot, IsLess());
  ptrdiff_t up = upward != 0 ? lowest(upward) : count;
  ptrdiff_t down = downward != 0 ? highest(downward) : -1;
  while (up < down) {
    keys.exchange(start + up, start + down);
    upward = without_lowest(upward);
    downward = without_highest(downward);
    const ptrdiff_t last_up = up;
    up = upward != 0 ? olvex::min(lowest(upward), down) : down;
    down = downward != 0 ? olvex::max(highest(downward), last_up) : last_up;
  }
  // An element that stops both scans is exchanged with itself.
  const ptrdiff_t both = up == down ? 1 : 0;
  i = start + up + both;
  j = start + down - both;
}

void partition(const Keys& keys, const Range& range, ptrdiff_t& i, ptrdiff_t& j) {
  i = range.left;
  j = range.right;
  const float pivot = keys.scores[(range.left + range.right) / 2];
  while (j - i + 1 > kBlock) {
    partition_blocks(keys, olvex::min((j - i + 1) / 2, kBlock), pivot, i, j);
  }
  partition_rest(keys, pivot, i, j);
}

// Puts up to kFew elements in order by counting how many are greater than each; false, and nothing
// done, when two are equal or one is NaN. Different scores have only one order, however it is found.
bool rank_few(const Keys& keys, const Range& range) {
  const size_t lanes = olvex::kFloatLanes;
  const size_t count = static_cast<size_t>(range.right - range.left + 1);
  float scores[kFew];
  uint32_t indices[kFew];
  int32_t ranks[kFew];
  memcpy(scores, keys.scores + range.left, count * sizeof(float));
  memcpy(indices, keys.indices + range.left, count * sizeof(uint32_t));
  // The last lanes may hold more than there is; the ranks of these are not used.
  for (size_t k = count; k < kFew; ++k) {
    scores[k] = -INFINITY;
  }
  for (size_t k = 0; k < count; k += lanes) {
    const olvex::Floats some = olvex::load<olvex::Floats>(scores + k);
    olvex::FloatsInt32 greater = olvex::FloatsInt32();
    for (size_t other = 0; other < count; ++other) {
      greater += olvex::splat(scores[other]) > some ? olvex::splat(1) : olvex::splat(0);
    }
    memcpy(ranks + k, &greater, sizeof(greater));
  }
  uint32_t seen = 0;
  for (size_t k = 0; k < count; ++k) {
    seen |= static_cast<uint32_t>(1) << ranks[k];
  }
  if (seen != (static_cast<uint32_t>(1) << count) - 1) {
    return false;
  }
  for (size_t k = 0; k < count; ++k) {
    keys.scores[range.left + ranks[k]] = scores[k];
    keys.indices[range.left + ranks[k]] = indices[k];
  }
  return true;
}

void sort(const Keys& keys, ptrdiff_t count) {
  Range waiting[kMaxWaiting];
  int num_waiting = 0;
  Range range = {0, count - 1};
  for (;;) {
    while (range.left < range.right) {
      if (range.right - range.left < kFew && rank_few(keys, range)) {
        break;
      }
      ptrdiff_t i;
      ptrdiff_t j;
      partition(keys, range, i, j);
      const Range low = {range.left, j};
      const Range high = {i, range.right};
      const bool low_is_longer = low.right - low.left > high.right - high.left;
      waiting[num_waiting] = low_is_longer ? low : high;
      num_waiting += waiting[num_waiting].left < waiting[num_waiting].right ? 1 : 0;
      range = low_is_longer ? high : low;
    }
    if (num_waiting == 0) {
      return;
    }
    range = waiting[--num_waiting];
  }
}

}  // namespace

void find_order(const olvex::vector<BoxInfo>& boxes, size_t first, size_t count, BoxOrder& order) {
  Scores scores;
  scores.resize(count);
  order.resize(count);
  for (size_t k = 0; k < count; ++k) {
    scores[k] = boxes[first + k].score;
    order[k] = static_cast<uint32_t>(k);
  }
  const Keys keys = {scores.data(), order.data()};
  sort(keys, static_cast<ptrdiff_t>(count));
}
