// host_refusal_test.cpp - what the host accelerator refuses: each cause with its own code and one
// line on standard error that names it. host_accelerator_test.cpp has what it computes.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include <gtest/gtest.h>

#include "tests/platform/host_session.h"
#include "tests/support/tiny_onnx.h"

namespace {

using namespace qv_host;
using host_session::copy_from_memory;
using host_session::decoded_description;
using host_session::Device;
using host_session::flush_and_invoke;
using host_session::open_channel;

const std::vector<char> kNetwork = tiny_onnx::decoded_network(16, 16, 8);

// Makes the call and checks its code and that it said one line with the given text in it.
template <typename Call>
void expect_refusal(QV_S32 code, const std::string& text, const Call& call) {
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
  const std::vector<char> image = build_image(decoded_description(), kNetwork);
  expect_refusal(QV_HOST_NO_DEVICE, "no device", [&] { return open_channel(image, &id); });
  const Device device;
  expect_refusal(QV_HOST_DEVICE_EXISTS, "had_create_device",
                 [&] { return QV_IPU_CreateDevice(&attributes, nullptr, nullptr, 0); });
  expect_refusal(QV_HOST_NO_CHANNEL, "channel 77777", [] { return QV_IPU_DestroyCHN(77777); });
  expect_refusal(QV_HOST_BAD_ARGUMENT, "attributes is NULL",
                 [&] { return QV_IPU_CreateCHN(&id, nullptr, nullptr, nullptr); });
  host_session::Channel channel(decoded_description(), kNetwork);
  QV_IPU_TensorVector_t never_out = {};
  expect_refusal(QV_HOST_OUT_OF_ORDER, "all output buffers are out",
                 [&] { return QV_IPU_GetOutputTensors(channel.id, &never_out); });
  const char frame[768] = {};
  expect_refusal(QV_HOST_OUT_OF_ORDER, "not out",
                 [&] { return flush_and_invoke(channel.id, frame, sizeof frame, &never_out); });
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

TEST(HostRefusal, frames_that_are_absent_or_too_small) {
  const Device device;
  host_session::Channel channel(decoded_description(), kNetwork);
  QV_IPU_TensorVector_t input = {};
  const auto invoke = [&] { return QV_IPU_Invoke(channel.id, &input, &channel.buffers); };
  expect_refusal(QV_HOST_BAD_FRAME, "NULL", invoke);
  const std::vector<unsigned char> frame(768);
  expect_refusal(QV_HOST_BAD_FRAME, "767 bytes, the model needs 768",
                 [&] { return flush_and_invoke(channel.id, frame.data(), 767, &channel.buffers); });
  EXPECT_EQ(0, channel.run(frame));

  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::string path = testing::TempDir() + "host_frame_" + std::to_string(getpid());
  std::ofstream(path) << "short";
  const int file = open(path.c_str(), O_RDONLY);
  for (char* pages : {map_pages(-1), map_pages(file)}) {
    input.astArrayTensors[0].ptTensorData[0] = pages + page - 768;
    EXPECT_EQ(0, invoke());
    input.astArrayTensors[0].ptTensorData[0] = pages + page - 767;
    expect_refusal(QV_HOST_BAD_FRAME, "only 767 of the frame's 768 bytes", invoke);
    expect_refusal(QV_HOST_BAD_FRAME, "only 767 of 768",
                   [&] { return QV_SYS_FlushInvCache(pages + page - 767, 768); });
    munmap(pages, 2 * page);
  }
  close(file);
  std::remove(path.c_str());
}

TEST(HostRefusal, networks_that_do_not_fit_their_description) {
  const struct {
    const char* text;
    void (*spoil)(Description*);
  } kRows[] = {
      {"no output \"bxes\", it has: boxes, points, scores",
       [](Description* d) { d->decoded.boxes = "bxes"; }},
      {"no input \"pictre\"", [](Description* d) { d->input.name = "pictre"; }},
      {"fails to run", [](Description* d) { d->input.width = 32; }},
      {"\"points\" has 8 values in a row, the description says 4",
       [](Description* d) { d->decoded.boxes = "points"; }},
      {"\"points\" has 8 values in a row, the description says 10",
       [](Description* d) {
         d->decoded.emit_classes = false;
         d->decoded.keypoints = "points";
         d->decoded.keypoint_values = 10;
       }},
      {"background\" is 3", [](Description* d) { d->decoded.background = 3; }},
      {"\"scores\" has the shape 1x4x3; a raw layer needs 1 x C x H x W",
       [](Description* d) {
         d->kind = OutputKind::kRaw;
         d->raw = {{{"scores"}, {"boxes"}, {"points"}}};
       }},
  };
  const Device device;
  QV_U32 id = 0;
  for (const auto& row : kRows) {
    Description spoilt = decoded_description();
    row.spoil(&spoilt);
    const std::vector<char> image = build_image(spoilt, kNetwork);
    expect_refusal(QV_HOST_BAD_NETWORK, row.text, [&] { return open_channel(image, &id); });
  }
  const std::vector<char> foreign = build_image(decoded_description(), std::vector<char>(100, 'x'));
  expect_refusal(QV_HOST_BAD_NETWORK, "does not load", [&] { return open_channel(foreign, &id); });
}

// The library maps a file and hands over a bare address: the mapping's end is nobody's argument.
TEST(HostRefusal, model_files_and_mappings_that_are_truncated) {
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
    expect_refusal(QV_HOST_BAD_IMAGE, path + ": truncated",
                   [&] { return info(copy_from_memory, static_cast<char*>(pages)); });
    munmap(pages, 2 * image.size());
    expect_refusal(QV_HOST_BAD_IMAGE, path + ": truncated",
                   [&] { return info(nullptr, &text_path[0]); });
  }
  // Not an address that was unmapped: something else may lie there by now.
  constexpr std::size_t kPage = 4096;
  void* closed = mmap(nullptr, kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, closed);
  expect_refusal(QV_HOST_READ_FAILED, "cannot be read",
                 [&] { return info(copy_from_memory, static_cast<char*>(closed)); });
  munmap(closed, kPage);
  expect_refusal(QV_HOST_BAD_ARGUMENT, "context is NULL",
                 [&] { return info(copy_from_memory, nullptr); });
  std::remove(path.c_str());
}

}  // namespace
