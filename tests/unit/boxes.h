// boxes.h - short ways to write boxes and to read log lines in the unit tests. The larger fixtures
// are in the test sources that need them.
#ifndef TESTS_UNIT_BOXES_H
#define TESTS_UNIT_BOXES_H

#include <initializer_list>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "utils/records/det_records.h"
#include "base/tracker/iou_tracker/iout.h"

// The time stamp serves as a box's name wherever a test has to tell boxes apart.
inline BoxInfo make_box(float x1, float y1, float x2, float y2, float score = 0.9f, int label = 0,
                        unsigned long long pts = 0) {
  BoxInfo box;
  box.x1 = x1;
  box.y1 = y1;
  box.x2 = x2;
  box.y2 = y2;
  box.score = score;
  box.label = label;
  box.pts = pts;
  return box;
}

inline TrackBBox make_track_box(float x, float y, float w, float h, float score = 0.9f,
                                int class_id = 0, unsigned long long pts = 0) {
  TrackBBox box;
  box.x = x;
  box.y = y;
  box.w = w;
  box.h = h;
  box.score = score;
  box.class_id = class_id;
  box.pts = pts;
  return box;
}

template <typename Range>
auto to_list(const Range& range) {
  olvex::vector<typename std::decay<decltype(*range.begin())>::type> list;
  for (const auto& element : range) {
    list.push_back(element);
  }
  return list;
}

template <typename T>
olvex::vector<T> list_of(std::initializer_list<T> elements) {
  return to_list(elements);
}

// Standard output since CaptureStdout, each line's header cut down to its level.
inline std::string captured_messages() {
  std::string text = testing::internal::GetCapturedStdout();
  size_t at;
  while ((at = text.find(", LINE: ")) != std::string::npos) {
    const size_t begin = text.rfind('[', at);
    text.erase(at, text.find(". ", at) + 1 - at);
    text.erase(begin, text.find("] ", begin) + 2 - begin);
  }
  return text;
}

#endif  // TESTS_UNIT_BOXES_H
