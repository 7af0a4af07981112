// threads_test.cpp - handles in threads of their own on the scripted accelerator. With the preset
// tsan the thread sanitizer looks on. tests/support/handle_threads.h has what the handles do.
#include "tests/support/handle_threads.h"

#include <fstream>

#include "tests/api/list_network.h"
#include "tests/support/scripted_test.h"

namespace {

// Something moves with what confirms it, and something stands still.
std::vector<Detections> scene() {
  std::vector<Detections> frames;
  for (int k = 0; k < 100; ++k) {
    const float x = static_cast<float>(3 * k % 128);
    frames.push_back({{x, 8.f, x + 64.f, 72.f, 0.9f, 0.f},
                      {x + 32.f, 8.f, x + 96.f, 72.f, 0.8f, 6.f},
                      {192.f, 96.f, 224.f, 120.f, 0.7f, 2.f}});
  }
  return frames;
}

using Threads = ScriptedTest;

TEST_F(Threads, handles_see_beside_each_other_what_each_sees_alone) {
  const handle_threads::Folder folder;
  const std::vector<unsigned char> frame(kNetWidth * kNetHeight);
  const DetTrackParams_t off = {0, 0, 0.f, 0, 0.f, 0}, moving = {1, 1, 0.f, 0, 0.f, 1};
  const DetTrackParams_t steady = {1, 0, 0.f, 1, 0.3f, 3};
  std::vector<handle_threads::Worker> workers = {{"", off, {0}, {frame}},
                                                 {"", moving, {0}, {frame}},
                                                 {"", steady, {0}, {frame}},
                                                 {"model_out:zrpcnh\n", steady, {1}, {frame}}};
  for (handle_threads::Worker& worker : workers) {
    const std::string content = worker.model + "lib_out:zrpcn\n" + kOfflineModel;
    worker.model = folder.path + "/model" + std::to_string(&worker - workers.data());
    std::ofstream(worker.model, std::ios::binary) << content;
  }
  QV_IPU_DevAttr_s attributes = {};
  char firmware[] = "firmware";
  ASSERT_EQ(0, QV_IPU_CreateDevice(&attributes, nullptr, firmware, 0));
  qv_scripted::add_network(list_network(scene()));
  qv_scripted::record_events(false);
  handle_threads::expect_the_same(workers, 1, 300);
  handle_threads::expect_the_same(workers, 30, 10);
  EXPECT_TRUE(qv_scripted::device_is_up());
  EXPECT_EQ(0, qv_scripted::open_channel_count());
}

}  // namespace
