// mot_overlap.h - how far two boxes overlap, and when that counts as a match.
// Read mot_clip.h for who is compared with whom.
#ifndef TOOLS_EVAL_MOT_MOT_OVERLAP_H
#define TOOLS_EVAL_MOT_MOT_OVERLAP_H

#include "tools/eval/mot/mot_files.h"

namespace olvex_tools {

// From here on two boxes show the same object.
constexpr double kMatchOverlap = 0.5;

// Intersection over union, 0 to 1. A box without an area overlaps nothing.
double overlap_of(const MotBox& left, const MotBox& right);

// Whether an overlap reaches a threshold that need not have an exact binary form.
bool reaches(double overlap, double threshold);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_MOT_MOT_OVERLAP_H
