// SPDX-License-Identifier: Apache-2.0
// pack_options.cpp - the options of pack. Declared in pack.h; pack_values.cpp turns texts into values.
#include "tools/pack/pack.h"

#include <map>
#include <memory>

#include "tools/common/output_file.h"
#include "tools/common/subcommands.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

using qv_host::BoxOrder;
using qv_host::ColourOrder;
using qv_host::Resize;

constexpr long kMostCalibrationFrames = 1000000;  // by far: a few hundred settle a scale

const char kExamples[] =
    "Examples:\n"
    "  Any usual detection network; what is concluded and the proof are reported:\n"
    "    olvex-det pack people.onnx -o people.qtm\n"
    "  A network that ends in boxes and scores, fed from the camera's NV12 frames:\n"
    "    olvex-det pack people.onnx -o people.qtm --boxes boxes --scores scores \\\n"
    "      --network-order bgr --scale 1/255\n"
    "  Scores with a background column, mean and scale, class names for people:\n"
    "    olvex-det pack faces.onnx -o faces.qtm --boxes boxes --scores scores \\\n"
    "      --background 0 --mean 127 --scale 1/128 --class-names names.txt\n"
    "  Raw layers, with the type by which the library knows classes and key points:\n"
    "    olvex-det pack street.onnx -o street.qtm --raw stride8 stride16 stride32 \\\n"
    "      --model-out zrpcn --lib-out zrpcn\n"
    "  The same with 16-bit outputs, whose scales a folder of such pictures decides:\n"
    "    olvex-det pack street.onnx -o street.qtm --raw stride8 stride16 stride32 \\\n"
    "      --model-out zrpcn --lib-out zrpcn --int16 --calibrate pictures/\n"
    "  A description to edit, and its use:\n"
    "    olvex-det pack people.onnx --boxes boxes --scores scores --print-description > d.json\n"
    "    olvex-det pack --description d.json people.onnx -o people.qtm\n"
    "Nothing is written unless the library takes the model and a test run succeeds.";

template <typename Value>
using Choices = std::map<std::string, Value>;

template <typename Value>
Value choose(const std::string& option, const std::string& word, const Choices<Value>& choices) {
  const auto found = choices.find(in_lower_case(word));
  if (found != choices.end()) {
    return found->second;
  }
  std::vector<std::string> words;
  for (const auto& choice : choices) {
    words.push_back(choice.first);
  }
  refuse_usage(option + ": \"" + word + "\" is none of " + join(words, ", ") +
               did_you_mean(word, words));
}

// ---- Declaration --------------------------------------------------------------------------------

// The options, and those whose words and numbers are yet to be turned into values.
class Declaration {
 public:
  Declaration(const OptionTable& table, PackOptions* options) : table_(table), options_(*options) {
    table_.add("NETWORK", "", &options_.network_path, "The network, an ONNX file").required();
    table_.add("-o,--output", "IMAGE", &options_.image_path, "The model file to write");
    table_.add("--description", "FILE", &options_.description_path,
               "Begin with this description (JSON); the other options change it");
    table_.flag("--print-description", &options_.print_description,
                "Print the description as JSON and write nothing");
    table_.add("--picture", "FILE", &options_.picture_path,
               "Picture for the test run (default: a generated gradient)");
    table_.add("--save-network", "FILE", &options_.saved_network_path,
               "Also write the network as it was packed, decoding included: an ONNX file for any "
               "other engine");
    table_.flag("--force", &options_.force,
                "Write the model file although its proof failed; it is marked as unproven");
    add_input_options();
    add_head_options();
    add_raw_options();
    add_decoded_options();
    add_element_options();
    add_header_options();
  }

