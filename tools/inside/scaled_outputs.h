// scaled_outputs.h - the output tensors whose INT16 scale a description carries, and how a scale is chosen.
// pack's calibration.cpp sets the scales, doctor judges them.
#ifndef TOOLS_INSIDE_SCALED_OUTPUTS_H
#define TOOLS_INSIDE_SCALED_OUTPUTS_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "platform/host/host_image.h"

namespace olvex_tools {

constexpr double kScaleSteps = std::numeric_limits<std::int16_t>::max();

struct ScaledOutput {
  std::size_t tensor = 0;    // its place among the output tensors
  double natural_reach = 0;  // values up to here are to be expected whatever pictures show; 0: none
  std::string name;          // the network's output
  float* scale = nullptr;    // in the description
  const char* option = "";   // of pack
};

// description must outlive what is returned.
std::vector<ScaledOutput> scaled_outputs(qv_host::Description* description);

// The real value of 1 for a tensor whose largest value, without sign, is known.
float scale_for(double largest, double natural_reach);

}  // namespace olvex_tools

#endif  // TOOLS_INSIDE_SCALED_OUTPUTS_H
