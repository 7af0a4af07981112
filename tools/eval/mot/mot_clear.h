// mot_clear.h - the CLEAR MOT counts: misses, false boxes, id switches. K. Bernardin,
// R. Stiefelhagen, "Evaluating multiple object tracking performance: the CLEAR MOT metrics", EURASIP
// Journal on Image and Video Processing 2008. Mostly tracked and mostly lost objects and fragments:
// Y. Li, C. Huang, R. Nevatia, "Learning to associate: HybridBoosted multi-target tracker for
// crowded scene", CVPR 2009.
// Read mot_metrics.h for the values that are made of them.
#ifndef TOOLS_EVAL_MOT_MOT_CLEAR_H
#define TOOLS_EVAL_MOT_MOT_CLEAR_H

#include <cstddef>
#include <vector>

#include "tools/eval/mot/mot_clip.h"

namespace olvex_tools {

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

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_MOT_MOT_CLEAR_H
