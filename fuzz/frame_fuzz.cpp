// SPDX-License-Identifier: Apache-2.0
// frame_fuzz.cpp - whole frames with the plain and the shipped library: what a platform may report
// of its tensors and put into them, through every option. Both have to return the same codes and
// boxes, bit for bit. Scenes are built as the library expects them, then altered.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "platform/scripted/qv_scripted.h"
#include "tests/support/record.h"
#include "tests/support/routines.h"
#include "utils/numeric/saturating_cast.h"
#include "video/det/include/det_schedule.h"

namespace {

const QV_U32 kPictureSize = 4096;   // bytes
const QV_U32 kMostBytes = 1 << 15;  // of one tensor
const uint8_t kMostFrames = 12;     // a track is lost after 11 without it

// ---- Tensors ------------------------------------------------------------------------------------

// One output and how its values are drawn: from low to high, and odd ones.
struct Output {
  std::vector<QV_U32> shape;
  float low, high;
  float scale;         // of a 16-bit integer
  bool whole = false;  // values without fraction, of which more are equal
};

struct Layout {
  std::string header;
  std::vector<Output> outputs;
};

Layout raw_layers(FuzzInput& input, QV_U32 side) {
  const struct {
    const char* header;
    QV_U32 classes, keypoints;
  } kTypes[] = {{"", 8, 0},
                {"", 1, 17},
                {"model_out:zrpd;", 1, 0},
                {"model_out:zrfl\n", 1, 5},
                {"model_out:zrpcnh;lib_out:zrpcn\n", 7, 0},
                {"model_out:zrpcncdhf;lib_out:zrpcd\n", 10, 0}};
  const auto& type = kTypes[input.below(6)];
  const QV_U32 channels = 4 + type.classes + (2 + input.below(2)) * type.keypoints;
  Layout layout = {type.header, {}};
  for (int layer = 0; layer < 3; ++layer) {
    side = std::max(side / 2, 1u);
    layout.outputs.push_back({{1, side, side, channels}, -6, 6, 1.0f / 256});
  }
  return layout;
}

Layout decoded_lists(FuzzInput& input, QV_U32 side) {
  static const char* const kHeaders[] = {"", "model_out:zrphf;lib_out:zrpd\n",
                                         "model_out:zrpcnh;lib_out:zrpcn\n",
                                         "model_out:zrpcncdhf\nlib_out:zrpcncd;"};
  static const QV_U32 kKeyPointChannels[] = {8, 10, 12, 15, 51, 63};
  Layout layout = {kHeaders[input.below(4)], {}};
  const QV_U32 rows = 1 + input.below(input.below(8) == 0 ? 80 : 12), kind = input.below(3);
  const float extent = static_cast<float>(side), last = static_cast<float>(rows);
  const Output scores = {{1, 1, rows, 1}, 0, 1, 1.0f / 32767};
  const QV_U32 values = input.below(6);
  layout.outputs.push_back(
      {{1, 1, rows, 4 + values / 2}, 0, extent, extent / 32767, values % 2 == 0});
  if (kind == 1) {
    layout.outputs.push_back({{1, 1, rows, 1}, 0, 8, 1});
  }
  layout.outputs.push_back(scores);
  if (kind == 2) {
    layout.outputs.push_back(
        {{1, 1, rows, kKeyPointChannels[input.below(6)]}, 0, extent, extent / 32767});
  }
  const std::vector<QV_U32> list = {1, rows}, column = {1, rows, 1, 1};
  layout.outputs.push_back({kind == 0 ? list : column, 0, last, 1});
  layout.outputs.push_back({{1, 1, 1, 1}, 0, last, 1});
  return layout;
}

Layout any_tensors(FuzzInput& input) {
  Layout layout = {input.text(20), {}};
  layout.outputs.resize(input.below(8));
  for (Output& output : layout.outputs) {
    output = {{}, -8, 8, input.number()};
    output.shape.resize(input.below(7));
    for (QV_U32& extent : output.shape) {
      extent = input.below(9);
    }
  }
  return layout;
}

// ---- Descriptions -------------------------------------------------------------------------------

QV_U32 odd_extent(FuzzInput& input) {
  const QV_U32 choice = input.byte();
  return choice < 128   ? choice % 10
         : choice < 192 ? 0u - choice % 8
         : choice < 224 ? 0x80000000u - choice % 2
                        : input.raw<QV_U32>();
}

// Changes one number of a description.
void spoil(FuzzInput& input, qv_scripted::Network& network) {
  const uint8_t choice = input.byte();
  std::vector<QV_IPU_TensorDesc_t>& side = choice < 200 ? network.outputs : network.inputs;
  if (choice % 8 == 0) {
    network.reported_outputs = input.below(64);
  } else if (choice % 8 == 1) {
    (input.flag() ? network.reported_outputs : network.reported_inputs) = odd_extent(input);
  } else if (!side.empty()) {
    QV_IPU_TensorDesc_t& tensor = side[input.byte() % side.size()];
    switch (choice % 8) {
      case 2:
        tensor.eElmFormat = static_cast<QV_IPU_ELEMENT_FORMAT>(odd_extent(input));
        break;
      case 3:
        tensor.fScalar = input.number();
        break;
      case 4:
        std::memset(tensor.name, input.byte() | 1, sizeof tensor.name);
        break;
      default:
        tensor.u32TensorShape[input.below(4)] = odd_extent(input);
    }
  }
}

// The library takes the first output's element type for all of them.
bool is_fp32_network(const qv_scripted::Network& network) {
  return !network.outputs.empty() && network.outputs[0].eElmFormat == QV_IPU_FORMAT_FP32;
}

// The bytes of a tensor of the type that the library reads. To it an extent of 0 is one that is left
// out; one beyond any memory counts as 1 here.
QV_U32 readable_bytes(const QV_IPU_TensorDesc_t& tensor, QV_U32 decoded_size) {
  uint64_t bytes = decoded_size;
  for (const QV_U32 extent : tensor.u32TensorShape) {
    bytes *= extent == 0 || extent > INT32_MAX ? 1 : extent;
    bytes = std::min<uint64_t>(bytes, UINT32_MAX);
  }
  return static_cast<QV_U32>(bytes);
}

// Gives each output the memory that it describes. A platform that describes more than it has could
// not be noticed: shapes of too much memory are made smaller.
void size_buffers(qv_scripted::Network& network) {
  const QV_U32 decoded_size = is_fp32_network(network) ? sizeof(float) : sizeof(int16_t);
  for (QV_IPU_TensorDesc_t& tensor : network.outputs) {
    for (QV_U32 limit = 1 << 14; readable_bytes(tensor, decoded_size) > kMostBytes; limit /= 2) {
      for (QV_U32& extent : tensor.u32TensorShape) {
        extent = extent <= INT32_MAX ? std::min(extent, limit) : extent;
      }
    }
    tensor.u32BufSize = readable_bytes(tensor, decoded_size);
    tensor.s32AlignedBufSize = static_cast<QV_S32>((tensor.u32BufSize + OLVEX_ROW_ALIGNMENT - 1) /
                                                   OLVEX_ROW_ALIGNMENT * OLVEX_ROW_ALIGNMENT);
  }
}

// Says less of an output's memory than its shape, or nothing.
void misstate_size(FuzzInput& input, QV_IPU_TensorDesc_t& tensor) {
  const QV_U32 size = input.flag() ? 0 : input.raw<uint16_t>() % tensor.u32BufSize;
  tensor.u32BufSize = size;
  if (size != 0) {
    tensor.s32AlignedBufSize = static_cast<QV_S32>(size);
  }
}

// ---- Values -------------------------------------------------------------------------------------

// One frame's values of one output, in the network's element type.
class Values {
 public:
  Values(const Output& output, bool is_fp32, qv_scripted::Bytes& bytes)
      : output_(output), is_fp32_(is_fp32), bytes_(bytes) {}

