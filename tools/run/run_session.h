// run_session.h - the work of olvex-det run: frames through the detection library into the outputs.
// run_command.cpp fills the options.
#ifndef TOOLS_RUN_RUN_SESSION_H
#define TOOLS_RUN_RUN_SESSION_H

#include <optional>
#include <string>

#include <opencv2/core.hpp>

#include "tools/run/detector.h"
#include "tools/run/run_outputs.h"

namespace olvex_tools {

struct RunOptions {
  std::string input;
  DetectorOptions detector;
  OutputOptions outputs;
  std::optional<cv::Size> display;  // pixels; nothing: each frame's own size
  double picture_rate = 25;         // frames per second that a folder of files stands for
  long skip = 0;                    // frames to leave out at the start
  long limit = 0;                   // frames to process at most; 0: all
  std::string log;                  // file for the library's own log; empty: not kept
  bool quiet = false;
};

// Requires: options are valid, as run_command.cpp checks. Returns kDone or kInterrupted, throws
// ToolError; in each case all outputs are complete up to the last frame.
int run_session(const RunOptions& options);

}  // namespace olvex_tools

#endif  // TOOLS_RUN_RUN_SESSION_H
