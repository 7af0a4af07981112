// SPDX-License-Identifier: Apache-2.0
// kept_boxes.cpp - which boxes suppression keeps, several compared at a time. kept_boxes_plain.cpp
// is the plain version.
#include "base/postprocess/kept_boxes.h"

#include <math.h>
#include <string.h>

#include "utils/numeric/lanes.h"
#include "base/postprocess/inclusive_overlap.h"

namespace {

using olvex::Floats;

// For a smaller threshold the limit times a union could be a denormal number, with few bits.
const float kSmallestLimited = 1e-20f;

// The corners of one box, or of several side by side.
template <typename Float>
struct Corners {
  Float x1;
  Float y1;
  Float x2;
  Float y2;
};

// Each choice is written like olvex::max or olvex::min, whose first argument wins when the two
// cannot be compared.
template <typename Float>
Float inclusive_intersection(const Corners<Float>& a, const Corners<Float>& b) {
  const Float none = Float();
  const Float xx1 = a.x1 < b.x1 ? b.x1 : a.x1;
  const Float yy1 = a.y1 < b.y1 ? b.y1 : a.y1;
  const Float xx2 = a.x2 > b.x2 ? b.x2 : a.x2;
  const Float yy2 = a.y2 > b.y2 ? b.y2 : a.y2;
  const Float width = xx2 - xx1 + 1.0f;
  const Float height = yy2 - yy1 + 1.0f;
  const Float w = olvex::highest(width, none);
  const Float h = olvex::highest(height, none);
  return w * h;
}

// A box against those that were kept, several at a time.
struct Candidate {
  explicit Candidate(const BoxInfo& box)
      : corners{olvex::splat(box.x1), olvex::splat(box.y1), olvex::splat(box.x2),
                olvex::splat(box.y2)},
        area(olvex::splat(inclusive_area(box))),
        label(olvex::splat(static_cast<int32_t>(box.label))) {}

  Corners<Floats> corners;
  Floats area;
  olvex::FloatsInt32 label;
};

// The boxes that suppression has kept so far.
//
// With a positive threshold, a box of another label never suppresses: its intersection counts as 0,
// and so does the ratio, unless it is NaN, which does not suppress either. So each box is compared
// only with those of one bucket, which is chosen by the last bits of the label.
class KeptBoxes {
 public:
  KeptBoxes(const olvex::vector<BoxInfo>& boxes, float threshold, bool class_specific)
      : threshold_(threshold),
        limit_(threshold * 0.999f),
        class_specific_(class_specific),
        has_limit_(threshold >= kSmallestLimited),
        num_buckets_(class_specific && threshold > 0.0f ? buckets_for(boxes.size()) : 1) {
    make_room(boxes);
  }

  bool suppress(const BoxInfo& box) const {
    const Bucket& bucket = buckets_[bucket_of(box)];
    const Candidate candidate(box);
    const Block* const end = blocks_.data() + bucket.end;
    const Block* block = blocks_.data() + bucket.first;
    if (end - block <= kFewBlocks) {
      olvex::FloatsMask mask = olvex::FloatsMask();
      for (; block < end; ++block) {
        mask |= suppressed(*block, candidate);
      }
      return olvex::any(mask);
    }
    for (; block < end; ++block) {
      if (may_suppress(*block, candidate) && olvex::any(suppressed(*block, candidate))) {
        return true;
      }
    }
    return false;
  }

  void add(const BoxInfo& box) {
    Bucket& bucket = buckets_[bucket_of(box)];
    const size_t lane = bucket.kept % olvex::kFloatLanes;
    const size_t place = bucket.first + bucket.kept / olvex::kFloatLanes;
    if (place == bucket.end) {
      blocks_[bucket.end++] = blank();
    }
    Block& block = blocks_[place];
    olvex::set_lane(block.corners.x1, lane, box.x1);
    olvex::set_lane(block.corners.y1, lane, box.y1);
    olvex::set_lane(block.corners.x2, lane, box.x2);
    olvex::set_lane(block.corners.y2, lane, box.y2);
    olvex::set_lane(block.area, lane, inclusive_area(box));
    olvex::set_lane(block.label, lane, static_cast<int32_t>(box.label));
    ++bucket.kept;
  }

