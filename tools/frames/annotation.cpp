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
#include "tools/frames/label_placement.h"

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

// Capitals half as high as the line.
Pen strip_pen(int line_height) {
  return pen_with(1, line_height / 44.0);
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

// How much of the picture a text takes with its margins, and where the letters stand in it.
struct TextExtent {
  cv::Size outer;
  int ascent = 0;
};

TextExtent extent_of(const std::string& text, const Pen& pen) {
  int below = 0;
  const cv::Size size = cv::getTextSize(text, kFont, pen.font_scale, pen.text_line, &below);
  return {{size.width + 2 * pen.margin, size.height + below + 2 * pen.margin}, size.height};
}

void draw_label(const std::string& text, const cv::Rect& area, const Pen& pen,
                const cv::Scalar& ground, cv::Mat* picture) {
  cv::rectangle(*picture, area, ground, cv::FILLED);
  const cv::Scalar ink = is_light(ground) ? cv::Scalar(0, 0, 0) : cv::Scalar(255, 255, 255);
  cv::putText(*picture, text,
              {area.x + pen.margin, area.y + pen.margin + extent_of(text, pen).ascent}, kFont,
              pen.font_scale, ink, pen.text_line, cv::LINE_AA);
}

// The labels of one picture. Earlier ones have priority.
class Labels {
 public:
  explicit Labels(cv::Mat* picture) : picture_(*picture), pen_(pen_for(*picture)) {}

  // Draws text in a filled box above that point, or as near to it as fits into the picture.
  void draw(const std::string& text, cv::Point lower_left, const cv::Scalar& ground) {
    const cv::Size outer = extent_of(text, pen_).outer;
    const int left = std::max(0, std::min(lower_left.x, picture_.cols - outer.width));
    const int top =
        std::max(0, std::min(lower_left.y - outer.height, picture_.rows - outer.height));
    const cv::Rect area = first_free({cv::Point(left, top), outer});
    taken_.push_back(area);
    draw_label(text, area, pen_, ground, &picture_);
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

// A record's coordinates in a picture of it.
struct Scale {
  double across;
  double down;

  cv::Rect rectangle(const Detection& box) const {
    return {cv::Point(scaled(box.x, across), scaled(box.y, down)),
            cv::Point(scaled(static_cast<double>(box.x) + box.width, across),
                      scaled(static_cast<double>(box.y) + box.height, down))};
  }
};

// A few cells for the whole box, which blend into one another: a mosaic that cannot be undone.
void blur(const FrameRecord& record, const Scale& scale, cv::Mat* picture) {
  constexpr int kCells = 6;  // along the longer side
  for (const std::array<float, 4>& corners : record.blurred) {
    const cv::Point upper_left(scaled(std::floor(corners[0]), scale.across),
                               scaled(std::floor(corners[1]), scale.down));
    const cv::Point lower_right(scaled(std::ceil(corners[2]), scale.across) + 1,
                                scaled(std::ceil(corners[3]), scale.down) + 1);
    const cv::Rect area = cv::Rect(upper_left, lower_right) & cv::Rect({0, 0}, picture->size());
    if (area.empty()) {
      continue;
    }
    const double cell =
        std::max(2.0, std::max(area.width, area.height) / static_cast<double>(kCells));
    const cv::Size cells(std::max(1, static_cast<int>(area.width / cell)),
                         std::max(1, static_cast<int>(area.height / cell)));
    cv::Mat inside = (*picture)(area);
    cv::Mat mosaic;
    cv::resize(inside, mosaic, cells, 0, 0, cv::INTER_AREA);
    cv::resize(mosaic, inside, inside.size(), 0, 0, cv::INTER_LINEAR);
  }
}

cv::Scalar colour_of(const Detection& box) {
  return colour_of(box.track_id ? *box.track_id : box.class_id);
}

// Text that a small box's label has is smaller than that of a large one, within what can be read and what suits
// the picture.
Pen label_pen(const Pen& picture, const cv::Rect& box) {
  constexpr double kSide = 160;  // of a box whose label has letters of scale 1
  const double side = std::min(box.width, box.height);
  return pen_with(picture.line, std::min(picture.font_scale * 1.5, side / kSide));
}

void draw_box_labels(const FrameRecord& record, const std::vector<std::string>& class_names,
                     const Scale& scale, cv::Mat* picture) {
  const Pen pen = pen_for(*picture);
  std::vector<std::string> texts;
  std::vector<LabelledBox> boxes;
  for (const Detection& detection : record.detections) {
    const cv::Rect box = scale.rectangle(detection);
    texts.push_back(label_of(detection, class_names));
    boxes.push_back({box, extent_of(texts.back(), label_pen(pen, box)).outer});
  }
  const std::vector<cv::Rect> areas = place_labels(boxes, picture->size());
  for (std::size_t k = 0; k < areas.size(); ++k) {
    const cv::Scalar colour = colour_of(record.detections[k]);
    const cv::Rect touching(areas[k].tl() - cv::Point(1, 1), areas[k].br() + cv::Point(1, 1));
    if ((touching & boxes[k].box).empty()) {
      const cv::Point middle = (areas[k].tl() + areas[k].br()) / 2;
      cv::line(*picture, middle,
               {std::clamp(middle.x, boxes[k].box.x, boxes[k].box.br().x),
                std::clamp(middle.y, boxes[k].box.y, boxes[k].box.br().y)},
               colour, 1, cv::LINE_AA);
    }
  }
  for (std::size_t k = 0; k < areas.size(); ++k) {
    draw_label(texts[k], areas[k], label_pen(pen, boxes[k].box), colour_of(record.detections[k]),
               picture);
  }
}

void annotate(const FrameRecord& record, const std::vector<std::string>& class_names,
              const DrawingOptions& options, cv::Mat* picture) {
  const Scale scale = {static_cast<double>(picture->cols) / record.width,
                       static_cast<double>(picture->rows) / record.height};
  const int line = options.line_width > 0 ? options.line_width : pen_for(*picture).line;
  blur(record, scale, picture);
  for (const Detection& box : record.detections) {
    const cv::Scalar colour = colour_of(box);
    cv::rectangle(*picture, scale.rectangle(box).tl(), scale.rectangle(box).br(), colour, line);
    for (const KeyPoint& point : box.key_points) {
      cv::circle(*picture, {scaled(point.x, scale.across), scaled(point.y, scale.down)}, line + 1,
                 colour, cv::FILLED, cv::LINE_AA);
    }
  }
  // Labels last, so that no other box's outline runs through a text.
  if (options.labels) {
    draw_box_labels(record, class_names, scale, picture);
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
  const Pen pen = pen_for(*picture);
  std::string shown = text;
  for (std::size_t left = text.size();
       left > 2 && extent_of(shown, pen).outer.width > picture->cols; --left) {
    shown = text.substr(0, left / 2) + ".." + text.substr(text.size() - (left - left / 2));
  }
  Labels(picture).draw(shown, {0, picture->rows}, cv::Scalar(40, 40, 40));
}

std::vector<std::string> wrapped_text(const std::string& text, int width, int line_height) {
  const Pen pen = strip_pen(line_height);
  std::vector<std::string> lines;
  std::string rest = text;
  while (!rest.empty()) {
    // No letter is narrower than a pixel.
    std::size_t end = std::min(rest.size(), static_cast<std::size_t>(width));
    while (end > 1 && extent_of(rest.substr(0, end), pen).outer.width - 2 * pen.margin > width) {
      --end;
    }
    const std::size_t space = end < rest.size() ? rest.rfind(' ', end) : std::string::npos;
    end = space == std::string::npos || space == 0 ? end : space;
    lines.push_back(rest.substr(0, end));
    rest.erase(0, std::min(rest.find_first_not_of(' ', end), rest.size()));
  }
  return lines;
}

void draw_wrapped_text(const std::string& text, int line_height, cv::Mat* strip) {
  const Pen pen = strip_pen(line_height);
  int top = 0;
  for (const std::string& line : wrapped_text(text, strip->cols, line_height)) {
    cv::putText(*strip, line, {0, top + (line_height + extent_of(line, pen).ascent) / 2}, kFont,
                pen.font_scale, cv::Scalar(0, 0, 0), pen.text_line, cv::LINE_AA);
    top += line_height;
  }
}

const cv::Mat& FramePicture::annotated() {
  if (annotated_.empty()) {
    annotated_ = plain_.clone();
    annotate(record_, class_names_, options_, &annotated_);
  }
  return annotated_;
}

cv::Mat FramePicture::annotated_at(cv::Size size) const {
  const cv::Scalar bars(40, 40, 40);
  cv::Mat result(size, CV_8UC3, bars);
  cv::Mat inside = result(fitted(plain_.size(), size));
  cv::resize(plain_, inside, inside.size(), 0, 0, cv::INTER_AREA);
  annotate(record_, class_names_, options_, &inside);
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
