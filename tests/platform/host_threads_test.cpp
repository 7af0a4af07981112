// host_threads_test.cpp - handles in threads of their own on the host accelerator, each with its own
// network. tests/support/handle_threads.h has what the handles do.
#include "tests/support/handle_threads.h"

#include <fstream>

#include "tests/platform/host_session.h"
#include "tests/support/tiny_onnx.h"

namespace {

// A cell of the top row has the colour of the class, one cell after the other.
std::vector<std::vector<unsigned char>> frames(int width, int height, int class_id) {
  std::vector<std::vector<unsigned char>> list;
  for (int x = 0; x < width; ++x) {
    list.emplace_back(static_cast<std::size_t>(width * height * 3));
    for (int i = 0; i < tiny_onnx::kCellSize * tiny_onnx::kCellSize; ++i) {
      const int row = i / tiny_onnx::kCellSize, column = i % tiny_onnx::kCellSize;
      const int pixel = row * width + x / tiny_onnx::kCellSize * tiny_onnx::kCellSize + column;
      list.back()[static_cast<std::size_t>(pixel * 3 + class_id)] = 255;
    }
  }
  return list;
}

TEST(HostThreads, handles_see_beside_each_other_what_each_sees_alone) {
  const handle_threads::Folder folder;
  std::vector<handle_threads::Worker> workers;
  for (int i = 0; i < 4; ++i) {
    qv_host::Description description = host_session::decoded_description();
    const int width = description.input.width = 32 + 16 * i;
    const int height = description.input.height = 32;
    description.input.scale.fill(1 / 255.f);
    const std::vector<char> image =
        qv_host::build_image(description, tiny_onnx::decoded_network(width, height, 0));
    const std::string model = folder.path + "/model" + std::to_string(i);
    std::ofstream(model, std::ios::binary) << std::string(image.begin(), image.end());
    const QV_BOOL tracks = i % 2 == 0 ? 1 : 0;
    workers.push_back({model, {tracks, 0, 0.f, 1, 0.3f, 1}, {0}, frames(width, height, i % 3)});
  }
  const host_session::Device device;
  handle_threads::expect_the_same(workers, 1, 60);
  handle_threads::expect_the_same(workers, 5, 10);
}

}  // namespace
