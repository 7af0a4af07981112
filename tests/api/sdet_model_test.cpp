// sdet_model_test.cpp - the detection model and the engine under it: class rules, output types,
// choice of the decoder, rescaling, opening and invoking. model_image_test.cpp has the model file.
#include "base/sdet/sdet_model.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

#include "tests/api/det_test.h"

namespace {

using qv_scripted::Function;
using Shapes = std::vector<std::vector<QV_U32>>;

constexpr QV_S32 kCode = 0x51;

void add_pair(olvex::vector<ModelKeyValue_t>& kvs, const char* key, const char* value) {
  ModelKeyValue_t pair = {};
  std::strncpy(pair.key, key, 127);
  std::strncpy(pair.value, value, 127);
  kvs.push_back(pair);
}

// ---- Tables of words ----

TEST(ClassRules, first_rule_with_either_word_decides) {
  const std::string six = "6>-6 ", eight = "8>-8 9>-9 ";
  const std::string seven = "1>-1 2>-2 3>-3 4>-4 5>-5 6>1 7>2 8>-8 9>-9 ";
  const struct {
    const char* model_out;  // null: no such pair
    const char* lib_out;
    std::string map, confirming;  // the first letters stand for what was there before
  } kRows[] = {
      {"zrphf", "zrpd", "1>-1 2>-2 ", "1 2 "},
      {"zrphf", "x", "1>-1 2>-2 ", "1 2 "},
      {"x", "zrpd", "1>-1 2>-2 ", "1 2 "},
      {"zrpcnh", "zrpcn", six, "-6 "},
      {"x", "zrpcn", six, "-6 "},
      {"zrpcnf", "x", six, "-6 "},
      {"zrpcnhf", "x", "6>-6 7>-7 ", "-6 -7 "},
      {"zrpcnhf", "zrpcn", six, "-6 "},
      {"zrpcncdhf", "zrpcncd", eight, "-8 -9 "},
      {"x", "zrpcncd", eight, "-8 -9 "},
      {"zrpcncdhf", "zrpcd", eight, "-8 -9 "},
      {"zrpcncdhf", "zrpcn", six, "-6 "},
      {"zrpcncd", "zrpcd", seven, "-8 -9 "},
      {"x", "x", "", "77 "},
      {"ZRPHF", "zrp", "", "77 "},
      {"zrphf", nullptr, "99>98 ", "77 "},
      {nullptr, "zrpd", "99>98 ", "77 "},
      {"", "zrpd", "99>98 ", "77 "},
      {"zrphf", "", "99>98 ", "77 "},
  };
  for (const auto& row : kRows) {
    DetAfModel model;
    // Of several pairs the last one counts.
    if (row.model_out != nullptr) {
      add_pair(model.model_kvs_, "model_out", "zrpcnh");
      add_pair(model.model_kvs_, "model_out", row.model_out);
    }
    if (row.lib_out != nullptr) {
      add_pair(model.model_kvs_, "lib_out", "zrpd");
      add_pair(model.model_kvs_, "lib_out", row.lib_out);
    }
    model.class_id_map_.push_back(olvex::pair<int, int>(99, 98));
    EXPECT_EQ(0, model.get_class_id_map());
    std::string map;
    for (std::size_t i = 0; i < model.class_id_map_.size(); ++i) {
      map += std::to_string(model.class_id_map_[i].first) + ">" +
             std::to_string(model.class_id_map_[i].second) + " ";
    }
    olvex::vector<int> ids;
    ids.push_back(77);
    int target = 55;
    model.get_double_check_ids(ids, target);
    std::string confirming;
    for (std::size_t i = 0; i < ids.size(); ++i) {
      confirming += std::to_string(ids[i]) + " ";
    }
    SCOPED_TRACE(testing::Message() << (row.model_out ? row.model_out : "none") << "/"
                                    << (row.lib_out ? row.lib_out : "none"));
    EXPECT_EQ(row.map, map);
    EXPECT_EQ(row.confirming, confirming);
    EXPECT_EQ(row.confirming == "77 " ? 55 : 0, target);
  }
}

TEST(ClassRules, labels_are_mapped_once_by_the_first_pair) {
  DetAfModel model;
  olvex::vector<BoxInfo> boxes;
  boxes.resize(10, BoxInfo());
  for (int i = 0; i < 10; ++i) {
    boxes[static_cast<std::size_t>(i)].label = i;
  }
  model.map_class_id(boxes);
  EXPECT_EQ(9, boxes[9].label) << "no map, no change";
  add_pair(model.model_kvs_, "model_out", "x");
  add_pair(model.model_kvs_, "lib_out", "zrpcd");
  model.get_class_id_map();
  model.class_id_map_.push_back(olvex::pair<int, int>(8, 44));
  model.class_id_map_.push_back(olvex::pair<int, int>(1, 44));
  model.map_class_id(boxes);
  // 6 becomes 1 and is not mapped on.
  const int kLabels[] = {0, -1, -2, -3, -4, -5, 1, 2, -8, -9};
  for (std::size_t i = 0; i < 10; ++i) {
    EXPECT_EQ(kLabels[i], boxes[i].label);
  }
}

TEST(OutputType, word_of_the_first_pair_names_classes_and_key_points) {
  const struct {
    const char* word;
    int code, classes, keypoints;
  } kRows[] = {
      {"zrpd", 0, 1, 0},    {"zrfd", 0, 1, 0},       {"zrlpd", 0, 1, 4},  {"zrhgd", 0, 1, 21},
      {"zrhpd", 0, 1, 17},  {"zrfl", 0, 1, 5},       {"zrfsd", 0, 2, 0},  {"zrpcd", 0, 3, 0},
      {"zrphf", 0, 3, 0},   {"zrpcn", 0, 6, 0},      {"zrpcnh", 0, 7, 0}, {"zrpcnf", 0, 7, 0},
      {"zrpcncd", 0, 8, 0}, {"zrpcncdhf", 0, 10, 0}, {"ZRPD", 2, 0, 0},   {"zrp", 2, 0, 0},
      {"zrpcnhf", 2, 0, 0}, {"", 2, 0, 0},
  };
  for (const auto& row : kRows) {
    olvex::vector<ModelKeyValue_t> kvs;
    add_pair(kvs, "model", "zrpcn");
    int classes = -9, keypoints = -9;
    EXPECT_EQ(2, set_det_class_keypoint(kvs, classes, keypoints)) << "no pair";
    add_pair(kvs, "model_out", row.word);
    add_pair(kvs, "model_out", "zrpcn");
    EXPECT_EQ(row.code, set_det_class_keypoint(kvs, classes, keypoints)) << row.word;
    EXPECT_EQ(row.code == 0 ? row.classes : -9, classes) << row.word;
    EXPECT_EQ(row.code == 0 ? row.keypoints : -9, keypoints) << row.word;
  }
}

TEST(OutputType, channels_guess_classes_and_key_points) {
  const std::map<int, std::pair<int, int>> kKnown = {
      {5, {1, 0}},  {6, {2, 0}},   {7, {3, 0}},  {8, {4, 0}},   {10, {6, 0}},
      {11, {7, 0}}, {12, {8, 0}},  {13, {1, 4}}, {14, {10, 0}}, {15, {1, 5}},
      {20, {1, 5}}, {56, {1, 17}}, {68, {1, 21}}};
  for (int channels = -1; channels < 100; ++channels) {
    int classes = -9, keypoints = -9;
    const auto known = kKnown.find(channels);
    const bool is_known = known != kKnown.end();
    EXPECT_EQ(is_known ? 0 : 12, det_class_keypoint_guess(channels, classes, keypoints));
    EXPECT_EQ(is_known ? known->second : std::make_pair(-9, -9), std::make_pair(classes, keypoints))
        << channels;
  }
}

TEST(OutputDecoder, number_and_shapes_of_the_outputs_decide) {
  const struct {
    const char* name;
    std::vector<int> w, h, c;
    OutputDecoder decoder;
  } kRows[] = {
      {"none", {}, {}, {}, kDecoderNone},
      {"two", {9, 9}, {9, 9}, {6, 6}, kDecoderNone},
      {"raw", {8, 4, 2}, {8, 4, 2}, {6, 6, 6}, kDecoderCpu},
      {"raw, second differs", {8, 4, 2}, {8, 4, 2}, {6, 7, 6}, kDecoderNone},
      {"raw, third differs", {8, 4, 2}, {8, 4, 2}, {6, 6, 7}, kDecoderNone},
      {"list of four", {9, 9, 1, 1}, {1, 1, 9, 1}, {4, 1, 1, 1}, kDecoderIpu},
      {"four, scores differ", {9, 8, 1, 1}, {1, 1, 9, 1}, {4, 1, 1, 1}, kDecoderNone},
      {"four, indices differ", {9, 9, 9, 9}, {9, 9, 8, 9}, {4, 1, 1, 1}, kDecoderNone},
      {"list of five", {9, 9, 9, 1, 1}, {1, 1, 1, 9, 1}, {4, 1, 1, 1, 1}, kDecoderIpu},
      {"five, classes differ", {9, 8, 9, 1, 1}, {1, 1, 1, 9, 1}, {4, 1, 1, 1, 1}, kDecoderNone},
      {"five, third differs", {9, 9, 8, 1, 1}, {1, 1, 1, 9, 1}, {4, 1, 1, 1, 1}, kDecoderNone},
      {"five, indices differ", {9, 9, 9, 9, 9}, {9, 9, 9, 8, 9}, {4, 1, 1, 1, 1}, kDecoderNone},
      {"six", {9, 9, 9, 9, 9, 9}, {9, 9, 9, 9, 9, 9}, {4, 4, 4, 4, 4, 4}, kDecoderNone},
  };
  for (auto row : kRows) {
    DetDecodeInfo info;
    info.num_out_layers = static_cast<int>(row.w.size());
    info.net_out_w = row.w.data();
    info.net_out_h = row.h.data();
    info.net_out_c = row.c.data();
    EXPECT_EQ(row.decoder, choose_output_decoder(info)) << row.name;
  }
}

TEST(Rescale, divides_first_then_clamps_into_the_image) {
  const float nan = std::nanf("");
  const float infinity = std::numeric_limits<float>::infinity();
  // From 640 x 41 to 1920 x 41; 1 / 41 is rounded down, so that times 41 it stays below 1.
  const struct {
    float x, y, scaled_x, scaled_y;
  } kRows[] = {{320.f, 1.f, 960.f, 0.99999994f},
               {640.f, 41.f, 1919.f, 40.f},
               {-5.f, -5.f, 0.f, 0.f},
               {nan, nan, 0.f, 0.f},
               {infinity, infinity, 1919.f, 40.f},
               {-infinity, -infinity, 0.f, 0.f}};
  for (const auto& row : kRows) {
    BoxInfo box;
    box.x1 = box.x2 = row.x;
    box.y1 = box.y2 = row.y;
    box.keypts.resize(2, KeyPt_t());
    box.keypts[1].x = row.x;
    box.keypts[1].y = row.y;
    box.keypts[1].score = box.score = 7.f;
    olvex::vector<BoxInfo> boxes;
    boxes.resize(2, box);
    EXPECT_EQ(0, det_rescale_boxinfos(boxes, 640, 41, 1920, 41, 0));
    const BoxInfo& got = boxes[1];
    for (const float x : {got.x1, got.x2, got.keypts[1].x}) {
      EXPECT_EQ(row.scaled_x, x) << row.x;
    }
    for (const float y : {got.y1, got.y2, got.keypts[1].y}) {
      EXPECT_EQ(row.scaled_y, y) << row.y;
    }
    EXPECT_EQ(7.f, got.score);
    EXPECT_EQ(7.f, got.keypts[1].score);
  }
}

// ---- Opening and invoking ----

class SdetModel : public DetTest {
 protected:
  static void create_device() {
    QV_IPU_DevAttr_s attributes = {};
    char firmware[] = "firmware";
    ASSERT_EQ(0, QV_IPU_CreateDevice(&attributes, nullptr, firmware, 0));
  }

