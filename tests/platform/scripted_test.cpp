// SPDX-License-Identifier: Apache-2.0
// scripted_test.cpp - the scripted accelerator's own promises: what it reports, fails, plays and
// notes. What it shares with every platform is in accel_check_test.py.
#include "platform/scripted/qv_scripted.h"

#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "platform/scripted/guarded_buffer.h"
#include "tests/support/scripted_test.h"

namespace {

using qv_scripted::Frame;
using qv_scripted::Function;
using qv_scripted::kPoison;
using qv_scripted::Network;
using qv_scripted::to_bytes;

constexpr QV_S32 kCode = 0x77;

int read_memory(void* dst, int offset, int size, char* ctx) {
  std::memcpy(dst, ctx + offset, static_cast<std::size_t>(size));
  return 0;
}

// A network of one 4 x 2 gray input and two outputs of 2 floats and 3 integers.
Network small_network() {
  Network network;
  network.inputs = {qv_scripted::nhwc_tensor("picture", {1, 2, 4, 1}, QV_IPU_FORMAT_GRAY, 1.f)};
  network.outputs = {qv_scripted::fp32_tensor("floats", {1, 1, 1, 2}),
                     qv_scripted::int16_tensor("integers", {1, 1, 1, 3}, 0.5f)};
  network.frames = {{to_bytes<float>({1.f, 2.f}), to_bytes<std::int16_t>({1, 2, 3})}};
  return network;
}

// The calls of one run, made the way the library makes them, and some that break the contract.
struct Caller {
  QV_U32 id = 0;
  QV_IPU_TensorVector_t input = {};
  QV_IPU_TensorVector_t output = {};
  char model[17] = "QTNX456789abcdef";
  unsigned char frame[8] = {};

  QV_S32 create_device() {
    QV_IPU_DevAttr_s attributes = {};
    return QV_IPU_CreateDevice(&attributes, nullptr, nullptr, 0);
  }
  QV_S32 create_channel() {
    QV_IPUChnAttr_s attributes = {};
    attributes.u32OutputBufDepth = 1;
    return QV_IPU_CreateCHN(&id, &attributes, read_memory, model);
  }
  QV_S32 destroy_device() { return QV_IPU_DestroyDevice(); }
  QV_S32 destroy_channel() { return QV_IPU_DestroyCHN(id); }
  QV_S32 get() { return QV_IPU_GetOutputTensors(id, &output); }
  QV_S32 put() { return QV_IPU_PutOutputTensors(id, &output); }
  QV_S32 flush() { return QV_SYS_FlushInvCache(frame, sizeof frame); }
  QV_S32 invoke_at(void* address) {
    input.astArrayTensors[0].ptTensorData[0] = address;
    return QV_IPU_Invoke(id, &input, &output);
  }
  QV_S32 invoke() { return invoke_at(frame); }
  QV_S32 run() { return flush(), invoke(); }

  QV_S32 create_bare_device() { return QV_IPU_CreateDevice(nullptr, nullptr, nullptr, 0); }
  QV_S32 forget_output() { return output = QV_IPU_TensorVector_t(), 0; }
  QV_S32 alter_output_count() { return output.u32TensorCount = 1, 0; }
  QV_S32 alter_output_address() { return output.astArrayTensors[1].phyTensorAddr[0] += 8, 0; }
  QV_S32 alter_input_count() { return input.u32TensorCount = 2, 0; }
  QV_S32 alter_channel() { return id = 9, 0; }
  QV_S32 flush_short() { return QV_SYS_FlushInvCache(frame, 7); }
  QV_S32 flush_elsewhere() {
    return std::thread([this] { flush(); }).join(), 0;
  }
  QV_S32 invoke_nothing() { return invoke_at(nullptr); }
  QV_S32 invoke_behind() { return invoke_at(frame + 1); }

