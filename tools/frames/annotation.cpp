// SPDX-License-Identifier: Apache-2.0
// annotation.cpp - drawing with OpenCV's imgproc module, encoding by its codecs, and where each tile and
// strip of a sheet lies.
#include "tools/frames/annotation.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <system_error>

#include <opencv2/imgproc.hpp>

#include "tools/common/command.h"
#include "tools/common/output_file.h"
#include "tools/common/text.h"
#include "tools/frames/codec_modules.h"

namespace olvex_tools {

namespace fs = std::filesystem;

namespace {

constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;

// Sizes in pixels that suit one picture.
struct Pen {
  int line;           // width of a box's outline
  double font_scale;  // of kFont, whose capitals are 22 pixels high at 1
  int text_line;      // width of a letter's strokes
  int margin;         // around a text
};

Pen pen_with(int line, double font_scale) {
  Pen pen;
  pen.line = std::max(1, line);
  // Below 0.4 the letters run together.
  pen.font_scale = std::max(0.4, font_scale);
  pen.text_line = std::max(1, static_cast<int>(std::lround(pen.font_scale * 1.4)));
  pen.margin = std::max(2, static_cast<int>(std::lround(pen.font_scale * 5)));
  return pen;
}

Pen pen_for(const cv::Mat& picture) {
  const double side = std::min(picture.cols, picture.rows);
  return pen_with(static_cast<int>(std::lround(side / 250)), side / 900);
}

bool is_light(const cv::Scalar& colour) {
  return 0.114 * colour[0] + 0.587 * colour[1] + 0.299 * colour[2] > 140;
}

std::string label_of(const Detection& detection, const std::vector<std::string>& class_names) {
  std::string label = class_name(class_names, detection.class_id);
  if (label.empty()) {
    label = "class " + std::to_string(detection.class_id);
  }
  label += format(" %.2f", static_cast<double>(detection.score));
  if (detection.track_id) {
    label = "#" + std::to_string(*detection.track_id) + " " + label;
  }
  return label;
}

// The labels of one picture. Earlier ones have priority.
class Labels {
 public:
  explicit Labels(cv::Mat* picture) : picture_(*picture), pen_(pen_for(*picture)) {}

  // Draws text in a filled box above that point, or as near to it as fits into the picture.
  void draw(const std::string& text, cv::Point lower_left, const cv::Scalar& ground) {
    int below = 0;
    const cv::Size size = cv::getTextSize(text, kFont, pen_.font_scale, pen_.text_line, &below);
    const cv::Size outer(size.width + 2 * pen_.margin, size.height + below + 2 * pen_.margin);
    const int left = std::max(0, std::min(lower_left.x, picture_.cols - outer.width));
    const int top =
        std::max(0, std::min(lower_left.y - outer.height, picture_.rows - outer.height));
    const cv::Rect area = first_free({cv::Point(left, top), outer});
    taken_.push_back(area);
    cv::rectangle(picture_, area, ground, cv::FILLED);
    const cv::Scalar ink = is_light(ground) ? cv::Scalar(0, 0, 0) : cv::Scalar(255, 255, 255);
    cv::putText(picture_, text, {area.x + pen_.margin, area.y + pen_.margin + size.height}, kFont,
                pen_.font_scale, ink, pen_.text_line, cv::LINE_AA);
  }

 private:
  // Moves down below the labels in the way; stays where it was when it does not fit below.
  cv::Rect first_free(const cv::Rect& wanted) const {
    cv::Rect area = wanted;
    while (area.y + area.height <= picture_.rows) {
      const auto hit = std::find_if(taken_.begin(), taken_.end(), [&](const cv::Rect& other) {
        return (other & area).area() > 0;
      });
      if (hit == taken_.end()) {
        return area;
      }
      area.y = hit->y + hit->height;
    }
    return wanted;
  }

