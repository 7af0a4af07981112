// SPDX-License-Identifier: Apache-2.0
// proof.cpp - the comparisons row by row, and what is plausible.
#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <string>

#include "tools/common/text.h"
#include "tools/inside/network_head.h"
#include "tools/pack/pack.h"

namespace olvex_tools {

namespace {

// All values of the rows of an output; no part when their number is not known.
HeadPart part_of(const std::string& output, const NetworkGraph& network) {
  HeadPart part;
  for (const NetworkTensor& tensor : network.outputs()) {
    if (tensor.name == output && elements_of(tensor.shape) > 0) {
      part.count = tensor.shape.back();
      part.tensors = {
          {output, Arrangement::kRows, elements_of(tensor.shape) / part.count, part.count, 1}};
    }
  }
  return part;
}

// The head that a description of decoded outputs amounts to: without any part for raw layers, and for outputs
// of sizes that the network leaves open.
Head described_head(const qv_host::Description& description, const NetworkGraph& network) {
  const qv_host::DecodedOutput& decoded = description.decoded;
  Head head;
  if (description.kind != qv_host::OutputKind::kDecoded) {
    return head;
  }
  head.boxes = part_of(decoded.boxes, network);
  head.classes = part_of(decoded.scores, network);
  if (!head.boxes.present() || !head.classes.present() || head.boxes.count != 4 ||
      head.boxes.tensors[0].rows != head.classes.tensors[0].rows) {
    return {};
  }
  const bool corners = decoded.box_order == qv_host::BoxOrder::kCornerPairs;
  head.box_code = corners ? BoxCode::kCorners : BoxCode::kCentreSize;
  head.box_fractions = decoded.box_fractions;
  head.background = decoded.background;
  head.class_count = head.classes.count;
  return head;
}

using qv_host::Description;

constexpr double kScoreTolerance = 1e-3;
constexpr double kPixelTolerance = .5;
constexpr double kShareTolerance = 1e-5;  // of large coordinates, which have few digits
constexpr double kInsideShare = .9;

// The rows of a network's outputs, in double precision whichever way they came about.
struct Rows {
  std::vector<PlainRow> rows;
  bool centre_and_size = false;
  double x_factor = 1;  // to pixels
  double y_factor = 1;
};

// The largest difference of two values that belong together, and where.
struct Difference {
  double most = 0;  // as a multiple of the tolerance
  std::string place;

  void note(double left, double right, double factor, double tolerance, const std::string& where) {
    const bool both_finite = std::isfinite(left) && std::isfinite(right);
    const double apart = both_finite ? std::fabs(left - right) * std::fabs(factor)
                                     : std::numeric_limits<double>::infinity();
    const double share = tolerance == kPixelTolerance ? kShareTolerance : 0;
    const double allowed = std::max(tolerance, share * std::fabs(left * factor));
    if (apart / allowed > most) {
      most = apart / allowed;
      place = where + format(": %.6g and %.6g", left, right);
    }
  }
};

class Proof {
 public:
  Proof(const PreparedNetwork& prepared, const Head& head, const Description& description)
      : prepared_(prepared),
        head_(head),
        description_(description),
        decoded_(description.kind == qv_host::OutputKind::kDecoded) {}

  ProofResult run(const std::vector<ProofPicture>& pictures) {
    EngineRun plain(prepared_.bytes, prepared_.graph.path(), output_names(), false);
    EngineRun fused(prepared_.bytes, prepared_.graph.path(), output_names(), true);
    // Of outputs that the options describe there is no other form to compare with.
    EngineRun* original = &plain;
    std::optional<EngineRun> uncut;
    if (prepared_.head) {
      original = &uncut.emplace(prepared_.head->uncut, prepared_.graph.path(),
                                prepared_.head->outputs, false);
    }
    for (const ProofPicture& picture : pictures) {
      check_picture(picture, original, &plain, &fused);
    }
    if (head_.boxes.present() && !differing_) {
      result_.faults.emplace_back(
          "the best scores of all rows are alike. Give a --picture that shows an object");
    }
    if (head_.boxes.present()) {
      try_preprocessing(head_, description_.input, pictures, original, &result_);
    }
    return result_;
  }

 private:
  void check_picture(const ProofPicture& picture, EngineRun* original, EngineRun* plain,
                     EngineRun* fused) {
    const InputValues input = input_values(description_.input);
    const OutputValues now = plain->run(picture.picture, input);
    compare_fusion(now, fused->run(picture.picture, input), picture.name);
    if (!head_.boxes.present()) {
      return;
    }
    const Rows rows = with_units(
        read_plainly(head_, prepared_.head ? original->run(picture.picture, input) : now));
    if (decoded_ && prepared_.head) {
      compare_decoding(rows, with_units(rows_of(now)), picture.name);
    }
    check_scores(rows, picture.name);
    check_boxes(rows, picture.name);
  }

