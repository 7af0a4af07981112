// SPDX-License-Identifier: Apache-2.0
// run_outputs.cpp - opens, feeds and completes the outputs of a run.
#include "tools/run/run.h"

#include <algorithm>

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
          {"--contact-sheet", options.contact_sheet}};
}

}  // namespace

bool uses_standard_output(const OutputOptions& options) {
  const std::vector<OutputOption> outputs = output_options(options);
  return std::any_of(outputs.begin(), outputs.end(),
                     [](const OutputOption& output) { return output.path == kStandardOutput; });
}

void require_separate_files(const OutputOptions& options, const std::string& log,
                            const std::vector<std::string>& read_paths) {
  std::vector<OutputOption> outputs = output_options(options);
  outputs.push_back({"--log", log, true});
  require_own_files(outputs, read_paths);
}

RunOutputs::RunOutputs(const OutputOptions& options, FILE* standard_output,
                       const std::vector<std::string>& class_names, double frames_per_second,
                       const std::function<void(const std::string&)>& notice)
    : class_names_(class_names) {
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
  FramePicture frame(record, class_names_, picture);
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
