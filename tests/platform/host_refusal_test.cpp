// SPDX-License-Identifier: Apache-2.0
// host_refusal_test.cpp - what the host accelerator refuses: each cause with its own code and one
// line on standard error that names it and says what to do. host_accelerator_test.cpp has what it computes.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include <gtest/gtest.h>

#include "tests/platform/host_session.h"
#include "tests/support/kept_text.h"
#include "tests/support/tiny_onnx.h"

namespace {

using namespace qv_host;
using host_session::copy_from_memory;
using host_session::decoded_description;
using host_session::Device;
using host_session::flush_and_invoke;
using host_session::open_channel;

#define EXPECT_REFUSAL(code, call) expect_refusal(code, [&] { return call; })

const std::vector<char> kNetwork = tiny_onnx::decoded_network(16, 16, 8);

// Each test's refusals, code and line, are compared with those in data/refusals.txt.
class HostRefusal : public testing::Test {
 protected:
  // path: shown as FILE.
  template <typename Call>
  void expect_refusal(QV_S32 code, const Call& call, const std::string& path = "") {
    testing::internal::CaptureStderr();
    EXPECT_EQ(code, call());
    std::string message = testing::internal::GetCapturedStderr();
    EXPECT_EQ(1, std::count(message.begin(), message.end(), '\n')) << message;
    if (const std::size_t place = message.find(path); !path.empty() && place < message.size()) {
      message.replace(place, path.size(), "FILE");
    }
    for (const char* before : {"dnn module: ", "fails to run: "}) {
      leave_out_what_opencv_says(&message, before);
    }
    char number[16];
    std::snprintf(number, sizeof number, "0x%04x ", static_cast<unsigned>(code));
    said_ += number + message;
  }

  void TearDown() override {
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    expect_kept(OLVEX_PLATFORM_DATA "/refusals.txt", test.name(), said_);
  }

 private:
  static void leave_out_what_opencv_says(std::string* message, const std::string& before) {
    if (const std::size_t place = message->find(before); place != std::string::npos) {
      const std::size_t start = place + before.size();
      message->replace(start, message->find_first_of(";\n", start) - start, "...");
    }
  }

