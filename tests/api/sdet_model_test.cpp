// SPDX-License-Identifier: Apache-2.0
// sdet_model_test.cpp - the library's objects below the exported functions: model file, class
// rules, output types, choice of the decoder, rescaling, opening, invoking, and what a handle does
// that its functions do not show. public_api_test.cpp has the functions, det_test.h the fixture.
#include "base/sdet/sdet_model.h"

#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <tuple>

#include "tests/api/det_test.h"
#include "tests/unit/boxes.h"

namespace {

using qv_scripted::Function;

constexpr QV_S32 kCode = 0x51;

static_assert(sizeof(ModelKeyValue_t) == 256 && offsetof(ModelKeyValue_t, value) == 128,
              "a pair is 128 + 128 characters");

struct Text {
  static std::string of(int id) { return std::to_string(id); }
  static std::string of(const BoxInfo& box) { return of(box.label); }
  static std::string of(const olvex::pair<int, int>& p) { return of(p.first) + ">" + of(p.second); }
  static std::string of(const ModelKeyValue_t& pair) {
    return std::string("<") + pair.key + "=" + pair.value + ">";
  }
  // Each element with a blank behind it.
  template <class Element>
  static std::string of(const olvex::vector<Element>& list) {
    std::string text;
    for (const Element& element : list) {
      text += of(element) + " ";
    }
    return text;
  }
};

// ---- Model file ----

class ModelImage : public DetTest {
 protected:
  // Loads a file and checks that no descriptor stays open.
  int load(std::string file) {
    const int lowest_free = dup(1);
    close(lowest_free);
    file_start_ = pattern_ = &nowhere_;
    kvs_.push_back(ModelKeyValue_t());
    const int result = get_model_ptr(&file[0], file_start_, size_, kvs_, pattern_);
    const int now_lowest = dup(1);
    close(now_lowest);
    EXPECT_EQ(lowest_free, now_lowest);
    return result;
  }

