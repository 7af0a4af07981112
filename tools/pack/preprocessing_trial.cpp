// SPDX-License-Identifier: Apache-2.0
// preprocessing_trial.cpp - counts the rows of a high score under other usual preprocessings.
#include "tools/pack/pack.h"

#include <algorithm>
#include <utility>

#include "tools/common/text.h"

namespace olvex_tools {

namespace {

using qv_host::ColourOrder;

constexpr double kClearRise = 1.5;  // so many times the sure rows: a preprocessing is wrong
constexpr float kUnscaled = .1f;    // scales above leave 0..255 as it is, or nearly so
constexpr double kCrowd = .2;       // a larger share of sure rows is none of objects
constexpr double kRise = 1.1;       // it may be
constexpr double kFewRows = 8;      // fewer sure rows say nothing

struct UsualValues {
  const char* mean;  // as the options are written, in network order
  const char* scale;
  std::array<float, 3> mean_values;
  std::array<float, 3> deviation;  // the scale is 1 / deviation
};

const UsualValues kUsualValues[] = {
    {"0", "1/255", {{0.f, 0.f, 0.f}}, {{255.f, 255.f, 255.f}}},
    {"0", "1", {{0.f, 0.f, 0.f}}, {{1.f, 1.f, 1.f}}},
    {"127.5", "1/128", {{127.5f, 127.5f, 127.5f}}, {{128.f, 128.f, 128.f}}},
    {"103.53,116.28,123.675",
     "1/57.375,1/57.12,1/58.395",
     {{103.53f, 116.28f, 123.675f}},
     {{57.375f, 57.12f, 58.395f}}},
    {"123.675,116.28,103.53",
     "1/58.395,1/57.12,1/57.375",
     {{123.675f, 116.28f, 103.53f}},
     {{58.395f, 57.12f, 57.375f}}}};

class Trial {
 public:
  Trial(const Head& head, const qv_host::InputDescription& input,
        const std::vector<ProofPicture>& pictures, EngineRun* network, ProofResult* result)
      : head_(head),
        given_(input_values(input)),
        pictures_(pictures),
        network_(network),
        result_(result) {}

  void run() {
    if (std::any_of(given_.scale.begin(), given_.scale.end(), [](float v) { return v == 0.f; })) {
      result_->faults.emplace_back(
          "--scale 0 makes every picture black: the network sees nothing. Give what it was trained "
          "with, often 1/255");
      return;
    }
    now_ = sure_rows(given_);
    if (!check_scale()) {
      return;
    }
    check_usual_values();
    if (given_.order != ColourOrder::kGray) {
      check_colours();
    }
  }

 private:
  // Sure rows over all pictures.
  double sure_rows(const InputValues& input) const {
    double count = 0;
    for (const ProofPicture& picture : pictures_) {
      for (const PlainRow& row : read_plainly(head_, network_->run(picture.picture, input))) {
        count += best_score(head_, row) >= kSure ? 1 : 0;
      }
    }
    return count;
  }

  double all_rows() const {
    return static_cast<double>(head_.rows()) * static_cast<double>(pictures_.size());
  }

  std::string rise_text(const char* mean, const char* scale, double there) const {
    return format(
        "with --mean %s --scale %s %.0f rows have a score of %.1f or more, in place of %.0f", mean,
        scale, there, kSure, now_);
  }

  // Values of 0..255 where 0..1 are wanted make a network see much too much, or less than it would. False:
  // a fault was found.
  bool check_scale() {
    const bool unscaled = given_.scale[0] > kUnscaled;
    if (now_ > kCrowd * all_rows()) {
      result_->faults.push_back(
          format("%.0f of %.0f rows have a score of %.1f or more, as if there were objects "
                 "everywhere. Check --mean and --scale",
                 now_, all_rows(), kSure) +
          (unscaled ? "; often --scale is 1/255" : ""));
      return false;
    }
    const double there = unscaled ? sure_rows(with(kUsualValues[0])) : 0;
    if (there >= kFewRows && there > kClearRise * now_) {
      result_->faults.push_back(rise_text("0", "1/255", there) + ". Check --mean and --scale");
      return false;
    }
    return true;
  }

  InputValues with(const UsualValues& usual) const {
    InputValues other = given_;
    other.mean = usual.mean_values;
    for (std::size_t i = 0; i < other.scale.size(); ++i) {
      other.scale[i] = 1.f / usual.deviation[i];
    }
    return other;
  }

  // Values that are too large also make a network surer of nothing in particular: they count only where it
  // sees nothing as it is.
  void check_usual_values() {
    const UsualValues* best = nullptr;
    double most = std::max(kClearRise * now_, kFewRows - 1);
    for (const UsualValues& usual : kUsualValues) {
      const bool unscaled = 1.f / usual.deviation[0] > kUnscaled;
      const double there = unscaled && now_ > 0 ? 0 : sure_rows(with(usual));
      if (there > most && there <= kCrowd * all_rows()) {
        best = &usual;
        most = there;
      }
    }
    if (best != nullptr) {
      result_->notes.push_back(rise_text(best->mean, best->scale, most) +
                               ". Check --mean and --scale");
    }
  }

  void check_colours() {
    InputValues other = given_;
    const bool rgb = given_.order == ColourOrder::kRgb;
    other.order = rgb ? ColourOrder::kBgr : ColourOrder::kRgb;
    std::swap(other.mean[0], other.mean[2]);
    std::swap(other.scale[0], other.scale[2]);
    const double there = sure_rows(other);
    if (there >= kFewRows && there > kRise * now_) {
      result_->notes.push_back(
          format("with --network-order %s scores rise: %.0f rows of %.1f or more in place of %.0f; "
                 "the colours may be swapped",
                 rgb ? "bgr" : "rgb", there, kSure, now_));
    }
  }

  const Head& head_;
  InputValues given_;
  const std::vector<ProofPicture>& pictures_;
  EngineRun* network_;
  ProofResult* result_;
  double now_ = 0;  // sure rows as the network is packed
};

}  // namespace

void try_preprocessing(const Head& head, const qv_host::InputDescription& input,
                       const std::vector<ProofPicture>& pictures, EngineRun* network,
                       ProofResult* result) {
  Trial(head, input, pictures, network, result).run();
}

}  // namespace olvex_tools
