// SPDX-License-Identifier: Apache-2.0
// inspect_command.cpp - the subcommand inspect: checks a model file, opens it with the library, and
// reports what the library makes of it, as text or as the JSON of schema/inspect.schema.json.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/host/host_image.h"

#include "tools/common/command.h"
#include "tools/common/json_text.h"
#include "tools/common/options.h"
#include "tools/common/output_file.h"
#include "tools/common/subcommands.h"
#include "tools/common/text.h"
#include "tools/frames/own_files.h"
#include "tools/inside/foreign_platform.h"
#include "tools/inside/library_model.h"
#include "tools/inside/model_facts.h"
#include "tools/inside/network_trial.h"
#include "tools/inspect/inspect.h"

namespace olvex_tools {

namespace {

const char kExamples[] =
    "Examples:\n"
    "  olvex-det inspect people.qtm\n"
    "  olvex-det inspect people.qtm --json | jq .outputs\n"
    "  olvex-det inspect people.qtm --network people.onnx\n"
    "  olvex-det inspect people.onnx\n"
    "The JSON is described in share/olvex-det/schema/inspect.schema.json, that of a network in\n"
    "inspect_network.schema.json.\n"
    "Exit code 1: the file is sound, but the library would find no boxes in its outputs, or pack\n"
    "would refuse the network without further options.";

struct Inspection {
  std::string path;
  std::string platform;           // of --platform; empty: the host accelerator
  std::uint64_t file_size = 0;    // bytes
  std::uint64_t header_size = 0;  // bytes before the start pattern
  qv_host::ImageHeader image;
  qv_host::Description description;
  ModelFacts facts;
};

constexpr int kSchemaVersion = 1;

std::string crc_text(std::uint32_t crc) {
  return format("%08x", static_cast<unsigned>(crc));
}

const char* decoder_name(OutputDecoder decoder) {
  switch (decoder) {
    case kDecoderCpu:
      return "raw";
    case kDecoderIpu:
      return "box_list";
    default:
      return "none";
  }
}

// Where the entries come from that the library goes by.
const char* valid_place(const ModelFacts& facts) {
  if (!facts.name_pairs.empty()) {
    return "name";
  }
  return facts.file_pairs.empty() ? "none" : "file";
}

// ---- Text ---------------------------------------------------------------------------------------

std::string pairs_text(const std::string& label, const Pairs& pairs, bool valid) {
  std::string text;
  for (const Pair& pair : pairs) {
    text += report_line(text.empty() ? label : "",
                        pair.first + ":" + pair.second + (valid ? "" : "   (not used)"));
  }
  return text.empty() ? report_line(label, "none") : text;
}

std::string class_text(int class_id, const std::vector<std::string>& names) {
  const auto index = static_cast<std::size_t>(class_id);
  const bool named = class_id >= 0 && index < names.size() && !names[index].empty();
  return std::to_string(class_id) + (named ? " (" + names[index] + ")" : "");
}

std::string class_map_text(const ModelFacts& facts) {
  const std::string text = join(facts.class_map, ", ", [](const auto& entry) {
    return std::to_string(entry.first) + " to " + std::to_string(entry.second) +
           (entry.second < 0 ? " (hidden)" : "");
  });
  return text.empty() ? "none; class ids stay as they are" : text;
}

std::string double_check_text(const Inspection& inspection) {
  const ModelFacts& facts = inspection.facts;
  if (!facts.double_check_target) {
    return "none; strict mode has no classes to confirm with";
  }
  const std::string text =
      join(facts.double_check_classes, ", ", [](int class_id) { return std::to_string(class_id); });
  return "class " + class_text(*facts.double_check_target, inspection.description.class_names) +
         " confirmed by " + or_none(text);
}

std::string type_text(const DecodingFacts& decoding) {
  const TypeCounts& counts = decoding.counts;
  const std::string classes =
      counts.classes >= 0 ? counted(counts.classes, "class", "classes") : "classes not declared";
  return classes + ", " + counted(counts.keypoints, "key point", "key points") +
         " (from: " + decoding.counts_source + ")";
}

std::string tensor_text(const TensorFacts& tensor) {
  return describe(tensor) + format(", scale %g, ", static_cast<double>(tensor.scale)) +
         counted(tensor.bytes, "byte", "bytes");
}

std::string tensors_text(const std::string& label, const std::vector<TensorFacts>& tensors) {
  std::string text;
  for (std::size_t i = 0; i < tensors.size(); ++i) {
    text += report_line(label + " " + std::to_string(i), tensor_text(tensors[i]));
  }
  return text;
}

std::string decoding_text(const DecodingFacts& decoding) {
  const char* decoder = "none";
  if (decoding.decoder == kDecoderCpu) {
    decoder = "raw layers, decoded on the CPU";
  } else if (decoding.decoder == kDecoderIpu) {
    decoder = "box list, decoded by the accelerator";
  }
  return report_line("decoder", decoder) + report_line("  because", decoding.reason) +
         (decoding.fault.empty() ? "" : report_line("  FAULT", decoding.fault));
}

// ---- JSON ---------------------------------------------------------------------------------------

Json pairs_json(const Pairs& pairs) {
  Json array = Json::array();
  for (const Pair& pair : pairs) {
    array.push_back({{"key", pair.first}, {"value", pair.second}});
  }
  return array;
}

Json tensors_json(const std::vector<TensorFacts>& tensors) {
  Json array = Json::array();
  for (const TensorFacts& tensor : tensors) {
    array.push_back({{"name", tensor.name},
                     {"shape", tensor.shape},
                     {"format", tensor.format},
                     {"scale", tensor.scale},
                     {"bytes", tensor.bytes}});
  }
  return array;
}

Json text_or_null(const std::string& text) {
  return text.empty() ? Json() : Json(text);
}

Json type_json(const ModelFacts& facts) {
  const TypeCounts& counts = facts.decoding.counts;
  return {{"model_out", text_or_null(first_value(facts.valid_pairs, kModelOutKey))},
          {"lib_out", text_or_null(first_value(facts.valid_pairs, kLibOutKey))},
          {"classes", counts.classes >= 0 ? Json(counts.classes) : Json()},
          {"key_points", counts.keypoints},
          {"source", facts.decoding.counts_source}};
}

Json class_map_json(const ModelFacts& facts) {
  Json array = Json::array();
  for (const auto& entry : facts.class_map) {
    array.push_back({{"model", entry.first}, {"library", entry.second}});
  }
  return array;
}

Json double_check_json(const ModelFacts& facts) {
  if (!facts.double_check_target) {
    return Json();
  }
  return {{"target_class", *facts.double_check_target},
          {"with_classes", facts.double_check_classes}};
}

Json decoder_json(const DecodingFacts& decoding) {
  return {{"kind", decoder_name(decoding.decoder)},
          {"reason", decoding.reason},
          {"fault", text_or_null(decoding.fault)}};
}

std::string image_text(const Inspection& inspection) {
  const std::string place = ", at byte " + std::to_string(inspection.header_size);
  if (platform_is_foreign()) {
    return report_line("offline model", "of " + accelerator_name() + place +
                                            "; what it holds is known to that platform alone");
  }
  return report_line("title", or_none(inspection.description.title)) +
         report_line("offline model", "version " + std::to_string(inspection.image.version) +
                                          place + ", CRC-32 " + crc_text(inspection.image.crc) +
                                          " (right)") +
         report_line("", "description " + std::to_string(inspection.image.description_size) +
                             " bytes, network " + std::to_string(inspection.image.network_size) +
                             " bytes");
}

std::string inspection_text(const Inspection& inspection) {
  const ModelFacts& facts = inspection.facts;
  const std::string place = valid_place(facts);
  return report_line("model",
                     inspection.path + ", " + std::to_string(inspection.file_size) + " bytes") +
         image_text(inspection) +
         report_line("working memory", std::to_string(facts.variable_buffer_size) + " bytes") +
         pairs_text("header", facts.file_pairs, place == "file") +
         pairs_text("in first name", facts.name_pairs, place == "name") +
         report_line("type", type_text(facts.decoding)) +
         report_line("class map", class_map_text(facts)) +
         report_line("double check", double_check_text(inspection)) +
         tensors_text("input", facts.inputs) + tensors_text("output", facts.outputs) +
         decoding_text(facts.decoding) + description_text(inspection.description);
}

// Null where only the image's platform knows it.
template <typename Value>
Json unless_foreign(const Value& value) {
  return platform_is_foreign() ? Json() : Json(value);
}

Json image_json(const Inspection& inspection) {
  const qv_host::ImageHeader& image = inspection.image;
  return {{"version", unless_foreign(image.version)},
          {"offset", inspection.header_size},
          {"description_bytes", unless_foreign(image.description_size)},
          {"network_bytes", unless_foreign(image.network_size)},
          {"crc32", unless_foreign(crc_text(image.crc))}};
}

std::string inspection_json(const Inspection& inspection) {
  const ModelFacts& facts = inspection.facts;
  Json json = {
      {"schema_version", kSchemaVersion},
      {"path", inspection.path},
      {"bytes", inspection.file_size},
      {"title", inspection.description.title},
      {"image", image_json(inspection)},
      {"variable_buffer_bytes", facts.variable_buffer_size},
      {"pairs",
       {{"file", pairs_json(facts.file_pairs)},
        {"name", pairs_json(facts.name_pairs)},
        {"valid", valid_place(facts)}}},
      {"type", type_json(facts)},
      {"class_map", class_map_json(facts)},
      {"double_check", double_check_json(facts)},
      {"inputs", tensors_json(facts.inputs)},
      {"outputs", tensors_json(facts.outputs)},
      {"decoder", decoder_json(facts.decoding)},
      {"class_names", inspection.description.class_names},
      {"description", platform_is_foreign()
                          ? Json()
                          : Json::parse(qv_host::description_to_json(inspection.description))}};
  if (platform_is_foreign()) {
    json["platform"] = inspection.platform;
  }
  return json_text(json) + "\n";
}

struct InspectOptions {
  std::string path;
  std::string platform;  // path of a platform's library; empty: the host accelerator
  bool json = false;
  std::string network_path;  // where the network of an image goes
};

Inspection inspect_file(const std::string& path, const std::string& platform) {
  Inspection inspection;
  inspection.path = path;
  inspection.platform = platform;
  std::string text_header;
  const LibraryLog log("");
  const qv_host::Image image = read_model_file(path, &text_header);
  inspection.image = image.header;
  inspection.description = image.description;
  inspection.header_size = text_header.size();
  inspection.file_size = platform_is_foreign()
                             ? std::filesystem::file_size(path)
                             : inspection.header_size + qv_host::image_size(inspection.image);
  require_harmless_network(path, path);
  LibraryModel model(path, path);
  inspection.facts = collect_facts(&model, text_header);
  return inspection;
}

int extract_network(const InspectOptions& options) {
  require_own_files({{"--network", options.network_path}}, {options.path});
  require_writable(options.network_path);
  try {
    const std::vector<char> network = qv_host::read_image_file(options.path, nullptr).network;
    write_output(options.network_path, stdout, {network.begin(), network.end()});
  } catch (const qv_host::ImageError& error) {
    throw ToolError(kModelError, error.what());
  }
  return kDone;
}

int inspect(const InspectOptions& options) {
  if (!options.network_path.empty()) {
    return extract_network(options);
  }
  use_platform(options.platform, "");
  if (!platform_is_foreign() && looks_like_network(options.path)) {
    return inspect_network(options.path, options.json);
  }
  const Inspection inspection = inspect_file(options.path, options.platform);
  print_result(options.json ? inspection_json(inspection) : inspection_text(inspection));
  return inspection.facts.decoding.fault.empty() ? kDone : kCheckFailed;
}

}  // namespace

std::string or_none(const std::string& text) {
  return text.empty() ? "none" : text;
}

std::string report_line(const std::string& label, const std::string& text) {
  return format("%-16s", label.c_str()) + printable(text) + "\n";
}

void add_inspect_command(CLI::App& application, Command* chosen) {
  const auto line = std::make_shared<InspectOptions>();
  OptionTable options(
      &application, "inspect",
      "Check a model file and show how the library decodes it, or look into a network", kExamples,
      chosen, [line] { return inspect(*line); });
  options.add("FILE", "", &line->path, "The model file, or an ONNX network").required();
  const Option json =
      options.flag("--json", &line->json, "Print JSON for programs instead of text");
  const Option platform = add_platform_option(&options, &line->platform);
  options
      .add("--network", "ONNX", &line->network_path,
           "Write the network that the model file holds, and nothing else (- is standard output)")
      .excludes(json)
      .excludes(platform);
}

}  // namespace olvex_tools
