// SPDX-License-Identifier: Apache-2.0
// whole_run.h - frames through ALGO_DET_Run of one library, on the scripted accelerator: FP32,
// three classes, raw layers, with tracker, static-object filter and stabiliser. Objects move a
// little between frames.
#ifndef BENCH_WHOLE_RUN_H
#define BENCH_WHOLE_RUN_H

#include <string>
#include <vector>

#include "bench/scenes.h"

// One at a time in a process, as the accelerator is. What a library prints while one lives goes to
// standard output.
class WholeRun {
 public:
  enum Mode { kNormal, kStrict };

  // Throws std::runtime_error when the handle cannot be set up.
  WholeRun(const Routines& routines, int boxes, Mode mode);
  ~WholeRun();
  WholeRun(const WholeRun&) = delete;

  // One frame. Returns the boxes reported; throws std::runtime_error when the frame fails.
  int frame();
  // The accelerator's part of a frame alone, to tell it apart. Requires: one frame has passed.
  void accelerator_frame();

  const std::vector<Box_t>& boxes() const { return boxes_; }

 private:
  const Routines& routines_;
  void* handle_ = nullptr;
  std::vector<unsigned char> picture_;
  std::vector<Box_t> boxes_;
  QV_U64 pts_ = 0;
};

#endif  // BENCH_WHOLE_RUN_H
