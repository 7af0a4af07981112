// SPDX-License-Identifier: Apache-2.0
// suppression.cpp - the two non-maximum suppressions.
#include "base/postprocess/det_postprocess.h"

#include "utils/log/olvex_log.h"
#include "base/postprocess/box_sort.h"
#include "base/postprocess/inclusive_overlap.h"
#include "base/postprocess/kept_boxes.h"
#include "base/postprocess/score_order.h"

OLVEX_LOG_CLOCK;

void nms(olvex::vector<BoxInfo>& input_boxes, float NMS_THRESH, unsigned char class_specific) {
  OLVEX_INFO_FORMAT("nms, NMS_THRESH: %f\n", static_cast<double>(NMS_THRESH));
  OLVEX_INFO("qsort_descent_inplace");
  BoxOrder sorted;
  find_order(input_boxes, 0, input_boxes.size(), sorted);

  OLVEX_INFO("do nms now!");
  BoxOrder order;
  const size_t num_kept = find_kept(input_boxes, sorted, NMS_THRESH, class_specific != 0, order);
  move_to_order(input_boxes, 0, order);
  while (input_boxes.size() > num_kept) {
    input_boxes.erase(input_boxes.end() - 1);
  }
}

void nms_sorted_bboxes(olvex::vector<BoxInfo>& bboxes, olvex::vector<int>& picked,
                       float nms_threshold, unsigned char class_specific) {
  picked.clear();
  qsort_descent_inplace(bboxes);
  olvex::vector<float> areas(bboxes.size(), 0.0f);
  for (size_t k = 0; k < bboxes.size(); ++k) {
    areas[k] = inclusive_area(bboxes[k]);
  }

  for (size_t i = 0; i < bboxes.size(); ++i) {
    bool keep = true;
    // Deliberate: no early exit, so that the time depends on the number of boxes only.
    for (size_t k = 0; k < picked.size(); ++k) {
      const size_t p = static_cast<size_t>(picked[k]);
      const float intersection = inclusive_intersection(bboxes[i], bboxes[p], class_specific != 0);
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