 private:
  static const size_t kMaxBuckets = 64;
  static const ptrdiff_t kFewBlocks = 4;

  struct Block {
    Corners<Floats> corners;
    Floats area;
    olvex::FloatsInt32 label;
  };
  struct Bucket {
    size_t first;  // block
    size_t end;    // block after the last
    size_t kept;   // boxes
  };

  // Lanes without a box: the ratio with them is NaN.
  static Block blank() {
    Block block = Block();
    block.area = olvex::splat(NAN);
    return block;
  }

  // A power of two, with a few boxes for each.
  static size_t buckets_for(size_t num_boxes) {
    size_t buckets = 1;
    while (buckets < kMaxBuckets && buckets * olvex::kFloatLanes < num_boxes) {
      buckets *= 2;
    }
    return buckets;
  }

  size_t bucket_of(const BoxInfo& box) const {
    return static_cast<unsigned int>(box.label) & (num_buckets_ - 1);
  }

  void make_room(const olvex::vector<BoxInfo>& boxes) {
    size_t sizes[kMaxBuckets];
    memset(sizes, 0, num_buckets_ * sizeof(sizes[0]));
    for (size_t k = 0; k < boxes.size(); ++k) {
      ++sizes[bucket_of(boxes[k])];
    }
    size_t first = 0;
    for (size_t b = 0; b < num_buckets_; ++b) {
      buckets_[b].first = buckets_[b].end = first;
      buckets_[b].kept = 0;
      first += (sizes[b] + olvex::kFloatLanes - 1) / olvex::kFloatLanes;
    }
    blocks_.resize(first);
  }

  // Without a division, which takes longest: false only when no ratio reaches the threshold. The
  // limit lies below the threshold by more than the division rounds.
  bool may_suppress(const Block& kept, const Candidate& candidate) const {
    const Floats intersection = inclusive_intersection(kept.corners, candidate.corners);
    const Floats union_area = kept.area + candidate.area - intersection;
    return !has_limit_ || olvex::any(intersection >= limit_ * union_area);
  }

  olvex::FloatsMask suppressed(const Block& kept, const Candidate& candidate) const {
    Floats intersection = inclusive_intersection(kept.corners, candidate.corners);
    if (class_specific_) {
      const Floats none = Floats();
      intersection = kept.label == candidate.label ? intersection : none;
    }
    const Floats ovr = intersection / (kept.area + candidate.area - intersection);
    // Deliberate: a pair is kept only strictly below the threshold, so a ratio equal to it
    // suppresses; a NaN ratio is not at or above it and does not.
    return ovr >= threshold_;
  }

  float threshold_;
  float limit_;
  bool class_specific_;
  bool has_limit_;
  size_t num_buckets_;
  Bucket buckets_[kMaxBuckets];
  olvex::scratch<Block, kUsualBoxes / olvex::kFloatLanes> blocks_;
};

}  // namespace

size_t find_kept(const olvex::vector<BoxInfo>& boxes, const BoxOrder& sorted, float threshold,
                 bool class_specific, BoxOrder& order) {
  const size_t n = boxes.size();
  KeptBoxes kept(boxes, threshold, class_specific);
  order.resize(n);
  size_t num_kept = 0;
  size_t num_suppressed = 0;
  for (size_t k = 0; k < n; ++k) {
    const BoxInfo& box = boxes[sorted[k]];
    if (kept.suppress(box)) {
      order[n - ++num_suppressed] = sorted[k];
    } else {
      kept.add(box);
      order[num_kept++] = sorted[k];
    }
  }
  return num_kept;
}
