// mot_clip.h - truth and result of one clip side by side, frame by frame, and the assignment of boxes and
// tracks to one another: what the metrics (mot_metrics.h) are computed from.
#ifndef TOOLS_EVAL_MOT_MOT_CLIP_H
#define TOOLS_EVAL_MOT_MOT_CLIP_H

#include <cstddef>
#include <set>
#include <vector>

#include "tools/eval/mot/mot_files.h"

namespace olvex_tools {

struct WeightedPair {
  std::size_t row = 0;
  std::size_t column = 0;
  double weight = 0;
};

// In mot_assignment.cpp.
// The pairs with the largest sum of weights of which no two share a row or a column, in the order
// of their rows. Pairs that are not listed are forbidden, those without a weight above 0 are never
// taken, and rows and columns may be left over. Of several equally good ways one is chosen, always
// the same one.
// Requires: rows and columns of pairs are below these counts; weights are finite; no pair is listed
// twice.
std::vector<WeightedPair> best_assignment(std::size_t rows, std::size_t columns,
                                          const std::vector<WeightedPair>& pairs);

// From here on two boxes show the same object.
constexpr double kMatchOverlap = 0.5;

// Intersection over union, 0 to 1: at most 1 also where rounding makes it more, since sums of it are shares.
double overlap_of(const Box& left, const Box& right);

// Whether an overlap reaches a threshold that need not have an exact binary form.
bool reaches(double overlap, double threshold);

struct ClipBox {
  std::size_t track = 0;  // index into MotClip::objects or MotClip::result_ids
  int class_id = 0;
  Box box;
};

struct ClipFrame {
  long number = 0;
  std::vector<ClipBox> truths;
  std::vector<ClipBox> results;
};

struct FrameSpan {
  long first = 0;
  long last = 0;
};

struct ClipObject {
  long id = 0;
  int class_id = 0;
  std::vector<FrameSpan> present;  // frames with a box that counts, in order
  std::vector<FrameSpan> ignored;  // frames with one that is to be ignored
};

struct MotClip {
  std::vector<ClipFrame> frames;    // those with a box in either file, in order
  std::vector<ClipObject> objects;  // by id, those that are never counted too
  std::vector<long> result_ids;     // in order
};

// Ignored truth is removed from the frames, and so is each result that shows one: with all truths of
// the frame assigned to results, it belongs to an ignored one. Like the preprocessing of
// MOTChallenge, but that a truth which counts takes results of the same class only.
// Requires: no id twice in a frame.
MotClip make_mot_clip(const MotFile& truth, const MotFile& result);

// The clip with the boxes and objects of these classes only.
MotClip restricted_to(const MotClip& clip, const std::set<int>& classes);

// The classes of the clip's boxes.
std::set<int> classes_of(const MotClip& clip);

// For each truth (row) and result (column) of one class that overlap by the threshold or more, and
// at all, their overlap as weight.
std::vector<WeightedPair> overlapping_pairs(const ClipFrame& frame, double threshold);

// Adds a frame to spans. Requires: it comes after them.
void extend_spans(std::vector<FrameSpan>* spans, long frame);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_MOT_MOT_CLIP_H
