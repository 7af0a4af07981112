// SPDX-License-Identifier: Apache-2.0
// run_session.cpp - what happens to a frame from its input to the outputs, the setup and the end. stages.h moves
// the frames, frame_reader.h supplies them, engine.h finds what is in them.
#include "tools/run/run.h"

#include <algorithm>
#include <charconv>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/host/host_image.h"
#include "tools/common/command.h"
#include "tools/frames/frame_conversion.h"
#include "tools/common/interruption.h"
#include "tools/inside/foreign_platform.h"
#include "tools/inside/library_model.h"
#include "tools/inside/network_trial.h"
#include "tools/run/engine.h"
#include "tools/run/stages.h"
#include "tools/common/output_file.h"
#include "tools/common/progress.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

struct Model {
  qv_host::Description description;
  std::string text_header;
};

Model read_model(const std::string& path) {
  Model model;
  model.description = read_model_file(path, &model.text_header).description;
  return model;
}

DetectorOptions at_start_pattern(DetectorOptions options, const Model& model) {
  options.pattern_offset = model.text_header.size();
  return options;
}

// How many threads run the network, each with a handle of its own.
int engines_for(const RunOptions& options, int jobs) {
  constexpr int kMost = 8;  // each holds the network in memory
  const bool is_one = depends_on_order(options.detector) || platform_is_foreign();
  return is_one ? 1 : std::min(jobs, kMost);
}

int processors() {
  return std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
}

int jobs_for(const RunOptions& options) {
  return options.jobs > 0 ? options.jobs : processors();
}

// By name, or else by number.
std::set<std::uint32_t> class_ids(const char* option, const std::vector<std::string>& words,
                                  const std::vector<std::string>& names) {
  std::set<std::uint32_t> ids;
  for (const std::string& word : words) {
    const auto named = std::find(names.begin(), names.end(), word);
    std::uint32_t id = 0;
    const auto parsed = std::from_chars(word.data(), word.data() + word.size(), id);
    if (named != names.end()) {
      id = static_cast<std::uint32_t>(named - names.begin());
    } else if (parsed.ec != std::errc() || parsed.ptr != word.data() + word.size()) {
      refuse_usage(option + (" " + word) + ": the model names no such class" +
                   did_you_mean(word, names) +
                   (names.empty() ? ". It names none: give numbers" : ""));
    } else if (!names.empty() && id >= names.size()) {
      refuse_usage(option + (" " + word) + ": the model names " +
                   counted(names.size(), "class", "classes") + ", numbered from 0");
    }
    ids.insert(id);
  }
  return ids;
}

// One error for all; the first one's exit code stands for them.
void throw_all(const std::vector<ToolError>& failures) {
  if (!failures.empty()) {
    throw ToolError(failures.front().exit_code(),
                    join(failures, "\n", [](const ToolError& failure) { return failure.what(); }));
  }
}

class Session {
 public:
  Session(const RunOptions& options, const std::vector<RunInput>& inputs, int jobs, int engines,
          RunLog* log)
      : options_(options),
        inputs_(inputs),
        jobs_(jobs),
        log_(*log),
        model_(read_model(options.detector.model)),
        settings_(engine_settings(engines)),
        pool_(settings_),
        reader_(inputs, settings_.layout, options.reading),
        progress_(reader_.expected(), options.quiet),
        shared_outputs_(make_outputs(shared_outputs(options.outputs))),
        own_outputs_(make_outputs(own_outputs(options.outputs, inputs.front().name))) {
    settings_.keeps_pictures = shared_outputs_->needs_picture() || own_outputs_->needs_picture();
    if (!options.outputs.summary.empty()) {
      summary_file_.emplace(options.outputs.summary, log->results(), OutputForm::kWhole);
    }
    if (!options.outputs.trace.empty()) {
      trace_.emplace(options.outputs.trace, log->results(), engines);
    }
    for (int i = 0; i < engines; ++i) {
      engines_.push_back(std::make_unique<Engine>(settings_, &pool_, &log_));
    }
  }

  int run() {
    std::vector<ToolError> failures = failures_of_frames();
    const std::vector<ToolError> of_outputs = finish_outputs();
    if (of_outputs.empty() && (failures.empty() || input_failed_)) {
      report(&failures);
    }
    failures.insert(failures.end(), of_outputs.begin(), of_outputs.end());
    throw_all(failures);
    return interruption_requested() ? kInterrupted : kDone;
  }

