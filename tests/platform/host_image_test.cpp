// host_image_test.cpp - offline models of the host accelerator: what is written reads back, and
// nothing damaged or misspelt is let through.
#include "platform/host/host_image.h"

#include <unistd.h>

#include <cfloat>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace qv_host;

const std::vector<char> kNetwork = {'O', 'N', 'N', 'X'};

Description raw_description() {
  Description description;
  description.input.width = 64;
  description.input.height = 32;
  description.kind = OutputKind::kRaw;
  for (std::size_t i = 0; i < 3; ++i) {
    description.raw[i].name = "layer" + std::to_string(i);
  }
  return description;
}

Description decoded_description() {
  Description description;
  description.input.width = 64;
  description.input.height = 32;
  description.decoded.boxes = "boxes";
  description.decoded.scores = "scores";
  return description;
}

// Message of the error that a call throws; empty when it throws none.
template <typename Call>
std::string error_of(const Call& call) {
  try {
    call();
  } catch (const ImageError& error) {
    return error.what();
  }
  return "";
}

testing::AssertionResult mentions(const std::string& message, const std::string& part) {
  return message.find(part) != std::string::npos
             ? testing::AssertionSuccess()
             : testing::AssertionFailure() << '"' << message << "\" lacks \"" << part << '"';
}

TEST(HostImage, every_field_reads_back_bit_for_bit) {
  Description raw = raw_description();
  raw.title = "a \"title\"";
  raw.input.name = "input.1";
  raw.input.format = QV_IPU_FORMAT_FP32;
  raw.input.frame_order = ColourOrder::kBgr;
  raw.input.network_order = ColourOrder::kGray;
  raw.input.mean = {{123.675f, FLT_MAX, FLT_TRUE_MIN}};
  raw.input.scale = {{1.f / 255.f, 0.1f, -16777217.f}};
  raw.output_format = QV_IPU_FORMAT_INT16;
  raw.raw[1].nchw = false;
  raw.raw[2].scale = 1.f / 3.f;
  raw.name_pairs = {{"model_out", "zrpd"}, {"a:b", "c"}, {"a:b", "d"}};
  raw.class_names = {"person", ""};
  const Description raw_again =
      parse_image(build_image(raw, kNetwork).data(), build_image(raw, kNetwork).size()).description;
  EXPECT_EQ(description_to_json(raw), description_to_json(raw_again));
  EXPECT_EQ(raw.input.mean, raw_again.input.mean);
  EXPECT_EQ(raw.input.scale, raw_again.input.scale);
  EXPECT_EQ(raw.raw[2].scale, raw_again.raw[2].scale);
  EXPECT_EQ(raw.name_pairs, raw_again.name_pairs);
  EXPECT_EQ(raw.class_names, raw_again.class_names);
  EXPECT_EQ("layer0;model_out:zrpd;a:b:c;a:b:d;", output_tensor_names(raw_again)[0]);

  Description decoded = decoded_description();
  decoded.input.format = QV_IPU_FORMAT_ARGB8888;
  decoded.decoded.box_order = BoxOrder::kCentreSize;
  decoded.decoded.box_fractions = false;
  decoded.decoded.background = 4;
  decoded.decoded.emit_classes = false;
  decoded.decoded.keypoints = "points";
  decoded.decoded.keypoint_values = 51;
  decoded.decoded.max_boxes = 32767;
  decoded.decoded.min_score = 0.3f;
  decoded.decoded.box_scale = 0.7f;
  decoded.decoded.score_scale = 0.007f;
  decoded.decoded.keypoint_scale = 0.07f;
  const Description decoded_again = parse_description(description_to_json(decoded));
  EXPECT_EQ(description_to_json(decoded), description_to_json(decoded_again));
  EXPECT_EQ(BoxOrder::kCentreSize, decoded_again.decoded.box_order);
  EXPECT_FALSE(decoded_again.decoded.box_fractions);
  EXPECT_EQ(4, decoded_again.decoded.background);
  EXPECT_FALSE(decoded_again.decoded.emit_classes);
  EXPECT_EQ(51, decoded_again.decoded.keypoint_values);
  EXPECT_EQ(32767, decoded_again.decoded.max_boxes);
  EXPECT_EQ(0.3f, decoded_again.decoded.min_score);
  EXPECT_EQ(0.7f, decoded_again.decoded.box_scale);
  EXPECT_EQ(0.007f, decoded_again.decoded.score_scale);
  EXPECT_EQ(0.07f, decoded_again.decoded.keypoint_scale);
}

