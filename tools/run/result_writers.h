// result_writers.h - boxes as text: JSON lines, MOTChallenge rows, COCO results.
// schema/frame.schema.json defines a JSON line; run_outputs.h puts the writers together.
#ifndef TOOLS_RUN_RESULT_WRITERS_H
#define TOOLS_RUN_RESULT_WRITERS_H

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "tools/frames/frame_record.h"

namespace olvex_tools {

class ResultWriter {
 public:
  virtual ~ResultWriter() = default;
  virtual void write(const FrameRecord& record) = 0;
  // Completes the file, also after a run that was cut short. Call it once.
  virtual void finish() = 0;
};

// Each empties or replaces its file only once there is a frame; path "-" is standard_output. Making
// one, writing and finishing throw ToolError (kInputError).

// One object per frame and line, written as they come.
std::unique_ptr<ResultWriter> make_json_lines_writer(const std::string& path, FILE* standard_output,
                                                     const std::vector<std::string>& class_names);
// frame,id,left,top,width,height,score,class,-1,-1 per box, written as they come; id is -1 without
// the tracker.
std::unique_ptr<ResultWriter> make_mot_writer(const std::string& path, FILE* standard_output);
// An array of {image_id, category_id, bbox, score}, one per box. It takes its place when finished.
std::unique_ptr<ResultWriter> make_coco_writer(const std::string& path, FILE* standard_output);

// The shortest decimal that reads back as the same float: 0.9, not 0.899999976.
double shortest_decimal(float value);

}  // namespace olvex_tools

#endif  // TOOLS_RUN_RESULT_WRITERS_H