 private:
  EngineSettings engine_settings(int engines) {
    EngineSettings settings;
    settings.detector = at_start_pattern(options_.detector, model_);
    settings.layout = frame_layout(model_.description.input);
    settings.display = options_.display;
    const std::vector<std::string>& names = model_.description.class_names;
    settings.classes = class_ids("--classes", options_.classes, names);
    settings.blurred = class_ids("--blur", options_.blurred, names);
    settings.ids_restart =
        options_.outputs.json_lines.empty() || is_own(options_.outputs.json_lines);
    settings.engines = engines;
    return settings;
  }

  std::unique_ptr<RunOutputs> make_outputs(const OutputOptions& outputs) {
    return std::make_unique<RunOutputs>(
        outputs, log_.results(), model_.description.class_names,
        rate_ / static_cast<double>(options_.reading.selection.every),
        [this](const std::string& text) { progress_.notice(text); });
  }

  std::vector<ToolError> failures_of_frames() {
    try {
      process_all();
    } catch (...) {
      return {caught_error()};
    }
    return {};
  }

  void process_all() {
    announce();
    reader_.begin();
    start_ = Clock::now();
    if (jobs_ == 1) {
      run_in_turn(stages());
      return;
    }
    // The engines share what OpenCV's own threads would use, of which more than processors print a warning.
    cv::setNumThreads(std::clamp(jobs_ / settings_.engines, 1, processors()));
    run_side_by_side(stages());
  }

  Stages stages() {
    Stages stages;
    stages.read = [this](FrameJob* job) { read(job); };
    if (settings_.engines == 1) {
      stages.middle.push_back({1, [this](FrameJob* job, int) { convert(job, kConversionRow); }});
      stages.middle.push_back({1, [this](FrameJob* job, int thread) { detect(job, thread); }});
    } else {
      stages.middle.push_back({settings_.engines, [this](FrameJob* job, int thread) {
                                 convert(job, kFirstEngineRow + thread);
                                 detect(job, thread);
                               }});
    }
    stages.write = [this](FrameJob* job) { return write(job); };
    return stages;
  }

  // May run beside the others, and so touches none of their state.
  void read(FrameJob* job) {
    const Clock::time_point start = Clock::now();
    try {
      job->state = reader_.next(&job->frame) ? FrameJob::State::kFrame : FrameJob::State::kEnd;
    } catch (...) {
      job->error = std::current_exception();
      job->state = FrameJob::State::kReadingFailed;
    }
    const Clock::time_point end = Clock::now();
    job->notices = reader_.take_notices();
    job->input = reader_.input();
    job->rate = job->state == FrameJob::State::kFrame ? reader_.frames_per_second() : 0;
    job->record.milliseconds.decode = milliseconds_between(start, end);
    job->record.number = job->frame.number;
    job->record.pts = job->frame.pts;
    job->record.image_id = job->frame.image_id;
    job->record.source = job->frame.name;
    job->spans.push_back({"decode", kReadingRow, start, end});
  }

  void convert(FrameJob* job, int row) {
    const Clock::time_point start = Clock::now();
    convert_job(settings_, job);
    job->spans.push_back({"conversion", row, start, Clock::now()});
  }

  void detect(FrameJob* job, int engine) {
    const Clock::time_point start = Clock::now();
    engines_[static_cast<std::size_t>(engine)]->detect(job);
    log_.frame_done();
    job->spans.push_back({"network", kFirstEngineRow + engine, start, Clock::now()});
  }

  // False when no more frames are wanted.
  bool write(FrameJob* job) {
    for (const std::string& notice : job->notices) {
      progress_.notice(notice);
    }
    if (job->error) {
      input_failed_ = job->state == FrameJob::State::kReadingFailed && summary_.frames() > 0;
      std::rethrow_exception(job->error);
    }
    if (job->state == FrameJob::State::kEnd) {
      return false;
    }
    const Clock::time_point start = Clock::now();
    change_input(*job);
    write_frame(job);
    const Clock::time_point end = Clock::now();
    summary_.add(job->record, job->input, milliseconds_between(start, end));
    if (trace_) {
      job->spans.push_back({"output", kOutputRow, start, end});
      trace_->add(*job);
    }
    progress_.update(summary_.frames());
    return !interruption_requested();
  }

  void write_frame(FrameJob* job) {
    if (settings_.keeps_pictures && job->frame.picture.empty()) {
      job->frame.picture = picture_of_frame(job->frame.dump, settings_.layout);
    }
    shared_outputs_->write(job->record, job->frame.picture);
    own_outputs_->write(job->record, job->frame.picture);
  }

