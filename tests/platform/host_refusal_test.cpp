// host_refusal_test.cpp - what the host accelerator refuses: each cause with its own code and one
// line on standard error that names it. host_accelerator_test.cpp has what it computes.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>

#include <gtest/gtest.h>

#include "tests/platform/host_session.h"
#include "tests/support/tiny_onnx.h"

namespace {

using namespace qv_host;
using host_session::copy_from_memory;
using host_session::Device;
using host_session::open_channel;

Description description() {
  Description description;
  description.input.width = 16;
  description.input.height = 16;
  description.input.format = QV_IPU_FORMAT_U8;
  description.decoded.boxes = "boxes";
  description.decoded.scores = "scores";
  return description;
}

std::vector<char> network() {
  return tiny_onnx::decoded_network(16, 16, 8);
}

// Makes the call and checks its code and that it said one line with the given text in it.
void expect_refusal(QV_S32 code, const std::string& text, const std::function<QV_S32()>& call) {
  testing::internal::CaptureStderr();
  const QV_S32 result = call();
  const std::string message = testing::internal::GetCapturedStderr();
  EXPECT_EQ(code, result) << text;
  EXPECT_NE(std::string::npos, message.find(text)) << message;
  EXPECT_EQ(1, std::count(message.begin(), message.end(), '\n')) << message;
}

TEST(HostRefusal, calls_out_of_order) {
  QV_U32 id = 0;
  QV_IPU_DevAttr_s attributes = {};
  QV_IPU_SubNet_InputOutputDesc_t tensors;
  const std::vector<char> image = build_image(description(), network());
  expect_refusal(QV_HOST_NO_DEVICE, "no device", [&] { return open_channel(image, &id); });
  expect_refusal(QV_HOST_NO_DEVICE, "no device", [] { return QV_IPU_DestroyDevice(); });
  const Device device;
  expect_refusal(QV_HOST_DEVICE_EXISTS, "had_create_device",
                 [&] { return QV_IPU_CreateDevice(&attributes, nullptr, nullptr, 0); });
  expect_refusal(QV_HOST_NO_CHANNEL, "channel 77777",
                 [&] { return QV_IPU_GetInOutTensorDesc(77777, &tensors); });
  expect_refusal(QV_HOST_BAD_ARGUMENT, "attributes is NULL",
                 [&] { return QV_IPU_CreateCHN(&id, nullptr, nullptr, nullptr); });
  host_session::Channel channel(description(), network());
  QV_IPU_TensorVector_t never_out = {};
  expect_refusal(QV_HOST_OUT_OF_ORDER, "not out",
                 [&] { return QV_IPU_PutOutputTensors(channel.id, &never_out); });
  expect_refusal(QV_HOST_OUT_OF_ORDER, "all output buffers are out",
                 [&] { return QV_IPU_GetOutputTensors(channel.id, &never_out); });
  const std::vector<unsigned char> frame(16 * 16 * 3);
  expect_refusal(QV_HOST_OUT_OF_ORDER, "not out", [&] {
    return host_session::flush_and_invoke(channel.id, frame.data(), frame.size(), &never_out);
  });
}

TEST(HostRefusal, frames_that_are_absent_or_too_small) {
  const Device device;
  host_session::Channel channel(description(), network());
  const std::vector<unsigned char> frame(16 * 16 * 3);
  QV_IPU_TensorVector_t input = {};
  expect_refusal(QV_HOST_BAD_FRAME, "NULL",
                 [&] { return QV_IPU_Invoke(channel.id, &input, &channel.buffers); });
  expect_refusal(QV_HOST_BAD_FRAME, "767 bytes, the model needs 768", [&] {
    return host_session::flush_and_invoke(channel.id, frame.data(), frame.size() - 1,
                                          &channel.buffers);
  });
  EXPECT_EQ(0, channel.run(frame));

  // The last page of a range that ends in a page without access.
  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  char* pages = static_cast<char*>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(MAP_FAILED, static_cast<void*>(pages));
  ASSERT_EQ(0, mprotect(pages + page, page, PROT_NONE));
  input.astArrayTensors[0].ptTensorData[0] = pages + page - 767;
  expect_refusal(QV_HOST_BAD_FRAME, "only 767 of the frame's 768 bytes",
                 [&] { return QV_IPU_Invoke(channel.id, &input, &channel.buffers); });
  expect_refusal(QV_HOST_BAD_FRAME, "only 767 of 768",
                 [&] { return QV_SYS_FlushInvCache(pages + page - 767, 768); });
  munmap(pages, 2 * page);

  // A program's variables may lie behind the end of its file, in the rest of the last page.
  const std::string path = testing::TempDir() + "host_frame_" + std::to_string(getpid());
  std::ofstream(path) << "short";
  const int file = open(path.c_str(), O_RDONLY);
  pages = static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE, file, 0));
  close(file);
  ASSERT_NE(MAP_FAILED, static_cast<void*>(pages));
  input.astArrayTensors[0].ptTensorData[0] = pages + page - 768;
  EXPECT_EQ(0, QV_IPU_Invoke(channel.id, &input, &channel.buffers));
  input.astArrayTensors[0].ptTensorData[0] = pages + page - 767;
  expect_refusal(QV_HOST_BAD_FRAME, "only 767 of the frame's 768 bytes",
                 [&] { return QV_IPU_Invoke(channel.id, &input, &channel.buffers); });
  munmap(pages, 2 * page);
  std::remove(path.c_str());
}

