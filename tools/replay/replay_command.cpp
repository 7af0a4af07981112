// SPDX-License-Identifier: Apache-2.0
// replay_command.cpp - the subcommand replay: its options, their checks, what it says, and its help.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tools/common/subcommands.h"
#include "tools/common/options.h"
#include "tools/common/output_file.h"
#include "tools/common/text.h"
#include "tools/frames/own_files.h"
#include "tools/frames/result_writers.h"
#include "tools/replay/replay.h"
#include "tools/replay/shown_frames.h"

namespace olvex_tools {

namespace {

constexpr std::size_t kShownChanges = 20;
constexpr long kNumberMost = UINT32_MAX;
constexpr char kForViewers[] = "mcap";

const char kDescription[] = "Play what a camera recorded through the library, and compare";

const char kManual[] =
    "FILE is a recording (docs/recordings.md). Its calls are made again in their order, each "
    "recorded\n"
    "thread's on a thread of its own, with the recorded outputs in place of the accelerator's. "
    "Every\n"
    "return code, every box bit by bit, and every call that the library makes to the platform are\n"
    "compared. One line when nothing differs; otherwise the first difference and a count by kind.\n"
    "In a recording that begins in the middle, boxes are compared from where they follow from "
    "it.\n\n"
    "--set runs again with other options and lists what changed: boxes gained, lost and moved, "
    "tracks\n"
    "joined and split. Its names: threshold, track, track-frames, ignore-static, "
    "static-sensitivity,\n"
    "stable, stable-sensitivity, strict. Thresholds below the recording's floor are refused.\n\n"
    "--annotate draws the boxes over the pictures that the recorder kept, or over those of --over; "
    "with\n"
    "--set both runs stand side by side. --export mcap writes boxes, and the same pictures as "
    "JPEG, as\n"
    "stock viewers show them. With several handles --over has a picture for each handle's frame "
    "of a\n"
    "number, otherwise for the frame of that number.\n\n"
    "Examples:\n"
    "  olvex-det replay camera.1.mcap\n"
    "  olvex-det replay camera.1.mcap --from 100 --to 200 --log library.log\n"
    "  olvex-det replay camera.1.mcap --export mot --output tracks.txt\n"
    "  olvex-det replay camera.1.mcap --set threshold=0.4,track=1 --changes changes.jsonl\n"
    "  olvex-det replay camera.1.mcap --set threshold=0.4 --annotate changes.mkv --over "
    "street.mp4\n"
    "  olvex-det replay camera.1.mcap --export mcap --output boxes.mcap\n\n"
    "Exit codes: 1 something differs from the recording, 4 FILE is no recording or damaged. What\n"
    "stands before the damage is played. A file that only ends early, as after a power failure, "
    "is\n"
    "played up to there, which is said and no failure.";

struct CommandLine {
  std::string input;
  long from = 0;
  long to = UINT32_MAX;
  std::string export_format;
  std::string output;
  std::vector<std::string> changes;
  std::string changes_output;
  std::string log;
  std::string drawing;
  std::string over;
  long over_start = 1;

