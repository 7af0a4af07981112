// run_outputs.h - the outputs of a run: boxes as text, annotated frames, and all requested ones in one
// object.
// schema/frame.schema.json defines a JSON line.
#ifndef TOOLS_RUN_RUN_OUTPUTS_H
#define TOOLS_RUN_RUN_OUTPUTS_H

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/common/command.h"
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

// Paths; an empty one stands for an output that is not wanted.
struct OutputOptions {
  std::string json_lines;  // or "-"
  std::string mot;         // or "-"
  std::string coco;        // or "-"
  std::string video;
  std::string pictures;  // a folder
  std::string picture_extension = "png";
  std::string contact_sheet;
  std::size_t contact_frames = 12;
  std::string summary;  // JSON; or "-"; written by run_summary.cpp
};

// Whether results go to standard output.
bool uses_standard_output(const OutputOptions& options);

// Throws as require_own_files does.
void require_separate_files(const OutputOptions& options, const std::string& log,
                            const std::vector<std::string>& read_paths);

class RunOutputs {
 public:
  // Throws ToolError (kInputError) for a file that could not be written, but touches none before the
  // first write(). notice gets remarks for the user.
  RunOutputs(const OutputOptions& options, FILE* standard_output,
             const std::vector<std::string>& class_names, double frames_per_second,
             const std::function<void(const std::string&)>& notice);

  // True when write() needs the picture.
  bool needs_picture() const { return !picture_writers_.empty(); }
  // picture: the frame as it came; may be empty unless needs_picture().
  void write(const FrameRecord& record, const cv::Mat& picture);
  // Completes every file, also when one of them fails. Returns what failed now. Call it once.
  std::vector<ToolError> finish();

 private:
  std::vector<std::string> class_names_;
  std::vector<std::unique_ptr<ResultWriter>> result_writers_;
  std::vector<std::unique_ptr<PictureWriter>> picture_writers_;
};

}  // namespace olvex_tools

#endif  // TOOLS_RUN_RUN_OUTPUTS_H
