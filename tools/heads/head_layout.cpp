// SPDX-License-Identifier: Apache-2.0
// head_layout.cpp - shapes against the cells of the usual strides.
#include "tools/heads/head_evidence.h"

#include <algorithm>
#include <map>
#include <set>

#include "tools/common/text.h"

namespace olvex_tools {

namespace {

constexpr int kStrides[] = {4, 8, 16, 32, 64, 128};
constexpr std::int64_t kMostAnchors = 9;
constexpr std::size_t kMostLayers = 6;
constexpr std::int64_t kBox = 4;
constexpr std::int64_t kUsualAnchors[] = {1, 3, 2, 4, 5, 6, 9};  // the most usual first

// Sets of strides that networks have, the most usual first.
const std::vector<std::vector<int>>& usual_stride_sets() {
  static const std::vector<std::vector<int>> kSets = {{8, 16, 32},
                                                      {8, 16, 32, 64},
                                                      {16, 32},
                                                      {8, 16, 32, 64, 128},
                                                      {4, 8, 16, 32},
                                                      {16},
                                                      {32},
                                                      {8},
                                                      {8, 16},
                                                      {4, 8, 16},
                                                      {4},
                                                      {16, 32, 64},
                                                      {4, 8, 16, 32, 64},
                                                      {32, 64, 128}};
  return kSets;
}

std::int64_t cells_of(const InputSize& size, const std::vector<int>& strides) {
  std::int64_t count = 0;
  for (const int stride : strides) {
    count += cells_of(size, stride);
  }
  return count;
}

// An output as it may be read: cells of a stride, or a table.
struct View {
  std::string output;
  int stride = 0;  // 0: a table
  HeadTensor tensor;
  bool anchors_first = false;
  std::size_t channel_axis = 0;
};

std::optional<View> view_of_cells(const NetworkTensor& output, const InputSize& size) {
  const Shape& s = output.shape;
  View view;
  view.output = output.name;
  if (s.size() == 5 && s[0] == 1) {
    view.anchors_first = stride_of(size, s[2], s[3]) != 0;
    view.stride = view.anchors_first ? stride_of(size, s[2], s[3]) : stride_of(size, s[1], s[2]);
    view.tensor = {output.name, Arrangement::kRows, s[1] * s[2] * s[3], s[4],
                   view.anchors_first ? s[1] : s[3]};
    view.channel_axis = 4;
    return view.stride != 0 ? std::make_optional(view) : std::nullopt;
  }
  if (s.size() != 4 || s[0] != 1) {
    return std::nullopt;
  }
  if (stride_of(size, s[2], s[3]) != 0) {
    view.stride = stride_of(size, s[2], s[3]);
    view.tensor = {output.name, Arrangement::kPlanes, s[2] * s[3], s[1], 1};
    view.channel_axis = 1;
    return view;
  }
  if (stride_of(size, s[1], s[2]) != 0) {
    view.stride = stride_of(size, s[1], s[2]);
    view.tensor = {output.name, Arrangement::kRows, s[1] * s[2], s[3], 1};
    view.channel_axis = 3;
    return view;
  }
  return std::nullopt;
}

// N x C or C x N among any number of dimensions of 1.
std::optional<View> view_of_table(const NetworkTensor& output, bool columns) {
  const Shape& s = output.shape;
  if (s.size() < 2 || elements_of(s) <= 0) {
    return std::nullopt;
  }
  std::size_t upper = s.size() - 2;
  while (upper > 0 && s[upper] == 1 && elements_of(s) != s.back()) {
    --upper;
  }
  if (elements_of(s) != s[upper] * s.back()) {
    return std::nullopt;
  }
  View view;
  view.output = output.name;
  view.tensor = columns ? HeadTensor{output.name, Arrangement::kColumns, s.back(), s[upper], 1}
                        : HeadTensor{output.name, Arrangement::kRows, s[upper], s.back(), 1};
  view.channel_axis = columns ? upper : s.size() - 1;
  return view;
}

class Layouts {
 public:
  Layouts(const HeadQuestion& question, const std::vector<NetworkTensor>& outputs)
      : question_(question), outputs_(outputs) {}

  std::vector<HeadLayout> find() {
    if (const auto layout = of_cells()) {
      return {*layout};
    }
    for (const bool columns : {false, true}) {
      const std::vector<View> views = tables(columns);
      if (const auto layout = views.empty() ? std::nullopt : by_stride(views)) {
        return {*layout};
      }
    }
    return of_whole_tables();
  }

