// SPDX-License-Identifier: Apache-2.0
// compare_command.cpp - the subcommand compare: its options, their checks, and its help.
#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/class_names.h"
#include "tools/common/command.h"
#include "tools/compare/compare.h"
#include "tools/frames/frame_source.h"
#include "tools/frames/own_files.h"
#include "tools/frames/annotation.h"
#include "tools/common/options.h"
#include "tools/common/output_file.h"
#include "tools/common/subcommands.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kRunsMost = 8;     // more columns leave no space for labels
constexpr std::size_t kFramesMost = 50;  // more rows make a sheet that no program opens
constexpr int kDisplayMost = 32767;      // pixels, each way
constexpr long kNumberMost = 1000000000;

const char kDescription[] = "Draw the same frames once per run, side by side";

const char kManual[] =
    "INPUT is the video, picture or folder of pictures that the runs were made from, and each RUN\n"
    "the JSON lines of one of them with a label for its column: LABEL=LINES.jsonl. Rows are\n"
    "frames. A box differs when another run has no box of its class that overlaps it by half\n"
    "(IoU 0.5). The run is split into --frames equal parts, and each part shows the frame with\n"
    "most boxes that differ; of several such frames the one nearest to the part's middle.\n"
    "In the columns after the first, boxes that the first run does not have are outlined green,\n"
    "boxes that have moved (IoU below 0.8) yellow, and those that it alone has red and crossed "
    "out.\n\n"
    "Examples:\n"
    "  olvex-det run detector.qtm street.mp4 --jsonl plain.jsonl\n"
    "  olvex-det run detector.qtm street.mp4 --track --ignore-static --jsonl moving.jsonl\n"
    "  olvex-det compare street.mp4 all=plain.jsonl moving=moving.jsonl --output sheet.png\n"
    "  olvex-det compare pictures/ a=a.jsonl b=b.jsonl c=c.jsonl --at 12,85,300 --output "
    "sheet.jpg\n\n"
    "The numbers of the frames are printed, so that --at can show them again for other runs.";

struct CommandLine {
  std::string input;
  std::vector<std::string> runs;
  std::string output;
  std::size_t frames = 4;
  std::vector<long> at;
  std::string class_names;
  std::vector<int> display;  // width and height; empty: the source's own
};

struct NamedRun {
  std::string label;
  std::string path;
};

std::vector<NamedRun> named_runs(const CommandLine& line) {
  if (line.runs.empty()) {
    refuse_usage("give at least one run as LABEL=FILE, as in tracked=tracked.jsonl");
  }
  if (line.runs.size() > kRunsMost) {
    refuse_usage("a sheet shows at most " + std::to_string(kRunsMost) + " runs, not " +
                 std::to_string(line.runs.size()));
  }
  std::vector<NamedRun> runs;
  for (const std::string& word : line.runs) {
    const std::size_t sign = word.find('=');
    if (sign == std::string::npos || sign == 0 || sign + 1 == word.size()) {
      refuse_usage(word + ": give LABEL=FILE, as in tracked=tracked.jsonl");
    }
    const NamedRun run = {word.substr(0, sign), word.substr(sign + 1)};
    const bool taken = std::any_of(runs.begin(), runs.end(), [&run](const NamedRun& other) {
      return other.label == run.label;
    });
    if (taken) {
      refuse_usage("two runs have the label " + run.label + ". Give each its own");
    }
    runs.push_back(run);
  }
  return runs;
}

void check_output(const CommandLine& line, const std::vector<NamedRun>& runs) {
  const std::string extension = fs::path(line.output).extension().string();
  if (extension != ".png" && extension != ".jpg" && extension != ".jpeg") {
    refuse_usage("--output " + line.output + ": the name must end in .png, .jpg or .jpeg");
  }
  std::vector<std::string> read_paths = {line.input, line.class_names};
  for (const NamedRun& run : runs) {
    read_paths.push_back(run.path);
  }
  require_own_files({{"--output", line.output}}, read_paths);
}