  void open(const Network& network = small_network()) {
    qv_scripted::add_network(network);
    ASSERT_EQ(0, create_device());
    ASSERT_EQ(0, create_channel());
    ASSERT_EQ(0, get());
  }
  template <class Value>
  Value* tensor(int i) {
    return static_cast<Value*>(output.astArrayTensors[i].ptTensorData[0]);
  }
};

class Scripted : public ScriptedTest {};

TEST_F(Scripted, reports_each_violation_of_the_contract) {
  using C = Caller;
  // The calls are made on a channel that is open and holds its buffers.
  const std::tuple<const char*, std::vector<QV_S32 (C::*)()>> kRows[] = {
      {"CreateDevice: a device is up already", {&C::create_device}},
      {"CreateDevice: no attributes", {&C::create_bare_device}},
      {"DestroyDevice: no device is up", {&C::destroy_device, &C::destroy_device}},
      {"CreateCHN: no device is up", {&C::destroy_device, &C::create_channel}},
      {"PutOutputTensors: no device is up", {&C::destroy_device, &C::put}},
      {"Invoke: channel 1 is closed", {&C::destroy_channel, &C::run}},
      {"GetOutputTensors: channel 9 was never opened", {&C::alter_channel, &C::get}},
      {"channel 1: all output buffers are out, the depth is 1", {&C::get}},
      {"channel 1: output buffers that were put back already", {&C::put, &C::put}},
      {"Invoke: channel 1: output buffers that were put back", {&C::put, &C::run}},
      {"output buffers that were never handed out", {&C::forget_output, &C::put}},
      {"output buffers with altered addresses or count", {&C::alter_output_address, &C::put}},
      {"output buffers with altered addresses or count", {&C::alter_output_count, &C::put}},
      {"Invoke: channel 1: no input", {&C::invoke_nothing}},
      {"Invoke: channel 1: nothing was flushed", {&C::invoke}},
      {"Invoke: channel 1: nothing was flushed", {&C::run, &C::invoke}},
      {"Invoke: channel 1: nothing was flushed", {&C::flush_elsewhere, &C::invoke}},
      {"the input is not the start of the flushed range", {&C::flush, &C::invoke_behind}},
      {"channel 1: flushed 7 bytes of an input of 8", {&C::flush_short, &C::invoke}},
      {"Invoke: channel 1: wrong number of inputs", {&C::alter_input_count, &C::run}},
  };
  for (const auto& [violation, calls] : kRows) {
    SCOPED_TRACE(violation);
    qv_scripted::reset();
    Caller caller;
    ASSERT_NO_FATAL_FAILURE(caller.open());
    for (const auto call : calls) {
      (caller.*call)();
    }
    expect_violation(violation);
    EXPECT_EQ(1u, qv_scripted::violations().size());
    check_violations();
  }
  qv_scripted::reset();
}

TEST_F(Scripted, reports_a_second_call_on_a_running_channel) {
  Network network = small_network();
  network.invoke_time_us = 300000;
  Caller caller;
  ASSERT_NO_FATAL_FAILURE(caller.open(network));
  std::thread running([&caller] { EXPECT_EQ(0, caller.run()); });
  while (qv_scripted::call_count(Function::kInvoke) == 0) {
    std::this_thread::yield();
  }
  EXPECT_EQ(qv_scripted::kOutOfOrder, caller.put());
  running.join();
  expect_violation("PutOutputTensors: channel 1: another call on it is running");
}

#ifdef QV_SCRIPTED_ASAN
TEST_F(Scripted, the_sanitizer_stops_reads_outside_a_tensor) {
  Caller caller;
  ASSERT_NO_FATAL_FAILURE(caller.open());
  ASSERT_EQ(0, caller.run());
  const volatile std::int16_t* integers = caller.tensor<std::int16_t>(1);
  EXPECT_DEATH((void)integers[3], "use-after-poison");
  EXPECT_DEATH((void)integers[-1], "use-after-poison");
  ASSERT_EQ(0, caller.put());
  EXPECT_DEATH((void)integers[0], "use-after-poison");
  std::vector<char> frame(8);
  EXPECT_EQ(0, QV_SYS_FlushInvCache(frame.data(), 8));
  EXPECT_EQ(qv_scripted::kBadArgument, QV_SYS_FlushInvCache(frame.data(), 9));
  expect_violation("FlushInvCache: the range reaches outside its buffer");
}
#else
TEST_F(Scripted, reports_writes_outside_a_tensor_once) {
  Caller caller;
  ASSERT_NO_FATAL_FAILURE(caller.open());
  caller.tensor<char>(1)[3 * sizeof(std::int16_t)] = 0;
  caller.tensor<std::int16_t>(1)[2] = 0;
  expect_violation("channel 1: bytes after output tensor 1 were overwritten");
  EXPECT_EQ(1u, qv_scripted::violations().size());
  EXPECT_EQ(1u, qv_scripted::violations().size());
  caller.tensor<char>(0)[-1] = 0;
  expect_violation("channel 1: bytes before output tensor 0 were overwritten");
  EXPECT_EQ(0, caller.put());
  caller.tensor<float>(0)[2] = 0;
  expect_violation("channel 1: bytes after output tensor 0 were overwritten");
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
}
#endif

TEST_F(Scripted, plays_frames_in_order_between_poison) {
  Caller caller;
  Network network = small_network();
  network.frames.push_back({to_bytes<float>({5.f})});
  ASSERT_NO_FATAL_FAILURE(caller.open(network));
  const unsigned char* bytes = caller.tensor<unsigned char>(0);
  EXPECT_EQ(kPoison, bytes[0]);
  ASSERT_EQ(0, caller.run());
  EXPECT_EQ(2.f, caller.tensor<float>(0)[1]);
  EXPECT_EQ(3, caller.tensor<std::int16_t>(1)[2]);
  ASSERT_EQ(0, caller.run());
  EXPECT_EQ(5.f, caller.tensor<float>(0)[0]);
  EXPECT_EQ(kPoison, bytes[4]) << "past the short tensor";
  EXPECT_EQ(kPoison, caller.tensor<unsigned char>(1)[0]) << "a tensor not given";
  for (const Frame& frame : {Frame(3), Frame{to_bytes<float>({1, 2, 3})}}) {
    network.frames = {frame};
    EXPECT_THROW(qv_scripted::add_network(network), std::invalid_argument);
  }
  network.frames.clear();
  qv_scripted::add_network(network);
  Caller without;
  EXPECT_TRUE(without.create_channel() == 0 && without.get() == 0);
  EXPECT_EQ(qv_scripted::kNoFrame, without.run());
  expect_violation("Invoke: channel 2: the network has no output frame");
}

TEST_F(Scripted, repeats_the_last_frame_with_and_without_a_copy) {
  for (const bool copy : {true, false}) {
    SCOPED_TRACE(copy);
    qv_scripted::reset();
    Network network = small_network();
    network.copy_repeated_frame = copy;
    Caller caller;
    ASSERT_NO_FATAL_FAILURE(caller.open(network));
    ASSERT_EQ(0, caller.run());
    caller.tensor<float>(0)[0] = 9.f;
    ASSERT_EQ(0, caller.run());
    EXPECT_EQ(copy ? 1.f : 9.f, caller.tensor<float>(0)[0]);
    qv_scripted::fail_next_call(Function::kInvoke, kCode);
    EXPECT_EQ(kCode, caller.run());
    ASSERT_EQ(0, caller.run());
    EXPECT_EQ(1.f, caller.tensor<float>(0)[0]) << "the poison of the failure stayed";
    ASSERT_EQ(0, caller.put());
    ASSERT_EQ(0, caller.get());
    EXPECT_EQ(kPoison, caller.tensor<unsigned char>(0)[0]) << "put back, so gone";
  }
}

TEST_F(Scripted, each_channel_gets_the_next_network) {
  Caller callers[3];
  ASSERT_NO_FATAL_FAILURE(callers[0].open());
  Network second = small_network();
  second.outputs.resize(1);
  second.frames = {{to_bytes<float>({7.f, 8.f})}};
  second.reported_outputs = 1000;
  qv_scripted::add_network(second);
  for (const int i : {1, 2}) {
    ASSERT_EQ(0, callers[i].create_channel());
    QV_IPU_SubNet_InputOutputDesc_t description = {};
    ASSERT_EQ(0, QV_IPU_GetInOutTensorDesc(callers[i].id, &description));
    EXPECT_EQ(1000u, description.u32OutputTensorCount);
    ASSERT_EQ(0, callers[i].get());
    ASSERT_EQ(0, callers[i].run());
    EXPECT_EQ(7.f, callers[i].tensor<float>(0)[0]);
  }
  ASSERT_EQ(0, callers[0].run());
  EXPECT_EQ(1.f, callers[0].tensor<float>(0)[0]);
  ASSERT_EQ(0, QV_IPU_DestroyDevice());
  EXPECT_EQ(3, qv_scripted::last_event(Function::kDestroyDevice).open_channels);
}

TEST_F(Scripted, the_fixture_fails_on_unannounced_and_on_missing_violations) {
  QV_IPU_DestroyDevice();
  EXPECT_NONFATAL_FAILURE(check_violations(), "no device is up");
  qv_scripted::reset();
  expect_violation("none like this");
  EXPECT_NONFATAL_FAILURE(check_violations(), "did not happen: none like this");
}

TEST_F(Scripted, picture_sizes_follow_their_format) {
  const std::tuple<QV_IPU_ELEMENT_FORMAT, QV_U32, QV_U32, QV_U32, QV_S32> kRows[] = {
      {QV_IPU_FORMAT_NV12, 24, 10, 360, 480},
      {QV_IPU_FORMAT_NV12, 16, 3, 72, 96},
      {QV_IPU_FORMAT_ARGB8888, 5, 3, 60, 96},
      {QV_IPU_FORMAT_U8, 16, 2, 96, 96},
      {QV_IPU_FORMAT_GRAY, 17, 2, 34, 64}};
  for (const auto& [format, width, height, size, aligned] : kRows) {
    const QV_IPU_TensorDesc_t input = qv_scripted::picture_input(format, width, height);
    EXPECT_TRUE(input.u32BufSize == size && input.s32AlignedBufSize == aligned) << format;
  }
  EXPECT_THROW(qv_scripted::fp32_tensor("too large", {1u << 16, 1u << 16}), std::invalid_argument);
  const std::string name(OLVEX_TENSOR_NAME_SIZE + 1, 'n');
  EXPECT_EQ('n', qv_scripted::fp32_tensor(name, {1}).name[OLVEX_TENSOR_NAME_SIZE - 1]);
}

}  // namespace
