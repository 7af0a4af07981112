// head_evidence.h - what the concluders of the families ask about a network, and the reading that they write.
#ifndef TOOLS_HEADS_HEAD_EVIDENCE_H
#define TOOLS_HEADS_HEAD_EVIDENCE_H

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/heads/head_layout.h"

namespace olvex_tools {

struct ValueRange {
  double least = 0;
  double most = 0;
};

// Channels first to first + count of a kind.
struct Channels {
  std::reference_wrapper<const RowKind> kind;
  std::int64_t first = 0;
  std::int64_t count = 0;
};

class HeadEvidence {
 public:
  HeadEvidence(const HeadQuestion& question, const HeadLayout& layout);

  const HeadQuestion& question() const { return question_; }
  const HeadOptions& options() const { return question_.options; }
  const HeadLayout& layout() const { return layout_; }
  const std::vector<std::string>& class_names() const { return class_names_; }
  // A family that was named is taken without its proof in the graph.
  bool is_asked_for(const std::string& family) const { return options().family == family; }
  // Number of classes by --class-count or by the names in the metadata; 0: not known.
  std::int64_t known_classes() const;

  Treatment treatment(const Channels& channels) const;
  // Whether one kind of value ends in front of that channel.
  bool ends_before(const RowKind& kind, std::int64_t channel) const;
  bool is_decoded(const Channels& box) const;
  // Scores or objectness to which sigmoid or softmax was applied.
  bool is_probability(const Channels& channels) const;
  // Of the values, where they are known.
  std::optional<ValueRange> range(const Channels& channels) const;
  double mean(const Channels& channels) const;  // 0 where the values are not known
  // Of each row the first of the channels and the largest of the others, logits as probabilities; none where the
  // values are not known.
  std::vector<std::array<double, 2>> first_and_best_other(const Channels& channels) const;
  bool adds_up_to_one(const Channels& channels) const;
  bool is_whole_numbers(const RowKind& kind, std::int64_t channel) const;

  // A part of a head, yet to be activated where it is no probability.
  HeadPart part(const Channels& channels) const;
  HeadPart probability(const Channels& channels, const std::optional<Activation>& given,
                       const std::string& what, HeadReading* reading,
                       Activation usual = Activation::kSigmoid) const;

 private:
  std::vector<std::vector<float>> columns(const Channels& channels) const;

  const HeadQuestion& question_;
  const HeadLayout& layout_;
  std::vector<std::string> class_names_;
};

void add_fact(HeadReading* reading, const std::string& text, const std::string& option = "");

// A reading with what holds for all families: rows and their strides.
HeadReading begin_reading(const HeadEvidence& evidence, const std::string& family,
                          const std::string& why);

// Of boxes that the network decodes itself: order, unit and axes, by the values or as usual. Throws ToolError
// (kUsageError) where the network suppresses boxes and nothing tells which coordinate comes first.
void conclude_final_boxes(const HeadEvidence& evidence, const Channels& box,
                          qv_host::BoxOrder usual_order, bool usual_fractions,
                          HeadReading* reading);

// Whether the library knows key points of so many values.
bool library_takes_points(std::int64_t values);

// Key points as the library takes them, or none.
void conclude_points(const HeadEvidence& evidence, const Channels& points, PointCode code,
                     HeadReading* reading);

// The references at the same place of every cell, with steps and sizes of a stride.
void set_cell_references(const HeadEvidence& evidence, double place, HeadReading* reading);
// The same with a box of its own for each anchor of a cell. steps_of_size: the steps are variance times the
// size of the box; else the stride.
void set_sized_references(const HeadEvidence& evidence, const std::vector<int>& strides,
                          const SizesOfLayers& sizes, double place, double step_of_size,
                          HeadReading* reading);
std::string describe(const SizesOfLayers& sizes);  // as the options are written

constexpr std::array<double, 2> kProduct = {{1, 1}};
// The powers of objectness and class in the score, the usual ones but for --score-powers; why: what they are
// usual for.
void conclude_score_powers(const HeadEvidence& evidence, const std::array<double, 2>& usual,
                           const std::string& why, HeadReading* reading);

void conclude_class_count(std::int64_t columns, HeadReading* reading);

// Whether the scores of a row add up to 1, as those of a softmax with a background do.
bool have_background(const HeadEvidence& evidence, const RowKind& scores);

// Whether networks usually have so many bins.
bool are_usual_bins(std::int64_t bins);

// Whether distance-bins is one of the readings.
bool may_be_distance_bins(const HeadEvidence& evidence);

// Drops the readings for which less speaks than for another, or that say the same.
void keep_likely_readings(const HeadQuestion& question, std::vector<HeadReading>* readings);

// ---- The families: a reading, or nothing -----------------------------------------------------------

using Concluder = std::vector<HeadReading> (*)(const HeadEvidence&);

std::vector<HeadReading> conclude_combined(const HeadEvidence& evidence);
std::vector<HeadReading> conclude_end_to_end(const HeadEvidence& evidence);
std::vector<HeadReading> conclude_objectness(const HeadEvidence& evidence);
std::vector<HeadReading> conclude_objectness_offsets(const HeadEvidence& evidence);
std::vector<HeadReading> conclude_anchors(const HeadEvidence& evidence);
std::vector<HeadReading> conclude_distance_bins(const HeadEvidence& evidence);
std::vector<HeadReading> conclude_class_objectness_box(const HeadEvidence& evidence);
std::vector<HeadReading> conclude_priors(const HeadEvidence& evidence);
std::vector<HeadReading> conclude_score_distance(const HeadEvidence& evidence);
std::vector<HeadReading> conclude_own_formula(const HeadEvidence& evidence);
std::vector<HeadReading> conclude_boxes_and_scores(const HeadEvidence& evidence);
std::vector<HeadReading> conclude_raw(const HeadEvidence& evidence);

}  // namespace olvex_tools

#endif  // TOOLS_HEADS_HEAD_EVIDENCE_H
