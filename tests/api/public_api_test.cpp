// public_api_test.cpp - the exported functions: codes, messages, options, what reaches the
// accelerator and what comes back. failure_sweep_test.cpp fails each platform call in turn;
// det_test.h has the fixture.
#include "olvex_det.h"

#include <errno.h>

#include <cmath>
#include <functional>

#include "tests/api/public_api.h"
#include "video/det/include/commit_det.h"

namespace {

using qv_scripted::Function;
using qv_scripted::last_event;

constexpr QV_S32 kCode = 0x51;
const char kNotInited[] = "det handle is not inited or deinit already!!!\n";
const DetTrackParams_t kAllOff = {0, 0, 0.f, 0, 0.f, 0};
const Detections kOneBox = {{8.f, 16.f, 32.f, 48.f, 0.75f, 0.f}};

TEST_F(PublicApi, null_handle_and_null_record_have_their_codes_messages_and_banner) {
  DetectionInfo_t file = file_info("none");
  DetectionInfo2_t memory = {};
  void* const null = nullptr;
  const std::string banner = "libolvex_det release version: " OLVEX_COMMIT_DET "\n";
  const struct {
    const char* name;
    QV_S32 code;
    std::function<QV_S32()> call;
  } kRows[] = {
      {"InitHandle, handle", 1, [&] { return ALGO_DET_InitHandle(null, &file); }},
      {"InitHandle2, handle", 1, [&] { return ALGO_DET_InitHandle2(null, &memory); }},
      {"InitHandle, both", 1, [&] { return ALGO_DET_InitHandle(null, nullptr); }},
      {"InitHandle, record", 7, [&] { return ALGO_DET_InitHandle(handle_, nullptr); }},
      {"InitHandle2, record", 7, [&] { return ALGO_DET_InitHandle2(handle_, nullptr); }},
      {"SetThreshold", 1, [&] { return ALGO_DET_SetThreshold(null, 2.f); }},
      {"SetStrictMode", 1, [&] { return ALGO_DET_SetStrictMode(null, {1}); }},
      {"DeinitHandle", 1, [&] { return ALGO_DET_DeinitHandle(null); }},
      {"ReleaseHandle", 0, [&] { return ALGO_DET_ReleaseHandle(null); }},
      {"ReleaseHandle, any", 0, [&] { return ALGO_DET_ReleaseHandle(&file); }},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    log();
    EXPECT_EQ(row.code, row.call());
    const std::string text = log();
    EXPECT_EQ(row.code == 7 ? 0u : std::string::npos, text.find(banner));
    EXPECT_EQ(row.code == 1, contains(text, "the handle not create\n"));
    EXPECT_EQ(row.code == 7, contains(text, "params `init_info` should not be NULL\n"));
    EXPECT_EQ(row.code == 0, text.empty());
  }
  EXPECT_EQ(0, qv_scripted::call_count());
}

TEST_F(PublicApi, whole_life_makes_the_platform_calls_in_order_with_the_right_arguments) {
  qv_scripted::Network network = list_network({kOneBox});
  network.variable_buffer_size = 123456;
  // Only a tensor count of 0 fits any number of inputs.
  network.inputs.push_back(network.inputs[0]);
  qv_scripted::add_network(network);
  ASSERT_EQ(0, init("model_out:zrpcd\n"));
  ASSERT_EQ(0, run(7));
  ASSERT_EQ(0, deinit());
  EXPECT_EQ((std::vector<std::string>{"GetOfflineModeStaticInfo", "CreateDevice", "CreateCHN 1",
                                      "GetInOutTensorDesc 1", "GetOutputTensors 1",
                                      "FlushInvCache 32768 bytes", "Invoke 1", "PutOutputTensors 1",
                                      "DestroyCHN 1", "DestroyDevice"}),
            qv_scripted::event_texts());

  QV_IPU_DevAttr_s device = {};
  device.u32MaxVariableBufSize = 123456;
  device.u32YUV420_W_Pitch_Alignment = 16;
  device.u32YUV420_H_Pitch_Alignment = 2;
  device.u32XRGB_W_Pitch_Alignment = 16;
  const qv_scripted::Event created = last_event(Function::kCreateDevice);
  EXPECT_EQ(0, std::memcmp(&device, &created.device_attributes, sizeof device));
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

TEST_F(PublicApi, firmware_path_reaches_the_platform) {
  const std::string longest(255, 'f');
  for (const std::string& given : {std::string(), std::string("/lib/fw.bin"), longest}) {
    qv_scripted::add_network(list_network({kOneBox}));
    DetectionInfo_t info = file_info(write_model());
    std::snprintf(info.ipu_firmware_path, sizeof info.ipu_firmware_path, "%s", given.c_str());
    ASSERT_EQ(0, ALGO_DET_InitHandle(handle_, &info));
    const qv_scripted::Event event = last_event(Function::kCreateDevice);
    EXPECT_EQ(given.empty() ? "/config/dla/ipu_firmware.bin" : given, event.path);
    EXPECT_FALSE(event.read_callback);
    restart();
  }
  qv_scripted::add_network(list_network({kOneBox}));
  ASSERT_EQ(0, init_from_memory(map_file(write_model(), 16)));
  EXPECT_EQ("/config/dla/ipu_firmware.bin", last_event(Function::kCreateDevice).path);
}

TEST_F(PublicApi, device_of_the_caller_is_neither_created_nor_destroyed) {
  qv_scripted::add_network(list_network({kOneBox}));
  QV_IPU_DevAttr_s attributes = {};
  char firmware[] = "firmware";
  ASSERT_EQ(0, QV_IPU_CreateDevice(&attributes, nullptr, firmware, 0));
  ASSERT_EQ(0, init("", 1));
  ASSERT_EQ(0, run());
  ASSERT_EQ(0, deinit());
  EXPECT_TRUE(qv_scripted::device_is_up());
  EXPECT_EQ(1, qv_scripted::call_count(Function::kCreateDevice));
  EXPECT_EQ(0, qv_scripted::call_count(Function::kDestroyDevice));
  EXPECT_EQ(0, qv_scripted::open_channel_count());
}

TEST_F(PublicApi, threshold_accepts_its_bounds_and_decides_inclusively) {
  qv_scripted::add_network(list_network({kOneBox}));
  ASSERT_EQ(0, init());
  const struct {
    float threshold;
    QV_S32 code;
    int boxes;
  } kRows[] = {{0.f, 0, 1},      {1.f, 0, 0},     {0.75f, 0, 1}, {0.75001f, 0, 0},
               {-0.0001f, 2, 0}, {1.0001f, 2, 0}, {0.5f, 0, 1},  {std::nanf(""), 0, 0}};
  for (const auto& row : kRows) {
    log();
    EXPECT_EQ(row.code, ALGO_DET_SetThreshold(handle_, row.threshold)) << row.threshold;
    EXPECT_EQ("", log());
    ASSERT_EQ(0, run());
    EXPECT_EQ(row.boxes, count_) << row.threshold;
  }
}

TEST_F(PublicApi, set_tracker_takes_three_combinations) {
  qv_scripted::add_network(list_network({kOneBox}));
  ASSERT_EQ(0, init());
  const struct {
    QV_S32 tk_type, md_type, code;
    const char* message;
  } kRows[] = {{1, 1, 0, ""},
               {1, 0, 0, ""},
               {0, 0, 0, ""},
               {0, 1, 2, "invalid parameter combination: tk_type = 0, md_type = 1!\n"},
               {2, 5, 2, "invalid parameter tk_type = 2, should be 0 or 1!\n"},
               {-1, 0, 2, "invalid parameter tk_type = -1, should be 0 or 1!\n"},
               {1, 2, 2, "invalid parameter md_type = 2, should be 0 or 1!\n"}};
  for (const auto& row : kRows) {
    // Other values first, to see each option set anew.
    ALGO_DET_SetTracker2(handle_, {9, 9, 0.1f, 0, 0.f, 9});
    log();
    EXPECT_EQ(row.code, ALGO_DET_SetTracker(handle_, row.tk_type, row.md_type));
    EXPECT_TRUE(contains(log(), row.message)) << row.message;
    const bool taken = row.code == 0;
    EXPECT_EQ(taken ? row.tk_type : 9, det().mIouTrackerParams_.enable);
    EXPECT_EQ(taken ? 1 : 9, det().mIouTrackerParams_.ignore_frame_number);
    EXPECT_EQ(10, det().mIouTrackerParams_.max_lost_times);
    EXPECT_EQ(taken ? row.md_type : 9, det().mStaticParams_.ignore_static_objects);
    EXPECT_EQ(taken ? 0.85f : 0.1f, det().mStaticParams_.static_sensitive);
    EXPECT_EQ(5, det().mStaticParams_.ref_frame);
  }
  ASSERT_EQ(0, ALGO_DET_SetStrictMode(handle_, {1}));
  EXPECT_EQ(0, ALGO_DET_SetTracker(handle_, 0, 0));
  EXPECT_EQ(1, det().mIouTrackerParams_.enable) << "strict mode keeps the tracker on";
}

TEST_F(PublicApi, set_tracker2_takes_a_zero_for_the_stabiliser_only) {
  qv_scripted::add_network(list_network({kOneBox}));
  ASSERT_EQ(0, init());
  const struct {
    DetTrackParams_t given;
    float static_sensitive, stable_sensitive;
    int ignore_frame_number;
  } kRows[] = {{{1, 1, 0.f, 1, 0.f, 0}, 0.85f, 0.f, 1},
               {{0, 0, 0.4f, 0, 0.3f, 7}, 0.4f, 0.3f, 7},
               {{2, 3, -0.5f, 4, -1.f, 65536 + 3}, -0.5f, -1.f, 3},
               {{1, 1, 0.f, 1, 0.63f, 32768}, 0.85f, 0.63f, -32768}};
  for (const auto& row : kRows) {
    log();
    EXPECT_EQ(0, ALGO_DET_SetTracker2(handle_, row.given));
    EXPECT_TRUE(contains(log(), "track_params.ignore_frame_number = " +
                                    std::to_string(row.given.ignore_frame_number) + "\n"));
    EXPECT_EQ(row.given.enable, det().mIouTrackerParams_.enable);
    EXPECT_EQ(row.ignore_frame_number, det().mIouTrackerParams_.ignore_frame_number);
    EXPECT_EQ(row.given.ignore_static_objects, det().mStaticParams_.ignore_static_objects);
    EXPECT_EQ(row.static_sensitive, det().mStaticParams_.static_sensitive);
    EXPECT_EQ(row.given.stable_bbox, det().mStableBboxPrams_.stable_bbox);
    EXPECT_EQ(row.stable_sensitive, det().mStableBboxPrams_.stable_sensitive);
  }
}

TEST_F(PublicApi, flags_other_than_one_switch_nothing_on) {
  qv_scripted::add_network(list_network({kOneBox, {{8.f, 16.f, 32.f, 47.f, 0.5f, 1.f}}}));
  ASSERT_EQ(0, init());
  ALGO_DET_SetTracker2(handle_, {2, 2, 0.f, 2, 0.f, 0});
  ALGO_DET_SetStrictMode(handle_, {2});
  ASSERT_EQ(0, run());
  ASSERT_EQ(0, run());
  EXPECT_EQ("1@8,16,24x31", shown());
  EXPECT_EQ(nullptr, det().mTracker_);
  // Nor do they switch off what strict mode needs.
  ALGO_DET_SetStrictMode(handle_, {1});
  ALGO_DET_SetTracker2(handle_, {2, 0, 0.f, 0, 0.f, 0});
  EXPECT_EQ(0, run());
}

TEST_F(PublicApi, options_before_initialisation_are_ignored) {
  qv_scripted::add_network(list_network({kOneBox}));
  InputAttr_t attributes = {11, 22, QV_IPU_FORMAT_INT8};
  log();
  EXPECT_EQ(0, ALGO_DET_GetInputAttr(handle_, &attributes));
  EXPECT_EQ(0, ALGO_DET_SetThreshold(handle_, 1.f));
  EXPECT_EQ(0, ALGO_DET_SetStableBox(handle_, 1));
  EXPECT_EQ(0, ALGO_DET_SetStrictMode(handle_, {1}));
  EXPECT_EQ(0, ALGO_DET_SetTracker(handle_, 1, 1));
  EXPECT_EQ(0, ALGO_DET_SetTracker2(handle_, {1, 1, 0.1f, 1, 0.1f, 9}));
  // SetTracker passes two records on, SetTracker2 three.
  EXPECT_EQ(9, count_of(log(), kNotInited));
  EXPECT_EQ(11u, attributes.width);
  EXPECT_EQ(22u, attributes.height);
  EXPECT_EQ(QV_IPU_FORMAT_INT8, attributes.format);

  ASSERT_EQ(0, init());
  ASSERT_EQ(0, run());
  EXPECT_EQ("0@8,16,24x32", shown());
  EXPECT_EQ(nullptr, det().mTracker_);
  EXPECT_EQ(0, det().mStableBboxPrams_.stable_bbox);
  EXPECT_EQ(0, det().mStaticParams_.ignore_static_objects);
  EXPECT_EQ(0, ALGO_DET_GetInputAttr(handle_, &attributes));
  EXPECT_EQ(kNetWidth, attributes.width);
  EXPECT_EQ(kNetHeight, attributes.height);
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
  ASSERT_EQ(0, init("model_out:zrphf\nlib_out:zrpd\n"));
  ASSERT_EQ(0, run());
  EXPECT_EQ(180, count_);
  EXPECT_EQ(1.f - 1.f / 512.f, boxes_[0].score);
  EXPECT_EQ(1.f - 199.f / 512.f, boxes_[179].score);
}

TEST_F(PublicApi, coordinates_are_truncated_and_saturate) {
  const float nan = std::nanf("");
  qv_scripted::add_network(list_network({{{10.9f, 1.5f, 20.f, 4.2f, 0.9f, 0.f},
                                          {-3.7f, 60.f, 1e30f, 70.f, 0.8f, 1.f},
                                          {nan, 90.f, 30.f, 1e30f, 0.7f, 2.f}},
                                         {{0.f, 0.f, 100.f, 100.f, 0.5f, 3.f}},
                                         {{0.f, 0.f, 100.f, 100.f, 0.5f, 3.f}}}));
  ASSERT_EQ(0, init());
  ASSERT_EQ(0, run(0xfedcba9876543210u));
  EXPECT_EQ("0@10,1,9x2 1@0,60,255x10 2@0,90,30x37", shown());
  EXPECT_EQ(0xfedcba9876543210u, boxes_[2].pts);

  // What no model can give inside a display: through the stabiliser, which takes old boxes over.
  ALGO_DET_SetTracker2(handle_, {0, 0, 0.f, 1, 0.f, 0});
  det().mLastOutput_.resize(1, BoxInfo());
  BoxInfo& last = det().mLastOutput_[0];
  last.x1 = -3.7f;
  last.y1 = 10.9f;
  last.x2 = 1e10f;
  last.y2 = 1e12f;
  ASSERT_EQ(0, run());
  EXPECT_EQ("0@0,10,4294967295x4294967295", shown());

  // A display without extent puts every corner at -1.
  det().mDetInfo_.disp_size.width = 0;
  det().mStableBboxPrams_.stable_bbox = 0;
  ASSERT_EQ(0, run());
  EXPECT_EQ("3@0,0,0x100", shown());
}

TEST_F(PublicApi, output_stays_as_it_was_after_each_error) {
  const auto open_list = [this] {
    qv_scripted::add_network(list_network({kOneBox}));
    ASSERT_EQ(0, init());
  };
  const auto open_outputs = [this](std::vector<QV_IPU_TensorDesc_t> outputs) {
    qv_scripted::Network network = list_network({});
    network.outputs = outputs;
    network.frames = {{}};
    qv_scripted::add_network(network);
    ASSERT_EQ(0, init());
  };
  const struct {
    const char* name;
    QV_S32 code;
    std::function<void()> prepare;
    const char* message;
  } kRows[] = {
      {"not initialised", 6, [] {}, kNotInited},
      {"strict mode without the tracker", 2,
       [&] {
         open_list();
         ALGO_DET_SetStrictMode(handle_, {1});
         ALGO_DET_SetTracker2(handle_, kAllOff);
       },
       "tracker should be enable in strict mode!\n"},
      {"accelerator fails", kCode,
       [&] {
         open_list();
         qv_scripted::fail_next_call(Function::kInvoke, kCode);
       },
       "QV_IPU_Invoke error, ret[0x51]\n"},
      {"one output", 4,
       [&] {
         open_outputs({qv_scripted::fp32_tensor("o", {1, 4, 4, 6})});
       },
       "model one_output post process wrong\n"},
      {"no decoder for two outputs", 12,
       [&] { open_outputs(std::vector<QV_IPU_TensorDesc_t>(2, list_network({}).outputs[0])); },
       "shape of model output tensor might be wrong, please check!\n"},
      {"no decoder for the element type", 13,
       [&] {
         std::vector<QV_IPU_TensorDesc_t> outputs = list_network({}).outputs;
         outputs[0].eElmFormat = QV_IPU_FORMAT_INT8;
         open_outputs(outputs);
       },
       "ipu_decode failed(error code = 13)\n"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    row.prepare();
    std::memset(boxes_.data(), 0x5a, boxes_.size() * sizeof(Box_t));
    const std::vector<Box_t> before = boxes_;
    count_ = 77;
    log();
    EXPECT_EQ(row.code, run());
    const std::string text = log();
    EXPECT_TRUE(contains(text, row.message));
    EXPECT_EQ(row.code != 2,
              contains(text, "detect error (error code = " + std::to_string(row.code) + ")\n"));
    EXPECT_EQ(77, count_);
    EXPECT_EQ(0, std::memcmp(before.data(), boxes_.data(), boxes_.size() * sizeof(Box_t)));
    allow_violation("is closed");  // teardown after a failed invocation
    restart();
  }
}

TEST_F(PublicApi, failed_initialisation_keeps_the_mutex_and_can_be_repeated) {
  const struct {
    const char* name;
    std::function<void()> prepare;
    bool has_file;
    QV_S32 code;
    bool device_stays;
  } kRows[] = {
      {"device", [] { qv_scripted::fail_next_call(Function::kCreateDevice, -7); }, true, -7, false},
      {"channel", [] { qv_scripted::fail_next_call(Function::kCreateCHN, kCode); }, true, 3, false},
      {"no file", [] {}, false, 3, true},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    qv_scripted::add_network(list_network({kOneBox}));
    row.prepare();
    DetectionInfo_t info = file_info(row.has_file ? write_model() : path("missing"));
    log();
    EXPECT_EQ(row.code, ALGO_DET_InitHandle(handle_, &info));
    const std::string text = log();
    EXPECT_TRUE(contains(text, "the handle init failed\n"));
    EXPECT_EQ(row.code == 3,
              contains(text, std::string("det model ") + info.model + " load failed(4)!\n"));
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&det().detMutex_));
    EXPECT_EQ(0, det().isInited_);
    EXPECT_EQ(row.device_stays, qv_scripted::device_is_up());
    EXPECT_EQ(6, run());

    ASSERT_EQ(0, init("", row.device_stays ? 1 : 0));
    EXPECT_EQ(0, run());
    EXPECT_EQ(0, pthread_mutex_trylock(&det().detMutex_));
    pthread_mutex_unlock(&det().detMutex_);
    restart();
  }
}

TEST_F(PublicApi, frames_are_dumped_while_the_file_says_so) {
  const std::string dumps = path("dumps");
  std::filesystem::create_directory(dumps);
  const std::string ini = write_file("dump.ini", "[SET_ENV]\nOTHER=1\n");
  for (std::size_t i = 0; i < frame_.size(); ++i) {
    frame_[i] = static_cast<unsigned char>(i * 7 + i / 256);
  }
  qv_scripted::add_network(list_network({kOneBox}));
  ASSERT_EQ(0, setenv("QK_ALGO_S", ini.c_str(), 1));
  ASSERT_EQ(0, init());
  ASSERT_EQ(0, run());
  EXPECT_TRUE(std::filesystem::is_empty(dumps)) << "no key";

  write_file("dump.ini", "[SET_ENV]\nQK_ALGO_I= " + dumps);
  ASSERT_EQ(0, run());
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dumps)) {
    names.push_back(entry.path().string());
  }
  ASSERT_EQ(1u, names.size());
  EXPECT_EQ(0u, names[0].find(dumps + "/algo_dump_data["));
  EXPECT_EQ(std::string(frame_.begin(), frame_.end()), read_file(names[0]));

  write_file("dump.ini", "[SET_ENV]\nQK_ALGO_I=" + path("nowhere"));
  count_ = 77;
  log();
  EXPECT_EQ(11, run());
  EXPECT_TRUE(contains(log(), "save_buffer_to_file failed!\n"));
  EXPECT_EQ(77, count_);
  std::filesystem::remove(ini);
  EXPECT_EQ(0, run()) << "no file, no dump";

  // The variable is read at each initialisation.
  restart();
  write_file("dump.ini", "[SET_ENV]\nQK_ALGO_I=" + path("nowhere"));
  unsetenv("QK_ALGO_S");
  qv_scripted::add_network(list_network({kOneBox}));
  ASSERT_EQ(0, init());
  EXPECT_EQ(0, run());
}

