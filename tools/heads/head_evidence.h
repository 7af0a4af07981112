// SPDX-License-Identifier: Apache-2.0
// head_evidence.h - what the concluders of the families ask about a network: outputs as tables of candidate
// rows, what computed their channels, what names and metadata say; and the reading that they write.
#ifndef TOOLS_HEADS_HEAD_EVIDENCE_H
#define TOOLS_HEADS_HEAD_EVIDENCE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/heads/conclude_head.h"
#include "tools/network/network_graph.h"

namespace olvex_tools {

// ---- Which nodes compute which channels (channel_origins.cpp) -----------------------------------

// The way back through what only moves values.

// A run of channels that the same nodes compute.
struct ChannelRun {
  std::int64_t first = 0;
  std::int64_t count = 0;
  std::vector<std::string> values;  // what those nodes compute, of each layer
};

// The channels of a value along a dimension, in order. A graph that cannot be followed gives one run.
std::vector<ChannelRun> trace_channels(const NetworkGraph& network, const std::string& value,
                                       std::size_t axis);

// The runs of several tensors with the same channels: one ends where one of theirs does.
std::vector<ChannelRun> merge_runs(const std::vector<std::vector<ChannelRun>>& layers);

// What was done to values since the last weights (Conv, Gemm, MatMul), or since they were numbers of places or the
// results of comparisons.
struct Treatment {
  bool sigmoid = false;
  bool softmax = false;
  bool grid = false;  // they were combined with constants that differ from cell to cell
  bool exponential = false;
  bool rectified = false;  // Relu, Softplus
  bool arg_max = false;
};

// From how many elements on a constant differs from cell to cell, and the rows and columns of cells: numbers in
// equal steps, as many as there are of these, are the places of the cells.
struct GridSize {
  std::int64_t cells = 0;
  std::set<std::int64_t> sides;
};

Treatment treatment_of(const NetworkGraph& network, const std::vector<std::string>& values,
                       const GridSize& grid);

// The size of the dimension that the nearest ArgMax or ReduceMax behind value goes over; 0: none.
std::int64_t reduced_size(const NetworkGraph& network, const std::string& value);

// ---- The tables (head_layout.cpp) ---------------------------------------------------------------

// Outputs with the same kind of value: one for each stride, or one for all.
struct RowKind {
  std::vector<HeadTensor> tensors;
  std::int64_t channels = 0;  // of a row; of a cell as long as the anchors are not known
  std::vector<ChannelRun> runs;
};

struct HeadLayout {
  std::vector<int> strides;    // of the cells that the rows stand for; none when they fit none
  std::int64_t anchors = 1;    // rows of a cell; 0 when it differs from stride to stride
  bool anchors_first = false;  // rows go anchor by anchor, of each the cells; else cell by cell
  bool knows_order = false;    // which of the two it is; else it is what is usual
  bool layered = false;        // an output for each stride
  bool planes = false;         // cells: the channels of a cell may be those of several rows
  std::int64_t rows = 0;
  std::vector<RowKind> kinds;  // in the order in which they first appear
};

std::int64_t cells_of(const InputSize& size, int stride);
// The stride whose cells are rows x columns; 0: none.
int stride_of(const InputSize& size, std::int64_t rows, std::int64_t columns);

bool is_layer_of_cells(const NetworkTensor& output, const InputSize& size);

// What may be read of some outputs of the network; several layouts where the graph does not tell between two
// usual sets of strides, none when the outputs do not go together.
std::vector<HeadLayout> lay_out(const HeadQuestion& question,
                                const std::vector<NetworkTensor>& outputs);

// "8, 16 and 32 have 8400 cells, ...": the numbers of rows that are looked for.
std::string usual_rows_text(const InputSize& size);

// Planes of several anchors: the same with the values of a row instead of those of a cell.
HeadLayout with_anchors(HeadLayout layout, std::int64_t anchors);

// "8, 16 and 32".
std::string list_of(const std::vector<int>& numbers);
std::string comma_list(const std::vector<int>& numbers);

// ---- From which layers of cells rows were moved (layout_tracing.cpp) ----------------------------

// Of a layout with several rows for each cell: whether they go anchor by anchor, by --row-order or by where the
// first two rows come from.
void find_row_order(const HeadQuestion& question, HeadLayout* layout);

// Whether the first row of each stride is seen to come from a layer of its cells.
bool are_cells_traced(const HeadQuestion& question, const HeadLayout& layout);

// ---- What exporters write beside the graph (network_metadata.cpp) -------------------------------

// The value of the first entry that has one of these keys, in lower case; *used gets its key as it is written.
std::optional<std::string> metadata_entry(const NetworkGraph& network,
                                          std::initializer_list<const char*> keys,
                                          std::string* used);

// By class id: a dictionary of numbers and names, or a list; none when there is no such entry.
std::vector<std::string> class_names_in_metadata(const NetworkGraph& network);

// Mean, scale, colour order and resize: the usual ones of the head's family, or what the metadata says. Adds
// a fact for each. In preprocessing.cpp.
void conclude_preprocessing(const HeadQuestion& question, HeadReading* reading);

enum class NamedContents { kUnknown, kBoxes, kScores, kCentreness, kPoints };

// By the words that exporters use: scores of boxes are scores, and their classes, too.
NamedContents contents_by_name(const std::string& output);

// ---- What the families ask (head_evidence.cpp) --------------------------------------------------

struct Interval {
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
  std::optional<Interval> range(const Channels& channels) const;
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
