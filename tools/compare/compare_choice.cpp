// compare_choice.cpp - counts the boxes in which runs differ. Declared in compare.h.
#include "tools/compare/compare.h"

#include <algorithm>
#include <numeric>

#include "tools/common/box.h"
#include "tools/common/command.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

Box box_of(const Detection& detection) {
  return {static_cast<double>(detection.x), static_cast<double>(detection.y),
          static_cast<double>(detection.width), static_cast<double>(detection.height)};
}

bool has_area(const Detection& box) {
  return box.width > 0 && box.height > 0;
}

bool are_counterparts(const Detection& left, const Detection& right) {
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
