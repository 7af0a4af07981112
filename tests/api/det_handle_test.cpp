// det_handle_test.cpp - what a handle does that its public functions do not show.
// public_api_test.cpp has everything else.
#include "video/det/include/det_schedule.h"

#include "tests/api/det_test.h"

namespace {

class DetHandleTest : public DetTest {
 protected:
  int init() {
    qv_scripted::add_network(list_network({{{8.f, 16.f, 32.f, 48.f, 0.75f, 0.f}}}));
    DetInfo_t info;
    std::memset(static_cast<void*>(&info), 0, sizeof info);
    const std::string header = "model_out:zrpcnhf\nlib_out:zrpc\n";
    std::snprintf(info.model, sizeof info.model, "%s", write_model(header).c_str());
    return handle_.handle_init(&info);
  }

  DetHandle handle_;
};

TEST_F(DetHandleTest, teardown_happens_once_and_leaves_the_options) {
  ASSERT_EQ(0, init());
  IouTrackerParams_t tracker;
  tracker.enable = 1;
  tracker.ignore_frame_number = -2;
  tracker.max_lost_times = 300;
  handle_.set_iou_tracker_params(tracker);
  ASSERT_NE(nullptr, handle_.mTracker_);
  const OlvexIouTracker* made = static_cast<OlvexIouTracker*>(handle_.mTracker_);
  EXPECT_EQ(-2.f, made->iou_t_min_);
  EXPECT_EQ(300, made->max_lost_times_);
  tracker.enable = 0;
  handle_.set_iou_tracker_params(tracker);
  EXPECT_EQ(made, handle_.mTracker_) << "kept once made";

  EXPECT_EQ(0, handle_.handle_deinit());
  EXPECT_EQ(nullptr, handle_.mTracker_);
  const DetInfo_t& info = handle_.mDetInfo_;
  const std::string zeros(sizeof info, '\0');
  EXPECT_EQ(0, std::memcmp(zeros.data(), &info, sizeof info));
  EXPECT_EQ(300, handle_.mIouTrackerParams_.max_lost_times);
  const int calls = qv_scripted::call_count();
  log();
  EXPECT_EQ(0, handle_.handle_deinit());
  EXPECT_TRUE(
      contains(log(), "no need to deinit handle: det handle is not inited or already deinited!\n"));
  EXPECT_EQ(calls, qv_scripted::call_count());
}

TEST_F(DetHandleTest, strict_mode_takes_its_classes_from_the_model_and_makes_no_tracker) {
  ASSERT_EQ(0, init());
  DetDoubleCheckParams_t params;
  params.enable = 1;
  params.check_target_class = 5;
  params.check_with_classes.push_back(3);
  params.overlap_threshold = 0.25f;
  params.check_class_conf_threshold = 0.125f;
  handle_.set_double_check_params(params);
  const DetDoubleCheckParams_t& taken = handle_.mDoubleCheckParams_;
  ASSERT_EQ(2u, taken.check_with_classes.size());
  EXPECT_EQ(-6, taken.check_with_classes[0]);
  EXPECT_EQ(-7, taken.check_with_classes[1]);
  EXPECT_EQ(0, taken.check_target_class);
  EXPECT_EQ(0.25f, taken.overlap_threshold);
  EXPECT_EQ(0.125f, taken.check_class_conf_threshold);
  EXPECT_EQ(1, handle_.mIouTrackerParams_.enable);
  EXPECT_EQ(nullptr, handle_.mTracker_);
  params.enable = 0;
  handle_.set_double_check_params(params);
  EXPECT_EQ(1, handle_.mIouTrackerParams_.enable) << "switching off leaves the tracker on";
  EXPECT_EQ(0, handle_.handle_deinit());
}

TEST_F(DetHandleTest, missing_frame_or_tracker_is_refused) {
  olvex::vector<BoxInfo> boxes;
  boxes.push_back(BoxInfo());
  QV_SYS_BufInfo_s buffer = {};
  EXPECT_EQ(6, handle_.detect(&buffer, boxes));
  EXPECT_EQ(6, handle_.track(boxes));
  handle_.update_last_output(boxes);
  EXPECT_TRUE(handle_.mLastOutput_.empty());

  ASSERT_EQ(0, init());
  log();
  EXPECT_EQ(7, handle_.detect(nullptr, boxes));
  EXPECT_TRUE(contains(log(), "the input image is nullptr\n"));
  EXPECT_EQ(6, handle_.track(boxes));
  EXPECT_EQ(nullptr, handle_.mTracker_);
  handle_.refine_result(boxes);
  EXPECT_EQ(2, count_of(log(), "tracker is not inited\n"));
  EXPECT_EQ(1u, boxes.size());
  EXPECT_EQ(0, handle_.handle_deinit());
}

}  // namespace
