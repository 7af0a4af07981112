// SPDX-License-Identifier: Apache-2.0
// missing_parts.cpp - what a recording says, or shows by its numbers, that it lacks.
#include <algorithm>
#include <set>

#include "tools/common/text.h"
#include "tools/replay/replay.h"

namespace olvex_tools {

namespace {

// Every call of the process has a number, those that a frame makes to the platform, too.
class CallNumbers {
 public:
  void add(std::uint16_t thread, std::uint32_t first, std::size_t count) {
    threads_.insert(thread);
    lowest_ = std::min<std::uint64_t>(lowest_, first);
    highest_ = std::max<std::uint64_t>(highest_, first + count - 1);
    found_ += count;
  }
  // Calls of several threads end in another order than they begin in: some belong to the file before, or after.
  std::uint64_t missing() const {
    const std::uint64_t span = highest_ >= lowest_ ? highest_ - lowest_ + 1 : 0;
    return threads_.size() == 1 && span > found_ ? span - found_ : 0;
  }

 private:
  std::set<std::uint16_t> threads_;
  std::uint64_t lowest_ = UINT64_MAX;
  std::uint64_t highest_ = 0;
  std::uint64_t found_ = 0;
};

std::uint64_t missing_frames(const Recording& recording) {
  std::set<std::uint32_t> numbers;
  for (std::size_t k = 0; k < recording.frames.size(); ++k) {
    numbers.insert(recording.frame(k).number);
  }
  return numbers.empty() ? 0
                         : std::uint64_t{*numbers.rbegin()} - *numbers.begin() + 1 - numbers.size();
}

std::uint64_t missing_numbers(const Recording& recording) {
  CallNumbers numbers;
  for (const RecordedCall& call : recording.calls) {
    if ((call.flags & RECORDING_CALL_CARRIED) == 0) {
      numbers.add(call.thread, call.call, 1);
    }
  }
  for (std::size_t k = 0; k < recording.frames.size(); ++k) {
    const RecordedFrame frame = recording.frame(k);
    numbers.add(frame.thread, frame.call, 1 + frame.calls.size());
  }
  return numbers.missing();
}

// As the recorder counted them within this file.
std::uint64_t lost_calls(const Recording& recording) {
  std::uint64_t most = recording.about.lost_calls;
  for (const RecordedEvent& event : recording.events) {
    most = std::max(most, event.lost_calls);
  }
  return most - recording.about.lost_calls;
}

}  // namespace

std::vector<std::string> missing_parts(const Recording& recording) {
  std::vector<std::string> texts;
  const std::uint64_t frames = missing_frames(recording);
  if (frames > 0) {
    texts.push_back(counted(frames, "frame is", "frames are") +
                    " missing: after that, boxes are compared from the next key frame on");
  }
  std::uint64_t calls = lost_calls(recording);
  if (calls == 0 && frames == 0) {
    calls = missing_numbers(recording);
  }
  if (calls > 0) {
    texts.push_back(counted(calls, "call is", "calls are") +
                    " missing: what differs may be what they would have changed");
  }
  const bool is_carried = std::any_of(
      recording.calls.begin(), recording.calls.end(),
      [](const RecordedCall& call) { return (call.flags & RECORDING_CALL_CARRIED) != 0; });
  if (is_carried && recording.about.carried_complete == 0) {
    texts.emplace_back(
        "not all calls in force at its start are in it: what differs may be what they set");
  }
  return texts;
}

}  // namespace olvex_tools
