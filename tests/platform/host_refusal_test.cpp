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

// Makes the call and checks its code and that it said this line. "..." stands for words of OpenCV.
template <typename Call>
void expect_refusal(QV_S32 code, const std::string& text, const Call& call) {
  testing::internal::CaptureStderr();
  const QV_S32 result = call();
  const std::string message = testing::internal::GetCapturedStderr();
  EXPECT_EQ(code, result) << text;
  const std::size_t gap = std::min(text.find("..."), text.size());
  const std::string end = (gap < text.size() ? text.substr(gap + 3) : "") + '\n';
  EXPECT_EQ("qv_host: " + text.substr(0, gap), message.substr(0, 9 + gap));
  EXPECT_EQ(end, message.substr(gap < text.size() ? message.size() - end.size() : 9 + gap));
  EXPECT_EQ(1, std::count(message.begin(), message.end(), '\n')) << message;
}

TEST(HostRefusal, calls_out_of_order) {
  QV_U32 id = 0;
  QV_IPU_DevAttr_s attributes = {};
  const std::vector<char> image = build_image(decoded_description(), kNetwork);
  expect_refusal(QV_HOST_NO_DEVICE,
                 "QV_IPU_CreateCHN: there is no device; call QV_IPU_CreateDevice first",
                 [&] { return open_channel(image, &id); });
  const Device device;
  expect_refusal(QV_HOST_DEVICE_EXISTS,
                 "QV_IPU_CreateDevice: the process has a device already; tell the library so "
                 "(had_create_device)",
                 [&] { return QV_IPU_CreateDevice(&attributes, nullptr, nullptr, 0); });
  expect_refusal(QV_HOST_NO_CHANNEL,
                 "QV_IPU_DestroyCHN: channel 77777 does not exist or was closed",
                 [] { return QV_IPU_DestroyCHN(77777); });
  host_session::Channel channel(decoded_description(), kNetwork);
  QV_IPU_TensorVector_t never_out = {};
  expect_refusal(QV_HOST_OUT_OF_ORDER,
                 "QV_IPU_GetOutputTensors: all output buffers are out; give them back with "
                 "QV_IPU_PutOutputTensors or open the channel with a larger u32OutputBufDepth",
                 [&] { return QV_IPU_GetOutputTensors(channel.id, &never_out); });
  const std::string not_out =
      ": these output buffers are not out; take them from QV_IPU_GetOutputTensors";
  const char frame[768] = {};
  const auto invoke = [&](QV_IPU_TensorVector_t* buffers) {
    return flush_and_invoke(channel.id, frame, sizeof frame, buffers);
  };
  expect_refusal(QV_HOST_OUT_OF_ORDER, "QV_IPU_Invoke" + not_out,
                 [&] { return invoke(&never_out); });
  for (const QV_U32 tensor : {0u, channel.buffers.u32TensorCount - 1}) {
    QV_IPU_TensorVector_t altered = channel.buffers;
    altered.astArrayTensors[tensor].ptTensorData[0] = nullptr;
    expect_refusal(QV_HOST_OUT_OF_ORDER, "QV_IPU_PutOutputTensors" + not_out,
                   [&] { return QV_IPU_PutOutputTensors(channel.id, &altered); });
  }
  EXPECT_EQ(0, QV_IPU_PutOutputTensors(channel.id, &channel.buffers));
  expect_refusal(QV_HOST_OUT_OF_ORDER, "QV_IPU_Invoke" + not_out,
                 [&] { return invoke(&channel.buffers); });
  EXPECT_EQ(0, QV_IPU_GetOutputTensors(channel.id, &channel.buffers));
  EXPECT_EQ(0, invoke(&channel.buffers));
  EXPECT_EQ(0, QV_IPU_DestroyCHN(channel.id));
  expect_refusal(QV_HOST_NO_CHANNEL,
                 "QV_IPU_GetOutputTensors: channel " + std::to_string(channel.id) +
                     " does not exist or was closed",
                 [&] { return QV_IPU_GetOutputTensors(channel.id, &never_out); });
}

