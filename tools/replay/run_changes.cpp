// SPDX-License-Identifier: Apache-2.0
// run_changes.cpp - boxes of two runs paired frame by frame, and tracks by the boxes that were paired.
#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "tools/common/box.h"
#include "tools/common/json_text.h"
#include "tools/common/text.h"
#include "tools/replay/replay.h"

namespace olvex_tools {

namespace {

constexpr double kSameObject = 0.5;  // overlap from which two boxes of a class are one object
constexpr int kSchemaVersion = 1;
constexpr int kOneLine = -1;  // the indent of JSON without line ends

using Track = std::pair<std::uint32_t, std::uint64_t>;  // handle and id

Box box_of(const Detection& detection) {
  return {static_cast<double>(detection.x), static_cast<double>(detection.y),
          static_cast<double>(detection.width), static_cast<double>(detection.height)};
}

bool is_same_place(const Detection& a, const Detection& b) {
  return std::tie(a.x, a.y, a.width, a.height) == std::tie(b.x, b.y, b.width, b.height);
}

std::string text_of(const Detection& detection) {
  return format("class %u at %u,%u %ux%u score %.3g", detection.class_id, detection.x, detection.y,
                detection.width, detection.height, static_cast<double>(detection.score));
}

Json json_of(const Detection& detection) {
  return {{"x", detection.x},
          {"y", detection.y},
          {"width", detection.width},
          {"height", detection.height},
          {"class_id", detection.class_id},
          {"score", detection.score},
          {"track_id", or_null(detection.track_id)}};
}

class Comparison {
 public:
  void add(const PlayedFrame* before, const PlayedFrame* after) {
    const PlayedFrame& frame = before != nullptr ? *before : *after;
    const std::size_t earlier = changes_.lines.size();
    static const std::vector<Detection> none;
    number_ = frame.record.number;
    handle_ = frame.handle;
    pair(before != nullptr ? before->record.detections : none,
         after != nullptr ? after->record.detections : none);
    ++changes_.frames;
    changes_.changed_frames += changes_.lines.size() > earlier ? 1 : 0;
  }

  RunChanges result() {
    add_tracks(followers_, "split", "tracks", &changes_.split);
    add_tracks(origins_, "joined", "tracks before", &changes_.joined);
    return std::move(changes_);
  }

 private:
  struct Pairing {
    double overlap;
    std::size_t before;
    std::size_t after;
  };

  // The pairs that overlap most come first.
  static std::vector<Pairing> pairings(const std::vector<Detection>& before,
                                       const std::vector<Detection>& after) {
    std::vector<Pairing> found;
    for (std::size_t b = 0; b < before.size(); ++b) {
      for (std::size_t a = 0; a < after.size(); ++a) {
        const bool is_same = is_same_place(before[b], after[a]);
        const double shared = is_same ? 2 : overlap(box_of(before[b]), box_of(after[a]));
        if (before[b].class_id == after[a].class_id && shared >= kSameObject) {
          found.push_back({shared, b, a});
        }
      }
    }
    std::stable_sort(found.begin(), found.end(), [](const Pairing& one, const Pairing& other) {
      return one.overlap > other.overlap;
    });
    return found;
  }

  void pair(const std::vector<Detection>& before, const std::vector<Detection>& after) {
    std::vector<bool> has_after(before.size());
    std::vector<bool> has_before(after.size());
    for (const Pairing& pairing : pairings(before, after)) {
      if (!has_after[pairing.before] && !has_before[pairing.after]) {
        has_after[pairing.before] = has_before[pairing.after] = true;
        note_pair(before[pairing.before], after[pairing.after]);
      }
    }
    for (std::size_t b = 0; b < before.size(); ++b) {
      if (!has_after[b]) {
        note("lost", &before[b], nullptr, &changes_.lost);
      }
    }
    for (std::size_t a = 0; a < after.size(); ++a) {
      if (!has_before[a]) {
        note("gained", nullptr, &after[a], &changes_.gained);
      }
    }
  }

  void note_pair(const Detection& before, const Detection& after) {
    if (!is_same_place(before, after)) {
      note("moved", &before, &after, &changes_.moved);
    }
    if (before.track_id && after.track_id) {
      followers_[{handle_, *before.track_id}].insert(*after.track_id);
      origins_[{handle_, *after.track_id}].insert(*before.track_id);
    }
  }

  void note(const char* change, const Detection* before, const Detection* after,
            std::size_t* count) {
    ++*count;
    std::string line = "frame " + std::to_string(number_) + ": " + change + " " +
                       text_of(before != nullptr ? *before : *after);
    if (before != nullptr && after != nullptr) {
      line += format(" to %u,%u %ux%u", after->x, after->y, after->width, after->height);
    }
    changes_.lines.push_back(line);
    write({{"change", change},
           {"frame", number_},
           {"handle", handle_},
           {"before", before != nullptr ? json_of(*before) : Json(nullptr)},
           {"after", after != nullptr ? json_of(*after) : Json(nullptr)}});
  }

  void add_tracks(const std::map<Track, std::set<std::uint64_t>>& tracks, const char* change,
                  const char* others, std::size_t* count) {
    for (const auto& [track, ids] : tracks) {
      if (ids.size() < 2) {
        continue;
      }
      ++*count;
      const std::vector<std::uint64_t> list(ids.begin(), ids.end());
      changes_.lines.push_back(
          "track " + std::to_string(track.second) + " " + change + ": " + others + " " +
          join(list, ", ", [](std::uint64_t id) { return std::to_string(id); }));
      write({{"change", change},
             {"handle", track.first},
             {"track_id", track.second},
             {"others", list}});
    }
  }

  void write(const Json& change) {
    Json line = {{"schema_version", kSchemaVersion}};
    line.update(change);
    changes_.json_lines += json_text(line, kOneLine) + "\n";
  }

  RunChanges changes_;
  long number_ = 0;
  std::uint32_t handle_ = 0;
  std::map<Track, std::set<std::uint64_t>> followers_;  // of a track before, those after
  std::map<Track, std::set<std::uint64_t>> origins_;    // of a track after, those before
};

}  // namespace

RunChanges changes_between(const std::vector<PlayedFrame>& before,
                           const std::vector<PlayedFrame>& after) {
  // A frame that failed in one run is missing there.
  std::map<long, std::pair<const PlayedFrame*, const PlayedFrame*>> frames;
  for (const PlayedFrame& frame : before) {
    frames[frame.record.number].first = &frame;
  }
  for (const PlayedFrame& frame : after) {
    frames[frame.record.number].second = &frame;
  }
  Comparison comparison;
  for (const auto& [number, both] : frames) {
    comparison.add(both.first, both.second);
  }
  return comparison.result();
}

}  // namespace olvex_tools
