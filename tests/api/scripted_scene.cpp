// scripted_scene.cpp - see scripted_scene.h. c_api_test.c and the manual's example link it.
#include "tests/api/scripted_scene.h"

#include <vector>

#include "tests/api/list_network.h"

namespace {

bool set_up() {
  qv_scripted::add_network(list_network({{{8.f, 16.f, 32.f, 48.f, 0.75f, 2.f}}}));
  return true;
}
const bool kIsSetUp = set_up();

}  // namespace

int next_frame(const InputAttr_t* format, ALGO_Input_t* frame) {
  static std::vector<unsigned char> picture(kNetWidth * kNetHeight);
  static int frames_left = 3;
  if (!kIsSetUp || format->width != kNetWidth || frames_left == 0) {
    return 0;
  }
  --frames_left;
  frame->p_vir_addr = picture.data();
  frame->phy_addr = 0;
  frame->buf_size = static_cast<QV_U32>(picture.size());
  frame->pts = 40;
  return 1;
}

int scene_violations() {
  return static_cast<int>(qv_scripted::violations().size());
}

int scene_leftovers() {
  return qv_scripted::open_channel_count() + (qv_scripted::device_is_up() ? 1 : 0);
}
