// own_files.h - keeps the outputs of eval apart from its inputs and from one another.
#ifndef TOOLS_EVAL_OWN_FILES_H
#define TOOLS_EVAL_OWN_FILES_H

#include <string>
#include <utility>
#include <vector>

namespace olvex_tools {

// An option that names a file to write, and the name; empty: the option was not given.
using OutputOption = std::pair<std::string, std::string>;

// Throws ToolError (kUsageError) when an output is one of the inputs or another output, also by
// another name.
void require_own_files(const std::vector<OutputOption>& outputs,
                       const std::vector<std::string>& inputs);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_OWN_FILES_H
