// SPDX-License-Identifier: Apache-2.0
// engine.cpp - conversion, the library's handle, and boxes in the picture's own coordinates. Declared in engine.h.
#include "tools/run/engine.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "tools/common/command.h"

namespace olvex_tools {

bool depends_on_order(const DetectorOptions& options) {
  // Frames are dumped under the time at which they come.
  const bool dumps = std::getenv("QK_ALGO_S") != nullptr;
  return options.track || options.strict || options.stable || dumps;
}

void convert_job(const EngineSettings& settings, FrameJob* job) {
  const FrameLayout& layout = settings.layout;
  const bool is_dump = job->frame.picture.empty();
  const cv::Size frame_size(layout.width, layout.height);
  const cv::Size own_size = is_dump ? frame_size : job->frame.picture.size();
  job->display = settings.display.value_or(own_size);
  // A dumped frame is a picture of its own; where its padding lies is not known.
  job->area = is_dump ? cv::Rect(cv::Point(), frame_size) : picture_area(layout, own_size);
  job->record.width = job->display.width;
  job->record.height = job->display.height;
  if (is_dump) {
    return;
  }
  const Clock::time_point start = Clock::now();
  convert_to_frame(job->frame.picture, layout, &job->converted);
  job->record.milliseconds.conversion = milliseconds_between(start, Clock::now());
  if (!settings.keeps_pictures) {
    job->frame.picture.release();
  }
}

std::shared_ptr<Detector> DetectorPool::make(cv::Size display, std::shared_ptr<Detector> former) {
  const std::lock_guard<std::mutex> lock(mutex_);
  former.reset();
  DetectorOptions options = settings_.detector;
  if (settings_.engines == 1) {
    owner_.reset();  // with another size, the device is another one's
  }
  options.shares_device = owner_ != nullptr;
  auto made = std::make_shared<Detector>(options, display);
  if (owner_ == nullptr) {
    owner_ = made;
  }
  return made;
}

void Engine::detect(FrameJob* job) {
  const std::shared_lock<std::shared_mutex> lines = log_.hold();
  try {
    run(job);
  } catch (const ToolError& error) {
    // Errors since the last good frame: there are some only if the library took part.
    const std::string said = log_.last_errors();
    throw ToolError(error.exit_code(),
                    error.what() + (said.empty() ? "" : "\nThe library's log says:" + said));
  }
}

void Engine::run(FrameJob* job) {
  start_input(job->input);
  const PaddingRemoval padding(job->area, cv::Size(settings_.layout.width, settings_.layout.height),
                               job->display);
  open_detector(padding.padded_display(), job);
  FrameRecord& record = job->record;
  detector_->run(job->converted.empty() ? &job->frame.dump : &job->converted, &record);
  remove_padding(padding, &record.detections);
  number_tracks(&record.detections);
  for (const Detection& detection : record.detections) {
    if (settings_.blurred.count(detection.class_id) != 0) {
      record.blurred.push_back(detection.corners);
    }
  }
  const std::set<std::uint32_t>& classes = settings_.classes;
  record.detections.erase(std::remove_if(record.detections.begin(), record.detections.end(),
                                         [&](const Detection& detection) {
                                           return !classes.empty() &&
                                                  classes.count(detection.class_id) == 0;
                                         }),
                          record.detections.end());
}

// What was tracked in one input is not in the next.
void Engine::start_input(std::size_t input) {
  if (input_ != input && detector_ != nullptr && depends_on_order(settings_.detector)) {
    detector_ = pool_.make(reported_size_, std::move(detector_));
    last_track_ = settings_.ids_restart ? 0 : last_track_;
    first_track_ = last_track_;
  }
  input_ = input;
}

void Engine::remove_padding(const PaddingRemoval& padding,
                            std::vector<Detection>* detections) const {
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
void Engine::open_detector(cv::Size display, FrameJob* job) {
  if (detector_ != nullptr && (settings_.display || display == reported_size_)) {
    return;
  }
  if (detector_ != nullptr && tracked()) {
    job->notices.push_back(
        "the pictures change size; tracking starts again from there. Set "
        "--display to keep the tracks.");
  }
  detector_ = pool_.make(display, std::move(detector_));
  reported_size_ = display;
  first_track_ = last_track_;
  const InputAttr_t input = detector_->input();
  if (input.width != static_cast<QV_U32>(settings_.layout.width) ||
      input.height != static_cast<QV_U32>(settings_.layout.height) ||
      input.format != settings_.layout.format) {
    throw ToolError(kAcceleratorError, settings_.detector.model +
                                           ": the accelerator asks for another input than the "
                                           "model's description. Pack the model again");
  }
}

// Each handle counts its tracks from 1; a later handle's continue after the last one's.
void Engine::number_tracks(std::vector<Detection>* detections) {
  for (Detection& detection : *detections) {
    if (detection.track_id) {
      *detection.track_id += first_track_;
      last_track_ = std::max(last_track_, *detection.track_id);
    }
  }
}

}  // namespace olvex_tools
