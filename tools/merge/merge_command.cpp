// SPDX-License-Identifier: Apache-2.0
// merge_command.cpp - the subcommand merge: puts together what the shards of a run wrote, byte for byte, after a
// look at where each part begins and ends.
#include <charconv>
#include <cstdint>
#include <map>
#include <set>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/command.h"
#include "tools/common/json_reader.h"
#include "tools/common/options.h"
#include "tools/common/output_file.h"
#include "tools/common/subcommands.h"

namespace olvex_tools {

namespace {

const char kDescription[] = "Put the results of a run's shards together";

const char kManual[] =
    "PART is what olvex-det run --shard K/N wrote with --jsonl, --mot or --coco; all are of one "
    "kind,\n"
    "in the order of their shards. Without --track, --strict and --stable the result is, byte for\n"
    "byte, what one run writes (of JSON Lines all but the measured times). A part that ends after\n"
    "the next one begins is refused, and so is one that is cut. OUTPUT is replaced when it is\n"
    "complete.\n\n"
    "Examples:\n"
    "  olvex-det merge part1.json part2.json -o results.json\n"
    "  olvex-det merge part{1..8}.txt -o - | head";

struct CommandLine {
  std::vector<std::string> parts;
  std::string output;
};

enum class Kind { kUnknown, kCoco, kJsonLines, kMot };

constexpr std::string_view kCocoStart = "[";
constexpr std::string_view kCocoEnd = "\n]\n";
constexpr double kFrameMost = 1e12;

Kind kind_of(std::string_view text) {
  if (text.empty()) {
    return Kind::kUnknown;  // rows of frames without a box
  }
  if (text[0] == '[') {
    return Kind::kCoco;
  }
  return text[0] == '{' ? Kind::kJsonLines : Kind::kMot;
}

// The last frame of each source so far; MOT rows have one source.
using LastFrames = std::map<std::string, std::int64_t>;

struct Place {
  std::string source;
  std::int64_t frame = 0;
};

Place place_of(const std::string& path, Kind kind, std::string_view line) {
  Place place;
  if (kind == Kind::kJsonLines) {
    read_json_object(path, "Give what olvex-det run wrote with --jsonl", line.data(),
                     line.data() + line.size(), [&place](const JsonItem& item) {
                       place.source = item.text("source");
                       place.frame = static_cast<std::int64_t>(
                           item.integer("frame", 1, static_cast<std::uint64_t>(kFrameMost)));
                     });
    return place;
  }
  const auto parsed = std::from_chars(line.data(), line.data() + line.size(), place.frame);
  if (parsed.ec != std::errc() || parsed.ptr == line.data() + line.size() || *parsed.ptr != ',') {
    refuse_input(path, "is neither JSON Lines, MOT rows nor COCO results");
  }
  return place;
}

// The rows of one part go behind those of the parts before it.
void require_in_order(const std::string& path, Kind kind, std::string_view text, LastFrames* last) {
  if (text.back() != '\n') {
    refuse_input(path, "is cut: its last line does not end. Run that shard again");
  }
  LastFrames own;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = text.find('\n', start);
    const Place place = place_of(path, kind, text.substr(start, end - start));
    const auto before = last->find(place.source);
    // Rows of a frame are together, but pictures are frames of sources of their own.
    if (before != last->end() && before->second >= place.frame && own.count(place.source) == 0) {
      refuse_input(path, "begins with frame " + std::to_string(place.frame) +
                             ", but the part before it reaches frame " +
                             std::to_string(before->second) +
                             ". Give the parts in the order of their shards");
    }
    own[place.source] = place.frame;
    start = end + 1;
  }
  for (const auto& [source, frame] : own) {
    (*last)[source] = frame;
  }
}

std::string_view items_of(const std::string& path, std::string_view text) {
  const std::size_t around = kCocoStart.size() + kCocoEnd.size();
  if (text.size() < around || text.substr(text.size() - kCocoEnd.size()) != kCocoEnd) {
    refuse_input(path, "is not what olvex-det run --coco writes, or is cut");
  }
  return text.substr(kCocoStart.size(), text.size() - around);
}

// No picture has results in two parts.
void require_own_pictures(const std::string& path, std::string_view items,
                          std::set<std::string_view>* pictures) {
  constexpr std::string_view kKey = "\"image_id\":";
  std::set<std::string_view> own;
  for (std::size_t at = items.find(kKey); at != std::string_view::npos; at = items.find(kKey, at)) {
    at += kKey.size();
    own.insert(items.substr(at, items.find_first_of(",}", at) - at));
  }
  for (const std::string_view picture : own) {
    if (!pictures->insert(picture).second) {
      refuse_input(path, "has results of picture " + std::string(picture) +
                             ", which a part before it has, too. Give each part once");
    }
  }
}

int merge(const CommandLine& line) {
  Kind kind = Kind::kUnknown;
  LastFrames last;
  OutputFile output(line.output, stdout, OutputForm::kWhole);
  bool any_item = false;
  std::string empty_part;
  std::set<std::string_view> pictures;
  std::vector<std::vector<char>> parts;
  for (const std::string& path : line.parts) {
    parts.push_back(read_whole_file("the results", path));
    const std::string_view text(parts.back().data(), parts.back().size());
    const Kind found = kind_of(text);
    if (found == Kind::kUnknown) {
      empty_part = path;
      continue;
    }
    if (kind != Kind::kUnknown && found != kind) {
      refuse_input(path, "is of another kind than the parts before it");
    }
    if (found == Kind::kCoco) {
      const std::string_view items = items_of(path, text);
      require_own_pictures(path, items, &pictures);
      output.write((kind == Kind::kUnknown ? "[" : "") +
                   std::string(any_item && !items.empty() ? "," : "") + std::string(items));
      any_item = any_item || !items.empty();
    } else {
      require_in_order(path, found, text, &last);
      output.write(std::string(text));
    }
    kind = found;
  }
  // Only MOT rows can be without any.
  if (!empty_part.empty() && kind != Kind::kMot && kind != Kind::kUnknown) {
    refuse_input(empty_part, "is empty: its shard was cut. Run that shard again");
  }
  output.write(kind == Kind::kCoco ? std::string(kCocoEnd) : "");
  output.close();
  return kDone;
}

}  // namespace

void add_merge_command(CLI::App& application, Command* chosen) {
  const auto line = std::make_shared<CommandLine>();
  OptionTable options(&application, "merge", kDescription, kManual, chosen,
                      [line] { return merge(*line); });
  options.add("PART", "", &line->parts, "Results of a shard").required();
  options.add("-o,--output", "FILE|-", &line->output, "The whole results").required();
}

}  // namespace olvex_tools
