// SPDX-License-Identifier: Apache-2.0
// player_frames.cpp - Player: one frame, and its comparison with the recorded one.
#include <cstring>

#include "tools/common/text.h"
#include "tools/inside/last_output.h"
#include "tools/replay/player.h"
#include "tools/replay/recorded_platform.h"

namespace olvex_tools {

namespace {

std::vector<LargeBox> boxes_of(const RecordedFrame& frame) {
  std::vector<LargeBox> boxes = frame.large_boxes;
  for (const SmallBox& box : frame.boxes) {
    boxes.push_back({box.x, box.y, box.width, box.height, box.class_id, box.score});
  }
  return boxes;
}

// By its bits, as NaNs and zeros of both signs are told apart.
std::uint32_t bits_of(float value) {
  std::uint32_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

std::string real_text(float value) {
  return format("%.9g (0x%08x)", static_cast<double>(value), bits_of(value));
}

struct BoxField {
  const char* name;
  QV_U32 LargeBox::*recorded;
  QV_U32 Box_t::*played;
};

const BoxField kBoxFields[] = {{"x", &LargeBox::x, &Box_t::x},
                               {"y", &LargeBox::y, &Box_t::y},
                               {"width", &LargeBox::width, &Box_t::width},
                               {"height", &LargeBox::height, &Box_t::height},
                               {"class", &LargeBox::class_id, &Box_t::class_id}};

bool ran_network(const RecordedFrame& frame) {
  for (const RecordedPlatformCall& call : frame.calls) {
    if (call.function == RECORDING_INVOKE) {
      return call.result == 0;
    }
  }
  return false;
}

// The boxes of such frames are not to be had: an exception left them, their outputs were left out, or the
// picture could not be dumped, which comes before all that the library keeps.
bool cannot_be_played(const RecordedFrame& frame) {
  const bool has_outputs = (frame.flags & RECORDING_FRAME_INVOKED) != 0;
  return (frame.flags & RECORDING_FRAME_UNFINISHED) != 0 || frame.result == E_ALGO_FILEIO_ERROR ||
         (ran_network(frame) && !has_outputs);
}

}  // namespace

void Player::note_lost_frames(const RecordedFrame& frame) {
  const bool is_first = frame_numbers_.begin()->first == frame.number;
  const bool follows = frame_numbers_.count(frame.number - 1) != 0;
  // In front of the first one, the calls in force say what is known.
  if (frame.lost == 0 && (is_first || follows)) {
    return;
  }
  for (auto& [number, handle] : handles_) {
    handle.state.lose(handle.had_tracker);
  }
}

void Player::play_frame(const RecordedFrame& frame) {
  note_lost_frames(frame);
  PlayedHandle* const handle = find(frame.handle);
  if (handle == nullptr || cannot_be_played(frame)) {
    ++result_.left_out;
    if (handle != nullptr && frame.result != E_ALGO_FILEIO_ERROR) {
      handle->state.lose(handle->had_tracker);
    }
    return;
  }
  unsigned char picture = 0;  // its address stands for the frame's: nothing reads it
  ALGO_Input_t input = {};
  input.p_vir_addr = (frame.flags & RECORDING_FRAME_NULL_ADDRESS) != 0 ? nullptr : &picture;
  input.buf_size = frame.buf_size;
  input.pts = frame.pts;
  std::vector<Box_t> boxes(ALGO_DET_MAX_BOXES);
  QV_S32 count = 0;
  QV_S32 result = 0;
  const auto differences =
      run(frame.thread, frame.handle, platform_calls_of(recording_, frame, handle->network),
          [&] { result = ALGO_DET_Run(handle->handle, &input, boxes.data(), &count); });
  boxes.resize(static_cast<std::size_t>(result == 0 ? count : 0));
  handle->frames++;
  if (frame.number >= options_.from) {
    compare_frame(frame, *handle, result, boxes, differences);
    if (options_.on_frame && result == 0) {
      hand_over(frame, *handle, boxes);
    }
  }
  if (frame.result == 0) {
    handle->state.see(handle->settings, frame.empty_frames);
  }
}

void Player::compare_frame(const RecordedFrame& frame, const PlayedHandle& handle, QV_S32 result,
                           const std::vector<Box_t>& boxes,
                           const std::vector<qv_replay::Difference>& differences) {
  ReplayDifference where;
  where.frame = frame.number;
  where.call = frame.call;
  where.function = function_name(RECORDING_RUN);
  ++result_.frames;
  differ(where, differences);
  if (result != frame.result) {
    differ(where, "result", "result", std::to_string(frame.result), std::to_string(result));
  } else if (!handle.state.is_enough_for(handle.settings)) {
    ++result_.partly;
  } else {
    compare_boxes(frame, where, boxes);
  }
}

void Player::compare_boxes(const RecordedFrame& frame, const ReplayDifference& where,
                           const std::vector<Box_t>& boxes) {
  const std::vector<LargeBox> recorded = boxes_of(frame);
  if (recorded.size() != boxes.size()) {
    differ(where, "number of boxes", "number of boxes", std::to_string(recorded.size()),
           std::to_string(boxes.size()));
    return;
  }
  for (std::size_t k = 0; k < boxes.size(); ++k) {
    const std::string box = "box " + std::to_string(k + 1) + " ";
    for (const BoxField& field : kBoxFields) {
      if (recorded[k].*field.recorded != boxes[k].*field.played) {
        differ(where, std::string("box ") + field.name, box + field.name,
               std::to_string(recorded[k].*field.recorded), std::to_string(boxes[k].*field.played));
      }
    }
    if (bits_of(recorded[k].score) != bits_of(boxes[k].score)) {
      differ(where, "box score", box + "score", real_text(recorded[k].score),
             real_text(boxes[k].score));
    }
    if (boxes[k].pts != frame.pts) {
      differ(where, "box pts", box + "pts", std::to_string(frame.pts),
             std::to_string(boxes[k].pts));
    }
  }
}

void Player::hand_over(const RecordedFrame& frame, const PlayedHandle& handle,
                       const std::vector<Box_t>& boxes) {
  PlayedFrame played;
  played.handle = frame.handle;
  played.of_handle = handle.frames;
  played.time = frame.begin + recording_.about.realtime - recording_.about.monotonic;
  if (handle.network != nullptr && !handle.network->inputs.empty()) {
    played.input_height = handle.network->inputs.front().shape[1];
    played.input_width = handle.network->inputs.front().shape[2];
  }
  FrameRecord& record = played.record;
  record.number = frame.number;
  record.image_id = frame.number;
  record.pts = frame.pts;
  record.source = recording_.name;
  record.width = static_cast<int>(handle.width);
  record.height = static_cast<int>(handle.height);
  for (const Box_t& box : boxes) {
    Detection detection;
    detection.x = box.x;
    detection.y = box.y;
    detection.width = box.width;
    detection.height = box.height;
    detection.class_id = box.class_id;
    detection.score = box.score;
    record.detections.push_back(detection);
  }
  const HandleSettings& settings =
      options_.changes.change_tracking() ? handle.changed : handle.settings;
  record.cut_boxes =
      add_last_output(handle.handle, settings.track || settings.strict, &record.detections);
  options_.on_frame(played);
}

}  // namespace olvex_tools