TEST(HostRefusal, arguments_that_no_call_can_take) {
  const int codes[] = {QV_HOST_NO_DEVICE,        QV_HOST_DEVICE_EXISTS, QV_HOST_NO_CHANNEL,
                       QV_HOST_BAD_ARGUMENT,     QV_HOST_OUT_OF_ORDER,  QV_HOST_READ_FAILED,
                       QV_HOST_BAD_IMAGE,        QV_HOST_BAD_NETWORK,   QV_HOST_BAD_FRAME,
                       QV_HOST_INFERENCE_FAILED, QV_HOST_OUT_OF_MEMORY, QV_HOST_INTERNAL_ERROR};
  for (std::size_t i = 0; i < sizeof codes / sizeof *codes; ++i) {
    EXPECT_EQ(0x1001 + static_cast<int>(i), codes[i]);
  }
  QV_U32 id = 0;
  QV_IPUChnAttr_s attributes = {};
  QV_IPU_TensorVector_t tensors = {};
  const auto expect_null = [](const std::string& call, const std::string& name, QV_S32 (*make)()) {
    expect_refusal(QV_HOST_BAD_ARGUMENT, call + ": the argument " + name + " is NULL", make);
  };
  expect_null("QV_IPU_CreateDevice", "attributes",
              [] { return QV_IPU_CreateDevice(nullptr, nullptr, nullptr, 0); });
  expect_null("QV_IPU_GetOfflineModeStaticInfo", "info",
              [] { return QV_IPU_GetOfflineModeStaticInfo(nullptr, nullptr, nullptr); });
  expect_null("QV_IPU_CreateCHN", "channel",
              [] { return QV_IPU_CreateCHN(nullptr, nullptr, nullptr, nullptr); });
  expect_null("QV_IPU_GetInOutTensorDesc", "description",
              [] { return QV_IPU_GetInOutTensorDesc(0, nullptr); });
  expect_null("QV_IPU_GetOutputTensors", "tensors",
              [] { return QV_IPU_GetOutputTensors(0, nullptr); });
  expect_null("QV_IPU_PutOutputTensors", "tensors",
              [] { return QV_IPU_PutOutputTensors(0, nullptr); });
  expect_null("QV_IPU_Invoke", "input", [] { return QV_IPU_Invoke(0, nullptr, nullptr); });
  expect_null("QV_SYS_FlushInvCache", "address", [] { return QV_SYS_FlushInvCache(nullptr, 0); });
  expect_refusal(QV_HOST_BAD_ARGUMENT, "QV_IPU_Invoke: the argument output is NULL",
                 [&] { return QV_IPU_Invoke(0, &tensors, nullptr); });
  expect_refusal(QV_HOST_BAD_ARGUMENT, "QV_IPU_CreateCHN: the argument attributes is NULL",
                 [&] { return QV_IPU_CreateCHN(&id, nullptr, nullptr, nullptr); });
  const struct {
    QV_U32 QV_IPUChnAttr_s::*member;
    QV_U32 value;
    const char* message;
  } kRows[] = {
      {&QV_IPUChnAttr_s::u32SubNetId, 1,
       "u32SubNetId is 1; a host model has one network, number 0"},
      {&QV_IPUChnAttr_s::u32BatchMax, 2,
       "u32BatchMax is 2; the host runs one frame at a time (0 or 1)"},
      {&QV_IPUChnAttr_s::u32OutputBufDepth, 65, "u32OutputBufDepth is 65, at most 64 can be had"}};
  for (const auto& row : kRows) {
    QV_IPUChnAttr_s wrong = attributes;
    wrong.*row.member = row.value;
    expect_refusal(QV_HOST_BAD_ARGUMENT, std::string("QV_IPU_CreateCHN: ") + row.message,
                   [&] { return QV_IPU_CreateCHN(&id, &wrong, nullptr, nullptr); });
  }
  attributes.u32BatchMax = 1;
  attributes.u32OutputBufDepth = 64;
  expect_refusal(QV_HOST_NO_DEVICE,
                 "QV_IPU_CreateCHN: there is no device; call QV_IPU_CreateDevice first",
                 [&] { return QV_IPU_CreateCHN(&id, &attributes, nullptr, nullptr); });
  const Device device(1u << 31);
  Description nv12 = decoded_description();
  nv12.input.format = QV_IPU_FORMAT_NV12;
  const std::vector<char> image = build_image(nv12, kNetwork);
  expect_refusal(QV_HOST_BAD_ARGUMENT,
                 "QV_IPU_CreateCHN: model in memory: the device's pitch alignments (16 bytes, "
                 "2147483648 rows) make a frame larger than 2 GiB; set smaller ones",
                 [&] { return open_channel(image, &id); });
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
  expect_refusal(QV_HOST_BAD_FRAME, "QV_IPU_Invoke: the frame's virtual address is NULL", invoke);
  input.u32TensorCount = 2;
  expect_refusal(QV_HOST_BAD_FRAME, "QV_IPU_Invoke: the network has one input, the call brings 2",
                 invoke);
  input.u32TensorCount = 1;
  const std::vector<unsigned char> frame(768);
  expect_refusal(QV_HOST_BAD_FRAME,
                 "QV_IPU_Invoke: the frame has 767 bytes, the model needs 768; check the frame's "
                 "size, element "
                 "format and row padding",
                 [&] { return flush_and_invoke(channel.id, frame.data(), 767, &channel.buffers); });
  EXPECT_EQ(0, channel.run(frame));
  Description floats = decoded_description();
  floats.input.format = QV_IPU_FORMAT_FP32;
  host_session::Channel float_channel(floats, kNetwork);
  const std::vector<unsigned char> shifted(4 * 768 + 8);
  expect_refusal(QV_HOST_BAD_FRAME,
                 "QV_IPU_Invoke: an FP32 frame has to start at a multiple of 4 bytes", [&] {
                   return flush_and_invoke(float_channel.id, shifted.data() + 2, 4 * 768,
                                           &float_channel.buffers);
                 });

  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::string path = testing::TempDir() + "host_frame_" + std::to_string(getpid());
  std::ofstream(path) << "short";
  const int file = open(path.c_str(), O_RDONLY);
  for (char* pages : {map_pages(-1), map_pages(file)}) {
    input.astArrayTensors[0].ptTensorData[0] = pages + page - 768;
    EXPECT_EQ(0, invoke());
    input.astArrayTensors[0].ptTensorData[0] = pages + page - 767;
    expect_refusal(QV_HOST_BAD_FRAME,
                   "QV_IPU_Invoke: only 767 of the frame's 768 bytes can be read", invoke);
    expect_refusal(QV_HOST_BAD_FRAME, "QV_SYS_FlushInvCache: only 767 of 768 bytes are mapped",
                   [&] { return QV_SYS_FlushInvCache(pages + page - 767, 768); });
    munmap(pages, 2 * page);
  }
  close(file);
  std::remove(path.c_str());
}

