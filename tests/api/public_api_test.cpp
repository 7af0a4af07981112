// SPDX-License-Identifier: Apache-2.0
// public_api_test.cpp - the exported functions: codes, messages, options, what reaches the
// accelerator and what comes back. det_test.h has the fixture; failure_sweep_test.cpp has the lives
// in which a call fails.
#include "olvex_det.h"

#include <cmath>
#include <tuple>

#include "tests/api/det_test.h"
#include "tests/unit/boxes.h"
#include "video/det/include/commit_det.h"

namespace {

using qv_scripted::Function;
using qv_scripted::last_event;

const char kNotInited[] = "det handle is not inited or deinit already!!!\n";
const Detections kOneBox = {{8.f, 16.f, 32.f, 48.f, 0.75f, 0.f}};

// The options that a handle holds: tracker, static objects, stabiliser.
std::string options(const DetHandle& det) {
  std::ostringstream text;
  const IouTrackerParams_t& tracker = det.mIouTrackerParams_;
  text << +tracker.enable << ' ' << tracker.ignore_frame_number << ' ' << tracker.max_lost_times
       << ", " << +det.mStaticParams_.ignore_static_objects << ' '
       << det.mStaticParams_.static_sensitive << ' ' << det.mStaticParams_.ref_frame << ", "
       << +det.mStableBboxPrams_.stable_bbox << ' ' << det.mStableBboxPrams_.stable_sensitive;
  return text.str();
}

// The codes that applications know.
static_assert(E_ALGO_SUCCESS == 0 && E_ALGO_HANDLE_NULL == 1 && E_ALGO_INVALID_PARAM == 2);
static_assert(E_ALGO_DEVICE_FAULT == 3 && E_ALGO_LOADMODEL_FAIL == 4 && E_ALGO_INIT_FAIL == 5);
static_assert(E_ALGO_NOT_INIT == 6 && E_ALGO_INPUT_DATA_NULL == 7);
static_assert(E_ALGO_INVALID_INPUT_SIZE == 8 && E_ALGO_MEMORY_OUT == 10);
static_assert(E_ALGO_FILEIO_ERROR == 11 && E_ALGO_INVALID_OUTPUT_SIZE == 12);
static_assert(E_ALGO_INVALID_DECODE_MODE == 13);

TEST_F(PublicApi, null_handle_and_null_record_have_their_codes_messages_and_banner) {
  const auto check = [this](QV_S32 expected, QV_S32 code) {
    const std::string text = log();
    SCOPED_TRACE(text);
    EXPECT_EQ(expected, code);
    EXPECT_EQ(code == 7 ? 0u : std::string::npos,
              text.find("libolvex_det release version: " OLVEX_COMMIT_DET "\n"));
    EXPECT_EQ(code == 7, contains(text, "params `init_info` should not be NULL\n"));
    EXPECT_EQ(code == 1, contains(text, "the handle not create\n"));
    EXPECT_EQ(code == 0, text.empty());
  };
  check(1, ALGO_DET_InitHandle(nullptr, nullptr));
  check(1, ALGO_DET_InitHandle2(nullptr, nullptr));
  check(7, ALGO_DET_InitHandle(handle_, nullptr));
  check(7, ALGO_DET_InitHandle2(handle_, nullptr));
  check(1, ALGO_DET_SetThreshold(nullptr, 2.f));
  check(1, ALGO_DET_SetStrictMode(nullptr, {1}));
  check(1, ALGO_DET_DeinitHandle(nullptr));
  check(0, ALGO_DET_ReleaseHandle(nullptr));
  check(0, ALGO_DET_ReleaseHandle(&count_));
  EXPECT_EQ(0, qv_scripted::call_count());
}

TEST_F(PublicApi, whole_life_makes_the_platform_calls_in_order_with_the_right_arguments) {
  qv_scripted::Network network = list_network({kOneBox});
  network.variable_buffer_size = 123456;
  // Only a tensor count of 0 fits any number of inputs.
  network.inputs.push_back(network.inputs[0]);
  qv_scripted::add_network(network);
  const std::string firmware(255, 'f');
  std::string model = write_model("model_out:zrpcd\n");
  model.insert(0, 255 - model.size(), '/');
  ASSERT_EQ(0, init_from_file(model, 0, firmware));
  ASSERT_EQ(0, run());
  ASSERT_EQ(0, deinit());
  EXPECT_EQ((std::vector<std::string>{"GetOfflineModeStaticInfo", "CreateDevice", "CreateCHN 1",
                                      "GetInOutTensorDesc 1", "GetOutputTensors 1",
                                      "FlushInvCache 32768 bytes", "Invoke 1", "PutOutputTensors 1",
                                      "DestroyCHN 1", "DestroyDevice"}),
            qv_scripted::event_texts());

  QV_IPU_DevAttr_s device = {};
  device.u32MaxVariableBufSize = 123456;
  device.u32YUV420_W_Pitch_Alignment = device.u32XRGB_W_Pitch_Alignment = 16;
  device.u32YUV420_H_Pitch_Alignment = 2;
  const qv_scripted::Event created = last_event(Function::kCreateDevice);
  EXPECT_EQ(0, std::memcmp(&device, &created.device_attributes, sizeof device));
  EXPECT_EQ(firmware, created.path);
  EXPECT_FALSE(created.read_callback);
  QV_IPUChnAttr_s attributes = {};
  attributes.u32OutputBufDepth = 1;
  const qv_scripted::Event channel = last_event(Function::kCreateCHN);
  EXPECT_EQ(0, std::memcmp(&attributes, &channel.channel_attributes, sizeof attributes));
  EXPECT_TRUE(channel.read_callback);
  EXPECT_EQ(kOfflineModel, channel.model) << "the model starts at its pattern, not at the header";
  EXPECT_EQ(frame_.data(), last_event(Function::kFlushInvCache).address);
  EXPECT_EQ(frame_.data(), last_event(Function::kInvoke).address);
  EXPECT_EQ(kPhysicalAddress, last_event(Function::kInvoke).physical_address);
}

TEST_F(PublicApi, threshold_accepts_its_bounds_and_decides_inclusively) {
  start({kOneBox});
  const std::tuple<float, QV_S32, int> kRows[] = {
      {0.f, 0, 1},      {1.f, 0, 0},     {0.75f, 0, 1}, {0.75001f, 0, 0},
      {-0.0001f, 2, 0}, {1.0001f, 2, 0}, {0.5f, 0, 1},  {std::nanf(""), 0, 0}};
  for (const auto& [threshold, code, boxes] : kRows) {
    EXPECT_EQ(code, ALGO_DET_SetThreshold(handle_, threshold)) << threshold;
    ASSERT_EQ(0, run());
    EXPECT_EQ(boxes, count_) << threshold;
  }
}

TEST_F(PublicApi, set_tracker_takes_three_combinations) {
  start({kOneBox});
  const std::tuple<QV_S32, QV_S32, QV_S32, const char*, const char*> kRows[] = {
      {1, 1, 0, "", "1 1 10, 1 0.85 5, 0 0"},
      {1, 0, 0, "", "1 1 10, 0 0.85 5, 0 0"},
      {0, 0, 0, "", "0 1 10, 0 0.85 5, 0 0"},
      {0, 1, 2, "parameter combination: tk_type = 0, md_type = 1!\n", "9 9 10, 9 0.1 5, 0 0"},
      {2, 5, 2, "parameter tk_type = 2, should be 0 or 1!\n", "9 9 10, 9 0.1 5, 0 0"},
      {-1, 0, 2, "parameter tk_type = -1, should be 0 or 1!\n", "9 9 10, 9 0.1 5, 0 0"},
      {1, 2, 2, "parameter md_type = 2, should be 0 or 1!\n", "9 9 10, 9 0.1 5, 0 0"}};
  for (const auto& [tk_type, md_type, code, message, taken] : kRows) {
    // Other values first, to see that each option is set again.
    ALGO_DET_SetTracker2(handle_, {9, 9, 0.1f, 0, 0.f, 9});
    log();
    EXPECT_EQ(code, ALGO_DET_SetTracker(handle_, tk_type, md_type));
    EXPECT_TRUE(contains(log(), message)) << message;
    EXPECT_EQ(taken, options(det()));
  }
}

TEST_F(PublicApi, set_tracker2_takes_a_zero_for_the_stabiliser_only) {
  start({kOneBox});
  const std::tuple<DetTrackParams_t, const char*> kRows[] = {
      {{0, 0, 0.4f, 0, 0.3f, 7}, "0 7 10, 0 0.4 5, 0 0.3"},
      {{1, 1, 0.f, 1, 0.f, 0}, "1 1 10, 1 0.85 5, 1 0"},
      {{2, 3, -0.5f, 4, -1.f, 65536 + 3}, "2 3 10, 3 -0.5 5, 4 -1"},
      {{1, 1, 0.f, 1, 0.63f, 32768}, "1 -32768 10, 1 0.85 5, 1 0.63"}};
  for (const auto& [given, taken] : kRows) {
    log();
    EXPECT_EQ(0, ALGO_DET_SetTracker2(handle_, given));
    EXPECT_TRUE(contains(log(), "track_params.ignore_frame_number = " +
                                    std::to_string(given.ignore_frame_number) + "\n"));
    EXPECT_EQ(taken, options(det()));
  }
  const OlvexIouTracker* made = det().tracker();
  ASSERT_NE(nullptr, made);
  EXPECT_EQ(-32768.f, made->iou_t_min_);
}

TEST_F(PublicApi, flags_other_than_one_switch_nothing_on) {
  start({kOneBox, {{8.f, 16.f, 32.f, 47.f, 0.5f, 1.f}}});
  ALGO_DET_SetTracker2(handle_, {2, 2, 0.f, 2, 0.f, 0});
  ALGO_DET_SetStrictMode(handle_, {2});
  next_frame();
  EXPECT_EQ("1@8,16,24x31", next_frame());
  EXPECT_EQ(nullptr, det().mTracker_);
  // Nor do they switch off what strict mode needs.
  ALGO_DET_SetStrictMode(handle_, {1});
  ALGO_DET_SetTracker2(handle_, {2, 0, 0.f, 0, 0.f, 0});
  EXPECT_EQ(0, run());
}

TEST_F(PublicApi, options_before_initialisation_are_ignored) {
  InputAttr_t attributes = {11, 22, QV_IPU_FORMAT_INT8};
  const std::string before = options(det());
  log();
  EXPECT_EQ(0, ALGO_DET_GetInputAttr(handle_, &attributes));
  EXPECT_EQ(0, ALGO_DET_SetThreshold(handle_, 1.f));
  EXPECT_EQ(0, ALGO_DET_SetStableBox(handle_, 1));
  EXPECT_EQ(0, ALGO_DET_SetStrictMode(handle_, {1}));
  EXPECT_EQ(0, ALGO_DET_SetTracker(handle_, 1, 1));
  EXPECT_EQ(0, ALGO_DET_SetTracker2(handle_, {1, 1, 0.1f, 1, 0.1f, 9}));
  // SetTracker passes two records on, SetTracker2 three.
  EXPECT_EQ(9, count_of(log(), kNotInited));
  EXPECT_TRUE(attributes.width == 11 && attributes.height == 22);
  EXPECT_EQ(QV_IPU_FORMAT_INT8, attributes.format);
  EXPECT_EQ(before, options(det()));

  start({kOneBox});
  EXPECT_EQ("0@8,16,24x32", next_frame());
  EXPECT_EQ(nullptr, det().mTracker_);
  EXPECT_EQ(0, ALGO_DET_GetInputAttr(handle_, &attributes));
  EXPECT_TRUE(attributes.width == kNetWidth && attributes.height == kNetHeight);
  EXPECT_EQ(QV_IPU_FORMAT_GRAY, attributes.format);
}

TEST_F(PublicApi, only_the_first_200_entries_are_examined_hidden_ones_included) {
  Detections detections;
  for (int i = 0; i < 250; ++i) {
    const float x = static_cast<float>(i % 16 * 16);
    const float y = static_cast<float>(i / 16 * 8);
    const float score = 1.f - static_cast<float>(i) / 512.f;
    detections.push_back({x, y, x + 8.f, y + 4.f, score, i % 10 == 0 ? 1.f : 0.f});
  }
  qv_scripted::add_network(list_network({detections}, 250));
  // Class 1 becomes -1, which hides it.
  ASSERT_EQ(0, init_from_file(write_model("model_out:zrphf\nlib_out:zrpd\n")));
  ASSERT_EQ(0, run());
  EXPECT_EQ(180, count_);
  EXPECT_EQ(1.f - 1.f / 512.f, boxes_[0].score);
  EXPECT_EQ(1.f - 199.f / 512.f, boxes_[179].score);
}

TEST_F(PublicApi, coordinates_are_truncated_and_saturate) {
  const Detections box = {{0.f, 0.f, 100.f, 100.f, 0.5f, 3.f}};
  start({{{10.9f, 1.5f, 20.f, 4.2f, 0.9f, 0.f},
          {-3.7f, 60.f, 1e30f, 70.f, 0.8f, 1.f},
          {std::nanf(""), 90.f, 30.f, 1e30f, 0.7f, 2.f}},
         box});
  EXPECT_EQ("0@10,1,9x2 1@0,60,255x10 2@0,90,30x37", next_frame(0xfedcba9876543210u));
  EXPECT_EQ(0xfedcba9876543210u, boxes_[2].pts);

  // What no model can give inside a display: through the stabiliser, which takes old boxes over.
  ALGO_DET_SetTracker2(handle_, {0, 0, 0.f, 1, 0.f, 0});
  det().mLastOutput_.resize(1, BoxInfo());
  det().mLastOutput_[0] = make_box(-3.7f, 10.9f, 1e10f, 1e12f);
  EXPECT_EQ("0@0,10,4294967295x4294967295", next_frame());

  // A display without extent puts every corner at -1.
  det().mDetInfo_.disp_size.width = 0;
  det().mStableBboxPrams_.stable_bbox = 0;
  EXPECT_EQ("3@0,0,0x100", next_frame());
}

TEST_F(PublicApi, output_stays_as_it_was_after_each_error) {
  const auto fail = [this](QV_S32 code, const char* message) {
    SCOPED_TRACE(message);
    std::memset(boxes_.data(), 0x5a, boxes_.size() * sizeof(Box_t));
    const std::vector<Box_t> before = boxes_;
    count_ = 77;
    log();
    EXPECT_EQ(code, run());
    const std::string text = log();
    EXPECT_TRUE(contains(text, message));
    EXPECT_EQ(code != 2, contains(text, "(error code = " + std::to_string(code) + ")\n"));
    EXPECT_EQ(77, count_);
    EXPECT_EQ(0, std::memcmp(before.data(), boxes_.data(), boxes_.size() * sizeof(Box_t)));
    restart();
  };
  fail(6, kNotInited);
  start({kOneBox});
  ALGO_DET_SetStrictMode(handle_, {1});
  ALGO_DET_SetTracker2(handle_, {0, 0, 0.f, 0, 0.f, 0});
  fail(2, "tracker should be enable in strict mode!\n");
  qv_scripted::Network network = list_network({});
  network.outputs[0].eElmFormat = QV_IPU_FORMAT_INT8;
  network.frames = {{}};
  qv_scripted::add_network(network);
  ASSERT_EQ(0, init_from_file(write_model()));
  fail(13, "ipu_decode failed(error code = 13)\n");
}

TEST_F(PublicApi, frames_are_dumped_while_the_file_says_so) {
  const std::string dumps = path("dumps"), nowhere = "[SET_ENV]\nQK_ALGO_I=" + path("nowhere");
  std::filesystem::create_directory(dumps);
  const std::string ini = write_file("dump.ini", "[SET_ENV]\nOTHER=1\nQK_ALGO_I= " + dumps);
  frame_.front() = frame_.back() = 'x';
  ASSERT_EQ(0, setenv("QK_ALGO_S", ini.c_str(), 1));
  start({kOneBox});
  ASSERT_EQ(0, run());
  ASSERT_FALSE(std::filesystem::is_empty(dumps));
  const std::string dump = std::filesystem::directory_iterator(dumps)->path().string();
  EXPECT_EQ(0u, dump.find(dumps + "/algo_dump_data["));
  EXPECT_EQ(std::string(frame_.begin(), frame_.end()), read_file(dump));

  std::filesystem::remove(ini);
  EXPECT_EQ(0, run()) << "no file, no dump";

  // The variable is read at each initialisation.
  restart();
  write_file("dump.ini", nowhere);
  unsetenv("QK_ALGO_S");
  start({kOneBox});
  EXPECT_EQ(0, run());
}

TEST_F(PublicApi, stabiliser_holds_the_first_of_equal_old_boxes_as_a_whole) {
  // The new boxes cover exactly half of the old ones.
  const Detections first = {{0.f, 0.f, 16.f, 8.f, 0.9f, 0.f}, {0.f, 0.f, 16.f, 8.f, 0.8f, 1.f}};
  const Detections second = {{0.f, 0.f, 16.f, 4.f, 0.7f, 2.f}};
  const Detections touching = {{16.f, 0.f, 32.f, 8.f, 0.7f, 2.f}};
  const std::string held = "0@0,0,16x8", fresh = "2@0,0,16x4";
  const std::tuple<const char*, QV_BOOL, float, Detections, std::string> kRows[] = {
      {"overlap above", 1, 0.49f, second, held},
      {"overlap equal: strict", 1, 0.5f, second, fresh},
      {"off", 0, 0.f, second, fresh},
      {"negative", 1, -1.f, second, held},
      {"negative, no overlap", 1, -1.f, touching, "2@16,0,16x8"},
  };
  for (const auto& [name, on, sensitivity, next, shown] : kRows) {
    SCOPED_TRACE(name);
    start({first, next});
    ALGO_DET_SetTracker2(handle_, {0, 0, 0.f, on, sensitivity, 0});
    EXPECT_EQ("0@0,0,16x8 1@0,0,16x8", next_frame(1)) << "no old box yet";
    EXPECT_EQ(shown, next_frame(2));
    EXPECT_EQ(shown == held ? 0.9f : 0.7f, boxes_[0].score);
    EXPECT_EQ(2u, boxes_[0].pts) << "the stamp is the frame's";
    EXPECT_EQ(shown, next_frame(3));
    restart();
  }
  // The plain switch sets 0.63.
  start({first, second});
  ALGO_DET_SetStableBox(handle_, 1);
  EXPECT_EQ("0 1 10, 0 0.85 5, 1 0.63", options(det()));
  next_frame();
  EXPECT_EQ(fresh, next_frame());
}

TEST_F(PublicApi, strict_mode_confirms_by_detections_whose_label_is_hidden) {
  const Detection target = {32.f, 32.f, 96.f, 96.f, 0.9f, 0.f};
  start({{target},
         {target, {40.f, 40.f, 64.f, 64.f, 0.49f, 6.f}},
         {target, {65.f, 32.f, 129.f, 96.f, 0.8f, 6.f}},
         {target, {64.f, 32.f, 128.f, 96.f, 0.5f, 6.f}, {0.f, 0.f, 9.f, 9.f, 0.4f, 2.f}},
         {target}},
        "model_out:zrpcnh\nlib_out:zrpcn\n");
  ASSERT_EQ(0, ALGO_DET_SetStrictMode(handle_, {1}));
  EXPECT_EQ(nullptr, det().mTracker_) << "the first frame makes the tracker";
  EXPECT_EQ("", next_frame());
  EXPECT_EQ("", next_frame()) << "confirming box too weak";
  EXPECT_EQ("", next_frame()) << "less than half covered";
  EXPECT_EQ("0@32,32,64x64 2@0,0,9x9", next_frame()) << "half of a box with exactly the score";
  EXPECT_EQ("0@32,32,64x64", next_frame()) << "alone again";
  EXPECT_EQ(4, count_of(log(), "track input num is 1 !\n")) << "hidden boxes are not tracked";
  ALGO_DET_SetTracker(handle_, 0, 0);
  EXPECT_EQ("0@32,32,64x64", next_frame()) << "strict mode keeps the tracker, and it its tracks";
  ALGO_DET_SetStrictMode(handle_, {0});
  EXPECT_EQ(1, det().mIouTrackerParams_.enable) << "stays on";
}

}  // namespace
