// own_files.h - keeps the outputs of a subcommand apart from its inputs and from one another.
#ifndef TOOLS_FRAMES_OWN_FILES_H
#define TOOLS_FRAMES_OWN_FILES_H

#include <string>
#include <utility>
#include <vector>

namespace olvex_tools {

// An option that names a file to write, and the name; empty: the option was not given.
using OutputOption = std::pair<std::string, std::string>;

// Throws ToolError (kUsageError) when an output is one of the inputs or another output, also by
// another name, when it would lie among the files of a folder that is an input, or when it is a
// folder that holds a frame that is an input. Empty names are not looked at.
void require_own_files(const std::vector<OutputOption>& outputs,
                       const std::vector<std::string>& inputs);

// Whether path is a picture or dumped frame in that folder, itself or behind a link. A folder of
// pictures that is written there could overwrite it.
bool is_frame_in(const std::string& path, const std::string& folder);

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_OWN_FILES_H