  size_t size() const { return bytes_.size() / (is_fp32_ ? sizeof(float) : sizeof(int16_t)); }

  float draw(FuzzInput& input) const {
    const float value = output_.low + (output_.high - output_.low) * input.number();
    return output_.whole ? std::floor(value) : value;
  }

  void set(size_t at, float value) {
    if (is_fp32_) {
      std::memcpy(&bytes_[at * sizeof value], &value, sizeof value);
      return;
    }
    const int16_t integer = olvex::saturating_cast<int16_t>(double{value} / output_.scale);
    std::memcpy(&bytes_[at * sizeof integer], &integer, sizeof integer);
  }

  // Few values spread over the whole tensor, or rising whole numbers, as a list of indices has.
  void fill(FuzzInput& input) {
    const size_t step = 2 * input.below(128) + 1;
    std::vector<float> kinds(input.below(8));
    std::generate(kinds.begin(), kinds.end(), [&] { return draw(input); });
    for (size_t i = 0; i < size(); ++i) {
      set(i, kinds.empty() ? static_cast<float>(i) : kinds[i * step / 3 % kinds.size()]);
    }
  }

 private:
  const Output& output_;
  bool is_fp32_;
  qv_scripted::Bytes& bytes_;
};

// ---- Scenes -------------------------------------------------------------------------------------

struct Options {
  bool change;
  DetTrackParams_t track;
  QV_BOOL strict;
};

struct Scene {
  std::string header;
  qv_scripted::Network network;
  float threshold;
  Rect_t display;
  std::vector<Options> options;  // of each frame
};

Options draw_options(FuzzInput& input) {
  Options options = {};
  options.change = input.below(3) != 0;
  if (options.change) {
    const uint8_t flags = input.byte();
    options.track.enable = flags & 1;
    options.track.ignore_static_objects = flags >> 1 & 1;
    options.track.stable_bbox = flags >> 2 & 1;
    options.strict = flags >> 3 & 1;
    options.track.ignore_frame_number = flags < 192 ? flags >> 4 & 3 : input.raw<QV_S32>();
    options.track.static_sensitive = input.number();
    options.track.stable_sensitive = input.number();
  }
  return options;
}

// Each frame is the one before with some values changed.
void add_frames(FuzzInput& input, const Layout& layout, Scene& scene) {
  const std::vector<QV_IPU_TensorDesc_t>& outputs = scene.network.outputs;
  const bool is_fp32 = is_fp32_network(scene.network);
  qv_scripted::Frame frame(outputs.size());
  std::vector<Values> tensors;
  for (size_t i = 0; i < frame.size(); ++i) {
    frame[i].resize(outputs[i].u32BufSize);
    tensors.emplace_back(layout.outputs[i], is_fp32, frame[i]);
    tensors.back().fill(input);
  }
  const uint8_t longest = input.below(8) == 0 ? kMostFrames : 3;
  for (int count = 1 + input.byte() % longest; count > 0; --count) {
    scene.options.push_back(draw_options(input));
    for (QV_U32 changes = input.below(24); changes > 0 && !frame.empty(); --changes) {
      Values& tensor = tensors[input.byte() % frame.size()];
      const size_t place = input.raw<uint16_t>();
      if (tensor.size() > 0) {
        tensor.set(place % tensor.size(), tensor.draw(input));
      }
    }
    scene.network.frames.push_back(frame);
  }
}

Scene draw_scene(FuzzInput& input) {
  Scene scene;
  const QV_U32 kind = input.below(8);
  const QV_U32 side = input.below(8) < 6 ? 8 : 16;  // few cells take the least time
  const bool is_fp32 = input.flag();
  const Layout layout = kind < 3   ? raw_layers(input, side)
                        : kind < 7 ? decoded_lists(input, side)
                                   : any_tensors(input);
  scene.header = input.flag() ? layout.header : input.text(40) + layout.header;
  scene.network.inputs = {qv_scripted::picture_input(QV_IPU_FORMAT_GRAY, side, side)};
  const QV_IPU_ELEMENT_FORMAT format = is_fp32 ? QV_IPU_FORMAT_FP32 : QV_IPU_FORMAT_INT16;
  for (const Output& output : layout.outputs) {
    scene.network.outputs.push_back(
        qv_scripted::nhwc_tensor("output", output.shape, format, output.scale));
  }
  const int spoilt = input.byte() % 16 - 12;
  for (int i = 0; i < spoilt; ++i) {
    spoil(input, scene.network);
  }
  size_buffers(scene.network);
  if (spoilt == 3 && !scene.network.outputs.empty()) {
    misstate_size(input, scene.network.outputs[input.byte() % scene.network.outputs.size()]);
  }
  scene.threshold = input.number();
  scene.display = input.flag() ? Rect_t{1920, 1080} : Rect_t{odd_extent(input), odd_extent(input)};
  add_frames(input, layout, scene);
  return scene;
}

// ---- Playing ------------------------------------------------------------------------------------

void run_frames(const Routines& library, void* handle, const Scene& scene, Record& record) {
  static std::vector<unsigned char> picture(kPictureSize);
  std::vector<Box_t> boxes(ALGO_DET_MAX_BOXES);
  for (size_t frame = 0; frame < scene.network.frames.size(); ++frame) {
    const Options& options = scene.options[frame];
    if (options.change) {
      record.add(library.set_tracker2(handle, options.track));
      record.add(library.set_strict_mode(handle, {options.strict}));
    }
    const ALGO_Input_t input = {picture.data(), 0x1000, kPictureSize, frame};
    QV_S32 count = 0;
    const QV_S32 result = library.run(handle, &input, boxes.data(), &count);
    record.add(result);
    FUZZ_CHECK(count >= 0 && count <= ALGO_DET_MAX_BOXES);
    record.add_boxes(boxes.data(), count);
    record.add_boxes(static_cast<DetHandle*>(handle)->mLastOutput_);
  }
}

Record play(const Routines& library, const Scene& scene, const MemoryFile& model) {
  Record record;
  qv_scripted::record_events(false);
  qv_scripted::add_network(scene.network);
  void* handle = nullptr;
  library.create_handle(&handle);
  DetectionInfo_t info = {"", "", scene.threshold, scene.display, 0};
  std::snprintf(info.model, sizeof info.model, "%s", model.path().c_str());
  record.add(library.init_handle(handle, &info));
  run_frames(library, handle, scene, record);
  record.add(library.deinit_handle(handle));
  FUZZ_CHECK(qv_scripted::violations().empty() && qv_scripted::open_channel_count() == 0);
  qv_scripted::reset();
  return record;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  unsetenv("QK_ALGO_S");
  discard_standard_output();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static MemoryFile model;
  FuzzInput input(data, size);
  const Scene scene = draw_scene(input);
  model.holding(scene.header + OLVEX_OFFLINE_MODEL_START "0123456789ab");
  const Record plain = play(*plain_routines(), scene, model);
  const Record shipped = play(*shipped_routines(), scene, model);
  FUZZ_CHECK(plain.numbers == shipped.numbers);
  return 0;
}
