// pack_test.cpp - olvex-det pack and inspect as a user meets them: what is packed comes back, what
// cannot work is refused with a reason, and no failure leaves a file behind.
// Read tiny_onnx.h for the networks.
#include <algorithm>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/support/tiny_onnx.h"
#include "tests/tools/tool_runner.h"

namespace {

using nlohmann::json;
using tool_runner::Outcome;
using Words = std::vector<std::string>;

const Words kDecoded = {"pack",  "boxes.onnx", "-o",     "out.img", "--boxes",
                        "boxes", "--scores",   "scores", "--scale", "1/255"};

std::string text_of(const std::vector<char>& bytes) {
  return {bytes.begin(), bytes.end()};
}

Words with(Words words, const Words& more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

const Words kLayers = {"--raw", "stride8", "stride16", "stride32", "--scale", "1/255"};
const Words kRaw = with({"pack", "raw.onnx", "-o", "out.img"}, kLayers);

class Tool : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_.write("raw.onnx", text_of(tiny_onnx::raw_network(64, 64, false)));
    folder_.write("channels_last.onnx", text_of(tiny_onnx::raw_network(64, 64, true)));
    folder_.write("boxes.onnx", text_of(tiny_onnx::decoded_network(64, 32, 0)));
    folder_.write("points.onnx", text_of(tiny_onnx::decoded_network(64, 32, 15)));
    folder_.write("pixels.onnx", text_of(tiny_onnx::pixel_network(64, 64, 3)));
    folder_.write("names.txt", "person\r\nbicycle\ncar\n\n");
  }

  void pack(const Words& arguments) {
    const Outcome packed = folder_.run(arguments);
    ASSERT_EQ(packed.exit_code, 0) << packed.err;
    // The library's own log begins every line so.
    EXPECT_EQ(packed.out.find("DLA_"), std::string::npos) << packed.out;
  }

  json inspect() {
    const Outcome outcome = folder_.run({"inspect", "out.img", "--json"});
    EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
    return json::parse(outcome.out);
  }

  tool_runner::ScratchFolder folder_;
};

using Pack = Tool;
using Inspect = Tool;
using CommandLine = Tool;

TEST_F(Pack, RawLayersComeBackFromInspectAsPacked) {
  pack(with(kRaw, {"--int16", "--raw-scale", "1/256", "--model-out", "zrfsd", "--lib-out", "zrpd",
                   "--pair", "maker=we", "--title", "two classes", "--size", "64x64"}));
  const json found = inspect();
  EXPECT_EQ(found["title"], "two classes");
  EXPECT_EQ(found["pairs"]["file"], json::parse(R"([{"key": "model_out", "value": "zrfsd"},
                            {"key": "lib_out", "value": "zrpd"},
                            {"key": "maker", "value": "we"}])"));
  EXPECT_EQ(found["pairs"]["valid"], "file");
  EXPECT_EQ(found["type"], json::parse(R"({"model_out": "zrfsd", "lib_out": "zrpd", "classes": 2,
                                           "key_points": 0, "source": "model_out"})"));
  EXPECT_EQ(found["class_map"],
            json::parse(R"([{"model": 1, "library": -1}, {"model": 2, "library": -2}])"));
  EXPECT_EQ(found["double_check"], json::parse(R"({"target_class": 0, "with_classes": [1, 2]})"));
  EXPECT_EQ(found["decoder"]["kind"], "raw");
  EXPECT_EQ(found["inputs"][0]["format"], "NV12");
  EXPECT_EQ(found["outputs"][1], json::parse(R"({"name": "stride16", "shape": [1, 4, 4, 6],
      "format": "INT16", "scale": 0.00390625, "bytes": 192})"));
}

TEST_F(Pack, PairsInTheFirstNameReplaceThoseOfTheFile) {
  pack(with(kRaw, {"--model-out", "zrfsd", "--pairs-in-name"}));
  // The same image behind another header, as someone may have edited it.
  const std::string image = folder_.read("out.img");
  folder_.write("out.img", "model_out:zrpcn\n" + image.substr(image.find("QTNX")));
  const json found = inspect();
  EXPECT_EQ(found["pairs"]["valid"], "name");
  EXPECT_EQ(found["type"]["model_out"], "zrfsd");
  EXPECT_EQ(found["image"]["offset"], 16);
}

