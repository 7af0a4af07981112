// SPDX-License-Identifier: Apache-2.0
// output_checks.cpp - the checks of what the network computes on the pictures. Declared in doctor.h.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "video/det/include/olvex_det.h"

#include "tools/common/text.h"
#include "tools/doctor/doctor.h"
#include "tools/inside/model_facts.h"

namespace olvex_tools {

namespace {

using qv_host::BoxOrder;
using qv_host::Description;
using qv_host::OutputKind;

bool is_raw(const Examination& examination) {
  return examination.examined.image.description.kind == OutputKind::kRaw;
}

std::string range_text(const ValueRange& range) {
  return format("%.4g to %.4g", range.least, range.largest);
}

// The range of all of them.
ValueRange together(const std::vector<ValueRange>& ranges) {
  ValueRange all;
  for (const ValueRange& range : ranges) {
    all.least = std::min(all.least, range.least);
    all.largest = std::max(all.largest, range.largest);
    all.count += range.count;
    all.not_finite += range.not_finite;
  }
  return all;
}

// Of logits some are negative, as most cells hold no object.
bool lies_in(const ValueRange& range, double least, double largest) {
  return range.count > 0 && range.least >= least && range.largest <= largest;
}

constexpr double kLargestTwofold = 0.7311;  // sigmoid(1)

Outcome check_raw_scores(const PlainRun& run) {
  const ValueRange classes = together(run.class_values);
  const ValueRange boxes = together(run.box_values);
  const bool scores_done = lies_in(classes, 0, 1);
  const bool boxes_done = lies_in(boxes, 0, 1);
  if (!scores_done && !boxes_done) {
    return passed("class values are logits, " + range_text(classes));
  }
  const std::string what = !boxes_done ? "class" : !scores_done ? "box" : "box and class";
  return found("all " + what + " values lie in 0..1: " + range_text(scores_done ? classes : boxes),
               "they have passed a sigmoid, and the library applies its own: no score is below 0.5",
               "write the network with outputs that end before its sigmoid, and pack with --raw "
               "and their names; "
               "a network that ends in decoded boxes is packed with --boxes and --scores instead");
}

Outcome check_decoded_scores(const Examination& examination) {
  const ValueRange scores = together(examination.plain.class_values);
  const std::string& name = examination.examined.image.description.decoded.scores;
  const std::string seen = "best scores of the rows: " + range_text(scores);
  constexpr double kRounding = 1e-3;
  if (scores.least < -kRounding || scores.largest > 1 + kRounding) {
    return found(seen, "they are logits or weights, not probabilities",
                 "append a sigmoid (or softmax) to the network's output \"" + name +
                     "\", and pack with --scores and its name");
  }
  if (lies_in(scores, 0.5, kLargestTwofold)) {
    return found(seen, "they have passed a sigmoid twice, which gives 0.5 to 0.73",
                 "write the network without the last sigmoid before \"" + name +
                     "\", and pack with --scores and its name");
  }
  return passed(seen);
}

// ---- Boxes --------------------------------------------------------------------------------------

std::string reading_text(const BoxReading& reading) {
  return std::string(reading.order == BoxOrder::kCornerPairs ? "xyxy" : "cxcywh") + " in " +
         (reading.fractions ? "fractions" : "pixels");
}

const BoxReading& reading_as_packed(const PlainRun& run, const qv_host::DecodedOutput& decoded) {
  return *std::find_if(run.readings.begin(), run.readings.end(), [&](const BoxReading& reading) {
    return reading.order == decoded.box_order && reading.fractions == decoded.box_fractions;
  });
}

std::string box_options(const BoxReading& best, const BoxReading& packed) {
  std::string options = "pack with";
  if (best.order != packed.order) {
    options +=
        std::string(" --box-order ") + (best.order == BoxOrder::kCornerPairs ? "xyxy" : "cxcywh");
  }
  if (best.fractions != packed.fractions) {
    options += std::string(" --box-unit ") + (best.fractions ? "fractions" : "pixels");
  }
  return options;
}

// ---- Integers -----------------------------------------------------------------------------------

constexpr double kMostAtLimit = 1e-4;  // of the values
constexpr int kLeastBits = 11;         // with the sign's twelve: a thousand steps
constexpr int kAllBits = 15;

int bits_of(int largest) {
  int bits = 0;
  for (; largest > 0; largest /= 2) {
    ++bits;
  }
  return bits;
}

bool saturates(const IntegerUse& use) {
  return static_cast<double>(use.at_limit) > kMostAtLimit * static_cast<double>(use.values);
}

bool wastes(const IntegerUse& use) {
  return use.values > 0 && bits_of(use.largest) < kLeastBits;
}

std::string use_text(const std::string& name, const IntegerUse& use) {
  return name +
         format(": %.3g %% of the values at the limits, ",
                100.0 * static_cast<double>(use.at_limit) /
                    static_cast<double>(std::max<std::size_t>(use.values, 1))) +
         std::to_string(bits_of(use.largest)) + " of " + std::to_string(kAllBits) + " bits used";
}

// "--raw-scale 0.1,0.2,0.3" or "--box-scale 0.1 --score-scale 0.2".
std::string scale_options(const Description& description, const std::vector<double>& reach) {
  Description copy = description;
  const std::vector<ScaledOutput> outputs = scaled_outputs(&copy);
  const bool raw = description.kind == OutputKind::kRaw;
  std::string options;
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    const float scale = scale_for(reach[i], outputs[i].natural_reach);
    const std::string number = format("%.6g", static_cast<double>(scale));
    const bool first = options.empty();
    options += raw && !first ? "," + number
                             : (first ? "" : " ") + std::string(outputs[i].option) + " " + number;
  }
  return options;
}

// ---- Boxes in a frame ---------------------------------------------------------------------------------

double per_frame(std::size_t count, const Examination& examination) {
  return static_cast<double>(count) / static_cast<double>(examination.examined.frames.size());
}

}  // namespace