  std::vector<std::string> output_names() const {
    if (!decoded_) {
      return {description_.raw[0].name, description_.raw[1].name, description_.raw[2].name};
    }
    std::vector<std::string> names = {description_.decoded.boxes, description_.decoded.scores};
    if (!description_.decoded.keypoints.empty()) {
      names.push_back(description_.decoded.keypoints);
    }
    return names;
  }

  // The rows that the network decoded itself.
  std::vector<PlainRow> rows_of(const OutputValues& values) const {
    const auto slice = [](const std::vector<float>& all, std::size_t row, std::size_t columns) {
      const auto first = all.begin() + static_cast<std::ptrdiff_t>(row * columns);
      return std::vector<double>(first, first + static_cast<std::ptrdiff_t>(columns));
    };
    const auto count = static_cast<std::size_t>(head_.rows());
    const std::vector<float>& boxes = values.at(description_.decoded.boxes);
    const std::vector<float>& scores = values.at(description_.decoded.scores);
    const std::string& points = description_.decoded.keypoints;
    std::vector<PlainRow> rows(boxes.size() == 4 * count ? count : 0);
    for (std::size_t row = 0; row < rows.size(); ++row) {
      rows[row].box = slice(boxes, row, 4);
      rows[row].scores = slice(scores, row, scores.size() / count);
      if (!points.empty()) {
        rows[row].keypoints = slice(values.at(points), row, values.at(points).size() / count);
      }
    }
    return rows;
  }

  Rows with_units(std::vector<PlainRow> rows) const {
    Rows result;
    result.rows = std::move(rows);
    result.centre_and_size = has_centre_and_size(head_);
    result.x_factor = head_.box_fractions ? description_.input.width : 1;
    result.y_factor = head_.box_fractions ? description_.input.height : 1;
    return result;
  }

  // ---- The decoding ---------------------------------------------------------------------------

  void compare_decoding(const Rows& expected, const Rows& found, const std::string& picture) {
    Difference boxes;
    Difference scores;
    Difference points;
    if (expected.rows.size() != found.rows.size()) {
      result_.faults.push_back(picture + ": the decoded network has another number of rows");
      return;
    }
    for (std::size_t i = 0; i < expected.rows.size(); ++i) {
      const PlainRow& left = expected.rows[i];
      const PlainRow& right = found.rows[i];
      const std::string row = "row " + std::to_string(i);
      for (std::size_t k = 0; k < left.box.size(); ++k) {
        boxes.note(left.box[k], right.box[k], k % 2 == 0 ? expected.x_factor : expected.y_factor,
                   kPixelTolerance, row);
      }
      for (std::size_t k = 0; k < left.scores.size(); ++k) {
        scores.note(left.scores[k], right.scores[k], 1, kScoreTolerance,
                    row + ", class " + std::to_string(k));
      }
      const auto per_point = static_cast<std::size_t>(head_.point_values);
      for (std::size_t k = 0; k < left.keypoints.size(); ++k) {
        const bool score = k % per_point == 2;
        points.note(left.keypoints[k], right.keypoints[k],
                    score                ? 1
                    : k % per_point == 0 ? expected.x_factor
                                         : expected.y_factor,
                    score ? kScoreTolerance : kPixelTolerance, row);
      }
    }
    report(boxes, "boxes", picture);
    report(scores, "scores", picture);
    if (head_.keypoints.present()) {
      report(points, "key points", picture);
    }
    result_.shown.push_back(
        picture + ": " + counted(expected.rows.size(), "row", "rows") +
        format(" read plainly and decoded by the network, boxes at most %.2g pixels apart, scores "
               "%.2g",
               boxes.most * kPixelTolerance, scores.most * kScoreTolerance));
  }

  void report(const Difference& difference, const std::string& what, const std::string& picture) {
    if (!(difference.most <= 1)) {
      result_.faults.push_back(picture + ": the " + what +
                               " that the network decodes are not those of a plain reading (" +
                               difference.place + ")");
    }
  }

