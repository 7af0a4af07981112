// SPDX-License-Identifier: Apache-2.0
// conclude_head.h - which head a network has, concluded from the shapes of its outputs, the nodes behind
// them, its metadata and, where there are some, the values that it computes.
#ifndef TOOLS_HEADS_CONCLUDE_HEAD_H
#define TOOLS_HEADS_CONCLUDE_HEAD_H

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/host_image.h"

#include "tools/heads/head.h"
#include "tools/network/loadable.h"
#include "tools/network/network_graph.h"
#include "tools/network/selection_tail.h"

namespace olvex_tools {

struct BoxSize {
  double width = 0;  // pixels of the input
  double height = 0;
};

using SizesOfLayers = std::vector<std::vector<BoxSize>>;  // for each layer those of a cell

// What is given instead of concluded.
struct HeadOptions {
  std::optional<std::string> family;
  std::optional<std::vector<int>> strides;
  std::optional<SizesOfLayers> anchors;
  std::optional<bool>
      anchors_first;  // rows go anchor by anchor, of each the cells; else cell by cell
  std::optional<SizesOfLayers> prior_sizes;
  std::optional<std::array<double, 2>> variances;     // of the centre and of the size
  std::optional<std::array<double, 2>> score_powers;  // of objectness and class
  std::optional<int> class_count;                     // without the background
  std::optional<int> bins;
  std::optional<Activation> class_activation;
  std::optional<Activation> objectness_activation;
  std::optional<Activation> point_activation;
  std::optional<CentreCurve> centre_curve;
  std::optional<SizeCurve> size_curve;
  std::optional<double> cell_centre;  // place of the centre in its cell: 0 or 0.5
  std::optional<int> keypoint_values;
  std::optional<qv_host::BoxOrder> box_order;
  std::optional<bool> box_fractions;
  std::optional<bool> y_first;
  std::optional<int> background;
  std::optional<std::array<float, 3>> mean;
  std::optional<std::array<float, 3>> scale;
  std::optional<qv_host::ColourOrder> order;
  std::optional<qv_host::Resize> resize;
};

// How a picture becomes the network's input.
struct Preprocessing {
  std::array<float, 3> mean = {{0.f, 0.f, 0.f}};
  std::array<float, 3> scale = {{1.f, 1.f, 1.f}};
  qv_host::ColourOrder order = qv_host::ColourOrder::kRgb;
  qv_host::Resize resize = qv_host::Resize::kStretch;
};

// What was concluded from what, and the option that says the same; no option where none is needed.
struct HeadFact {
  std::string text;
  std::string option;
};

struct HeadReading {
  Head head;
  Preprocessing preprocessing;
  std::vector<std::string> class_names;  // of the metadata
  std::int64_t rows_of_cell = 0;         // 0: rows stand for no cells
  std::vector<HeadFact> facts;
};

// A word by which the library knows raw layers of so many channels.
struct RawWord {
  std::string word;  // of model_out; empty: without it the library goes by the channels
  std::int64_t channels = 0;
  std::int64_t classes = 0;
  std::string meaning;  // "7 classes"
};

struct HeadQuestion {
  const NetworkGraph& network;  // static: see make_static()
  std::string input;            // of it, the one that takes the picture
  InputSize size;               // of that input
  HeadOptions options;
  std::vector<RawWord> raw_words;
  Selection selection = Selection::kNone;  // that was cut off the network
  const OutputValues* values = nullptr;    // what it computes for some picture; null: not known
};

// Every reading that fits; none when no family does. Throws ToolError (kUsageError) for an option that
// contradicts the network.
std::vector<HeadReading> conclude_head(const HeadQuestion& question);

// The words of --head, and what each means.
struct HeadFamily {
  std::string name;
  std::string outputs;
};
const std::vector<HeadFamily>& head_families();

// The family of boxes and scores that the network decodes itself, in tables of their own.
constexpr char kDecodedTables[] = "boxes-and-scores";

// All options of the facts, in one line.
std::string options_of(const HeadReading& reading);

}  // namespace olvex_tools

#endif  // TOOLS_HEADS_CONCLUDE_HEAD_H