TEST_F(Pack, ChannelsLastLayersAreTakenWithTheirLayout) {
  pack(with(
      {"pack", "channels_last.onnx", "-o", "out.img", "--layout", "nhwc", "--input-format", "bgr"},
      kLayers));
  const json found = inspect();
  EXPECT_EQ(found["outputs"][2]["shape"], json({1, 2, 2, 6}));
  EXPECT_EQ(found["type"]["source"], "channels");
}

TEST_F(Pack, BoxListsTakeTheLayoutThatTheOptionsAskFor) {
  struct Case {
    const char* network;
    Words options;
    std::size_t outputs;
    std::string third;
    int key_points;
  };
  const Case cases[] = {{"boxes.onnx", {}, 5, "scores", 0},
                        {"boxes.onnx", {"--no-classes"}, 4, "indices", 0},
                        {"points.onnx", {"--keypoints", "points"}, 5, "points", 5}};
  for (const Case& expected : cases) {
    SCOPED_TRACE(expected.third);
    Words words = with(kDecoded, expected.options);
    words[1] = expected.network;
    pack(with(words, {"--max-boxes", "7", "--background", "0"}));
    const json found = inspect();
    EXPECT_EQ(found["decoder"]["kind"], "box_list");
    ASSERT_EQ(found["outputs"].size(), expected.outputs);
    EXPECT_EQ(found["outputs"][2]["name"], expected.third);
    EXPECT_EQ(found["outputs"][0]["shape"][2], 7);
    EXPECT_EQ(found["type"]["key_points"], expected.key_points);
    EXPECT_EQ(found["description"]["outputs"]["scores"]["background"], 0);
  }
}

TEST_F(Pack, APrintedDescriptionPacksTheSameImageAgain) {
  const Words options = {"--class-names", "names.txt",       "--box-order", "cxcywh",
                         "--box-unit",    "pixel",           "--mean",      "1,2.5,3",
                         "--int16",       "--input-format",  "argb8888",    "--min-score",
                         "0.25",          "--network-order", "bgr"};
  pack(with(kDecoded, options));
  const std::string first = folder_.read("out.img");
  const Outcome printed = folder_.run(with(with(kDecoded, options), {"--print-description"}));
  ASSERT_EQ(printed.exit_code, 0) << printed.err;
  EXPECT_EQ(json::parse(printed.out)["class_names"], json({"person", "bicycle", "car"}));
  folder_.write("description.json", printed.out);
  pack({"pack", "--description", "description.json", "boxes.onnx", "-o", "out.img"});
  EXPECT_EQ(folder_.read("out.img"), first);
}

struct Refusal {
  const char* name;
  Words arguments;
  int exit_code;
  Words said;  // words that the message holds
};

void PrintTo(const Refusal& refusal, std::ostream* out) {
  *out << refusal.name;
}

class PackRefusal : public Tool, public ::testing::WithParamInterface<Refusal> {};

// Each case leaves the former image as it was and nothing beside it.
TEST_P(PackRefusal, SaysWhyAndChangesNoFile) {
  folder_.write("out.img", "the former image");
  const Words before = folder_.names();
  const Outcome outcome = folder_.run(GetParam().arguments);
  EXPECT_EQ(outcome.exit_code, GetParam().exit_code);
  for (const std::string& words : GetParam().said) {
    EXPECT_NE(outcome.err.find(words), std::string::npos) << words << "\nnot in: " << outcome.err;
  }
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(folder_.read("out.img"), "the former image");
  EXPECT_EQ(folder_.names(), before);
}

