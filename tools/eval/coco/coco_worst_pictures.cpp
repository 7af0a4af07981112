// SPDX-License-Identifier: Apache-2.0
// coco_worst_pictures.cpp - reads the input's frames up to the last one wanted and draws into those.
// Declared in coco.h.
#include "tools/eval/coco/coco.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <memory>

#include <opencv2/imgproc.hpp>

#include "tools/frames/annotation.h"
#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/frames/frame_source.h"

namespace olvex_tools {

namespace fs = std::filesystem;

namespace {

// Blue, green, red.
const cv::Scalar kWhite(255, 255, 255);
const cv::Scalar kGreen(80, 200, 60);
const cv::Scalar kRed(50, 50, 235);
const cv::Scalar kYellow(40, 220, 255);

// Boxes are in pixels of the truth's picture, which the run may have scaled.
struct Scale {
  double across = 1;
  double down = 1;
};

// Requires: the line is level or upright.
void draw_dashes(cv::Point from, cv::Point to, const cv::Scalar& colour, int width,
                 cv::Mat* picture) {
  const int dash = 5 * width;
  const cv::Point way = to - from;
  const int length = std::max(std::abs(way.x), std::abs(way.y));
  const cv::Point step((way.x > 0) - (way.x < 0), (way.y > 0) - (way.y < 0));
  for (int start = 0; start < length; start += 2 * dash) {
    const int end = std::min(start + dash, length);
    cv::line(*picture, from + step * start, from + step * end, colour, width);
  }
}

void draw_dashed_box(cv::Point upper_left, cv::Point lower_right, const cv::Scalar& colour,
                     int width, cv::Mat* picture) {
  const cv::Point upper_right(lower_right.x, upper_left.y);
  const cv::Point lower_left(upper_left.x, lower_right.y);
  draw_dashes(upper_left, upper_right, colour, width, picture);
  draw_dashes(upper_right, lower_right, colour, width, picture);
  draw_dashes(lower_left, lower_right, colour, width, picture);
  draw_dashes(upper_left, lower_left, colour, width, picture);
}

void draw_box(const JudgedBox& judged, const Scale& scale, const std::string& name,
              std::vector<Label>* labels, cv::Mat* picture) {
  const Box& box = judged.box;
  const cv::Point upper_left{scaled(box.x, scale.across), scaled(box.y, scale.down)};
  const cv::Point lower_right{scaled(box.x + box.width, scale.across),
                              scaled(box.y + box.height, scale.down)};
  const int width = outline_width(*picture);
  if (judged.fate == Fate::kFound) {
    cv::rectangle(*picture, upper_left, lower_right, kWhite, 1);
  } else if (judged.fate == Fate::kMissed) {
    draw_dashed_box(upper_left, lower_right, kYellow, width, picture);
    labels->push_back({name + " missed", upper_left, kYellow});
  } else {
    const cv::Scalar& colour = judged.fate == Fate::kHit ? kGreen : kRed;
    cv::rectangle(*picture, upper_left, lower_right, colour, width);
    labels->push_back({name + format(" %.2f", judged.score), upper_left, colour});
  }
}

void draw_errors(const CocoTruth& truth, const PictureErrors& errors, cv::Mat* picture) {
  const CocoPicture& facts = truth.pictures[errors.picture];
  Scale scale;
  if (facts.width > 0 && facts.height > 0) {
    scale = {picture->cols / facts.width, picture->rows / facts.height};
  }
  std::vector<JudgedBox> boxes = errors.boxes;
  // Truth that was found is drawn last: its line is thin and would be hidden below the hits.
  std::stable_sort(boxes.begin(), boxes.end(), [](const JudgedBox& left, const JudgedBox& right) {
    return left.fate != Fate::kFound && right.fate == Fate::kFound;
  });
  std::vector<Label> labels;
  for (const JudgedBox& judged : boxes) {
    draw_box(judged, scale, truth.categories[judged.category].name, &labels, picture);
  }
  draw_labels(labels, picture);
  draw_caption("image " + std::to_string(facts.id) + ": missed " + std::to_string(errors.misses) +
                   ", false " + std::to_string(errors.false_boxes) + ", hit " +
                   std::to_string(errors.hits),
               picture);
}

}  // namespace

// Only a model defines how a dumped frame lies in memory, and a camera cannot be replayed.
void require_pictures(const std::string& input) {
  if (holds_dumps(input)) {
    refuse_input(input, "dumped frames (*.bin) cannot be drawn on; give the video or the pictures");
  }
  if (is_camera(input)) {
    refuse_input(input, "a camera does not show the same frames again; give a video or pictures");
  }
}

void draw_worst_pictures(const CocoTruth& truth, const std::vector<PictureErrors>& worst,
                         const std::string& input, const std::string& folder) {
  std::map<std::uint64_t, std::size_t> wanted;  // place among the worst by image id
  for (std::size_t i = 0; i < worst.size(); ++i) {
    wanted[static_cast<std::uint64_t>(truth.pictures[worst[i].picture].id)] = i;
  }
  silence_opencv();
  constexpr double kAnyRate = 25;  // frames per second; times play no part here
  const std::unique_ptr<FrameSource> source = open_frame_source(input, FrameLayout(), kAnyRate);
  make_folder(folder);
  SourceFrame frame;
  while (!wanted.empty() && source->next(&frame)) {
    const auto found = wanted.find(frame.image_id);
    if (found == wanted.end()) {
      continue;
    }
    const PictureErrors& errors = worst[found->second];
    cv::Mat picture = frame.picture.clone();
    draw_errors(truth, errors, &picture);
    const auto id = static_cast<long long>(truth.pictures[errors.picture].id);
    const std::string name = format("worst_%02zu_image_%lld.png", found->second + 1, id);
    write_picture((fs::path(folder) / name).string(), picture);
    wanted.erase(found);
  }
  if (!wanted.empty()) {
    const PictureErrors& missing = worst[wanted.begin()->second];
    refuse_input(input, "has no frame with the image id " +
                            std::to_string(truth.pictures[missing.picture].id) +
                            " of the truth. Give the input that the results come from");
  }
}

}  // namespace olvex_tools
