// coco_plot.h - the precision/recall curves of eval coco as an SVG picture.
// Read coco_metrics.h for the curves.
#ifndef TOOLS_EVAL_COCO_COCO_PLOT_H
#define TOOLS_EVAL_COCO_COCO_PLOT_H

#include <string>

#include "tools/eval/coco/coco_metrics.h"

namespace olvex_tools {

// One curve per class that has truth, and their mean, at overlap .50, with a legend of AP50s.
std::string precision_recall_svg(const CocoMetrics& metrics);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_COCO_COCO_PLOT_H
