// SPDX-License-Identifier: Apache-2.0
// run_options.cpp - combinations, ranges, times and shards. Declared in run_options.h.
#include "tools/run/run_options.h"

#include <charconv>
#include <cmath>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <system_error>
#include <utility>

#include "tools/common/output_file.h"
#include "tools/common/text.h"
#include "tools/frames/picture_writers.h"

namespace olvex_tools {

namespace {

constexpr int kDisplayMost = 32767;  // pixels, each way
constexpr double kSecondsMost = 1e9;
constexpr long kShardsMost = 100000;

bool is_share(float value) {
  return value >= 0.f && value <= 1.f;
}

// Two whole numbers with that character between them, and nothing else.
std::optional<std::pair<int, int>> numbers_around(char separator, const std::string& text) {
  const char* const end = text.data() + text.size();
  std::pair<int, int> numbers;
  const auto first = std::from_chars(text.data(), end, numbers.first);
  if (first.ec != std::errc() || first.ptr == end || *first.ptr != separator) {
    return std::nullopt;
  }
  const auto second = std::from_chars(first.ptr + 1, end, numbers.second);
  return second.ec == std::errc() && second.ptr == end ? std::make_optional(numbers) : std::nullopt;
}

cv::Size parse_display(const std::string& text) {
  const auto [width, height] = numbers_around('x', text).value_or(std::pair(0, 0));
  if (width < 1 || height < 1 || width > kDisplayMost || height > kDisplayMost) {
    refuse_usage("--display " + text + ": give width and height in pixels, 1 to " +
                 std::to_string(kDisplayMost) + ", as in 1920x1080");
  }
  return {width, height};
}

bool ends_in_one_of(const std::string& path, std::initializer_list<const char*> extensions) {
  for (const std::string extension : extensions) {
    if (path.size() > extension.size() &&
        path.compare(path.size() - extension.size(), extension.size(), extension) == 0) {
      return true;
    }
  }
  return false;
}

void check_numbers(const CommandLine& line) {
  const DetectorOptions& detector = line.run.detector;
  if (!is_share(detector.threshold)) {
    refuse_usage("--threshold must be from 0 to 1");
  }
  if (!is_share(detector.stable_sensitivity)) {
    refuse_usage("--stable-sensitivity must be from 0 to 1");
  }
  if (!is_share(detector.static_sensitivity) || detector.static_sensitivity <= 0.f) {
    refuse_usage("--static-sensitivity must be above 0, up to 1");
  }
  const double rate = line.run.reading.picture_rate;
  if (!(rate >= 0.001 && rate <= 1000)) {
    refuse_usage("--fps must be from 0.001 to 1000");
  }
}

void check_drawing(const CommandLine& line) {
  const OutputOptions& outputs = line.run.outputs;
  const DetectorOptions& detector = line.run.detector;
  const bool draws =
      !outputs.video.empty() || !outputs.pictures.empty() || !outputs.contact_sheet.empty();
  const bool is_changed = !outputs.drawing.labels || outputs.drawing.line_width > 0;
  if (!draws && (is_changed || !line.run.blurred.empty())) {
    refuse_usage(
        "--blur, --no-labels and --line-width act on pictures: add --video, --pictures or "
        "--contact-sheet");
  }
  // Boxes that are held, or not reported yet, are not where the object is.
  if (!line.run.blurred.empty() &&
      (detector.stable || detector.ignore_static || detector.strict || detector.track_frames > 1)) {
    refuse_usage(
        "--blur needs every box where it was found: leave out --stable, --ignore-static, --strict "
        "and --track-frames");
  }
}

void check_combinations(const CommandLine& line) {
  const DetectorOptions& detector = line.run.detector;
  if (detector.strict && line.track.given() && !detector.track) {
    refuse_usage("--strict needs the tracker: leave out --no-track");
  }
  for (const Option& option : line.tracking) {
    if (option.given() && !detector.track && !detector.strict) {
      refuse_usage(option.name() + " acts on tracks: add --track");
    }
  }
  if (line.static_sensitivity.given() && !detector.ignore_static && !detector.strict) {
    refuse_usage("--static-sensitivity acts on --ignore-static: add that, or leave it out");
  }
  if (line.stable_sensitivity.given() && !detector.stable) {
    refuse_usage("--stable-sensitivity acts on --stable: add that, or leave it out");
  }
  if (line.firmware.given() && detector.from_memory) {
    refuse_usage(
        "--firmware: a model from memory always uses the default firmware; leave out --memory");
  }
  if (line.run.outputs.whole_pixels && line.run.outputs.mot.empty() &&
      line.run.outputs.coco.empty()) {
    refuse_usage("--whole-pixels acts on --mot and --coco: add one of them, or leave it out");
  }
  const std::string& video = line.run.outputs.video;
  if (!video.empty() && !is_video_name(video)) {
    refuse_usage("--video " + video + ": the name must end in .mp4, .mkv, .mov or .avi");
  }
  if (!line.start.empty() && line.run.reading.selection.skip > 0) {
    refuse_usage("--start and --skip both say where to begin: leave out one of them");
  }
  if (!line.shard.empty() && !line.duration.empty()) {
    refuse_usage(
        "--shard divides frames, which --duration does not count: give --limit in its place");
  }
  check_drawing(line);
  const auto is_stream = [](const std::string& word) { return word == "-" || is_address(word); };
  if (!line.shard.empty() &&
      std::any_of(line.run.inputs.begin(), line.run.inputs.end(), is_stream)) {
    refuse_usage("--shard: a stream cannot be divided. Give files");
  }
  if (line.run.log == kStandardOutput) {
    refuse_usage(
        "--log -: the log cannot go to standard output, which is for results. Name a file");
  }
  const std::string& sheet = line.run.outputs.contact_sheet;
  if (!sheet.empty() && !ends_in_one_of(sheet, {".png", ".jpg", ".jpeg"})) {
    refuse_usage("--contact-sheet " + sheet + ": the name must end in .png, .jpg or .jpeg");
  }
}

// Whether a path leads to /proc/self/fd/1, by links or other names. What that link itself leads to
// is another matter: a pipe has no path.
bool is_standard_output(std::filesystem::path path) {
  namespace fs = std::filesystem;
  constexpr int kLinksMost = 40;  // the system follows no more
  for (int links = 0; links < kLinksMost; ++links) {
    std::error_code error;
    const fs::path folder = fs::canonical(fs::absolute(path, error).parent_path(), error);
    if (path.filename() == "1" && (fs::equivalent(folder, "/proc/self/fd", error) ||
                                   fs::equivalent(folder, "/proc/thread-self/fd", error))) {
      return true;
    }
    const fs::path target = fs::read_symlink(path, error);
    if (error) {
      return false;
    }
    path = folder / target;
  }
  return false;
}

// Standard output by its other names. Those lead to the library's log while a run goes on.
void recognise_standard_output(OutputOptions* outputs) {
  for (std::string* path :
       {&outputs->json_lines, &outputs->mot, &outputs->coco, &outputs->summary, &outputs->trace}) {
    if (is_standard_output(*path)) {
      *path = kStandardOutput;
    }
  }
}

// ---- Times, shards ------------------------------------------------------------------------------

// A number of digits with or without a fraction, and nothing else.
std::optional<double> number_in(const std::string& text) {
  double value = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, value, std::chars_format::fixed);
  const bool is_plain = text.find_first_not_of("0123456789.") == std::string::npos;
  return is_plain && parsed.ec == std::errc() && parsed.ptr == end ? std::make_optional(value)
                                                                   : std::nullopt;
}

// Seconds of 90, 1.5s, 250ms, 2min, 1h, 1:30 or 0:01:30.5.
std::optional<double> seconds_in(const std::string& text) {
  if (text.find(':') != std::string::npos) {
    const std::vector<std::string> parts = split(text, ':');
    double seconds = 0;
    for (const std::string& part : parts) {
      const std::optional<double> value = number_in(part);
      const bool is_fraction = part.find('.') != std::string::npos;
      if (!value || parts.size() > 3 || (&part != &parts.front() && *value >= 60) ||
          (is_fraction && &part != &parts.back())) {
        return std::nullopt;
      }
      seconds = 60 * seconds + *value;
    }
    return seconds;
  }
  const std::size_t digits = text.find_first_not_of("0123456789.");
  const std::string unit = digits == std::string::npos ? "s" : text.substr(digits);
  const std::optional<double> value = number_in(text.substr(0, digits));
  for (const auto& [name, seconds] : {std::pair("ms", 0.001), std::pair("s", 1.0),
                                      std::pair("min", 60.0), std::pair("h", 3600.0)}) {
    if (value && unit == name) {
      return *value * seconds;
    }
  }
  return std::nullopt;
}

std::uint64_t microseconds_of(const std::string& option, const std::string& text) {
  const std::optional<double> seconds = seconds_in(text);
  if (!seconds || *seconds > kSecondsMost) {
    refuse_usage(option + " " + text + ": give a time, as in 90s, 1.5s, 250ms, 2min or 0:01:30.5");
  }
  return static_cast<std::uint64_t>(std::llround(*seconds * 1e6));
}

void set_start(const std::string& text, FrameSelection* selection) {
  long number = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
  if (parsed.ptr != text.data() + text.size()) {
    selection->start = microseconds_of("--start", text);
  } else if (parsed.ec != std::errc() || number < 1 || number > kFramesMost) {
    refuse_usage("--start " + text + ": frames count from 1. A time has a unit, as in " + text +
                 "s");
  } else {
    selection->skip = number - 1;
  }
  selection->start_text = "--start " + text;
}

void set_shard(const std::string& text, FrameSelection* selection) {
  const auto [shard, shards] = numbers_around('/', text).value_or(std::pair(0, 0));
  if (shard < 1 || shard > shards || shards > kShardsMost) {
    refuse_usage("--shard " + text + ": give the part and the number of parts, as in 2/8");
  }
  selection->shard = shard;
  selection->shards = shards;
}

void set_selection(CommandLine* line) {
  FrameSelection* const selection = &line->run.reading.selection;
  selection->start_text = "--skip " + std::to_string(selection->skip);
  if (!line->start.empty()) {
    set_start(line->start, selection);
  }
  if (!line->duration.empty()) {
    selection->duration = microseconds_of("--duration", line->duration);
    if (*selection->duration == 0) {
      refuse_usage("--duration " + line->duration + ": no frame is that short");
    }
  }
  if (!line->shard.empty()) {
    set_shard(line->shard, selection);
  }
}

}  // namespace

void complete_options(CommandLine* line) {
  recognise_standard_output(&line->run.outputs);
  check_numbers(*line);
  check_combinations(*line);
  if (!line->display.empty()) {
    line->run.display = parse_display(line->display);
  }
  set_selection(line);
}

}  // namespace olvex_tools