  std::string said_;
};

TEST_F(HostRefusal, calls_out_of_order) {
  QV_U32 id = 0;
  QV_IPU_DevAttr_s attributes = {};
  const std::vector<char> image = build_image(decoded_description(), kNetwork);
  EXPECT_REFUSAL(QV_HOST_NO_DEVICE, open_channel(image, &id));
  const Device device;
  EXPECT_REFUSAL(QV_HOST_DEVICE_EXISTS, QV_IPU_CreateDevice(&attributes, nullptr, nullptr, 0));
  EXPECT_REFUSAL(QV_HOST_NO_CHANNEL, QV_IPU_DestroyCHN(77777));
  host_session::Channel channel(decoded_description(), kNetwork);
  QV_IPU_TensorVector_t never_out = {};
  EXPECT_REFUSAL(QV_HOST_OUT_OF_ORDER, QV_IPU_GetOutputTensors(channel.id, &never_out));
  const char frame[768] = {};
  const auto invoke = [&](QV_IPU_TensorVector_t* buffers) {
    return flush_and_invoke(channel.id, frame, sizeof frame, buffers);
  };
  EXPECT_REFUSAL(QV_HOST_OUT_OF_ORDER, invoke(&never_out));
  for (const QV_U32 tensor : {0u, channel.buffers.u32TensorCount - 1}) {
    QV_IPU_TensorVector_t altered = channel.buffers;
    altered.astArrayTensors[tensor].ptTensorData[0] = nullptr;
    EXPECT_REFUSAL(QV_HOST_OUT_OF_ORDER, QV_IPU_PutOutputTensors(channel.id, &altered));
  }
  EXPECT_EQ(0, QV_IPU_PutOutputTensors(channel.id, &channel.buffers));
  EXPECT_REFUSAL(QV_HOST_OUT_OF_ORDER, invoke(&channel.buffers));
  EXPECT_EQ(0, QV_IPU_GetOutputTensors(channel.id, &channel.buffers));
  EXPECT_EQ(0, invoke(&channel.buffers));
  EXPECT_EQ(0, QV_IPU_DestroyCHN(channel.id));
  EXPECT_EQ(QV_HOST_NO_CHANNEL, QV_IPU_GetOutputTensors(channel.id, &never_out));
}

TEST_F(HostRefusal, arguments_that_no_call_can_take) {
  QV_U32 id = 0;
  QV_IPUChnAttr_s attributes = {};
  QV_IPU_TensorVector_t tensors = {};
  EXPECT_REFUSAL(QV_HOST_BAD_ARGUMENT, QV_IPU_CreateDevice(nullptr, nullptr, nullptr, 0));
  EXPECT_REFUSAL(QV_HOST_BAD_ARGUMENT, QV_IPU_GetOfflineModeStaticInfo(nullptr, nullptr, nullptr));
  EXPECT_REFUSAL(QV_HOST_BAD_ARGUMENT, QV_IPU_CreateCHN(nullptr, nullptr, nullptr, nullptr));
  EXPECT_REFUSAL(QV_HOST_BAD_ARGUMENT, QV_IPU_GetInOutTensorDesc(0, nullptr));
  EXPECT_REFUSAL(QV_HOST_BAD_ARGUMENT, QV_IPU_GetOutputTensors(0, nullptr));
  EXPECT_REFUSAL(QV_HOST_BAD_ARGUMENT, QV_IPU_PutOutputTensors(0, nullptr));
  EXPECT_REFUSAL(QV_HOST_BAD_ARGUMENT, QV_IPU_Invoke(0, nullptr, nullptr));
  EXPECT_REFUSAL(QV_HOST_BAD_ARGUMENT, QV_SYS_FlushInvCache(nullptr, 0));
  EXPECT_REFUSAL(QV_HOST_BAD_ARGUMENT, QV_IPU_Invoke(0, &tensors, nullptr));
  EXPECT_REFUSAL(QV_HOST_BAD_ARGUMENT, QV_IPU_CreateCHN(&id, nullptr, nullptr, nullptr));
  QV_IPUChnAttr_s wrong[3] = {};
  wrong[0].u32SubNetId = 1;
  wrong[1].u32BatchMax = 2;
  wrong[2].u32OutputBufDepth = 65;
  for (QV_IPUChnAttr_s& row : wrong) {
    EXPECT_REFUSAL(QV_HOST_BAD_ARGUMENT, QV_IPU_CreateCHN(&id, &row, nullptr, nullptr));
  }
  attributes.u32BatchMax = 1;
  attributes.u32OutputBufDepth = 64;
  EXPECT_REFUSAL(QV_HOST_NO_DEVICE, QV_IPU_CreateCHN(&id, &attributes, nullptr, nullptr));
  const Device device(1u << 31);
  Description nv12 = decoded_description();
  nv12.input.format = QV_IPU_FORMAT_NV12;
  const std::vector<char> image = build_image(nv12, kNetwork);
  EXPECT_REFUSAL(QV_HOST_BAD_ARGUMENT, open_channel(image, &id));
}

// Two pages: of memory whose second page has no access, or of a file whose end lies in the first. A
// program's variables may lie behind the end of its file, in the rest of the last page.
char* map_pages(int file) {
  const int flags = MAP_PRIVATE | (file < 0 ? MAP_ANONYMOUS : 0);
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* memory = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, flags, file, 0);
  EXPECT_NE(MAP_FAILED, memory);
  char* pages = static_cast<char*>(memory);
  EXPECT_EQ(0, file < 0 ? mprotect(pages + page, page, PROT_NONE) : 0);
  return pages;
}

TEST_F(HostRefusal, frames_that_are_absent_or_too_small) {
  const Device device;
  host_session::Channel channel(decoded_description(), kNetwork);
  QV_IPU_TensorVector_t input = {};
  const auto invoke = [&] { return QV_IPU_Invoke(channel.id, &input, &channel.buffers); };
  expect_refusal(QV_HOST_BAD_FRAME, invoke);
  input.u32TensorCount = 2;
  expect_refusal(QV_HOST_BAD_FRAME, invoke);
  input.u32TensorCount = 1;
  const std::vector<unsigned char> frame(768);
  EXPECT_REFUSAL(QV_HOST_BAD_FRAME,
                 flush_and_invoke(channel.id, frame.data(), 767, &channel.buffers));
  EXPECT_EQ(0, channel.run(frame));
  Description floats = decoded_description();
  floats.input.format = QV_IPU_FORMAT_FP32;
  host_session::Channel float_channel(floats, kNetwork);
  const std::vector<unsigned char> shifted(4 * 768 + 8);
  expect_refusal(QV_HOST_BAD_FRAME, [&] {
    return flush_and_invoke(float_channel.id, shifted.data() + 2, 4 * 768, &float_channel.buffers);
  });

  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::string path = testing::TempDir() + "host_frame_" + std::to_string(getpid());
  std::ofstream(path) << "short";
  const int file = open(path.c_str(), O_RDONLY);
  for (char* pages : {map_pages(-1), map_pages(file)}) {
    input.astArrayTensors[0].ptTensorData[0] = pages + page - 768;
    EXPECT_EQ(0, invoke());
    input.astArrayTensors[0].ptTensorData[0] = pages + page - 767;
    expect_refusal(QV_HOST_BAD_FRAME, invoke);
    EXPECT_REFUSAL(QV_HOST_BAD_FRAME, QV_SYS_FlushInvCache(pages + page - 767, 768));
    input.astArrayTensors[0].ptTensorData[0] = pages + page - 768;
    EXPECT_EQ(0, QV_SYS_FlushInvCache(pages + page - 768, 768));
    EXPECT_EQ(0, invoke());
    mprotect(pages, page, PROT_NONE);  // gone since the flush
    expect_refusal(QV_HOST_BAD_FRAME, invoke);
    munmap(pages, 2 * page);
  }
  close(file);
  std::remove(path.c_str());
}

