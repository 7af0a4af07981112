// SPDX-License-Identifier: Apache-2.0
// run_session.cpp - the loop over the frames, its setup and its end. Frames come from frame_source.h
// and go to the detector.
#include "tools/run/run.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/host/host_image.h"
#include "tools/common/command.h"
#include "tools/frames/frame_source.h"
#include "tools/frames/frame_conversion.h"
#include "tools/common/interruption.h"
#include "tools/inside/foreign_platform.h"
#include "tools/inside/library_model.h"
#include "tools/inside/network_trial.h"
#include "tools/common/output_file.h"
#include "tools/common/progress.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

using Clock = std::chrono::steady_clock;

double milliseconds_since(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

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

std::optional<long> frames_to_come(const FrameSource& source, const RunOptions& options) {
  std::optional<long> total = source.length();
  if (total) {
    total = std::max(0L, *total - options.skip);
  }
  if (options.limit > 0) {
    total = total ? std::min(*total, options.limit) : options.limit;
  }
  return total;
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
  Session(const RunOptions& options, RunLog* log)
      : options_(options),
        log_(*log),
        model_(read_model(options.detector.model)),
        detector_options_(at_start_pattern(options.detector, model_)),
        layout_(frame_layout(model_.description.input)),
        source_(open_frame_source(options.input, layout_, options.picture_rate)),
        progress_(frames_to_come(*source_, options), options.quiet),
        outputs_(options.outputs, log->results(), model_.description.class_names,
                 source_->frames_per_second(),
                 [this](const std::string& text) { progress_.notice(text); }) {
    if (!options.outputs.summary.empty()) {
      summary_file_.emplace(options.outputs.summary, log->results(), OutputForm::kWhole);
    }
  }

  int run() {
    std::vector<ToolError> failures = failures_of_frames();
    const std::vector<ToolError> of_outputs = outputs_.finish();
    if (of_outputs.empty() && (failures.empty() || input_failed_)) {
      report(&failures);
    }
    failures.insert(failures.end(), of_outputs.begin(), of_outputs.end());
    throw_all(failures);
    return interruption_requested() ? kInterrupted : kDone;
  }

 private:
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
    skip_frames();
    start_ = Clock::now();
    bool ended = false;
    while (!ended && !interruption_requested() && !limit_reached()) {
      ended = !process_next();
      progress_.update(summary_.frames());
    }
    if (ended) {
      check_end();
    }
  }

  void skip_frames() {
    long skipped = 0;
    while (skipped < options_.skip && !interruption_requested() && source_->skip()) {
      ++skipped;
    }
  }

  bool limit_reached() const { return options_.limit > 0 && summary_.frames() >= options_.limit; }

  bool process_next() {
    SourceFrame frame;
    FrameRecord record;
    const auto decoding = Clock::now();
    if (!read(&frame)) {
      return false;
    }
    record.milliseconds.decode = milliseconds_since(decoding);
    record.number = frame.number;
    record.pts = frame.pts;
    record.image_id = frame.image_id;
    record.source = frame.name;
    detect(&frame, &record);
    log_.frame_done();

    const auto writing = Clock::now();
    if (outputs_.needs_picture() && frame.picture.empty()) {
      frame.picture = picture_of_frame(frame.dump, layout_);
    }
    outputs_.write(record, frame.picture);
    summary_.add(record, milliseconds_since(writing));
    last_pts_ = frame.pts;
    return true;
  }

  bool read(SourceFrame* frame) {
    try {
      return source_->next(frame);
    } catch (const ToolError&) {
      input_failed_ = summary_.frames() > 0;
      throw;
    }
  }

  void detect(SourceFrame* frame, FrameRecord* record) {
    const bool is_dump = frame->picture.empty();
    const cv::Size own_size =
        is_dump ? cv::Size(layout_.width, layout_.height) : frame->picture.size();
    const cv::Size display = options_.display.value_or(own_size);
    const cv::Size frame_size(layout_.width, layout_.height);
    // A dumped frame is a picture of its own; where its padding lies is not known.
    const cv::Rect area =
        is_dump ? cv::Rect(cv::Point(), frame_size) : picture_area(layout_, own_size);
    const PaddingRemoval padding(area, frame_size, display);
    open_detector(padding.padded_display());
    record->width = display.width;
    record->height = display.height;
    if (!is_dump) {
      const auto conversion = Clock::now();
      convert_to_frame(frame->picture, layout_, &converted_);
      record->milliseconds.conversion = milliseconds_since(conversion);
    }
    detector_->run(is_dump ? &frame->dump : &converted_, record);
    remove_padding(padding, &record->detections);
    number_tracks(&record->detections);
  }

  void remove_padding(const PaddingRemoval& padding, std::vector<Detection>* detections) const {
    std::vector<Detection> in_picture;
    for (Detection& detection : *detections) {
      if (padding.apply(reported_size_, &detection)) {
        in_picture.push_back(std::move(detection));
      }
    }
    *detections = std::move(in_picture);
  }

  // The library takes the display size once, so another size needs another handle; not with --display, where
  // only the padding of the pictures differs.
  void open_detector(cv::Size display) {
    if (detector_ != nullptr && (options_.display || display == reported_size_)) {
      return;
    }
    if (detector_ != nullptr && tracked()) {
      progress_.notice(
          "the pictures change size; tracking starts again from there. Set "
          "--display to keep the tracks.");
    }
    detector_.reset();  // there is one accelerator device only
    detector_ = std::make_unique<Detector>(detector_options_, display);
    reported_size_ = display;
    first_track_ = last_track_;
    const InputAttr_t input = detector_->input();
    if (input.width != static_cast<QV_U32>(layout_.width) ||
        input.height != static_cast<QV_U32>(layout_.height) || input.format != layout_.format) {
      throw ToolError(kAcceleratorError, options_.detector.model +
                                             ": the accelerator asks for another input than the "
                                             "model's description. Pack the model again");
    }
  }

  // Each handle counts its tracks from 1; a later handle's continue after the last one's.
  void number_tracks(std::vector<Detection>* detections) {
    for (Detection& detection : *detections) {
      if (detection.track_id) {
        *detection.track_id += first_track_;
        last_track_ = std::max(last_track_, *detection.track_id);
      }
    }
  }

  bool tracked() const { return options_.detector.track || options_.detector.strict; }

  void announce() {
    if (options_.detector.from_memory && !model_.text_header.empty() &&
        model_.description.name_pairs.empty()) {
      progress_.notice(options_.detector.model +
                       ": the text before the model is not seen when it is loaded from memory.");
    }
  }

  // Called when the source has no more frames.
  void check_end() {
    if (summary_.frames() == 0) {
      refuse_input(options_.input,
                   "no frame is left after --skip " + std::to_string(options_.skip));
    }
    const std::optional<long> length = source_->length();
    const long read = options_.skip + summary_.frames();
    // A video without a constant rate has fewer frames than its duration makes one think; one that
    // is cut has also not reached its end in time.
    const double reached = static_cast<double>(last_pts_) / 1e6 * source_->frames_per_second() + 1;
    if (length && !reaches_length(std::max(static_cast<double>(read), reached),
                                  static_cast<double>(*length))) {
      const std::string end = options_.input + ": ended after " + std::to_string(read) + " of " +
                              std::to_string(*length) + " frames; ";
      if (source_->is_whole()) {
        progress_.notice(end + "the file is whole, so it counts frames that it does not show.");
        return;
      }
      input_failed_ = true;
      throw ToolError(kInputError, end + "it is damaged or cut");
    }
  }

  void report(std::vector<ToolError>* failures) {
    try {
      write_summary();
    } catch (const ToolError& error) {
      failures->push_back(error);
    }
  }

  void write_summary() {
    progress_.clear();
    RunFacts facts;
    facts.model = options_.detector.model;
    facts.input = options_.input;
    facts.class_names = model_.description.class_names;
    facts.max_boxes = model_.description.decoded.max_boxes;
    facts.tracked = tracked();
    facts.interrupted = interruption_requested();
    facts.expected_frames = source_->length() ? frames_to_come(*source_, options_) : std::nullopt;
    facts.seconds = milliseconds_since(start_) / 1000;
    const bool results_on_screen = uses_standard_output(options_.outputs);
    if (summary_file_) {
      summary_file_->write(summary_.json(facts));
      summary_file_->close();
    }
    if (options_.quiet) {
      return;
    }
    if (results_on_screen) {
      std::fputs(summary_.text(facts).c_str(), stderr);
    } else {
      show_on_screen(summary_.text(facts));
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
  RunLog& log_;
  Model model_;
  DetectorOptions detector_options_;
  FrameLayout layout_;
  std::unique_ptr<FrameSource> source_;
  Progress progress_;
  RunOutputs outputs_;
  RunSummary summary_;
  std::optional<OutputFile> summary_file_;
  std::unique_ptr<Detector> detector_;
  cv::Size reported_size_;         // display size of detector_
  std::uint64_t first_track_ = 0;  // added to the ids of detector_
  std::uint64_t last_track_ = 0;   // highest id so far
  std::vector<unsigned char> converted_;
  std::uint64_t last_pts_ = 0;  // of the last frame, microseconds
  bool input_failed_ = false;   // after the first frame
  Clock::time_point start_;
};

}  // namespace

int run_session(const RunOptions& options) {
  silence_opencv();
  require_separate_files(
      options.outputs, options.log,
      {options.input, options.detector.model, options.detector.firmware, options.platform});
  use_platform(options.platform, options.detector.firmware);
  // Before signals are caught: Ctrl-C ends the trial, too, and nothing is written yet.
  require_harmless_network(options.detector.model, options.detector.model);
  // Outlives the log, which flushes what a closed pipe did not take.
  const Interruption interruption;
  RunLog log(options.log);
  try {
    return Session(options, &log).run();
  } catch (const ToolError& error) {
    // Errors since the last good frame: there are some only if the library took part.
    const std::string lines = log.last_errors();
    if (lines.empty()) {
      throw;
    }
    throw ToolError(error.exit_code(),
                    std::string(error.what()) + "\nThe library's log says:" + lines);
  }
}

}  // namespace olvex_tools