TEST(HostRefusal, networks_that_do_not_fit_their_description) {
  const struct {
    const char* text;
    std::function<void(Description*, std::vector<char>*)> spoil;
  } kRows[] = {
      {"does not load", [](Description*, std::vector<char>* n) { n->assign(100, 'x'); }},
      {"no output \"bxes\", it has: boxes, points, scores",
       [](Description* d, std::vector<char>*) { d->decoded.boxes = "bxes"; }},
      {"no input \"pictre\"", [](Description* d, std::vector<char>*) { d->input.name = "pictre"; }},
      {"fails to run", [](Description* d, std::vector<char>*) { d->input.width = 32; }},
      {"\"points\" has 8 values in a row, the description says 4",
       [](Description* d, std::vector<char>*) { d->decoded.boxes = "points"; }},
      {"\"points\" has 8 values in a row, the description says 10",
       [](Description* d, std::vector<char>*) {
         d->decoded.emit_classes = false;
         d->decoded.keypoints = "points";
         d->decoded.keypoint_values = 10;
       }},
      {"background\" is 3", [](Description* d, std::vector<char>*) { d->decoded.background = 3; }},
      {"\"scores\" has the shape 1x4x3; a raw layer needs 1 x C x H x W",
       [](Description* d, std::vector<char>*) {
         d->kind = OutputKind::kRaw;
         d->raw[0].name = "scores";
         d->raw[1].name = "boxes";
         d->raw[2].name = "points";
       }},
  };
  const Device device;
  for (const auto& row : kRows) {
    Description spoilt = description();
    std::vector<char> onnx = network();
    row.spoil(&spoilt, &onnx);
    QV_U32 id = 0;
    expect_refusal(QV_HOST_BAD_NETWORK, row.text,
                   [&] { return open_channel(build_image(spoilt, onnx), &id); });
  }
}

// The library maps a file and hands over a bare address: the mapping's end is nobody's argument.
TEST(HostRefusal, model_files_and_mappings_that_are_truncated) {
  const std::string path = testing::TempDir() + "host_refusal_" + std::to_string(getpid());
  const std::vector<char> image = build_image(description(), network());
  ASSERT_LT(2 * kImageHeaderSize, image.size());
  for (const std::size_t size : {std::size_t{10}, kImageHeaderSize + 9, image.size() - 1}) {
    std::ofstream(path, std::ios::binary).write(image.data(), static_cast<std::streamsize>(size));
    const int file = open(path.c_str(), O_RDONLY);
    // Twice the needed pages: those behind the end of the file fault.
    void* mapped = mmap(nullptr, 2 * image.size(), PROT_READ, MAP_SHARED, file, 0);
    close(file);
    ASSERT_NE(MAP_FAILED, mapped);
    QV_IPU_OfflineModelStaticInfo_s info;
    expect_refusal(QV_HOST_BAD_IMAGE, path + ": truncated", [&] {
      return QV_IPU_GetOfflineModeStaticInfo(copy_from_memory, static_cast<char*>(mapped), &info);
    });
    munmap(mapped, 2 * image.size());
    std::string text_path = path;
    expect_refusal(QV_HOST_BAD_IMAGE, path + ": truncated",
                   [&] { return QV_IPU_GetOfflineModeStaticInfo(nullptr, &text_path[0], &info); });
    if (size == 10) {
      expect_refusal(QV_HOST_READ_FAILED, "cannot be read", [&] {
        return QV_IPU_GetOfflineModeStaticInfo(copy_from_memory, static_cast<char*>(mapped), &info);
      });
      expect_refusal(QV_HOST_BAD_ARGUMENT, "context is NULL", [&] {
        return QV_IPU_GetOfflineModeStaticInfo(copy_from_memory, nullptr, &info);
      });
    }
  }
  std::remove(path.c_str());
}

}  // namespace
