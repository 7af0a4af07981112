// mot_metrics.h - all metrics of tracks, and how several clips become one value.
// Read mot_clear.h and mot_hota.h for where the other counts come from.
#ifndef TOOLS_EVAL_MOT_MOT_METRICS_H
#define TOOLS_EVAL_MOT_MOT_METRICS_H

#include <string>
#include <vector>

#include "tools/common/evaluation.h"
#include "tools/eval/mot/mot_clear.h"
#include "tools/eval/mot/mot_hota.h"

namespace olvex_tools {

// How much is right when each object may be one track only: E. Ristani, F. Solera, R. Zou, R. Cucchiara,
// C. Tomasi, "Performance measures and a data set for multi-target, multi-camera tracking", ECCV Workshops
// 2016.
struct IdentityCounts {
  long matches = 0;      // IDTP
  long misses = 0;       // IDFN
  long false_boxes = 0;  // IDFP

  void add(const IdentityCounts& other);
};

// Objects and tracks are assigned for the whole clip, so that misses and false boxes are fewest.
IdentityCounts identity_matches(const MotClip& clip);

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
