// table_families.cpp - heads with one table of boxes and one of scores: priors, and what is decoded already.
// Declared in head_evidence.h.
#include <algorithm>
#include <optional>

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/heads/head_evidence.h"

namespace olvex_tools {

namespace {

constexpr std::int64_t kBox = 4;

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
      throw ToolError(kUsageError,
                      "--prior-sizes: they are " +
                          std::to_string(given.strides.size() == given.sizes.size()
                                             ? count_of(size, given.strides, given.sizes)
                                             : 0) +
                          " priors at strides " + list_of(given.strides) + ", the network has " +
                          std::to_string(rows) +
                          " rows. Give the sizes of each stride, and --strides");
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
  const bool asked = evidence.is_asked_for("boxes-and-scores");
  if (!tables || (!asked && !evidence.is_decoded({*tables->boxes, 0, kBox}))) {
    return {};
  }
  HeadReading reading =
      begin_reading(evidence, "boxes-and-scores", "boxes and scores apart, decoded in the graph");
  conclude_final_boxes(evidence, {*tables->boxes, 0, kBox}, qv_host::BoxOrder::kCornerPairs, true,
                       &reading);
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
