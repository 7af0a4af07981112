// double_check_test.cpp - confirmation of tracks by boxes of other classes.
#include "base/postprocess/det_postprocess.h"

#include <string.h>

#include <tuple>
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

TEST(DoubleCheck, confirms_by_the_covered_part_of_a_confident_box) {
  const Track target = make_track(7, kTarget);
  const Track bystander = make_track(7, make_track_box(0, 0, 10, 10, 0.9f, 2));
  Track confirmed(target), moved(target);
  confirmed.pass_double_check = true;
  moved.moved = true;
  const BoxInfo more_out = make_box(5.01f, 0, 15.01f, 10, 0.9f, 3);
  const std::tuple<const char*, Track, std::vector<BoxInfo>, bool, bool> rows[] = {
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
  for (const auto& [name, track, detections, examined, passed] : rows) {
    SCOPED_TRACE(name);
    OlvexIouTracker tracker;
    tracker.active_tracks_.push_back(track);
    tracker.active_tracks_[0].double_check = true;
    tracker.finished_tracks_ = tracker.active_tracks_;
    check(&tracker, detections);
    EXPECT_EQ(tracker.finished_tracks_[0].double_check, examined);
    EXPECT_TRUE(tracker.active_tracks_[0].double_check) << "a reset is not written back";
    EXPECT_EQ(tracker.finished_tracks_[0].pass_double_check, passed);
    EXPECT_EQ(tracker.active_tracks_[0].pass_double_check, passed);
  }
  check(NULL, {kConfirming});
}

TEST(DoubleCheck, copies_flags_to_as_many_live_tracks_as_are_reported) {
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

TEST(Records, start_blank_or_with_their_defaults) {
  const TrackBBox track_box;
  const std::vector<char> zeros(sizeof(track_box));
  EXPECT_EQ(memcmp(&track_box, zeros.data(), sizeof(track_box)), 0);
  const BoxInfo box;
  EXPECT_EQ((std::vector<float>{box.x1, box.y1, box.x2, box.y2, box.score}), std::vector<float>(5));
  EXPECT_TRUE(box.label == 0 && box.pts == 0 && box.track_id == 0);
  EXPECT_EQ(KeyPt_t().score, -1.0f);
  const DetStableBboxParams_t steady;
  EXPECT_TRUE(steady.stable_bbox == 0 && steady.stable_sensitive == 0.63f);
  const IoutStaticParams_t still;
  EXPECT_TRUE(still.ignore_static_objects == 0 && still.static_sensitive == 0.85f);
  EXPECT_EQ(still.ref_frame, 5);
  const DetDoubleCheckParams_t strict;
  EXPECT_TRUE(strict.enable == 0 && strict.check_target_class == -1);
  EXPECT_TRUE(strict.overlap_threshold == 0.5f && strict.check_class_conf_threshold == 0.5f);
  const IouTrackerParams_t tracker;
  EXPECT_TRUE(tracker.enable == 0 && tracker.ignore_frame_number == 1);
  EXPECT_EQ(tracker.max_lost_times, 10);
  const DetDecodeInfo decoding;
  EXPECT_TRUE(decoding.num_classes == -1 && decoding.reg_max == 1 && decoding.memory == NULL);
  EXPECT_EQ(decoding.class_specific_nms, 1);
  const DetInfo_t info;
  EXPECT_TRUE(info.model_buffer == nullptr && info.model_buffer_len == 0);
  EXPECT_TRUE(info.had_create_device == 0 && info.threshold == 0.0f);
}

}  // namespace