TEST(HostImage, no_truncated_lengthened_or_altered_image_is_accepted) {
  const std::vector<char> image = build_image(decoded_description(), kNetwork);
  ASSERT_EQ(kNetwork, parse_image(image.data(), image.size()).network);
  for (std::size_t size = 0; size < image.size(); ++size) {
    const std::vector<char> cut(image.begin(), image.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_TRUE(mentions(error_of([&] { parse_image(cut.data(), cut.size()); }), "truncated"));
  }
  std::vector<char> longer = image;
  longer.push_back('\0');
  EXPECT_TRUE(mentions(error_of([&] { parse_image(longer.data(), longer.size()); }), "too long"));

  // Ends of the header's fields, with what the refusal of an altered field has to say.
  const struct {
    std::size_t end;
    const char* message;
  } kFields[] = {{4, "QTNX"},
                 {8, "version"},
                 {12, "description|truncated|too long"},
                 {16, "CRC-32"},
                 {24, "network|truncated|too long"},
                 {image.size(), "CRC-32"}};
  std::size_t i = 0;
  for (const auto& field : kFields) {
    for (; i < field.end; ++i) {
      std::vector<char> altered = image;
      altered[i] = static_cast<char>(altered[i] ^ 0x80);
      const std::string message = error_of([&] { parse_image(altered.data(), altered.size()); });
      EXPECT_TRUE(std::regex_search(message, std::regex(field.message)))
          << "byte " << i << ": \"" << message << "\" lacks " << field.message;
    }
  }
}

TEST(HostImage, a_wrong_description_is_refused_by_field) {
  const std::string raw = description_to_json(raw_description());
  Description with_points = decoded_description();
  with_points.decoded.emit_classes = false;
  with_points.decoded.keypoints = "points";
  with_points.decoded.keypoint_values = 10;
  with_points.name_pairs = {{"k", "v"}};
  const std::string decoded = description_to_json(with_points);
  const struct {
    const std::string& json;
    const char* from;
    const char* to;
    const char* message;
  } kRows[] = {
      {raw, "{", "", "not JSON"},
      {raw, "\"width\": 64", "\"width\": 63", "\"input.width\": found 63, expected an even"},
      {raw, "\"width\": 64", "\"width\": 64.5", "\"input.width\": found 64.5"},
      {raw, "\"width\": 64", "\"width\": 18446744073709551615", "\"input.width\": found 184467"},
      {raw, "\"width\": 64", "\"width\": 0", "\"input.width\": found 0, expected a number from 1"},
      {raw, "\"width\": 64", "\"width\": 64, \"width\": 64", "\"width\": found the field twice"},
      {raw, "\"width\"", "\"wdith\"", "\"input.width\": found nothing"},
      {raw, "\"frame_order\"", "\"frame_ordre\"", "\"input.frame_ordre\": found an unknown field"},
      {raw, "\"NV12\"", "\"nv12\"", "expected one of \"NV12\", \"ARGB8888\""},
      {raw, "\"mean\": [", "\"mean\": [0.0,", "\"input.mean\""},
      {raw, "\"mean\": [", "\"mean\": [1e39, 0.0, 0.0], \"title\": [",
       "\"input.mean[0]\": found 1e"},
      {raw, "\"kind\": \"raw\"", "\"kind\": \"cooked\"", "\"outputs.kind\": found \"cooked\""},
      {raw, "\"layer1\"", "\"layer0\"", "\"outputs.layers[1].name\""},
      {raw, "\"layer1\"", "7", "\"outputs.layers[1].name\": found 7, expected a text"},
      {raw, "\"scale\": 1.0", "\"scale\": 0", "\"outputs.layers[0].scale\""},
      {raw, "\"layers\"", "\"layer\"", "\"outputs.layers\": found nothing"},
      {decoded, "\"values\": 10", "\"values\": 9", "\"outputs.keypoints.values\": found 9"},
      {decoded, "\"classes\": false", "\"classes\": true", "\"outputs.classes\""},
      {decoded, "\"classes\": false", "\"classes\": 0", "\"outputs.classes\": found 0"},
      {decoded, "\"max_boxes\": 100", "\"max_boxes\": 32768", "\"outputs.max_boxes\""},
      {decoded, "\"name\": \"boxes\"", "\"name\": \"\"", "\"outputs.boxes.name\": found no name"},
      {decoded, "\"name\": \"boxes\"", "\"name\": \"b\\u0000\"", "control character"},
      {decoded, "\"k\"", "\"k;\"", "\"name_pairs[0]\""},
      {decoded, "\"v\"", "\"v\", \"w\"", "\"name_pairs[0]\""},
  };
  for (const auto& row : kRows) {
    std::string json = row.json;
    const std::size_t position = json.find(row.from);
    ASSERT_NE(std::string::npos, position) << row.from;
    json.replace(position, std::strlen(row.from), row.to);
    EXPECT_TRUE(mentions(error_of([&] { parse_description(json); }), row.message)) << row.to;
  }

  Description long_pairs = raw_description();
  long_pairs.name_pairs = {{"a", std::string(127, 'x')}, {"b", std::string(115, 'x')}};
  EXPECT_EQ(255u, output_tensor_names(long_pairs)[0].size());
  EXPECT_EQ("", error_of([&] { build_image(long_pairs, kNetwork); }));
  long_pairs.name_pairs[1].second += 'x';
  EXPECT_TRUE(mentions(error_of([&] { build_image(long_pairs, kNetwork); }), "name_pairs"));
}

TEST(HostImage, a_model_file_is_found_behind_its_text_and_refused_by_name) {
  const std::string path = testing::TempDir() + "host_image_" + std::to_string(getpid());
  const std::vector<char> bytes = build_image(raw_description(), kNetwork);
  const std::string image(bytes.begin(), bytes.end());
  const auto error_of_file = [&path](const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
    return error_of([&] { read_image_file(path, nullptr); });
  };
  const struct {
    std::string content;
    const char* message;
  } kRows[] = {{"", "QTNX"},
               {"model_out:zrpd\n", "no start pattern"},
               {std::string("a:b\0", 4) + image, "zero byte"},
               {"a:b\n" + image.substr(0, 30), "truncated"}};
  for (const auto& row : kRows) {
    const std::string message = error_of_file(row.content);
    EXPECT_TRUE(mentions(message, path));
    EXPECT_TRUE(mentions(message, row.message));
  }
  EXPECT_EQ("", error_of_file("model_out:zrpd\nQTN;" + image));
  std::string text;
  EXPECT_EQ(kNetwork, read_image_file(path, &text).network);
  EXPECT_EQ("model_out:zrpd\nQTN;", text);
  std::remove(path.c_str());
  EXPECT_THROW(read_image_file(path, nullptr), ImageReadError);
  EXPECT_THROW(read_image_file(testing::TempDir(), nullptr), ImageReadError);
}

}  // namespace