TEST_F(PublicApi, stabiliser_holds_the_first_of_equal_old_boxes_as_a_whole) {
  // The new boxes cover exactly half of the old ones.
  const Detections first = {{0.f, 0.f, 16.f, 8.f, 0.9f, 0.f}, {0.f, 0.f, 16.f, 8.f, 0.8f, 1.f}};
  const Detections second = {{0.f, 0.f, 16.f, 4.f, 0.7f, 2.f}};
  const Detections touching = {{16.f, 0.f, 32.f, 8.f, 0.7f, 2.f}};
  const std::string held = "0@0,0,16x8";
  const std::string fresh = "2@0,0,16x4";
  const struct {
    const char* name;
    QV_BOOL on;
    float sensitivity;
    Detections next;
    std::string second, third;  // shown; the third frame repeats the second
  } kRows[] = {
      {"overlap above", 1, 0.49f, second, held, held},
      {"overlap equal: strict", 1, 0.5f, second, fresh, fresh},
      {"off", 0, 0.f, second, fresh, fresh},
      {"negative", 1, -1.f, second, held, held},
      {"negative, no overlap", 1, -1.f, touching, "2@16,0,16x8", "2@16,0,16x8"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    qv_scripted::add_network(list_network({first, row.next}));
    ASSERT_EQ(0, init());
    ALGO_DET_SetTracker2(handle_, {0, 0, 0.f, row.on, row.sensitivity, 0});
    ASSERT_EQ(0, run(1));
    EXPECT_EQ("0@0,0,16x8 1@0,0,16x8", shown()) << "no old box yet";
    ASSERT_EQ(0, run(2));
    EXPECT_EQ(row.second, shown());
    EXPECT_EQ(row.second == held ? 0.9f : 0.7f, boxes_[0].score);
    EXPECT_EQ(2u, boxes_[0].pts) << "the stamp is the frame's";
    ASSERT_EQ(0, run(3));
    EXPECT_EQ(row.third, shown());
    restart();
  }
  // The plain switch sets 0.63.
  qv_scripted::add_network(list_network({first, second}));
  ASSERT_EQ(0, init());
  ALGO_DET_SetStableBox(handle_, 1);
  EXPECT_EQ(0.63f, det().mStableBboxPrams_.stable_sensitive);
  ASSERT_EQ(0, run());
  ASSERT_EQ(0, run());
  EXPECT_EQ(fresh, shown());
}

TEST_F(PublicApi, strict_mode_confirms_by_detections_whose_label_is_hidden) {
  const Detection target = {32.f, 32.f, 96.f, 96.f, 0.9f, 0.f};
  qv_scripted::add_network(
      list_network({{target},
                    {target, {40.f, 40.f, 64.f, 64.f, 0.49f, 6.f}},
                    {target, {65.f, 32.f, 129.f, 96.f, 0.8f, 6.f}},
                    {target, {64.f, 32.f, 128.f, 96.f, 0.5f, 6.f}, {0.f, 0.f, 9.f, 9.f, 0.4f, 2.f}},
                    {target}}));
  ASSERT_EQ(0, init("model_out:zrpcnh\nlib_out:zrpcn\n"));
  ASSERT_EQ(0, ALGO_DET_SetStrictMode(handle_, {1}));
  EXPECT_EQ(nullptr, det().mTracker_) << "the first frame makes the tracker";
  const struct {
    const char* name;
    const char* shown;
  } kFrames[] = {{"alone", ""},
                 {"confirming box too weak", ""},
                 {"less than half covered", ""},
                 {"exactly half of a box with exactly the score", "0@32,32,64x64 2@0,0,9x9"},
                 {"alone again", "0@32,32,64x64"}};
  for (const auto& frame : kFrames) {
    ASSERT_EQ(0, run());
    EXPECT_EQ(frame.shown, shown()) << frame.name;
  }
  EXPECT_EQ(4, count_of(log(), "track input num is 1 !\n")) << "hidden boxes are not tracked";
}

TEST_F(PublicApi, tracker_filters_by_age_and_movement) {
  std::vector<Detections> frames;
  for (int i = 0; i < 6; ++i) {
    const float x = static_cast<float>(4 * i);
    frames.push_back({{x, 0.f, x + 32.f, 32.f, 0.9f, 0.f}, {64.f, 64.f, 96.f, 96.f, 0.8f, 0.f}});
  }
  const struct {
    const char* name;
    DetTrackParams_t options;
    std::vector<int> counts;  // per frame
  } kRows[] = {
      {"all", {1, 0, 0.f, 0, 0.f, 0}, {2, 2, 2, 2, 2, 2}},
      {"from the third frame on", {1, 0, 0.f, 0, 0.f, 3}, {0, 0, 2, 2, 2, 2}},
      // Four frames back the moving box overlaps itself by a third.
      {"moving only", {1, 1, 0.f, 0, 0.f, 0}, {0, 0, 0, 0, 1, 1}},
      {"less counts as moving", {1, 1, 0.3f, 0, 0.f, 0}, {0, 0, 0, 0, 0, 0}},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    qv_scripted::add_network(list_network(frames));
    ASSERT_EQ(0, init());
    ALGO_DET_SetTracker2(handle_, row.options);
    std::vector<int> counts;
    for (std::size_t i = 0; i < frames.size(); ++i) {
      ASSERT_EQ(0, run());
      counts.push_back(count_);
    }
    EXPECT_EQ(row.counts, counts);
    EXPECT_EQ(counts.back() > 0 ? "0@20,0,32x32" : "", shown().substr(0, 12));
    restart();
  }
}

}  // namespace
