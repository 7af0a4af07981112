// SPDX-License-Identifier: Apache-2.0
// sdet_model.cpp - DetAfModel: one frame through the network and the decoders to boxes in display pixels.
// model_loading.cpp opens the model, output_type.cpp has its outputs and class_mapping.cpp its classes.
#include "base/sdet/sdet_model.h"

#include <stdint.h>
#include <sys/time.h>

#include "utils/log/olvex_log.h"
#include "utils/records/algo_types.h"
#include "base/postprocess/output_tensors.h"

OLVEX_LOG_CLOCK;

namespace {

const float kNmsThreshold = 0.45f;

double milliseconds_between(const struct timeval& start, const struct timeval& end) {
  // In double: a 32-bit clock that passes its end between the two would overflow.
  return (static_cast<double>(end.tv_sec) - static_cast<double>(start.tv_sec)) * 1000.0 +
         static_cast<double>(end.tv_usec - start.tv_usec) / 1000.0;
}

// Bytes of an element of the types that the decoders read. The first output's type holds for all.
size_t decoded_size(QV_IPU_ELEMENT_FORMAT format) {
  return format == QV_IPU_FORMAT_INT16 ? sizeof(QV_S16) : sizeof(QV_FLOAT);
}

// An extent of 0 stands for a dimension that the shape leaves out.
size_t elements_of(const QV_IPU_TensorDesc_t& tensor) {
  size_t elements = 1;
  for (size_t k = 0; k < OLVEX_MAX_DIMENSIONS; ++k) {
    const size_t extent = olvex::max<size_t>(tensor.u32TensorShape[k], 1);
    elements = elements > SIZE_MAX / extent ? SIZE_MAX : elements * extent;
  }
  return elements;
}

OutputMemory memory_of(const QV_IPU_TensorDesc_t& tensor, const void* data, size_t element_size) {
  OutputMemory memory;
  const uint64_t rows = static_cast<uint64_t>(olvex::max<QV_U32>(tensor.u32TensorShape[1], 1)) *
                        tensor.u32TensorShape[2];
  memory.rows = static_cast<size_t>(olvex::min<uint64_t>(rows, SIZE_MAX));
  memory.elements = elements_of(tensor);
  // Only what the platform itself says of the buffer counts against a tensor: a size of 0 says nothing.
  memory.readable = data == NULL             ? 0
                    : tensor.u32BufSize != 0 ? tensor.u32BufSize / element_size
                                             : olvex::min(memory.elements, SIZE_MAX / element_size);
  return memory;
}

// Division first, then multiplication, then the clamp; a NaN becomes 0.
float rescale(float position, int net_extent, int img_extent) {
  const float scaled = position / static_cast<float>(net_extent) * static_cast<float>(img_extent);
  const float last = static_cast<float>(img_extent) - 1.0f;
  return olvex::min(olvex::max(0.0f, scaled), last);
}

}  // namespace

int det_rescale_boxinfos(olvex::vector<BoxInfo>& boxes, int net_width, int net_height,
                         int img_width, int img_height, int /*keypointnum*/) {
  for (size_t i = 0; i < boxes.size(); ++i) {
    BoxInfo& box = boxes[i];
    box.x1 = rescale(box.x1, net_width, img_width);
    box.x2 = rescale(box.x2, net_width, img_width);
    box.y1 = rescale(box.y1, net_height, img_height);
    box.y2 = rescale(box.y2, net_height, img_height);
    for (size_t k = 0; k < box.keypts.size(); ++k) {
      box.keypts[k].x = rescale(box.keypts[k].x, net_width, img_width);
      box.keypts[k].y = rescale(box.keypts[k].y, net_height, img_height);
    }
  }
  return 0;
}

int DetAfModel::model_invoke(QV_IPU_TensorVector_s* input, BoxInfo** boxes, int* count,
                             unsigned int disp_width, unsigned int disp_height) {
  if (input == NULL) {
    OLVEX_ERROR("det input tensor is nullptr");
    return E_ALGO_INPUT_DATA_NULL;
  }
  OLVEX_INFO_FORMAT("input tensors and output tensor count is %d %d\n",
                    static_cast<int>(desc_.u32InputTensorCount),
                    static_cast<int>(desc_.u32OutputTensorCount));
  // A failing clock leaves them as they are.
  struct timeval start = timeval();
  struct timeval end = timeval();
  gettimeofday(&start, NULL);
  int result = QV_IPU_Invoke(u32channelid_, input, &output_tensor_vector_);
  if (result != 0) {
    OLVEX_ERROR_FORMAT("QV_IPU_Invoke error, ret[0x%x]\n", static_cast<unsigned int>(result));
    // The channel is not opened again: only teardown makes sense from here.
    QV_IPU_DestroyCHN(u32channelid_);
    return result;
  }
  gettimeofday(&end, NULL);
  OLVEX_INFO_FORMAT("model invoke cost time: %f ms\n", milliseconds_between(start, end));
  start = end;

  const bool has_one_output = desc_.u32OutputTensorCount == 1;
  result = has_one_output ? model_one_output_postprocess() : model_postprocess();
  if (result != E_ALGO_SUCCESS) {
    OLVEX_ERROR(has_one_output ? "model one_output post process wrong"
                               : "model post process wrong");
    return result;
  }
  const QV_IPU_TensorDesc_t& input_desc = desc_.astQV_InputTensorDescs[0];
  det_rescale_boxinfos(det_bboxes_, static_cast<int>(input_desc.u32TensorShape[2]),
                       static_cast<int>(input_desc.u32TensorShape[1]), static_cast<int>(disp_width),
                       static_cast<int>(disp_height), num_key_point_);
  *boxes = det_bboxes_.empty() ? NULL : det_bboxes_.data();
  *count = static_cast<int>(det_bboxes_.size());
  gettimeofday(&end, NULL);
  OLVEX_INFO_FORMAT("postprocess cost time: %f ms\n", milliseconds_between(start, end));
  return E_ALGO_SUCCESS;
}