// A camera delivers its frames once, and only its model can decode a dumped frame.
void require_repeatable(const std::string& input) {
  if (is_camera(input)) {
    refuse_usage(input +
                 ": a camera does not show its frames again. Record a video and run on that");
  }
  if (holds_dumps(input)) {
    refuse_usage(input +
                 ": dumped frames cannot be shown without their model. Give the video or the " +
                 "pictures that they come from");
  }
}

void check_display(const CommandLine& line) {
  if (!line.display.empty() && line.display.size() != 2) {
    refuse_usage("--display: give width and height in pixels, as in 1920x1080");
  }
}

std::optional<cv::Size> display_of(const CommandLine& line) {
  return line.display.empty() ? std::nullopt
                              : std::make_optional(cv::Size(line.display[0], line.display[1]));
}

std::vector<long> in_order(std::vector<long> numbers) {
  std::sort(numbers.begin(), numbers.end());
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  if (numbers.size() > kFramesMost) {
    refuse_usage("--at: a sheet shows at most " + std::to_string(kFramesMost) + " frames");
  }
  return numbers;
}

std::string report(const std::string& path, const std::vector<ComparedFrame>& frames,
                   cv::Size size) {
  const std::string numbers =
      join(frames, ", ", [](const ComparedFrame& frame) { return std::to_string(frame.number); });
  return "frames " + numbers + "\n" + path + ": " + size_text(size.width, size.height) +
         " pixels\n";
}

int compare(const CommandLine& line) {
  check_display(line);
  silence_opencv();
  const std::vector<NamedRun> names = named_runs(line);
  const std::vector<long> at = in_order(line.at);
  check_output(line, names);
  require_repeatable(line.input);
  constexpr double kAnyRate = 25;  // frames per second; times come from the runs
  const std::unique_ptr<FrameSource> source =
      open_frame_source(line.input, FrameLayout(), kAnyRate);
  OutputFile file(line.output, nullptr, OutputForm::kWhole);
  std::vector<std::string> class_names;
  if (!line.class_names.empty()) {
    class_names = read_class_names(line.class_names);
  }
  std::vector<ComparedRun> runs;
  for (const NamedRun& name : names) {
    runs.push_back(read_compared_run(name.label, name.path));
    if (runs.back().class_names.empty()) {
      runs.back().class_names = class_names;
    }
  }
  const std::vector<ComparedFrame> frames =
      at.empty() ? choose_frames(runs, line.frames) : named_frames(runs, at);
  const cv::Mat sheet =
      draw_compare_sheet(line.input, source.get(), display_of(line), runs, frames);
  file.write(encoded_picture(line.output, sheet));
  file.close();
  print_result(printable(report(line.output, frames, sheet.size())));
  return kDone;
}

}  // namespace

void add_compare_command(CLI::App& application, Command* chosen) {
  const auto line = std::make_shared<CommandLine>();
  OptionTable options(&application, "compare", kDescription, kManual, chosen,
                      [line] { return compare(*line); });
  options.add("INPUT", "", &line->input, "Video, picture or folder of pictures").required();
  options.add("RUN", "", &line->runs, "LABEL=LINES.jsonl, once per run");
  options.add("-o,--output", "FILE", &line->output, "The sheet (.png, .jpg)").required();
  const Option frames = options.add("--frames", "N", &line->frames, "Frames to choose, 1 to 50")
                            .shows_default()
                            .range(std::size_t{1}, kFramesMost);
  options.add("--at", "N,N...", &line->at, "Frames to show instead, by their numbers")
      .split_at(',')
      .range(1L, kNumberMost)
      .excludes(frames);
  options.add("--class-names", "FILE", &line->class_names,
              "Names for runs that have none, one on each line, by class id");
  options.add("--display", "WxH", &line->display, "The --display that the runs had, if any")
      .split_at('x')
      .range(1, kDisplayMost);
}

}  // namespace olvex_tools
