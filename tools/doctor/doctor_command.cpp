// SPDX-License-Identifier: Apache-2.0
// doctor_command.cpp - the subcommand doctor: runs every check on a model image, and reports what is wrong
// with the remedy, as text or as the JSON of schema/doctor.schema.json. doctor.h has the parts.
#include <algorithm>
#include <cstdio>
#include <memory>

#include "tools/common/command.h"
#include "tools/common/json_text.h"
#include "tools/common/options.h"
#include "tools/common/output_file.h"
#include "tools/common/subcommands.h"
#include "tools/common/text.h"
#include "tools/doctor/doctor.h"
#include "tools/frames/own_files.h"
#include "tools/inside/foreign_platform.h"
#include "tools/inside/library_model.h"
#include "tools/inside/network_trial.h"

namespace olvex_tools {

namespace {

const char kExamples[] =
    "Examples:\n"
    "  olvex-det doctor street.qtm pictures/\n"
    "  olvex-det doctor street.qtm street.mp4 --limit 200 --json findings.json\n"
    "Without pictures only the description and the shapes are checked. Pictures have to show "
    "objects of the\n"
    "model's classes; the network runs up to eight times on each.\n"
    "The JSON is described in share/olvex-det/schema/doctor.schema.json.\n"
    "Exit code 1: something is wrong with the image.";

constexpr long kUsualFrames = 50;
constexpr long kMostFrames = 1000;
constexpr int kSchemaVersion = 1;

// When a check can be made. What scores and boxes lead to is not looked at where they are read wrongly.
enum class Needs {
  kNothing,
  kFrames,       // and outputs that the library can decode
  kSoundOutputs  // frames, and that no check before found outputs that are read wrongly
};

struct Check {
  const char* name;
  Needs needs;
  bool judges_outputs;     // what it finds makes comparisons of scores worthless
  bool fits_any_platform;  // needs neither description nor network of an image
  Outcome (*look)(Examination*);
};

const Check kChecks[] = {
    {"decoding", Needs::kNothing, true, true, check_decoding},
    {"layer order", Needs::kNothing, false, false, check_layer_order},
    {"classes", Needs::kNothing, false, false, check_classes},
    {"input values", Needs::kNothing, false, false, check_input_values},
    {"finite", Needs::kFrames, true, false, check_finite},
    {"scores", Needs::kFrames, true, false, check_scores},
    {"boxes", Needs::kFrames, true, false, check_boxes},
    {"INT16 scales", Needs::kFrames, false, false, check_integers},
    {"limits", Needs::kSoundOutputs, false, true, check_limits},
    {"boxes at 0.1", Needs::kFrames, false, true, check_least_threshold},
    {"boxes at 0.9", Needs::kSoundOutputs, true, true, check_highest_threshold},
    {"mean and scale", Needs::kSoundOutputs, false, false, check_mean_and_scale},
    {"colours", Needs::kSoundOutputs, false, false, check_colours},
    {"aspect", Needs::kSoundOutputs, false, false, check_aspect}};

struct DoctorOptions {
  std::string path;
  std::string platform;  // path of a platform's library; empty: the host accelerator
  std::vector<std::string> pictures;
  long limit = kUsualFrames;
  std::string json_path;
};

struct CheckResult {
  std::string name;
  Outcome outcome;
};

struct Diagnosis {
  std::string path;
  std::size_t frames = 0;
  std::optional<OwnRun> own;  // where the network was run
  std::vector<CheckResult> results;

