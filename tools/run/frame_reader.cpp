// SPDX-License-Identifier: Apache-2.0
// frame_reader.cpp - chooses frames, and tells an input that is cut from one that ends. Declared in
// frame_reader.h.
#include "tools/run/frame_reader.h"

#include <algorithm>
#include <utility>

#include "tools/common/command.h"
#include "tools/common/interruption.h"

namespace olvex_tools {

FrameReader::FrameReader(const std::vector<RunInput>& inputs, const FrameLayout& layout,
                         const Settings& settings)
    : inputs_(inputs), layout_(layout), settings_(settings), parts_(inputs.size()) {
  if (settings_.selection.shards > 1) {
    plan_shard();
  }
  open(0);
  const long limit = settings_.selection.limit;
  if (inputs_.size() == 1 && settings_.selection.shards == 1 && !settings_.selection.start) {
    expected_ = chosen_frames();
  }
  is_stated_ = expected_.has_value();
  if (limit > 0 && settings_.selection.shards == 1) {
    expected_ = expected_ ? std::min(*expected_, limit) : limit;
  }
}

void FrameReader::open(std::size_t input) {
  source_ = open_run_input(inputs_[input], layout_, settings_.picture_rate, settings_.timeout);
  if (!inputs_[input].remark.empty()) {
    notices_.push_back(inputs_[input].remark);
  }
  current_ = input;
  is_begun_ = false;
  taken_ = 0;
}

// How many frames the open source has from the place on that seek_start() led to, or leads to, as far as it
// says.
std::optional<long> FrameReader::chosen_frames() const {
  const FrameSelection& selection = settings_.selection;
  const std::optional<long> length = source_->length();
  if (!length || selection.duration) {
    return std::nullopt;
  }
  const long left = std::max(0L, *length - std::max(source_->position(), selection.skip));
  return (left + selection.every - 1) / selection.every;
}

void FrameReader::seek_start() {
  const FrameSelection& selection = settings_.selection;
  if (selection.start) {
    source_->skip_until(*selection.start);
  } else if (selection.skip > 0) {
    source_->skip_many(selection.skip);
  }
}

// Deliberate: a video's own statement of its length divides it, so each part counts alike, right or wrong; what
// it holds beyond is the last part's.
void FrameReader::plan_shard() {
  const FrameSelection& selection = settings_.selection;
  std::vector<long> counts;
  long total = 0;
  for (std::size_t i = 0; i < inputs_.size(); ++i) {
    open(i);
    seek_start();
    const std::optional<long> count = chosen_frames();
    if (!count) {
      refuse_input(inputs_[i].shown, "its length is not known, so it cannot be divided by --shard");
    }
    counts.push_back(*count);
    total += *count;
  }
  const bool is_limited = selection.limit > 0 && selection.limit <= total;
  total = is_limited ? selection.limit : total;
  const long from = total * (selection.shard - 1) / selection.shards;
  const long to = total * selection.shard / selection.shards;
  if (from == to) {
    refuse_input(inputs_.front().shown,
                 "there are fewer frames than shards, and none is left for --shard " +
                     std::to_string(selection.shard) + "/" + std::to_string(selection.shards));
  }
  settings_.selection.limit = 0;
  expected_ = to - from;
  notices_.clear();  // the inputs are opened again
  long before = 0;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    Part& part = parts_[i];
    part.first = std::clamp(from - before, 0L, counts[i]);
    part.end = std::clamp(to - before, 0L, counts[i]);
    before += counts[i];
    if (*part.end == counts[i] && part.first < counts[i] && !is_limited) {
      part.end.reset();
    }
  }
}

void FrameReader::begin() {
  if (parts_[current_].end && *parts_[current_].end <= parts_[current_].first) {
    is_begun_ = true;  // nothing of this input is wanted
    return;
  }
  seek_start();
  source_->skip_many(parts_[current_].first * settings_.selection.every);
  is_begun_ = true;
}

bool FrameReader::is_past_end() const {
  const Part& part = parts_[current_];
  const long limit = settings_.selection.limit;
  return (limit > 0 && taken_in_all_ >= limit) || (part.end && part.first + taken_ >= *part.end);
}

bool FrameReader::next(SourceFrame* frame) {
  for (;;) {
    if (!is_begun_) {
      begin();
    }
    if (interruption_requested()) {
      return false;
    }
    if (!is_past_end() && take(frame)) {
      return true;
    }
    const long limit = settings_.selection.limit;
    if (current_ + 1 == inputs_.size() || interruption_requested() ||
        (limit > 0 && taken_in_all_ >= limit)) {
      return false;
    }
    open(current_ + 1);
  }
}

bool FrameReader::take(SourceFrame* frame) {
  const FrameSelection& selection = settings_.selection;
  if (taken_ > 0) {
    source_->skip_many(selection.every - 1);
  }
  if (interruption_requested()) {
    return false;  // in the middle of those that are left out
  }
  if (!source_->next(frame)) {
    check_end();
    return false;
  }
  if (taken_ == 0) {
    first_pts_ = last_pts_ = frame->pts;
  }
  if (selection.duration && frame->pts - first_pts_ >= *selection.duration) {
    return false;
  }
  last_pts_ = std::max(last_pts_, frame->pts);
  ++taken_;
  ++taken_in_all_;
  return true;
}

// Called when the source has no more frames.
void FrameReader::check_end() {
  if (taken_ == 0) {
    const std::string message = "no frame is left after " + settings_.selection.start_text;
    if (taken_in_all_ == 0 && current_ + 1 == inputs_.size()) {
      refuse_input(inputs_[current_].shown, message);
    }
    notices_.push_back(inputs_[current_].shown + ": " + message + ".");
    return;
  }
  check_length();
}

void FrameReader::check_length() {
  const std::optional<long> length = source_->length();
  const long read = source_->position();
  // A video without a constant rate has fewer frames than its duration makes one think; one that
  // is cut has also not reached its end in time.
  const double reached = static_cast<double>(last_pts_) / 1e6 * source_->frames_per_second() + 1;
  if (!length ||
      reaches_length(std::max(static_cast<double>(read), reached), static_cast<double>(*length))) {
    return;
  }
  const std::string end = inputs_[current_].shown + ": ended after " + std::to_string(read) +
                          " of " + std::to_string(*length) + " frames; ";
  if (!source_->is_whole()) {
    throw ToolError(kInputError, end + "it is damaged or cut");
  }
  notices_.push_back(end + "the file is whole, so it counts frames that it does not show.");
}

std::vector<std::string> FrameReader::take_notices() {
  return std::exchange(notices_, {});
}

}  // namespace olvex_tools
