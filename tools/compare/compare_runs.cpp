// SPDX-License-Identifier: Apache-2.0
// compare_runs.cpp - JSON lines to records, of which every member that is used is checked; and which frames
// are shown. Declared in compare.h.
#include <algorithm>
#include <cstdint>
#include <limits>
#include <numeric>
#include <utility>

#include "tools/common/box.h"
#include "tools/common/command.h"
#include "tools/common/json_reader.h"
#include "tools/common/text.h"
#include "tools/common/whole_file.h"
#include "tools/compare/compare.h"

namespace olvex_tools {

// ---- The runs -----------------------------------------------------------------------------------

namespace {

constexpr std::size_t kBoxesMost = 200;  // of a frame; the library reports no more
constexpr std::size_t kKeyPointsMost = 1000;
constexpr std::uint64_t kFrameMost = 1000000000;
constexpr std::uint64_t kSideMost = 32767;  // pixels; what run takes as --display
constexpr std::uint64_t kClassMost = 1000000;
constexpr std::uint64_t kPixelMost = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t kAnyMost = std::numeric_limits<std::uint64_t>::max();
const char kAdvice[] = "Give what olvex-det run wrote with --jsonl";

std::vector<KeyPoint> read_key_points(const JsonItem& box) {
  constexpr float kNone = std::numeric_limits<float>::quiet_NaN();
  std::vector<KeyPoint> points;
  for (const JsonItem& point : box.objects("keypoints", "key point", kKeyPointsMost)) {
    points.push_back({point.number_or_null("x").value_or(kNone),
                      point.number_or_null("y").value_or(kNone),
                      point.number_or_null("score").value_or(-1.f)});
  }
  return points;
}

Detection read_box(const JsonItem& item) {
  const auto pixels = [&item](const char* name) {
    return static_cast<std::uint32_t>(item.integer(name, 0, kPixelMost));
  };
  Detection box;
  box.x = pixels("x");
  box.y = pixels("y");
  box.width = pixels("width");
  box.height = pixels("height");
  box.class_id = static_cast<std::uint32_t>(item.integer("class_id", 0, kClassMost));
  box.score = item.number_or_null("score").value_or(std::numeric_limits<float>::quiet_NaN());
  box.track_id = item.integer_or_null("track_id", 1);
  box.key_points = read_key_points(item);
  return box;
}

void remember_class(const std::string& name, std::uint32_t class_id,
                    std::vector<std::string>* class_names) {
  if (name.empty()) {
    return;
  }
  if (class_names->size() <= class_id) {
    class_names->resize(class_id + 1);
  }
  (*class_names)[class_id] = name;
}

FrameRecord read_frame(const JsonItem& line, std::vector<std::string>* class_names) {
  line.integer("schema_version", 1, 1);
  FrameRecord frame;
  frame.number = static_cast<long>(line.integer("frame", 1, kFrameMost));
  frame.pts = line.integer("pts", 0, kAnyMost);
  const JsonItem size = line.object("size");
  frame.width = static_cast<int>(size.integer("width", 1, kSideMost));
  frame.height = static_cast<int>(size.integer("height", 1, kSideMost));
  for (const JsonItem& box : line.objects("boxes", "box", kBoxesMost)) {
    frame.detections.push_back(read_box(box));
    remember_class(box.optional_text("class"), frame.detections.back().class_id, class_names);
  }
  return frame;
}

std::string place_of_line(const std::string& path, std::size_t index) {
  return path + ":" + std::to_string(index + 1);
}

void add_line(const char* begin, const char* end, ComparedRun* run) {
  const std::string place = place_of_line(run->path, run->frames.size());
  FrameRecord frame;
  read_json_object(place, kAdvice, begin, end,
                   [&](const JsonItem& line) { frame = read_frame(line, &run->class_names); });
  if (!run->frames.empty() && frame.number <= run->frames.back().number) {
    refuse_input(place, "frame " + std::to_string(frame.number) + " comes after frame " +
                            std::to_string(run->frames.back().number) +
                            "; the numbers must rise. Name a different file for each run");
  }
  run->frames.push_back(std::move(frame));
}

}  // namespace

ComparedRun read_compared_run(const std::string& label, const std::string& path) {
  ComparedRun run;
  run.label = label;
  run.path = path;
  const std::vector<char> bytes = read_whole_file("the run", path);
  const char* const end = bytes.data() + bytes.size();
  for (const char* begin = bytes.data(); begin < end;) {
    const char* const line_end = std::find(begin, end, '\n');
    add_line(begin, line_end, &run);
    begin = line_end < end ? line_end + 1 : end;
  }
  if (run.frames.empty()) {
    refuse_input(path, std::string("holds no frame. ") + kAdvice);
  }
  return run;
}

const FrameRecord* find_frame(const ComparedRun& run, long number) {
  const auto found =
      std::lower_bound(run.frames.begin(), run.frames.end(), number,
                       [](const FrameRecord& frame, long wanted) { return frame.number < wanted; });
  return found != run.frames.end() && found->number == number ? &*found : nullptr;
}

std::string place_of(const ComparedRun& run, const FrameRecord& frame) {
  return place_of_line(run.path, static_cast<std::size_t>(&frame - run.frames.data()));
}

// ---- The frames ---------------------------------------------------------------------------------

Box box_of(const Detection& detection) {
  return {static_cast<double>(detection.x), static_cast<double>(detection.y),
          static_cast<double>(detection.width), static_cast<double>(detection.height)};
}

bool are_counterparts(const Detection& left, const Detection& right) {
  const auto has_area = [](const Detection& box) { return box.width > 0 && box.height > 0; };
  if (left.class_id != right.class_id) {
    return false;
  }
  if (!has_area(left) && !has_area(right)) {
    return left.x == right.x && left.y == right.y;
  }
  return overlap(box_of(left), box_of(right)) >= 0.5;
}

bool has_counterpart(const Detection& box, const FrameRecord& record) {
  return std::any_of(record.detections.begin(), record.detections.end(),
                     [&box](const Detection& other) { return are_counterparts(box, other); });
}

namespace {

std::size_t count_alone(const FrameRecord& record, const std::vector<const FrameRecord*>& all) {
  const auto alone = std::count_if(
      record.detections.begin(), record.detections.end(), [&all](const Detection& box) {
        return std::any_of(all.begin(), all.end(), [&box](const FrameRecord* other) {
          return !has_counterpart(box, *other);
        });
      });
  return static_cast<std::size_t>(alone);
}

void require_same_size(const ComparedRun& run, const FrameRecord& record, const ComparedRun& first,
                       const FrameRecord& expected) {
  if (record.width != expected.width || record.height != expected.height) {
    refuse_input(place_of(run, record),
                 "the boxes are for " + size_text(record.width, record.height) +
                     " pixels, those of " + place_of(first, expected) + " for " +
                     size_text(expected.width, expected.height) +
                     ". Compare runs of the same input with the same --display");
  }
}

// Requires: all runs hold the frame.
ComparedFrame compare_frame(const std::vector<ComparedRun>& runs, long number) {
  ComparedFrame frame;
  frame.number = number;
  for (const ComparedRun& run : runs) {
    frame.records.push_back(find_frame(run, number));
    require_same_size(run, *frame.records.back(), runs.front(), *frame.records.front());
  }
  for (const FrameRecord* record : frame.records) {
    frame.boxes_alone.push_back(count_alone(*record, frame.records));
  }
  return frame;
}

std::size_t difference(const ComparedFrame& frame) {
  return std::accumulate(frame.boxes_alone.begin(), frame.boxes_alone.end(), std::size_t{0});
}

std::vector<long> shared_numbers(const std::vector<ComparedRun>& runs) {
  std::vector<long> numbers;
  for (const FrameRecord& record : runs.front().frames) {
    const bool shared = std::all_of(runs.begin(), runs.end(), [&record](const ComparedRun& run) {
      return find_frame(run, record.number) != nullptr;
    });
    if (shared) {
      numbers.push_back(record.number);
    }
  }
  return numbers;
}

std::size_t distance(std::size_t left, std::size_t right) {
  return left < right ? right - left : left - right;
}

}  // namespace

std::vector<ComparedFrame> choose_frames(const std::vector<ComparedRun>& runs, std::size_t count) {
  const std::vector<long> numbers = shared_numbers(runs);
  if (numbers.empty()) {
    throw ToolError(kInputError,
                    "the runs have no frame in common. Run all of them over the same frames");
  }
  const std::size_t parts = std::min(count, numbers.size());
  std::vector<ComparedFrame> chosen;
  std::size_t first_free = 0;  // place in numbers from which a frame may be chosen
  for (std::size_t part = 0; part < parts; ++part) {
    const std::size_t begin = part * numbers.size() / parts;
    const std::size_t end = (part + 1) * numbers.size() / parts;
    const std::size_t half = (end - begin) / 2;
    std::size_t best = begin + half;
    std::size_t most = difference(compare_frame(runs, numbers[best]));
    for (std::size_t place = std::max(begin, first_free); place < end; ++place) {
      const std::size_t found = difference(compare_frame(runs, numbers[place]));
      // Where many differ alike, the middle has the most distance to the other parts.
      const bool nearer = distance(place, begin + half) < distance(best, begin + half);
      if (found > most || (found == most && nearer)) {
        most = found;
        best = place;
      }
    }
    chosen.push_back(compare_frame(runs, numbers[best]));
    first_free = best + std::max<std::size_t>(1, half);
  }
  return chosen;
}

std::vector<ComparedFrame> named_frames(const std::vector<ComparedRun>& runs,
                                        const std::vector<long>& numbers) {
  std::vector<ComparedFrame> frames;
  for (const long number : numbers) {
    for (const ComparedRun& run : runs) {
      if (find_frame(run, number) == nullptr) {
        refuse_input(run.path, "has no frame " + std::to_string(number) + "; it goes from frame " +
                                   std::to_string(run.frames.front().number) + " to " +
                                   std::to_string(run.frames.back().number));
      }
    }
    frames.push_back(compare_frame(runs, number));
  }
  return frames;
}

}  // namespace olvex_tools