TEST_F(HostRefusal, networks_that_do_not_fit_their_description) {
  const Device device;
  QV_U32 id = 0;
  const auto refuse = [&](void (*spoil)(Description&)) {
    Description description = decoded_description();
    spoil(description);
    const std::vector<char> image = build_image(description, kNetwork);
    EXPECT_REFUSAL(QV_HOST_BAD_NETWORK, open_channel(image, &id));
  };
  refuse([](Description& d) { d.decoded.boxes = "bxes"; });
  refuse([](Description& d) { d.input.name = "pictre"; });
  refuse([](Description& d) { d.input.width = 32; });
  refuse([](Description& d) { d.decoded.boxes = "points"; });
  refuse([](Description& d) {
    d.decoded.emit_classes = false;
    d.decoded.keypoints = "points";
    d.decoded.keypoint_values = 10;
  });
  refuse([](Description& d) { d.decoded.background = 3; });
  for (const bool nchw : {true, false}) {
    Description raw = decoded_description();
    raw.kind = OutputKind::kRaw;
    raw.raw = {{{"scores", nchw}, {"boxes"}, {"points"}}};
    const std::vector<char> image = build_image(raw, kNetwork);
    EXPECT_REFUSAL(QV_HOST_BAD_NETWORK, open_channel(image, &id));
  }
  Description other = decoded_description();
  other.decoded.scores = "points";
  other.decoded.background = 0;
  std::vector<char> image = build_image(other, tiny_onnx::decoded_network(16, 16, 1));
  EXPECT_REFUSAL(QV_HOST_BAD_NETWORK, open_channel(image, &id));
  other.input.width = other.input.height = 64;
  other.decoded.boxes = "stride8";
  other.decoded.scores = "stride16";
  image = build_image(other, tiny_onnx::raw_network(64, 64, false));
  EXPECT_REFUSAL(QV_HOST_BAD_NETWORK, open_channel(image, &id));
  const std::vector<char> foreign = build_image(decoded_description(), std::vector<char>(100, 'x'));
  EXPECT_REFUSAL(QV_HOST_BAD_NETWORK, open_channel(foreign, &id));
}

// The library maps a file and hands over a bare address: where the mapping ends is not an argument.
TEST_F(HostRefusal, model_files_and_mappings_that_are_truncated) {
  const std::string path = testing::TempDir() + "host_refusal_" + std::to_string(getpid());
  std::string text_path = path;
  const std::vector<char> image = build_image(decoded_description(), kNetwork);
  const auto info = [](QV_IPU_ReadFunc read, char* source) {
    QV_IPU_OfflineModelStaticInfo_s facts;
    return QV_IPU_GetOfflineModeStaticInfo(read, source, &facts);
  };
  for (const std::size_t size : {std::size_t{10}, kImageHeaderSize + 9, image.size() - 1}) {
    std::ofstream(path, std::ios::binary).write(image.data(), static_cast<std::streamsize>(size));
    const int file = open(path.c_str(), O_RDONLY);
    // Twice the needed pages: those behind the end of the file fault.
    void* pages = mmap(nullptr, 2 * image.size(), PROT_READ, MAP_SHARED, file, 0);
    close(file);
    ASSERT_NE(MAP_FAILED, pages);
    expect_refusal(
        QV_HOST_BAD_IMAGE, [&] { return info(copy_from_memory, static_cast<char*>(pages)); }, path);
    munmap(pages, 2 * image.size());
    expect_refusal(
        QV_HOST_BAD_IMAGE, [&] { return info(nullptr, &text_path[0]); }, path);
  }
  // Not an address that was unmapped: something else may lie there by now.
  constexpr std::size_t kPage = 4096;
  void* closed = mmap(nullptr, kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, closed);
  EXPECT_REFUSAL(QV_HOST_READ_FAILED, info(copy_from_memory, static_cast<char*>(closed)));
  munmap(closed, kPage);
  EXPECT_REFUSAL(QV_HOST_BAD_ARGUMENT, info(copy_from_memory, nullptr));
  EXPECT_REFUSAL(QV_HOST_BAD_ARGUMENT, info(nullptr, nullptr));
  std::vector<char> memory = image;
  const auto fail_behind = [](void* dst, int offset, int size, char* ctx) {
    return offset > 0 ? 7 : copy_from_memory(dst, offset, size, ctx);
  };
  EXPECT_REFUSAL(QV_HOST_READ_FAILED, info(fail_behind, memory.data()));
  memory[0] = 'X';
  EXPECT_REFUSAL(QV_HOST_BAD_IMAGE, info(copy_from_memory, memory.data()));
  std::remove(path.c_str());
}

}  // namespace
