// SPDX-License-Identifier: Apache-2.0
// label_placement.h - where the labels of a picture's boxes go, so that they hide no other box and no label.
#ifndef TOOLS_FRAMES_LABEL_PLACEMENT_H
#define TOOLS_FRAMES_LABEL_PLACEMENT_H

#include <vector>

#include <opencv2/core.hpp>

namespace olvex_tools {

struct LabelledBox {
  cv::Rect box;    // may reach out of the picture
  cv::Size label;  // of its text with margins
};

// The area of each label, in the order of the boxes; earlier ones choose first. Each lies in the picture, where
// it fits into it at all: at its box's edges, else inside it, else, where boxes are few, up to kFarthestLabel
// label heights away, wherever it hides neither another box nor a label. Where there is no such place, it hides
// as little as it can at its box.
std::vector<cv::Rect> place_labels(const std::vector<LabelledBox>& boxes, cv::Size picture);

constexpr int kFarthestLabel = 6;

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_LABEL_PLACEMENT_H
