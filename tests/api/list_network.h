// SPDX-License-Identifier: Apache-2.0
// list_network.h - scripted networks whose outputs are box lists that the accelerator has decoded,
// so that a test can write down the detections of each frame. det_test.h has the fixtures.
#ifndef TESTS_API_LIST_NETWORK_H
#define TESTS_API_LIST_NETWORK_H

#include <string>
#include <vector>

#include "platform/scripted/qv_scripted.h"

// Powers of two: scaling to a display of the same size changes no bit.
constexpr QV_U32 kNetWidth = 256;
constexpr QV_U32 kNetHeight = 128;

// The offline model that a network of the default size reads.
constexpr char kOfflineModel[] = OLVEX_OFFLINE_MODEL_START "0123456789ab";

// Corners in network pixels.
struct Detection {
  float x1, y1, x2, y2, score, label;
};
using Detections = std::vector<Detection>;

// Shows these frames in turn and repeats the last one. rows: detections that fit.
inline qv_scripted::Network list_network(const std::vector<Detections>& frames, QV_U32 rows = 8,
                                         const std::string& first_output_name = "boxes") {
  using namespace qv_scripted;
  Network network;
  network.inputs = {picture_input(QV_IPU_FORMAT_GRAY, kNetWidth, kNetHeight)};
  network.outputs = {fp32_tensor(first_output_name, {1, 1, rows, 4}),
                     fp32_tensor("classes", {1, 1, rows, 1}),
                     fp32_tensor("scores", {1, 1, rows, 1}),
                     fp32_tensor("indices", {1, rows, 1, 1}), fp32_tensor("count", {1, 1, 1, 1})};
  for (const Detections& detections : frames) {
    std::vector<float> boxes, classes, scores, indices;
    for (const Detection& detection : detections) {
      boxes.insert(boxes.end(), {detection.x1, detection.y1, detection.x2, detection.y2});
      classes.push_back(detection.label);
      indices.push_back(static_cast<float>(scores.size()));
      scores.push_back(detection.score);
    }
    const std::vector<float> count = {static_cast<float>(detections.size())};
    network.frames.push_back(
        {to_bytes(boxes), to_bytes(classes), to_bytes(scores), to_bytes(indices), to_bytes(count)});
  }
  return network;
}

#endif  // TESTS_API_LIST_NETWORK_H