  // Call it after parsing.
  void convert() const {
    for (const Conversion& conversion : conversions_) {
      if (conversion.option.given()) {
        conversion.convert(conversion.option.value());
      }
    }
    options_.head.box_order = options_.box_order;
    options_.head.box_fractions = options_.box_fractions;
    options_.head.background = options_.background;
    options_.head.keypoint_values = options_.keypoint_values;
    options_.head.mean = options_.mean;
    options_.head.scale = options_.scale;
    options_.head.order = options_.network_order;
    options_.head.resize = options_.resize;
    options_.given = table_.given();
    options_.pairs.clear();
    if (model_out_.given()) {
      options_.pairs.emplace_back(kModelOutKey, model_out_.value());
    }
    if (lib_out_.given()) {
      options_.pairs.emplace_back(kLibOutKey, lib_out_.value());
    }
    for (const std::string& text : pair_texts_) {
      options_.pairs.push_back(parse_pair(text));
    }
    check_header(options_.pairs);
  }

 private:
  struct Conversion {
    Option option;
    std::function<void(const std::string&)> convert;
  };

  // An option whose text a function turns into its value.
  template <typename Value, typename Parse>
  void add(const std::string& name, const std::string& type, std::optional<Value>* value,
           const std::string& help, Parse parse) {
    conversions_.push_back(
        {table_.add(name, type, help),
         [name, value, parse](const std::string& text) { *value = parse(name, text); }});
  }

  template <typename Value>
  void add_word(const std::string& name, std::optional<Value>* value, const Choices<Value>& choices,
                const std::string& help) {
    add(name, "WORD", value, help, [choices](const std::string& option, const std::string& text) {
      return choose(option, text, choices);
    });
  }

  void add_number(const std::string& name, std::optional<float>* value, const std::string& help) {
    add(name, "NUMBER", value, help, parse_number);
  }

  void add_three(const std::string& name, std::optional<ThreeNumbers>* value,
                 const std::string& help) {
    add(name, "NUMBER[,..]", value, help, parse_three);
  }

  void add_input_options() {
    table_.group("Input");
    add_word<InputFormat>("--input-format", &options_.input_format,
                          {{"nv12", {QV_IPU_FORMAT_NV12, ColourOrder::kRgb}},
                           {"argb8888", {QV_IPU_FORMAT_ARGB8888, ColourOrder::kRgb}},
                           {"abgr8888", {QV_IPU_FORMAT_ABGR8888, ColourOrder::kRgb}},
                           {"rgb", {QV_IPU_FORMAT_U8, ColourOrder::kRgb}},
                           {"bgr", {QV_IPU_FORMAT_U8, ColourOrder::kBgr}},
                           {"gray", {QV_IPU_FORMAT_GRAY, ColourOrder::kRgb}},
                           {"fp32", {QV_IPU_FORMAT_FP32, ColourOrder::kRgb}}},
                          "What the camera delivers: nv12 (default), argb8888, abgr8888, rgb, bgr, "
                          "gray or fp32");
    add_word<ColourOrder>("--frame-order", &options_.frame_order,
                          {{"rgb", ColourOrder::kRgb}, {"bgr", ColourOrder::kBgr}},
                          "Colour order of fp32 frames: rgb, bgr");
    add("--size", "WxH", &options_.size,
        "Frame and network input in pixels; found from the network when fixed there",
        [](const std::string&, const std::string& text) { return parse_size(text); });
    table_.add("--input", "NAME", &options_.input,
               "The network's input; needed when it has several");
    add_word<ColourOrder>(
        "--network-order", &options_.network_order,
        {{"rgb", ColourOrder::kRgb}, {"bgr", ColourOrder::kBgr}, {"gray", ColourOrder::kGray}},
        "Planes of the network's input: rgb (default), bgr or gray");
    add_word<Resize>("--resize", &options_.resize,
                     {{"stretch", Resize::kStretch},
                      {"letterbox", Resize::kLetterbox},
                      {"letterbox-centred", Resize::kLetterboxCentred}},
                     "How pictures become frames: stretch (default), or with their aspect kept and "
                     "gray at the right or below (letterbox) or on both sides (letterbox-centred)");
    add_three("--mean", &options_.mean,
              "Taken off each channel (0..255) first: one number, or three with commas, in "
              "network order");
    add_three("--scale", &options_.scale,
              "Then multiplied with: like --mean; ratios such as 1/255 are numbers too");
  }

