// SPDX-License-Identifier: Apache-2.0
// boxes.h - short ways to write boxes and tensors and to read the log's errors in the unit tests.
// The larger fixtures are in the test sources that need them.
#ifndef TESTS_UNIT_BOXES_H
#define TESTS_UNIT_BOXES_H

#include <math.h>
#include <stdint.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "qv_ipu.h"

#include "utils/numeric/saturating_cast.h"
#include "utils/records/det_records.h"
#include "base/tracker/iou_tracker/iout.h"
#include "tests/support/log_lines.h"

// The time stamp serves as a box's name wherever a test has to tell boxes apart.
inline BoxInfo make_box(float x1, float y1, float x2, float y2, float score = 0.9f, int label = 0,
                        unsigned long long pts = 0) {
  BoxInfo box;
  std::tie(box.x1, box.y1, box.x2, box.y2) = std::tie(x1, y1, x2, y2);
  std::tie(box.score, box.label, box.pts) = std::tie(score, label, pts);
  return box;
}

inline TrackBBox make_track_box(float x, float y, float w, float h, float score = 0.9f,
                                int class_id = 0, unsigned long long pts = 0) {
  TrackBBox box;
  std::tie(box.x, box.y, box.w, box.h) = std::tie(x, y, w, h);
  std::tie(box.score, box.class_id, box.pts) = std::tie(score, class_id, pts);
  return box;
}

template <typename T = BoxInfo>
olvex::vector<T> list_of(const std::vector<T>& elements) {
  olvex::vector<T> list;
  list.insert(list.begin(), elements.data(), elements.data() + elements.size());
  return list;
}

// A tensor in both element types; as INT16 it is stored in units of scale. The buffers end with the
// last element, so that a sanitizer sees every overread.
struct Tensor {
  std::vector<float> floats;
  std::vector<int16_t> integers;

  Tensor(const std::vector<float>& values, float scale) : floats(values), integers(values.size()) {
    std::transform(values.begin(), values.end(), integers.begin(), [scale](float value) {
      return olvex::saturating_cast<int16_t>(round(value / scale));
    });
  }
  void* data(QV_IPU_ELEMENT_FORMAT format) {
    return format == QV_IPU_FORMAT_INT16 ? static_cast<void*>(integers.data()) : floats.data();
  }
};

// The messages of the error lines since CaptureStdout.
inline std::string captured_errors() {
  const std::string log = testing::internal::GetCapturedStdout();
  EXPECT_EQ("", unknown_lines(log));
  std::string errors;
  for (const std::string& line : log_lines(log)) {
    errors += line.find("ERROR \"") == 0 ? line.substr(7, line.size() - 8) + "\n" : "";
  }
  return errors;
}

#endif  // TESTS_UNIT_BOXES_H
