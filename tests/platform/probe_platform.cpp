// SPDX-License-Identifier: Apache-2.0
// probe_platform.cpp - computes the probe network from frames, and gives it to the scripted accelerator when the
// library is loaded. OLVEX_PROBE_INPUT is the frames' format (NV12), OLVEX_PROBE_OUTPUT the elements' (INT16).
#include "tests/platform/probe_platform.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/scripted/qv_scripted.h"

extern "C" {
#include "platform/check/probe.h"
}

namespace probe_platform {

namespace {

using qv_scripted::Bytes;
using qv_scripted::Frame;

constexpr float kScales[PROBE_LAYERS] = {1.f / 64, 1.f / 64, 1.f / 16};
constexpr int kZeroPoint = 1000;

std::string setting(const char* name, const char* usual) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : usual;
}

QV_IPU_ELEMENT_FORMAT input_format() {
  const std::string word = setting("OLVEX_PROBE_INPUT", "NV12");
  return word == "ARGB8888"   ? QV_IPU_FORMAT_ARGB8888
         : word == "ABGR8888" ? QV_IPU_FORMAT_ABGR8888
         : word == "U8"       ? QV_IPU_FORMAT_U8
                              : QV_IPU_FORMAT_NV12;
}

// What is asked for each element, looked up once.
const QV_IPU_ELEMENT_FORMAT kInput = input_format();
const bool kIsInt16 = setting("OLVEX_PROBE_OUTPUT", "INT16") == "INT16";
const bool kMixesTypes = has_fault("mixed-types");
const bool kExchangesColours = has_fault("exchanged-colours");
const bool kReadsDenseFrames = has_fault("dense-frames");
const bool kReadsOtherPlane = has_fault("other-second-plane");
const bool kIsSigmoid = has_fault("sigmoid");
const bool kIsRectifier = has_fault("rectifier");
const bool kIsShifted = has_fault("zero-point") || has_fault("silent-zero-point");
const bool kWraps = has_fault("wraps");

bool is_int16(unsigned layer) {
  return kIsInt16 && !(kMixesTypes && layer == 1);
}

std::size_t round_up(std::size_t size, std::size_t multiple) {
  return (size + multiple - 1) / multiple * multiple;
}

// Where the values of a layer are in its buffer, in bytes.
struct Places {
  std::size_t element, cell, row, channel, size;

  explicit Places(unsigned layer) : element(is_int16(layer) ? 2 : 4) {
    const unsigned rows = kProbeLayers[layer].rows;
    const unsigned columns = kProbeLayers[layer].columns;
    if (has_fault("planes")) {
      cell = element;
      row = columns * cell;
      channel = row * rows;
      size = channel * PROBE_CHANNELS;
      return;
    }
    channel = element;
    cell = round_up(PROBE_CHANNELS * element, has_fault("padded-cells") ? 32 : 1);
    row = round_up(columns * cell, has_fault("padded-rows") ? 64 : 1);
    size = row * rows;
  }
};

// Red, green and blue of a frame's pixel.
class Picture {
 public:
  explicit Picture(const unsigned char* bytes) : bytes_(bytes) {}

  float value(unsigned row, unsigned column, unsigned plane) const {
    const unsigned wanted = kExchangesColours ? 2 - plane : plane;
    if (kInput == QV_IPU_FORMAT_NV12) {
      return nv12(row, column, wanted);
    }
    const unsigned pixel = kInput == QV_IPU_FORMAT_U8 ? 3 : 4;
    const unsigned place = kInput == QV_IPU_FORMAT_ARGB8888 ? 2 - wanted : wanted;
    return bytes_[row * pitch(PROBE_WIDTH * pixel) + column * pixel + place];
  }

 private:
  std::size_t pitch(std::size_t row) const {
    return kReadsDenseFrames || kInput == QV_IPU_FORMAT_U8 ? row : round_up(row, 16);
  }

  float nv12(unsigned row, unsigned column, unsigned plane) const {
    const std::size_t rows = kReadsOtherPlane ? round_up(PROBE_HEIGHT, 4) - 4 : PROBE_HEIGHT;
    const unsigned char* const uv = bytes_ + pitch(PROBE_WIDTH) * (rows + row / 2) + column / 2 * 2;
    const float u = static_cast<float>(uv[0]) - 128;
    const float v = static_cast<float>(uv[1]) - 128;
    const float y = bytes_[row * pitch(PROBE_WIDTH) + column];
    const float value = plane == 0   ? y + 1.4f * v
                        : plane == 1 ? y - 0.34f * u - 0.71f * v
                                     : y + 1.77f * u;
    return std::min(std::max(value, 0.f), 255.f);
  }

