// own_files.cpp - compares files by identity where they exist, else by path. Read own_files.h first.
#include "tools/eval/own_files.h"

#include <filesystem>
#include <system_error>

#include "tools/command.h"

namespace olvex_tools {

namespace {

namespace fs = std::filesystem;

bool is_same_file(const std::string& left, const std::string& right) {
  std::error_code error;
  return fs::equivalent(left, right, error) ||
         fs::weakly_canonical(fs::absolute(left, error), error) ==
             fs::weakly_canonical(fs::absolute(right, error), error);
}

}  // namespace

void require_own_files(const std::vector<OutputOption>& outputs,
                       const std::vector<std::string>& inputs) {
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    const auto& [option, path] = outputs[i];
    if (path.empty()) {
      continue;
    }
    for (const std::string& input : inputs) {
      if (is_same_file(path, input)) {
        throw ToolError(kUsageError, option + " would overwrite " + input +
                                         ", which is read. Name another file.");
      }
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
