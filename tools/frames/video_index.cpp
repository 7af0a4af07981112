// SPDX-License-Identifier: Apache-2.0
// video_index.cpp - the tables of MP4 and MOV, the blocks of Matroska. Declared in video_index.h.
#include "tools/frames/video_index.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <optional>

#include "tools/frames/file_parts.h"

namespace olvex_tools {

namespace {

constexpr std::size_t kMostFrames = 10000000;

using Times = std::vector<std::int64_t>;  // in the file's own ticks

std::vector<std::uint64_t> in_microseconds(Times ticks, double seconds_per_tick) {
  std::sort(ticks.begin(), ticks.end());
  std::vector<std::uint64_t> times;
  times.reserve(ticks.size());
  for (const std::int64_t tick : ticks) {
    const double milliseconds = static_cast<double>(tick - ticks.front()) * seconds_per_tick * 1000;
    times.push_back(static_cast<std::uint64_t>(std::llround(milliseconds * 1000)));
  }
  return times;
}

// ---- MP4 and MOV --------------------------------------------------------------------------------

// The one track of pictures; empty where there is none or another.
BoxBytes video_track(BoxBytes movie) {
  BoxBytes found;
  for (const ContainerBox& box : boxes_in(movie)) {
    const BoxBytes handler = box_at(box.content, {"mdia", "hdlr"});
    if (box.type == "trak" && handler.size() >= 12 && std::memcmp(&handler[8], "vide", 4) == 0) {
      if (!found.empty()) {
        return {};
      }
      found = box.content;
    }
  }
  return found;
}

// Where the one edit of a track begins and how long it is, in ticks of the movie; 0 for the whole.
struct Edit {
  std::int64_t start = 0;
  std::uint64_t length = 0;
};

std::optional<Edit> edit_of(BoxBytes track) {
  const BoxBytes list = box_at(track, {"edts", "elst"});
  if (list.empty()) {
    return Edit();
  }
  const bool is_long = list[0] == 1;
  const std::size_t width = is_long ? 5 : 3;  // 32-bit numbers in an entry
  const std::vector<std::uint32_t> numbers = table_of(list, width);
  std::optional<Edit> edit;
  for (std::size_t i = 0; i < numbers.size(); i += width) {
    const auto number = [&](std::size_t place) -> std::uint64_t {
      return is_long ? std::uint64_t{numbers[i + 2 * place]} << 32 | numbers[i + 2 * place + 1]
                     : numbers[i + place];
    };
    const auto start = is_long ? static_cast<std::int64_t>(number(1))
                               : std::int64_t{static_cast<std::int32_t>(numbers[i + 1])};
    constexpr std::uint32_t kOrdinarySpeed = 1u << 16;
    if (start == -1 && !edit) {
      continue;  // a pause before the pictures
    }
    if (edit || start < 0 || numbers[i + width - 1] != kOrdinarySpeed) {
      return std::nullopt;
    }
    edit = Edit{start, number(0)};
  }
  return edit;
}

// The times that the edit shows; empty where it cuts the end, of which coders show more or less.
Times after_edit(const Times& times, const Edit& edit, double ticks_per_movie_tick) {
  const auto length = static_cast<double>(edit.length) * ticks_per_movie_tick;
  Times shown;
  for (const std::int64_t time : times) {
    if (time >= edit.start) {
      if (edit.length > 0 && static_cast<double>(time - edit.start) >= length) {
        return {};
      }
      shown.push_back(time);
    }
  }
  return shown;
}

std::vector<std::uint64_t> times_of_movie(const PlacedFile& file) {
  const MovieBox movie = movie_box(file);
  const BoxBytes boxes = box_at({movie.bytes.data(), movie.bytes.size()}, {"moov"});
  const BoxBytes track = video_track(boxes);
  const std::uint64_t movie_ticks = ticks_per_second(box_at(boxes, {"mvhd"}));
  const std::uint64_t ticks = ticks_per_second(box_at(track, {"mdia", "mdhd"}));
  const std::optional<Edit> edit = edit_of(track);
  if (ticks == 0 || movie_ticks == 0 || !edit || !box_at(boxes, {"mvex"}).empty()) {
    return {};
  }
  const Times times = shown_times(box_at(track, {"mdia", "minf", "stbl"}));
  return in_microseconds(
      after_edit(times, *edit, static_cast<double>(ticks) / static_cast<double>(movie_ticks)),
      1.0 / static_cast<double>(ticks));
}

// ---- Matroska -----------------------------------------------------------------------------------

constexpr std::uint32_t kSegment = 0x18538067;
constexpr std::uint32_t kInformation = 0x1549a966;
constexpr std::uint32_t kTimestampScale = 0x2ad7b1;
constexpr std::uint32_t kTracks = 0x1654ae6b;
constexpr std::uint32_t kTrackEntry = 0xae;
constexpr std::uint32_t kTrackNumber = 0xd7;
constexpr std::uint32_t kTrackType = 0x83;
constexpr std::uint64_t kVideoType = 1;
constexpr std::uint32_t kCluster = 0x1f43b675;
constexpr std::uint32_t kClusterTimestamp = 0xe7;
constexpr std::uint32_t kSimpleBlock = 0xa3;
constexpr std::uint32_t kBlockGroup = 0xa0;
constexpr std::uint32_t kBlock = 0xa1;

class MatroskaTimes {
 public:
  explicit MatroskaTimes(const PlacedFile& file) : file_(file) {}