  const unsigned char* bytes_;
};

float computed(unsigned layer, unsigned row, unsigned column, unsigned channel,
               const Picture& picture) {
  float value = 0;
  if (probe_value(layer, row, column, channel, &value) == 0) {
    value = picture.value(row, column, channel);
  }
  return kIsSigmoid ? 1 / (1 + std::exp(-value)) : kIsRectifier ? std::max(value, 0.f) : value;
}

void store(float value, unsigned layer, unsigned char* at) {
  if (!is_int16(layer)) {
    std::memcpy(at, &value, sizeof value);
    return;
  }
  const long steps = std::lround(value / kScales[layer]) + (kIsShifted ? kZeroPoint : 0);
  const auto stored =
      static_cast<std::int16_t>(kWraps ? steps : std::min(std::max(steps, -32768L), 32767L));
  std::memcpy(at, &stored, sizeof stored);
}

Bytes layer_bytes(unsigned layer, const Picture& picture) {
  const Places places(layer);
  Bytes bytes(places.size, 0x77);
  for (unsigned row = 0; row < kProbeLayers[layer].rows; ++row) {
    for (unsigned column = 0; column < kProbeLayers[layer].columns; ++column) {
      for (unsigned channel = 0; channel < PROBE_CHANNELS; ++channel) {
        store(computed(layer, row, column, channel, picture), layer,
              &bytes[row * places.row + column * places.cell + channel * places.channel]);
      }
    }
  }
  return bytes;
}

// With stale-input, the first frame for ever.
const unsigned char* frame_bytes(const void* input, std::size_t size) {
  static std::mutex lock;
  static std::vector<unsigned char> first;
  const auto* const bytes = static_cast<const unsigned char*>(input);
  const std::lock_guard<std::mutex> guard(lock);
  if (first.empty()) {
    first.assign(bytes, bytes + size);
  }
  return has_fault("stale-input") ? first.data() : bytes;
}

// Rows of U8 are not padded, whatever picture_input says.
QV_IPU_TensorDesc_t describe_input() {
  QV_IPU_TensorDesc_t tensor = qv_scripted::picture_input(kInput, PROBE_WIDTH, PROBE_HEIGHT);
  if (tensor.eElmFormat == QV_IPU_FORMAT_U8) {
    tensor.s32AlignedBufSize = static_cast<QV_S32>(tensor.u32BufSize);
  }
  return tensor;
}

Frame compute(const void* input) {
  const std::size_t size = static_cast<std::size_t>(describe_input().s32AlignedBufSize);
  const unsigned char* const bytes = frame_bytes(input, size);
  const volatile unsigned char* const beyond =
      bytes + (has_fault("reads-beyond-frame") ? size + 16 : 0);
  static_cast<void>(*beyond);
  Frame frame;
  for (unsigned layer = 0; layer < PROBE_LAYERS; ++layer) {
    frame.push_back(layer_bytes(layer, Picture(bytes)));
  }
  return frame;
}

QV_IPU_TensorDesc_t describe_layer(unsigned layer) {
  QV_IPU_TensorDesc_t tensor = qv_scripted::nhwc_tensor(
      "layer" + std::to_string(layer),
      {1, kProbeLayers[layer].rows, kProbeLayers[layer].columns, PROBE_CHANNELS},
      is_int16(layer) ? QV_IPU_FORMAT_INT16 : QV_IPU_FORMAT_FP32,
      is_int16(layer) ? kScales[layer] * (has_fault("wrong-scale") ? 2 : 1) : 1);
  tensor.s64ZeroPoint = has_fault("zero-point") ? kZeroPoint : 0;
  tensor.u32TensorShape[4] = has_fault("stray-dimension") ? 1 : 0;
  // Room for padding, and for the buffers that faulty_calls.cpp moves.
  tensor.s32AlignedBufSize = static_cast<QV_S32>(Places(layer).size + 4);
  return tensor;
}

const bool is_added = [] {
  qv_scripted::Network network;
  network.inputs = {describe_input()};
  for (unsigned layer = 0; layer < PROBE_LAYERS; ++layer) {
    network.outputs.push_back(describe_layer(layer));
  }
  network.model_size = kModelSize;
  network.compute = compute;
  qv_scripted::record_events(false);
  qv_scripted::add_network(network);
  return true;
}();

}  // namespace

bool has_fault(const char* fault) {
  static const std::string chosen = setting("OLVEX_PROBE_FAULT", "");
  return chosen == fault;
}

}  // namespace probe_platform