 private:
  std::optional<HeadLayout> of_cells() {
    std::vector<View> views;
    for (const NetworkTensor& output : outputs_) {
      const auto view = view_of_cells(output, question_.size);
      if (!view) {
        return std::nullopt;
      }
      views.push_back(*view);
    }
    HeadLayout layout;
    layout.anchors = views.front().tensor.anchors;
    layout.anchors_first = views.front().anchors_first;
    layout.planes = outputs_.front().shape.size() == 4;
    layout.knows_order = true;
    return with_kinds(views, layout);
  }

  std::vector<View> tables(bool columns) const {
    std::vector<View> views;
    for (const NetworkTensor& output : outputs_) {
      const auto view = view_of_table(output, columns);
      if (!view) {
        return {};
      }
      views.push_back(*view);
    }
    return views;
  }

  // Tables of several lengths: each length is that of a stride, all with the same number of anchors.
  std::optional<HeadLayout> by_stride(std::vector<View> views) {
    std::set<std::int64_t, std::greater<>> lengths;
    for (const View& view : views) {
      lengths.insert(view.tensor.rows);
    }
    if (lengths.size() < 2 || lengths.size() > kMostLayers || views.size() % lengths.size() != 0) {
      return std::nullopt;
    }
    for (std::int64_t anchors = 1; anchors <= kMostAnchors; ++anchors) {
      for (const int first : {8, 4, 16, 32}) {
        std::map<std::int64_t, int> strides;
        int stride = first;
        for (const std::int64_t length : lengths) {
          if (cells_of(question_.size, stride) * anchors == length) {
            strides[length] = stride;
          }
          stride *= 2;
        }
        if (strides.size() == lengths.size()) {
          for (View& view : views) {
            view.stride = strides[view.tensor.rows];
          }
          HeadLayout layout;
          layout.anchors = anchors;
          return with_kinds(views, layout);
        }
      }
    }
    return std::nullopt;
  }

  // Sorts the outputs by kind and by stride: those of a kind have as many channels, and are as manieth
  // among such outputs of their stride.
  std::optional<HeadLayout> with_kinds(const std::vector<View>& views, HeadLayout layout) {
    std::set<int> strides;
    std::map<std::pair<int, std::int64_t>, int> seen;
    std::vector<std::pair<std::int64_t, int>> order;
    std::map<std::pair<std::int64_t, int>, std::map<int, const View*>> kinds;
    for (const View& view : views) {
      strides.insert(view.stride);
      const std::pair<std::int64_t, int> kind = {view.tensor.channels,
                                                 seen[{view.stride, view.tensor.channels}]++};
      if (kinds.count(kind) == 0) {
        order.push_back(kind);
      }
      kinds[kind][view.stride] = &view;
    }
    layout.layered = true;
    layout.strides.assign(strides.begin(), strides.end());
    for (const auto& name : order) {
      RowKind kind;
      kind.channels = name.first;
      if (kinds[name].size() != strides.size()) {
        return std::nullopt;  // one that some stride lacks
      }
      std::vector<std::vector<ChannelRun>> runs;
      for (const auto& [stride, view] : kinds[name]) {
        kind.tensors.push_back(view->tensor);
        runs.push_back(trace_channels(question_.network, view->output, view->channel_axis));
      }
      kind.runs = merge_runs(runs);
      layout.kinds.push_back(kind);
    }
    for (const HeadTensor& tensor : layout.kinds.front().tensors) {
      layout.rows += tensor.rows;
    }
    find_row_order(question_, &layout);
    return layout;
  }

  // One table for each kind, all with the same number of rows.
  std::vector<HeadLayout> of_whole_tables() {
    const std::vector<View> by_rows = tables(false);
    const std::vector<View> by_columns = tables(true);
    if (by_rows.empty()) {
      return {};
    }
    HeadLayout layout;
    std::vector<Cells> fitting;
    layout.rows = common_length(by_rows, by_columns, &fitting);
    for (std::size_t i = 0; i < by_rows.size(); ++i) {
      const View& view = by_rows[i].tensor.rows == layout.rows ? by_rows[i] : by_columns[i];
      if (view.tensor.rows != layout.rows) {
        return {};
      }
      layout.kinds.push_back({{view.tensor},
                              view.tensor.channels,
                              trace_channels(question_.network, view.output, view.channel_axis)});
    }
    layout.anchors = 0;
    if (fitting.empty()) {
      return {layout};
    }
    return with_cells(layout, fitting);
  }

