// SPDX-License-Identifier: Apache-2.0
// run_inputs.h - the INPUTs of a command line as sources of frames, one after the other. frame_reader.h reads
// them.
#ifndef TOOLS_RUN_RUN_INPUTS_H
#define TOOLS_RUN_RUN_INPUTS_H

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tools/frames/frame_source.h"

namespace olvex_tools {

// The INPUT that stands for standard input.
constexpr char kStandardInput[] = "-";

// One source of frames.
struct RunInput {
  std::string shown;  // in messages
  std::string name;   // in place of {name} in the paths of outputs
  std::string path;   // of a file, folder or camera, or an address; empty for a series
  std::vector<std::filesystem::path> series;  // several pictures, or several dumped frames
  std::string remark;                         // for the user
  bool is_stream = false;                     // an address or standard input
};

// Words with *, ? or [ that name no file are patterns. A folder of videos stands for its videos, and pictures
// that follow one another are one series. Throws ToolError: kInputError where there is no such file, where a
// pattern fits none, kUsageError for standard input given twice.
std::vector<RunInput> run_inputs(const std::vector<std::string>& words);

// picture_rate  frames per second that pictures stand for; timeout  seconds, of a stream
std::unique_ptr<FrameSource> open_run_input(const RunInput& input, const FrameLayout& layout,
                                            double picture_rate, int timeout);

// The files that are read, to be kept apart from those that are written.
std::vector<std::string> paths_of(const std::vector<RunInput>& inputs);

// Whether it is read by its protocol: http://, rtsp:// and their like.
bool is_address(const std::string& word);

// As it may be written down: of an address without its user, password and query.
std::string without_secrets(const std::string& input);

}  // namespace olvex_tools

#endif  // TOOLS_RUN_RUN_INPUTS_H
