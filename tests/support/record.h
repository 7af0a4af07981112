// SPDX-License-Identifier: Apache-2.0
// record.h - the results of a run as numbers: two runs did the same when their records are the
// same. A NaN counts as one number, as its bits depend on the order of a processor's operands.
#ifndef TESTS_SUPPORT_RECORD_H
#define TESTS_SUPPORT_RECORD_H

#include <cstdint>
#include <cstring>
#include <vector>

#include "utils/records/det_records.h"
#include "video/det/include/olvex_det.h"

class Record {
 public:
  std::vector<std::uint64_t> numbers;

  template <class... Values>
  void add(Values... values) {
    (append(values), ...);
  }
  void add_boxes(const Box_t* boxes, QV_S32 count) {
    add(count);
    for (const Box_t* b = boxes; b != boxes + count; ++b) {
      add(b->x, b->y, b->width, b->height, b->class_id, b->score, b->pts);
    }
  }
  void add_boxes(const olvex::vector<BoxInfo>& boxes) {
    add(boxes.size());
    for (const BoxInfo& b : boxes) {
      add(b.x1, b.y1, b.x2, b.y2, b.score, b.label, b.pts, b.track_id, b.keypts.size());
      for (const KeyPt_t& point : b.keypts) {
        add(point.x, point.y, point.score);
      }
    }
  }

 private:
  template <class Value>
  void append(Value value) {
    numbers.push_back(static_cast<std::uint64_t>(value));
  }
  void append(float value) {
    std::uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    numbers.push_back(value != value ? 0x7fc00000u : bits);
  }
};

#endif  // TESTS_SUPPORT_RECORD_H
