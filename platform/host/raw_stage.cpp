// SPDX-License-Identifier: Apache-2.0
// raw_stage.cpp - three layers of the network, handed over cell by cell; see output_stage.h.
#include <array>

#include "platform/host/host_error.h"
#include "platform/host/output_stage.h"

namespace qv_host {
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
