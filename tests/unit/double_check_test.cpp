// double_check_test.cpp - confirmation of tracks by boxes of other classes.
#include "base/postprocess/det_postprocess.h"

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

// Checks tracks of class 1 against boxes of classes 2 and 3.
void check(OlvexIouTracker* tracker, const std::vector<BoxInfo>& detections) {
  DetDoubleCheckParams_t params;
  params.check_target_class = 1;
  params.check_with_classes = list_of<int>({2, 3});
  olvex::vector<BoxInfo> boxes = list_of(detections);
  do_double_check(boxes.data(), static_cast<int>(boxes.size()), tracker, params);
}

const TrackBBox kTarget = make_track_box(0, 0, 10, 10, 0.9f, 1);
const BoxInfo kConfirming = make_box(2, 2, 6, 6, 0.9f, 2);

TEST(DoubleCheck, ConfirmsByTheCoveredPartOfAConfidentBox) {
  const Track target = make_track(7, kTarget);
  const Track bystander = make_track(7, make_track_box(0, 0, 10, 10, 0.9f, 2));
  Track confirmed(target), moved(target);
  confirmed.pass_double_check = true;
  moved.moved = true;
  const BoxInfo more_out = make_box(5.01f, 0, 15.01f, 10, 0.9f, 3);
  const struct {
    const char* name;
    Track track;
    std::vector<BoxInfo> detections;
    bool examined, passed;
  } rows[] = {
      {"nothing detected", target, {}, true, false},
      {"covered", target, {kConfirming}, true, true},
      {"covered by the threshold exactly", target, {make_box(5, 0, 15, 10, 0.9f, 3)}, true, true},
      {"covered by less", target, {more_out}, true, false},
      {"lies in a large one", target, {make_box(-100, -100, 100, 100, 0.9f, 2)}, true, false},
      {"score equal to the threshold", target, {make_box(2, 2, 6, 6, 0.5f, 2)}, true, true},
      {"score below the threshold", target, {make_box(2, 2, 6, 6, 0.499f, 2)}, true, false},
      {"class that does not confirm", target, {make_box(2, 2, 6, 6, 0.9f, 4)}, true, false},
      {"box without area", target, {make_box(5, 5, 5, 5, 0.9f, 2)}, true, false},
      {"second of two", target, {more_out, kConfirming}, true, true},
      {"track of another class", bystander, {kConfirming}, false, false},
      {"confirmed before", confirmed, {}, false, true},
      {"has moved", moved, {kConfirming}, false, false},
      {"has no box", Track(), {kConfirming}, false, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    OlvexIouTracker tracker;
    tracker.active_tracks_.push_back(row.track);
    tracker.active_tracks_[0].double_check = true;
    tracker.finished_tracks_ = tracker.active_tracks_;
    check(&tracker, row.detections);
    EXPECT_EQ(tracker.finished_tracks_[0].double_check, row.examined);
    EXPECT_TRUE(tracker.active_tracks_[0].double_check) << "a reset is not written back";
    EXPECT_EQ(tracker.finished_tracks_[0].pass_double_check, row.passed);
    EXPECT_EQ(tracker.active_tracks_[0].pass_double_check, row.passed);
  }
  check(NULL, {kConfirming});
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

TEST(Records, StartWithoutScoreTargetClassOrModel) {
  EXPECT_EQ(KeyPt_t().score, -1.0f);
  EXPECT_EQ(DetDoubleCheckParams_t().check_target_class, -1);
  EXPECT_EQ(DetInfo_t().model_buffer, nullptr);
}

}  // namespace
