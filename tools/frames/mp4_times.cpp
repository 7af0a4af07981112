// SPDX-License-Identifier: Apache-2.0
// mp4_times.cpp - another box moov with the same samples at other times. Declared in mp4_times.h.
#include "tools/frames/mp4_times.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <numeric>

#include <fcntl.h>
#include <unistd.h>

#include "tools/common/command.h"
#include "tools/common/whole_file.h"
#include "tools/frames/file_parts.h"
#include "tools/frames/video_index.h"

namespace olvex_tools {

namespace {

constexpr std::uint64_t kMicroseconds = 1000000;

// Times and durations, in ticks of the track and of the movie.
struct Plan {
  std::uint32_t ticks_per_second = 0;
  std::vector<std::uint32_t> steps;   // from a sample to the next one, in the order of decoding
  std::vector<std::uint32_t> delays;  // from a sample's decoding to its showing
  std::uint64_t first_shown = 0;      // when the first frame is shown
  std::uint64_t duration = 0;
  std::uint64_t movie_duration = 0;
};

std::string number_text(std::uint64_t value, int bytes) {
  std::string text;
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
    text += static_cast<char>(value >> shift & 0xff);
  }
  return text;
}

std::string box_text(std::string_view type, const std::string& content) {
  constexpr std::size_t kHead = 8;
  return number_text(content.size() + kHead, 4).append(type) + content;
}

// A table of runs: how often each value stands, and the value.
std::string runs_box(std::string_view type, const std::vector<std::uint32_t>& values) {
  std::string entries;
  std::uint32_t count = 0;
  for (std::size_t i = 0; i < values.size();) {
    const std::size_t start = i;
    while (i < values.size() && values[i] == values[start]) {
      ++i;
    }
    entries += number_text(i - start, 4) + number_text(values[start], 4);
    ++count;
  }
  return box_text(type, number_text(0, 4) + number_text(count, 4) + entries);
}

std::string edit_box(const Plan& plan) {
  constexpr std::uint64_t kOrdinarySpeed = 1u << 16;
  const std::string entry = number_text(plan.movie_duration, 8) + number_text(plan.first_shown, 8) +
                            number_text(kOrdinarySpeed, 4);
  constexpr std::uint64_t kLongVersion = 1u << 24;
  return box_text("edts",
                  box_text("elst", number_text(kLongVersion, 4) + number_text(1, 4) + entry));
}

// A header with another number in it. place and wide: where the number stands with numbers of 32 and of 64 bits.
std::string with_number(std::string content, std::uint64_t value, std::size_t place,
                        std::size_t wide, int wide_bytes) {
  const bool is_wide = !content.empty() && content[0] == 1;
  const std::string text = number_text(value, is_wide ? wide_bytes : 4);
  const std::size_t start = is_wide ? wide : place;
  if (content.size() < start + text.size()) {
    return content;
  }
  return content.replace(start, text.size(), text);
}

std::string plain_text(BoxBytes bytes) {
  return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

std::string rebuilt(const ContainerBox& box, const Plan& plan) {
  const std::string content = plain_text(box.content);
  if (box.type == "mvhd") {
    return box_text(box.type, with_number(content, plan.movie_duration, 16, 24, 8));
  }
  if (box.type == "tkhd") {
    return box_text(box.type, with_number(content, plan.movie_duration, 20, 28, 8)) +
           edit_box(plan);
  }
  if (box.type == "mdhd") {
    return box_text(box.type, with_number(with_number(content, plan.ticks_per_second, 12, 20, 4),
                                          plan.duration, 16, 24, 8));
  }
  if (box.type == "stsd") {
    return box_text(box.type, content) + runs_box("stts", plan.steps) +
           runs_box("ctts", plan.delays);
  }
  if (box.type == "edts" || box.type == "stts" || box.type == "ctts") {
    return "";
  }
  std::string inner;
  for (const std::string_view type : {"moov", "trak", "mdia", "minf", "stbl"}) {
    if (box.type == type) {
      for (const ContainerBox& part : boxes_in(box.content)) {
        inner += rebuilt(part, plan);
      }
      return box_text(box.type, inner);
    }
  }
  return box_text(box.type, content);
}

// As many as the durations' 32 bits allow.
std::uint32_t ticks_for(std::uint64_t microseconds) {
  for (const std::uint32_t ticks : {1000000u, 90000u}) {
    if (microseconds / kMicroseconds < 0x7fffffffu / ticks) {
      return ticks;
    }
  }
  return 1000;
}

// The rank of each sample, in the order of decoding, among the shown ones.
std::vector<std::size_t> ranks_of(const std::vector<std::int64_t>& shown) {
  std::vector<std::size_t> order(shown.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t left, std::size_t right) { return shown[left] < shown[right]; });
  std::vector<std::size_t> ranks(shown.size());
  for (std::size_t i = 0; i < order.size(); ++i) {
    ranks[order[i]] = i;
  }
  return ranks;
}

// Samples are decoded at the times of the shown frames, each as late as its rank demands behind that.
Plan plan_for(const std::vector<std::int64_t>& shown, const std::vector<std::uint64_t>& times,
              std::uint64_t movie_ticks) {
  Plan plan;
  plan.ticks_per_second = ticks_for(times.back());
  std::vector<std::uint64_t> ticks(times.size());
  std::transform(times.begin(), times.end(), ticks.begin(), [&plan](std::uint64_t time) {
    return (time * plan.ticks_per_second + kMicroseconds / 2) / kMicroseconds;
  });
  const std::vector<std::size_t> ranks = ranks_of(shown);
  for (std::size_t i = 0; i < ticks.size(); ++i) {
    plan.first_shown = std::max(plan.first_shown, ticks[i] - std::min(ticks[i], ticks[ranks[i]]));
  }
  for (std::size_t i = 0; i < ticks.size(); ++i) {
    plan.delays.push_back(
        static_cast<std::uint32_t>(ticks[ranks[i]] + plan.first_shown - ticks[i]));
    if (i > 0) {
      plan.steps.push_back(static_cast<std::uint32_t>(ticks[i] - ticks[i - 1]));
    }
  }
  // The last frame is shown for as long as the one before.
  plan.steps.push_back(plan.steps.empty() ? 1 : std::max(1u, plan.steps.back()));
  plan.duration = ticks.back() + plan.steps.back();
  plan.movie_duration =
      (plan.duration * movie_ticks + plan.ticks_per_second - 1) / plan.ticks_per_second;
  return plan;
}

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
  refuse_input(path,
               "the times of its frames cannot be written, so it has a constant rate: " + reason);
}

