// host_image_test.cpp - offline models of the host accelerator: what is written reads back, and
// nothing damaged or misspelt is let through.
#include "platform/host/host_image.h"

#include <unistd.h>

#include <cfloat>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace qv_host;

const std::vector<char> kNetwork = {'O', 'N', 'N', 'X'};

Description small_description(OutputKind kind) {
  Description description;
  description.input.width = 64;
  description.input.height = 32;
  description.kind = kind;
  if (kind == OutputKind::kRaw) {
    description.raw = {{{"layer0"}, {"layer1"}, {"layer2"}}};
  } else {
    description.decoded.boxes = "boxes";
    description.decoded.scores = "scores";
  }
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

std::string error_of_image(const std::vector<char>& image) {
  return error_of([&] { parse_image(image.data(), image.size()); });
}

testing::AssertionResult mentions(const std::string& message, const std::string& part) {
  return message.find(part) != std::string::npos
             ? testing::AssertionSuccess()
             : testing::AssertionFailure() << '"' << message << "\" lacks \"" << part << '"';
}

// What an invocation depends on reads back in the tests of the host accelerator.
TEST(HostImage, numbers_and_texts_read_back_bit_for_bit) {
  Description description = small_description(OutputKind::kRaw);
  description.title = "a \"title\"";
  description.input.name = "input.1";
  description.input.mean = {{123.675f, FLT_MAX, FLT_TRUE_MIN}};
  description.input.scale = {{1.f / 255.f, 0.1f, -16777217.f}};
  description.raw[2].scale = 1.f / 3.f;
  description.name_pairs = {{"model_out", "zrpd"}, {"a:b", "c"}, {"a:b", "d"}};
  description.class_names = {"person", ""};
  const std::vector<char> image = build_image(description, kNetwork);
  const Description again = parse_image(image.data(), image.size()).description;
  EXPECT_EQ(description.title, again.title);
  EXPECT_EQ(description.input.name, again.input.name);
  EXPECT_EQ(description.input.mean, again.input.mean);
  EXPECT_EQ(description.input.scale, again.input.scale);
  EXPECT_EQ(description.raw[2].scale, again.raw[2].scale);
  EXPECT_EQ(description.class_names, again.class_names);
  EXPECT_EQ("layer0;model_out:zrpd;a:b:c;a:b:d;", output_tensor_names(again)[0]);
}

TEST(HostImage, no_truncated_lengthened_or_altered_image_is_accepted) {
  const std::vector<char> image = build_image(small_description(OutputKind::kDecoded), kNetwork);
  ASSERT_EQ(kNetwork, parse_image(image.data(), image.size()).network);
  for (std::size_t size = 0; size < image.size(); ++size) {
    const std::vector<char> cut(image.begin(), image.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_TRUE(mentions(error_of_image(cut), "truncated"));
  }
  std::vector<char> longer = image;
  longer.push_back('\0');
  EXPECT_TRUE(mentions(error_of_image(longer), "too long"));

  // What the refusal has to say of each four bytes of the header, and of what follows.
  const char* const kSaid[] = {"QTNX", "version", "length", "CRC-32", "length", "length", "CRC-32"};
  for (std::size_t i = 0; i < image.size(); ++i) {
    std::vector<char> altered = image;
    altered[i] = static_cast<char>(altered[i] ^ 0x80);
    EXPECT_TRUE(mentions(error_of_image(altered), kSaid[i < 24 ? i / 4 : 6])) << "byte " << i;
  }
}

TEST(HostImage, a_wrong_description_is_refused_by_field) {
  const std::string raw = description_to_json(small_description(OutputKind::kRaw));
  Description with_points = small_description(OutputKind::kDecoded);
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
      {raw, "\"NV12\"", "[[[[[[[[[[[[[[[[[0]]]]]]]]]]]]]]]]]", "more than 16 deep"},
      {raw, "\"NV12\"", "\"nv12\"", "expected one of \"NV12\", \"ARGB8888\""},
      {raw, "\"mean\": [", "\"mean\": [1e39, 0.0, 0.0], \"title\": [",
       "\"input.mean[0]\": found 1e"},
      {raw, "\"kind\": \"raw\"", "\"kind\": \"cooked\"", "\"outputs.kind\": found \"cooked\""},
      {raw, "\"layer1\"", "\"layer0\"", "\"outputs.layers[1].name\""},
      {raw, "\"scale\": 1.0", "\"scale\": 0", "\"outputs.layers[0].scale\""},
      {raw, "\"layers\"", "\"layer\"", "\"outputs.layers\": found nothing"},
      {decoded, "\"values\": 10", "\"values\": 9", "\"outputs.keypoints.values\": found 9"},
      {decoded, "\"classes\": false", "\"classes\": true", "\"outputs.classes\""},
      {decoded, "\"max_boxes\": 100", "\"max_boxes\": 32768", "\"outputs.max_boxes\""},
      {decoded, "\"name\": \"boxes\"", "\"name\": \"\"", "\"outputs.boxes.name\": found no name"},
      {decoded, "\"name\": \"boxes\"", "\"name\": \"b\\u0000\"", "control character"},
      {decoded, "\"k\"", "\"k;\"", "\"name_pairs[0]\""},
  };
  for (const auto& row : kRows) {
    std::string json = row.json;
    const std::size_t position = json.find(row.from);
    ASSERT_NE(std::string::npos, position) << row.from;
    json.replace(position, std::strlen(row.from), row.to);
    EXPECT_TRUE(mentions(error_of([&] { parse_description(json); }), row.message)) << row.to;
  }

  Description long_pairs = small_description(OutputKind::kRaw);
  long_pairs.name_pairs = {{"a", std::string(127, 'x')}, {"b", std::string(115, 'x')}};
  EXPECT_EQ(255u, output_tensor_names(long_pairs)[0].size());
  EXPECT_EQ("", error_of([&] { build_image(long_pairs, kNetwork); }));
  long_pairs.name_pairs[1].second += 'x';
  EXPECT_TRUE(mentions(error_of([&] { build_image(long_pairs, kNetwork); }), "name_pairs"));
}

TEST(HostImage, a_model_file_is_found_behind_its_text_and_refused_by_name) {
  const std::string path = testing::TempDir() + "host_image_" + std::to_string(getpid());
  const std::vector<char> bytes = build_image(small_description(OutputKind::kRaw), kNetwork);
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