  void add_head_options() {
    HeadOptions& head = options_.head;
    table_.group("Outputs whose decoding pack appends; found from the network where not given");
    std::string families;
    for (const HeadFamily& family : head_families()) {
      families += (families.empty() ? "" : ", ") + family.name;
    }
    add("--head", "FAMILY", &head.family, "One of " + families, parse_family);
    add("--strides", "N,N,..", &head.strides, "Strides of the layers, in order", parse_integers);
    add("--anchors", "SIZES", &head.anchors,
        "Boxes of a cell in pixels, WxH with commas between, and / between strides", parse_sizes);
    add_word<bool>("--row-order", &head.anchors_first, {{"anchors", true}, {"cells", false}},
                   "Of tables with several boxes for each cell: rows go by anchors, of each the "
                   "cells; or by cells, of each the anchors");
    add("--prior-sizes", "SIZES", &head.prior_sizes, "The same for priors; N is a square",
        parse_sizes);
    add("--variances", "N,N", &head.variances, "Of centres and sizes (usual: 0.1,0.2)",
        parse_two_numbers);
    add("--score-powers", "N,N", &head.score_powers,
        "Of objectness and class, whose product is the score", parse_two_numbers);
    add("--class-count", "N", &head.class_count, "Classes, without the background", parse_count);
    add("--bins", "N", &head.bins, "Bins of each distance", parse_count);
    const Choices<Activation> activations = {{"none", Activation::kNone},
                                             {"sigmoid", Activation::kSigmoid},
                                             {"softmax", Activation::kSoftmax}};
    add_word<Activation>("--class-activation", &head.class_activation, activations,
                         "To be applied to the classes: none, sigmoid or softmax");
    add_word<Activation>("--objectness-activation", &head.objectness_activation, activations,
                         "The same for the objectness");
    add_word<Activation>("--keypoint-activation", &head.point_activation, activations,
                         "The same for the scores of key points");
    add_word<CentreCurve>("--centre-curve", &head.centre_curve,
                          {{"none", CentreCurve::kIdentity},
                           {"sigmoid", CentreCurve::kSigmoid},
                           {"tanh", CentreCurve::kTanh},
                           {"twice", CentreCurve::kTwice},
                           {"twice-sigmoid", CentreCurve::kTwiceSigmoid}},
                          "From a value to a centre: none, sigmoid, tanh, twice (2 v - 0.5) or "
                          "twice-sigmoid");
    add_word<SizeCurve>("--size-curve", &head.size_curve,
                        {{"exponential", SizeCurve::kExponential},
                         {"sigmoid", SizeCurve::kSigmoid},
                         {"square", SizeCurve::kSquare},
                         {"square-of-sigmoid", SizeCurve::kSquareOfSigmoid}},
                        "From a value to a size: exponential, sigmoid, square (of 2 v) or "
                        "square-of-sigmoid");
    add("--cell-centre", "NUMBER", &head.cell_centre,
        "Where in a cell its values count from: 0 (upper left corner) or 0.5", parse_place);
    add_word<bool>("--box-axes", &head.y_first, {{"xy", false}, {"yx", true}},
                   "Which coordinate of each corner comes first: xy or yx");
  }

  void add_raw_options() {
    table_.group("Outputs that are raw layers, decoded by the library");
    table_.add("--raw", "OUT", &options_.raw, "The three layers, in order").takes(3);
    add_word<bool>("--layout", &options_.nchw, {{"nchw", true}, {"nhwc", false}},
                   "Layout in the network: nchw (default) or nhwc");
    add_three("--raw-scale", &options_.raw_scale, "With --int16: real value of 1");
  }

