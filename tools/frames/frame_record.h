// SPDX-License-Identifier: Apache-2.0
// frame_record.h - what one frame yielded: its boxes and the time that each stage took. Made by
// run_session.cpp, consumed by every writer.
#ifndef TOOLS_FRAMES_FRAME_RECORD_H
#define TOOLS_FRAMES_FRAME_RECORD_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace olvex_tools {

struct KeyPoint {
  float x = 0.f;       // display pixels
  float y = 0.f;       // display pixels
  float score = -1.f;  // 0..1; negative: the network gives none
};

// The whole pixels are those of the public record: the corners' left and top, and their width and height, cut
// to whole pixels each.
struct Detection {
  std::array<float, 4> corners = {};  // left, top, right, bottom, display pixels
  std::uint32_t x = 0;                // left edge, display pixels
  std::uint32_t y = 0;                // top edge, display pixels
  std::uint32_t width = 0;            // display pixels
  std::uint32_t height = 0;           // display pixels
  std::uint32_t class_id = 0;
  float score = 0.f;                      // 0..1
  std::optional<std::uint64_t> track_id;  // from 1; empty without the tracker
  std::vector<KeyPoint> key_points;
};

// Milliseconds.
struct StageTimes {
  double decode = 0;          // reading the frame and decoding video or picture
  double conversion = 0;      // to the model's input format, and from there to the network
  double network = 0;         // the network itself
  double postprocessing = 0;  // boxes from tensors, tracking and filters
};

struct FrameRecord {
  long number = 0;             // from 1, counted from the start of the source
  std::uint64_t pts = 0;       // microseconds from the start of the source
  std::uint64_t image_id = 0;  // what COCO results call the frame
  std::string source;          // file or device that the frame came from
  int width = 0;               // display size in pixels: the frame of all coordinates
  int height = 0;
  std::vector<Detection> detections;
  std::vector<std::array<float, 4>>
      blurred;                         // corners of what pictures must not show, display pixels
  std::size_t dropped_candidates = 0;  // by the accelerator, beyond the image's max_boxes
  std::size_t cut_boxes = 0;           // by the library, beyond the most that it reports
  StageTimes milliseconds;
};

// The class's name, or nothing when the model does not carry one.
inline std::string class_name(const std::vector<std::string>& names, std::uint32_t class_id) {
  return class_id < names.size() ? names[class_id] : std::string();
}

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_FRAME_RECORD_H
