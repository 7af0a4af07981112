// mot_identity.h - the identity counts: how much is right when each object may be one track only.
// E. Ristani, F. Solera, R. Zou, R. Cucchiara, C. Tomasi, "Performance measures and a data set for
// multi-target, multi-camera tracking", ECCV Workshops 2016.
// Read mot_metrics.h for the values that are made of them.
#ifndef TOOLS_EVAL_MOT_MOT_IDENTITY_H
#define TOOLS_EVAL_MOT_MOT_IDENTITY_H

#include "tools/eval/mot/mot_clip.h"

namespace olvex_tools {

struct IdentityCounts {
  long matches = 0;      // IDTP
  long misses = 0;       // IDFN
  long false_boxes = 0;  // IDFP

  void add(const IdentityCounts& other);
};

// Objects and tracks are assigned for the whole clip, so that misses and false boxes are fewest.
IdentityCounts identity_matches(const MotClip& clip);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_MOT_MOT_IDENTITY_H
