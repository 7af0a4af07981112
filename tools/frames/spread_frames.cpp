// spread_frames.cpp - skips what lies between the frames to take. Declared in spread_frames.h.
#include "tools/frames/spread_frames.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>

#include "tools/common/command.h"
#include "tools/common/progress.h"

namespace olvex_tools {

namespace {

constexpr double kPictureRate = 25;  // of no effect: time stamps are not looked at

// Number, from 0, of the frame to take as the index-th of limit.
long spread(long index, long limit, std::optional<long> length) {
  if (!length || *length <= limit) {
    return index;
  }
  return static_cast<long>(static_cast<std::int64_t>(index) * *length / limit);
}

// False at the end of the source.
bool skip_to(long number, FrameSource* source, long* position) {
  while (*position < number) {
    if (!source->skip()) {
      return false;
    }
    ++*position;
  }
  return true;
}

}  // namespace

long for_spread_frames(const std::string& input, const FrameLayout& layout, long limit,
                       const std::function<void(SourceFrame*)>& process) {
  silence_opencv();
  const std::unique_ptr<FrameSource> source = open_frame_source(input, layout, kPictureRate);
  const std::optional<long> length = source->length();
  Progress progress(length ? std::min(*length, limit) : limit, false);
  SourceFrame frame;
  long position = 0;
  long done = 0;
  while (done < limit && skip_to(spread(done, limit, length), source.get(), &position) &&
         source->next(&frame)) {
    process(&frame);
    ++position;
    progress.update(++done);
  }
  if (done == 0) {
    refuse_input(input, "no frame can be read from it");
  }
  return done;
}

}  // namespace olvex_tools
