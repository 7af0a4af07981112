// table_families.cpp - heads with one table of boxes and one of scores: priors, and what is decoded already.
// Declared in head_evidence.h.
#include <algorithm>
#include <cmath>
#include <numeric>
#include <optional>

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/heads/head_evidence.h"

namespace olvex_tools {

namespace {

constexpr std::int64_t kBox = 4;
constexpr std::int64_t kFewestPointValues = 6;

struct Tables {
  const RowKind* boxes = nullptr;
  const RowKind* scores = nullptr;
  const RowKind* points = nullptr;
};

std::optional<Tables> tables_of(const HeadEvidence& evidence) {
  const HeadLayout& layout = evidence.layout();
  Tables tables;
  if (layout.layered || layout.kinds.size() < 2 || layout.kinds.size() > 3) {
    return std::nullopt;
  }
  // Boxes have four values; so may scores and key points, which are another kind.
  for (const RowKind& kind : layout.kinds) {
    const bool is_score = evidence.is_probability({kind, 0, kind.channels});
    const bool may_be_box = kind.channels == kBox && tables.boxes == nullptr;
    const bool named_box =
        in_lower_case(kind.tensors.front().output).find("box") != std::string::npos;
    if (may_be_box && (!is_score || named_box || evidence.is_decoded({kind, 0, kBox}))) {
      tables.boxes = &kind;
    } else if (is_score && tables.scores == nullptr) {
      tables.scores = &kind;
    } else if (tables.points == nullptr) {
      tables.points = &kind;
    } else {
      return std::nullopt;
    }
  }
  if (tables.scores == nullptr) {
    std::swap(tables.scores, tables.points);  // logits
  }
  if (tables.points != nullptr && tables.points->channels < kFewestPointValues) {
    return std::nullopt;  // an objectness, numbers of classes
  }
  return tables.boxes != nullptr && tables.scores != nullptr ? std::make_optional(tables)
                                                             : std::nullopt;
}

// The column of the background: the first one where the scores of a row add up to 1, or where there is one
// more than classes are known.
void conclude_background(const HeadEvidence& evidence, const RowKind& scores, bool logits,
                         HeadReading* reading) {
  const std::int64_t columns = scores.channels;
  const std::optional<int> given = evidence.options().background;
  const std::int64_t known = evidence.known_classes();
  const bool adds_up = !logits && columns > 1 && evidence.adds_up_to_one({scores, 0, columns});
  const bool usual = logits ? reading->head.classes.activation == Activation::kSoftmax : adds_up;
  const bool has_background = columns > 1 && (known > 0 ? columns == known + 1 : usual);
  reading->head.background = given.value_or(has_background ? 0 : -1);
  const std::string text = reading->head.background < 0
                               ? "no background among the scores"
                               : "background: column " + std::to_string(reading->head.background);
  const char* source = adds_up ? ", as the scores of a row add up to 1" : "";
  add_fact(reading, text + (given ? "" : source),
           reading->head.background < 0
               ? "--background none"
               : "--background " + std::to_string(reading->head.background));
}

// Sides of the usual priors, by stride.
struct UsualPriors {
  bool with_points;
  bool limited;  // no side is longer than the input's
  std::vector<int> strides;
  SizesOfLayers sizes;
};

SizesOfLayers squares(const std::vector<std::vector<double>>& sides) {
  SizesOfLayers sizes;
  for (const std::vector<double>& layer : sides) {
    sizes.emplace_back();
    for (const double side : layer) {
      sizes.back().push_back({side, side});
    }
  }
  return sizes;
}

const std::vector<UsualPriors>& usual_priors() {
  static const std::vector<UsualPriors> kPriors = {
      {false, true, {8, 16, 32, 64}, squares({{10, 16, 24}, {32, 48}, {64, 96}, {128, 192, 256}})},
      {true, false, {8, 16, 32}, squares({{16, 32}, {64, 128}, {256, 512}})}};
  return kPriors;
}

std::int64_t count_of(const InputSize& size, const std::vector<int>& strides,
                      const SizesOfLayers& sizes) {
  std::int64_t count = 0;
  for (std::size_t i = 0; i < strides.size(); ++i) {
    count += cells_of(size, strides[i]) * static_cast<std::int64_t>(sizes[i].size());
  }
  return count;
}

// Strides from 8 on, each twice the one before.
std::vector<int> doubling_strides(std::size_t count) {
  std::vector<int> strides;
  for (int stride = 8; strides.size() < count; stride *= 2) {
    strides.push_back(stride);
  }
  return strides;
}

void limit_sizes(const InputSize& size, UsualPriors* priors) {
  for (std::vector<BoxSize>& layer : priors->sizes) {
    for (BoxSize& box : layer) {
      box.width =
          priors->limited ? std::min(box.width, static_cast<double>(size.width)) : box.width;
      box.height =
          priors->limited ? std::min(box.height, static_cast<double>(size.height)) : box.height;
    }
  }
}

// Those given, or those usual ones whose number fits; the ones with key points first where there are some.
std::optional<UsualPriors> find_priors(const HeadEvidence& evidence, bool with_points) {
  const HeadOptions& options = evidence.options();
  const InputSize& size = evidence.question().size;
  const std::int64_t rows = evidence.layout().rows;
  if (options.prior_sizes) {
    const UsualPriors given = {
        with_points, false, options.strides.value_or(doubling_strides(options.prior_sizes->size())),
        *options.prior_sizes};
    if (given.strides.size() != given.sizes.size() ||
        count_of(size, given.strides, given.sizes) != rows) {
      throw ToolError(
          kUsageError,
          "--prior-sizes: " +
              (given.strides.size() != given.sizes.size()
                   ? std::to_string(given.sizes.size()) + " lists of sizes for " +
                         counted(given.strides.size(), "stride", "strides")
                   : "they are " + std::to_string(count_of(size, given.strides, given.sizes)) +
                         " priors at strides " + list_of(given.strides) + ", the network has " +
                         std::to_string(rows) + " rows") +
              ". Give the sizes of each stride, and --strides");
    }
    return given;
  }
  std::vector<UsualPriors> usual = usual_priors();
  std::stable_partition(usual.begin(), usual.end(), [&](const UsualPriors& priors) {
    return priors.with_points == with_points;
  });
  for (UsualPriors& priors : usual) {
    if (count_of(size, priors.strides, priors.sizes) == rows) {
      limit_sizes(size, &priors);
      return priors;
    }
  }
  return std::nullopt;
}

double correlation(const std::vector<double>& left, const std::vector<double>& right) {
  const auto count = static_cast<double>(left.size());
  const double left_mean = std::accumulate(left.begin(), left.end(), 0.) / count;
  const double right_mean = std::accumulate(right.begin(), right.end(), 0.) / count;
  double common = 0;
  double left_square = 0;
  double right_square = 0;
  for (std::size_t i = 0; i < left.size(); ++i) {
    common += (left[i] - left_mean) * (right[i] - right_mean);
    left_square += (left[i] - left_mean) * (left[i] - left_mean);
    right_square += (right[i] - right_mean) * (right[i] - right_mean);
  }
  return common / std::sqrt(left_square * right_square);
}

// How much better the boxes lie at their cells with y first than with x first; nothing where rows stand for
// no cells, or no values are known.
std::optional<double> lead_of_y_first(const HeadEvidence& evidence, const HeadPart& boxes) {
  const OutputValues* const values = evidence.question().values;
  if (values == nullptr || evidence.layout().strides.empty()) {
    return std::nullopt;
  }
  HeadReading cells;
  set_cell_references(evidence, .5, &cells);
  std::vector<double> x;
  std::vector<double> y;
  for (const ReferenceBox& cell : cells.head.references) {
    x.push_back(cell.x);
    y.push_back(cell.y);
  }
  std::array<std::vector<double>, 2> middles;
  for (std::size_t i = 0; i < middles.size(); ++i) {
    const auto channel = boxes.first + static_cast<std::int64_t>(i);
    const std::vector<float> low = read_channel(boxes.tensors, channel, *values);
    const std::vector<float> high = read_channel(boxes.tensors, channel + 2, *values);
    for (std::size_t row = 0; row < low.size(); ++row) {
      middles[i].push_back((static_cast<double>(low[row]) + static_cast<double>(high[row])) / 2);
    }
  }
  return middles[0].size() != x.size()
             ? std::nullopt
             : std::make_optional(correlation(middles[0], y) + correlation(middles[1], x) -
                                  correlation(middles[0], x) - correlation(middles[1], y));
}

// Which coordinate comes first, where the network does not say so.
void conclude_axes(const HeadEvidence& evidence, HeadReading* reading) {
  constexpr double kClear = .5;
  const std::optional<bool> given = evidence.options().y_first;
  const bool suppressed = evidence.question().selection == Selection::kSuppression;
  const std::optional<double> lead =
      given ? std::nullopt : lead_of_y_first(evidence, reading->head.boxes);
  if (!given && !suppressed && !(lead && *lead > kClear)) {
    return;  // x first, as usual
  }
  if (!given && !(lead && std::fabs(*lead) > kClear)) {
    throw ToolError(
        kUsageError,
        "the network suppresses boxes itself, to which x first and y first are the same, and "
        "its rows are not those of cells. Say which it is: --box-axes xy or --box-axes yx");
  }
  reading->head.y_first = given.value_or(lead.value_or(0) > 0);
  add_fact(reading,
           std::string(reading->head.y_first ? "y" : "x") + " comes first in each corner" +
               (given ? "" : ", by the places of the cells"),
           std::string("--box-axes ") + (reading->head.y_first ? "yx" : "xy"));
}

}  // namespace

std::vector<HeadReading> conclude_priors(const HeadEvidence& evidence) {
  const std::optional<Tables> tables = tables_of(evidence);
  const bool asked = evidence.is_asked_for("priors");
  if (!tables || (!asked && evidence.is_decoded({*tables->boxes, 0, kBox}))) {
    return {};
  }
  const std::optional<UsualPriors> priors = find_priors(evidence, tables->points != nullptr);
  if (!priors) {
    return {};
  }
  HeadLayout layout = evidence.layout();
  layout.strides.clear();  // they come with the priors
  const HeadEvidence own(evidence.question(), layout);
  HeadReading reading =
      begin_reading(own, "priors", "box offsets and scores, undecoded, for each prior");
  const HeadOptions& options = evidence.options();
  const std::array<double, 2> variances =
      options.variances.value_or(std::array<double, 2>{{.1, .2}});
  add_fact(&reading,
           std::to_string(layout.rows) + " rows: the priors of strides " + list_of(priors->strides),
           "--strides " + comma_list(priors->strides));
  add_fact(&reading,
           options.prior_sizes ? "priors: as --prior-sizes says"
                               : "priors: usual sizes whose number fits",
           "--prior-sizes " + describe(priors->sizes));
  add_fact(&reading,
           options.variances ? "variances: as --variances says" : "variances: the usual ones",
           format("--variances %g,%g", variances[0], variances[1]));
  Head& head = reading.head;
  head.boxes = own.part({*tables->boxes, 0, kBox});
  head.box_code = BoxCode::kOffsets;
  head.size_variance = variances[1];
  set_sized_references(own, priors->strides, priors->sizes, .5, variances[0], &reading);
  const Channels scores = {*tables->scores, 0, tables->scores->channels};
  const bool logits = !own.is_probability(scores);
  const std::int64_t known = own.known_classes();
  const bool softmax = scores.count > 1 && known != scores.count;
  head.classes = own.probability(scores, options.class_activation, "class", &reading,
                                 softmax ? Activation::kSoftmax : Activation::kSigmoid);
  conclude_background(own, *tables->scores, logits, &reading);
  conclude_class_count(own, scores.count, &reading);
  if (tables->points != nullptr) {
    // The library takes key points beside one class only, and the background is none.
    head.class_count -= head.background >= 0 ? 1 : 0;
    conclude_points(own, {*tables->points, 0, tables->points->channels}, PointCode::kOffsets,
                    &reading);
    head.class_count = scores.count;
  }
  return {reading};
}

std::vector<HeadReading> conclude_boxes_and_scores(const HeadEvidence& evidence) {
  const std::optional<Tables> tables = tables_of(evidence);
  const bool asked = evidence.is_asked_for(kDecodedTables);
  if (!tables || (!asked && !evidence.is_decoded({*tables->boxes, 0, kBox}))) {
    return {};
  }
  HeadReading reading =
      begin_reading(evidence, kDecodedTables, "boxes and scores apart, decoded in the graph");
  conclude_final_boxes(evidence, {*tables->boxes, 0, kBox}, qv_host::BoxOrder::kCornerPairs, true,
                       &reading);
  conclude_axes(evidence, &reading);
  const Channels scores = {*tables->scores, 0, tables->scores->channels};
  const bool logits = !evidence.is_probability(scores);
  Head& head = reading.head;
  head.classes =
      evidence.probability(scores, evidence.options().class_activation, "class", &reading);
  conclude_background(evidence, *tables->scores, logits, &reading);
  conclude_class_count(evidence, scores.count, &reading);
  if (tables->points != nullptr) {
    head.class_count -= head.background >= 0 ? 1 : 0;
    conclude_points(evidence, {*tables->points, 0, tables->points->channels}, PointCode::kFinal,
                    &reading);
    head.class_count = scores.count;
  }
  return {reading};
}

}  // namespace olvex_tools
