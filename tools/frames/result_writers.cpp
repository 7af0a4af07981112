// SPDX-License-Identifier: Apache-2.0
// result_writers.cpp - a text per frame for each format of lines, and the list of COCO results.
#include "tools/frames/result_writers.h"

#include <charconv>
#include <cstdlib>
#include <functional>
#include <utility>

#include "tools/common/json_text.h"
#include "tools/common/output_file.h"

namespace olvex_tools {

namespace {

constexpr int kFrameSchemaVersion = 1;
constexpr int kOneLine = -1;  // the indent of JSON without line ends

std::string shortest_text(float value) {
  char text[64];
  const std::to_chars_result result = std::to_chars(text, text + sizeof text, value);
  return std::string(text, result.ptr);
}

// 0.9, not 0.899999976.
double shortest_decimal(float value) {
  return std::strtod(shortest_text(value).c_str(), nullptr);
}

Json key_points_of(const Detection& detection) {
  Json list = Json::array();
  for (const KeyPoint& point : detection.key_points) {
    Json item = {{"x", shortest_decimal(point.x)}, {"y", shortest_decimal(point.y)}};
    item["score"] = point.score < 0 ? Json(nullptr) : Json(shortest_decimal(point.score));
    list.push_back(std::move(item));
  }
  return list;
}

// Left, top, width and height: as the library computed them, or cut to whole pixels.
Json sides_of(const Detection& box, bool whole_pixels) {
  if (whole_pixels) {
    return {box.x, box.y, box.width, box.height};
  }
  const auto& [left, top, right, bottom] = box.corners;
  return {shortest_decimal(left), shortest_decimal(top), shortest_decimal(right - left),
          shortest_decimal(bottom - top)};
}

Json box_of(const Detection& detection, const std::vector<std::string>& class_names) {
  Json box = {{"x", detection.x},         {"y", detection.y},
              {"width", detection.width}, {"height", detection.height},
              {"corners", Json::array()}, {"class_id", detection.class_id}};
  for (const float corner : detection.corners) {
    box["corners"].push_back(shortest_decimal(corner));
  }
  const std::string name = class_name(class_names, detection.class_id);
  if (!name.empty()) {
    box["class"] = name;
  }
  box["score"] = shortest_decimal(detection.score);
  box["track_id"] = or_null(detection.track_id);
  box["keypoints"] = key_points_of(detection);
  return box;
}

std::string json_line_of(const FrameRecord& record, const std::vector<std::string>& class_names) {
  Json boxes = Json::array();
  for (const Detection& detection : record.detections) {
    boxes.push_back(box_of(detection, class_names));
  }
  return json_text({{"schema_version", kFrameSchemaVersion},
                    {"frame", record.number},
                    {"pts", record.pts},
                    {"source", record.source},
                    {"size", {{"width", record.width}, {"height", record.height}}},
                    {"boxes", std::move(boxes)},
                    {"milliseconds",
                     {{"decode", rounded(record.milliseconds.decode)},
                      {"conversion", rounded(record.milliseconds.conversion)},
                      {"network", rounded(record.milliseconds.network)},
                      {"postprocessing", rounded(record.milliseconds.postprocessing)}}}},
                   kOneLine) +
         "\n";
}

std::string mot_rows_of(const FrameRecord& record, bool whole_pixels) {
  std::string rows;
  for (const Detection& detection : record.detections) {
    const std::string id = detection.track_id ? std::to_string(*detection.track_id) : "-1";
    rows += std::to_string(record.number) + "," + id;
    for (const Json& side : sides_of(detection, whole_pixels)) {
      rows += "," + side.dump();
    }
    rows += "," + shortest_text(detection.score) + "," + std::to_string(detection.class_id) +
            ",-1,-1\n";
  }
  return rows;
}

using LinesOf = std::function<std::string(const FrameRecord&)>;

class LinesWriter : public FrameWriter {
 public:
  LinesWriter(const std::string& path, FILE* standard_output, LinesOf lines_of)
      : file_(path, standard_output, OutputForm::kLines), lines_of_(std::move(lines_of)) {}

  void write(FramePicture* frame) override { file_.write(lines_of_(frame->record())); }
  void finish() override { file_.close(); }

 private:
  OutputFile file_;
  LinesOf lines_of_;
};

class CocoWriter : public FrameWriter {
 public:
  CocoWriter(const std::string& path, FILE* standard_output, bool whole_pixels)
      : file_(path, standard_output, OutputForm::kWhole), whole_pixels_(whole_pixels) {}

  void write(FramePicture* frame) override {
    const FrameRecord& record = frame->record();
    std::string items = opening();
    for (const Detection& detection : record.detections) {
      const Json item = {{"image_id", record.image_id},
                         {"category_id", detection.class_id},
                         {"bbox", sides_of(detection, whole_pixels_)},
                         {"score", shortest_decimal(detection.score)}};
      items += (first_ ? "\n" : ",\n") + json_text(item, kOneLine);
      first_ = false;
    }
    file_.write(items);
  }

  void finish() override {
    // A run without a frame leaves the file of an earlier one, but a reader of a pipe gets an array.
    if (begun_ || !file_.is_file()) {
      file_.write(opening() + "\n]\n");
    }
    file_.close();
  }

 private:
  // What stands before the first item, once.
  std::string opening() { return std::exchange(begun_, true) ? "" : "["; }

  OutputFile file_;
  bool whole_pixels_;
  bool begun_ = false;
  bool first_ = true;  // no item has been written yet
};

}  // namespace

std::unique_ptr<FrameWriter> make_json_lines_writer(const std::string& path, FILE* standard_output,
                                                    const std::vector<std::string>& class_names) {
  return std::make_unique<LinesWriter>(
      path, standard_output,
      [class_names](const FrameRecord& record) { return json_line_of(record, class_names); });
}

std::unique_ptr<FrameWriter> make_mot_writer(const std::string& path, FILE* standard_output,
                                             bool whole_pixels) {
  return std::make_unique<LinesWriter>(
      path, standard_output,
      [whole_pixels](const FrameRecord& record) { return mot_rows_of(record, whole_pixels); });
}

std::unique_ptr<FrameWriter> make_coco_writer(const std::string& path, FILE* standard_output,
                                              bool whole_pixels) {
  return std::make_unique<CocoWriter>(path, standard_output, whole_pixels);
}

}  // namespace olvex_tools
