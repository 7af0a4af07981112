// run_outputs.h - all outputs that one run was asked for, in one object.
// Read writers.h for the single ones.
#ifndef TOOLS_RUN_RUN_OUTPUTS_H
#define TOOLS_RUN_RUN_OUTPUTS_H

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/common/command.h"
#include "tools/run/writers.h"

namespace olvex_tools {

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