  cv::Mat& picture_;
  Pen pen_;
  std::vector<cv::Rect> taken_;
};

// The colour (blue, green, red) of a track or a class: the same number always gets the same one,
// and neighbouring numbers lie far apart on the colour circle.
cv::Scalar colour_of(std::uint64_t number) {
  // Steps of the golden ratio around the circle never come close to an earlier step soon.
  constexpr double kGoldenRatio = 0.6180339887498949;
  constexpr std::uint64_t kPeriod = 1u << 20;  // keeps the product exact enough
  const double turns = static_cast<double>(number % kPeriod) * kGoldenRatio;
  const double hue = (turns - std::floor(turns)) * 6;  // sextants from red
  const auto channel = [hue](double centre) {
    const double distance = std::abs(std::remainder(hue - centre, 6.0));
    return 255 * std::clamp(2 - distance, 0.1, 1.0);
  };
  return {channel(4), channel(2), channel(0)};
}

void annotate(const FrameRecord& record, const std::vector<std::string>& class_names,
              cv::Mat* picture) {
  const Pen pen = pen_for(*picture);
  const double across = static_cast<double>(picture->cols) / record.width;
  const double down = static_cast<double>(picture->rows) / record.height;
  for (const Detection& box : record.detections) {
    const cv::Scalar colour = colour_of(box.track_id ? *box.track_id : box.class_id);
    const cv::Point upper_left(scaled(box.x, across), scaled(box.y, down));
    const cv::Point lower_right(scaled(static_cast<double>(box.x) + box.width, across),
                                scaled(static_cast<double>(box.y) + box.height, down));
    cv::rectangle(*picture, upper_left, lower_right, colour, pen.line);
    for (const KeyPoint& point : box.key_points) {
      cv::circle(*picture, {scaled(point.x, across), scaled(point.y, down)}, pen.line + 1, colour,
                 cv::FILLED, cv::LINE_AA);
    }
  }
  // Labels last, so that no other box's outline runs through a text.
  Labels labels(picture);
  for (const Detection& box : record.detections) {
    const cv::Scalar colour = colour_of(box.track_id ? *box.track_id : box.class_id);
    labels.draw(label_of(box, class_names), {scaled(box.x, across), scaled(box.y, down)}, colour);
  }
}

// The largest rectangle of the picture's shape in the middle of an area.
cv::Rect fitted(cv::Size picture, cv::Size area) {
  const double factor = std::min(static_cast<double>(area.width) / picture.width,
                                 static_cast<double>(area.height) / picture.height);
  const int width =
      std::clamp(static_cast<int>(std::lround(picture.width * factor)), 1, area.width);
  const int height =
      std::clamp(static_cast<int>(std::lround(picture.height * factor)), 1, area.height);
  return {(area.width - width) / 2, (area.height - height) / 2, width, height};
}

}  // namespace

int scaled(double value, double factor) {
  constexpr double kLimit = 32000;
  const double result = value * factor;
  return std::isfinite(result) ? static_cast<int>(std::clamp(result, -kLimit, kLimit)) : 0;
}

void draw_labels(const std::vector<Label>& labels, cv::Mat* picture) {
  Labels drawn(picture);
  for (const Label& label : labels) {
    drawn.draw(label.text, label.lower_left, label.ground);
  }
}

int outline_width(const cv::Mat& picture) {
  return pen_for(picture).line;
}

void draw_caption(const std::string& text, cv::Mat* picture) {
  Labels(picture).draw(text, {0, picture->rows}, cv::Scalar(40, 40, 40));
}

void draw_line_of_text(const std::string& text, cv::Mat* strip) {
  const Pen pen = pen_with(1, strip->rows / 44.0);  // capitals half as high as the strip
  // No letter is narrower than a pixel.
  std::string shown = text.substr(0, static_cast<std::size_t>(strip->cols));
  int below = 0;
  cv::Size size = cv::getTextSize(shown, kFont, pen.font_scale, pen.text_line, &below);
  for (std::size_t kept = shown.size(); size.width > strip->cols && kept > 0;) {
    shown = text.substr(0, --kept) + "..";
    size = cv::getTextSize(shown, kFont, pen.font_scale, pen.text_line, &below);
  }
  cv::putText(*strip, shown, {0, (strip->rows + size.height) / 2}, kFont, pen.font_scale,
              cv::Scalar(0, 0, 0), pen.text_line, cv::LINE_AA);
}

const cv::Mat& FramePicture::annotated() {
  if (annotated_.empty()) {
    annotated_ = plain_.clone();
    annotate(record_, class_names_, &annotated_);
  }
  return annotated_;
}

cv::Mat FramePicture::annotated_at(cv::Size size) const {
  const cv::Scalar bars(40, 40, 40);
  cv::Mat result(size, CV_8UC3, bars);
  cv::Mat inside = result(fitted(plain_.size(), size));
  cv::resize(plain_, inside, inside.size(), 0, 0, cv::INTER_AREA);
  annotate(record_, class_names_, &inside);
  return result;
}

void make_folder(const std::string& folder) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) {
    refuse_input(folder, "the folder cannot be made: " + error.message());
  }
}

