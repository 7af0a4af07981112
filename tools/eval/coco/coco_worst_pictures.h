// coco_worst_pictures.h - draws truth, hits, false boxes and misses into the pictures that went
// worst. coco_picture_errors.h says which those are, frame_source.h supplies the pictures.
#ifndef TOOLS_EVAL_COCO_COCO_WORST_PICTURES_H
#define TOOLS_EVAL_COCO_COCO_WORST_PICTURES_H

#include <string>
#include <vector>

#include "tools/eval/coco/coco_data.h"
#include "tools/eval/coco/coco_picture_errors.h"

namespace olvex_tools {

// Writes worst_01_image_139.png and so on into folder, which is made. input: the video, picture or
// folder that the results were made from; its frames have the image ids that olvex-det run gives
// them. Throws ToolError (kInputError) when it cannot be read, or lacks one of the pictures.
void draw_worst_pictures(const CocoTruth& truth, const std::vector<PictureErrors>& worst,
                         const std::string& input, const std::string& folder);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_COCO_COCO_WORST_PICTURES_H