  std::size_t findings() const {
    return static_cast<std::size_t>(std::count_if(
        results.begin(), results.end(),
        [](const CheckResult& result) { return result.outcome.state == Outcome::State::kFound; }));
  }
};

// ---- Text ---------------------------------------------------------------------------------------

std::string line(const char* state, const std::string& name, const std::string& text) {
  return format("%-8s %-15s ", state, name.c_str()) + printable(text) + "\n";
}

std::string result_text(const CheckResult& result) {
  const Outcome& outcome = result.outcome;
  switch (outcome.state) {
    case Outcome::State::kPassed:
      return line("ok", result.name, outcome.text);
    case Outcome::State::kSkipped:
      return line("-", result.name, outcome.text);
    default:
      return line("FINDING", result.name, outcome.finding->seen) +
             line("", "  means", outcome.finding->means) +
             line("", "  remedy", outcome.finding->remedy);
  }
}

std::string thresholds_text(const OwnRun& own) {
  std::string thresholds;
  std::string boxes;
  for (std::size_t i = 0; i < kThresholds; ++i) {
    thresholds += format("%7.1f", 0.1 * static_cast<double>(i + 1));
    boxes += format("%7zu", own.boxes[i]);
  }
  return "threshold" + thresholds + "\nboxes    " + boxes + "\n";
}

std::string diagnosis_text(const Diagnosis& diagnosis) {
  std::string text = printable(diagnosis.path) + ", " +
                     (diagnosis.frames == 0 ? std::string("without pictures")
                                            : counted(diagnosis.frames, "frame", "frames")) +
                     "\n";
  for (const CheckResult& result : diagnosis.results) {
    text += result_text(result);
  }
  return text + (diagnosis.own ? thresholds_text(*diagnosis.own) : "") +
         counted(diagnosis.findings(), "finding", "findings") + "\n";
}

// ---- JSON ---------------------------------------------------------------------------------------

const char* state_name(Outcome::State state) {
  switch (state) {
    case Outcome::State::kPassed:
      return "passed";
    case Outcome::State::kFound:
      return "found";
    default:
      return "skipped";
  }
}

Json result_json(const CheckResult& result) {
  Json json = {{"name", result.name}, {"state", state_name(result.outcome.state)}};
  if (result.outcome.finding) {
    json["seen"] = result.outcome.finding->seen;
    json["means"] = result.outcome.finding->means;
    json["remedy"] = result.outcome.finding->remedy;
  } else {
    json["text"] = result.outcome.text;
  }
  return json;
}

Json thresholds_json(const OwnRun& own) {
  Json array = Json::array();
  for (std::size_t i = 0; i < kThresholds; ++i) {
    array.push_back(
        {{"threshold", rounded(0.1 * static_cast<double>(i + 1))}, {"boxes", own.boxes[i]}});
  }
  return array;
}

std::string diagnosis_json(const Diagnosis& diagnosis) {
  Json checks = Json::array();
  for (const CheckResult& result : diagnosis.results) {
    checks.push_back(result_json(result));
  }
  return json_text({{"schema_version", kSchemaVersion},
                    {"model", diagnosis.path},
                    {"frames", diagnosis.frames},
                    {"findings", diagnosis.findings()},
                    {"checks", std::move(checks)},
                    {"thresholds", diagnosis.own ? thresholds_json(*diagnosis.own) : Json()}}) +
         "\n";
}

// ---- The work -----------------------------------------------------------------------------------

// Requires: a LibraryLog exists.
ExaminedModel admit(const DoctorOptions& options) {
  ExaminedModel examined;
  examined.path = options.path;
  examined.image = read_model_file(options.path, &examined.text_header);
  require_harmless_network(options.path, options.path);
  {
    LibraryModel model(options.path, options.path);
    examined.facts = collect_facts(&model, examined.text_header);
  }
  if (!options.pictures.empty()) {
    examined.frames =
        load_frames(options.pictures, options.limit, examined.image.description.input);
  }
  return examined;
}

// Why a check cannot be made; empty where it can.
std::string obstacle(const Check& check, const ExaminedModel& examined, bool outputs_are_sound) {
  if (platform_is_foreign() && !check.fits_any_platform) {
    return "needs an image of the host accelerator";
  }
  if (check.needs == Needs::kNothing) {
    return "";
  }
  if (examined.frames.empty()) {
    return "needs pictures";
  }
  if (!examined.facts.decoding.fault.empty()) {
    return "needs outputs that the library can decode";
  }
  return check.needs == Needs::kSoundOutputs && !outputs_are_sound
             ? "needs outputs without the findings above"
             : "";
}

// Requires: a LibraryLog exists.
Diagnosis examine(const ExaminedModel& examined) {
  const bool runs = !examined.frames.empty() && examined.facts.decoding.fault.empty();
  Examination examination = {examined, {}, {}, examined.image.description.input, {}};
  Diagnosis diagnosis;
  diagnosis.path = examined.path;
  diagnosis.frames = examined.frames.size();
  if (runs) {
    examination.own = run_as_it_is(examined);
    diagnosis.own = examination.own;
  }
  if (runs && !platform_is_foreign()) {
    examination.plain = run_plainly(examined);
    examination.best_clarity = examination.plain.clarity;
  }
  bool outputs_are_sound = true;
  for (const Check& check : kChecks) {
    const std::string reason = obstacle(check, examined, outputs_are_sound);
    const Outcome outcome = reason.empty() ? check.look(&examination) : skipped(reason);
    outputs_are_sound = outputs_are_sound && !(check.judges_outputs && outcome.finding);
    diagnosis.results.push_back({check.name, outcome});
  }
  return diagnosis;
}

Diagnosis diagnose(const DoctorOptions& options) {
  use_platform(options.platform, "");
  const LibraryLog log("");
  return examine(admit(options));
}

int doctor(const DoctorOptions& options) {
  const bool to_file = !options.json_path.empty() && options.json_path != kStandardOutput;
  if (to_file) {
    std::vector<std::string> inputs = options.pictures;
    inputs.push_back(options.path);
    inputs.push_back(options.platform);
    require_own_files({{"--json", options.json_path}}, inputs);
    require_writable(options.json_path);
  }
  const Diagnosis diagnosis = diagnose(options);
  if (!options.json_path.empty()) {
    write_output(options.json_path, stdout, diagnosis_json(diagnosis));
  }
  if (options.json_path != kStandardOutput) {
    print_result(diagnosis_text(diagnosis));
  }
  return diagnosis.findings() == 0 ? kDone : kCheckFailed;
}

}  // namespace

void add_doctor_command(CLI::App& application, Command* chosen) {
  const auto line = std::make_shared<DoctorOptions>();
  OptionTable options(&application, "doctor",
                      "Run a model file on pictures and name what is wrong with it", kExamples,
                      chosen, [line] { return doctor(*line); });
  options.add("IMAGE", "", &line->path, "The model file").required();
  options.add(
      "PICTURES", "", &line->pictures,
      "Pictures, folders of them, dumped frames or videos, with objects of the model's classes");
  options.add("--limit", "N", &line->limit, "Frames at most, evenly spread over all that are given")
      .shows_default()
      .range(1L, kMostFrames);
  add_platform_option(&options, &line->platform);
  options.add("--json", "FILE", &line->json_path,
              "Write the findings as JSON for programs; - is standard output, instead of the text");
}

}  // namespace olvex_tools
