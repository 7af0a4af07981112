// SPDX-License-Identifier: Apache-2.0
// service_networks.cpp - what examples/camera_service.c runs over the scripted accelerator, and what fails there: it is
// linked beside the example, and sets the platform up before main() and looks at it after.
//
// SERVICE_FAULTS of the environment: CALL:CODE, separated by blanks; the CALL-th call of the platform fails.
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "platform/scripted/qv_scripted.h"
#include "tests/api/list_network.h"

namespace {

// Two objects that come to a halt, so that every run sees the same in the end.
qv_scripted::Network network() {
  std::vector<Detections> frames;
  for (int moment = 0; moment < 8; ++moment) {
    const float at = static_cast<float>(8 * moment);
    frames.push_back(
        {{8 + at, 16, 56 + at, 64, 0.75f, 2}, {150, 20 + at, 200, 60 + at, 0.625f, 1}});
  }
  return list_network(frames);
}

struct Setting {
  Setting() {
    qv_scripted::reset();
    qv_scripted::add_network(network());
    const char* const text = std::getenv("SERVICE_FAULTS");
    std::istringstream faults(text != nullptr ? text : "");
    for (std::string fault; faults >> fault;) {
      const std::size_t colon = fault.find(':');
      qv_scripted::fail_call_overall(std::stoi(fault), std::stoi(fault.substr(colon + 1)));
    }
  }
  Setting(const Setting&) = delete;
  Setting& operator=(const Setting&) = delete;
  ~Setting() {
    if (qv_scripted::device_is_up()) {
      std::fputs("the device is left over\n", stderr);
    }
  }
};

const Setting setting;

}  // namespace