  char nowhere_ = 0;
  char* file_start_ = &nowhere_;
  char* pattern_ = &nowhere_;
  unsigned int size_ = 9;
  olvex::vector<ModelKeyValue_t> kvs_;
};

TEST_F(ModelImage, header_is_split_into_pairs_up_to_the_start_pattern) {
  const int kNone = -1;
  const std::string k127(127, 'k'), v127(127, 'v'), long_pair = "<" + k127 + "=" + v127 + "> ";
  // A text, its pairs, and the offset of its pattern.
  const std::tuple<std::string, std::string, int> kRows[] = {
      {"ka:va\nkb:vbb\nQTNX____", "<ka=va> <kb=vbb> ", 13},
      {"a:b;c:dQTNX____", "<a=b> <c=d> ", 7},
      {"a:b:c\nQTNX____", "<a:b=c> ", 6},
      {"QTNX____", "", 0},
      {"k:vQTNxQTN;a:bQTNXa:b\nQTNX____", "<k=vQTNxQTN> <a=b> ", 14},
      {"QQTNX____", "", 1},
      {":v\nk:\nplain\n;;a:b\nplain;k:\n:;QTNX____", "<a=b> ", 29},
      {"a:1\nb:2\na:3\nQTNX____", "<a=1> <b=2> <a=3> ", 12},
      {" a : b \r\nQTNX____", "< a = b \r> ", 9},
      {std::string("a:b\nc:d\0e:f\nQTNX____", 20), "<a=b> <c=d> ", kNone},
      {std::string("\0a:b\nQTNX____", 13), "", kNone},
      {"a:b\nno pattern here", "<a=b> ", kNone},
      {k127 + "kkk:" + v127 + "vvv\nQTNX____", long_pair, 262},
      {k127 + ":" + v127 + "\nQTNX____", long_pair, 256},
      // The last four bytes are not scanned, so a pattern with nothing behind it is not found.
      {"QTNX", "", kNone},
      {"k:v\nQTNX", "<k=v> ", kNone},
  };
  for (const auto& [text, pairs, pattern] : kRows) {
    SCOPED_TRACE(text.substr(0, 40));
    ASSERT_EQ(0, load(write_file("model.bin", text)));
    EXPECT_EQ(text.size(), size_);
    EXPECT_EQ(pairs, Text::of(kvs_));
    EXPECT_EQ(pattern == kNone ? &nowhere_ : file_start_ + pattern, pattern_);
    EXPECT_EQ(0, std::memcmp(text.data(), file_start_, text.size()));
    munmap(file_start_, size_);
  }
}

// A list that is copied with each pair takes minutes for this file, and the limit for a test is two.
TEST_F(ModelImage, text_taken_for_a_model_is_read_in_the_time_of_its_length) {
  std::string text;
  for (int i = 0; i < 40000; ++i) {
    text += "k:v\n";
  }
  ASSERT_EQ(0, load(write_file("text.json", text + "QTNX____")));
  EXPECT_EQ(40000u, kvs_.size());
  munmap(file_start_, size_);
}

TEST_F(ModelImage, files_that_hold_no_model_are_refused) {
  std::filesystem::create_directory(path("folder"));
  const std::string too_short = "model file size should not be smaller than start pattern!\n";
  const std::pair<std::string, std::string> kRows[] = {
      {path("missing"), "fail to open model " + path("missing") + "\n"},
      {path("folder"), ""},
      {write_file("empty", ""), too_short},
      {write_file("three", "QTN"), too_short}};
  for (const auto& [file, message] : kRows) {
    SCOPED_TRACE(file);
    size_ = 9;
    log();
    EXPECT_EQ(4, load(file));
    EXPECT_TRUE(contains(log(), message));
    EXPECT_EQ(file == path("missing") ? &nowhere_ : nullptr, file_start_);
    EXPECT_EQ(&nowhere_, pattern_);
    EXPECT_EQ(0u, size_);
    EXPECT_FALSE(is_mapped(file));
  }
}

TEST_F(ModelImage, sizing_maps_a_file_once_and_notes_a_buffer) {
  qv_scripted::add_network(list_network({}));
  std::string first = write_file("first.bin", std::string("a:b\n") + kOfflineModel);
  std::string second = write_file("second.bin", kOfflineModel);
  std::string patternless = write_file("patternless.bin", "a:c\nno pattern in here");
  unsigned int size = 0;
  char buffer[] = "QTNX0123456789ab";
  {
    DetAfModel model;
    EXPECT_EQ(0, model.cal_variable_size(&first[0], &size));
    EXPECT_TRUE(is_mapped(first));
    EXPECT_EQ(0, model.cal_variable_size(&second[0], &size));
    EXPECT_FALSE(is_mapped(first)) << "the earlier mapping is released";
    EXPECT_EQ("", Text::of(model.model_kvs_));
    log();
    EXPECT_EQ(4, model.cal_variable_size(&patternless[0], &size));
    EXPECT_TRUE(
        contains(log(), "get Model variable buffer size failed! model path:" + patternless));
    EXPECT_FALSE(is_mapped(second) || is_mapped(patternless));
    EXPECT_EQ(nullptr, model.p_model_file_);

    EXPECT_EQ(0, model.cal_variable_size(&first[0], &size));
    log();
    EXPECT_EQ(0, model.cal_variable_size(buffer, 16, &size));
    EXPECT_FALSE(is_mapped(first)) << "a buffer releases it, too";
    EXPECT_EQ(log_lines(log())[0],
              "DEBUG \"enter model pointer version DetAfModel::cal_variable_size\"");
    EXPECT_TRUE(model.p_model_file_ == buffer && model.p_model_ == buffer);
    EXPECT_EQ(16u, model.model_file_size_);
    EXPECT_EQ("<a=b> ", Text::of(model.model_kvs_)) << "a buffer leaves the pairs as they are";
    qv_scripted::fail_next_call(Function::kGetOfflineModeStaticInfo, kCode);
    EXPECT_EQ(4, model.cal_variable_size(buffer, 16, &size));
    std::string missing = path("missing");
    EXPECT_EQ(4, model.cal_variable_size(&missing[0], &size));
    EXPECT_TRUE(model.p_model_file_ == buffer && model.p_model_ == buffer) << "as they were";
    EXPECT_EQ(0u, model.model_file_size_);
    EXPECT_EQ(4, model.cal_variable_size(&patternless[0], &size)) << "uses the buffer";
    EXPECT_EQ(0, model.cal_variable_size(&first[0], &size));
    EXPECT_EQ(4, model.cal_variable_size(&missing[0], &size));
    EXPECT_TRUE(is_mapped(first)) << "the pointers into it are as they were";
  }
  EXPECT_FALSE(is_mapped(first)) << "a model that was never opened releases its mapping";
}

// ---- Tables of words and numbers ----

using ClassRules = DetTest;
using OutputType = DetTest;
using DecoderChoice = DetTest;
using Rescale = DetTest;

void add_pair(olvex::vector<ModelKeyValue_t>& kvs, const char* key, const char* value) {
  ModelKeyValue_t pair = {};
  std::strncpy(pair.key, key, 127);
  std::strncpy(pair.value, value, 127);
  kvs.push_back(pair);
}

TEST_F(ClassRules, first_rule_with_either_word_decides) {
  const std::string six = "6>-6 ", eight = "8>-8 9>-9 ";
  const std::string seven = "1>-1 2>-2 3>-3 4>-4 5>-5 6>1 7>2 8>-8 9>-9 ";
  // Words of the two keys, the map and the confirming classes; 99>98 and 77: what was there before.
  const std::tuple<const char*, const char*, std::string, std::string> kRows[] = {
      {"zrphf", "x", "1>-1 2>-2 ", "1 2 "}, {"x", "zrpd", "1>-1 2>-2 ", "1 2 "},
      {"zrpcnh", "x", six, "-6 "},          {"x", "zrpcn", six, "-6 "},
      {"zrpcnf", "x", six, "-6 "},          {"zrpcnhf", "x", "6>-6 7>-7 ", "-6 -7 "},
      {"zrpcnhf", "zrpcn", six, "-6 "},     {"zrpcncdhf", "x", eight, "-8 -9 "},
      {"x", "zrpcncd", eight, "-8 -9 "},    {"zrpcncdhf", "zrpcd", eight, "-8 -9 "},
      {"x", "zrpcd", seven, "-8 -9 "},      {"ZRPHF", "zrp", "", "77 "},
      {"", "zrpd", "99>98 ", "77 "},        {"zrphf", "", "99>98 ", "77 "},
  };
  for (const auto& [model_out, lib_out, map, confirming] : kRows) {
    SCOPED_TRACE(model_out);
    DetAfModel model;
    // Of several pairs the last one counts.
    add_pair(model.model_kvs_, "model_out", "zrpcnh");
    add_pair(model.model_kvs_, "lib_out", "zrpd");
    add_pair(model.model_kvs_, "model_out", model_out);
    add_pair(model.model_kvs_, "lib_out", lib_out);
    model.class_id_map_.push_back(olvex::pair<int, int>(99, 98));
    EXPECT_EQ(0, model.get_class_id_map());
    EXPECT_EQ(map, Text::of(model.class_id_map_));
    olvex::vector<int> ids;
    ids.push_back(77);
    int target = 55;
    model.get_double_check_ids(ids, target);
    EXPECT_EQ(confirming, Text::of(ids));
    EXPECT_EQ(confirming == "77 " ? 55 : 0, target);
  }
}

TEST_F(ClassRules, labels_are_mapped_once_by_the_first_pair) {
  DetAfModel model;
  olvex::vector<BoxInfo> boxes;
  for (int label = 0; label < 10; ++label) {
    boxes.push_back(make_box(0, 0, 1, 1, 1, label));
  }
  const int kPairs[][2] = {{1, -1}, {6, 1}, {8, -8}, {8, 44}, {1, 44}};
  for (const auto& pair : kPairs) {
    model.class_id_map_.push_back(olvex::pair<int, int>(pair[0], pair[1]));
  }
  model.map_class_id(boxes);
  EXPECT_EQ("0 -1 2 3 4 5 1 7 -8 9 ", Text::of(boxes));
}

// In the rows of numbers, -9 stands for an output that is left as it was.
TEST_F(OutputType, first_word_or_channels_give_classes_and_key_points) {
  int classes, keypoints;
  std::istringstream words(
      "zrpd 1 0   zrfd 1 0   zrlpd 1 4   zrhgd 1 21  zrhpd 1 17    zrfl 1 5        zrfsd 2 0 "
      "zrpcd 3 0  zrphf 3 0  zrpcn 6 0   zrpcnh 7 0  zrpcnf 7 0    zrpcncd 8 0     zrpcncdhf 10 0 "
      "- -9 -9    ZRPD -9 -9             zrp -9 -9");
  for (std::string word; words >> word >> classes >> keypoints;) {
    std::pair<int, int> got(-9, -9);
    olvex::vector<ModelKeyValue_t> kvs;
    add_pair(kvs, "model", "zrpcn");
    EXPECT_EQ(2, set_det_class_keypoint(kvs, got.first, got.second)) << "no pair";
    add_pair(kvs, "model_out", word == "-" ? "" : word.c_str());
    add_pair(kvs, "model_out", "zrpcn");
    EXPECT_EQ(classes < 0 ? 2 : 0, set_det_class_keypoint(kvs, got.first, got.second));
    EXPECT_EQ(std::make_pair(classes, keypoints), got) << word;
  }
  std::istringstream channels(
      "-1 -9 -9  4 -9 -9  5 1 0  6 2 0  7 3 0  8 4 0  9 -9 -9  10 6 0  11 7 0  12 8 0  13 1 4 "
      "14 10 0  15 1 5  16 -9 -9  20 1 5  56 1 17  68 1 21");
  for (int count; channels >> count >> classes >> keypoints;) {
    std::pair<int, int> got(-9, -9);
    EXPECT_EQ(classes < 0 ? 12 : 0, det_class_keypoint_guess(count, got.first, got.second));
    EXPECT_EQ(std::make_pair(classes, keypoints), got) << count;
  }
}

TEST_F(DecoderChoice, number_and_shapes_of_the_outputs_decide) {
  // A character per output: only whether sizes are equal counts.
  const std::tuple<std::string, std::string, std::string, OutputDecoder> kRows[] = {
      {"842", "842", "666", kDecoderCpu},        {"842", "842", "676", kDecoderNone},
      {"842", "842", "667", kDecoderNone},       {"9911", "1191", "4111", kDecoderIpu},
      {"9811", "1191", "4111", kDecoderNone},    {"9999", "9989", "4111", kDecoderNone},
      {"99911", "11191", "41111", kDecoderIpu},  {"98911", "11191", "41111", kDecoderNone},
      {"99811", "11191", "41111", kDecoderNone}, {"99999", "99989", "41111", kDecoderNone},
      {"99", "99", "66", kDecoderNone},          {"999999", "999999", "444444", kDecoderNone},
  };
  for (const auto& [w, h, c, decoder] : kRows) {
    std::vector<int> widths(w.begin(), w.end());
    std::vector<int> heights(h.begin(), h.end());
    std::vector<int> channels(c.begin(), c.end());
    DetDecodeInfo info;
    info.num_out_layers = static_cast<int>(widths.size());
    info.net_out_w = widths.data();
    info.net_out_h = heights.data();
    info.net_out_c = channels.data();
    EXPECT_EQ(decoder, choose_output_decoder(info)) << w;
  }
}

TEST_F(Rescale, divides_first_then_clamps_into_the_image) {
  // From 640 x 41 to 1920 x 41; 1 / 41 is rounded down, so that times 41 it stays below 1.
  const std::tuple<float, float, float, float> kRows[] = {
      {320, 1, 960, 0.99999994f},     {640, 41, 1919, 40}, {-5, -5, 0, 0},
      {INFINITY, INFINITY, 1919, 40}, {NAN, NAN, 0, 0},    {-INFINITY, -INFINITY, 0, 0}};
  for (const auto& [given_x, given_y, x, y] : kRows) {
    SCOPED_TRACE(given_x);
    BoxInfo box = make_box(given_x, given_y, given_x, given_y);
    box.keypts.resize(2, KeyPt_t());
    box.keypts[1].x = given_x;
    box.keypts[1].y = given_y;
    olvex::vector<BoxInfo> boxes;
    boxes.resize(2, box);
    EXPECT_EQ(0, det_rescale_boxinfos(boxes, 640, 41, 1920, 41, 0));
    const BoxInfo& got = boxes[1];
    EXPECT_EQ((std::vector<float>{x, y, x, y}),
              (std::vector<float>{got.x1, got.y1, got.x2, got.y2}));
    EXPECT_TRUE(got.keypts[1].x == x && got.keypts[1].y == y);
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

  // Outputs of 16 x 32, 8 x 16, ... cells with these channels, all zero.
  static qv_scripted::Network layer_network(const std::vector<QV_U32>& channels) {
    qv_scripted::Network network = list_network({});
    network.outputs.clear();
    network.frames = {{}};
    for (const QV_U32 count : channels) {
      const QV_U32 height = 16u >> network.outputs.size();
      network.outputs.push_back(qv_scripted::fp32_tensor("layer", {1, height, 2 * height, count}));
      network.frames[0].push_back(qv_scripted::Bytes(network.outputs.back().u32BufSize));
    }
    return network;
  }

  QV_IPU_TensorVector_t* input() {
    input_ = {};
    input_.astArrayTensors[0].ptTensorData[0] = frame_;
    QV_SYS_FlushInvCache(frame_, sizeof frame_);
    return &input_;
  }

  int invoke(DetAfModel& model) {
    return model.model_invoke(input(), &boxes_, &count_, kNetWidth, kNetHeight);
  }

  unsigned char frame_[kNetWidth * kNetHeight] = {};
  QV_IPU_TensorVector_t input_;
  BoxInfo some_box_;
  BoxInfo* boxes_ = &some_box_;
  int count_ = -1;
};

TEST_F(SdetModel, name_of_the_first_output_can_carry_the_pairs) {
  const std::tuple<std::string, std::string, std::size_t> kRows[] = {
      {"model_out:zrpcd;lib_out:zrpd", "<model_out=zrpcd> <lib_out=zrpd> ", 2},
      {"boxes", "<model_out=zrhpd> <k=v> ", 0},
      {"", "<model_out=zrhpd> <k=v> ", 0},
      // All 256 bytes in use: the last entry has no end.
      {"model_out:zrfsd;a:" + std::string(238, 'x'), "<model_out=zrfsd> ", 0},
      {"a:b;c:dQTNXe:f;", "<a=b> <c=d> ", 0},
  };
  for (const auto& [name, pairs, mapped] : kRows) {
    SCOPED_TRACE(name);
    qv_scripted::Network network = list_network({}, 8, name);
    std::strcpy(network.outputs[1].name, "model_out:zrpcn;");
    DetAfModel model;
    log();
    ASSERT_EQ(0, open_model(model, network, "model_out:zrhpd\nk:v\n"));
    EXPECT_EQ(pairs, Text::of(model.model_kvs_));
    EXPECT_TRUE(
        contains(log(), "output tensor [0], name: " + name + ", shape 1 1 8 4, format: 5\n"));
    EXPECT_EQ(mapped, model.class_id_map_.size());
    EXPECT_EQ(0, model.model_deinit());
    qv_scripted::reset();
  }
  QV_IPU_TensorDesc_t tensor;
  char name[sizeof(TensorName) + 1] = {};
  std::memset(tensor.name, 'x', sizeof tensor.name);
  std::memset(name, 'y', sizeof(TensorName));
  EXPECT_EQ(std::string(sizeof tensor.name, 'x'), (new (name) TensorName(tensor))->text);
  EXPECT_EQ(sizeof tensor.name + 1, sizeof(TensorName));
}

TEST_F(SdetModel, number_of_outputs_decides_the_result) {
  const char kShape[] = "shape of model output tensor might be wrong, please check!\n";
  const char kMany[] = "num output tensor channel should not be larger than 6\n";
  // The layers' channels; how many outputs are reported.
  const std::tuple<std::vector<QV_U32>, QV_U32, int, const char*> kRows[] = {
      {{}, 0, 12, kShape},
      {{6}, 1, 4, "model one_output post process wrong\n"},
      {{6, 6}, 2, 12, kShape},
      {{6, 6, 6}, 3, 0, "decode in cpu\n"},
      {{9, 9, 9}, 3, 12, "the detect class is wrong \n"},
      {{6, 7, 6}, 3, 12, "however 6(layer0), 7(layer1), 6(layer2)\n"},
      {{6, 6, 6}, 7, 12, kMany},
      {{6, 6, 6}, 1000, 12, kMany},  // more than a description holds
  };
  for (const auto& [channels, reported, code, message] : kRows) {
    SCOPED_TRACE(message);
    qv_scripted::Network network = layer_network(channels);
    network.reported_outputs = network.reported_inputs = reported;
    DetAfModel model;
    log();
    ASSERT_EQ(0, open_model(model, network));
    const int described = static_cast<int>(std::min(reported, 60u));
    const std::string opened = log();
    EXPECT_EQ(described, count_of(opened, "output tensor ["));
    EXPECT_EQ(described, count_of(opened, "input tensor ["));
    model.set_theshold(0.9f);
    EXPECT_EQ(code, invoke(model));
    EXPECT_TRUE(contains(log(), message)) << message;
    if (code == 0) {
      EXPECT_EQ(nullptr, boxes_);
      EXPECT_EQ(0, count_);
    }
    EXPECT_EQ(0, model.model_deinit());
    qv_scripted::reset();
  }
}

// Of a tensor only shape, type and scale are read, and the first output's type holds for all.
TEST_F(SdetModel, outputs_are_decoded_whatever_else_their_descriptions_say) {
  DetAfModel model;
  qv_scripted::fail_next_call(Function::kGetOutputTensors, kCode);
  ASSERT_EQ(0, open_model(model, list_network({{{10, 10, 50, 50, 0.9f, 0}}})));
  EXPECT_EQ(12, model.model_postprocess()) << "no buffer is there";
  QV_IPU_TensorDesc_t* const outputs = model.desc_.astQV_OutputTensorDescs;
  outputs[0].eElmFormat = QV_IPU_FORMAT_U8;
  EXPECT_EQ(13, model.model_postprocess()) << "and none is read";
  outputs[0].eElmFormat = QV_IPU_FORMAT_FP32;
  EXPECT_EQ(0, QV_IPU_GetOutputTensors(model.u32channelid_, &model.output_tensor_vector_));
  const std::vector<QV_IPU_TensorDesc_t> whole(outputs, outputs + 5);
  const QV_IPU_ELEMENT_FORMAT fp32 = QV_IPU_FORMAT_FP32, int16 = QV_IPU_FORMAT_INT16;
  constexpr QV_U32 kAsIs = 99;
  const std::tuple<int, QV_IPU_ELEMENT_FORMAT, QV_U32, QV_U32, int> kRows[] = {
      {0, QV_IPU_FORMAT_INT32, kAsIs, kAsIs, 13},
      {4, int16, kAsIs, kAsIs, 0},  // described otherwise than the first
      {3, QV_IPU_FORMAT_U8, kAsIs, kAsIs, 0},
      {2, QV_IPU_FORMAT_UNKNOWN, 0, kAsIs, 0},
      {0, fp32, 10, 0, 0},  // a size of 0 and a number of dimensions say nothing
      {3, fp32, 4, 0, 0},
      {0, fp32, 4, 16, 0},  // what is read is there
      {4, int16, 4, 4, 0},
      {0, fp32, 4, 15, 12},
      {2, fp32, 4, 3, 12},
      {3, fp32, 4, 2, 12},
      {4, int16, 4, 2, 12},
  };
  for (const auto& [output, format, dimensions, bytes, code] : kRows) {
    SCOPED_TRACE(testing::Message() << output << ", size " << bytes);
    std::copy(whole.begin(), whole.end(), outputs);
    QV_IPU_TensorDesc_t& tensor = outputs[output];
    tensor.eElmFormat = format;
    tensor.u32TensorDim = dimensions == kAsIs ? tensor.u32TensorDim : dimensions;
    tensor.u32BufSize = bytes == kAsIs ? tensor.u32BufSize : bytes;
    count_ = 0;
    EXPECT_EQ(code, invoke(model));
    EXPECT_EQ(code == 0 ? 1 : 0, count_);
  }
  boxes_ = &some_box_;
  EXPECT_EQ(7, model.model_invoke(nullptr, &boxes_, &count_, 1, 1));
  EXPECT_TRUE(contains(log(), "det input tensor is nullptr"));
  EXPECT_EQ(&some_box_, boxes_);
  EXPECT_EQ(0, model.model_deinit());
}

TEST_F(SdetModel, raw_layers_are_refused_for_memory_only_once_they_are_to_be_read) {
  // Channels, and of the second layer its size and whether it has data.
  const std::tuple<QV_U32, QV_U32, bool, int, const char*> kRows[] = {
      {6, 0, true, 0, "detect box num is 0\n"},
      {6, 4 * 8 * 16 * 6, true, 0, "detect box num is 0\n"},
      {6, 4 * 8 * 16 * 6 - 1, true, 12, "empty model_out type\n"},
      {6, 0, false, 12, "shape of model output tensor might be wrong, please check!\n"},
      {9, 1, false, 12, "the detect class is wrong \n"},
  };
  for (const auto& [channels, size, has_data, code, message] : kRows) {
    SCOPED_TRACE(message);
    DetAfModel model;
    ASSERT_EQ(0, open_model(model, layer_network({channels, channels, channels})));
    model.set_theshold(1);
    // INT16 as it says, which does not count beside the first layer.
    model.desc_.astQV_OutputTensorDescs[1].eElmFormat = QV_IPU_FORMAT_INT16;
    model.desc_.astQV_OutputTensorDescs[1].u32BufSize = size;
    if (!has_data) {
      model.output_tensor_vector_.astArrayTensors[1].ptTensorData[0] = nullptr;
    }
    log();
    EXPECT_EQ(code, model.model_postprocess());
    EXPECT_TRUE(contains(log(), message));
    // A layer that its shape refuses is not read.
    model.desc_.astQV_OutputTensorDescs[1].u32TensorShape[1] = 7;
    EXPECT_EQ(channels == 6 ? 0 : 12, model.model_postprocess());
    EXPECT_EQ(0, model.model_deinit());
    qv_scripted::reset();
  }
}

// A row for each cell, by a height that the shape may leave out; as many indices as there are elements.
TEST_F(SdetModel, rows_of_a_list_are_its_height_times_its_width) {
  using Shape = std::vector<QV_U32>;
  const std::tuple<Shape, Shape, Shape, std::vector<float>, std::string> kRows[] = {
      {{1, 2, 4, 4}, {1, 2, 4, 1}, {1, 4}, {1, 6, 8}, "1 6 "},
      {{1, 2, 4, 4}, {1, 1, 4, 1}, {1, 4}, {1, 6}, "1 "},
      {{1, 1, 4, 4}, {1, 2, 4, 1}, {1, 4}, {1, 6}, "1 "},
      {{1, 1, 4, 4}, {1, 1, 4, 1}, {1, 4, 2, 0}, {0, 9, 9, 9, 2, 3}, "0 2 3 "},
      {{1, 1, 4, 4}, {1, 1, 4, 1}, {1, 4}, {0, 9, 9, 9, 2, 3}, "0 "},
      {{1, 0, 4, 4}, {1, 0, 4, 1}, {1, 4}, {0, 3, 4}, "0 3 "},
      {{1, 1, 0, 4}, {1, 1, 0, 1}, {1, 0}, {0}, ""},
  };
  for (const auto& [box_shape, score_shape, index_shape, listed, expected] : kRows) {
    SCOPED_TRACE(expected);
    qv_scripted::Network network = list_network({});
    std::vector<float> boxes, scores(8, 0.9f), list = listed;
    for (float i = 0; i < 8; ++i) {
      boxes.insert(boxes.end(), {20 * i, 0, 20 * i + 10, 10});
    }
    const float count = static_cast<float>(list.size());
    list.resize(8);
    network.outputs.clear();
    network.frames = {{}};
    const std::pair<Shape, std::vector<float>> kOutputs[] = {
        {box_shape, boxes}, {score_shape, scores}, {index_shape, list}, {{1, 1, 1, 1}, {count}}};
    for (const auto& [shape, values] : kOutputs) {
      network.outputs.push_back(
          qv_scripted::fp32_tensor("list", {1, 1, static_cast<QV_U32>(values.size()), 1}));
      network.frames[0].push_back(qv_scripted::to_bytes(values));
    }
    DetAfModel model;
    ASSERT_EQ(0, open_model(model, network));
    for (std::size_t i = 0; i < 4; ++i) {
      QV_U32* const extents = model.desc_.astQV_OutputTensorDescs[i].u32TensorShape;
      std::fill(extents, extents + 4, 0);
      std::copy(kOutputs[i].first.begin(), kOutputs[i].first.end(), extents);
    }
    count_ = 0;
    EXPECT_EQ(0, model.model_invoke(input(), &boxes_, &count_, 1000, kNetHeight));
    std::string found;
    for (int left = 0; left < 160; left += 20) {
      for (int i = 0; i < count_; ++i) {
        const float x = static_cast<float>(left) * 1000 / kNetWidth;
        found += std::abs(boxes_[i].x1 - x) < 1 ? std::to_string(left / 20) + " " : "";
      }
    }
    EXPECT_EQ(expected, found);
    EXPECT_EQ(0, model.model_deinit());
    qv_scripted::reset();
  }
}

// The failure sweep has what follows when any call fails.
TEST_F(SdetModel, engine_is_sized_from_a_path_and_opened_from_there) {
  DetAfModel unsized;
  EXPECT_EQ(4, unsized.model_init(0, 1));
  std::string memory = kOfflineModel;
  unsigned int size = 0;
  unsized.cal_variable_size(&memory[0], 0, &size);
  EXPECT_EQ(4, unsized.model_init(0, 1)) << "a buffer of no bytes is no model";
  EXPECT_EQ(2, count_of(log(), "please call cal_variable_size before call model_init!\n"));
  qv_scripted::reset();

  qv_scripted::Network network = list_network({});
  network.outputs[1] = qv_scripted::int16_tensor("s", {1, 5}, 0.25f);
  qv_scripted::add_network(network);
  create_device();
  std::string file = write_model();
  DetAfModel engine;
  EXPECT_EQ(0.f, engine.threshold_);
  qv_scripted::fail_next_call(Function::kGetOfflineModeStaticInfo, kCode);
  size = 5;
  EXPECT_NE(0, engine.IpuEngine::cal_variable_size(&file[0], &size));
  EXPECT_EQ(5u, size);
  EXPECT_TRUE(contains(log(), "get Model variable buffer size failed! modelpath:"));
  EXPECT_EQ(0, engine.IpuEngine::cal_variable_size(&file[0], &size));
  EXPECT_EQ(4096u, size);
  qv_scripted::fail_next_call(Function::kGetInOutTensorDesc, kCode);
  EXPECT_EQ(4, engine.model_init(2, 3));
  EXPECT_EQ(1, qv_scripted::call_count(Function::kDestroyCHN));
  EXPECT_FALSE(qv_scripted::device_is_up());
  create_device();
  EXPECT_EQ(0, engine.model_init(2, 3));
  const qv_scripted::Event channel = qv_scripted::last_event(Function::kCreateCHN);
  EXPECT_EQ(file, channel.path);
  EXPECT_EQ(2u, channel.channel_attributes.u32InputBufDepth);
  EXPECT_EQ(3u, channel.channel_attributes.u32OutputBufDepth);
  EXPECT_NE(nullptr, engine.output_tensor_vector_.astArrayTensors[1].ptTensorData[0]);
  EXPECT_TRUE(
      contains(log(), "tensor [1], name: s, shape 1 5 0 0, format: 2, fScalar: 0.250000\n"));
}

// ---- What the handle's functions do not show ----

TEST_F(SdetModel, handle_takes_part_in_nothing_without_frame_tracker_or_initialisation) {
  DetHandle handle;
  olvex::vector<BoxInfo> boxes;
  boxes.push_back(BoxInfo());
  QV_SYS_BufInfo_s buffer = {};
  EXPECT_EQ(6, handle.detect(&buffer, boxes));
  EXPECT_EQ(6, handle.track(boxes));
  handle.update_last_output(boxes);
  EXPECT_TRUE(handle.mLastOutput_.empty());
  handle.refine_result(boxes);
  handle.stable_box(boxes);
  const std::string errors = log();
  EXPECT_EQ(5, count_of(errors, "det handle is not inited or deinit already!!!\n"));
  EXPECT_EQ(5, count_of(errors, "DLA_ERROR")) << "and nothing else";

  qv_scripted::add_network(list_network({}));
  DetInfo_t info;
  std::snprintf(info.model, sizeof info.model, "%s",
                write_model("model_out:zrpcnhf\nlib_out:zrpc\n").c_str());
  ASSERT_EQ(0, handle.handle_init(&info));
  log();
  EXPECT_EQ(7, handle.detect(nullptr, boxes));
  EXPECT_TRUE(contains(log(), "the input image is nullptr\n"));
  EXPECT_EQ(6, handle.track(boxes));
  handle.refine_result(boxes);
  EXPECT_EQ(2, count_of(log(), "tracker is not inited\n"));
  EXPECT_EQ(1u, boxes.size());

  // The classes are the model's, whatever the parameters name.
  DetDoubleCheckParams_t params;
  params.check_target_class = 5;
  params.check_with_classes.push_back(3);
  params.overlap_threshold = 0.25f;
  params.check_class_conf_threshold = 0.125f;
  handle.set_double_check_params(params);
  const DetDoubleCheckParams_t& taken = handle.mDoubleCheckParams_;
  EXPECT_EQ("-6 -7 ", Text::of(taken.check_with_classes));
  EXPECT_EQ(0, taken.check_target_class);
  EXPECT_EQ(0.25f, taken.overlap_threshold);
  EXPECT_EQ(0.125f, taken.check_class_conf_threshold);

  IouTrackerParams_t tracker;
  tracker.enable = 1;
  handle.set_iou_tracker_params(tracker);
  ASSERT_NE(nullptr, handle.mTracker_);

  // Tracks that none of its steps makes: one without a box, and one of a hidden class.
  olvex::vector<Track>& tracks = handle.tracker()->finished_tracks_;
  tracks.resize(3, Track());
  tracks[1].boxes.resize(1, TrackBBox());
  tracks[2].boxes = tracks[1].boxes;
  tracks[1].boxes[0].class_id = -1;
  tracks[2].boxes[0].class_id = 7;
  handle.refine_result(boxes);
  ASSERT_EQ(1u, boxes.size());
  EXPECT_EQ(7, boxes[0].label);

  EXPECT_EQ(0, handle.handle_deinit());
  EXPECT_EQ(nullptr, handle.mTracker_);
  EXPECT_EQ('\0', handle.mDetInfo_.model[0]);
  const int calls = qv_scripted::call_count();
  EXPECT_EQ(0, handle.handle_deinit());
  EXPECT_EQ(calls, qv_scripted::call_count()) << "teardown happens once";
}

}  // namespace
