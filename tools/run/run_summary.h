// run_summary.h - what a whole run amounted to: frames, boxes, tracks, time per stage.
#ifndef TOOLS_RUN_RUN_SUMMARY_H
#define TOOLS_RUN_RUN_SUMMARY_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/frames/frame_record.h"

namespace olvex_tools {

// What the summary says beside the numbers that it counts.
struct RunFacts {
  std::string model;
  std::string input;
  std::vector<std::string> class_names;
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

  long frames_ = 0;
  std::map<std::uint32_t, std::uint64_t> boxes_;  // by class
  std::set<std::uint64_t> tracks_;
  std::array<std::vector<float>, kStages> milliseconds_;  // one value per frame
};

}  // namespace olvex_tools

#endif  // TOOLS_RUN_RUN_SUMMARY_H
