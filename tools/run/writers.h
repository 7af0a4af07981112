// writers.h - the outputs of a run: boxes as text (JSON lines, MOTChallenge rows, COCO results), and annotated
// frames as a video, as single pictures and on a contact sheet.
// schema/frame.schema.json defines a JSON line; run_outputs.h puts the writers together.
#ifndef TOOLS_RUN_WRITERS_H
#define TOOLS_RUN_WRITERS_H

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/frames/annotation.h"

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

class PictureWriter {
 public:
  virtual ~PictureWriter() = default;
  virtual void write(FramePicture* picture) = 0;
  // Completes the file. Call it once.
  virtual void finish() = 0;
};

// Each throws ToolError (kInputError) when its file cannot be written, and touches it only once there
// is a frame.

// path ends in .mp4, .mkv, .mov or .avi. All frames get the size of the first. notice tells the
// user that no H.264 encoder was found.
std::unique_ptr<PictureWriter> make_video_writer(
    const std::string& path, double frames_per_second,
    const std::function<void(const std::string&)>& notice);
// Makes the folder; extension is png or jpg.
std::unique_ptr<PictureWriter> make_folder_writer(const std::string& folder,
                                                  const std::string& extension);
// tiles: frames on the sheet, 1..400, evenly chosen from however many come.
std::unique_ptr<PictureWriter> make_contact_sheet_writer(const std::string& path,
                                                         std::size_t tiles);

}  // namespace olvex_tools

#endif  // TOOLS_RUN_WRITERS_H
