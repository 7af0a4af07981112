// compare_run.cpp - JSON lines to records; every member that is used is checked.
// Read compare_run.h first.
#include "tools/compare/compare_run.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <set>
#include <utility>

#include <nlohmann/json.hpp>

#include "tools/common/command.h"
#include "tools/common/whole_file.h"

namespace olvex_tools {

namespace {

using Json = nlohmann::json;
using Event = Json::parse_event_t;

constexpr int kNestingMost = 64;          // levels; a line needs 5
constexpr std::size_t kBoxesMost = 200;   // of a frame; the library reports no more
constexpr std::size_t kReasonMost = 300;  // letters; the parser repeats what it read last
constexpr double kNumberMost = 1e9;       // scores and key points
constexpr std::uint64_t kFrameMost = 1000000000;
constexpr std::uint64_t kSideMost = 32767;  // pixels; what run takes as --display
constexpr std::uint64_t kClassMost = 1000000;
constexpr std::uint64_t kPixelMost = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t kAnyMost = std::numeric_limits<std::uint64_t>::max();

[[noreturn]] void refuse(const std::string& place, const std::string& problem) {
  throw ToolError(kInputError, place + ": " + problem);
}

// From the column on; what stands before it counts the lines of this one line.
std::string reason_of(const Json::exception& error) {
  std::string reason = error.what();
  for (const char* const start : {"column ", "] "}) {
    const std::size_t found = reason.find(start);
    if (found != std::string::npos) {
      reason = reason.substr(*start == ']' ? found + 2 : found);
      break;
    }
  }
  return reason.size() > kReasonMost ? reason.substr(0, kReasonMost) + "..." : reason;
}

// JSON itself lets a member appear twice, and values lie within each other as deep as the bytes
// reach.
Json parse_line(const std::string& place, const char* begin, const char* end) {
  std::vector<std::set<std::string>> names;
  const auto check = [&](int depth, Event event, const Json& value) {
    if (depth > kNestingMost) {
      refuse(place, "nests its values more than " + std::to_string(kNestingMost) + " deep.");
    }
    if (event == Event::object_start) {
      names.emplace_back();
    } else if (event == Event::object_end) {
      names.pop_back();
    } else if (event == Event::key && !names.back().insert(value.get<std::string>()).second) {
      refuse(place, "has the member \"" + value.get<std::string>() + "\" twice.");
    }
    return true;
  };
  try {
    return Json::parse(begin, end, check);
  } catch (const Json::exception& error) {
    refuse(place, "is not JSON: " + reason_of(error) + ".");
  }
}

// An object of a line, and where it is for messages.
class Item {
 public:
  Item(const std::string& place, const Json& object) : place_(place), object_(object) {
    if (!object.is_object()) {
      refuse(place_, "must be an object {...}.");
    }
  }

  std::uint64_t integer(const char* name, std::uint64_t least, std::uint64_t most) const {
    const Json& member = require(name);
    const std::uint64_t value = member.is_number_unsigned() ? member.get<std::uint64_t>() : 0;
    if (!member.is_number_unsigned() || value < least || value > most) {
      refuse_member(name,
                    "an integer from " + std::to_string(least) + " to " + std::to_string(most));
    }
    return value;
  }

  std::optional<std::uint64_t> integer_or_null(const char* name, std::uint64_t least) const {
    return require(name).is_null() ? std::nullopt
                                   : std::make_optional(integer(name, least, kAnyMost));
  }

  std::optional<float> number_or_null(const char* name) const {
    const Json& member = require(name);
    if (member.is_null()) {
      return std::nullopt;
    }
    if (!member.is_number() || !(std::abs(member.get<double>()) <= kNumberMost)) {
      refuse_member(name, "null or a number from -1e9 to 1e9");
    }
    return member.get<float>();
  }

  // Empty where the member is missing.
  std::string optional_text(const char* name) const {
    const auto member = object_.find(name);
    if (member == object_.end()) {
      return "";
    }
    if (!member->is_string()) {
      refuse_member(name, "a text");
    }
    return member->get<std::string>();
  }

  const Json& list(const char* name, std::size_t most) const {
    const Json& member = require(name);
    if (!member.is_array() || member.size() > most) {
      refuse_member(name, "a list of at most " + std::to_string(most));
    }
    return member;
  }

  Item object(const char* name) const { return {place_ + ": \"" + name + "\"", require(name)}; }

  // One of a list's objects: "box", 0 is "box 1".
  Item element(const std::string& kind, const Json& list, std::size_t index) const {
    return {place_ + ": " + kind + " " + std::to_string(index + 1), list[index]};
  }

 private:
  const Json& require(const char* name) const {
    const auto member = object_.find(name);
    if (member == object_.end()) {
      refuse(place_,
             std::string("has no \"") + name + "\". Give what olvex-det run wrote with --jsonl.");
    }
    return *member;
  }

  [[noreturn]] void refuse_member(const char* name, const std::string& wanted) const {
    refuse(place_, std::string("\"") + name + "\" must be " + wanted + ".");
  }

  std::string place_;
  const Json& object_;
};

std::vector<KeyPoint> read_key_points(const Item& box) {
  constexpr float kNone = std::numeric_limits<float>::quiet_NaN();
  constexpr std::size_t kKeyPointsMost = 1000;
  const Json& list = box.list("keypoints", kKeyPointsMost);
  std::vector<KeyPoint> points(list.size());
  for (std::size_t i = 0; i < points.size(); ++i) {
    const Item point = box.element("key point", list, i);
    points[i].x = point.number_or_null("x").value_or(kNone);
    points[i].y = point.number_or_null("y").value_or(kNone);
    points[i].score = point.number_or_null("score").value_or(-1.f);
  }
  return points;
}

Detection read_box(const Item& item) {
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

FrameRecord read_frame(const Item& line, std::vector<std::string>* class_names) {
  line.integer("schema_version", 1, 1);
  FrameRecord frame;
  frame.number = static_cast<long>(line.integer("frame", 1, kFrameMost));
  frame.pts = line.integer("pts", 0, kAnyMost);
  const Item size = line.object("size");
  frame.width = static_cast<int>(size.integer("width", 1, kSideMost));
  frame.height = static_cast<int>(size.integer("height", 1, kSideMost));
  const Json& boxes = line.list("boxes", kBoxesMost);
  for (std::size_t i = 0; i < boxes.size(); ++i) {
    const Item box = line.element("box", boxes, i);
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
  const Json json = parse_line(place, begin, end);
  FrameRecord frame = read_frame(Item(place, json), &run->class_names);
  if (!run->frames.empty() && frame.number <= run->frames.back().number) {
    refuse(place, "frame " + std::to_string(frame.number) + " comes after frame " +
                      std::to_string(run->frames.back().number) +
                      "; the numbers must rise. Give each run a file of its own.");
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
    refuse(path, "holds no frame. Give what olvex-det run wrote with --jsonl.");
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
