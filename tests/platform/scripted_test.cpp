// scripted_test.cpp - the scripted accelerator's own promises: what it reports, fails, plays and
// notes. What it shares with every platform is in contract_test.cpp.
#include "platform/scripted/qv_scripted.h"

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "platform/scripted/guarded_buffer.h"
#include "tests/support/scripted_test.h"

namespace {

using qv_scripted::Frame;
using qv_scripted::Function;
using qv_scripted::to_bytes;

constexpr QV_S32 kCode = 0x77;

int read_memory(void* dst, int offset, int size, char* ctx) {
  std::memcpy(dst, ctx + offset, static_cast<std::size_t>(size));
  return 0;
}

// A network of one 4 x 2 gray input and two outputs of 2 floats and 3 integers.
qv_scripted::Network small_network() {
  qv_scripted::Network network;
  network.inputs = {qv_scripted::nhwc_tensor("picture", {1, 2, 4, 1}, QV_IPU_FORMAT_GRAY, 1.f)};
  network.outputs = {qv_scripted::fp32_tensor("floats", {1, 1, 1, 2}),
                     qv_scripted::int16_tensor("integers", {1, 1, 1, 3}, 0.5f)};
  network.frames = {{to_bytes<float>({1.f, 2.f}), to_bytes<std::int16_t>({1, 2, 3})}};
  return network;
}

// The calls of one run, made the way the library makes them; a test breaks single ones.
struct Caller {
  QV_U32 id = 0;
  QV_IPU_TensorVector_t output = {};
  char model[17] = "QTNX456789abcdef";
  unsigned char frame[8] = {};