const std::string kPlace = "QV_IPU_CreateCHN: model in memory: ";

TEST(HostRefusal, networks_that_do_not_fit_their_description) {
  const struct {
    const char* text;
    void (*spoil)(Description*);
  } kRows[] = {
      {"the network has no output \"bxes\", it has: boxes, points, scores",
       [](Description* d) { d->decoded.boxes = "bxes"; }},
      {"\"input.name\": the network has no input \"pictre\"; leave the field out if it has only "
       "one",
       [](Description* d) { d->input.name = "pictre"; }},
      {"the network fails to run: ...; do the input's size and colour order fit it?",
       [](Description* d) { d->input.width = 32; }},
      {"output \"points\" has 8 values in a row, the description says 4",
       [](Description* d) { d->decoded.boxes = "points"; }},
      {"output \"points\" has 8 values in a row, the description says 10",
       [](Description* d) {
         d->decoded.emit_classes = false;
         d->decoded.keypoints = "points";
         d->decoded.keypoint_values = 10;
       }},
      {"\"outputs.scores.background\" is 3, but output \"scores\" has only 3 columns",
       [](Description* d) { d->decoded.background = 3; }},
      {"output \"scores\" has the shape 1x4x3; a raw layer needs 1 x C x H x W",
       [](Description* d) {
         d->kind = OutputKind::kRaw;
         d->raw = {{{"scores"}, {"boxes"}, {"points"}}};
       }},
      {"output \"scores\" has the shape 1x4x3; a raw layer needs 1 x H x W x C",
       [](Description* d) {
         d->kind = OutputKind::kRaw;
         d->raw = {{{"scores", false}, {"boxes"}, {"points"}}};
       }},
  };
  const Device device;
  QV_U32 id = 0;
  for (const auto& row : kRows) {
    Description spoilt = decoded_description();
    row.spoil(&spoilt);
    const std::vector<char> image = build_image(spoilt, kNetwork);
    expect_refusal(QV_HOST_BAD_NETWORK, kPlace + row.text,
                   [&] { return open_channel(image, &id); });
  }
  Description other = decoded_description();
  other.decoded.scores = "points";
  other.decoded.background = 0;
  std::vector<char> image = build_image(other, tiny_onnx::decoded_network(16, 16, 1));
  expect_refusal(QV_HOST_BAD_NETWORK,
                 kPlace + "output \"points\" has no class beside the background",
                 [&] { return open_channel(image, &id); });
  other.input.width = other.input.height = 64;
  other.decoded.boxes = "stride8";
  other.decoded.scores = "stride16";
  image = build_image(other, tiny_onnx::raw_network(64, 64, false));
  expect_refusal(QV_HOST_BAD_NETWORK,
                 kPlace + "output \"stride8\" has the shape 1x6x8x8; 1 x N x C is needed",
                 [&] { return open_channel(image, &id); });
  const std::vector<char> foreign = build_image(decoded_description(), std::vector<char>(100, 'x'));
  expect_refusal(QV_HOST_BAD_NETWORK,
                 kPlace + "the network does not load in OpenCV's dnn module: ...",
                 [&] { return open_channel(foreign, &id); });
}

