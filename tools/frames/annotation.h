// SPDX-License-Identifier: Apache-2.0
// annotation.h - draws boxes, names, tracks and key points into a picture, and writes picture files.
// And sheets of such pictures.
#ifndef TOOLS_FRAMES_ANNOTATION_H
#define TOOLS_FRAMES_ANNOTATION_H

#include <cstddef>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "tools/frames/frame_record.h"

namespace olvex_tools {

struct DrawingOptions {
  bool labels = true;
  int line_width = 0;  // of a box's outline, pixels of the annotated picture; 0: as suits its size
};

// One frame with its boxes drawn into it. Coordinates are scaled from the record's display size, line
// width from the picture's, text from the box's within what suits the picture. What the record has to be blurred
// cannot be recognised. The annotated picture is made when first asked for.
class FramePicture {
 public:
  FramePicture(const FrameRecord& record, const std::vector<std::string>& class_names,
               const cv::Mat& plain, const DrawingOptions& options = DrawingOptions())
      : record_(record), class_names_(class_names), plain_(plain), options_(options) {}

  const FrameRecord& record() const { return record_; }
  // Annotated, in the source's own size.
  const cv::Mat& annotated();
  // Annotated, stretched to fit into size, with dark bars where the shape differs.
  cv::Mat annotated_at(cv::Size size) const;

 private:
  const FrameRecord& record_;
  const std::vector<std::string>& class_names_;
  const cv::Mat& plain_;
  DrawingOptions options_;
  cv::Mat annotated_;
};

struct Label {
  std::string text;
  cv::Point lower_left;
  cv::Scalar ground;  // colour (blue, green, red) of the area that the text stands on
};

// A coordinate by a factor, within what drawing takes: far below the limit of an int.
int scaled(double value, double factor);

// Draws each label at its place; later ones move down where earlier ones are in the way.
void draw_labels(const std::vector<Label>& labels, cv::Mat* picture);

// The width of a box's outline that suits the picture.
int outline_width(const cv::Mat& picture);

// Draws text on a dark ground into the picture's lower left corner; of a text that is too long the middle is left out.
void draw_caption(const std::string& text, cv::Mat* picture);

// Lines of a height in which text fits a width, parted at spaces where there are any.
std::vector<std::string> wrapped_text(const std::string& text, int width, int line_height);

// Draws black text into a strip, a line below the other.
void draw_wrapped_text(const std::string& text, int line_height, cv::Mat* strip);

// Makes the folder, and those that it lies in. Throws ToolError (kInputError).
void make_folder(const std::string& folder);

// The bytes of a picture file, in the format of the path's extension.
std::string encoded_picture(const std::string& path, const cv::Mat& picture);

// Writes it to a picture file of that name, one of many: it does not wait for the disk.
void write_picture(const std::string& path, const cv::Mat& picture);

// ---- Sheets: pictures of one size in rows and columns, with strips for text ---------------------

// contact_sheet.cpp and compare_sheet.cpp fill such sheets.

// Heights of the strips in pixels; 0: there are none.
struct GridStrips {
  int heading = 0;  // above each column
  int caption = 0;  // above each tile
};

class TileGrid {
 public:
  TileGrid(cv::Size tile, std::size_t rows, std::size_t columns, const GridStrips& strips);

  // Parts of the sheet to draw into. Requires: row and column lie within the grid.
  cv::Mat tile(std::size_t row, std::size_t column);
  cv::Mat caption(std::size_t row, std::size_t column);
  cv::Mat heading(std::size_t column);

  const cv::Mat& sheet() const { return sheet_; }

 private:
  int left_of(std::size_t column) const;
  int top_of(std::size_t row) const;  // of its captions

  cv::Size tile_;
  GridStrips strips_;
  cv::Mat sheet_;
};

// The size of tiles that show pictures of that size in so many columns: the sheet gets about 1920
// pixels wide, and no tile is wider than 480 pixels or of a shape beyond 2:3 upright.
cv::Size tile_size(cv::Size picture, std::size_t columns);

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_ANNOTATION_H
