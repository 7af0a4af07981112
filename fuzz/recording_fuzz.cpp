// SPDX-License-Identifier: Apache-2.0
// recording_fuzz.cpp - recordings. The first byte of an input chooses: even: a file as it is, or, where 4 does not divide
// the byte, what follows the head of one, read up to its first damage and with all that can be recovered; odd:
// messages within a sound container, each a byte for its channel and two for its size, which are played through the
// library where a reader accepts them.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "tools/common/command.h"
#include "tools/recordings/container.h"
#include "tools/recordings/frame_outputs.h"
#include "tools/recordings/recording.h"
#include "tools/replay/replay.h"

namespace {

using namespace olvex_tools;

constexpr std::size_t kMostOutput = 1u << 20;  // bytes that a fuzzer has time for

void append(Bytes* bytes, std::uint64_t value, std::size_t size) {
  for (std::size_t k = 0; k < size; ++k) {
    bytes->push_back(static_cast<unsigned char>(k < sizeof value ? value >> (8 * k) : 0));
  }
}

void append_text(Bytes* bytes, const std::string& text) {
  append(bytes, text.size(), 4);
  bytes->insert(bytes->end(), text.begin(), text.end());
}

void append_record(Bytes* bytes, unsigned number, const Bytes& contents) {
  append(bytes, number, 1);
  append(bytes, contents.size(), 8);
  bytes->insert(bytes->end(), contents.begin(), contents.end());
}

Bytes definition(std::uint16_t channel, bool is_schema) {
  const recording_schema& schema = recording_schemas[channel - 1];
  Bytes bytes;
  append(&bytes, channel, 2);
  if (is_schema) {
    append_text(&bytes, schema.name);
    append_text(&bytes, "ros1msg");
    append_text(&bytes, schema.text);
  } else {
    append(&bytes, channel, 2);
    append_text(&bytes, schema.topic);
    append_text(&bytes, "ros1");
    append(&bytes, 0, 4);
  }
  return bytes;
}

const Bytes& head() {
  static const Bytes bytes = [] {
    const std::string magic = RECORDING_MAGIC;
    Bytes made(magic.begin(), magic.end());
    Bytes header;
    append_text(&header, "");
    append_text(&header, "olvex_recorder 1");
    append_record(&made, RECORDING_HEADER, header);
    for (std::uint16_t channel = 1; channel <= RECORDING_CHANNELS; ++channel) {
      append_record(&made, RECORDING_SCHEMA, definition(channel, true));
      append_record(&made, RECORDING_CHANNEL, definition(channel, false));
    }
    return made;
  }();
  return bytes;
}

// One chunk with what the input says.
Bytes sound_file(FuzzInput input) {
  Bytes records;
  while (!input.empty()) {
    Bytes message;
    append(&message, input.byte() % RECORDING_CHANNELS + 1, 2);
    append(&message, 0, 20);
    for (const char byte : input.text(65535)) {
      message.push_back(static_cast<unsigned char>(byte));
    }
    append_record(&records, RECORDING_MESSAGE, message);
  }
  Bytes chunk;
  append(&chunk, 0, 16);
  append(&chunk, records.size(), 8);
  append(&chunk, crc32_of(records.data(), records.size()), 4);
  append(&chunk, 0, 4);
  append(&chunk, records.size(), 8);
  chunk.insert(chunk.end(), records.begin(), records.end());
  Bytes bytes = head();
  append_record(&bytes, RECORDING_CHUNK, chunk);
  return bytes;
}

template <typename Message>
void check_round_trip(const Recording& recording, const ContainedMessage& message) {
  const unsigned char* const data = recording.bytes.data() + message.offset;
  FUZZ_CHECK(pack_message(unpack_message<Message>(data, message.size)) ==
             Bytes(data, data + message.size));
}

// Whether the networks are small enough to be filled.
bool check_networks(const Recording& recording) {
  std::size_t all = 0;
  for (const auto& [call, network] : recording.networks) {
    try {
      const std::vector<std::size_t> sizes = output_sizes(network);
      for (const std::size_t size : sizes) {
        all += size;
      }
      if (all > kMostOutput) {
        return false;
      }
      for (std::size_t k = 0; k < recording.frames.size(); ++k) {
        const std::vector<Bytes> outputs = whole_outputs(recording.frame(k), network);
        for (std::size_t n = 0; n < outputs.size(); ++n) {
          FUZZ_CHECK(outputs[n].empty() || outputs[n].size() == sizes[n]);
        }
      }
    } catch (const OutputFault& fault) {
      FUZZ_CHECK(!fault.what.empty());
    }
  }
  return true;
}

void check_recording(const Recording& recording) {
  for (const Damage& damage : recording.container.damages) {
    FUZZ_CHECK(damage.offset <= recording.bytes.size() && !damage.what.empty());
  }
  for (const ContainedMessage& message : recording.frames) {
    check_round_trip<RecordedFrame>(recording, message);
  }
  check_round_trip<RecordingAbout>(recording, recording.container.chunks.empty()
                                                  ? ContainedMessage()
                                                  : recording.container.chunks[0].messages[0]);
}

void read_and_play(const Bytes& bytes, Recovery recovery) {
  try {
    const Recording recording = read_recording("input", bytes, recovery);
    if (!recording.container.chunks.empty()) {
      check_recording(recording);
    }
    if (check_networks(recording)) {
      play(recording, PlayOptions());
    }
  } catch (const ToolError& error) {
    FUZZ_CHECK(error.exit_code() == kInputError);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool is_silent = (discard_standard_output(), true);
  FuzzInput input(data, is_silent ? size : 0);
  const unsigned choice = input.byte() % 4;
  if (choice % 2 == 0) {
    const std::string rest = input.rest();
    Bytes bytes = choice == 0 ? Bytes() : head();
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    for (const Recovery recovery : {Recovery::kNone, Recovery::kAll}) {
      read_and_play(bytes, recovery);
    }
  } else {
    read_and_play(sound_file(input), Recovery::kNone);
  }
  return 0;
}
