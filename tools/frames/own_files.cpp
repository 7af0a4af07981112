// SPDX-License-Identifier: Apache-2.0
// own_files.cpp - compares files by identity where they exist, else by path.
#include "tools/frames/own_files.h"

#include <filesystem>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

#include "tools/common/command.h"
#include "tools/common/output_file.h"
#include "tools/frames/frame_source.h"

namespace olvex_tools {

namespace {

namespace fs = std::filesystem;

// Two names of one file. Devices and pipes may be shared.
bool is_same_file(const std::string& left, const std::string& right) {
  if (left == kStandardOutput || right == kStandardOutput) {
    return left == right;
  }
  std::error_code error;
  if (fs::is_other(left, error)) {
    return false;
  }
  if (fs::equivalent(left, right, error)) {
    return true;
  }
  // A file that is yet to be made has a name only.
  const fs::path whole = fs::weakly_canonical(fs::absolute(left, error), error);
  return !whole.empty() && whole == fs::weakly_canonical(fs::absolute(right, error), error);
}

// Whether the shell made standard output lead to that file.
bool leads_to_standard_output(const std::string& path) {
  struct stat ours = {};
  struct stat other = {};
  return fstat(STDOUT_FILENO, &ours) == 0 && S_ISREG(ours.st_mode) &&
         stat(path.c_str(), &other) == 0 && ours.st_dev == other.st_dev &&
         ours.st_ino == other.st_ino;
}

// Itself or, behind a link, what it leads to.
bool lies_in(const std::string& path, const std::string& folder) {
  std::error_code error;
  const fs::path whole = fs::absolute(path, error);
  return fs::equivalent(whole.parent_path(), folder, error) ||
         fs::equivalent(fs::weakly_canonical(whole, error).parent_path(), folder, error);
}

void require_apart(const OutputOption& output, const std::string& input) {
  if (is_same_file(output.path, input)) {
    refuse_usage(output.name + " would overwrite " + input + ", which is read. Name another file");
  }
  if (is_frame_file(output.path) && lies_in(output.path, input)) {
    refuse_usage(output.name + " " + output.path +
                 " would lie among the frames that are read. Name another folder");
  }
  // A folder of pictures that is written there could overwrite it.
  if (is_picture_file(input) && lies_in(input, output.path)) {
    refuse_usage(output.name + " " + output.path + " holds " + input +
                 ", which is read. Name another folder");
  }
}

}  // namespace

void require_own_files(const std::vector<OutputOption>& outputs,
                       const std::vector<std::string>& inputs) {
  for (const OutputOption& output : outputs) {
    if (!output.is_appended && leads_to_standard_output(output.path)) {
      refuse_usage(
          output.name + " " + output.path +
          ": standard output is redirected to the same file. Name a different file for each");
    }
  }
  for (auto output = outputs.begin(); output != outputs.end(); ++output) {
    if (output->path.empty()) {
      continue;
    }
    for (auto other = outputs.begin(); other != output; ++other) {
      if (!other->path.empty() && is_same_file(output->path, other->path)) {
        refuse_usage(other->name + " and " + output->name + " both write to " + output->path +
                     ". Name a different file for each");
      }
    }
    for (const std::string& input : inputs) {
      if (!input.empty()) {
        require_apart(*output, input);
      }
    }
  }
}

}  // namespace olvex_tools
