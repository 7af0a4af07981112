// SPDX-License-Identifier: Apache-2.0
// host_image_test.cpp - offline models of the host accelerator: what is written reads back, and
// nothing damaged or misspelt is let through.
#include "platform/host/host_image.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <string>
#include <tuple>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using namespace qv_host;

using Json = nlohmann::ordered_json;

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

std::vector<char> altered(std::vector<char> image, std::size_t byte, char bits) {
  image[byte] = static_cast<char>(image[byte] ^ bits);
  return image;
}

std::vector<char> with_lengths(std::vector<char> image, std::uint32_t description,
                               std::uint64_t network) {
  std::memcpy(image.data() + 8, &description, sizeof description);
  std::memcpy(image.data() + 16, &network, sizeof network);
  return image;
}

// host_image_fuzz has that every description reads back.
TEST(HostImage, the_first_name_carries_the_pairs_and_no_name_looks_like_one) {
  Description description = small_description(OutputKind::kRaw);
  description.raw[1].name = "a:b;c";
  description.name_pairs = {{"model_out", "zrpd"}, {"a:b", "c"}, {"a:b", "d"}};
  EXPECT_EQ("layer0;model_out:zrpd;a:b:c;a:b:d;", output_tensor_names(description)[0]);
  EXPECT_EQ("a_b_c", output_tensor_names(description)[1]);
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
  const std::string damaged = "; the image is damaged or not from this project's packer";
  const std::string size = std::to_string(image.size() - kImageHeaderSize - kNetwork.size());
  const std::string all = std::to_string(image.size());
  const std::string many = "found 2147483652 bytes, expected 1 to 1073741824" + damaged;
  const std::string kSaid[] = {
      "does not begin with \"QTNX\"; make a model file with the packer",
      "version: found 2147483649, expected 1; pack the network again for this host accelerator",
      "length of the description: found " + std::to_string(0x80000000u + std::stoul(size)) +
          " bytes, expected 1 to 1048576" + damaged,
      "CRC-32: the bytes do not match the checksum; the image is damaged, copy or pack it again",
      "length of the network: " + many};
  for (const std::size_t byte : {0u, 3u, 7u, 11u, 12u, 15u, 19u, 24u}) {
    EXPECT_EQ(kSaid[byte < 20 ? byte / 4 : 3], error_of_image(altered(image, byte, '\x80')))
        << byte;
  }
  for (std::size_t i = 0; i < image.size(); ++i) {
    EXPECT_NE("", error_of_image(altered(image, i, '\x80'))) << i;
  }
  EXPECT_EQ("length of the description: found 0 bytes, expected 1 to 1048576" + damaged,
            error_of_image(with_lengths(image, 0, 4)));
  EXPECT_EQ("length of the description: found 1048577 bytes, expected 1 to 1048576" + damaged,
            error_of_image(with_lengths(image, 1048577, 4)));
  EXPECT_EQ("length of the network: found 0 bytes, expected 1 to 1073741824" + damaged,
            error_of_image(with_lengths(image, 1, 0)));
  EXPECT_EQ("truncated: found " + all + " bytes, the lengths in it announce 1074790424",
            error_of_image(with_lengths(image, 1048576, 1u << 30)));
  EXPECT_EQ("too long: found " + all + " bytes, the lengths in it announce 26",
            error_of_image(with_lengths(image, 1, 1)));
  EXPECT_EQ("truncated: 23 bytes, the fixed part alone has 24",
            error_of([&] { parse_image(image.data(), 23); }));
}

// Both kinds with everything that may stand in them.
Description full_description(OutputKind kind) {
  Description description = small_description(kind);
  description.title = "title";
  description.input.name = "picture";
  description.input.resize = Resize::kLetterboxCentred;
  description.fusion = false;
  description.proof = Proof::kUnproven;
  description.decoded.background = 3;
  description.decoded.emit_classes = false;
  description.decoded.keypoints = "points";
  description.decoded.keypoint_values = 10;
  description.name_pairs = {{"k", "v"}};
  description.class_names = {"person"};
  return description;
}