// The library maps a file and hands over a bare address: the mapping's end is nobody's argument.
TEST(HostRefusal, model_files_and_mappings_that_are_truncated) {
  const std::string path = testing::TempDir() + "host_refusal_" + std::to_string(getpid());
  const std::string kInfo = "QV_IPU_GetOfflineModeStaticInfo: ";
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
    const std::string found = std::to_string(size);
    const std::string all = std::to_string(size < 24 ? kImageHeaderSize : image.size());
    expect_refusal(QV_HOST_BAD_IMAGE,
                   kInfo + path + ": truncated: " + found +
                       " bytes from the start pattern on, expected " + all +
                       "; copy or pack it again",
                   [&] { return info(copy_from_memory, static_cast<char*>(pages)); });
    munmap(pages, 2 * image.size());
    expect_refusal(QV_HOST_BAD_IMAGE,
                   kInfo + path + ": truncated: " +
                       (size < 24 ? found + " bytes, the fixed part alone has 24"
                                  : "found " + found + " bytes, the lengths in it announce " + all),
                   [&] { return info(nullptr, &text_path[0]); });
  }
  // Not an address that was unmapped: something else may lie there by now.
  constexpr std::size_t kPage = 4096;
  void* closed = mmap(nullptr, kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, closed);
  expect_refusal(QV_HOST_READ_FAILED,
                 kInfo + "the model's address cannot be read; hand over a mapped model image",
                 [&] { return info(copy_from_memory, static_cast<char*>(closed)); });
  munmap(closed, kPage);
  expect_refusal(
      QV_HOST_BAD_ARGUMENT,
      kInfo + "the read callback's context is NULL; is there no \"QTNX\" in the model file?",
      [&] { return info(copy_from_memory, nullptr); });
  expect_refusal(QV_HOST_BAD_ARGUMENT, kInfo + "the path of the model file is NULL",
                 [&] { return info(nullptr, nullptr); });
  std::vector<char> memory = image;
  const auto fail_behind = [](void* dst, int offset, int size, char* ctx) {
    return offset > 0 ? 7 : copy_from_memory(dst, offset, size, ctx);
  };
  expect_refusal(QV_HOST_READ_FAILED,
                 kInfo + "the read callback failed with code 7 for " +
                     std::to_string(image.size() - kImageHeaderSize) + " bytes at offset 24",
                 [&] { return info(fail_behind, memory.data()); });
  memory[0] = 'X';
  expect_refusal(
      QV_HOST_BAD_IMAGE,
      kInfo + "model in memory: does not begin with \"QTNX\"; make a model file with the packer",
      [&] { return info(copy_from_memory, memory.data()); });
  std::remove(path.c_str());
}

}  // namespace
