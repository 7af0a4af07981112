// bin_families.cpp - heads whose distances are shares of bins, beside or behind the classes. Declared in
// head_evidence.h.
#include <algorithm>
#include <iterator>

#include "tools/common/text.h"
#include "tools/heads/head_evidence.h"

namespace olvex_tools {

namespace {

constexpr std::int64_t kBox = 4;
constexpr std::int64_t kUsualBins[] = {8, 16, 17, 32};

// Distances and classes: where each begins in the same or in another kind.
struct BinsAndClasses {
  Channels bins;
  Channels classes;
  bool by_level = false;  // which are which only the levels of the values say
};

// Whether some run among the channels is of scores.
bool holds_scores(const HeadEvidence& evidence, const Channels& channels) {
  const std::vector<ChannelRun>& runs = channels.kind.get().runs;
  return std::any_of(runs.begin(), runs.end(), [&](const ChannelRun& run) {
    const std::int64_t first = std::max(run.first, channels.first);
    const std::int64_t end = std::min(run.first + run.count, channels.first + channels.count);
    return first < end && evidence.is_probability({channels.kind, first, end - first});
  });
}

void add_if_fitting(const HeadEvidence& evidence, const Channels& bins, const Channels& classes,
                    std::vector<BinsAndClasses>* found) {
  const HeadOptions& options = evidence.options();
  const std::int64_t count = bins.count / kBox;
  const bool fits = bins.count % kBox == 0 && count > 1 && classes.count > 0 &&
                    (!options.bins || *options.bins == count) &&
                    (evidence.known_classes() == 0 || evidence.known_classes() == classes.count) &&
                    !holds_scores(evidence, bins) && !evidence.is_decoded(bins) &&
                    !evidence.is_decoded(classes);
  if (fits) {
    found->push_back({bins, classes, false});
  }
}

// Those whose classes are scores, and of these those with a usual number of bins, if there are any.
std::vector<BinsAndClasses> most_likely(const HeadEvidence& evidence,
                                        std::vector<BinsAndClasses> found) {
  const auto keep = [&](auto&& is_likely) {
    std::vector<BinsAndClasses> likely;
    std::copy_if(found.begin(), found.end(), std::back_inserter(likely), is_likely);
    found = likely.empty() ? found : likely;
  };
  keep([&](const BinsAndClasses& pair) { return evidence.is_probability(pair.classes); });
  keep([&](const BinsAndClasses& pair) { return are_usual_bins(pair.bins.count / kBox); });
  // In front or behind: logits of classes are low, as most rows show nothing.
  if (found.size() == 2 && found[0].bins.count == found[1].bins.count) {
    const bool first = evidence.mean(found[0].classes) <= evidence.mean(found[1].classes);
    found = {found[first ? 0 : 1]};
    found[0].by_level = true;
  }
  return found;
}

// In one piece without names: any of the commonest numbers of bins may fit, in front of the classes or behind them,
// whichever leaves the lower logits to the classes.
void add_untraced(const HeadEvidence& evidence, const RowKind& kind,
                  std::vector<BinsAndClasses>* found) {
  for (const std::int64_t bins : {8, 16}) {
    const std::int64_t side = bins * kBox;
    std::vector<BinsAndClasses> orders;
    add_if_fitting(evidence, {kind, 0, side}, {kind, side, kind.channels - side}, &orders);
    add_if_fitting(evidence, {kind, kind.channels - side, side}, {kind, 0, kind.channels - side},
                   &orders);
    orders = most_likely(evidence, orders);
    found->insert(found->end(), orders.begin(), orders.end());
  }
}

std::vector<BinsAndClasses> find_bins(const HeadEvidence& evidence) {
  const std::vector<RowKind>& kinds = evidence.layout().kinds;
  std::vector<BinsAndClasses> found;
  if (kinds.size() == 2) {
    for (std::size_t i = 0; i < 2; ++i) {
      add_if_fitting(evidence, {kinds[i], 0, kinds[i].channels},
                     {kinds[1 - i], 0, kinds[1 - i].channels}, &found);
    }
    return most_likely(evidence, found);
  }
  const RowKind& kind = kinds.front();
  const std::int64_t all = kind.channels;
  for (const ChannelRun& run : kind.runs) {
    add_if_fitting(evidence, {kind, run.first, all - run.first}, {kind, 0, run.first}, &found);
    add_if_fitting(evidence, {kind, 0, run.first}, {kind, run.first, all - run.first}, &found);
  }
  const bool asked = evidence.is_asked_for("distance-bins");
  if (kind.runs.size() < 2 && (asked || evidence.known_classes() > 0)) {
    for (const std::int64_t bins : kUsualBins) {
      const std::int64_t side = bins * kBox;
      add_if_fitting(evidence, {kind, 0, side}, {kind, side, all - side}, &found);
      add_if_fitting(evidence, {kind, all - side, side}, {kind, 0, all - side}, &found);
    }
  }
  found = most_likely(evidence, found);
  if (kind.runs.size() < 2 && found.empty() && evidence.known_classes() == 0) {
    add_untraced(evidence, kind, &found);
  }
  return found;
}

HeadReading distance_bins_reading(const HeadEvidence& evidence, const BinsAndClasses& parts) {
  const std::int64_t bins = parts.bins.count / kBox;
  HeadReading reading = begin_reading(
      evidence, "distance-bins", "class scores, and the shares of bins for each side's distance");
  add_fact(&reading,
           std::to_string(bins) + " bins for each of four sides, " +
               (parts.bins.first == 0 && &parts.bins.kind.get() == &parts.classes.kind.get()
                    ? "in front of the classes"
                    : "behind or apart from the classes") +
               (parts.by_level ? ", by the lower logits of the classes" : ""),
           "--bins " + std::to_string(bins));
  Head& head = reading.head;
  head.boxes = evidence.part(parts.bins);
  head.box_code = BoxCode::kDistances;
  head.bins = bins;
  // Those of four strides count from the cells' corners.
  set_cell_references(evidence, evidence.layout().strides.size() == 4 ? 0 : .5, &reading);
  head.classes =
      evidence.probability(parts.classes, evidence.options().class_activation, "class", &reading);
  conclude_class_count(parts.classes.count, &reading);
  return reading;
}

}  // namespace

bool are_usual_bins(std::int64_t bins) {
  return std::find(std::begin(kUsualBins), std::end(kUsualBins), bins) != std::end(kUsualBins);
}

bool may_be_distance_bins(const HeadEvidence& evidence) {
  return !find_bins(evidence).empty();
}

std::vector<HeadReading> conclude_distance_bins(const HeadEvidence& evidence) {
  const HeadLayout& layout = evidence.layout();
  if (layout.kinds.size() > 2 || layout.strides.empty() || layout.anchors != 1) {
    return {};
  }
  std::vector<HeadReading> readings;
  for (const BinsAndClasses& parts : find_bins(evidence)) {
    readings.push_back(distance_bins_reading(evidence, parts));
  }
  return readings;
}

}  // namespace olvex_tools