TEST(HostImage, every_wrong_field_of_a_description_is_named_with_what_is_expected) {
  const Json raw = Json::parse(description_to_json(full_description(OutputKind::kRaw)));
  const Json decoded = Json::parse(description_to_json(full_description(OutputKind::kDecoded)));
  std::ifstream file(OLVEX_PLATFORM_DATA "/descriptions.json");
  const Json data = Json::parse(file), rows = data["wrong"];
  EXPECT_EQ(data["raw"].dump(), raw.dump());
  EXPECT_EQ(data["decoded outputs"].dump(), decoded["outputs"].dump());
  // Kind, JSON pointer, message (none where the description stays right), value (none: the field goes).
  EXPECT_LT(90u, rows.size());
  for (const Json& row : rows) {
    SCOPED_TRACE(row.dump());
    Json tried = row[0] == "raw" ? raw : decoded;
    const Json::json_pointer place(row[1].get<std::string>());
    if (row.size() < 4) {
      tried[place.parent_pointer()].erase(place.back());
    } else {
      tried[place] = row[3];
    }
    const std::string error = error_of([&] {
      EXPECT_EQ(tried, Json::parse(description_to_json(parse_description(tried.dump()))));
    });
    EXPECT_EQ(row[2] == "" ? "" : "description field " + row[2].get<std::string>(), error);
  }
  // What may be left out has a default.
  Json least = decoded;
  least["outputs"].erase("classes");
  EXPECT_FALSE(parse_description(least.dump()).decoded.emit_classes);
  least["outputs"].erase("keypoints");
  EXPECT_TRUE(parse_description(least.dump()).decoded.emit_classes);

  const std::string text = raw.dump();
  const auto replaced = [&text](const std::string& from, const std::string& to) {
    return std::string(text).replace(text.find(from), from.size(), to);
  };
  EXPECT_EQ("description field \"width\": found the field twice, expected each field once",
            error_of([&] { parse_description(replaced("\"width\"", "\"width\":64,\"width\"")); }));
  EXPECT_EQ("the description nests its values more than 16 deep; a right one needs 4 levels",
            error_of([&] { parse_description(std::string(18, '[') + std::string(18, ']')); }));
  EXPECT_EQ(
      "description field \"(whole)\": found [[[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]], expected an object",
      error_of([&] { parse_description(std::string(17, '[') + std::string(17, ']')); }));
  EXPECT_TRUE(mentions(error_of([] { parse_description("{"); }), "the description is not JSON: "));
}

TEST(HostImage, a_description_that_no_text_can_hold_is_not_written) {
  constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
  const std::tuple<void (*)(Description*), const char*> kRows[] = {
      {[](Description* d) { d->input.mean[1] = kNan; },
       "description field \"input.mean[1]\": found nan, expected a finite number"},
      {[](Description* d) { d->input.scale[2] = -INFINITY; },
       "description field \"input.scale[2]\": found -inf, expected a finite number"},
      {[](Description* d) { d->decoded.score_scale = INFINITY; },
       "description field \"outputs.scores.scale\": found inf, expected a finite number"},
      {[](Description* d) { d->decoded.min_score = kNan; },
       "description field \"outputs.min_score\": found nan, expected a finite number"},
      {[](Description* d) { d->output_format = QV_IPU_FORMAT_U8; },
       "description field \"outputs.format\": found another value, expected one of \"FP32\", "
       "\"INT16\""},
      {[](Description* d) { d->title = "\xff"; },
       "the description holds a text that is not UTF-8: "},
  };
  for (const auto& [spoil, message] : kRows) {
    Description description = full_description(OutputKind::kDecoded);
    spoil(&description);
    const std::string error = error_of([&] { build_image(description, kNetwork); });
    EXPECT_EQ(message, error.substr(0, std::strlen(message)));
  }
  Description long_pairs = small_description(OutputKind::kRaw);
  long_pairs.name_pairs = {{"a", std::string(127, 'x')}, {"b", std::string(115, 'x')}};
  EXPECT_EQ(255u, output_tensor_names(long_pairs)[0].size());
  EXPECT_EQ("", error_of([&] { build_image(long_pairs, kNetwork); }));
  long_pairs.name_pairs[1].second += 'x';
  EXPECT_EQ(
      "description field \"name_pairs\": found 256 bytes together with the first output's name, "
      "expected at most 255; shorten the pairs or that name",
      error_of([&] { build_image(long_pairs, kNetwork); }));
}

TEST(HostImage, a_model_file_is_found_behind_its_text_and_refused_by_name) {
  const std::string path = testing::TempDir() + "host_image_" + std::to_string(getpid());
  const std::vector<char> bytes = build_image(small_description(OutputKind::kRaw), kNetwork);
  const std::string image(bytes.begin(), bytes.end());
  const auto error_of_file = [&path](const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
    return error_of([&] { read_image_file(path, nullptr); });
  };
  const std::tuple<std::string, const char*> kRows[] = {
      {"", "no start pattern \"QTNX\" in it; make a model file with the packer"},
      {"model_out:zrpd\n", "no start pattern \"QTNX\" in it; make a model file with the packer"},
      {std::string("a:b\0", 4) + image,
       "a zero byte in the key/value text before \"QTNX\"; the library would stop there"},
      {"a:b\n" + image.substr(0, 10), "truncated: 10 bytes, the fixed part alone has 24"}};
  for (const auto& [content, message] : kRows) {
    EXPECT_EQ(path + ": " + message, error_of_file(content));
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
