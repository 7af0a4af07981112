// SPDX-License-Identifier: Apache-2.0
// detection_stage.cpp - the accelerator's own detection stage: picks the best candidate boxes of a
// network and hands them over as rows, indices and a count.
#include <algorithm>
#include <array>
#include <cstring>

#include "platform/host/host_error.h"
#include "platform/host/output_stage.h"

namespace qv_host {
namespace {

// A network output read as rows, one per candidate.
struct Table {
  const float* values = nullptr;
  std::size_t rows = 0;
  std::size_t columns = 0;

  const float* row(std::size_t i) const { return values + i * columns; }
};

// N x C with any number of leading extents of 1.
Table as_table(const cv::Mat& result, const std::string& name) {
  bool fits = result.dims >= 2 && result.dims <= 4;
  for (int axis = 0; axis < result.dims - 2; ++axis) {
    fits = fits && result.size[axis] == 1;
  }
  if (!fits) {
    throw HostError(QV_HOST_BAD_NETWORK, "output \"" + name + "\" has the shape " +
                                             shape_text(result) + "; 1 x N x C is needed");
  }
  return Table{result.ptr<float>(), static_cast<std::size_t>(result.size[result.dims - 2]),
               static_cast<std::size_t>(result.size[result.dims - 1])};
}

struct Candidate {
  float score;
  std::size_t row;
  int class_id;
};

// The order in which rows are handed over: best first, ties in the network's own order.
bool comes_before(const Candidate& a, const Candidate& b) {
  return a.score != b.score ? a.score > b.score : a.row < b.row;
}

struct Tables {
  Table boxes;
  Table scores;
  Table keypoints;

  bool same_shape(const Tables& other) const {
    return boxes.rows == other.boxes.rows && boxes.columns == other.boxes.columns &&
           scores.rows == other.scores.rows && scores.columns == other.scores.columns &&
           keypoints.rows == other.keypoints.rows && keypoints.columns == other.keypoints.columns;
  }
};

class DetectionStage : public OutputStage {
 public:
  DetectionStage(const Description& description, const std::vector<cv::Mat>& results)
      : output_(description.decoded),
        // Factors from the network's unit to input pixels.
        x_factor_(output_.box_fractions ? static_cast<float>(description.input.width) : 1.f),
        y_factor_(output_.box_fractions ? static_cast<float>(description.input.height) : 1.f),
        first_(read_tables(results)) {
    check_tables();
    add_tensors(description);
  }

  std::size_t write(const std::vector<cv::Mat>& results,
                    const std::vector<void*>& buffers) const override {
    const Tables tables = read_tables(results);
    if (!tables.same_shape(first_)) {
      throw HostError(QV_HOST_INFERENCE_FAILED, "the network's outputs have changed their shapes");
    }
    for (std::size_t t = 0; t < buffers.size(); ++t) {
      std::memset(buffers[t], 0, tensors()[t].u32BufSize);
    }
    std::vector<Candidate> chosen = find_candidates(tables.scores);
    const std::size_t found = chosen.size();
    keep_best(&chosen);
    for (std::size_t i = 0; i < chosen.size(); ++i) {
      write_row(tables, chosen[i], i, buffers);
    }
    store(buffers, buffers.size() - 1, 0, static_cast<float>(chosen.size()));
    return found - chosen.size();
  }

 private:
  Tables read_tables(const std::vector<cv::Mat>& results) const {
    Tables tables;
    tables.boxes = as_table(results[0], output_.boxes);
    tables.scores = as_table(results[1], output_.scores);
    if (has_keypoints()) {
      tables.keypoints = as_table(results[2], output_.keypoints);
    }
    return tables;
  }

  void check_tables() const {
    check_columns(output_.boxes, first_.boxes, 4);
    check_rows(output_.scores, first_.scores);
    if (output_.background >= 0 &&
        static_cast<std::size_t>(output_.background) >= first_.scores.columns) {
      throw HostError(QV_HOST_BAD_NETWORK, "\"outputs.scores.background\" is " +
                                               std::to_string(output_.background) +
                                               ", but output \"" + output_.scores + "\" has only " +
                                               std::to_string(first_.scores.columns) + " columns");
    }
    if (first_.scores.columns == (output_.background >= 0 ? 1u : 0u)) {
      throw HostError(QV_HOST_BAD_NETWORK,
                      "output \"" + output_.scores + "\" has no class beside the background");
    }
    if (has_keypoints()) {
      check_columns(output_.keypoints, first_.keypoints,
                    static_cast<std::size_t>(output_.keypoint_values));
      check_rows(output_.keypoints, first_.keypoints);
    }
  }

  static void check_columns(const std::string& name, const Table& table, std::size_t expected) {
    if (table.columns != expected) {
      throw HostError(QV_HOST_BAD_NETWORK,
                      "output \"" + name + "\" has " + std::to_string(table.columns) +
                          " values in a row, the description says " + std::to_string(expected));
    }
  }