// A file that is open for changes.
class ChangedFile {
 public:
  explicit ChangedFile(const std::string& path)
      : path_(path), descriptor_(open(path.c_str(), O_RDWR | O_CLOEXEC)) {
    if (descriptor_ < 0) {
      fail(path_, std::strerror(errno));
    }
  }
  ~ChangedFile() { close(descriptor_); }
  ChangedFile(const ChangedFile&) = delete;
  ChangedFile& operator=(const ChangedFile&) = delete;

  void append(const std::string& text, std::uint64_t end) const {
    lseek(descriptor_, static_cast<off_t>(end), SEEK_SET);
    if (write_all(descriptor_, text) != text.size()) {
      const int reason = errno;
      if (ftruncate(descriptor_, static_cast<off_t>(end)) != 0) {
        fail(path_, std::string(std::strerror(reason)) + ", and what was written of them stays");
      }
      fail(path_, std::strerror(reason));
    }
  }

  // Nothing is read of a box of this type.
  void strike_out(std::uint64_t place) const {
    if (pwrite(descriptor_, "free", 4, static_cast<off_t>(place + 4)) != 4) {
      fail(path_, std::strerror(errno));
    }
  }

 private:
  std::string path_;
  int descriptor_;
};

}  // namespace

void set_frame_times(const std::string& path, const std::vector<std::uint64_t>& times) {
  const PlacedFile file(path);
  const MovieBox movie = movie_box(file);
  const std::vector<ContainerBox> outer = boxes_in({movie.bytes.data(), movie.bytes.size()});
  const BoxBytes boxes = outer.empty() ? BoxBytes() : outer.front().content;
  const std::vector<std::int64_t> shown =
      shown_times(box_at(boxes, {"trak", "mdia", "minf", "stbl"}));
  const std::uint64_t movie_ticks = ticks_per_second(box_at(boxes, {"mvhd"}));
  if (shown.size() != times.size() || times.empty() || movie_ticks == 0) {
    fail(path, "its tables are not those of " + std::to_string(times.size()) + " frames");
  }
  const ChangedFile changed(path);
  changed.append(rebuilt(outer.front(), plan_for(shown, times, movie_ticks)), file.size());
  changed.strike_out(movie.place);
}

}  // namespace olvex_tools
