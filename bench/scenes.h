// SPDX-License-Identifier: Apache-2.0
// scenes.h - the inputs of the benchmarks: raw output layers, box lists, tensors that the accelerator has
// decoded, tracker frames. The same numbers on every machine and in every run.
#ifndef BENCH_SCENES_H
#define BENCH_SCENES_H

#include <cstddef>
#include <vector>

#include "base/postprocess/output_tensors.h"
#include "tests/support/random.h"
#include "tests/support/routines.h"

constexpr int kInputWidth = 640;
constexpr int kInputHeight = 384;
constexpr int kStrides[] = {8, 16, 32};
constexpr int kLayers = 3;
constexpr float kThreshold = 0.4f;
constexpr float kNmsThreshold = 0.45f;

struct Library {
  const char* name;
  const Routines* with_log;
  const Routines* without_log;
};
const std::vector<Library>& libraries();  // plain, shipped

// One cache line of a tensor: buffers start where a line starts, as the accelerator's do.
struct alignas(64) Line {
  unsigned char bytes[64];
};
using Lines = std::vector<Line>;

// Output tensors of one frame with the parameters to decode them.
class Tensors {
 public:
  Tensors(QV_IPU_ELEMENT_FORMAT format, int classes, int keypoints);
  Tensors(const Tensors&) = delete;

  // One more tensor; an INT16 one holds values / scale.
  void add(int width, int height, int channels, const std::vector<float>& values, float scale);

  DetDecodeInfo& info() { return info_; }
  const std::vector<Lines>& lines() const { return lines_; }
  // Decodes from these buffers, which are copies of lines().
  void use(std::vector<Lines>& lines);
  std::size_t bytes() const;

 private:
  DetDecodeInfo info_;
  std::vector<Lines> lines_;
  OutputTensors outputs_ = {};
};

struct RawScene {
  QV_IPU_ELEMENT_FORMAT format = QV_IPU_FORMAT_FP32;
  int classes = 3;
  int keypoints = 0;  // triples
  int kept = 20;      // cells above the threshold, spread over the layers; kAllCells: every one
  int side = 1;       // factor on the input's width and height
};
constexpr int kAllCells = -1;
int cell_count(int side = 1);
class RawLayers : public Tensors {
 public:
  explicit RawLayers(const RawScene& scene);
};

// Clears out and decodes all layers into it, without suppression.
void decode(const Routines& routines, DetDecodeInfo& info, olvex::vector<BoxInfo>& out);

// Boxes of a detector before suppression: several about each object, three classes.
olvex::vector<BoxInfo> crowded_boxes(int count, int which);
// Boxes that hardly overlap: count objects on a loose grid, at one moment of a slow movement.
constexpr int kMoments = 32;
olvex::vector<BoxInfo> apart_boxes(int count, int moment = 0);
// The same as one frame of the tracker, by descending score.
TrackFrames tracker_frame(int count, int moment);

// Tensors that the accelerator has decoded: boxes, classes or key points, scores, indices, count.
class DecodedRows : public Tensors {
 public:
  // Without key points (0 channels) there are classes.
  DecodedRows(QV_IPU_ELEMENT_FORMAT format, int rows, int keypoint_channels);
};

// A tracker that has followed count objects until their histories are full.
class SteadyTracker {
 public:
  SteadyTracker(const Routines& routines, int count);
  ~SteadyTracker() { routines_.destroy_tracker(tracker_); }
  SteadyTracker(const SteadyTracker&) = delete;

  void track();
  void classify() { routines_.classify(tracker_, IoutStaticParams_t()); }
  const olvex::vector<Track>& tracks() const { return routines_.finished_tracks(tracker_); }
  // Whether every object is followed by one track with a full history, as it was at first.
  bool is_steady() const;

 private:
  const Routines& routines_;
  void* tracker_;
  std::vector<TrackFrames> frames_;
  std::size_t next_ = 0;
  int count_;
};

#endif  // BENCH_SCENES_H
