// SPDX-License-Identifier: Apache-2.0
// messages.h - the messages of a recording as records, and their bytes. docs/recordings.md explains the fields,
// recorder/recording_schemas.c has their order. container.h finds messages in a file.
#ifndef TOOLS_RECORDINGS_MESSAGES_H
#define TOOLS_RECORDINGS_MESSAGES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "recorder/recording_format.h"

namespace olvex_tools {

using Bytes = std::vector<unsigned char>;

struct RecordSize {
  std::string name;
  std::uint32_t bytes = 0;
};

struct RecordingAbout {
  std::uint32_t format = RECORDING_FORMAT;
  std::uint32_t part = 0;
  std::string recorder;
  std::string library;
  std::string library_id;
  std::string machine;
  std::uint32_t pointer_bytes = 0;
  std::uint64_t hwcap = 0;
  std::uint64_t hwcap2 = 0;
  std::vector<RecordSize> records;
  std::vector<std::string> environment;
  std::uint64_t monotonic = 0;  // nanoseconds
  std::uint64_t realtime = 0;   // nanoseconds since 1970, at the same moment
  std::uint32_t ring_bytes = 0;
  float floor = 0.0f;
  std::uint32_t whole_every = 0;
  std::uint64_t lost_frames = 0;
  std::uint64_t lost_calls = 0;
  std::uint8_t carried_complete = 0;
};

struct RecordedModel {
  std::uint32_t call = 0;
  std::uint64_t bytes = 0;
  Bytes sha256;
  std::string header;
};

struct RecordedTensor {
  std::uint32_t dimensions = 0;
  std::uint32_t format = 0;
  std::array<std::uint32_t, 10> shape = {};
  std::string name;
  std::uint32_t innermost_stride = 0;
  float scale = 0.0f;
  std::int64_t zero_point = 0;
  std::int32_t aligned_bytes = 0;
  std::uint32_t bytes = 0;
  std::uint32_t width_alignment = 0;
  std::uint32_t height_alignment = 0;
  std::uint32_t layout = 0;
};

struct RecordedNetwork {
  std::uint32_t call = 0;
  std::uint32_t channel = 0;
  std::uint32_t input_count = 0;
  std::uint32_t output_count = 0;
  std::vector<RecordedTensor> inputs;
  std::vector<RecordedTensor> outputs;
};

struct RecordedCall {
  std::uint8_t function = 0;
  std::uint8_t flags = 0;
  std::uint16_t thread = 0;
  std::uint32_t call = 0;
  std::uint32_t outer = 0;
  std::uint32_t handle = 0;
  std::uint32_t channel = 0;
  std::uint32_t frames = 0;
  std::int32_t result = 0;
  std::uint64_t begin = 0;  // nanoseconds, monotonic
  std::uint64_t end = 0;
  std::vector<std::uint32_t> words;
  std::vector<std::string> texts;
};

struct RecordedPlatformCall {
  std::uint8_t function = 0;
  std::int32_t result = 0;
  std::uint32_t begin = 0;     // microseconds after the frame's
  std::uint32_t duration = 0;  // microseconds
  std::uint32_t word = 0;
};

struct RecordedOutput {
  std::uint8_t encoding = 0;
  std::uint8_t classes = 0;
  Bytes data;
};

template <typename Whole, typename Class>
struct BoxOf {
  Whole x = 0;
  Whole y = 0;
  Whole width = 0;
  Whole height = 0;
  Class class_id = 0;
  float score = 0.0f;
};
using SmallBox = BoxOf<std::uint16_t, std::uint8_t>;
using LargeBox = BoxOf<std::uint32_t, std::uint32_t>;

struct RecordedFrame {
  std::uint32_t number = 0;
  std::uint32_t call = 0;
  std::uint16_t handle = 0;
  std::uint16_t thread = 0;
  std::uint8_t flags = 0;
  std::int32_t result = 0;
  std::uint64_t begin = 0;     // nanoseconds, monotonic
  std::uint32_t duration = 0;  // microseconds
  std::uint64_t pts = 0;
  std::uint32_t buf_size = 0;
  std::uint32_t input_crc = 0;
  std::uint32_t lost = 0;
  float floor = 0.0f;
  std::uint32_t empty_frames = 0;
  std::vector<RecordedPlatformCall> calls;
  std::vector<RecordedOutput> outputs;
  std::vector<SmallBox> boxes;
  std::vector<LargeBox> large_boxes;
};

struct RecordedEvent {
  std::uint8_t kind = 0;
  std::uint64_t time = 0;  // nanoseconds, monotonic
  std::uint64_t lost_frames = 0;
  std::uint64_t lost_calls = 0;
  std::uint32_t failures = 0;
  std::string text;
};

struct RecordedPicture {
  std::uint32_t number = 0;
  std::uint32_t x = 0;  // of the part that is there
  std::uint32_t y = 0;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t format = 0;
  Bytes data;
};

// ---- For viewers: the definitions of foxglove_msgs -------------------------------------------------------

struct ViewerTime {
  std::uint32_t seconds = 0;  // since 1970
  std::uint32_t nanoseconds = 0;
};

struct ViewerPoint {
  double x = 0;
  double y = 0;
};

struct ViewerColour {
  double red = 0;
  double green = 0;
  double blue = 0;
  double opacity = 0;
};

struct ViewerPair {
  std::string key;
  std::string value;
};

struct ViewerCircle {
  ViewerTime time;
  ViewerPoint position;
  double diameter = 0;
  double thickness = 0;
  ViewerColour fill;
  ViewerColour outline;
  std::vector<ViewerPair> metadata;
};

struct ViewerPoints {
  ViewerTime time;
  std::uint8_t type = 4;  // every two points are a line
  std::vector<ViewerPoint> points;
  ViewerColour outline;
  std::vector<ViewerColour> outlines;
  ViewerColour fill;
  double thickness = 0;
  std::vector<ViewerPair> metadata;
};

struct ViewerText {
  ViewerTime time;
  ViewerPoint position;
  std::string text;
  double font_size = 0;
  ViewerColour colour;
  ViewerColour background;
  std::vector<ViewerPair> metadata;
};

struct ImageAnnotations {
  ViewerTime time;
  std::vector<ViewerCircle> circles;
  std::vector<ViewerPoints> points;
  std::vector<ViewerText> texts;
  std::vector<ViewerPair> metadata;
};

struct CompressedImage {
  ViewerTime time;
  std::string frame_id;
  Bytes data;
  std::string format;
};

// What is wrong with a message, and at which of its bytes. recording.cpp makes errors for the user of it.
struct MessageFault {
  std::size_t offset;
  std::string what;
};

// The message that the bytes hold, all of them. Throws MessageFault. Message: one of the records above.
template <typename Message>
Message unpack_message(const unsigned char* bytes, std::size_t size);

template <typename Message>
Bytes pack_message(const Message& message);

}  // namespace olvex_tools

#endif  // TOOLS_RECORDINGS_MESSAGES_H
