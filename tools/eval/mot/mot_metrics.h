// mot_metrics.h - all metrics of tracks, and how several clips become one value.
#ifndef TOOLS_EVAL_MOT_MOT_METRICS_H
#define TOOLS_EVAL_MOT_MOT_METRICS_H

#include <array>
#include <cstddef>
#include <string>
#include <vector>

#include "tools/common/evaluation.h"
#include "tools/eval/mot/mot_clip.h"

namespace olvex_tools {

// The CLEAR MOT counts: K. Bernardin, R. Stiefelhagen, "Evaluating multiple object tracking performance: the
// CLEAR MOT metrics", EURASIP Journal on Image and Video Processing 2008. Mostly tracked and mostly lost
// objects and fragments: Y. Li, C. Huang, R. Nevatia, "Learning to associate: HybridBoosted multi-target
// tracker for crowded scene", CVPR 2009. In mot_clear.cpp.
struct ClearCounts {
  long matches = 0;
  long misses = 0;       // truths without a result
  long false_boxes = 0;  // results without a truth
  long switches = 0;     // matches with another id than the object's last match had
  long fragments = 0;    // times that an object was found again after frames in which it was missed
  double overlap_sum = 0;   // of the matches
  long mostly_tracked = 0;  // objects found in at least 80 % of their frames
  long partly_tracked = 0;
  long mostly_lost = 0;  // in less than 20 %

  void add(const ClearCounts& other);
};

// Frames in a row in which an object was found under one id.
struct FoundRun {
  FrameSpan frames;
  long result_id = 0;
};

struct ClearResult {
  ClearCounts counts;
  std::vector<std::vector<FoundRun>> runs;  // by the clip's objects
};

// Overlap from kMatchOverlap on is a match. The pairs of the frame before are kept where they still
// match; the others are assigned for the greatest sum of overlaps.
ClearResult clear_mot(const MotClip& clip);

// The sums that HOTA and its parts are made of: J. Luiten, A. Osep, P. Dendorfer, P. Torr, A. Geiger,
// L. Leal-Taixe, B. Leibe, "HOTA: A higher order metric for evaluating multi-object tracking", International
// Journal of Computer Vision 129, 2021. In mot_hota.cpp.

// Overlap thresholds 0.05, 0.10 ... 0.95.
constexpr std::size_t kHotaThresholds = 19;

struct HotaSums {
  struct AtThreshold {
    long matches = 0;
    double association = 0;  // of each match: share of frames that its object and track are one
    double overlap = 0;      // of the matches
  };
  long truths = 0;
  long results = 0;
  std::array<AtThreshold, kHotaThresholds> thresholds;

  void add(const HotaSums& other);
};

// Means over the thresholds. Several clips are one in the sums: that weighs the clips' AssA and
// LocA by their matches. Detection and association are 0 where nothing matches; LocA counts 1 at a
// threshold that no match reaches, as the values of the authors' own program do.
struct HotaValues {
  double hota = 0;
  double detection = 0;
  double association = 0;
  double localisation = 0;
};

// Throws ToolError (kInputError) when more objects and tracks overlap than memory is meant for.
HotaSums hota_sums(const MotClip& clip);
HotaValues hota_values(const HotaSums& sums);

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
