// SPDX-License-Identifier: Apache-2.0
// run_outputs.cpp - opens, feeds and completes the outputs of a run.
#include "tools/run/run.h"

#include <algorithm>
#include <map>

#include "tools/common/command.h"
#include "tools/common/output_file.h"
#include "tools/frames/own_files.h"
#include "tools/frames/picture_writers.h"

namespace olvex_tools {

namespace {

std::vector<OutputOption> output_options(const OutputOptions& options) {
  return {{"--jsonl", options.json_lines},
          {"--mot", options.mot},
          {"--coco", options.coco},
          {"--summary-json", options.summary},
          {"--video", options.video},
          {"--pictures", options.pictures},
          {"--contact-sheet", options.contact_sheet},
          {"--trace", options.trace}};
}

// Those that frames are written to.
constexpr std::string OutputOptions::*kPaths[] = {
    &OutputOptions::json_lines, &OutputOptions::mot,      &OutputOptions::coco,
    &OutputOptions::video,      &OutputOptions::pictures, &OutputOptions::contact_sheet};

std::string with_name(std::string path, const std::string& name) {
  constexpr std::size_t kLength = sizeof kInputName - 1;
  for (std::size_t place = 0; (place = path.find(kInputName, place)) != std::string::npos;) {
    path.replace(place, kLength, name);
    place += name.size();
  }
  return path;
}

// Why one file cannot hold the frames of several inputs; empty where it can.
std::string conflict(const std::string& option) {
  if (option == "--mot") {
    return "its rows have no place for the input that they are of";
  }
  if (option == "--coco") {
    return "image ids of different inputs would be the same";
  }
  if (option == "--video") {
    return "a video has one clock";
  }
  return option == "--pictures" ? "pictures of different inputs would have the same name" : "";
}

void require_different_names(const std::vector<RunInput>& inputs) {
  std::map<std::string, std::string> seen;
  for (const RunInput& input : inputs) {
    const auto [other, is_new] = seen.emplace(input.name, input.shown);
    if (!is_new) {
      refuse_usage(
          other->second + " and " + input.shown + " are both called " + input.name +
          ", so that {name} would be one file for both. Run them one by one, or rename one");
    }
  }
}

}  // namespace

bool is_own(const std::string& path) {
  return path.find(kInputName) != std::string::npos;
}

bool uses_standard_output(const OutputOptions& options) {
  const std::vector<OutputOption> outputs = output_options(options);
  return std::any_of(outputs.begin(), outputs.end(),
                     [](const OutputOption& output) { return output.path == kStandardOutput; });
}

OutputOptions own_outputs(const OutputOptions& options, const std::string& input_name) {
  OutputOptions own = options;
  for (const auto path : kPaths) {
    own.*path = is_own(own.*path) ? with_name(own.*path, input_name) : "";
  }
  own.summary = own.trace = "";
  return own;
}

OutputOptions shared_outputs(const OutputOptions& options) {
  OutputOptions shared = options;
  for (const auto path : kPaths) {
    shared.*path = is_own(shared.*path) ? "" : shared.*path;
  }
  return shared;
}

void require_outputs_fit(const OutputOptions& options, const std::vector<RunInput>& inputs) {
  bool any_own = false;
  for (const OutputOption& output : output_options(options)) {
    any_own = any_own || is_own(output.path);
    if (is_own(output.path) && (output.name == "--summary-json" || output.name == "--trace")) {
      refuse_usage(output.name + " " + output.path + ": it is of the whole run. Leave out {name}");
    }
    const std::string reason = conflict(output.name);
    if (inputs.size() > 1 && !output.path.empty() && !is_own(output.path) && !reason.empty()) {
      refuse_usage(output.name + " " + output.path + " cannot hold " +
                   std::to_string(inputs.size()) + " inputs: " + reason +
                   ". Write {name} into the path, for a file of each input");
    }
  }
  if (any_own) {
    require_different_names(inputs);
  }
}

void require_separate_files(const OutputOptions& options, const std::string& log,
                            const std::vector<RunInput>& inputs,
                            const std::vector<std::string>& read_paths) {
  std::vector<std::string> read = paths_of(inputs);
  read.insert(read.end(), read_paths.begin(), read_paths.end());
  for (const RunInput& input : inputs) {
    std::vector<OutputOption> outputs = output_options(shared_outputs(options));
    const std::vector<OutputOption> own = output_options(own_outputs(options, input.name));
    outputs.insert(outputs.end(), own.begin(), own.end());
    outputs.push_back({"--log", log, true});
    require_own_files(outputs, read);
  }
}

RunOutputs::RunOutputs(const OutputOptions& options, FILE* standard_output,
                       const std::vector<std::string>& class_names, double frames_per_second,
                       const std::function<void(const std::string&)>& notice)
    : class_names_(class_names), drawing_(options.drawing) {
  if (!options.json_lines.empty()) {
    writers_.push_back(make_json_lines_writer(options.json_lines, standard_output, class_names_));
  }
  if (!options.mot.empty()) {
    writers_.push_back(make_mot_writer(options.mot, standard_output, options.whole_pixels));
  }
  if (!options.coco.empty()) {
    writers_.push_back(make_coco_writer(options.coco, standard_output, options.whole_pixels));
  }
  const std::size_t without_pictures = writers_.size();
  if (!options.video.empty()) {
    writers_.push_back(make_video_writer(options.video, frames_per_second, notice));
  }
  if (!options.pictures.empty()) {
    writers_.push_back(make_folder_writer(options.pictures, options.picture_extension));
  }
  if (!options.contact_sheet.empty()) {
    writers_.push_back(make_contact_sheet_writer(options.contact_sheet, options.contact_frames));
  }
  needs_picture_ = writers_.size() > without_pictures;
}

void RunOutputs::write(const FrameRecord& record, const cv::Mat& picture) {
  FramePicture frame(record, class_names_, picture, drawing_);
  for (const auto& writer : writers_) {
    writer->write(&frame);
  }
}

std::vector<ToolError> RunOutputs::finish() {
  std::vector<ToolError> failures;
  for (const auto& writer : writers_) {
    try {
      writer->finish();
    } catch (...) {
      failures.push_back(caught_error());
    }
  }
  return failures;
}

}  // namespace olvex_tools
