// SPDX-License-Identifier: Apache-2.0
// run.h - the parts of the subcommand run: the detector, the library's log, the outputs, the summary, and the
// work from frames to outputs. run_command.cpp fills the options.
#ifndef TOOLS_RUN_RUN_H
#define TOOLS_RUN_RUN_H

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "olvex_det.h"
#include "tools/common/command.h"
#include "tools/common/output_file.h"
#include "tools/frames/annotation.h"
#include "tools/frames/frame_record.h"
#include "tools/frames/result_writers.h"
#include "tools/run/frame_job.h"
#include "tools/run/frame_reader.h"
#include "tools/run/run_inputs.h"

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
  bool shares_device =
      false;  // another handle has brought the accelerator up, and takes it down later
};

// Brings the accelerator up and takes it down, unless it shares another one's. Errors of the library are
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
  // is_shared: by several threads that run frames.
  RunLog(const std::string& path, bool is_shared);
  ~RunLog();
  RunLog(const RunLog&) = delete;
  RunLog& operator=(const RunLog&) = delete;

  // The process's real standard output.
  FILE* results() { return redirection_->results(); }
  // While a thread holds it, what it logs is not taken for that of a frame that went well.
  std::shared_lock<std::shared_mutex> hold() { return std::shared_lock<std::shared_mutex>(mutex_); }
  // What was logged so far belongs to a frame that went well. A shared log takes note of that only now and then,
  // and waits for the others that hold it.
  void frame_done();
  // The last error lines since then, each indented and on its own line; may be empty, and is
  // where the log is no regular file.
  std::string last_errors() const;

 private:
  // Of what belongs to no good frame, the end.
  std::string unchecked_text() const;

  bool is_shared_;
  std::shared_mutex mutex_;
  int memory_ = -1;  // descriptor of the log in memory; -1 with a file of the user's
  std::string path_;
  std::atomic<long long> checked_{0};  // bytes of the log that belong to frames that went well
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
  std::string trace;    // JSON; written by run_trace.cpp
  DrawingOptions drawing;
};

// What stands for the name of the input in the path of an output.
constexpr char kInputName[] = "{name}";
bool is_own(const std::string& path);

// The outputs whose paths have kInputName, which each input has for itself, with its name there; and the others.
OutputOptions own_outputs(const OutputOptions& options, const std::string& input_name);
OutputOptions shared_outputs(const OutputOptions& options);

// Throws ToolError (kUsageError) for an output that cannot hold several inputs, and for names that are alike.
void require_outputs_fit(const OutputOptions& options, const std::vector<RunInput>& inputs);

// Whether results go to standard output.
bool uses_standard_output(const OutputOptions& options);

// Throws as require_own_files does. read_paths: files beside the inputs.
void require_separate_files(const OutputOptions& options, const std::string& log,
                            const std::vector<RunInput>& inputs,
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
  DrawingOptions drawing_;
  std::vector<std::unique_ptr<FrameWriter>> writers_;
  bool needs_picture_ = false;
};

// ---- The trace (run_trace.cpp) ------------------------------------------------------------------

// When each stage had each frame, as Chrome's trace events, which Perfetto shows.
class RunTrace {
 public:
  // Throws ToolError (kInputError), as the others do. engines: threads that run the network.
  RunTrace(const std::string& path, FILE* standard_output, int engines);

  void add(const FrameJob& job);
  // Completes the file. Call it once.
  void finish();

 private:
  void write_row_name(int row, const std::string& name);
  void write_event(const std::string& event);

  OutputFile file_;
  int engines_;
  Clock::time_point start_;
  bool begun_ = false;
};

// ---- The summary (run_summary.cpp) --------------------------------------------------------------

// What the summary says beside the numbers that it counts.
struct RunFacts {
  std::string model;
  std::vector<std::string> inputs;
  std::vector<std::string> class_names;
  int max_boxes = 0;  // of the model's image
  bool tracked = false;
  bool interrupted = false;
  std::optional<long> expected_frames;  // by what the input says of its length
  double seconds = 0;                   // from the first frame to the last output
};

class RunSummary {
 public:
  // input: which one the frame is of. output_milliseconds: time that drawing and writing took for it.
  void add(const FrameRecord& record, std::size_t input, double output_milliseconds);

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
  std::map<std::uint32_t, std::uint64_t> boxes_;            // by class
  std::set<std::pair<std::size_t, std::uint64_t>> tracks_;  // by input and id
  std::array<std::vector<float>, kStages> milliseconds_;    // one value per frame
};

// ---- The work (run_session.cpp) -----------------------------------------------------------------

struct RunOptions {
  std::vector<std::string> inputs;
  FrameReader::Settings reading;
  DetectorOptions detector;
  std::vector<std::string> classes;  // to report, by name or id; empty: all
  std::vector<std::string> blurred;  // in pictures, by name or id
  std::string platform;              // path of a platform's library; empty: the host accelerator
  OutputOptions outputs;
  std::optional<cv::Size> display;  // pixels; nothing: each frame's own size
  int jobs = 0;                     // threads; 0: as many as there are processors
  std::string log;                  // file for the library's own log; empty: not kept
  bool quiet = false;
};

// Requires: options are valid, as run_command.cpp checks. Returns kDone or kInterrupted, throws
// ToolError; in each case all outputs are complete up to the last frame.
int run_session(const RunOptions& options);

}  // namespace olvex_tools

#endif  // TOOLS_RUN_RUN_H
