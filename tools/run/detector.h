// detector.h - one detection handle of libolvex_det, driven through its public functions.
// olvex_det.h says what the options mean; last_output.h adds ids and key points.
#ifndef TOOLS_RUN_DETECTOR_H
#define TOOLS_RUN_DETECTOR_H

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "olvex_det.h"
#include "tools/frames/frame_record.h"

namespace olvex_tools {

struct DetectorOptions {
  std::string model;         // path of the model image
  std::string firmware;      // path of the accelerator's firmware; empty: the library's default
  bool from_memory = false;  // hand the model over in memory instead of by its path
  std::size_t pattern_offset = 0;  // bytes before the model's start pattern in the file
  float threshold = 0.5f;          // 0..1
  bool track = false;
  int track_frames = 1;  // frames an object must be seen before it is reported, 1..32767
  bool ignore_static = false;
  float static_sensitivity = 0.85f;  // above 0, to 1
  bool stable = false;
  float stable_sensitivity = 0.63f;  // 0..1
  bool strict = false;
};

// Brings the accelerator up and takes it down; one may live at a time. Errors of the library are
// thrown as ToolError: kModelError, kInputError, or kAcceleratorError for a platform code.
class Detector {
 public:
  // display: pixels; boxes come in its coordinates.
  Detector(const DetectorOptions& options, cv::Size display);
  ~Detector();
  Detector(const Detector&) = delete;
  Detector& operator=(const Detector&) = delete;

  InputAttr_t input() const;

  // Finds the objects in one frame (in the model's input format). Fills detections, and of
  // times conversion (the accelerator's share is added), network and postprocessing.
  void run(std::vector<unsigned char>* frame, std::uint64_t pts, std::vector<Detection>* detections,
           StageTimes* times);

 private:
  void initialise_from_file(const Rect_t& display);
  void initialise_from_memory(const Rect_t& display);
  void configure();

  DetectorOptions options_;
  void* handle_ = nullptr;
  bool has_tracks_ = false;
  std::vector<Box_t> boxes_;  // of one frame
};

}  // namespace olvex_tools

#endif  // TOOLS_RUN_DETECTOR_H
