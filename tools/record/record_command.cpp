// SPDX-License-Identifier: Apache-2.0
// record_command.cpp - the subcommands of record: what is in a recording, for people; options, what they say, help.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <set>
#include <string>

#include "tools/common/options.h"
#include "tools/common/output_file.h"
#include "tools/common/subcommands.h"
#include "tools/common/text.h"
#include "tools/frames/own_files.h"
#include "tools/record/record.h"

namespace olvex_tools {

namespace {

constexpr std::uint64_t kSecond = 1000000000;

std::string or_unknown(const std::string& text) {
  return text.empty() ? "unknown" : one_line(text);
}

std::string frames_text(const Recording& recording) {
  std::set<std::uint32_t> handles;
  std::uint32_t first = UINT32_MAX;
  std::uint32_t last = 0;
  std::size_t boxes = 0;
  float highest_floor = 0.0f;
  for (std::size_t k = 0; k < recording.frames.size(); ++k) {
    const RecordedFrame frame = recording.frame(k);
    handles.insert(frame.handle);
    first = std::min(first, frame.number);
    last = std::max(last, frame.number);
    boxes += frame.boxes.size() + frame.large_boxes.size();
    highest_floor = std::max(highest_floor, frame.floor);
  }
  if (recording.frames.empty()) {
    return "frames    none\n";
  }
  return "frames    " + std::to_string(recording.frames.size()) + ", numbers " +
         std::to_string(first) + " to " + std::to_string(last) + ", of " +
         counted(handles.size(), "handle", "handles") + ", with " + counted(boxes, "box", "boxes") +
         "\n" + "time      " + time_text(recording.frames.front().log_time) + " to " +
         time_text(recording.frames.back().log_time) + "\n" +
         format("floor     %g: thresholds from it on are exact\n",
                static_cast<double>(highest_floor));
}

std::string event_text(const Recording& recording, const RecordedEvent& event) {
  const std::uint64_t offset = recording.about.realtime - recording.about.monotonic;
  const char* const kinds[] = {"unknown", "begun", "failure", "ended"};
  return "event     " + time_text(event.time + offset) + " " +
         kinds[event.kind > 3 ? 0 : event.kind] +
         (event.text.empty() ? "" : ": " + one_line(event.text)) + "\n";
}

}  // namespace

std::string time_text(std::uint64_t nanoseconds) {
  const auto seconds = static_cast<std::time_t>(nanoseconds / kSecond);
  std::tm calendar = {};
  gmtime_r(&seconds, &calendar);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &calendar);
  return text + format(".%03uZ", static_cast<unsigned>(nanoseconds % kSecond / 1000000));
}