  // Sizes and opens the model with the network on a new device.
  int open_model(DetAfModel& model, const qv_scripted::Network& network,
                 const std::string& header = "") {
    qv_scripted::add_network(network);
    create_device();
    std::string file = write_model(header);
    unsigned int size = 0;
    EXPECT_EQ(0, model.cal_variable_size(&file[0], &size));
    const int result = model.model_init(0, 1);
    EXPECT_FALSE(is_mapped(file));
    EXPECT_EQ(nullptr, model.p_model_);
    EXPECT_EQ(0u, model.model_file_size_);
    return result;
  }

  int invoke(DetAfModel& model) {
    QV_IPU_TensorVector_t input = {};
    input.astArrayTensors[0].ptTensorData[0] = frame_;
    QV_SYS_FlushInvCache(frame_, sizeof frame_);
    return model.model_invoke(&input, &boxes_, &count_, kNetWidth, kNetHeight);
  }

  static qv_scripted::Network network_of(const Shapes& outputs) {
    qv_scripted::Network network = list_network({});
    network.outputs.clear();
    for (const std::vector<QV_U32>& shape : outputs) {
      network.outputs.push_back(qv_scripted::fp32_tensor("output", shape));
    }
    qv_scripted::Frame zeros;
    for (const QV_IPU_TensorDesc_t& output : network.outputs) {
      zeros.push_back(qv_scripted::Bytes(output.u32BufSize));
    }
    network.frames = {zeros};
    return network;
  }

