// calibration.h - chooses the scales of 16-bit outputs by what a network computes on pictures.
// pack_command.cpp opens the model for it; docs/model-images.md tells users how to choose pictures.
#ifndef TOOLS_PACK_CALIBRATION_H
#define TOOLS_PACK_CALIBRATION_H

#include <string>
#include <vector>

#include "platform/host/host_image.h"

#include "tools/inside/library_model.h"

namespace olvex_tools {

constexpr long kUsualCalibrationFrames = 200;

// What the pictures showed of one output of the network.
struct CalibratedOutput {
  std::string name;
  double largest = 0;  // without sign, as the library gets it: coordinates are pixels
  float scale = 0.f;   // chosen real value of 1
  double reach = 0;    // largest value that does not saturate
};

struct Calibration {
  long frames = 0;  // that were run
  std::vector<CalibratedOutput> outputs;
};

// Runs the frames of pictures (see open_frame_source), at most limit of them and evenly spread over
// a source of known length, and sets the scales of description.
//   model  the model of the same description but for its FP32 outputs
// Throws ToolError: kInputError when a picture is unreadable, kModelError when an output holds a
// value that is not finite, or nothing but zeros, and what LibraryModel::detect throws.
Calibration calibrate(const std::string& pictures, long limit, LibraryModel* model,
                      qv_host::Description* description);

}  // namespace olvex_tools

#endif  // TOOLS_PACK_CALIBRATION_H
