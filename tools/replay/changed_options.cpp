// SPDX-License-Identifier: Apache-2.0
// changed_options.cpp - the words of --set, and which thresholds a recording is exact for.
#include <algorithm>
#include <charconv>
#include <cstring>

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/replay/replay.h"

namespace olvex_tools {

namespace {

struct NamedOption {
  const char* name;
  const char* wanted;
  bool (*set)(const std::string& value, ChangedOptions* options);
};

template <typename Number>
std::optional<Number> number_in(const std::string& text, Number least, Number most) {
  Number number{};
  const char* const end = text.data() + text.size();
  const std::from_chars_result result = std::from_chars(text.data(), end, number);
  const bool is_good =
      result.ec == std::errc() && result.ptr == end && number >= least && number <= most;
  return is_good ? std::make_optional(number) : std::nullopt;
}

template <std::optional<float> ChangedOptions::*member>
bool set_fraction(const std::string& value, ChangedOptions* options) {
  options->*member = number_in(value, 0.0f, 1.0f);
  return (options->*member).has_value();
}

template <std::optional<bool> ChangedOptions::*member>
bool set_flag(const std::string& value, ChangedOptions* options) {
  options->*member = value == "1";
  return value == "0" || value == "1";
}

bool set_track_frames(const std::string& value, ChangedOptions* options) {
  options->track_frames = number_in(value, 1, 32767);
  return options->track_frames.has_value();
}

const char kFraction[] = "a number from 0 to 1";
const char kFlag[] = "0 or 1";
const NamedOption kOptions[] = {
    {"threshold", kFraction, set_fraction<&ChangedOptions::threshold>},
    {"track", kFlag, set_flag<&ChangedOptions::track>},
    {"track-frames", "a number from 1 to 32767", set_track_frames},
    {"ignore-static", kFlag, set_flag<&ChangedOptions::ignore_static>},
    {"static-sensitivity", kFraction, set_fraction<&ChangedOptions::static_sensitivity>},
    {"stable", kFlag, set_flag<&ChangedOptions::stable>},
    {"stable-sensitivity", kFraction, set_fraction<&ChangedOptions::stable_sensitivity>},
    {"strict", kFlag, set_flag<&ChangedOptions::strict>}};

void set_option(const std::string& text, ChangedOptions* options) {
  const std::size_t equals = text.find('=');
  const std::string name = text.substr(0, equals);
  const auto* const found =
      std::find_if(std::begin(kOptions), std::end(kOptions),
                   [&name](const NamedOption& option) { return name == option.name; });
  if (found == std::end(kOptions)) {
    std::vector<std::string> names;
    for (const NamedOption& option : kOptions) {
      names.emplace_back(option.name);
    }
    const std::string meant = did_you_mean(name, names);
    refuse_usage("--set: unknown option \"" + name + "\"" +
                 (meant.empty() ? ". There are: " + join(names, ", ") : meant));
  }
  if (equals == std::string::npos || !found->set(text.substr(equals + 1), options)) {
    refuse_usage("--set: \"" + text + "\": " + name + " takes " + found->wanted);
  }
}

float real_of(std::uint32_t bits) {
  float value = 0.0f;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

}  // namespace

bool ChangedOptions::change_tracking() const {
  return track || track_frames || ignore_static || static_sensitivity || stable ||
         stable_sensitivity || strict;
}

ChangedOptions parse_changed_options(const std::vector<std::string>& texts) {
  ChangedOptions options;
  for (const std::string& text : texts) {
    set_option(text, &options);
  }
  return options;
}

void require_exact_threshold(const Recording& recording, const ChangedOptions& options) {
  if (!options.threshold) {
    return;
  }
  float floor = 0.0f;
  std::uint32_t number = 0;
  for (std::size_t k = 0; k < recording.frames.size(); ++k) {
    const RecordedFrame frame = recording.frame(k);
    if (frame.floor > floor) {
      floor = frame.floor;
      number = frame.number;
    }
  }
  if (*options.threshold < floor) {
    refuse_usage(format(
        "--set threshold=%g: %s holds of frame %u only what scores %g or more. Give that or a "
        "higher threshold",
        static_cast<double>(*options.threshold), recording.name.c_str(), number,
        static_cast<double>(floor)));
  }
}

void HandleSettings::take(const RecordedCall& call) {
  const std::vector<std::uint32_t>& words = call.words;
  switch (call.function) {
    case RECORDING_SET_STABLE_BOX:
      stable = words[0] == 1;
      stable_sensitivity = HandleSettings().stable_sensitivity;
      break;
    case RECORDING_SET_TRACKER:
      // The library keeps the tracker on under strict mode.
      track = words[0] == 1 || strict;
      ignore_static = words[1] == 1;
      track_frames = HandleSettings().track_frames;
      static_sensitivity = HandleSettings().static_sensitivity;
      break;
    case RECORDING_SET_TRACKER2: {
      track = words[0] == 1;
      ignore_static = words[1] == 1;
      const float sensitivity = real_of(words[2]);
      static_sensitivity = sensitivity != 0.0f ? sensitivity : HandleSettings().static_sensitivity;
      stable = words[3] == 1;
      stable_sensitivity = real_of(words[4]);
      track_frames = words[5] != 0 ? static_cast<int>(words[5]) : 1;
      break;
    }
    case RECORDING_SET_STRICT_MODE:
      strict = words[0] == 1;
      track = track || strict;
      break;
    default:
      break;
  }
}

void HandleSettings::take(const ChangedOptions& options) {
  track = options.track.value_or(track);
  track_frames = options.track_frames.value_or(track_frames);
  ignore_static = options.ignore_static.value_or(ignore_static);
  static_sensitivity = options.static_sensitivity.value_or(static_sensitivity);
  stable = options.stable.value_or(stable);
  stable_sensitivity = options.stable_sensitivity.value_or(stable_sensitivity);
  strict = options.strict.value_or(strict);
}

}  // namespace olvex_tools
