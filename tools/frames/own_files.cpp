// own_files.cpp - compares files by identity where they exist, else by path. Read own_files.h first.
#include "tools/frames/own_files.h"

#include <filesystem>
#include <system_error>

#include "tools/common/command.h"
#include "tools/frames/frame_source.h"

namespace olvex_tools {

namespace {

namespace fs = std::filesystem;

bool is_same_file(const std::string& left, const std::string& right) {
  std::error_code error;
  return fs::equivalent(left, right, error) ||
         fs::weakly_canonical(fs::absolute(left, error), error) ==
             fs::weakly_canonical(fs::absolute(right, error), error);
}

bool lies_in(const std::string& path, const std::string& folder) {
  std::error_code error;
  return fs::is_directory(folder, error) &&
         fs::equivalent(fs::absolute(path, error).parent_path(), folder, error);
}

void require_apart(const OutputOption& output, const std::string& input) {
  const auto& [option, path] = output;
  if (input.empty()) {
    return;
  }
  if (is_same_file(path, input)) {
    throw ToolError(kUsageError,
                    option + " would overwrite " + input + ", which is read. Name another file.");
  }
  if (lies_in(path, input)) {
    throw ToolError(kUsageError, option + " " + path +
                                     " would lie among the frames that are read. Name another " +
                                     "folder.");
  }
  if (is_frame_in(input, path)) {
    throw ToolError(kUsageError, option + " " + path + " holds " + input +
                                     ", which is read. Name another folder.");
  }
}

}  // namespace

bool is_frame_in(const std::string& path, const std::string& folder) {
  std::error_code error;
  return is_frame_file(path) &&
         (lies_in(path, folder) || lies_in(fs::canonical(path, error).string(), folder));
}

void require_own_files(const std::vector<OutputOption>& outputs,
                       const std::vector<std::string>& inputs) {
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    const auto& [option, path] = outputs[i];
    if (path.empty()) {
      continue;
    }
    for (const std::string& input : inputs) {
      require_apart(outputs[i], input);
    }
    for (std::size_t j = 0; j < i; ++j) {
      if (!outputs[j].second.empty() && is_same_file(path, outputs[j].second)) {
        throw ToolError(kUsageError, outputs[j].first + " and " + option + " both write to " +
                                         path + ". Give each a file of its own.");
      }
    }
  }
}

}  // namespace olvex_tools