  // The outputs that each input has for itself.
  void change_input(const FrameJob& job) {
    if (job.input == input_) {
      return;
    }
    // Once: what is finished must not be written again when the next input's cannot be made.
    throw_all(std::exchange(own_outputs_, nullptr)->finish());
    input_ = job.input;
    rate_ = job.rate;
    own_outputs_ = make_outputs(own_outputs(options_.outputs, inputs_[input_].name));
  }

  // Each is completed, also when another one fails.
  std::vector<ToolError> finish_outputs() {
    std::vector<ToolError> failures = shared_outputs_->finish();
    if (own_outputs_ != nullptr) {
      const std::vector<ToolError> more = own_outputs_->finish();
      failures.insert(failures.end(), more.begin(), more.end());
    }
    if (trace_) {
      try {
        trace_->finish();
      } catch (...) {
        failures.push_back(caught_error());
      }
    }
    return failures;
  }

  bool tracked() const { return options_.detector.track || options_.detector.strict; }

  void announce() {
    if (options_.detector.from_memory && !model_.text_header.empty() &&
        model_.description.name_pairs.empty()) {
      progress_.notice(options_.detector.model +
                       ": the text before the model is not seen when it is loaded from memory.");
    }
  }

  void report(std::vector<ToolError>* failures) {
    try {
      write_summary();
    } catch (const ToolError& error) {
      failures->push_back(error);
    }
  }

  RunFacts facts() const {
    RunFacts facts;
    facts.model = options_.detector.model;
    for (const std::string& input : options_.inputs) {
      facts.inputs.push_back(without_secrets(input));
    }
    facts.class_names = model_.description.class_names;
    facts.max_boxes = model_.description.decoded.max_boxes;
    facts.tracked = tracked();
    facts.interrupted = interruption_requested();
    facts.expected_frames = reader_.stated();
    facts.seconds = milliseconds_between(start_, Clock::now()) / 1000;
    return facts;
  }

  void write_summary() {
    progress_.clear();
    const RunFacts of_run = facts();
    const bool results_on_screen = uses_standard_output(options_.outputs);
    if (summary_file_) {
      summary_file_->write(summary_.json(of_run));
      summary_file_->close();
    }
    if (options_.quiet) {
      return;
    }
    if (results_on_screen) {
      std::fputs(summary_.text(of_run).c_str(), stderr);
    } else {
      show_on_screen(summary_.text(of_run));
    }
  }

  // A terminal that closes interrupts the run, and the summary cannot be shown.
  void show_on_screen(const std::string& text) {
    try {
      write_output(kStandardOutput, log_.results(), text);
    } catch (const ToolError&) {
      if (!interruption_requested()) {
        throw;
      }
    }
  }

  const RunOptions& options_;
  const std::vector<RunInput>& inputs_;
  int jobs_;
  RunLog& log_;
  Model model_;
  EngineSettings settings_;
  DetectorPool pool_;
  FrameReader reader_;                         // once the stages run, used by read() alone
  double rate_ = reader_.frames_per_second();  // of the input that is written
  Progress progress_;
  std::unique_ptr<RunOutputs> shared_outputs_;
  std::unique_ptr<RunOutputs> own_outputs_;  // of the input that is written; null between two
  RunSummary summary_;
  std::optional<OutputFile> summary_file_;
  std::optional<RunTrace> trace_;
  std::vector<std::unique_ptr<Engine>> engines_;
  std::size_t input_ = 0;      // that is written
  bool input_failed_ = false;  // after the first frame
  Clock::time_point start_;
};

}  // namespace

int run_session(const RunOptions& options) {
  silence_opencv();
  const std::vector<RunInput> inputs = run_inputs(options.inputs);
  require_outputs_fit(options.outputs, inputs);
  require_separate_files(options.outputs, options.log, inputs,
                         {options.detector.model, options.detector.firmware, options.platform});
  use_platform(options.platform, options.detector.firmware);
  // Before signals are caught: Ctrl-C ends the trial, too, and nothing is written yet.
  require_harmless_network(options.detector.model, options.detector.model);
  const int jobs = jobs_for(options);
  const int engines = engines_for(options, jobs);
  // Outlives the log, which flushes what a closed pipe did not take.
  const Interruption interruption;
  RunLog log(options.log, engines > 1);
  return Session(options, inputs, jobs, engines, &log).run();
}

}  // namespace olvex_tools