std::string encoded_picture(const std::string& path, const cv::Mat& picture) {
  // Encoding in memory leaves the writing to a place that notices a full disk.
  std::vector<unsigned char> bytes;
  bool encoded = false;
  try {
    encoded = encode_picture(fs::path(path).extension().string(), picture, &bytes);
  } catch (const cv::Exception&) {
    // An unknown extension, which is reported below like any other refusal.
  }
  if (!encoded) {
    refuse_input(path, "the picture cannot be encoded. Name it .png or .jpg");
  }
  return std::string(bytes.begin(), bytes.end());
}

void write_picture(const std::string& path, const cv::Mat& picture) {
  OutputFile file(path, nullptr, OutputForm::kOneOfMany);
  file.write(encoded_picture(path, picture));
  file.close();
}

// ---- Sheets -------------------------------------------------------------------------------------

namespace {

constexpr int kSheetWidth = 1920;     // pixels, about
constexpr int kTileWidthLeast = 160;  // pixels
constexpr int kTileWidthMost = 480;   // pixels
constexpr int kGap = 6;               // pixels between tiles

}  // namespace

TileGrid::TileGrid(cv::Size tile, std::size_t rows, std::size_t columns, const GridStrips& strips)
    : tile_(tile), strips_(strips) {
  const cv::Scalar ground(255, 255, 255);
  sheet_ = cv::Mat(top_of(rows), left_of(columns), CV_8UC3, ground);
}

cv::Mat TileGrid::tile(std::size_t row, std::size_t column) {
  return sheet_(cv::Rect({left_of(column), top_of(row) + strips_.caption}, tile_));
}

cv::Mat TileGrid::caption(std::size_t row, std::size_t column) {
  return sheet_(cv::Rect(left_of(column), top_of(row), tile_.width, strips_.caption));
}

cv::Mat TileGrid::heading(std::size_t column) {
  return sheet_(cv::Rect(left_of(column), kGap, tile_.width, strips_.heading));
}

int TileGrid::left_of(std::size_t column) const {
  return kGap + static_cast<int>(column) * (tile_.width + kGap);
}

int TileGrid::top_of(std::size_t row) const {
  return kGap + strips_.heading + static_cast<int>(row) * (strips_.caption + tile_.height + kGap);
}

cv::Size tile_size(cv::Size picture, std::size_t columns) {
  const int width =
      std::clamp(kSheetWidth / static_cast<int>(columns), kTileWidthLeast, kTileWidthMost);
  const double height = static_cast<double>(width) * picture.height / picture.width;
  return {width, static_cast<int>(std::lround(std::clamp(height, 1.0, 1.5 * width)))};
}

}  // namespace olvex_tools
