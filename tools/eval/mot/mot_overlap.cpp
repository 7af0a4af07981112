// mot_overlap.cpp - intersection over union. Read mot_overlap.h first.
#include "tools/eval/mot/mot_overlap.h"

#include <algorithm>
#include <limits>

namespace olvex_tools {

namespace {

// Length that two spans, given by start and length, have in common; not above 0 when they have none.
double common_length(double start, double length, double other_start, double other_length) {
  return std::min(start + length, other_start + other_length) - std::max(start, other_start);
}

}  // namespace

double overlap_of(const MotBox& left, const MotBox& right) {
  if (left.width <= 0 || left.height <= 0 || right.width <= 0 || right.height <= 0) {
    return 0;
  }
  const double width = common_length(left.left, left.width, right.left, right.width);
  const double height = common_length(left.top, left.height, right.top, right.height);
  if (width <= 0 || height <= 0) {
    return 0;
  }
  const double both = width * height;
  const double either = left.width * left.height + right.width * right.height - both;
  return either > 0 ? std::min(both / either, 1.0) : 0;  // areas may be too small for a double
}

bool reaches(double overlap, double threshold) {
  return overlap >= threshold - std::numeric_limits<double>::epsilon();
}

}  // namespace olvex_tools