namespace {

// Several lines that say what is in it.
std::string describe_recording(const Recording& recording) {
  const RecordingAbout& about = recording.about;
  const std::size_t carried = static_cast<std::size_t>(std::count_if(
      recording.calls.begin(), recording.calls.end(),
      [](const RecordedCall& call) { return (call.flags & RECORDING_CALL_CARRIED) != 0; }));
  std::string text = "library   " + or_unknown(about.library) + ", build id " +
                     or_unknown(about.library_id) + "\n" + "recorder  " +
                     or_unknown(about.recorder) + ", part " + std::to_string(about.part) + "\n" +
                     "machine   " + or_unknown(about.machine) + ", " +
                     std::to_string(about.pointer_bytes * 8) + " bits\n";
  for (const auto& [call, model] : recording.models) {
    text += "model     " + std::to_string(model.bytes) + " bytes, SHA-256 ";
    for (const unsigned char byte : model.sha256) {
      text += format("%02x", byte);
    }
    text += model.sha256.empty() ? "unknown\n" : "\n";
  }
  text += frames_text(recording);
  text += "calls     " + std::to_string(recording.calls.size()) + ", " + std::to_string(carried) +
          " of them from before the first frame" +
          (carried > 0 && about.carried_complete == 0 ? ", and not all" : "") + "\n";
  text += "pictures  " + std::to_string(recording.pictures) + "\n";
  for (const RecordedEvent& event : recording.events) {
    text += event_text(recording, event);
  }
  const bool has_events = !recording.events.empty();
  const std::uint64_t lost = has_events ? recording.events.back().lost_frames : about.lost_frames;
  const std::uint64_t calls = has_events ? recording.events.back().lost_calls : about.lost_calls;
  text += "lost      " + counted(lost, "frame", "frames") +
          (calls > 0 ? " and " + counted(calls, "call", "calls") : "") + "\n";
  for (const Damage& damage : recording.container.damages) {
    text += "damage    " + damage_text(damage) + "\n";
  }
  return text;
}

// ---- Options ----

constexpr long kNumberMost = UINT32_MAX;
constexpr double kLongest = 1e6;  // seconds

const char kInfoDescription[] = "Say what is in a recording";
const char kInfoManual[] =
    "Examples:\n"
    "  olvex-det record info camera.1.mcap";

const char kRepairDescription[] = "Close a cut or damaged recording, so that viewers open it";
const char kRepairManual[] =
    "Writes every chunk whose CRC is right, with the index and the end that are missing, and says "
    "which\n"
    "bytes were lost. replay takes frames that are missing for lost ones. The first chunk says "
    "what was\n"
    "recorded: without it nothing can be repaired.\n\n"
    "Examples:\n"
    "  olvex-det record repair camera.1.mcap -o whole.mcap";

const char kCutDescription[] = "Write a part of a recording, with the calls in force at its start";
const char kCutManual[] =
    "Examples:\n"
    "  olvex-det record cut camera.1.mcap --around 12.5 --before 5 --after 2 -o part.mcap\n"
    "  olvex-det record cut camera.1.mcap --around 2026-05-04T12:00:00Z -o part.mcap\n"
    "  olvex-det record cut camera.1.mcap --from 100 --to 200 -o part.mcap";

const char kAnonymiseDescription[] =
    "Write a recording without what tells where and when it was made";
const char kAnonymiseManual[] =
    "Leaves out: pictures and their CRCs, annotations, paths, the model's hash, size, names and "
    "pairs that\n"
    "decide nothing, the processor, the environment, the clock; time stamps start at 0. What is "
    "left\n"
    "plays as before. Boxes, scores and times between frames stay, and so do the network's "
    "outputs.\n\n"
    "Examples:\n"
    "  olvex-det record anonymise camera.1.mcap -o public.mcap";

struct CommandLine {
  std::string input;
  std::string output;
  std::string around;
  double before = 10;
  double after = 10;
  long from = -1;
  long to = kNumberMost;
};

int result_of(const Recording& recording) {
  const std::vector<Damage>& damages = recording.container.damages;
  return damages.empty() || damages.front().is_cut ? kDone : kInputError;
}

Recording read_and_warn(const CommandLine& line, const char* command) {
  require_own_files({{"--output", line.output}}, {line.input});
  Recording recording = read_recording(line.input);
  for (const Damage& damage : recording.container.damages) {
    std::fprintf(stderr, "olvex-det record %s: %s: %s. What stands before is read\n", command,
                 printable(line.input).c_str(), printable(damage_text(damage)).c_str());
  }
  return recording;
}

int info(const CommandLine& line) {
  const Recording recording = read_recording(line.input);
  print_result(printable(line.input + "\n" + describe_recording(recording)));
  return result_of(recording);
}

int repair(const CommandLine& line) {
  require_own_files({{"--output", line.output}}, {line.input});
  const Recording recording = read_recording(line.input, Recovery::kAll);
  write_all_chunks(recording, line.output);
  std::string text = line.output + ": " + counted(recording.frames.size(), "frame", "frames") +
                     " in " + counted(recording.container.chunks.size(), "chunk", "chunks") + "\n";
  for (const Damage& damage : recording.container.damages) {
    text += "lost " + counted(damage.end - damage.offset, "byte", "bytes") + ": " +
            damage_text(damage) + "\n";
  }
  print_result(printable(text));
  return kDone;
}

int cut(const CommandLine& line) {
  const bool has_numbers = line.from >= 0 || line.to != kNumberMost;
  if (has_numbers == !line.around.empty()) {
    refuse_usage("give --around, or --from and --to");
  }
  const Recording recording = read_and_warn(line, "cut");
  const RecordingPart part =
      has_numbers
          ? part_by_frames(recording, static_cast<std::uint32_t>(line.from < 0 ? 0 : line.from),
                           static_cast<std::uint32_t>(line.to))
          : part_by_time(recording, line.around, line.before, line.after);
  write_part(recording, part, line.output);
  print_result(printable(line.output + ": " + counted(part.frames, "frame", "frames") + "\n"));
  return result_of(recording);
}

int anonymise(const CommandLine& line) {
  const Recording recording = read_and_warn(line, "anonymise");
  write_anonymised(recording, line.output);
  print_result(
      printable(line.output + ": " + counted(recording.frames.size(), "frame", "frames") + "\n"));
  return result_of(recording);
}

// What all have that write one.
void add_files(OptionTable* options, CommandLine* line) {
  options->add("FILE", "", &line->input, "The recording").required();
  options->add("-o,--output", "FILE", &line->output, "The new recording; mode 0600 for a new file")
      .required();
}

}  // namespace

void add_record_info_command(CLI::App& record, Command* chosen) {
  const auto line = std::make_shared<CommandLine>();
  OptionTable options(&record, "info", kInfoDescription, kInfoManual, chosen,
                      [line] { return info(*line); });
  options.add("FILE", "", &line->input, "The recording").required();
}

void add_record_repair_command(CLI::App& record, Command* chosen) {
  const auto line = std::make_shared<CommandLine>();
  OptionTable options(&record, "repair", kRepairDescription, kRepairManual, chosen,
                      [line] { return repair(*line); });
  add_files(&options, line.get());
}

void add_record_cut_command(CLI::App& record, Command* chosen) {
  const auto line = std::make_shared<CommandLine>();
  OptionTable options(&record, "cut", kCutDescription, kCutManual, chosen,
                      [line] { return cut(*line); });
  add_files(&options, line.get());
  options.add("--around", "TIME", &line->around,
              "Seconds after the first frame, or a time as in 2026-05-04T12:00:00Z");
  options.add("--before", "S", &line->before, "Seconds before TIME")
      .shows_default()
      .range(0.0, kLongest);
  options.add("--after", "S", &line->after, "Seconds after TIME")
      .shows_default()
      .range(0.0, kLongest);
  options.add("--from", "N", &line->from, "Number of the first frame").range(0L, kNumberMost);
  options.add("--to", "N", &line->to, "Number of the last frame").range(0L, kNumberMost);
}

void add_record_anonymise_command(CLI::App& record, Command* chosen) {
  const auto line = std::make_shared<CommandLine>();
  OptionTable options(&record, "anonymise", kAnonymiseDescription, kAnonymiseManual, chosen,
                      [line] { return anonymise(*line); });
  add_files(&options, line.get());
}

}  // namespace olvex_tools
