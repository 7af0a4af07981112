// SPDX-License-Identifier: Apache-2.0
// result_writers.h - the results of frames as texts: JSON Lines, MOTChallenge rows, COCO results.
#ifndef TOOLS_FRAMES_RESULT_WRITERS_H
#define TOOLS_FRAMES_RESULT_WRITERS_H

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "tools/frames/annotation.h"

namespace olvex_tools {

class FrameWriter {
 public:
  virtual ~FrameWriter() = default;
  virtual void write(FramePicture* frame) = 0;
  // Completes the file, also after a run that was cut short. Call it once.
  virtual void finish() = 0;
};

// Each empties or replaces its file only once there is a frame; path "-" is standard_output. Making
// one, writing and finishing throw ToolError (kInputError).

// One object per frame and line, see schema/frame.schema.json, written as they come.
std::unique_ptr<FrameWriter> make_json_lines_writer(const std::string& path, FILE* standard_output,
                                                    const std::vector<std::string>& class_names);
// frame,id,left,top,width,height,score,class,-1,-1 per box, written as they come; id is -1 without
// the tracker.
std::unique_ptr<FrameWriter> make_mot_writer(const std::string& path, FILE* standard_output,
                                             bool whole_pixels);
// An array of {image_id, category_id, bbox, score}, one per box. It takes its place when finished.
std::unique_ptr<FrameWriter> make_coco_writer(const std::string& path, FILE* standard_output,
                                              bool whole_pixels);

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_RESULT_WRITERS_H
