// SPDX-License-Identifier: Apache-2.0
// bench_boxes.cpp - box lists: sort and suppression, also OpenCV's, lists that the accelerator has
// decoded, stabilisation; and the tracker with full histories: one frame of matching, and
// classification.
#include "bench/bench.h"

#ifdef OLVEX_BENCH_OPENCV
#include <opencv2/dnn.hpp>
#endif

namespace {

using Boxes = olvex::vector<BoxInfo>;
using ListWork = void (*)(const Routines& routines, Boxes& boxes);

void suppress_by_class(const Routines& routines, Boxes& boxes) {
  routines.nms(boxes, kNmsThreshold, 1);
}

void stabilise(const Routines& routines, Boxes& boxes) {
  // Made once for each list: all copies of one have as many boxes.
  static Boxes previous;
  if (previous.size() != boxes.size()) {
    previous = apart_boxes(static_cast<int>(boxes.size()), 0);
  }
  routines.stabilise(boxes, previous, 0.63f);
}

// Different lists of one length: a processor that sorts one list repeatedly predicts its branches,
// which it cannot on a camera.
std::vector<Boxes> different_lists(Boxes (*list)(int, int), int count) {
  std::vector<Boxes> lists;
  for (int which = 0; which < std::clamp(20000 / count, 4, 256); ++which) {
    lists.push_back(list(count, which));
  }
  return lists;
}

void add_list_work(const std::string& work, ListWork function, Boxes (*list)(int, int), int count) {
  const std::string name = work + "/boxes:" + std::to_string(count);
  for (const Library& library : libraries()) {
    benchmark::RegisterBenchmark((name + "/" + library.name).c_str(), [=, &library](
                                                                          benchmark::State& state) {
      time_on_copies(state, different_lists(list, count),
                     [&](Boxes& boxes) { function(*library.without_log, boxes); });
    })->UseManualTime();
  }
  add_check(name, [=](const Routines& routines) {
    Numbers numbers;
    for (Boxes& boxes : different_lists(list, count)) {
      function(routines, boxes);
      const Numbers more = numbers_of(boxes);
      numbers.insert(numbers.end(), more.begin(), more.end());
    }
    return numbers;
  });
}

Boxes next_moment(int count, int which) {
  return apart_boxes(count, 1 + which % 3);
}

#ifdef OLVEX_BENCH_OPENCV

void suppress(const Routines& routines, Boxes& boxes) {
  routines.nms(boxes, kNmsThreshold, 0);
}

void time_opencv(benchmark::State& state, int count) {
  std::vector<std::vector<cv::Rect2d>> rectangles;
  std::vector<std::vector<float>> scores;
  for (const Boxes& boxes : different_lists(crowded_boxes, count)) {
    rectangles.emplace_back();
    scores.emplace_back();
    for (const BoxInfo& box : boxes) {
      rectangles.back().emplace_back(box.x1, box.y1, box.x2 - box.x1, box.y2 - box.y1);
      scores.back().push_back(box.score);
    }
  }
  std::vector<int> picked;
  std::size_t which = 0;
  for (auto _ : state) {
    cv::dnn::NMSBoxes(rectangles[which], scores[which], 0.0f, kNmsThreshold, picked);
    benchmark::DoNotOptimize(picked.data());
    which = (which + 1) % rectangles.size();
  }
}
#endif

void add_decoded_rows(const std::string& work, QV_IPU_ELEMENT_FORMAT format, int points) {
  const int rows = 200;
  add_pair(work, [=](benchmark::State& state, const Library& library) {
    DecodedRows tensors(format, rows, points);
    Boxes boxes;
    for (auto _ : state) {
      library.without_log->ipu_decode(tensors.info(), boxes);
      benchmark::DoNotOptimize(boxes.data());
    }
    // The accelerator has suppressed already: nearly all rows remain.
    if (boxes.size() < rows * 9 / 10) {
      state.SkipWithError("the rows were not decoded");
    }
  });
  add_check(work, [=](const Routines& routines) {
    DecodedRows tensors(format, rows, points);
    Boxes boxes;
    routines.ipu_decode(tensors.info(), boxes);
    return numbers_of(boxes);
  });
}

}  // namespace

void register_boxes() {
  for (const int count : {20, 200, 5000}) {
    add_list_work("sort_nms", suppress_by_class, crowded_boxes, count);
#ifdef OLVEX_BENCH_OPENCV
    add_list_work("sort_nms_any_class", suppress, crowded_boxes, count);
    benchmark::RegisterBenchmark(
        ("sort_nms_any_class/boxes:" + std::to_string(count) + "/opencv").c_str(),
        [count](benchmark::State& state) { time_opencv(state, count); });
#endif
  }
  add_decoded_rows("ipu_decode_fp32/layout:B/rows:200", QV_IPU_FORMAT_FP32, 0);
  add_decoded_rows("ipu_decode_fp32/layout:C/rows:200", QV_IPU_FORMAT_FP32, 51);
  add_decoded_rows("ipu_decode_int16/layout:B/rows:200", QV_IPU_FORMAT_INT16, 0);
  for (const int count : {20, 200}) {
    add_list_work("stabilise", stabilise, next_moment, count);
  }
  for (const int factor : {1, 4, 16, 64}) {
    const std::string measure = "/factor:" + std::to_string(factor);
    add_list_work("growth_sort_nms" + measure, suppress_by_class, crowded_boxes, 10 * factor);
    add_list_work("growth_stabilise" + measure, stabilise, next_moment, 10 * factor);
  }
}

// ---- The tracker --------------------------------------------------------------------------------

namespace {

void add_tracking(const std::string& work, void (SteadyTracker::*step)(), int count) {
  add_pair(work, [=](benchmark::State& state, const Library& library) {
    SteadyTracker tracker(*library.without_log, count);
    for (auto _ : state) {
      (tracker.*step)();
    }
    if (!tracker.is_steady()) {
      state.SkipWithError("the tracker lost objects");
    }
  });
  add_check(work, [=](const Routines& routines) {
    SteadyTracker tracker(routines, count);
    (tracker.*step)();
    Numbers numbers;
    for (const Track& track : tracker.tracks()) {
      numbers.push_back(track.id + (track.moved ? 0.5 : 0) + (track.moving ? 0.25 : 0));
      for (const TrackBBox& box : track.boxes) {
        numbers.insert(numbers.end(), {box.x, box.y, box.w, box.h, box.score});
      }
    }
    return numbers;
  });
}

}  // namespace

void register_tracking() {
  for (const int count : {10, 50, 200}) {
    const std::string objects = "/objects:" + std::to_string(count);
    add_tracking("track" + objects, &SteadyTracker::track, count);
    add_tracking("classify" + objects, &SteadyTracker::classify, count);
  }
  for (const int factor : {1, 4, 16, 64}) {
    const int count = 10 * factor;
    add_tracking(
        "growth_track/factor:" + std::to_string(factor) + "/objects:" + std::to_string(count),
        &SteadyTracker::track, count);
  }
}
