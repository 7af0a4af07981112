// SPDX-License-Identifier: Apache-2.0
// output_stage.cpp - what both kinds of output stage share, and the raw one: three layers of the network, handed over
// cell by cell.
#include "platform/host/output_stage.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>

#include "platform/host/host_error.h"

namespace qv_host {

namespace {

std::int16_t to_int16(float value, float scale) {
  using Limits = std::numeric_limits<std::int16_t>;
  const double steps = std::round(static_cast<double>(value) / static_cast<double>(scale));
  if (std::isnan(steps)) {
    return 0;
  }
  return static_cast<std::int16_t>(
      std::min<double>(std::max<double>(steps, Limits::min()), Limits::max()));
}

}  // namespace

void OutputStage::add_tensor(const Description& description, float scale,
                             std::initializer_list<std::size_t> shape) {
  const bool is_float = description.output_format == QV_IPU_FORMAT_FP32;
  const std::string name = output_tensor_names(description)[tensors_.size()];
  QV_IPU_TensorDesc_t tensor = {};
  std::size_t size = is_float ? sizeof(float) : sizeof(std::int16_t);
  const std::size_t run = size * *(shape.end() - 1);
  for (const std::size_t extent : shape) {
    tensor.u32TensorShape[tensor.u32TensorDim++] = static_cast<QV_U32>(extent);
    // Each extent comes from an int, so the product cannot wrap before it is seen to be too large.
    size *= extent;
    if (size > static_cast<std::size_t>(std::numeric_limits<QV_S32>::max())) {
      throw HostError(QV_HOST_BAD_NETWORK, "output \"" + name + "\" is larger than 2 GiB");
    }
  }
  tensor.eElmFormat = description.output_format;
  name.copy(tensor.name, sizeof tensor.name - 1);
  tensor.u32InnerMostStride = static_cast<QV_U32>(run);
  tensor.fScalar = is_float ? 1.f : scale;
  tensor.s32AlignedBufSize = static_cast<QV_S32>(size);
  tensor.u32BufSize = static_cast<QV_U32>(size);
  tensor.u32InputWidthAlignment = 1;
  tensor.u32InputHeightAlignment = 1;
  tensor.eLayoutType = QV_IPU_LAYOUT_NHWC;
  tensors_.push_back(tensor);
}

std::vector<std::string> network_outputs(const Description& description) {
  if (description.kind == OutputKind::kRaw) {
    return {description.raw[0].name, description.raw[1].name, description.raw[2].name};
  }
  std::vector<std::string> names = {description.decoded.boxes, description.decoded.scores};
  if (!description.decoded.keypoints.empty()) {
    names.push_back(description.decoded.keypoints);
  }
  return names;
}

std::unique_ptr<OutputStage> make_output_stage(const Description& description,
                                               const std::vector<cv::Mat>& results) {
  const std::vector<std::string> names = network_outputs(description);
  if (results.size() != names.size()) {
    throw HostError(QV_HOST_BAD_NETWORK, "the network computes " + std::to_string(results.size()) +
                                             " outputs instead of the " +
                                             std::to_string(names.size()) + " described");
  }
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (results[i].empty() || results[i].type() != CV_32FC1 || !results[i].isContinuous()) {
      throw HostError(QV_HOST_BAD_NETWORK,
                      "output \"" + names[i] + "\" is not an array of 32-bit floats");
    }
  }
  return description.kind == OutputKind::kRaw ? make_raw_stage(description, results)
                                              : make_detection_stage(description, results);
}

void store_element(const QV_IPU_TensorDesc_t& tensor, void* buffer, std::size_t index,
                   float value) {
  if (tensor.eElmFormat == QV_IPU_FORMAT_FP32) {
    static_cast<float*>(buffer)[index] = value;
  } else {
    static_cast<std::int16_t*>(buffer)[index] = to_int16(value, tensor.fScalar);
  }
}

std::string shape_text(const cv::Mat& result) {
  std::string text;
  for (int i = 0; i < result.dims; ++i) {
    text += (i == 0 ? "" : "x") + std::to_string(result.size[i]);
  }
  return text;
}

// ---- The raw stage ----

namespace {

// One layer in the network, and where its elements lie.
struct Layer {
  std::vector<int> shape;  // in the network's own order
  std::size_t cells;       // height x width
  std::size_t channels;
  std::size_t cell_stride;     // elements from cell to cell
  std::size_t channel_stride;  // elements from channel to channel
};

class RawStage : public OutputStage {
 public:
  RawStage(const Description& description, const std::vector<cv::Mat>& results) {
    for (std::size_t i = 0; i < layers_.size(); ++i) {
      add_layer(description, i, results[i]);
    }
  }

  std::size_t write(const std::vector<cv::Mat>& results,
                    const std::vector<void*>& buffers) const override {
    for (std::size_t i = 0; i < layers_.size(); ++i) {
      const Layer& layer = layers_[i];
      if (std::vector<int>(results[i].size.p, results[i].size.p + results[i].dims) != layer.shape) {
        throw HostError(QV_HOST_INFERENCE_FAILED, "raw layer " + std::to_string(i) +
                                                      " has changed its shape to " +
                                                      shape_text(results[i]));
      }
      const float* source = results[i].ptr<float>();
      std::size_t position = 0;
      for (std::size_t cell = 0; cell < layer.cells; ++cell) {
        for (std::size_t channel = 0; channel < layer.channels; ++channel) {
          store_element(tensors()[i], buffers[i], position++,
                        source[cell * layer.cell_stride + channel * layer.channel_stride]);
        }
      }
    }
    return 0;
  }

 private:
  void add_layer(const Description& description, std::size_t i, const cv::Mat& result) {
    const RawOutput& output = description.raw[i];
    if (result.dims != 4 || result.size[0] != 1) {
      throw HostError(QV_HOST_BAD_NETWORK, "output \"" + output.name + "\" has the shape " +
                                               shape_text(result) + "; a raw layer needs 1 x " +
                                               (output.nchw ? "C x H x W" : "H x W x C"));
    }
    const auto extent = [&](int axis) { return static_cast<std::size_t>(result.size[axis]); };
    const std::size_t height = extent(output.nchw ? 2 : 1);
    const std::size_t width = extent(output.nchw ? 3 : 2);
    Layer& layer = layers_[i];
    layer.shape.assign(result.size.p, result.size.p + result.dims);
    layer.cells = height * width;
    layer.channels = extent(output.nchw ? 1 : 3);
    layer.cell_stride = output.nchw ? 1 : layer.channels;
    layer.channel_stride = output.nchw ? layer.cells : 1;
    add_tensor(description, output.scale, {1, height, width, layer.channels});
  }

  std::array<Layer, 3> layers_;
};

}  // namespace

std::unique_ptr<OutputStage> make_raw_stage(const Description& description,
                                            const std::vector<cv::Mat>& results) {
  return std::make_unique<RawStage>(description, results);
}

}  // namespace qv_host
