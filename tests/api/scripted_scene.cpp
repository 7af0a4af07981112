// SPDX-License-Identifier: Apache-2.0
// scripted_scene.cpp - the camera of the manual's example, a C program: a scripted network that sees
// the same object in three frames, set up before main. What breaks the platform's contract, and a
// device that is left up, get a line "scene: ...", with which the test fails.
#include <cstdio>
#include <cstdlib>

#include "olvex_det.h"

#include "tests/api/list_network.h"

namespace {

void check_what_is_left() {
  for (const std::string& violation : qv_scripted::violations()) {
    std::fprintf(stderr, "scene: %s\n", violation.c_str());
  }
  if (qv_scripted::device_is_up()) {
    std::fputs("scene: the device is up\n", stderr);
  }
}

bool set_up() {
  qv_scripted::add_network(list_network({{{8.f, 16.f, 32.f, 48.f, 0.75f, 2.f}}}));
  return std::atexit(check_what_is_left) == 0;
}
const bool kIsSetUp = set_up();

}  // namespace

extern "C" int next_frame(const InputAttr_t* format, ALGO_Input_t* frame) {
  static unsigned char picture[kNetWidth * kNetHeight];
  static int frames_left = 3;
  if (!kIsSetUp || format->width != kNetWidth || frames_left == 0) {
    return 0;
  }
  --frames_left;
  *frame = {picture, 0, sizeof picture, 40};
  return 1;
}
