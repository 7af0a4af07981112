// mot_hota.h - the sums that HOTA and its parts are made of. J. Luiten, A. Osep, P. Dendorfer,
// P. Torr, A. Geiger, L. Leal-Taixe, B. Leibe, "HOTA: A higher order metric for evaluating
// multi-object tracking", International Journal of Computer Vision 129, 2021.
// Read mot_metrics.h for the values that are made of them.
#ifndef TOOLS_EVAL_MOT_MOT_HOTA_H
#define TOOLS_EVAL_MOT_MOT_HOTA_H

#include <array>
#include <cstddef>

#include "tools/eval/mot/mot_clip.h"

namespace olvex_tools {

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

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_MOT_MOT_HOTA_H