  bool is_for_viewers() const { return export_format == kForViewers; }
};

void check(const CommandLine& line) {
  if (line.from > line.to) {
    refuse_usage("--from: behind --to");
  }
  if (line.export_format.empty() != line.output.empty()) {
    refuse_usage("--export and --output go together: a format, and the file for it");
  }
  if (!line.changes_output.empty() && line.changes.empty()) {
    refuse_usage("--changes: give with --set what to change");
  }
  if (line.is_for_viewers() && line.output == kStandardOutput) {
    refuse_usage("--output -: a file for viewers has an index, and needs a name");
  }
  if (!line.over.empty() && line.drawing.empty() && !line.is_for_viewers()) {
    refuse_usage("--over: give with --annotate or --export mcap what to do with the pictures");
  }
  require_own_files({{"--output", line.output},
                     {"--changes", line.changes_output},
                     {"--annotate", line.drawing},
                     {"--log", line.log, true}},
                    line.over.empty() ? std::vector<std::string>{line.input}
                                      : std::vector<std::string>{line.input, line.over});
}

void warn(const CommandLine& line, const std::string& text) {
  std::fprintf(stderr, "olvex-det replay: %s: %s\n", printable(line.input).c_str(),
               printable(text).c_str());
}

// What the user has to know before the comparison.
void say_what_may_differ(const CommandLine& line, const Recording& recording) {
  for (const Damage& damage : recording.container.damages) {
    warn(line, damage_text(damage) + ". What stands before is played");
  }
  for (const std::string& text : missing_parts(recording)) {
    warn(line, text);
  }
  const std::string& library = recording.about.library;
  if (library.empty()) {
    warn(line, "it does not say which library made it. This one is " OLVEX_COMMIT_DET);
  } else if (library != OLVEX_COMMIT_DET) {
    warn(line, "made by library " + one_line(library) +
                   " and played by " OLVEX_COMMIT_DET
                   ": what differs may be a change of the library");
  }
}

std::unique_ptr<FrameWriter> make_writer(const CommandLine& line, FILE* standard_output) {
  if (line.export_format == "jsonl") {
    return make_json_lines_writer(line.output, standard_output, {});
  }
  return line.export_format == "mot" ? make_mot_writer(line.output, standard_output, false)
                                     : make_coco_writer(line.output, standard_output, false);
}

// A run of the library. The log that the user wants is that of the run as recorded.
PlayResult run(const CommandLine& line, const Recording& recording, const ChangedOptions& changes,
               std::vector<PlayedFrame>* frames) {
  const std::string path = changes.threshold || changes.change_tracking() ? "" : line.log;
  const LibraryLog log(path);
  PlayOptions options;
  options.changes = changes;
  options.from = static_cast<std::uint32_t>(line.from);
  options.to = static_cast<std::uint32_t>(line.to);
  if (frames != nullptr) {
    options.on_frame = [frames](const PlayedFrame& frame) { frames->push_back(frame); };
  }
  PlayResult result = play(recording, options);
  if (std::fflush(stdout) != 0) {
    refuse_input(path, std::string("the library's log cannot be written: ") + std::strerror(errno));
  }
  return result;
}

void export_frames(const CommandLine& line, const Recording& recording,
                   const std::vector<PlayedFrame>& frames) {
  if (line.is_for_viewers()) {
    FramePictures pictures(recording, line.over, line.over_start);
    write_for_viewers(line.output, &pictures, frames);
    return;
  }
  const std::unique_ptr<FrameWriter> writer = make_writer(line, stdout);
  const std::vector<std::string> no_names;
  const cv::Mat no_picture;
  for (const PlayedFrame& frame : frames) {
    FramePicture picture(frame.record, no_names, no_picture);
    writer->write(&picture);
  }
  writer->finish();
}

void draw(const CommandLine& line, const Recording& recording,
          const std::vector<PlayedFrame>& before, const std::vector<PlayedFrame>& after) {
  FramePictures pictures(recording, line.over, line.over_start);
  const bool has_changes = !line.changes.empty();
  draw_frames(line.drawing, &pictures, before, has_changes ? &after : nullptr,
              join(line.changes, ", "), [&](const std::string& text) {
                std::fprintf(stderr, "olvex-det replay: %s\n", printable(text).c_str());
              });
}

std::string what_was_played(const PlayResult& result) {
  return counted(result.frames, "frame", "frames") + " and " +
         counted(result.calls, "call", "calls");
}

std::string report(const std::string& name, const PlayResult& result) {
  std::string text;
  if (result.first) {
    const ReplayDifference& first = *result.first;
    text = name + ": " +
           (first.frame != 0 ? "frame " + std::to_string(first.frame)
                             : "call " + std::to_string(first.call) + " " + first.function) +
           ", " + first.field + ": recorded " + first.recorded + ", played " + first.played + "\n";
  }
  text += name + ": " + what_was_played(result) + ": ";
  std::vector<std::string> kinds;
  for (const auto& [kind, count] : result.kinds) {
    kinds.push_back(kind + " " + std::to_string(count));
  }
  text += kinds.empty() ? "no difference" : "differences: " + join(kinds, ", ");
  if (result.partly > 0) {
    text += "; before a key frame, without their boxes: " + std::to_string(result.partly);
  }
  if (result.left_out > 0) {
    text += "; cannot be played: " + std::to_string(result.left_out);
  }
  return text + "\n";
}

std::string report(const std::string& name, const RunChanges& changes) {
  std::string text;
  for (std::size_t k = 0; k < changes.lines.size() && k < kShownChanges; ++k) {
    text += changes.lines[k] + "\n";
  }
  if (changes.lines.size() > kShownChanges) {
    text += "and " + std::to_string(changes.lines.size() - kShownChanges) +
            " more; --changes FILE writes all\n";
  }
  return text + name + ": " + std::to_string(changes.changed_frames) + " of " +
         counted(changes.frames, "frame", "frames") +
         " changed: " + std::to_string(changes.gained) + " boxes gained, " +
         std::to_string(changes.lost) + " lost, " + std::to_string(changes.moved) + " moved; " +
         std::to_string(changes.joined) + " tracks joined, " + std::to_string(changes.split) +
         " split\n";
}

void show(const CommandLine& line, const std::string& text) {
  const bool results_on_screen =
      line.output == kStandardOutput || line.changes_output == kStandardOutput;
  if (results_on_screen) {
    std::fputs(printable(text).c_str(), stderr);
  } else {
    print_result(printable(text));
  }
}

int replay(const CommandLine& line) {
  check(line);
  const ChangedOptions changes = parse_changed_options(line.changes);
  const Recording recording = read_recording(line.input);
  require_exact_threshold(recording, changes);
  say_what_may_differ(line, recording);
  const bool has_changes = !line.changes.empty();
  const bool is_exported = !line.output.empty();
  const bool are_kept = has_changes || is_exported || !line.drawing.empty();
  std::vector<PlayedFrame> before;
  const PlayResult result = run(line, recording, {}, are_kept ? &before : nullptr);
  std::string text = report(line.input, result);
  std::vector<PlayedFrame> after;
  if (has_changes) {
    run(line, recording, changes, &after);
    const RunChanges found = changes_between(before, after);
    text += report(line.input, found);
    if (!line.changes_output.empty()) {
      write_output(line.changes_output, stdout, found.json_lines);
    }
  }
  if (is_exported) {
    export_frames(line, recording, has_changes ? after : before);
  }
  if (!line.drawing.empty()) {
    draw(line, recording, before, after);
  }
  show(line, text);
  if (result.first) {
    return kCheckFailed;
  }
  const std::vector<Damage>& damages = recording.container.damages;
  return damages.empty() || damages.front().is_cut ? kDone : kInputError;
}

}  // namespace

void add_replay_command(CLI::App& application, Command* chosen) {
  const auto line = std::make_shared<CommandLine>();
  OptionTable options(&application, "replay", kDescription, kManual, chosen,
                      [line] { return replay(*line); });
  options.add("FILE", "", &line->input, "The recording").required();
  options.add("--from", "N", &line->from, "Number of the first frame to compare, export and list")
      .range(0L, kNumberMost);
  options.add("--to", "N", &line->to, "Number of the last one").range(0L, kNumberMost);
  options
      .add("--export", "FORMAT", &line->export_format,
           "Write the frames' boxes as run does: jsonl, mot or coco; or for viewers: mcap")
      .one_of({"jsonl", "mot", "coco", kForViewers});
  options.add("-o,--output", "FILE", &line->output, "File for --export, - for standard output");
  options.add("--set", "NAME=VALUE,...", &line->changes, "Run again with other options")
      .split_at(',');
  options.add("--changes", "FILE", &line->changes_output,
              "What --set changed, as JSON Lines; - for standard output");
  options.add("--annotate", "FILE", &line->drawing,
              "Draw the boxes into a video (.mkv, .avi, .mp4, .mov) or, by another name, a folder");
  options.add("--over", "INPUT", &line->over,
              "A video, or pictures, for --annotate and --export mcap in place of kept pictures");
  options.add("--over-start", "N", &line->over_start, "Number of the frame that INPUT begins with")
      .shows_default()
      .range(1L, kNumberMost);
  options.add("--log", "FILE", &line->log, "Append the library's log to FILE");
}

}  // namespace olvex_tools
