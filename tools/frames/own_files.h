// SPDX-License-Identifier: Apache-2.0
// own_files.h - keeps the outputs of a subcommand apart from its inputs and from one another.
#ifndef TOOLS_FRAMES_OWN_FILES_H
#define TOOLS_FRAMES_OWN_FILES_H

#include <string>
#include <vector>

namespace olvex_tools {

// An option that names a file to write.
struct OutputOption {
  std::string name;
  std::string path;          // or "-"; empty: the option was not given
  bool is_appended = false;  // so that standard output may lead to the same file
};

// Throws ToolError (kUsageError) when two outputs are one file, also by other names, when
// standard output was redirected to one of them, when one would overwrite an input or a frame of a folder
// that is an input, or when it is a folder that holds a frame that is an input. Devices and pipes may be
// shared. Empty names are not looked at.
void require_own_files(const std::vector<OutputOption>& outputs,
                       const std::vector<std::string>& inputs);

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_OWN_FILES_H