const Refusal kRefusals[] = {
    {"OutputsNotSaid", {"pack", "raw.onnx", "-o", "out.img"}, 2, {"--boxes", "stride32 1x6x2x2"}},
    {"RawAndBoxes", with(kRaw, {"--boxes", "boxes"}), 2, {"--raw excludes"}},
    {"StrayOption", with(kRaw, {"--background", "0"}), 2, {"--background is for --boxes"}},
    {"UnknownWord", with(kRaw, {"--layout", "nhcw"}), 2, {"nhcw", "Did you mean n"}},
    {"NoNumber", with(kRaw, {"--mean", "1,x,2"}), 2, {"--mean", "\"x\" is no number"}},
    {"NoSize", with(kRaw, {"--size", "64"}), 2, {"--size", "640x384"}},
    {"UnknownType", with(kRaw, {"--model-out", "zrpcnn"}), 2, {"Did you mean zrpcn?", "zrpcncdhf"}},
    {"PairWithoutEquals", with(kRaw, {"--pair", "a"}), 2, {"KEY=VALUE"}},
    {"PairWithColon", with(kRaw, {"--pair", "a:b=c"}), 2, {"the key \"a:b\"", "':'"}},
    {"PairWithNewline", with(kRaw, {"--pair", "a=b\nc"}), 2, {"newline"}},
    {"PairWithPattern", with(kRaw, {"--pair", "a=QTNX"}), 2, {"starts the offline model"}},
    {"PairTooLong", with(kRaw, {"--pair", "a=" + std::string(128, 'x')}), 2, {"128 bytes", "127"}},
    {"EmptyValue", with(kRaw, {"--lib-out", ""}), 2, {"is empty"}},
    {"TargetIsNetwork",
     with({"pack", "raw.onnx", "-o", "raw.onnx"}, kLayers),
     2,
     {"the network itself"}},
    {"OutOfRange", with(kDecoded, {"--max-boxes", "0"}), 2, {"max_boxes", "32767"}},
    {"WrongOutputName",
     {"pack", "raw.onnx", "-o", "out.img", "--raw", "stride8", "stride16", "strid32"},
     3,
     {"\"strid32\"", "stride8 1x6x8x8", "Did you mean stride32?"}},
    {"TypeContradictsChannels",
     with(kRaw, {"--model-out", "zrpcn"}),
     3,
     {"zrpcn", "10 channels", "have 6", "zrfsd"}},
    {"UnknownChannels",
     {"pack", "pixels.onnx", "-o", "out.img", "--raw", "pixels0", "pixels1", "pixels2"},
     3,
     {"3 channels", "5, 6, 7, 8, 10", "zrlpd"}},
    {"WrongLayout", with(kRaw, {"--layout", "nhwc"}), 3, {"3 raw layers", "--layout"}},
    {"WrongSize", with(kRaw, {"--size", "32x32"}), 3, {"32x32", "1x3x64x64"}},
    {"WrongPlanes", with(kRaw, {"--network-order", "gray"}), 3, {"3 planes"}},
    {"BackgroundBeyondScores", with(kDecoded, {"--background", "9"}), 3, {"9", "3 columns"}},
    {"RawLayersAsBoxes",
     {"pack", "raw.onnx", "-o", "out.img", "--boxes", "stride8", "--scores", "stride16"},
     3,
     {"1x6x8x8"}},
    {"NoNetwork", {"pack", "names.txt", "-o", "out.img"}, 3, {"not an ONNX network"}},
    {"MissingNetwork", {"pack", "none.onnx", "-o", "out.img"}, 4, {"none.onnx", "No such file"}},
    {"NoPicture", with(kRaw, {"--picture", "names.txt"}), 4, {"names.txt", "picture"}},
    {"NoTargetFolder",
     with({"pack", "raw.onnx", "-o", "none/out.img"}, kLayers),
     4,
     {"none/out.img", "No such file"}},
    {"DescriptionNotJson",
     {"pack", "raw.onnx", "-o", "out.img", "--description", "names.txt"},
     4,
     {"names.txt", "JSON"}},
};

INSTANTIATE_TEST_SUITE_P(Cases, PackRefusal, ::testing::ValuesIn(kRefusals),
                         [](const auto& refusal) { return std::string(refusal.param.name); });

TEST_F(Pack, AWriteThatFailsHalfwayLeavesTheFormerImage) {
  folder_.write("out.img", "the former image");
  const Words before = folder_.names();
  const Outcome outcome = folder_.run(kRaw, 700);
  EXPECT_EQ(outcome.exit_code, 4) << outcome.err;
  EXPECT_NE(outcome.err.find("cannot write out.img"), std::string::npos) << outcome.err;
  EXPECT_EQ(folder_.read("out.img"), "the former image");
  EXPECT_EQ(folder_.names(), before);
}

