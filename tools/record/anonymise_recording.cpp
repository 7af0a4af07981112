// SPDX-License-Identifier: Apache-2.0
// anonymise_recording.cpp - a recording that plays as before, without what tells where, when and of what it was made.
#include <algorithm>
#include <optional>

#include "tools/common/text.h"
#include "tools/record/record.h"

namespace olvex_tools {

namespace {

// What the library itself uses where the application names no firmware.
constexpr char kDefaultFirmware[] = "/config/dla/ipu_firmware.bin";
constexpr std::size_t kShortestModel = 4;

// The pairs that decide what the library does. Where there were others, a meaningless one stands for them: pairs
// in a tensor's name replace those of the model.
std::string deciding_pairs(const std::string& text) {
  std::string pairs;
  std::string entry;
  for (const char letter : text + ";") {
    if (letter != ';' && letter != '\n') {
      entry += letter;
      continue;
    }
    const std::string key = entry.substr(0, entry.find(':'));
    if (key == "model_out" || key == "lib_out") {
      pairs += entry + ";";
    } else if (entry.find(':') != std::string::npos && pairs.empty()) {
      pairs = "-:-;";
    }
    entry.clear();
  }
  return pairs;
}

class Anonymiser {
 public:
  explicit Anonymiser(const Recording& recording)
      : recording_(recording), start_(recording.about.monotonic), first_pts_(UINT64_MAX) {
    for (std::size_t k = 0; k < recording.frames.size(); ++k) {
      first_pts_ = std::min(first_pts_, recording.frame(k).pts);
    }
  }

  // Nothing where a message is left out.
  std::optional<MessageToWrite> operator()(const ContainedMessage& message) const {
    MessageToWrite written = message_to_write(recording_, message);
    written.publish_time = since_start(message.publish_time);
    written.log_time = written.publish_time;
    switch (message.channel) {
      case RECORDING_ABOUT:
        return changed<RecordingAbout>(std::move(written));
      case RECORDING_MODEL:
        return changed<RecordedModel>(std::move(written));
      case RECORDING_NETWORK:
        return changed<RecordedNetwork>(std::move(written));
      case RECORDING_CALL:
        return changed<RecordedCall>(std::move(written));
      case RECORDING_FRAME:
        return changed<RecordedFrame>(std::move(written));
      case RECORDING_EVENT:
        return changed<RecordedEvent>(std::move(written));
      default:  // pictures, and annotations, which hold times of their own
        return std::nullopt;
    }
  }

 private:
  std::uint64_t since_start(std::uint64_t time) const { return time > start_ ? time - start_ : 0; }

  template <typename Message>
  MessageToWrite changed(MessageToWrite written) const {
    auto message = unpack_message<Message>(written.data.data(), written.data.size());
    change(&message);
    written.data = pack_message(message);
    return written;
  }

  void change(RecordingAbout* about) const {
    about->machine.clear();
    about->library_id.clear();
    about->hwcap = about->hwcap2 = 0;
    about->environment.clear();
    about->monotonic = about->realtime = 0;
  }
  static void change(RecordedModel* model) {
    model->sha256.clear();
    model->header = deciding_pairs(model->header);
    model->bytes = model->bytes < kShortestModel ? model->bytes : 0;
  }
  static void change(RecordedNetwork* network) {
    for (auto* tensors : {&network->inputs, &network->outputs}) {
      for (RecordedTensor& tensor : *tensors) {
        tensor.name = deciding_pairs(tensor.name);
      }
    }
  }
  void change(RecordedCall* call) const {
    call->begin = since_start(call->begin);
    call->end = since_start(call->end);
    for (std::string& text : call->texts) {
      text = text.empty() || text == kDefaultFirmware ? text : "file";
    }
  }
  void change(RecordedFrame* frame) const {
    frame->begin = since_start(frame->begin);
    frame->pts -= first_pts_;
    frame->input_crc = 0;
    frame->flags &= static_cast<std::uint8_t>(~RECORDING_FRAME_INPUT_CRC);
  }
  // What the application gave as its reason stands behind a colon.
  void change(RecordedEvent* event) const {
    event->time = since_start(event->time);
    event->text = event->text.substr(0, event->text.find(':'));
  }

  const Recording& recording_;
  std::uint64_t start_;
  std::uint64_t first_pts_;
};

}  // namespace

void write_anonymised(const Recording& recording, const std::string& path) {
  const Anonymiser anonymise(recording);
  RecordingWriter writer(path);
  for (const ContainedChunk& chunk : recording.container.chunks) {
    std::vector<MessageToWrite> messages;
    for (const ContainedMessage& message : chunk.messages) {
      if (std::optional<MessageToWrite> written = anonymise(message)) {
        messages.push_back(std::move(*written));
      }
    }
    writer.add_chunk(messages);
  }
  writer.finish();
}

}  // namespace olvex_tools
