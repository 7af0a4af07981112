// result_codes.cpp - the table behind explain_result.
#include "tools/inside/result_codes.h"

#include <algorithm>

#include "olvex_det.h"

#include "platform/host/qv_host.h"
#include "tools/inside/foreign_platform.h"

namespace olvex_tools {

namespace {

const ResultCode kResultCodes[] = {
    {E_ALGO_INVALID_PARAM, kUsageError,
     "the options do not go together: strict mode needs the tracker"},
    {E_ALGO_DEVICE_FAULT, kModelError,
     "the accelerator refused the model. Check it with: olvex-det inspect"},
    {E_ALGO_LOADMODEL_FAIL, kModelError,
     "the model cannot be used: it has one output only, and no decoder takes that. Pack it with "
     "its boxes and scores, or with its three raw layers"},
    {E_ALGO_NOT_INIT, kModelError, "the detector is not initialised"},
    {E_ALGO_FILEIO_ERROR, kInputError,
     "the frame dump cannot be written. QK_ALGO_S names an INI file; check the folder that its key "
     "QK_ALGO_I names (no line end after it), or unset QK_ALGO_S"},
    {E_ALGO_INVALID_OUTPUT_SIZE, kModelError,
     "no decoder takes the shape of the model's outputs. Check them with: olvex-det inspect"},
    {E_ALGO_INVALID_DECODE_MODE, kModelError,
     "no decoder takes the element type of the model's outputs; they must be FP32 or INT16"},
    {QV_HOST_NO_DEVICE, kAcceleratorError, "the host accelerator has no device"},
    {QV_HOST_DEVICE_EXISTS, kAcceleratorError,
     "the host accelerator's device exists already in this process"},
    {QV_HOST_NO_CHANNEL, kAcceleratorError, "the host accelerator's channel is closed"},
    {QV_HOST_BAD_ARGUMENT, kAcceleratorError,
     "the host accelerator was given an argument that it cannot take"},
    {QV_HOST_OUT_OF_ORDER, kAcceleratorError,
     "the host accelerator got its output buffers back out of order"},
    {QV_HOST_READ_FAILED, kAcceleratorError, "the host accelerator cannot read the model"},
    {QV_HOST_BAD_IMAGE, kAcceleratorError, "the host accelerator finds the model damaged"},
    {QV_HOST_BAD_NETWORK, kAcceleratorError,
     "the host accelerator cannot load the model's network, or its outputs do not fit the "
     "description"},
    {QV_HOST_BAD_FRAME, kAcceleratorError,
     "the host accelerator finds the frame missing or too short"},
    {QV_HOST_INFERENCE_FAILED, kAcceleratorError,
     "the host accelerator failed while it ran the network"},
    {QV_HOST_OUT_OF_MEMORY, kAcceleratorError, "the host accelerator has no memory left"},
    {QV_HOST_INTERNAL_ERROR, kAcceleratorError,
     "the host accelerator has an internal fault; please report it"},
};

const ResultCode kUnknownCode = {0, kAcceleratorError,
                                 "the accelerator failed with an unknown code"};

}  // namespace

const ResultCode& explain_result(QV_S32 code) {
  const auto* const end = std::end(kResultCodes);
  const auto* const found =
      std::find_if(std::begin(kResultCodes), end,
                   [code](const ResultCode& result) { return result.code == code; });
  const bool is_of_host = code >= QV_HOST_NO_DEVICE && code <= QV_HOST_INTERNAL_ERROR;
  return found == end || (is_of_host && platform_is_foreign()) ? kUnknownCode : *found;
}

}  // namespace olvex_tools