  QV_S32 create_device() {
    QV_IPU_DevAttr_s attributes = {};
    attributes.u32MaxVariableBufSize = 4096;
    char path[] = "firmware.bin";
    return QV_IPU_CreateDevice(&attributes, nullptr, path, 0);
  }
  QV_S32 create_channel() {
    QV_IPUChnAttr_s attributes = {};
    attributes.u32OutputBufDepth = 1;
    return QV_IPU_CreateCHN(&id, &attributes, read_memory, model);
  }
  QV_S32 get() { return QV_IPU_GetOutputTensors(id, &output); }
  QV_S32 put() { return QV_IPU_PutOutputTensors(id, &output); }
  QV_S32 flush() { return QV_SYS_FlushInvCache(frame, sizeof frame); }
  QV_S32 invoke(void* address) {
    QV_IPU_TensorVector_t input = {};
    input.astArrayTensors[0].ptTensorData[0] = address;
    return QV_IPU_Invoke(id, &input, &output);
  }
  QV_S32 run() {
    flush();
    return invoke(frame);
  }
  void open() {
    qv_scripted::add_network(small_network());
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
  using Break = std::function<void(Caller&)>;
  const struct {
    const char* violation;
    Break act;  // on a channel that is open and holds its buffers
  } kRows[] = {
      {"CreateDevice: a device is up already", [](Caller& c) { c.create_device(); }},
      {"CreateDevice: no attributes",
       [](Caller&) { QV_IPU_CreateDevice(nullptr, nullptr, nullptr, 0); }},
      {"DestroyDevice: no device is up",
       [](Caller&) {
         QV_IPU_DestroyDevice();
         QV_IPU_DestroyDevice();
       }},
      {"CreateCHN: no device is up",
       [](Caller& c) {
         QV_IPU_DestroyDevice();
         c.create_channel();
       }},
      {"PutOutputTensors: no device is up",
       [](Caller& c) {
         QV_IPU_DestroyDevice();
         c.put();
       }},
      {"Invoke: channel 1 is closed",
       [](Caller& c) {
         QV_IPU_DestroyCHN(c.id);
         c.run();
       }},
      {"GetInOutTensorDesc: channel 9 was never opened",
       [](Caller&) {
         QV_IPU_SubNet_InputOutputDesc_t description;
         QV_IPU_GetInOutTensorDesc(9, &description);
       }},
      {"GetOutputTensors: channel 1: all output buffers are out, the depth is 1",
       [](Caller& c) { c.get(); }},
      {"PutOutputTensors: channel 1: output buffers that were put back already",
       [](Caller& c) {
         c.put();
         c.put();
       }},
      {"PutOutputTensors: channel 1: output buffers that were never handed out",
       [](Caller& c) {
         c.output = QV_IPU_TensorVector_t();
         c.put();
       }},
      {"PutOutputTensors: channel 1: output buffers with altered addresses or count",
       [](Caller& c) {
         c.output.astArrayTensors[1].phyTensorAddr[0] += 8;
         c.put();
       }},
      {"PutOutputTensors: channel 1: output buffers with altered addresses or count",
       [](Caller& c) {
         c.output.u32TensorCount = 1;
         c.put();
       }},
      {"Invoke: channel 1: output buffers that were put back already",
       [](Caller& c) {
         c.put();
         c.run();
       }},
      {"Invoke: channel 1: no input", [](Caller& c) { c.invoke(nullptr); }},
      {"Invoke: channel 1: nothing was flushed", [](Caller& c) { c.invoke(c.frame); }},
      {"Invoke: channel 1: nothing was flushed",
       [](Caller& c) {
         c.run();
         c.invoke(c.frame);
       }},
      {"Invoke: channel 1: nothing was flushed",
       [](Caller& c) {
         std::thread([&c] { c.flush(); }).join();
         std::thread([&c] { c.invoke(c.frame); }).join();
       }},
      {"Invoke: channel 1: the input is not the start of the flushed range",
       [](Caller& c) {
         c.flush();
         c.invoke(c.frame + 1);
       }},
      {"Invoke: channel 1: flushed 7 bytes of an input of 8",
       [](Caller& c) {
         QV_SYS_FlushInvCache(c.frame, 7);
         c.invoke(c.frame);
       }},
      {"Invoke: channel 1: wrong number of inputs",
       [](Caller& c) {
         QV_IPU_TensorVector_t input = {};
         input.u32TensorCount = 2;
         input.astArrayTensors[0].ptTensorData[0] = c.frame;
         c.flush();
         QV_IPU_Invoke(c.id, &input, &c.output);
       }},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.violation);
    qv_scripted::reset();
    Caller caller;
    ASSERT_NO_FATAL_FAILURE(caller.open());
    ASSERT_TRUE(qv_scripted::violations().empty());
    row.act(caller);
    expect_violation(row.violation);
    check_violations();
  }
  qv_scripted::reset();
}

TEST_F(Scripted, reports_a_second_call_on_a_running_channel) {
  qv_scripted::Network network = small_network();
  network.invoke_time_us = 300000;
  qv_scripted::add_network(network);
  Caller caller;
  ASSERT_EQ(0, caller.create_device());
  ASSERT_EQ(0, caller.create_channel());
  ASSERT_EQ(0, caller.get());
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
  ASSERT_EQ(0, QV_IPU_DestroyDevice());
}
#else
TEST_F(Scripted, reports_writes_outside_a_tensor_once) {
  Caller caller;
  ASSERT_NO_FATAL_FAILURE(caller.open());
  caller.tensor<std::int16_t>(1)[3] = 0;
  caller.tensor<std::int16_t>(1)[2] = 0;
  expect_violation("channel 1: bytes after output tensor 1 were overwritten");
  EXPECT_EQ(1u, qv_scripted::violations().size());
  EXPECT_EQ(1u, qv_scripted::violations().size());
  caller.tensor<float>(0)[-1] = 0;
  expect_violation("channel 1: bytes before output tensor 0 were overwritten");
  EXPECT_EQ(0, caller.put());
  caller.tensor<float>(0)[2] = 0;
  expect_violation("channel 1: bytes after output tensor 0 were overwritten");
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
}
#endif

TEST_F(Scripted, plays_frames_in_order_between_poison) {
  Caller caller;
  qv_scripted::Network network = small_network();
  network.repeat_last_frame = false;
  qv_scripted::add_network(network);
  ASSERT_EQ(0, caller.create_device());
  ASSERT_EQ(0, caller.create_channel());
  ASSERT_EQ(0, caller.get());
  EXPECT_EQ(qv_scripted::kPoison, caller.tensor<unsigned char>(0)[0]);
  qv_scripted::queue_frame(caller.id, {to_bytes<float>({5.f})});

  ASSERT_EQ(0, caller.run());
  EXPECT_EQ(2.f, caller.tensor<float>(0)[1]);
  EXPECT_EQ(3, caller.tensor<std::int16_t>(1)[2]);
  ASSERT_EQ(0, caller.run());
  EXPECT_EQ(5.f, caller.tensor<float>(0)[0]);
  EXPECT_EQ(qv_scripted::kPoison, caller.tensor<unsigned char>(0)[4]) << "past the short tensor";
  EXPECT_EQ(qv_scripted::kPoison, caller.tensor<unsigned char>(1)[0]) << "a tensor not given";
  EXPECT_EQ(qv_scripted::kNoFrame, caller.run());
  expect_violation("Invoke: channel 1: no output frame is left");
  EXPECT_EQ(qv_scripted::kPoison, caller.tensor<unsigned char>(0)[0]);
  EXPECT_THROW(qv_scripted::queue_frame(caller.id, Frame(3)), std::invalid_argument);
  EXPECT_THROW(qv_scripted::queue_frame(caller.id, {to_bytes<float>({1, 2, 3})}),
               std::invalid_argument);
}

TEST_F(Scripted, repeats_the_last_frame_with_and_without_a_copy) {
  for (const bool copy : {true, false}) {
    SCOPED_TRACE(copy);
    qv_scripted::reset();
    qv_scripted::Network network = small_network();
    network.copy_repeated_frame = copy;
    qv_scripted::add_network(network);
    Caller caller;
    ASSERT_EQ(0, caller.create_device());
    ASSERT_EQ(0, caller.create_channel());
    ASSERT_EQ(0, caller.get());
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
    EXPECT_EQ(qv_scripted::kPoison, caller.tensor<unsigned char>(0)[0]) << "put back, so gone";
  }
}

TEST_F(Scripted, each_channel_gets_the_next_network) {
  qv_scripted::Network second = small_network();
  second.variable_buffer_size = 222;
  second.outputs.resize(1);
  second.frames = {{to_bytes<float>({7.f, 8.f})}};
  second.reported_outputs = 1000;
  qv_scripted::add_network(small_network());
  qv_scripted::add_network(second);
  Caller a;
  Caller b;
  Caller c;
  ASSERT_EQ(0, a.create_device());
  ASSERT_EQ(0, a.create_channel());
  QV_IPU_OfflineModelStaticInfo_s info = {};
  ASSERT_EQ(0, QV_IPU_GetOfflineModeStaticInfo(read_memory, b.model, &info));
  EXPECT_EQ(222u, info.u32VariableBufferSize);
  ASSERT_EQ(0, b.create_channel());
  ASSERT_EQ(0, c.create_channel());
  QV_IPU_SubNet_InputOutputDesc_t description = {};
  ASSERT_EQ(0, QV_IPU_GetInOutTensorDesc(c.id, &description));
  EXPECT_EQ(1000u, description.u32OutputTensorCount);
  ASSERT_EQ(0, a.get());
  ASSERT_EQ(0, b.get());
  ASSERT_EQ(0, b.run());
  ASSERT_EQ(0, a.run());
  EXPECT_EQ(1.f, a.tensor<float>(0)[0]);
  EXPECT_EQ(7.f, b.tensor<float>(0)[0]);
  ASSERT_EQ(0, QV_IPU_DestroyDevice());
  EXPECT_EQ(3, qv_scripted::last_event(Function::kDestroyDevice).open_channels);
}

TEST_F(Scripted, fails_the_calls_that_it_is_told_to_fail) {
  Caller caller;
  ASSERT_NO_FATAL_FAILURE(caller.open());
  qv_scripted::fail_call(Function::kInvoke, 2, kCode);
  qv_scripted::fail_calls_from(Function::kInvoke, 4, kCode + 1);
  qv_scripted::fail_call_overall(qv_scripted::call_count() + 2, kCode + 2);
  const QV_S32 kExpected[] = {kCode + 2, kCode, 0, kCode + 1, kCode + 1};
  for (const QV_S32 expected : kExpected) {
    EXPECT_EQ(expected, caller.run());
  }
  EXPECT_THROW(qv_scripted::fail_call(Function::kInvoke, 0, kCode), std::invalid_argument);
}

TEST_F(Scripted, each_call_can_fail_in_turn_and_then_has_no_effect) {
  fail_each_call(kCode, [this](int n) {
    constexpr int kCalls = 8;
    qv_scripted::add_network(small_network());
    if (n >= 1 && n <= 3) {  // device, channel, buffers: what follows lacks them
      allow_violation("no device is up");
      allow_violation("channel 0 was never opened");
      allow_violation("output buffers that were never handed out");
    }
    Caller caller;
    caller.create_device();
    caller.create_channel();
    caller.get();
    caller.run();
    caller.put();
    QV_IPU_DestroyCHN(caller.id);
    QV_IPU_DestroyDevice();
    const std::vector<qv_scripted::Event> events = qv_scripted::events();
    ASSERT_EQ(kCalls, static_cast<int>(events.size()));
    for (int i = 0; i < kCalls; ++i) {
      EXPECT_EQ(i + 1 == n, events[static_cast<std::size_t>(i)].result == kCode) << i;
    }
    EXPECT_EQ(n == kCalls, qv_scripted::device_is_up());
    EXPECT_EQ(n == kCalls - 1 ? 1 : 0, events.back().open_channels);
  });
}

TEST_F(Scripted, notes_every_call_with_its_arguments) {
  Caller caller;
  ASSERT_NO_FATAL_FAILURE(caller.open());
  ASSERT_EQ(0, caller.run());
  qv_scripted::fail_next_call(Function::kDestroyCHN, kCode);
  EXPECT_EQ(kCode, QV_IPU_DestroyCHN(caller.id));
  const std::vector<std::string> kExpected = {"CreateDevice",       "CreateCHN 1",
                                              "GetOutputTensors 1", "FlushInvCache 8 bytes",
                                              "Invoke 1",           "DestroyCHN 1 = 0x77"};
  EXPECT_EQ(kExpected, qv_scripted::event_texts());
  const qv_scripted::Event device = qv_scripted::last_event(Function::kCreateDevice);
  EXPECT_EQ("firmware.bin", device.path);
  EXPECT_FALSE(device.read_callback);
  EXPECT_EQ(4096u, device.device_attributes.u32MaxVariableBufSize);
  const qv_scripted::Event channel = qv_scripted::last_event(Function::kCreateCHN);
  EXPECT_TRUE(channel.read_callback);
  EXPECT_EQ(1u, channel.channel_attributes.u32OutputBufDepth);
  EXPECT_EQ(caller.model, channel.model);
  EXPECT_EQ(caller.frame, qv_scripted::last_event(Function::kInvoke).address);
  EXPECT_THROW(qv_scripted::last_event(Function::kDestroyDevice), std::out_of_range);
  QV_IPU_OfflineModelStaticInfo_s info = {};
  ASSERT_EQ(0, QV_IPU_GetOfflineModeStaticInfo(read_memory, caller.model, &info));
  EXPECT_EQ(
      "QTNX"
      "89ab"
      "f",
      qv_scripted::last_event(Function::kGetOfflineModeStaticInfo).model);
  qv_scripted::record_events(false);
  const std::size_t before = qv_scripted::events().size();
  EXPECT_EQ(0, caller.flush());
  EXPECT_EQ(before, qv_scripted::events().size());
  EXPECT_EQ(2, qv_scripted::call_count(Function::kFlushInvCache));
}

TEST_F(Scripted, reset_forgets_everything) {
  Caller caller;
  ASSERT_NO_FATAL_FAILURE(caller.open());
  caller.create_device();
  caller.flush();
  qv_scripted::fail_calls_from(Function::kCreateDevice, 1, kCode);
  qv_scripted::reset();
  EXPECT_FALSE(qv_scripted::device_is_up());
  EXPECT_EQ(0, qv_scripted::open_channel_count());
  EXPECT_EQ(0, qv_scripted::call_count());
  EXPECT_TRUE(qv_scripted::events().empty());
  EXPECT_TRUE(qv_scripted::violations().empty());
  ASSERT_NO_FATAL_FAILURE(caller.open());
  EXPECT_EQ(qv_scripted::kFirstChannel, caller.id);
  caller.invoke(caller.frame);
  expect_violation("Invoke: channel 1: nothing was flushed");
}

TEST_F(Scripted, the_fixture_fails_on_unannounced_and_on_missing_violations) {
  QV_IPU_DestroyDevice();
  EXPECT_NONFATAL_FAILURE(check_violations(), "no device is up");
  qv_scripted::reset();
  expect_violation("none like this");
  EXPECT_NONFATAL_FAILURE(check_violations(), "did not happen: none like this");
}

TEST_F(Scripted, picture_sizes_follow_their_format) {
  const struct {
    QV_IPU_ELEMENT_FORMAT format;
    QV_U32 width, height, size;
    QV_S32 aligned;
  } kRows[] = {{QV_IPU_FORMAT_NV12, 24, 10, 360, 480},
               {QV_IPU_FORMAT_NV12, 16, 3, 72, 96},
               {QV_IPU_FORMAT_ARGB8888, 5, 3, 60, 96},
               {QV_IPU_FORMAT_U8, 16, 2, 96, 96},
               {QV_IPU_FORMAT_GRAY, 17, 2, 34, 64}};
  for (const auto& row : kRows) {
    const QV_IPU_TensorDesc_t input = qv_scripted::picture_input(row.format, row.width, row.height);
    EXPECT_EQ(row.size, input.u32BufSize) << row.format;
    EXPECT_EQ(row.aligned, input.s32AlignedBufSize) << row.format;
  }
  EXPECT_THROW(qv_scripted::fp32_tensor("too large", {1u << 16, 1u << 16}), std::invalid_argument);
  const std::string name(QV_IPU_TENSOR_NAME_SIZE + 1, 'n');
  EXPECT_EQ('n', qv_scripted::fp32_tensor(name, {1}).name[QV_IPU_TENSOR_NAME_SIZE - 1]);
}

}  // namespace
