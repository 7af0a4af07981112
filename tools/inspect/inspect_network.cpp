// SPDX-License-Identifier: Apache-2.0
// inspect_network.cpp - what an ONNX network holds, which rewrites pack would make, what the engine lacks, and
// which head pack would conclude.
#include "tools/inspect/inspect.h"

#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/common/command.h"
#include "tools/common/output_file.h"
#include "tools/common/text.h"
#include "tools/common/whole_file.h"
#include "tools/frames/frame_source.h"
#include "tools/inside/network_head.h"
#include "tools/inside/network_trial.h"
#include "tools/network/loadable.h"
#include "tools/network/network_graph.h"
#include "tools/network/selection_tail.h"

namespace olvex_tools {

namespace {

using Json = nlohmann::ordered_json;

constexpr int kSchemaVersion = 1;

// What pack would conclude without options.
struct HeadSuggestion {
  std::string family;              // empty: none, or more than one
  std::vector<std::string> facts;  // of the only one
  std::vector<std::string> commands;
  std::string fault;  // why there is not exactly one
};

struct NetworkReport {
  std::string path;
  std::size_t bytes = 0;
  std::string producer;
  std::int64_t opset = 0;
  std::vector<NetworkTensor> inputs;
  std::vector<NetworkTensor> outputs;
  std::map<std::string, int> operators;
  std::map<std::string, std::string> metadata;
  std::string open;      // why pack cannot fix the sizes by itself; empty when it can
  std::string obstacle;  // why it cannot cut a selection of boxes off; empty when it can
  std::vector<std::string> rewrites;
  std::vector<MissingOperator> missing;
  HeadSuggestion head;
};

std::string producer_of(const onnx::ModelProto& model) {
  return model.producer_name() +
         (model.producer_version().empty() ? "" : " " + model.producer_version());
}

std::map<std::string, int> count_operators(const NetworkGraph& network) {
  std::map<std::string, int> counts;
  for (const onnx::NodeProto& node : network.model().graph().node()) {
    const bool is_standard = node.domain().empty() || node.domain() == "ai.onnx";
    ++counts[(is_standard ? "" : node.domain() + ".") + node.op_type()];
  }
  return counts;
}

NetworkReport report_of(const std::string& path, const std::vector<char>& bytes) {
  NetworkGraph network(path, bytes);
  NetworkReport report;
  report.path = path;
  report.bytes = bytes.size();
  report.producer = producer_of(network.model());
  report.opset = network.opset();
  report.inputs = network.inputs();
  report.outputs = network.outputs();
  report.operators = count_operators(network);
  report.metadata = network.metadata();
  try {
    report.rewrites = make_static(std::nullopt, &network);
  } catch (const ToolError& error) {
    report.open = error.what();
    report.missing = missing_operators(network);
    return report;
  }
  const SelectionCut cut = cut_selection(&network);
  report.obstacle = cut.obstacle;
  report.rewrites.insert(report.rewrites.end(), cut.lines.begin(), cut.lines.end());
  const std::vector<std::string> engine = fit_to_engine(&network);
  report.rewrites.insert(report.rewrites.end(), engine.begin(), engine.end());
  report.missing = missing_operators(network);
  return report;
}

// The image goes into the current folder.
std::string pack_command(const std::string& path, const std::string& options) {
  const std::string name = path.substr(path.rfind('/') + 1);
  const std::string image = name.substr(0, name.rfind(".onnx")) + ".qtm";
  return "olvex-det pack " + shell_word(path) + " -o " + shell_word(image) +
         (options.empty() ? "" : " ") + options;
}

HeadSuggestion suggestion_of(const std::string& path, const SelectionCut& cut,
                             const NetworkGraph& network) {
  HeadSuggestion suggestion;
  HeadRequest request;
  request.selection = cut.selection;
  if (cut.decoded_tables) {
    request.options.family = kDecodedTables;
  }
  const NetworkHead head = conclude_network_head(request, network, street_picture());
  for (const HeadReading& reading : head.readings) {
    suggestion.commands.push_back(pack_command(path, options_of(reading)));
  }
  if (head.readings.empty()) {
    suggestion.fault = no_head_text(network, head, std::nullopt);
  } else if (head.readings.size() > 1) {
    suggestion.fault = "can be read in " + std::to_string(head.readings.size()) + " ways";
  } else {
    suggestion.family = head.readings.front().head.family;
    for (const HeadFact& fact : head.readings.front().facts) {
      suggestion.facts.push_back(fact.text);
    }
  }
  return suggestion;
}

// What is wrong with the network, but for missing operators, becomes the suggestion's fault.
HeadSuggestion suggest_head(const NetworkReport& report, const std::vector<char>& bytes) {
  HeadSuggestion suggestion;
  if (!report.open.empty()) {
    suggestion.fault = report.open;
    suggestion.commands = {pack_command(report.path, "--size WIDTHxHEIGHT")};
  } else if (!report.obstacle.empty()) {
    suggestion.fault = one_line(report.obstacle);
  } else if (!report.missing.empty()) {
    suggestion.fault = "not looked for, as the engine cannot run the network";
  } else {
    const LibraryLog log("");
    silence_opencv();
    try {
      NetworkGraph network(report.path, bytes);
      make_static(std::nullopt, &network);
      const SelectionCut cut = cut_selection(&network);
      suggestion = suggestion_of(report.path, cut, network);
    } catch (const ToolError& error) {
      if (error.exit_code() == kInterrupted) {
        throw;
      }
      suggestion.fault = error.what();
    }
  }
  return suggestion;
}

// ---- Text ---------------------------------------------------------------------------------------

std::string lines(const std::string& label, const std::vector<std::string>& texts) {
  std::string report;
  for (const std::string& text : texts) {
    report += report_line(report.empty() ? label : "", one_line(text));
  }
  return report.empty() ? report_line(label, "none") : report;
}

std::vector<std::string> described(const std::vector<NetworkTensor>& tensors) {
  std::vector<std::string> texts;
  for (const NetworkTensor& tensor : tensors) {
    texts.push_back(describe(tensor));
  }
  return texts;
}

std::string operators_text(const std::map<std::string, int>& operators) {
  std::vector<std::string> texts;
  for (const auto& [name, count] : operators) {
    texts.push_back(name + " " + std::to_string(count));
  }
  return join(texts, ", ");
}

std::vector<std::string> metadata_lines(const std::map<std::string, std::string>& metadata) {
  constexpr std::size_t kLetters = 80;
  std::vector<std::string> texts;
  for (const auto& [key, value] : metadata) {
    texts.push_back(key + ": " + shortened(value, kLetters, "..."));
  }
  return texts;
}

std::vector<std::string> missing_lines(const std::vector<MissingOperator>& missing) {
  std::vector<std::string> texts;
  for (const MissingOperator& entry : missing) {
    texts.push_back(entry.name + ", " + counted(entry.count, "node", "nodes") + " from \"" +
                    entry.first_node + "\" on. " + entry.remedy);
  }
  return texts;
}

std::string head_text(const HeadSuggestion& head) {
  std::vector<std::string> texts = head.facts;
  if (head.fault.empty()) {
    texts.insert(texts.begin(), head.family);
  } else {
    texts = split("none: " + head.fault, '\n');
  }
  return lines("head", texts) + (head.commands.empty() ? "" : lines("pack it with", head.commands));
}

std::string report_text(const NetworkReport& report) {
  std::vector<std::string> rewrites = report.rewrites;
  if (!report.open.empty()) {
    rewrites.push_back(report.open);
  }
  return report_line("network", report.path + ", " + std::to_string(report.bytes) + " bytes") +
         report_line("operators of",
                     "version " + std::to_string(report.opset) +
                         (report.producer.empty() ? "" : ", by " + report.producer)) +
         lines("input", described(report.inputs)) + lines("output", described(report.outputs)) +
         report_line("operators", operators_text(report.operators)) +
         lines("metadata", metadata_lines(report.metadata)) + lines("pack rewrites", rewrites) +
         lines("engine lacks", missing_lines(report.missing)) + head_text(report.head);
}

// ---- JSON ---------------------------------------------------------------------------------------

Json tensors_json(const std::vector<NetworkTensor>& tensors) {
  Json array = Json::array();
  for (const NetworkTensor& tensor : tensors) {
    Json shape = Json::array();
    for (const std::int64_t size : tensor.shape) {
      shape.push_back(size > 0 ? Json(size) : Json());
    }
    array.push_back({{"name", tensor.name}, {"shape", shape}});
  }
  return array;
}

Json text_or_null(const std::string& text) {
  return text.empty() ? Json() : Json(text);
}

std::string report_json(const NetworkReport& report) {
  Json missing = Json::array();
  for (const MissingOperator& entry : report.missing) {
    missing.push_back({{"operator", entry.name},
                       {"first_node", entry.first_node},
                       {"nodes", entry.count},
                       {"remedy", entry.remedy}});
  }
  const Json json = {{"schema_version", kSchemaVersion},
                     {"path", report.path},
                     {"bytes", report.bytes},
                     {"opset", report.opset},
                     {"producer", report.producer},
                     {"inputs", tensors_json(report.inputs)},
                     {"outputs", tensors_json(report.outputs)},
                     {"operators", report.operators},
                     {"metadata", report.metadata},
                     {"open_sizes", text_or_null(report.open)},
                     {"rewrites", report.rewrites},
                     {"missing_operators", missing},
                     {"head",
                      {{"family", text_or_null(report.head.family)},
                       {"facts", report.head.facts},
                       {"commands", report.head.commands},
                       {"fault", text_or_null(report.head.fault)}}}};
  // Names from a file may be in any encoding; a replaced character beats no report.
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

bool looks_like_network(const std::string& path) {
  // The version of the format, which comes first; no text before an image begins with this byte.
  constexpr int kFirstByte = 0x08;
  std::FILE* const file = std::fopen(path.c_str(), "rbe");
  if (file == nullptr) {
    return false;
  }
  const int first = std::fgetc(file);
  std::fclose(file);
  return first == kFirstByte;
}

int inspect_network(const std::string& path, bool as_json) {
  const std::vector<char> bytes = read_whole_file("the network", path);
  require_harmless_reading(path, bytes.size(), [&] { report_of(path, bytes); });
  NetworkReport report = report_of(path, bytes);
  report.head = suggest_head(report, bytes);
  print_result(as_json ? report_json(report) : report_text(report));
  return report.head.fault.empty() ? kDone : kCheckFailed;
}

}  // namespace olvex_tools