// Every field that the schema requires is there and of its type, and no field is undocumented.
void expect_fits(const json& schema, const json& value, const json& root, const std::string& path) {
  if (schema.contains("$ref")) {
    const std::string reference = schema["$ref"];
    expect_fits(root.at(json::json_pointer(reference.substr(1))), value, root, path);
    return;
  }
  if (schema.contains("enum")) {
    const json& words = schema["enum"];
    EXPECT_NE(std::find(words.begin(), words.end(), value), words.end()) << path << ": " << value;
  }
  const json types = schema.value("type", json(value.type_name()));
  const std::string type = value.is_number_integer() ? "integer" : value.type_name();
  const bool type_fits = types == type || (types == "number" && value.is_number()) ||
                         (types.is_array() && std::count(types.begin(), types.end(), type) > 0) ||
                         schema.contains("const");
  EXPECT_TRUE(type_fits) << path << " is a " << type << ", the schema says " << types;
  for (std::size_t i = 0; value.is_array() && i < value.size(); ++i) {
    expect_fits(schema["items"], value[i], root, path + "[" + std::to_string(i) + "]");
  }
  if (!value.is_object() || !schema.contains("properties")) {
    return;
  }
  for (const std::string name : schema["required"]) {
    EXPECT_TRUE(value.contains(name)) << path << " lacks " << name;
  }
  for (const auto& field : value.items()) {
    ASSERT_TRUE(schema["properties"].contains(field.key())) << path << "." << field.key();
    expect_fits(schema["properties"][field.key()], field.value(), root, path + "." + field.key());
  }
}

TEST_F(Inspect, JsonFollowsTheSchema) {
  std::ifstream file(OLVEX_SCHEMA_FOLDER "/inspect.schema.json");
  const json schema = json::parse(file);
  pack(with(kRaw, {"--model-out", "zrfsd", "--lib-out", "zrpd", "--class-names", "names.txt"}));
  expect_fits(schema, inspect(), schema, "");
  pack(kDecoded);
  expect_fits(schema, inspect(), schema, "");
}

TEST_F(Inspect, ASoundFileThatTheLibraryCannotDecodeIsReportedWithCode1) {
  pack(kRaw);
  folder_.write("out.img", "model_out:zrlpd\n" + folder_.read("out.img"));
  const Outcome outcome = folder_.run({"inspect", "out.img"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_NE(outcome.out.find("17 or 13 channels"), std::string::npos) << outcome.out;
}

TEST_F(Inspect, DamageIsToldFromAMissingFile) {
  pack(kRaw);
  std::string image = folder_.read("out.img");
  image[image.size() / 2] = static_cast<char>(image[image.size() / 2] ^ 1);
  folder_.write("damaged.img", image);
  folder_.write("short.img", image.substr(0, image.size() - 1));
  const Refusal cases[] = {{"", {"inspect", "damaged.img"}, 3, {"damaged.img", "CRC-32"}},
                           {"", {"inspect", "short.img"}, 3, {"truncated"}},
                           {"", {"inspect", "names.txt"}, 3, {"QTNX"}},
                           {"", {"inspect", "none.img"}, 4, {"none.img", "No such file"}}};
  for (const Refusal& expected : cases) {
    const Outcome outcome = folder_.run(expected.arguments);
    EXPECT_EQ(outcome.exit_code, expected.exit_code) << outcome.err;
    for (const std::string& words : expected.said) {
      EXPECT_NE(outcome.err.find(words), std::string::npos) << words << "\nnot in: " << outcome.err;
    }
  }
}

TEST_F(CommandLine, MisspeltWordsAreAnsweredWithTheNearestName) {
  const struct {
    Words arguments;
    std::string said;
  } cases[] = {{{"pcak"}, "olvex-det: unknown subcommand \"pcak\". Did you mean pack?"},
               {with(kRaw, {"--titel", "x"}), "unknown option \"--titel\". Did you mean --title?"},
               {{"inspect", "a", "--jsn"}, "unknown option \"--jsn\". Did you mean --json?"},
               {{"inspect", "--wholly-different", "a"}, "unknown option \"--wholly-different\".\n"},
               {{"--versoin"}, "Did you mean --version?"},
               {{"inspect", "a", "b"}, "unexpected argument \"b\""},
               {{}, "subcommand is required"}};
  for (const auto& expected : cases) {
    const Outcome outcome = folder_.run(expected.arguments);
    EXPECT_EQ(outcome.exit_code, 2) << outcome.err;
    EXPECT_NE(outcome.err.find(expected.said), std::string::npos)
        << expected.said << "\nnot in: " << outcome.err;
    EXPECT_EQ(outcome.out, "");
  }
}

TEST_F(CommandLine, HelpAndVersionGoToStandardOutput) {
  for (const Words& arguments :
       {Words{"--help"}, Words{"pack", "--help"}, Words{"inspect", "-h"}}) {
    const Outcome outcome = folder_.run(arguments);
    EXPECT_EQ(outcome.exit_code, 0);
    EXPECT_NE(outcome.out.find("Examples:"), std::string::npos) << outcome.out;
  }
  EXPECT_NE(folder_.run({"--version"}).out.find("libolvex_det release version: "),
            std::string::npos);
}

}  // namespace
