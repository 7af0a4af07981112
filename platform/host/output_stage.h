// SPDX-License-Identifier: Apache-2.0
// output_stage.h - from what the network computes to the output tensors that the library sees.
// output_stage.cpp has the raw kind, detection_stage.cpp the other one; channel.cpp uses them.
#ifndef PLATFORM_HOST_OUTPUT_STAGE_H
#define PLATFORM_HOST_OUTPUT_STAGE_H

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "platform/host/host_image.h"

namespace qv_host {

class OutputStage {
 public:
  virtual ~OutputStage() = default;

  const std::vector<QV_IPU_TensorDesc_t>& tensors() const { return tensors_; }

  // Fills one buffer per tensor, each of its s32AlignedBufSize bytes.
  //   results  the network's outputs, in the order of network_outputs()
  // Returns how many candidates found no row. Throws HostError(QV_HOST_INFERENCE_FAILED) when a
  // shape differs from the one at the start.
  virtual std::size_t write(const std::vector<cv::Mat>& results,
                            const std::vector<void*>& buffers) const = 0;

 protected:
  // Appends a tensor of the output format; it takes the next of output_tensor_names().
  void add_tensor(const Description& description, float scale,
                  std::initializer_list<std::size_t> shape);

 private:
  std::vector<QV_IPU_TensorDesc_t> tensors_;
};

// Names of the network's outputs that the description asks for.
std::vector<std::string> network_outputs(const Description& description);

// The stage for a description and the results of one trial run. Throws HostError
// (QV_HOST_BAD_NETWORK) when they do not fit each other.
std::unique_ptr<OutputStage> make_output_stage(const Description& description,
                                               const std::vector<cv::Mat>& results);

// The two kinds; each takes descriptions of its kind only.
std::unique_ptr<OutputStage> make_raw_stage(const Description& description,
                                            const std::vector<cv::Mat>& results);
std::unique_ptr<OutputStage> make_detection_stage(const Description& description,
                                                  const std::vector<cv::Mat>& results);

// Stores one value as the tensor's element type: FP32 as it is; INT16 rounded to the nearest step
// of fScalar (halves away from zero) and saturated, NaN as 0.
void store_element(const QV_IPU_TensorDesc_t& tensor, void* buffer, std::size_t index, float value);

// For messages, such as "1x484x4".
std::string shape_text(const cv::Mat& result);

}  // namespace qv_host

#endif  // PLATFORM_HOST_OUTPUT_STAGE_H
