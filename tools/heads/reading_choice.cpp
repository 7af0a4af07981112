// reading_choice.cpp - which of several readings the values speak for. Declared in head_evidence.h.
#include <algorithm>
#include <numeric>
#include <optional>

#include "tools/heads/head_evidence.h"

namespace olvex_tools {

namespace {

double mean_of(const HeadPart& part, const OutputValues& values) {
  double sum = 0;
  double count = 0;
  for (std::int64_t i = 0; i < part.count; ++i) {
    const std::vector<float> channel = read_channel(part.tensors, part.first + i, values);
    sum = std::accumulate(channel.begin(), channel.end(), sum);
    count += static_cast<double>(channel.size());
  }
  return count > 0 ? sum / count : 0;
}

// How much lower the logits of scores are than the values of boxes; nothing where there are no logits.
std::optional<double> depth_of_scores(const Head& head, const OutputValues& values) {
  const HeadPart& scores = head.objectness.present() ? head.objectness : head.classes;
  const bool undecoded = head.box_code == BoxCode::kOffsets || head.box_code == BoxCode::kDistances;
  return undecoded && scores.activation != Activation::kNone
             ? std::make_optional(mean_of(head.boxes, values) - mean_of(scores, values))
             : std::nullopt;
}

// Any number of channels can be bins: an unusual number counts only where nothing else fits.
void drop_unlikely_bins(std::vector<HeadReading>* readings) {
  const auto unlikely = [](const HeadReading& reading) {
    return reading.head.family == "distance-bins" && !are_usual_bins(reading.head.bins);
  };
  if (!std::all_of(readings->begin(), readings->end(), unlikely)) {
    readings->erase(std::remove_if(readings->begin(), readings->end(), unlikely), readings->end());
  }
}

// Most cells show nothing: where the right values are taken for scores they are far below the others.
void keep_deepest_scores(const OutputValues& values, std::vector<HeadReading>* readings) {
  constexpr double kClear = 2;
  constexpr double kLead = 1.5;
  std::vector<double> depths;
  for (const HeadReading& reading : *readings) {
    const std::optional<double> depth = depth_of_scores(reading.head, values);
    if (!depth) {
      return;
    }
    depths.push_back(*depth);
  }
  const double most = *std::max_element(depths.begin(), depths.end());
  std::vector<HeadReading> kept;
  for (std::size_t i = 0; i < depths.size(); ++i) {
    const bool deepest = depths[i] > most - 1e-6;
    if (!deepest && !(most >= kClear && most >= kLead * depths[i])) {
      return;
    }
    if (deepest) {
      kept.push_back((*readings)[i]);
    }
  }
  for (HeadReading& reading : kept) {
    if (kept.size() < readings->size()) {
      add_fact(&reading, "its scores are logits that lie below everything else");
    }
  }
  *readings = kept;
}

// Of another set of strides; these do not matter where boxes are decoded.
bool are_same(const HeadReading& left, const HeadReading& right) {
  return left.head.family == right.head.family && left.head.references.empty() &&
         right.head.references.empty() && left.head.class_count == right.head.class_count;
}

void drop_repeated(std::vector<HeadReading>* readings) {
  std::vector<HeadReading> kept;
  for (const HeadReading& reading : *readings) {
    if (std::none_of(kept.begin(), kept.end(),
                     [&](const HeadReading& other) { return are_same(reading, other); })) {
      kept.push_back(reading);
    }
  }
  *readings = kept;
}

}  // namespace

void keep_likely_readings(const HeadQuestion& question, std::vector<HeadReading>* readings) {
  if (!question.options.bins) {
    drop_unlikely_bins(readings);
  }
  drop_repeated(readings);
  if (readings->size() > 1 && question.values != nullptr) {
    keep_deepest_scores(*question.values, readings);
  }
}

}  // namespace olvex_tools