  unsigned char frame_[kNetWidth * kNetHeight] = {};
  BoxInfo some_box_;
  BoxInfo* boxes_ = &some_box_;
  int count_ = -1;
};

TEST_F(SdetModel, name_of_the_first_output_can_carry_the_pairs) {
  const std::string filler(238, 'x');
  const struct {
    std::string name;
    std::string pairs;
  } kRows[] = {
      {"model_out:zrpcd;lib_out:zrpd", "model_out=zrpcd lib_out=zrpd "},
      {"boxes", "model_out=zrhpd k=v "},
      {"", "model_out=zrhpd k=v "},
      // All 256 bytes in use: the last entry has no end.
      {"model_out:zrfsd;a:" + filler, "model_out=zrfsd "},
      {"a:b;c:dQTNXe:f;", "a=b c=d "},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    qv_scripted::Network network = list_network({}, 8, row.name);
    std::strcpy(network.outputs[1].name, "model_out:zrpcn;");
    DetAfModel model;
    log();
    ASSERT_EQ(0, open_model(model, network, "model_out:zrhpd\nk:v\n"));
    std::string pairs;
    for (std::size_t i = 0; i < model.model_kvs_.size(); ++i) {
      pairs += std::string(model.model_kvs_[i].key) + "=" + model.model_kvs_[i].value + " ";
    }
    EXPECT_EQ(row.pairs, pairs);
    EXPECT_TRUE(contains(log(), "output tensor [0], name: " + row.name + ", shape 1 1 8 4, "));
    EXPECT_EQ(row.name[0] == 'm' && model.model_kvs_.size() == 2 ? 2u : 0u,
              model.class_id_map_.size());
    EXPECT_EQ(0, model.model_deinit());
    qv_scripted::reset();
  }
}

TEST_F(SdetModel, number_of_outputs_decides_the_result) {
  const std::vector<QV_U32> list = {1, 1, 8, 4}, per_row = {1, 1, 8, 1}, indices = {1, 8, 1, 1};
  const std::vector<QV_U32> one = {1, 1, 1, 1};
  const struct {
    const char* name;
    Shapes outputs;
    QV_U32 reported;
    int code;
    const char* message;
  } kRows[] = {
      {"none", {}, 0, 12, "shape of model output tensor might be wrong, please check!\n"},
      {"one", {{1, 4, 8, 6}}, 1, 4, "not realized\n"},
      {"two", {per_row, per_row}, 2, 12, "shape of model output tensor might be wrong"},
      {"raw", {{1, 16, 32, 6}, {1, 8, 16, 6}, {1, 4, 8, 6}}, 3, 0, "decode in cpu\n"},
      {"raw, 9 channels",
       {{1, 16, 32, 9}, {1, 8, 16, 9}, {1, 4, 8, 9}},
       3,
       12,
       "the detect class is wrong \n"},
      {"raw, unequal",
       {{1, 16, 32, 6}, {1, 8, 16, 7}, {1, 4, 8, 6}},
       3,
       12,
       "however 6(layer0), 7(layer1), 6(layer2)\n"},
      {"list of four", {list, per_row, {1, 8, 1}, one}, 4, 0, "decode in ipu\n"},
      {"list of five", {list, per_row, per_row, indices, one}, 5, 0, "decode in ipu\n"},
      {"six", Shapes(6, per_row), 6, 12, "shape of model output tensor might be wrong"},
      {"seven", Shapes(7, per_row), 7, 12,
       "num output tensor channel should not be larger than 6\n"},
      {"more than a description holds", Shapes(3, list), 1000, 12, "not be larger than 6\n"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    qv_scripted::Network network = network_of(row.outputs);
    network.reported_outputs = network.reported_inputs = row.reported;
    DetAfModel model;
    log();
    ASSERT_EQ(0, open_model(model, network));
    const int described = static_cast<int>(std::min(row.reported, 60u));
    const std::string opened = log();
    EXPECT_EQ(described, count_of(opened, "output tensor ["));
    EXPECT_EQ(described, count_of(opened, "input tensor ["));
    model.set_theshold(0.9f);
    EXPECT_EQ(row.code, invoke(model));
    EXPECT_TRUE(contains(log(), row.message)) << row.message;
    if (row.code == 0) {
      EXPECT_EQ(nullptr, boxes_);
      EXPECT_EQ(0, count_);
    }
    EXPECT_EQ(0, model.model_deinit());
    qv_scripted::reset();
  }
}

TEST_F(SdetModel, outputs_without_memory_or_of_another_type_are_refused) {
  DetAfModel model;
  qv_scripted::fail_next_call(Function::kGetOutputTensors, kCode);
  ASSERT_EQ(0, open_model(model, list_network({})));
  EXPECT_EQ(12, model.model_postprocess());
  model.desc_.astQV_OutputTensorDescs[0].eElmFormat = QV_IPU_FORMAT_U8;
  EXPECT_EQ(0, QV_IPU_GetOutputTensors(model.u32channelid_, &model.output_tensor_vector_));
  EXPECT_EQ(13, model.model_postprocess());
  EXPECT_EQ(7, model.model_invoke(nullptr, &boxes_, &count_, 1, 1));
  EXPECT_EQ(&some_box_, boxes_);
  EXPECT_EQ(0, model.model_deinit());
}

TEST_F(SdetModel, failed_invocation_closes_the_channel_and_passes_the_code_on) {
  DetAfModel model;
  ASSERT_EQ(0, open_model(model, list_network({{{0.f, 0.f, 8.f, 8.f, 0.5f, 0.f}}})));
  EXPECT_EQ(0, invoke(model));
  ASSERT_EQ(1, count_);
  EXPECT_EQ(model.det_bboxes_.data(), boxes_);
  for (const QV_S32 code : {kCode, -3}) {
    qv_scripted::fail_next_call(Function::kInvoke, code);
    EXPECT_EQ(code, invoke(model));
    EXPECT_EQ(0, qv_scripted::open_channel_count());
    EXPECT_TRUE(qv_scripted::device_is_up());
    QV_IPU_DestroyDevice();
    ASSERT_EQ(0, open_model(model, list_network({{}})));
  }
  EXPECT_EQ(0, model.model_deinit());
}

TEST_F(SdetModel, only_the_engine_names_the_scale_of_an_output) {
  qv_scripted::Network network = network_of({{1, 2, 3, 4}, {1, 5}, {6}});
  network.outputs[1] = qv_scripted::int16_tensor("second", {1, 5}, 0.25f);
  network.frames.clear();
  const std::string input =
      "input tensor [0], name: input, shape 1 128 256 1, format: 9, fScalar: 1.000000\n";
  const std::string output = "output tensor [1], name: second, shape 1 5 0 0, format: 2";
  for (const bool engine : {true, false}) {
    DetAfModel model;
    log();
    if (engine) {
      qv_scripted::add_network(network);
      create_device();
      std::string file = write_model("k:v\n");
      unsigned int size = 0;
      ASSERT_EQ(0, model.IpuEngine::cal_variable_size(&file[0], &size));
      EXPECT_EQ(4096u, size);
      ASSERT_EQ(0, model.model_init(2, 3));
      const qv_scripted::Event event = qv_scripted::last_event(Function::kCreateCHN);
      EXPECT_FALSE(event.read_callback);
      EXPECT_EQ(file, event.path);
      EXPECT_EQ(2u, event.channel_attributes.u32InputBufDepth);
      EXPECT_EQ(3u, event.channel_attributes.u32OutputBufDepth);
    } else {
      ASSERT_EQ(0, open_model(model, network));
    }
    const std::string text = log();
    EXPECT_TRUE(contains(text, "DLA_INFO:, LINE: "));
    EXPECT_TRUE(contains(text, ". " + input));
    EXPECT_TRUE(contains(text, ". " + output + (engine ? ", fScalar: 0.250000\n" : "\n")));
    EXPECT_EQ(3, count_of(text, "output tensor ["));
    unsigned int width = 0, height = 0;
    QV_IPU_ELEMENT_FORMAT format = QV_IPU_FORMAT_UNKNOWN;
    model.get_model_attri(&width, &height, &format);
    EXPECT_EQ(256u, width);
    EXPECT_EQ(128u, height);
    EXPECT_EQ(QV_IPU_FORMAT_GRAY, format);
    EXPECT_EQ(0, model.model_deinit());
    qv_scripted::reset();
  }
}

TEST_F(SdetModel, engine_takes_down_what_it_built_when_opening_fails) {
  DetAfModel unsized;
  EXPECT_EQ(4, unsized.model_init(0, 1));
  EXPECT_TRUE(contains(log(), "please call cal_variable_size before call model_init!\n"));
  EXPECT_EQ(0, qv_scripted::call_count());
  const struct {
    Function failing;
    const char* message;
    std::vector<std::string> calls;
  } kRows[] = {
      {Function::kGetOfflineModeStaticInfo,
       "get Model variable buffer size failed! modelpath:",
       {"CreateDevice", "GetOfflineModeStaticInfo = 0x51"}},
      {Function::kCreateCHN,
       "create ipu channel failed! \n",
       {"CreateDevice", "GetOfflineModeStaticInfo", "CreateCHN 0 = 0x51", "DestroyDevice"}},
      {Function::kGetInOutTensorDesc,
       "fail to get network description 81\n",
       {"CreateDevice", "GetOfflineModeStaticInfo", "CreateCHN 1", "GetInOutTensorDesc 1 = 0x51",
        "DestroyCHN 1", "DestroyDevice"}},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.message);
    qv_scripted::add_network(list_network({}));
    create_device();
    qv_scripted::fail_next_call(row.failing, kCode);
    std::string file = write_model();
    IpuEngine engine;
    unsigned int size = 5;
    log();
    if (engine.cal_variable_size(&file[0], &size) == 0) {
      EXPECT_EQ(4, engine.model_init(0, 1));
    } else {
      EXPECT_EQ(5u, size);
    }
    EXPECT_TRUE(contains(log(), row.message));
    EXPECT_EQ(row.calls, qv_scripted::event_texts());
    qv_scripted::reset();
  }
}

}  // namespace
