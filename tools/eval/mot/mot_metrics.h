// mot_metrics.h - all metrics of tracks, and how several clips become one value.
// Read mot_clear.h, mot_identity.h and mot_hota.h for where the counts come from.
#ifndef TOOLS_EVAL_MOT_MOT_METRICS_H
#define TOOLS_EVAL_MOT_MOT_METRICS_H

#include <string>
#include <vector>

#include "tools/common/metric_minimums.h"
#include "tools/eval/mot/mot_clear.h"
#include "tools/eval/mot/mot_hota.h"
#include "tools/eval/mot/mot_identity.h"

namespace olvex_tools {

struct MotScores {
  ClearCounts clear;
  IdentityCounts identity;
  HotaSums hota;

  void add(const MotScores& other);
};

struct MotMeasurement {
  MotScores scores;
  std::vector<std::vector<FoundRun>> runs;  // by the clip's objects
};

// Throws as hota_sums does.
MotMeasurement measure_tracks(const MotClip& clip);

// HOTA, DetA, AssA, LocA, MOTA, MOTP, IDF1, IDP, IDR. All are undefined without truth, MOTP, LocA
// and IDP also when there is nothing to take the mean of.
std::vector<Metric> mot_metrics(const MotScores& scores);

struct MotCount {
  const char* name;  // in JSON
  const char* heading;
  long value;
};

std::vector<MotCount> mot_counts(const MotScores& scores);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_MOT_MOT_METRICS_H