  void compare_fusion(const OutputValues& plain, const OutputValues& fused,
                      const std::string& picture) {
    for (const auto& [name, values] : plain) {
      const bool coordinates = decoded_ && name != description_.decoded.scores;
      const double tolerance = coordinates ? kPixelTolerance : kScoreTolerance;
      const int longer = std::max(description_.input.width, description_.input.height);
      const double factor = coordinates && head_.box_fractions ? longer : 1;
      Difference difference;
      for (std::size_t i = 0; i < values.size(); ++i) {
        // Logits of raw layers matter less the larger they are.
        const double weight = decoded_ ? 1 : 1 / (1 + std::fabs(static_cast<double>(values[i])));
        difference.note(static_cast<double>(values[i]), static_cast<double>(fused.at(name)[i]),
                        factor * weight, tolerance, "element " + std::to_string(i));
      }
      if (!(difference.most <= 1)) {
        result_.fusion = false;
        result_.notes.push_back(picture + ": the engine's fusion of layers changes \"" + name +
                                "\" (" + difference.place + "); it is switched off in the image");
      }
    }
  }

  // ---- What is plausible ----------------------------------------------------------------------

  void check_scores(const Rows& found, const std::string& picture) {
    double least = std::numeric_limits<double>::infinity();
    double most = -least;
    bool finite = true;
    double least_of_best = least;
    double most_of_best = most;
    for (const PlainRow& row : found.rows) {
      for (const double score : row.scores) {
        finite = finite && std::isfinite(score);
        least = std::min(least, score);
        most = std::max(most, score);
      }
      least_of_best = std::min(least_of_best, best_score(head_, row));
      most_of_best = std::max(most_of_best, best_score(head_, row));
    }
    if (!finite || least < -kScoreTolerance || most > 1 + kScoreTolerance) {
      result_.faults.push_back(picture +
                               format(": scores from %.4g to %.4g, they must lie in 0..1. "
                                      "See --class-activation and --head",
                                      least, most));
    }
    differing_ = differing_ || found.rows.size() < 2 || most_of_best - least_of_best >= 1e-9;
  }

  std::array<double, 4> corners(const Rows& rows, const PlainRow& row) const {
    const std::vector<double>& box = row.box;
    std::array<double, 4> sides = {{box[0], box[1], box[2], box[3]}};
    if (rows.centre_and_size) {
      sides = {
          {box[0] - box[2] / 2, box[1] - box[3] / 2, box[0] + box[2] / 2, box[1] + box[3] / 2}};
    }
    return {{sides[0] * rows.x_factor, sides[1] * rows.y_factor, sides[2] * rows.x_factor,
             sides[3] * rows.y_factor}};
  }

  void check_boxes(const Rows& found, const std::string& picture) {
    double area = 0;
    double inside = 0;
    long sure = 0;
    long empty = 0;
    const double width = description_.input.width;
    const double height = description_.input.height;
    for (const PlainRow& row : found.rows) {
      if (best_score(head_, row) < kSure) {
        continue;
      }
      const std::array<double, 4> box = corners(found, row);
      ++sure;
      // Less than a pixel is no box, and what is larger than any picture is no coordinate of one.
      empty += box[2] - box[0] >= 1 && box[3] - box[1] >= 1 ? 0 : 1;
      area += std::max(0., box[2] - box[0]) * std::max(0., box[3] - box[1]);
      inside += std::max(0., std::min(box[2], width) - std::max(box[0], 0.)) *
                std::max(0., std::min(box[3], height) - std::max(box[1], 0.));
    }
    if (sure == 0) {
      result_.shown.push_back(picture + format(": no score of %.1f or more", kSure));
      return;
    }
    if (empty * 10 > sure) {
      result_.faults.push_back(
          picture + ": " + std::to_string(empty) + " of " + counted(sure, "box", "boxes") +
          " are empty, or their corners in the wrong order. See --box-order and "
          "--box-unit");
    } else if (!(inside >= kInsideShare * area)) {
      result_.faults.push_back(
          picture + format(": only %.0f %% of the area of boxes lies in the picture. See --head, "
                           "--box-order and --box-unit",
                           100 * inside / area));
    } else {
      result_.shown.push_back(picture + ": " + counted(sure, "row", "rows") +
                              format(" of score %.1f or more, %.0f %% of their area inside", kSure,
                                     100 * inside / area));
    }
  }

  const PreparedNetwork& prepared_;
  const Head& head_;
  const Description& description_;
  bool decoded_;
  bool differing_ = false;  // some picture has scores that are not all alike
  ProofResult result_;
};

}  // namespace

ProofResult prove(const PreparedNetwork& prepared, const Description& description,
                  const std::vector<ProofPicture>& pictures) {
  return Proof(prepared, prepared.head->reading.head, description).run(pictures);
}

ProofResult try_described_outputs(const PreparedNetwork& prepared, const Description& description,
                                  const std::vector<ProofPicture>& pictures) {
  ProofResult result =
      Proof(prepared, described_head(description, prepared.graph), description).run(pictures);
  result.notes.insert(result.notes.end(), result.faults.begin(), result.faults.end());
  result.faults.clear();
  return result;
}

}  // namespace olvex_tools
