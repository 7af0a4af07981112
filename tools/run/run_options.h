// SPDX-License-Identifier: Apache-2.0
// run_options.h - the options of run as they were parsed, and their checks. run_command.cpp declares them to the
// parser.
#ifndef TOOLS_RUN_RUN_OPTIONS_H
#define TOOLS_RUN_RUN_OPTIONS_H

#include <string>
#include <vector>

#include "tools/common/options.h"
#include "tools/run/run.h"

namespace olvex_tools {

constexpr long kFramesMost = 1000000000;  // a year of video and more

struct CommandLine {
  RunOptions run;
  std::string display;
  std::vector<Option> tracking;  // options without effect unless --track
  Option track;
  Option stable_sensitivity;
  Option static_sensitivity;
  Option firmware;
  std::string start;  // as it was typed, and so are the next two
  std::string duration;
  std::string shard;
};

// Checks what the parser cannot, and completes run. Throws ToolError (kUsageError).
void complete_options(CommandLine* line);

}  // namespace olvex_tools

#endif  // TOOLS_RUN_RUN_OPTIONS_H
