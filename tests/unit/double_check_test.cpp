// double_check_test.cpp - confirmation of tracks by boxes of other classes.
#include "base/postprocess/det_postprocess.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/tracker/iou_tracker/iout.h"
#include "tests/unit/boxes.h"

namespace {

Track make_track(int id, const TrackBBox& box) {
  Track track;
  track.id = id;
  track.boxes.push_back(make_track_box(-500, -500, 1, 1));  // the newest box counts
  track.boxes.push_back(box);
  return track;
}

// Target class 1, confirmed by classes 2 and 3.
DetDoubleCheckParams_t params() {
  DetDoubleCheckParams_t result;
  result.enable = 1;
  result.check_target_class = 1;
  result.check_with_classes = list_of({2, 3});
  return result;
}

const TrackBBox kTarget = make_track_box(0, 0, 10, 10, 0.9f, 1);
const BoxInfo kConfirming = make_box(2, 2, 6, 6, 0.9f, 2);

std::string check(OlvexIouTracker* tracker, const std::vector<BoxInfo>& detections) {
  olvex::vector<BoxInfo> boxes = to_list(detections);
  testing::internal::CaptureStdout();
  do_double_check(boxes.data(), static_cast<int>(boxes.size()), tracker, params());
  return captured_messages();
}

TEST(DoubleCheck, ConfirmsByTheCoveredPartOfAConfidentBox) {
  struct Row {
    const char* name;
    TrackBBox target;
    std::vector<BoxInfo> detections;
    bool examined, passed;
  };
  const BoxInfo half_out = make_box(5, 0, 15, 10, 0.9f, 3);
  const BoxInfo more_out = make_box(5.01f, 0, 15.01f, 10, 0.9f, 3);
  const BoxInfo point = make_box(5, 5, 5, 5, 0.9f, 2);
  const BoxInfo large = make_box(-100, -100, 100, 100, 0.9f, 2);
  const TrackBBox bystander = make_track_box(0, 0, 10, 10, 0.9f, 2);
  const Row rows[] = {
      {"nothing detected", kTarget, {}, true, false},
      {"covered", kTarget, {kConfirming}, true, true},
      {"covered by the threshold exactly", kTarget, {half_out}, true, true},
      {"covered by less", kTarget, {more_out}, true, false},
      {"lies in a large one", kTarget, {large}, true, false},
      {"score equal to the threshold", kTarget, {make_box(2, 2, 6, 6, 0.5f, 2)}, true, true},
      {"score below the threshold", kTarget, {make_box(2, 2, 6, 6, 0.499f, 2)}, true, false},
      {"class that does not confirm", kTarget, {make_box(2, 2, 6, 6, 0.9f, 4)}, true, false},
      {"box without area", kTarget, {point}, true, false},
      {"second of two", kTarget, {more_out, kConfirming}, true, true},
      {"track of another class", bystander, {kConfirming}, false, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    OlvexIouTracker tracker;
    tracker.finished_tracks_.push_back(make_track(7, row.target));
    tracker.active_tracks_ = tracker.finished_tracks_;
    check(&tracker, row.detections);
    for (const Track& track : {tracker.finished_tracks_[0], tracker.active_tracks_[0]}) {
      EXPECT_EQ(track.double_check, row.examined);
      EXPECT_EQ(track.pass_double_check, row.passed);
    }
  }
}

TEST(DoubleCheck, ExemptsTracksAndLeavesTheirLiveFlagsAlone) {
  struct Row {
    const char* name;
    bool passed, moved, empty;
  };
  const Row rows[] = {
      {"confirmed before", true, false, false},
      {"has moved", false, true, false},
      {"has no box", false, false, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    OlvexIouTracker tracker;
    Track track = make_track(7, kTarget);
    track.double_check = true;
    track.pass_double_check = row.passed;
    track.moved = row.moved;
    track.boxes.resize(row.empty ? 0 : 2, kTarget);
    tracker.finished_tracks_.push_back(track);
    tracker.active_tracks_.push_back(track);
    EXPECT_EQ(check(&tracker, {}), "DLA_DEBUG: enter do_double_check\n");
    EXPECT_FALSE(tracker.finished_tracks_[0].double_check);
    EXPECT_EQ(tracker.finished_tracks_[0].pass_double_check, row.passed);
    EXPECT_TRUE(tracker.active_tracks_[0].double_check) << "the reset is not written back";
  }
}

TEST(DoubleCheck, CopiesFlagsToAsManyLiveTracksAsAreReported) {
  OlvexIouTracker tracker;
  tracker.active_tracks_.push_back(make_track(1, make_track_box(100, 0, 10, 10, 0.9f, 1)));
  tracker.active_tracks_.push_back(make_track(2, kTarget));
  tracker.finished_tracks_.push_back(tracker.active_tracks_[1]);
  check(&tracker, {kConfirming});
  EXPECT_TRUE(tracker.finished_tracks_[0].pass_double_check);
  EXPECT_FALSE(tracker.active_tracks_[1].pass_double_check);

  tracker.finished_tracks_ = tracker.active_tracks_;
  check(&tracker, {kConfirming});
  EXPECT_TRUE(tracker.active_tracks_[1].pass_double_check);
  EXPECT_TRUE(tracker.active_tracks_[0].double_check);
  EXPECT_FALSE(tracker.active_tracks_[0].pass_double_check);
}

TEST(DoubleCheck, LogsWhatItCompares) {
  OlvexIouTracker tracker;
  tracker.finished_tracks_.push_back(make_track(7, kTarget));
  tracker.active_tracks_ = tracker.finished_tracks_;
  EXPECT_EQ(check(&tracker, {make_box(8, 0, 16, 10, 0.9f, 3), kConfirming, kConfirming}),
            "DLA_DEBUG: enter do_double_check\n"
            "DLA_DEBUG: check with box xywhc= 8.000000,0.000000,8.000000,10.000000,3\n"
            "DLA_DEBUG: check with box xywhc= 2.000000,2.000000,4.000000,4.000000,2\n"
            "DLA_DEBUG: check with box xywhc= 2.000000,2.000000,4.000000,4.000000,2\n"
            "DLA_DEBUG: check_with_boxes.size() = 3\n"
            "DLA_DEBUG: checking box x,y,w,h= 0.000000,0.000000,10.000000,10.000000\n"
            "DLA_DEBUG: double check failed because overlap = 0.250000(lower than 0.500000)\n"
            "DLA_DEBUG: double check passed\n");
  EXPECT_EQ(check(NULL, {kConfirming}),
            "DLA_DEBUG: enter do_double_check\nDLA_ERROR: tracker is not inited\n");
}

}  // namespace
