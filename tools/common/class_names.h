// SPDX-License-Identifier: Apache-2.0
// class_names.h - the file of --class-names, for all subcommands that take it.
#ifndef TOOLS_COMMON_CLASS_NAMES_H
#define TOOLS_COMMON_CLASS_NAMES_H

#include <string>
#include <vector>

namespace olvex_tools {

// One name on each line, by class id; lines at the end that are empty do not count. Throws ToolError
// (kInputError) when it cannot be read, or has none.
std::vector<std::string> read_class_names(const std::string& path);

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_CLASS_NAMES_H
