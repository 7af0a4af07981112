// SPDX-License-Identifier: Apache-2.0
// iou_tracker_test.cpp - matching, life and death of tracks, and static/moving classification.
#include "base/tracker/iou_tracker/iout.h"

#include <math.h>

#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/boxes.h"

namespace {

typedef std::vector<int> Ids;
typedef std::vector<TrackBBox> Boxes;

class IouTracker : public testing::Test {
 protected:
  // Advances by that many equal frames and returns the ids of the tracks that are reported then.
  Ids feed(const Boxes& boxes, size_t frames = 1) {
    tracker_.track_iou(olvex::vector<olvex::vector<TrackBBox>>(frames, list_of(boxes)));
    Ids ids;
    for (const Track& track : tracker_.finished_tracks_) {
      ids.push_back(track.id);
    }
    return ids;
  }

  OlvexIouTracker tracker_;
};

// Three places that do not overlap.
const TrackBBox kHere = make_track_box(0, 0, 10, 10);
const TrackBBox kThere = make_track_box(100, 0, 10, 10);
const TrackBBox kElsewhere = make_track_box(200, 0, 10, 10);

TEST_F(IouTracker, starts_with_what_it_does_not_use_yet) {
  EXPECT_EQ(tracker_.iou_sigma_l_, 0.0f);
  EXPECT_EQ(tracker_.iou_sigma_show_, 0.5f);
  EXPECT_EQ(tracker_.erase_min_size_, 15.0f);
  const Track track;
  EXPECT_FALSE(track.start_frame || track.status_pre || track.status_now || track.alert);
}

TEST_F(IouTracker, continues_a_track_from_the_threshold_on) {
  const std::tuple<const char*, TrackBBox, bool> rows[] = {
      {"overlap exactly 0.3", make_track_box(0, 0, 10, 3), true},
      {"overlap 0.2999", make_track_box(0, 0, 10, 2.999f), false},
      {"apart", kThere, false},
      {"other class", make_track_box(0, 0, 10, 10, 0.9f, 1), false},
      {"NaN", make_track_box(NAN, 0, 10, 10), false},
  };
  for (const auto& [name, next, continues] : rows) {
    tracker_ = OlvexIouTracker();
    feed({kHere});
    EXPECT_EQ(feed({next}), continues ? Ids{1} : Ids{2}) << name;
  }
}

TEST_F(IouTracker, lets_earlier_tracks_choose_first_and_the_later_of_equal_detections) {
  feed({kHere});
  const TrackBBox left = make_track_box(-2, 0, 10, 10), right = make_track_box(2, 0, 10, 10);
  EXPECT_EQ(feed({left, right}), (Ids{1, 2}));
  EXPECT_EQ(tracker_.finished_tracks_[0].boxes[1].x, right.x);
  EXPECT_EQ(tracker_.finished_tracks_[1].boxes[0].x, left.x);
  EXPECT_EQ(feed({make_track_box(-1, 0, 10, 10)}), Ids{1});  // though it is closer to track 2
}

TEST_F(IouTracker, finds_the_highest_overlap) {
  TrackBBox empty = make_track_box(5, 5, 0, 0);
  EXPECT_TRUE(isnan(track_bbox_iou(empty, empty, true)));
  EXPECT_EQ(highest_iou(kHere, list_of<TrackBBox>({})), -1);
  EXPECT_EQ(highest_iou(kHere, list_of<TrackBBox>({kThere, kElsewhere})), 1);
  EXPECT_EQ(highest_iou(kHere, list_of<TrackBBox>({kThere, kHere, kElsewhere})), 1);
  EXPECT_EQ(highest_iou(kHere, list_of<TrackBBox>({kHere, kThere})), 0);
  EXPECT_EQ(highest_iou(empty, list_of<TrackBBox>({empty, empty})), -1);
  TrackBBox a = kHere, b = make_track_box(5, 2, 10, 4, 0.9f, 1);
  EXPECT_EQ(track_bbox_intersect(a, b, false), 20.0f);
  EXPECT_EQ(track_bbox_intersect(a, b, true), 0.0f);
  EXPECT_EQ(track_bbox_iou(a, b, false), 20.0f / 120.0f);
  EXPECT_EQ(track_bbox_iou(a, b, true), 0.0f);
}

TEST_F(IouTracker, caps_the_history_and_keeps_the_best_score) {
  for (unsigned long long pts = 1; pts <= 15; ++pts) {
    feed({make_track_box(0, 0, 10, 10, pts == 2 ? 0.9f : 0.5f, 0, pts)});
    EXPECT_EQ(tracker_.finished_tracks_[0].boxes.size(), pts < 10 ? pts : 10);
  }
  EXPECT_EQ(tracker_.finished_tracks_[0].boxes[0].pts, 6u);
  EXPECT_EQ(tracker_.finished_tracks_[0].max_score, 0.9f);
}

TEST_F(IouTracker, revives_a_lost_track_up_to_the_tenth_miss) {
  EXPECT_EQ(feed({kHere, kThere, kElsewhere}), (Ids{1, 2, 3}));
  EXPECT_EQ(feed({kHere, kElsewhere}, 10), (Ids{1, 3}));
  EXPECT_EQ(feed({kThere}), Ids{2});
  EXPECT_EQ(feed({kHere, kElsewhere}, 10), (Ids{1, 3})) << "counted from 0 again";
  EXPECT_EQ(tracker_.active_tracks_.size(), 3u);
  EXPECT_EQ(feed({kHere, kElsewhere}), (Ids{1, 3})) << "the one behind a deleted one is visited";
  EXPECT_EQ(tracker_.active_tracks_.size(), 2u);
  EXPECT_EQ(feed({kThere}), Ids{4}) << "ids are not used again";
}

TEST_F(IouTracker, hides_a_track_until_its_best_score_and_its_age_are_enough) {
  EXPECT_EQ(feed({make_track_box(0, 0, 10, 10, 0.19f)}), Ids{});
  EXPECT_EQ(feed({make_track_box(0, 0, 10, 10, 0.2f)}), Ids{1});
  EXPECT_EQ(feed({make_track_box(0, 0, 10, 10, 0.1f)}), Ids{1});
  tracker_.iou_t_min_ = 5;
  EXPECT_EQ(feed({kHere}), Ids{});
  EXPECT_EQ(feed({}), Ids{});
  EXPECT_EQ(feed({kHere}), Ids{1}) << "a miss does not restart the history";
}

// Boxes of 10 x 10; a shift by 5 is an overlap of 1/3.
TEST_F(IouTracker, tells_moving_from_static) {
  const struct {
    const char* name;
    std::vector<float> xs;  // history, oldest first
    QV_S16 ref_frame;
    bool moved_before, moving_before, moved, moving;
  } rows[] = {
      {"overlap equal to the sensitivity", {5, 0}, 2, false, true, false, false},
      {"overlap below the sensitivity", {5.01f, 0}, 2, false, false, true, true},
      {"stops", {50, 0, 0}, 2, true, true, true, false},
      {"starts again", {50, 0}, 2, true, false, true, true},
      {"reference is the oldest", {50, 0, 0, 0, 0}, 5, false, false, true, true},
      {"reference is behind the move", {50, 0, 0, 0, 0}, 4, false, true, false, false},
      {"history too short", {50, 0, 0, 0}, 5, false, true, false, true},
      {"reference 1 is the newest itself", {50, 0}, 1, true, true, true, false},
      {"reference 0 counts as 1", {50, 0}, 0, true, true, true, false},
      {"reference -1 is never reached", {50, 0}, -1, false, true, false, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Track track;
    track.moved = row.moved_before;
    track.moving = row.moving_before;
    for (const float x : row.xs) {
      track.boxes.push_back(make_track_box(x, 0, 10, 10));
    }
    tracker_.active_tracks_ = tracker_.finished_tracks_ = list_of<Track>({track});
    IoutStaticParams_t params;
    params.static_sensitive = 1.0f / 3.0f;
    params.ref_frame = row.ref_frame;
    tracker_.static_moving_classify(params);
    for (const Track& result : {tracker_.finished_tracks_[0], tracker_.active_tracks_[0]}) {
      EXPECT_TRUE(result.moved == row.moved && result.moving == row.moving);
    }
  }
}

TEST_F(IouTracker, copies_flags_to_as_many_live_tracks_as_are_reported) {
  IoutStaticParams_t params;
  params.ref_frame = 2;
  feed({kHere, kThere});
  EXPECT_EQ(feed({make_track_box(104, 0, 10, 10)}), Ids{2});
  tracker_.static_moving_classify(params);
  EXPECT_TRUE(tracker_.finished_tracks_[0].moved && tracker_.finished_tracks_[0].moving);
  EXPECT_FALSE(tracker_.active_tracks_[1].moved || tracker_.active_tracks_[1].moving);

  EXPECT_EQ(feed({kHere, kThere}), (Ids{1, 2}));
  tracker_.static_moving_classify(params);
  EXPECT_TRUE(tracker_.active_tracks_[1].moved && tracker_.active_tracks_[1].moving);
  EXPECT_FALSE(tracker_.active_tracks_[0].moved || tracker_.active_tracks_[0].moving);
}

}  // namespace