  // The strides and rows of a cell of a table.
  struct Cells {
    std::vector<int> strides;
    std::int64_t anchors = 0;
  };

  // Those that the graph confirms; or else the most usual one, and the one that is confused with it.
  std::vector<HeadLayout> with_cells(const HeadLayout& layout, const std::vector<Cells>& fitting) {
    std::vector<HeadLayout> usual;
    for (const Cells& cells : fitting) {
      HeadLayout own = layout;
      own.strides = cells.strides;
      own.anchors = cells.anchors;
      find_row_order(question_, &own);
      if (are_cells_traced(question_, own)) {
        return {own};
      }
      const bool confused = cells.strides == std::vector<int>{32} && cells.anchors == 5;
      if (usual.empty() || confused) {
        usual.push_back(own);
      }
    }
    return usual;
  }

  // The length that is that of cells, or else the longer dimension of the first output.
  std::int64_t common_length(const std::vector<View>& by_rows, const std::vector<View>& by_columns,
                             std::vector<Cells>* fitting) const {
    const std::int64_t lengths[] = {by_rows.front().tensor.rows, by_columns.front().tensor.rows};
    for (const std::int64_t length :
         {std::max(lengths[0], lengths[1]), std::min(lengths[0], lengths[1])}) {
      // So few rows are the values of a box, whatever cells there are as many of.
      *fitting = length > kBox ? fitting_cells(length) : std::vector<Cells>();
      if (!fitting->empty()) {
        return length;
      }
    }
    return std::max(lengths[0], lengths[1]);
  }

  std::vector<Cells> fitting_cells(std::int64_t length) const {
    std::vector<std::vector<int>> sets = usual_stride_sets();
    if (question_.options.strides) {
      sets = {*question_.options.strides};
    }
    std::vector<Cells> fitting;
    for (const std::int64_t anchors : kUsualAnchors) {
      for (const std::vector<int>& strides : sets) {
        if (cells_of(question_.size, strides) * anchors == length) {
          fitting.push_back({strides, anchors});
        }
      }
    }
    return fitting;
  }

  const HeadQuestion& question_;
  const std::vector<NetworkTensor>& outputs_;
};

}  // namespace

std::int64_t cells_of(const InputSize& size, int stride) {
  return ((size.width + stride - 1) / stride) * ((size.height + stride - 1) / stride);
}

int stride_of(const InputSize& size, std::int64_t rows, std::int64_t columns) {
  for (const int stride : kStrides) {
    if (rows == (size.height + stride - 1) / stride &&
        columns == (size.width + stride - 1) / stride) {
      return stride;
    }
  }
  return 0;
}

bool is_layer_of_cells(const NetworkTensor& output, const InputSize& size) {
  return view_of_cells(output, size).has_value();
}

std::vector<HeadLayout> lay_out(const HeadQuestion& question,
                                const std::vector<NetworkTensor>& outputs) {
  return outputs.empty() ? std::vector<HeadLayout>() : Layouts(question, outputs).find();
}

std::string usual_rows_text(const InputSize& size) {
  std::vector<std::string> texts;
  for (const std::vector<int>& strides : usual_stride_sets()) {
    texts.push_back(list_of(strides) + ": " + std::to_string(cells_of(size, strides)));
  }
  return join(texts, "; ");
}

HeadLayout with_anchors(HeadLayout layout, std::int64_t anchors) {
  layout.anchors = anchors;
  layout.rows *= anchors;
  for (RowKind& kind : layout.kinds) {
    kind.channels /= anchors;
    for (HeadTensor& tensor : kind.tensors) {
      tensor.rows *= anchors;
      tensor.channels /= anchors;
      tensor.anchors = anchors;
    }
  }
  return layout;
}

std::string list_of(const std::vector<int>& numbers) {
  std::string text;
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    text += i == 0 ? "" : i + 1 == numbers.size() ? " and " : ", ";
    text += std::to_string(numbers[i]);
  }
  return text;
}

std::string comma_list(const std::vector<int>& numbers) {
  std::vector<std::string> words;
  for (const int number : numbers) {
    words.push_back(std::to_string(number));
  }
  return join(words, ",");
}

}  // namespace olvex_tools