int DetAfModel::model_one_output_postprocess() {
  OLVEX_ERROR("not realized");
  return E_ALGO_LOADMODEL_FAIL;
}

int DetAfModel::model_postprocess() {
  const QV_U32 n = desc_.u32OutputTensorCount;
  if (n > static_cast<QV_U32>(kMaxOutputs)) {
    OLVEX_ERROR_FORMAT("num output tensor channel should not be larger than %d\n", kMaxOutputs);
    return E_ALGO_INVALID_OUTPUT_SIZE;
  }
  const QV_IPU_ELEMENT_FORMAT format = desc_.astQV_OutputTensorDescs[0].eElmFormat;
  const size_t element_size = decoded_size(format);
  OutputTensors outputs = OutputTensors();
  for (QV_U32 i = 0; i < n; ++i) {
    const QV_IPU_TensorDesc_t& tensor = desc_.astQV_OutputTensorDescs[i];
    const int rows = static_cast<int>(tensor.u32TensorShape[1]);
    const int columns = static_cast<int>(tensor.u32TensorShape[2]);
    const int channels = static_cast<int>(tensor.u32TensorShape[3]);
    void* const data = output_tensor_vector_.astArrayTensors[i].ptTensorData[0];
    outputs.add(data, tensor.fScalar, columns, rows, channels,
                memory_of(tensor, data, element_size));
    OLVEX_INFO_FORMAT("layer %d w h c =: [%d][%d][%d] \n", static_cast<int>(i), columns, rows,
                      channels);
  }

  DetDecodeInfo decode_info;
  outputs.describe(decode_info);
  decode_info.out_format = format;
  decode_info.net_in_w = static_cast<int>(desc_.astQV_InputTensorDescs[0].u32TensorShape[2]);
  decode_info.net_in_h = static_cast<int>(desc_.astQV_InputTensorDescs[0].u32TensorShape[1]);
  decode_info.conf_threshold = threshold_;
  decode_info.nms_threshold = kNmsThreshold;
  decode_info.reg_max = 1;

  const OutputDecoder decoder = choose_output_decoder(decode_info);
  if (decoder == kDecoderNone) {
    OLVEX_ERROR("shape of model output tensor might be wrong, please check!");
    return E_ALGO_INVALID_OUTPUT_SIZE;
  }
  const int result = decode_outputs(decode_info, decoder);
  if (result != E_ALGO_SUCCESS) {
    return result;
  }
  num_key_point_ = decode_info.num_keypoints;
  map_class_id(det_bboxes_);
  OLVEX_INFO_FORMAT("detect box num is %d\n", static_cast<int>(det_bboxes_.size()));
  return E_ALGO_SUCCESS;
}

int DetAfModel::decode_outputs(DetDecodeInfo& info, OutputDecoder decoder) {
  int result = set_det_class_keypoint(model_kvs_, info.num_classes, info.num_keypoints);
  OLVEX_DEBUG_FORMAT("set_det_class_keypoint return %d\n", result);
  if (decoder == kDecoderIpu) {
    result = ipu_decode(info, det_bboxes_);
    if (result != E_ALGO_SUCCESS) {
      OLVEX_ERROR_FORMAT("ipu_decode failed(error code = %d)\n", result);
    }
    return result;
  }
  if (result != E_ALGO_SUCCESS) {
    result = det_class_keypoint_guess(info.net_out_c[0], info.num_classes, info.num_keypoints);
  }
  OLVEX_INFO_FORMAT("decode_info.num_keypoints = %d\n", info.num_keypoints);
  OLVEX_INFO_FORMAT("decode_info.num_classes = %d\n", info.num_classes);
  if (result != E_ALGO_SUCCESS) {
    OLVEX_ERROR("the detect class is wrong ");
    return E_ALGO_INVALID_OUTPUT_SIZE;
  }
  if (!raw_layers_are_readable(info)) {
    OLVEX_ERROR("shape of model output tensor might be wrong, please check!");
    return E_ALGO_INVALID_OUTPUT_SIZE;
  }
  det_postprocess(info, det_bboxes_);
  return E_ALGO_SUCCESS;
}
