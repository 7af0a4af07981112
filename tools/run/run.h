// SPDX-License-Identifier: Apache-2.0
// run.h - the parts of the subcommand run: the detector, the library's log, the outputs, the summary, and the
// work from frames to outputs. run_command.cpp fills the options.
#ifndef TOOLS_RUN_RUN_H
#define TOOLS_RUN_RUN_H

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "olvex_det.h"
#include "tools/common/command.h"
#include "tools/common/output_file.h"
#include "tools/frames/annotation.h"
#include "tools/frames/frame_record.h"
#include "tools/frames/result_writers.h"

namespace olvex_tools {

// ---- The detector (detector.cpp) ----------------------------------------------------------------

// olvex_det.h says what they mean.
struct DetectorOptions {
  std::string model;         // path of the model image
  std::string firmware;      // path of the accelerator's firmware; empty: the library's default
  bool from_memory = false;  // hand the model over in memory instead of by its path
  std::size_t pattern_offset = 0;  // bytes before the model's start pattern in the file
  float threshold = 0.5f;          // 0..1
  bool track = false;
  int track_frames = 1;  // frames an object must be seen before it is reported, 1..32767
  bool ignore_static = false;
  float static_sensitivity = 0.85f;  // above 0, to 1
  bool stable = false;
  float stable_sensitivity = 0.63f;  // 0..1
  bool strict = false;
};

// Brings the accelerator up and takes it down; one at a time. Errors of the library are
// thrown as ToolError: kModelError, kInputError, or kAcceleratorError for a platform code.
class Detector {
 public:
  // display: pixels; boxes come in its coordinates.
  Detector(const DetectorOptions& options, cv::Size display);
  ~Detector();
  Detector(const Detector&) = delete;
  Detector& operator=(const Detector&) = delete;

  InputAttr_t input() const;

  // Finds the objects in one frame (in the model's input format). Takes the time stamp of record and
  // fills detections, what limits left out, and of the times conversion (the accelerator's share is
  // added), network and postprocessing.
  void run(std::vector<unsigned char>* frame, FrameRecord* record);

 private:
  void initialise_from_file(const Rect_t& display);
  void initialise_from_memory(const Rect_t& display);
  void configure();

  DetectorOptions options_;
  void* handle_ = nullptr;
  bool has_tracks_ = false;
  std::vector<Box_t> boxes_;  // of one frame
};

// ---- The library's log (run_log.cpp) ------------------------------------------------------------

// Where the library's own log goes during a run: a file of the user's, or memory, from which its last errors
// can be shown when a run fails.
class RunLog {
 public:
  // path: file that the log is appended to; empty: only what belongs to the current frame is kept.
  explicit RunLog(const std::string& path);
  ~RunLog();
  RunLog(const RunLog&) = delete;
  RunLog& operator=(const RunLog&) = delete;

  // The process's real standard output.
  FILE* results() { return redirection_->results(); }
  // What was logged so far belongs to a frame that went well.
  void frame_done();
  // The last error lines since then, each indented and on its own line; may be empty, and is
  // where the log is no regular file.
  std::string last_errors() const;

 private:
  // Of what belongs to no good frame, the end.
  std::string unchecked_text() const;

  int memory_ = -1;  // descriptor of the log in memory; -1 with a file of the user's
  std::string path_;
  long long checked_ = 0;  // bytes of the log that belong to frames that went well
  std::unique_ptr<LibraryLog> redirection_;
};

// ---- The outputs (run_outputs.cpp) --------------------------------------------------------------

// It draws: frames must come with their picture. tiles: frames on the sheet, 1..400, evenly chosen from however many come.
std::unique_ptr<FrameWriter> make_contact_sheet_writer(const std::string& path, std::size_t tiles);

// Paths; an empty one stands for an output that is not wanted.
struct OutputOptions {
  std::string json_lines;     // or "-"
  std::string mot;            // or "-"
  std::string coco;           // or "-"
  bool whole_pixels = false;  // mot and coco: boxes as the public record has them
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
  bool needs_picture() const { return needs_picture_; }
  // picture: the frame as it came; may be empty unless needs_picture().
  void write(const FrameRecord& record, const cv::Mat& picture);
  // Completes every file, also when one of them fails. Returns what failed now. Call it once.
  std::vector<ToolError> finish();

 private:
  std::vector<std::string> class_names_;
  std::vector<std::unique_ptr<FrameWriter>> writers_;
  bool needs_picture_ = false;
};

// ---- The summary (run_summary.cpp) --------------------------------------------------------------

// What the summary says beside the numbers that it counts.
struct RunFacts {
  std::string model;
  std::string input;
  std::vector<std::string> class_names;
  int max_boxes = 0;  // of the model's image
  bool tracked = false;
  bool interrupted = false;
  std::optional<long> expected_frames;  // by what the input says of its length
  double seconds = 0;                   // from the first frame to the last output
};

class RunSummary {
 public:
  // output_milliseconds: time that drawing and writing took for this frame.
  void add(const FrameRecord& record, double output_milliseconds);

  long frames() const { return frames_; }
  // For people, several lines.
  std::string text(const RunFacts& facts) const;
  // One JSON object and a newline.
  std::string json(const RunFacts& facts) const;

 private:
  static constexpr std::size_t kStages = 5;

  // What limits left out; nothing when they left out nothing.
  std::string limits_text(int max_boxes) const;

  long frames_ = 0;
  long frames_with_dropped_candidates_ = 0;
  long frames_with_cut_boxes_ = 0;
  std::map<std::uint32_t, std::uint64_t> boxes_;  // by class
  std::set<std::uint64_t> tracks_;
  std::array<std::vector<float>, kStages> milliseconds_;  // one value per frame
};

// ---- The work (run_session.cpp) -----------------------------------------------------------------

struct RunOptions {
  std::string input;
  DetectorOptions detector;
  std::string platform;  // path of a platform's library; empty: the host accelerator
  OutputOptions outputs;
  std::optional<cv::Size> display;  // pixels; nothing: each frame's own size
  double picture_rate = 25;         // frames per second that a folder of files stands for
  long skip = 0;                    // frames to leave out at the start
  long limit = 0;                   // frames to process at most; 0: all
  std::string log;                  // file for the library's own log; empty: not kept
  bool quiet = false;
};

// Requires: options are valid, as run_command.cpp checks. Returns kDone or kInterrupted, throws
// ToolError; in each case all outputs are complete up to the last frame.
int run_session(const RunOptions& options);

}  // namespace olvex_tools

#endif  // TOOLS_RUN_RUN_H