Outcome check_finite(Examination* examination) {
  ValueRange all = together(examination->plain.box_values);
  all.not_finite += together(examination->plain.class_values).not_finite;
  if (all.not_finite == 0) {
    return passed("all values are finite");
  }
  return found(counted(all.not_finite, "value is", "values are") + " not finite",
               "the network overflows: its input is too large, or its weights are damaged",
               "pack with the --mean and --scale of its training; else write the network again");
}

Outcome check_scores(Examination* examination) {
  return is_raw(*examination) ? check_raw_scores(examination->plain)
                              : check_decoded_scores(*examination);
}

Outcome check_boxes(Examination* examination) {
  if (is_raw(*examination)) {
    return skipped("the library makes the boxes of raw layers");
  }
  constexpr double kGoodShare = 0.9;
  constexpr double kGain = 0.15;
  const PlainRun& run = examination->plain;
  if (run.rows_read == 0) {
    return skipped("the network gives no boxes");
  }
  const BoxReading& packed =
      reading_as_packed(run, examination->examined.image.description.decoded);
  const BoxReading& best = *std::max_element(
      run.readings.begin(), run.readings.end(),
      [](const BoxReading& a, const BoxReading& b) { return a.sensible < b.sensible; });
  const auto share = [&run](const BoxReading& reading) {
    return static_cast<double>(reading.sensible) / static_cast<double>(run.rows_read);
  };
  const std::string seen =
      format("%.0f %% of %zu boxes make sense as ", 100 * share(packed), run.rows_read) +
      reading_text(packed);
  if (share(best) >= kGoodShare && share(best) >= share(packed) + kGain) {
    return found(seen + format(", %.0f %% as ", 100 * share(best)) + reading_text(best),
                 "the four values of a box are read in the wrong order or unit",
                 box_options(best, packed));
  }
  return passed(seen);
}

Outcome check_integers(Examination* examination) {
  const Description& description = examination->examined.image.description;
  if (description.output_format != QV_IPU_FORMAT_INT16) {
    return skipped("the outputs are FP32");
  }
  Description copy = description;
  const std::vector<ScaledOutput> outputs = scaled_outputs(&copy);
  const std::vector<IntegerUse>& uses = examination->own.integers;
  std::vector<std::string> all;
  std::vector<std::string> bad;
  for (std::size_t i = 0; i < uses.size(); ++i) {
    all.push_back(use_text(outputs[i].name, uses[i]));
    if (saturates(uses[i]) || wastes(uses[i])) {
      bad.push_back(all.back());
    }
  }
  if (bad.empty()) {
    return passed(join(all, "; "));
  }
  const bool cut = std::any_of(uses.begin(), uses.end(), saturates);
  return found(join(bad, "; "),
               cut ? "the INT16 scale is too small, and large values are cut off"
                   : "the INT16 scale is too large, and steps are coarse",
               "pack with --calibrate and pictures, or with " +
                   scale_options(description, examination->plain.reach));
}

Outcome check_limits(Examination* examination) {
  const OwnRun& own = examination->own;
  const qv_host::DecodedOutput& decoded = examination->examined.image.description.decoded;
  const std::string frames = counted(examination->examined.frames.size(), "frame", "frames");
  if (own.frames_with_dropped > 0) {
    constexpr std::size_t kRound = 100;
    constexpr std::size_t kMost = 32767;
    const std::size_t needed = static_cast<std::size_t>(decoded.max_boxes) + own.most_dropped;
    return found(
        format("%zu of ", own.frames_with_dropped) + frames + " have more candidates than " +
            std::to_string(decoded.max_boxes) + ", at most " + std::to_string(needed),
        "the weaker ones never reach the library",
        "pack with --max-boxes " + std::to_string(std::min((needed / kRound + 1) * kRound, kMost)) +
            ", or with a higher --min-score");
  }
  if (own.frames_with_cut > 0) {
    return found(format("%zu of ", own.frames_with_cut) + frames +
                     " have more boxes of score 0.5 than " + std::to_string(ALGO_DET_MAX_BOXES),
                 "the library reports no more than that",
                 "run with a higher --threshold; the image itself has no option for it");
  }
  return passed("no limit was hit");
}

Outcome check_least_threshold(Examination* examination) {
  const std::size_t boxes = examination->own.boxes.front();
  if (boxes > 0) {
    return passed(format("%.1f in a frame", per_frame(boxes, *examination)));
  }
  return found(
      "none in any picture",
      "nothing passes: the pictures show no object of the classes, or the network's input or "
      "outputs are not as described",
      "give pictures with objects; then pack with the --mean, --scale and --network-order of "
      "the training");
}

Outcome check_highest_threshold(Examination* examination) {
  constexpr double kEverything = 0.9;   // of the boxes at the least threshold
  constexpr double kNotableBoxes = 20;  // of a frame: a network may be sure of a few
  const double lowest = per_frame(examination->own.boxes.front(), *examination);
  const double highest = per_frame(examination->own.boxes.back(), *examination);
  if (highest >= kEverything * lowest && lowest >= kNotableBoxes) {
    return found(format("%.1f in a frame, of %.1f at 0.1", highest, lowest),
                 "everything passes: no threshold tells objects from the rest",
                 "pack with --raw, or --scores, and the outputs that hold the class scores");
  }
  return passed(format("%.1f in a frame, of %.1f at 0.1", highest, lowest));
}

}  // namespace olvex_tools
