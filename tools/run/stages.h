// SPDX-License-Identifier: Apache-2.0
// stages.h - moves frames from a source through stages to a sink, one after the other or side by side. The sink
// sees the same in both cases: frames in their order, and the first failure as the last.
#ifndef TOOLS_RUN_STAGES_H
#define TOOLS_RUN_STAGES_H

#include <functional>
#include <vector>

#include "tools/run/frame_job.h"

namespace olvex_tools {

// May throw; then the job becomes a failed one, and the stage is not called for those behind it. thread: of the
// stage's own, from 0.
using Work = std::function<void(FrameJob*, int thread)>;

struct Stage {
  int threads = 1;
  Work work;
};

struct Stages {
  // Fills a job, or makes it an end or a failure, after which it is not called again.
  std::function<void(FrameJob*)> read;
  std::vector<Stage> middle;
  // Gets every job, in order, until it is false or the job no frame. What it throws is passed on.
  std::function<bool(FrameJob*)> write;
};

// In the calling thread alone: each frame goes through all stages before the next one is read.
void run_in_turn(const Stages& stages);

// Each thread of a stage is one of its own, and so is reading; writing is the calling thread's. Between two
// stages wait at most so many frames as the later one has threads, and two more. Returns, or passes an exception
// on, when all threads have ended, and waits for a read that is under way. Signals are left to the caller.
void run_side_by_side(const Stages& stages);

}  // namespace olvex_tools

#endif  // TOOLS_RUN_STAGES_H
