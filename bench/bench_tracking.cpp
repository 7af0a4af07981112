// bench_tracking.cpp - the tracker with full histories: one frame of matching, and classification.
#include "bench/bench.h"

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
