// compare_run.cpp - JSON lines to records; every member that is used is checked.
// Declared in compare.h.
#include "tools/compare/compare.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>

#include "tools/common/command.h"
#include "tools/common/json_reader.h"
#include "tools/common/whole_file.h"

namespace olvex_tools {

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

}  // namespace olvex_tools