  std::vector<std::uint64_t> read() {
    each_in(0, file_.size(), [this](const Element& part) {
      if (part.id == kSegment) {
        each_in(part.start, part.end, [this](const Element& inner) { read_part(inner); });
      }
    });
    if (!is_known_ || tracks_ != 1) {
      return {};
    }
    return in_microseconds(std::move(ticks_), scale_ * 1e-9);
  }

 private:
  template <typename Take>
  void each_in(std::uint64_t start, std::uint64_t end, const Take& take) {
    while (is_known_ && start < end) {
      const std::optional<Element> element = element_at(file_, start, end);
      if (!element) {
        is_known_ = false;
        return;
      }
      take(*element);
      start = element->end;
    }
  }

  std::uint64_t number(const Element& element) {
    unsigned char bytes[8] = {};
    const std::uint64_t size = element.end - element.start;
    if (size > sizeof bytes || !file_.read(element.start, bytes, static_cast<std::size_t>(size))) {
      is_known_ = false;
      return 0;
    }
    return big_endian(bytes, static_cast<std::size_t>(size));
  }

  void read_part(const Element& part) {
    if (part.id == kInformation) {
      each_in(part.start, part.end, [this](const Element& inner) {
        if (inner.id == kTimestampScale) {
          scale_ = static_cast<double>(number(inner));
        }
      });
    } else if (part.id == kTracks) {
      each_in(part.start, part.end, [this](const Element& inner) {
        if (inner.id == kTrackEntry) {
          read_track(inner);
        }
      });
    } else if (part.id == kCluster) {
      each_in(part.start, part.end, [this](const Element& inner) { read_in_cluster(inner); });
    }
  }

  void read_track(const Element& entry) {
    std::uint64_t track = 0;
    bool is_video = false;
    each_in(entry.start, entry.end, [&](const Element& inner) {
      if (inner.id == kTrackNumber) {
        track = number(inner);
      } else if (inner.id == kTrackType) {
        is_video = number(inner) == kVideoType;
      }
    });
    if (is_video) {
      video_ = track;
      ++tracks_;
    }
  }

  void read_in_cluster(const Element& element) {
    if (element.id == kClusterTimestamp) {
      constexpr std::uint64_t kLastExact = 1ull << 53;  // in double precision
      is_known_ = is_known_ && number(element) <= kLastExact;
      cluster_ = static_cast<std::int64_t>(std::min(number(element), kLastExact));
    } else if (element.id == kSimpleBlock) {
      read_block(element);
    } else if (element.id == kBlockGroup) {
      each_in(element.start, element.end, [this](const Element& inner) {
        if (inner.id == kBlock) {
          read_block(inner);
        }
      });
    }
  }

  // Track numbers from 128 on take more bytes; files with so many tracks are not looked into.
  void read_block(const Element& block) {
    unsigned char head[4] = {};
    constexpr unsigned char kLacing = 0x06;
    if (block.end - block.start < sizeof head || !file_.read(block.start, head, sizeof head) ||
        (head[0] & 0x80) == 0 || ticks_.size() >= kMostFrames) {
      is_known_ = false;
    } else if ((head[0] & 0x7f) == video_) {
      is_known_ = (head[3] & kLacing) == 0;
      ticks_.push_back(cluster_ + static_cast<std::int16_t>(big_endian(head + 1, 2)));
    }
  }

  const PlacedFile& file_;
  bool is_known_ = true;
  double scale_ = 1e6;  // nanoseconds in a tick
  int tracks_ = 0;      // of pictures
  std::uint64_t video_ = 0;
  std::int64_t cluster_ = 0;
  Times ticks_;
};

}  // namespace

std::uint64_t ticks_per_second(BoxBytes header) {
  const std::size_t place = !header.empty() && header[0] == 1 ? 20 : 12;
  return header.size() >= place + 4 ? big_endian(&header[place], 4) : 0;
}

Times shown_times(BoxBytes samples) {
  const std::vector<std::uint32_t> steps = table_of(box_at(samples, {"stts"}), 2);
  const std::vector<std::uint32_t> delays = table_of(box_at(samples, {"ctts"}), 2);
  // Both kinds of this table have the number of samples at the same place.
  const BoxBytes ordinary_sizes = box_at(samples, {"stsz"});
  const BoxBytes sizes = ordinary_sizes.empty() ? box_at(samples, {"stz2"}) : ordinary_sizes;
  constexpr std::size_t kCountPlace = 8;
  if (sizes.size() < kCountPlace + 4) {
    return {};
  }
  const std::size_t count = big_endian(&sizes[kCountPlace], 4);
  Times times;
  std::int64_t time = 0;
  for (std::size_t i = 0; i + 1 < steps.size(); i += 2) {
    if (steps[i] > std::min(count, kMostFrames) - times.size()) {
      return {};
    }
    for (std::uint32_t k = 0; k < steps[i]; ++k) {
      times.push_back(time);
      time += steps[i + 1];
    }
  }
  std::size_t sample = 0;
  for (std::size_t i = 0; i + 1 < delays.size(); i += 2) {
    for (std::uint32_t k = 0; k < delays[i] && sample < times.size(); ++k) {
      times[sample++] +=
          static_cast<std::int32_t>(delays[i + 1]);  // version 0 has no negative ones
    }
  }
  return times;
}

std::vector<std::uint64_t> times_of_frames(const std::string& path) {
  const PlacedFile file(path);
  unsigned char head[8] = {};
  if (!file.read(0, head, sizeof head)) {
    return {};
  }
  if (std::memcmp(head, "\x1a\x45\xdf\xa3", 4) == 0) {
    return MatroskaTimes(file).read();
  }
  return times_of_movie(file);
}

}  // namespace olvex_tools
