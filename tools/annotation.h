// annotation.h - draws boxes, names, tracks and key points into a picture.
// Read picture_writers.h for where such pictures go.
#ifndef TOOLS_ANNOTATION_H
#define TOOLS_ANNOTATION_H

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "tools/frame_record.h"

namespace olvex_tools {

// Draws the record's detections into the picture (8-bit BGR), whatever its size: coordinates are
// scaled from the record's display size, line width and text from the picture's.
void annotate(const FrameRecord& record, const std::vector<std::string>& class_names,
              cv::Mat* picture);

struct Label {
  std::string text;
  cv::Point lower_left;
  cv::Scalar ground;  // colour (blue, green, red) of the area that the text stands on
};

// Draws each label at its place; later ones move down where earlier ones are in the way.
void draw_labels(const std::vector<Label>& labels, cv::Mat* picture);

// The width of a box's outline that suits the picture.
int outline_width(const cv::Mat& picture);

// Draws text on a dark ground into the picture's lower left corner.
void draw_caption(const std::string& text, cv::Mat* picture);

// Draws black text that fits the height of a strip; text that is too long for it ends in "..".
void draw_line_of_text(const std::string& text, cv::Mat* strip);

// The colour (blue, green, red) of a track or a class: the same number always gets the same one,
// and neighbouring numbers lie far apart on the colour circle.
cv::Scalar colour_of(std::uint64_t number);

}  // namespace olvex_tools

#endif  // TOOLS_ANNOTATION_H
