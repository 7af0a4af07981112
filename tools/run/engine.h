// SPDX-License-Identifier: Apache-2.0
// engine.h - the stages between reading and writing: a picture becomes a frame of the model, and a frame boxes.
// run_session.cpp connects them.
#ifndef TOOLS_RUN_ENGINE_H
#define TOOLS_RUN_ENGINE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "tools/run/frame_job.h"
#include "tools/run/run.h"

namespace olvex_tools {

struct EngineSettings {
  DetectorOptions detector;
  FrameLayout layout;
  std::optional<cv::Size> display;  // pixels; nothing: each frame's own size
  std::set<std::uint32_t> classes;  // ids to report; empty: all
  std::set<std::uint32_t> blurred;  // ids of what pictures must not show
  bool ids_restart = false;         // track ids, with each input
  bool keeps_pictures = false;      // they are written
  int engines = 1;
};

// Whether a frame's boxes depend on those of frames before.
bool depends_on_order(const DetectorOptions& options);

// Fills what a job needs for an engine, and the time that took.
void convert_job(const EngineSettings& settings, FrameJob* job);

// Handles of the library over one accelerator device. Outlives all of them.
class DetectorPool {
 public:
  explicit DetectorPool(const EngineSettings& settings) : settings_(settings) {}

  // Another handle in place of former, which may be none.
  std::shared_ptr<Detector> make(cv::Size display, std::shared_ptr<Detector> former);

 private:
  const EngineSettings& settings_;
  std::mutex mutex_;
  std::shared_ptr<Detector> owner_;  // of the device
};

// One handle at a time, in one thread.
class Engine {
 public:
  Engine(const EngineSettings& settings, DetectorPool* pool, RunLog* log)
      : settings_(settings), pool_(*pool), log_(*log) {}

  // Fills the record of a job that was converted. Throws ToolError, with the library's log.
  void detect(FrameJob* job);

 private:
  void run(FrameJob* job);
  void start_input(std::size_t input);
  void open_detector(cv::Size display, FrameJob* job);
  void remove_padding(const PaddingRemoval& padding, std::vector<Detection>* detections) const;
  void number_tracks(std::vector<Detection>* detections);
  bool tracked() const { return settings_.detector.track || settings_.detector.strict; }

  const EngineSettings& settings_;
  DetectorPool& pool_;
  RunLog& log_;
  std::shared_ptr<Detector> detector_;
  cv::Size reported_size_;         // display size of detector_
  std::size_t input_ = 0;          // that the last frame came from
  std::uint64_t first_track_ = 0;  // added to the ids of detector_
  std::uint64_t last_track_ = 0;   // highest id so far
};

}  // namespace olvex_tools

#endif  // TOOLS_RUN_ENGINE_H
