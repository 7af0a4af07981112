// SPDX-License-Identifier: Apache-2.0
// input_checks.cpp - the checks that run the network with its input described in another way, and report
// where that is clearly better over all pictures. Declared in doctor.h.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "tools/common/text.h"
#include "tools/doctor/doctor.h"

namespace olvex_tools {

namespace {

using qv_host::ColourOrder;
using qv_host::InputDescription;
using qv_host::Resize;

double sum(const std::vector<double>& values) {
  return std::accumulate(values.begin(), values.end(), 0.0);
}

// Whether the other way is better in total by more than chance gives, and in three of four frames that differ.
// Few frames prove less, so that the total has to be better by more.
bool is_clearly_better(const std::vector<double>& other, const std::vector<double>& own) {
  constexpr std::size_t kFewFrames = 5;
  constexpr double kMore = 1.15;
  constexpr double kMoreOfFew = 1.5;
  constexpr double kLeastGain = 1;  // about a sure box
  std::size_t won = 0;
  std::size_t lost = 0;
  for (std::size_t i = 0; i < own.size(); ++i) {
    won += other[i] > own[i] ? 1 : 0;
    lost += other[i] < own[i] ? 1 : 0;
  }
  const double factor = own.size() < kFewFrames ? kMoreOfFew : kMore;
  return won >= 3 * lost && sum(other) >= factor * std::max(0.0, sum(own)) + kLeastGain;
}

// What was seen of a comparison.
std::string comparison(const std::vector<double>& own, const std::string& other_name,
                       const std::vector<double>& other) {
  return format("sure boxes less doubtful ones over %zu frames: %.1f as packed, %.1f ", own.size(),
                sum(own), sum(other)) +
         other_name;
}

struct Normalisation {
  std::array<float, 3> mean;  // red, green, blue
  std::array<float, 3> scale;
  const char* mean_text;  // the options for a network in that order, and in the reverse one
  const char* scale_text;
  const char* reverse_mean_text;
  const char* reverse_scale_text;
};

// What networks are usually trained with.
const Normalisation kUsual[] = {
    {{{0, 0, 0}}, {{1 / 255.f, 1 / 255.f, 1 / 255.f}}, "0", "1/255", "0", "1/255"},
    {{{0, 0, 0}}, {{1, 1, 1}}, "0", "1", "0", "1"},
    {{{127.5f, 127.5f, 127.5f}},
     {{1 / 127.5f, 1 / 127.5f, 1 / 127.5f}},
     "127.5",
     "1/127.5",
     "127.5",
     "1/127.5"},
    {{{123.675f, 116.28f, 103.53f}},
     {{1 / 58.395f, 1 / 57.12f, 1 / 57.375f}},
     "123.675,116.28,103.53",
     "1/58.395,1/57.12,1/57.375",
     "103.53,116.28,123.675",
     "1/57.375,1/57.12,1/58.395"}};

bool is_reverse(const InputDescription& input) {
  return input.network_order == ColourOrder::kBgr;
}

InputDescription normalised(InputDescription input, const Normalisation& usual) {
  input.mean = usual.mean;
  input.scale = usual.scale;
  if (is_reverse(input)) {
    std::swap(input.mean[0], input.mean[2]);
    std::swap(input.scale[0], input.scale[2]);
  }
  return input;
}

std::string options_of(const InputDescription& input, const Normalisation& usual) {
  return std::string("--mean ") + (is_reverse(input) ? usual.reverse_mean_text : usual.mean_text) +
         " --scale " + (is_reverse(input) ? usual.reverse_scale_text : usual.scale_text);
}

// Whether black and white become nearly the same values: the network cannot tell the two apart.
bool is_nearly(const InputDescription& a, const InputDescription& b) {
  constexpr float kNearly = 0.05f;  // of the range
  for (std::size_t i = 0; i < a.mean.size(); ++i) {
    const float range = 255 * std::fabs(a.scale[i]);
    const float black = a.mean[i] * a.scale[i] - b.mean[i] * b.scale[i];
    const float white = (255 - a.mean[i]) * a.scale[i] - (255 - b.mean[i]) * b.scale[i];
    if (std::max(std::fabs(black), std::fabs(white)) > kNearly * range) {
      return false;
    }
  }
  return true;
}

void adopt(const InputDescription& input, const std::vector<double>& clarity,
           Examination* examination) {
  examination->best_input = input;
  examination->best_clarity = clarity;
}

}  // namespace

Outcome check_mean_and_scale(Examination* examination) {
  const std::vector<double> own = examination->best_clarity;
  const InputDescription described = examination->best_input;
  std::string options;
  for (const Normalisation& usual : kUsual) {
    const InputDescription other = normalised(described, usual);
    if (is_nearly(described, other)) {
      continue;
    }
    const std::vector<double> clarity =
        clarity_with(examination->examined, other, FrameChoice::kOwn);
    if (is_clearly_better(clarity, own) && sum(clarity) > sum(examination->best_clarity)) {
      adopt(other, clarity, examination);
      options = options_of(other, usual);
    }
  }
  if (options.empty()) {
    return passed("no usual mean and scale is clearly better");
  }
  return found(comparison(own, "with " + options, examination->best_clarity),
               "mean and scale are not those of the training", "pack with " + options);
}

Outcome check_colours(Examination* examination) {
  InputDescription other = examination->best_input;
  if (other.network_order == ColourOrder::kGray) {
    return skipped("the network takes gray");
  }
  const std::vector<double> own = examination->best_clarity;
  const bool reverse = is_reverse(other);
  other.network_order = reverse ? ColourOrder::kRgb : ColourOrder::kBgr;
  const std::vector<double> clarity = clarity_with(examination->examined, other, FrameChoice::kOwn);
  if (!is_clearly_better(clarity, own)) {
    return passed("not clearly better with the colours swapped");
  }
  adopt(other, clarity, examination);
  return found(comparison(own, "with the colours swapped", clarity), "red and blue are swapped",
               std::string("pack with --network-order ") + (reverse ? "rgb" : "bgr"));
}

Outcome check_aspect(Examination* examination) {
  const std::vector<TestFrame>& frames = examination->examined.frames;
  const bool differs = std::any_of(frames.begin(), frames.end(), [](const TestFrame& frame) {
    return !frame.other_resize.empty();
  });
  if (!differs) {
    return skipped("the pictures have the aspect of the model");
  }
  const std::vector<double> clarity =
      clarity_with(examination->examined, examination->best_input, FrameChoice::kOtherResize);
  const bool stretched = examination->best_input.resize == Resize::kStretch;
  const std::string other = stretched ? "with the aspect kept" : "stretched";
  if (!is_clearly_better(clarity, examination->best_clarity)) {
    return passed("not clearly better " + other);
  }
  return found(comparison(examination->best_clarity, other, clarity),
               stretched
                   ? "pictures of another aspect are stretched, and objects lose their shape"
                   : "pictures are made smaller with their aspect kept, which the network is not "
                     "trained for",
               std::string("pack with --resize ") + (stretched ? "letterbox" : "stretch"));
}

}  // namespace olvex_tools