  void check_rows(const std::string& name, const Table& table) const {
    if (table.rows != first_.boxes.rows) {
      throw HostError(QV_HOST_BAD_NETWORK, "output \"" + name + "\" has " +
                                               std::to_string(table.rows) + " rows, output \"" +
                                               output_.boxes + "\" has " +
                                               std::to_string(first_.boxes.rows));
    }
  }

  // The library recognises the layout by the shapes: rows is the third extent of every
  // tensor of values, and the second of the two-dimensional indices, whose third and fourth are 0.
  void add_tensors(const Description& description) {
    const std::size_t rows = static_cast<std::size_t>(output_.max_boxes);
    add_tensor(description, output_.box_scale, {1, 1, rows, 4});
    if (output_.emit_classes) {
      add_tensor(description, 1.f, {1, 1, rows, 1});
    }
    add_tensor(description, output_.score_scale, {1, 1, rows, 1});
    if (has_keypoints()) {
      add_tensor(description, output_.keypoint_scale, {1, 1, rows, first_.keypoints.columns});
    }
    add_tensor(description, 1.f, {1, rows});
    add_tensor(description, 1.f, {1, 1});
  }

  // The best class of a row; false when none of its scores is a number at or above min_score.
  bool classify(const float* scores, std::size_t columns, Candidate* candidate) const {
    bool found = false;
    int class_id = 0;
    for (std::size_t column = 0; column < columns; ++column) {
      if (static_cast<int>(column) == output_.background) {
        continue;
      }
      // A score that is not a number fails the first comparison.
      if (scores[column] >= output_.min_score && (!found || scores[column] > candidate->score)) {
        candidate->score = scores[column];
        candidate->class_id = class_id;
        found = true;
      }
      ++class_id;
    }
    return found;
  }

  std::vector<Candidate> find_candidates(const Table& scores) const {
    std::vector<Candidate> candidates;
    for (std::size_t row = 0; row < scores.rows; ++row) {
      Candidate candidate = {0.f, row, 0};
      if (classify(scores.row(row), scores.columns, &candidate)) {
        candidates.push_back(candidate);
      }
    }
    return candidates;
  }

  void keep_best(std::vector<Candidate>* candidates) const {
    const std::size_t kept =
        std::min(candidates->size(), static_cast<std::size_t>(output_.max_boxes));
    std::partial_sort(candidates->begin(), candidates->begin() + static_cast<std::ptrdiff_t>(kept),
                      candidates->end(), comes_before);
    candidates->resize(kept);
  }

  // x1, y1, x2, y2 in input pixels.
  std::array<float, 4> corners(const float* box) const {
    std::array<float, 4> edges = {{box[0], box[1], box[2], box[3]}};
    if (output_.box_order == BoxOrder::kCentreSize) {
      const float half_width = box[2] / 2.f;
      const float half_height = box[3] / 2.f;
      edges = {
          {box[0] - half_width, box[1] - half_height, box[0] + half_width, box[1] + half_height}};
    }
    return {
        {edges[0] * x_factor_, edges[1] * y_factor_, edges[2] * x_factor_, edges[3] * y_factor_}};
  }

  void write_row(const Tables& tables, const Candidate& candidate, std::size_t i,
                 const std::vector<void*>& buffers) const {
    const std::array<float, 4> box = corners(tables.boxes.row(candidate.row));
    std::size_t tensor = 0;
    for (std::size_t side = 0; side < box.size(); ++side) {
      store(buffers, tensor, i * box.size() + side, box[side]);
    }
    if (output_.emit_classes) {
      store(buffers, ++tensor, i, static_cast<float>(candidate.class_id));
    }
    store(buffers, ++tensor, i, candidate.score);
    if (has_keypoints()) {
      write_keypoints(tables.keypoints.row(candidate.row), i, buffers, ++tensor);
    }
    store(buffers, ++tensor, i, static_cast<float>(i));
  }

  void write_keypoints(const float* values, std::size_t i, const std::vector<void*>& buffers,
                       std::size_t tensor) const {
    const std::size_t columns = first_.keypoints.columns;
    const std::size_t values_per_point = columns == 8 || columns == 10 ? 2 : 3;
    const float factors[] = {x_factor_, y_factor_, 1.f};
    for (std::size_t k = 0; k < columns; ++k) {
      store(buffers, tensor, i * columns + k, values[k] * factors[k % values_per_point]);
    }
  }

  void store(const std::vector<void*>& buffers, std::size_t tensor, std::size_t index,
             float value) const {
    store_element(tensors()[tensor], buffers[tensor], index, value);
  }

  bool has_keypoints() const { return !output_.keypoints.empty(); }

  DecodedOutput output_;
  float x_factor_;
  float y_factor_;
  Tables first_;  // of the trial run; only its shapes are used afterwards
};

}  // namespace

std::unique_ptr<OutputStage> make_detection_stage(const Description& description,
                                                  const std::vector<cv::Mat>& results) {
  return std::make_unique<DetectionStage>(description, results);
}

}  // namespace qv_host
