// SPDX-License-Identifier: Apache-2.0
// frame_job.h - one frame on its way through the stages of a run. stages.h moves it.
#ifndef TOOLS_RUN_FRAME_JOB_H
#define TOOLS_RUN_FRAME_JOB_H

#include <chrono>
#include <cstddef>
#include <exception>
#include <string>
#include <vector>

#include "tools/frames/frame_conversion.h"
#include "tools/frames/frame_record.h"
#include "tools/frames/frame_source.h"

namespace olvex_tools {

using Clock = std::chrono::steady_clock;

inline double milliseconds_between(Clock::time_point start, Clock::time_point end) {
  return std::chrono::duration<double, std::milli>(end - start).count();
}

// Rows of a trace: threads, but where one thread does all, its stages.
enum Row { kReadingRow, kConversionRow, kOutputRow, kFirstEngineRow };

// What was done for a frame, and when.
struct Span {
  const char* stage;
  int row;
  Clock::time_point start;
  Clock::time_point end;
};

struct FrameJob {
  enum class State { kFrame, kEnd, kReadingFailed, kFailed };

  State state = State::kFrame;
  std::exception_ptr error;          // of the failed ones
  std::vector<std::string> notices;  // to show before the frame is written
  std::size_t input = 0;             // which one it came from
  double rate = 0;                   // frames per second of that input
  SourceFrame frame;
  cv::Size display;                      // pixels of the record's boxes
  cv::Rect area;                         // pixels of the frame that the picture fills
  std::vector<unsigned char> converted;  // in the model's format; empty for a dumped frame
  FrameRecord record;
  std::vector<Span> spans;
};

}  // namespace olvex_tools

#endif  // TOOLS_RUN_FRAME_JOB_H
