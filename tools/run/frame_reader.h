// SPDX-License-Identifier: Apache-2.0
// frame_reader.h - the chosen frames of all inputs of a run, one after the other. run_session.cpp sends them
// through the stages.
#ifndef TOOLS_RUN_FRAME_READER_H
#define TOOLS_RUN_FRAME_READER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/frames/frame_source.h"
#include "tools/run/run_inputs.h"

namespace olvex_tools {

// Which frames of each input are processed.
struct FrameSelection {
  long skip = 0;                          // frames to leave out at the start
  std::optional<std::uint64_t> start;     // microseconds; in place of skip
  std::string start_text;                 // the option that skip or start came from
  long every = 1;                         // of what is left every n-th, the first one included
  std::optional<std::uint64_t> duration;  // microseconds from the first one
  long limit = 0;                         // frames to process at most, of all inputs; 0: all
  long shard = 1;                         // this part
  long shards = 1;                        // of so many, one after the other
};

class FrameReader {
 public:
  struct Settings {
    FrameSelection selection;
    double picture_rate = 25;
    int timeout = 30;  // seconds
  };

  // Opens the first input.
  FrameReader(const std::vector<RunInput>& inputs, const FrameLayout& layout,
              const Settings& settings);

  // Leaves out what comes before the first chosen frame. Call it once, before next().
  void begin();
  // False after the last frame of the last input. Throws ToolError (kInputError) for one that cannot be read or
  // that ends too early, and where there is no frame at all.
  bool next(SourceFrame* frame);
  // Which input the last frame came from.
  std::size_t input() const { return current_; }
  // Of the input that is open.
  double frames_per_second() const { return source_->frames_per_second(); }
  // Frames to come, when begin() was not called yet; nothing when that is not known.
  std::optional<long> expected() const { return expected_; }
  // The same after the run: nothing where an input did not say, or was not reached.
  std::optional<long> stated() const { return is_stated_ ? expected_ : std::nullopt; }
  // Remarks for the user since the last call.
  std::vector<std::string> take_notices();

 private:
  // Of an input's chosen frames, from 0, those from first on and before end; all where there is no end.
  struct Part {
    long first = 0;
    std::optional<long> end;
  };

  void open(std::size_t input);
  void seek_start();
  std::optional<long> chosen_frames() const;
  void plan_shard();
  bool take(SourceFrame* frame);
  bool is_past_end() const;
  void check_end();
  void check_length();

  const std::vector<RunInput>& inputs_;
  FrameLayout layout_;
  Settings settings_;
  std::vector<Part> parts_;  // of each input
  std::unique_ptr<FrameSource> source_;
  std::size_t current_ = 0;
  bool is_begun_ = false;  // the current input was sought
  long taken_ = 0;         // frames of the current input
  long taken_in_all_ = 0;
  std::uint64_t first_pts_ = 0;  // of the current input's frames
  std::uint64_t last_pts_ = 0;
  std::optional<long> expected_;
  bool is_stated_ = false;  // by the inputs, not by the limit alone
  std::vector<std::string> notices_;
};

}  // namespace olvex_tools

#endif  // TOOLS_RUN_FRAME_READER_H