  void add_decoded_options() {
    table_.group("Outputs that are boxes and scores, selected by the host accelerator");
    table_.add("--boxes", "NAME", &options_.boxes, "Output of shape 1 x N x 4");
    table_.add("--scores", "NAME", &options_.scores, "Output of shape 1 x N x classes");
    table_.add("--keypoints", "NAME", &options_.keypoints,
               "Output of shape 1 x N x values; leaves out the classes");
    table_.add("--keypoint-values", "N", &options_.keypoint_values,
               "Values of a row: 8, 10 (pairs), 12, 15, 51, 63 (with scores); found from the "
               "network when fixed there");
    add_word<BoxOrder>("--box-order", &options_.box_order,
                       {{"xyxy", BoxOrder::kCornerPairs}, {"cxcywh", BoxOrder::kCentreSize}},
                       "xyxy (default) or cxcywh");
    add_word<bool>("--box-unit", &options_.box_fractions, {{"fractions", true}, {"pixels", false}},
                   "fractions of the input (default) or pixels of it");
    add("--background", "N|none", &options_.background,
        "Score column that is no class, from 0; later columns move down by one", parse_background);
    table_.flag("--classes,!--no-classes", &options_.classes,
                "Hand a class tensor to the library (default), or report everything as class 0");
    table_.add("--max-boxes", "N", &options_.max_boxes, "Candidates kept, 1..32767 (default 1000)");
    table_.add("--min-score", "NUMBER", &options_.min_score,
               "Score that a candidate needs to be handed over (default 0.05)");
    add_number("--box-scale", &options_.box_scale, "With --int16: real value of 1 in boxes");
    add_number("--score-scale", &options_.score_scale, "The same in scores");
    add_number("--keypoint-scale", &options_.keypoint_scale, "The same in key points");
  }

  void add_element_options() {
    table_.group("Element type of the outputs");
    table_.flag("--int16", &options_.int16, "Hand 16-bit integers to the library, not floats");
    table_.add("--calibrate", "PICTURES", &options_.calibration_pictures,
               "With --int16: choose the scales by the largest values that the network "
               "computes on these pictures (a folder, a picture or a video)");
    table_
        .add("--calibrate-limit", "N", &options_.calibration_limit,
             "Frames to calibrate with at most, evenly spread (default " +
                 std::to_string(kUsualCalibrationFrames) + ")")
        .range(1L, kMostCalibrationFrames);
  }

  void add_header_options() {
    table_.group("Header");
    model_out_ = table_.add("--model-out", "WORD",
                            "Output type that the library reads: classes and key points");
    lib_out_ = table_.add("--lib-out", "WORD",
                          "Output type that the library is to present: selects the class mapping");
    table_.add("--pair", "KEY=VALUE", &pair_texts_, "Any other header entry; may be given again")
        .repeats();
    table_.flag("--pairs-in-name", &options_.pairs_in_name,
                "Carry the entries in the first output's name too, for loading from memory");
    table_.add("--title", "TEXT", &options_.title, "A name for people");
    table_.add("--class-names", "FILE", &options_.class_names_path,
               "Names for people, one on each line, by class id");
  }

  OptionTable table_;
  PackOptions& options_;
  Option model_out_;
  Option lib_out_;
  std::vector<std::string> pair_texts_;
  std::vector<Conversion> conversions_;
};

// The library logs unknown words.
void convert_quietly(const std::function<void()>& convert) {
  const LibraryLog log("");
  convert();
}

}  // namespace

std::function<void()> add_pack_options(const OptionTable& table, PackOptions* options) {
  const auto declaration = std::make_shared<Declaration>(table, options);
  return [declaration] { declaration->convert(); };
}

void add_pack_command(CLI::App& application, Command* chosen) {
  const auto options = std::make_shared<PackOptions>();
  const auto convert = std::make_shared<std::function<void()>>();
  OptionTable table(&application, "pack",
                    "Build a model file for the host accelerator from an ONNX network", kExamples,
                    chosen, [options, convert] {
                      convert_quietly(*convert);
                      return pack(*options);
                    });
  *convert = add_pack_options(table, options.get());
}

}  // namespace olvex_tools
