// suppression.cpp - the two non-maximum suppressions. See det_postprocess.h.
#include "base/postprocess/det_postprocess.h"

#include "utils/log/olvex_log.h"

OLVEX_LOG_CLOCK;

namespace {

// Deliberate: widths count both border pixels (+1), unlike the other overlap measures; the
// threshold of suppression is tuned to this one.
float inclusive_area(const BoxInfo& box) {
  return (box.x2 - box.x1 + 1) * (box.y2 - box.y1 + 1);
}

float inclusive_intersection(const BoxInfo& a, const BoxInfo& b) {
  const float xx1 = olvex::max(a.x1, b.x1);
  const float yy1 = olvex::max(a.y1, b.y1);
  const float xx2 = olvex::min(a.x2, b.x2);
  const float yy2 = olvex::min(a.y2, b.y2);
  const float w = olvex::max(0.0f, xx2 - xx1 + 1);
  const float h = olvex::max(0.0f, yy2 - yy1 + 1);
  return w * h;
}

float suppression_intersection(const BoxInfo& a, const BoxInfo& b, unsigned char class_specific) {
  if (class_specific != 0 && a.label != b.label) {
    return 0.0f;
  }
  return inclusive_intersection(a, b);
}

void fill_areas(const olvex::vector<BoxInfo>& boxes, olvex::vector<float>& areas) {
  areas.resize(boxes.size(), 0.0f);
  for (size_t k = 0; k < boxes.size(); ++k) {
    areas[k] = inclusive_area(boxes[k]);
  }
}

}  // namespace

void nms(olvex::vector<BoxInfo>& input_boxes, float NMS_THRESH, unsigned char class_specific) {
  OLVEX_INFO_FORMAT("nms, NMS_THRESH: %f\n", static_cast<double>(NMS_THRESH));
  OLVEX_INFO("qsort_descent_inplace");
  qsort_descent_inplace(input_boxes);

  olvex::vector<float> vArea;
  fill_areas(input_boxes, vArea);

  OLVEX_INFO("do nms now!");
  for (size_t i = 0; i < input_boxes.size(); ++i) {
    size_t j = i + 1;
    while (j < input_boxes.size()) {
      const float intersection =
          suppression_intersection(input_boxes[i], input_boxes[j], class_specific);
      const float ovr = intersection / (vArea[i] + vArea[j] - intersection);
      // Deliberate: a pair is kept only strictly below the threshold, so a ratio equal to it
      // erases; a NaN ratio is not at or above it and keeps the box.
      if (ovr >= NMS_THRESH) {
        input_boxes.erase(input_boxes.begin() + j);
        vArea.erase(vArea.begin() + j);
      } else {
        ++j;
      }
    }
  }
}

void nms_sorted_bboxes(olvex::vector<BoxInfo>& bboxes, olvex::vector<int>& picked,
                       float nms_threshold, unsigned char class_specific) {
  picked.clear();
  qsort_descent_inplace(bboxes);
  olvex::vector<float> areas;
  fill_areas(bboxes, areas);

  for (size_t i = 0; i < bboxes.size(); ++i) {
    bool keep = true;
    // Deliberate: no early exit, so that the time depends on the number of boxes only.
    for (size_t k = 0; k < picked.size(); ++k) {
      const size_t p = static_cast<size_t>(picked[k]);
      const float intersection = suppression_intersection(bboxes[i], bboxes[p], class_specific);
      const float union_area = areas[i] + areas[p] - intersection;
      if (intersection / union_area >= nms_threshold) {
        keep = false;
      }
    }
    if (keep) {
      picked.push_back(static_cast<int>(i));
    }
  }
}
