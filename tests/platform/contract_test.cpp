// contract_test.cpp - what every platform must supply, checked through platform/include alone.
// Built once per platform; contract_platform.h is what the platform contributes.
#include "tests/platform/contract_platform.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "platform/contract/olvex_platform.h"

namespace {

// Reads the offline model that the context points to; a read outside it fails the test.
int read_model(void* dst, int offset, int size, char* ctx) {
  const std::string& model = *reinterpret_cast<std::string*>(ctx);
  const bool inside = offset >= 0 && size >= 0 &&
                      static_cast<long long>(offset) + size <= static_cast<long long>(model.size());
  EXPECT_TRUE(inside) << size << " bytes at " << offset;
  std::memcpy(dst, model.data() + offset, inside ? static_cast<std::size_t>(size) : 0);
  return inside ? 0 : -1;
}

int read_nothing(void*, int, int, char*) {
  return -1;
}

char* context(std::string* model) {
  return reinterpret_cast<char*>(model);
}

QV_S32 create_device() {
  QV_IPU_DevAttr_s attributes = {};
  attributes.u32MaxVariableBufSize = 1 << 20;
  attributes.u32YUV420_W_Pitch_Alignment = attributes.u32XRGB_W_Pitch_Alignment = 16;
  attributes.u32YUV420_H_Pitch_Alignment = 2;
  char firmware[] = "no_firmware";
  return QV_IPU_CreateDevice(&attributes, nullptr, firmware, 0);
}

QV_S32 create_channel(QV_U32* id, QV_IPU_ReadFunc read, char* path_or_context) {
  QV_IPUChnAttr_s attributes = {};
  attributes.u32OutputBufDepth = 1;
  return QV_IPU_CreateCHN(id, &attributes, read, path_or_context);
}

// One channel as the library uses it: opened, described, its output buffers held.
struct Channel {
  QV_U32 id = 0;
  QV_IPU_SubNet_InputOutputDesc_t description = {};
  QV_IPU_TensorVector_t output = {};
  std::vector<char> frame;

  void open(std::string* model) {
    ASSERT_EQ(0, create_channel(&id, read_model, context(model)));
    ASSERT_EQ(0, QV_IPU_GetInOutTensorDesc(id, &description));
    ASSERT_EQ(0, QV_IPU_GetOutputTensors(id, &output));
    frame.assign(static_cast<std::size_t>(description.astQV_InputTensorDescs[0].s32AlignedBufSize),
                 100);
  }

  QV_S32 invoke() {
    QV_IPU_TensorVector_t input = {};
    input.astArrayTensors[0].ptTensorData[0] = frame.data();
    EXPECT_EQ(0, QV_SYS_FlushInvCache(frame.data(), static_cast<QV_U32>(frame.size())));
    return QV_IPU_Invoke(id, &input, &output);
  }

  // All bytes of the output of an invocation that found the buffers filled with a value.
  std::string output_over(int value) {
    const auto size = [&](QV_U32 i) { return description.astQV_OutputTensorDescs[i].u32BufSize; };
    const auto data = [&](QV_U32 i) { return output.astArrayTensors[i].ptTensorData[0]; };
    for (QV_U32 i = 0; i < output.u32TensorCount; ++i) {
      std::memset(data(i), value, size(i));
    }
    EXPECT_EQ(0, invoke());
    std::string bytes;
    for (QV_U32 i = 0; i < output.u32TensorCount; ++i) {
      bytes.append(static_cast<const char*>(data(i)), size(i));
    }
    return bytes;
  }

  void expect_refused() {
    EXPECT_NE(0, invoke());
    EXPECT_NE(0, QV_IPU_GetInOutTensorDesc(id, &description));
    QV_IPU_TensorVector_t tensors = {};
    EXPECT_NE(0, QV_IPU_GetOutputTensors(id, &tensors));
    EXPECT_NE(0, QV_IPU_PutOutputTensors(id, &output));
    EXPECT_NE(0, QV_IPU_DestroyCHN(id));
  }
};

// A device with one open channel.
class OLVEX_CONTRACT_SUITE : public testing::Test {
 protected:
  void SetUp() override {
    model_ = contract::make_model(0);
    std::ofstream(path_, std::ios::binary) << "key:value\n" << model_;
    ASSERT_EQ(0, create_device());
    channel_.open(&model_);
  }

  void TearDown() override {
    EXPECT_EQ(0, QV_IPU_DestroyDevice());
    std::remove(path_.c_str());
  }

  std::string model_;
  std::string path_ = testing::TempDir() + "contract_" + std::to_string(getpid()) + ".model";
  Channel channel_;
};

TEST_F(OLVEX_CONTRACT_SUITE, one_device_at_a_time_and_no_channel_without_one) {
  EXPECT_NE(0, create_device());
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
  EXPECT_NE(0, QV_IPU_DestroyDevice());
  EXPECT_NE(0, create_channel(&channel_.id, read_model, context(&model_)));
  channel_.expect_refused();
  EXPECT_EQ(0, create_device());
}

TEST_F(OLVEX_CONTRACT_SUITE, static_info_by_path_and_by_callback_agree_and_need_no_device) {
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
  QV_IPU_OfflineModelStaticInfo_s by_path = {};
  QV_IPU_OfflineModelStaticInfo_s by_callback = {};
  EXPECT_EQ(0, QV_IPU_GetOfflineModeStaticInfo(nullptr, &path_[0], &by_path));
  EXPECT_EQ(0, QV_IPU_GetOfflineModeStaticInfo(read_model, context(&model_), &by_callback));
  EXPECT_EQ(model_.size(), by_path.u32OfflineModelSize);
  EXPECT_EQ(by_path.u32VariableBufferSize, by_callback.u32VariableBufferSize);
  EXPECT_EQ(by_path.u32OfflineModelSize, by_callback.u32OfflineModelSize);
  EXPECT_EQ(0, create_device());
}

TEST_F(OLVEX_CONTRACT_SUITE, a_model_that_cannot_be_read_is_refused) {
  std::string missing = path_ + ".missing";
  std::string foreign = model_;
  foreign[0] = 'X';
  const std::tuple<const char*, QV_IPU_ReadFunc, char*> kRows[] = {
      {"missing file", nullptr, &missing[0]},
      {"failing callback", read_nothing, context(&model_)},
      {"no start pattern", read_model, context(&foreign)}};
  for (const auto& [name, read, path_or_context] : kRows) {
    SCOPED_TRACE(name);
    QV_IPU_OfflineModelStaticInfo_s info = {};
    QV_U32 channel = 0;
    EXPECT_NE(0, QV_IPU_GetOfflineModeStaticInfo(read, path_or_context, &info));
    EXPECT_NE(0, create_channel(&channel, read, path_or_context));
  }
}

TEST_F(OLVEX_CONTRACT_SUITE, the_description_is_consistent) {
  const QV_IPU_SubNet_InputOutputDesc_t& description = channel_.description;
  ASSERT_EQ(1u, description.u32InputTensorCount);
  const QV_U32 outputs = description.u32OutputTensorCount;
  ASSERT_TRUE(outputs >= 1 && outputs <= OLVEX_MAX_TENSORS);
  EXPECT_EQ(outputs, channel_.output.u32TensorCount);
  for (QV_U32 i = 0; i <= outputs; ++i) {  // the input first
    SCOPED_TRACE(i);
    const QV_IPU_TensorDesc_t& tensor =
        i == 0 ? description.astQV_InputTensorDescs[0] : description.astQV_OutputTensorDescs[i - 1];
    EXPECT_EQ(QV_IPU_LAYOUT_NHWC, tensor.eLayoutType);
    EXPECT_EQ(1u, tensor.u32TensorShape[0]);
    ASSERT_TRUE(tensor.u32TensorDim >= 1 && tensor.u32TensorDim <= OLVEX_MAX_DIMENSIONS);
    const std::size_t element = i == 0 ? 1 : tensor.eElmFormat == QV_IPU_FORMAT_FP32 ? 4 : 2;
    std::size_t size = element;
    for (QV_U32 axis = 0; axis < (i == 0 ? 3 : tensor.u32TensorDim); ++axis) {
      size *= tensor.u32TensorShape[axis];
    }
    EXPECT_GT(size, 0u);
    EXPECT_GE(tensor.u32BufSize,
              i == 0 && tensor.eElmFormat == QV_IPU_FORMAT_NV12 ? size * 3 / 2 : size);
    EXPECT_GE(tensor.s32AlignedBufSize, static_cast<QV_S32>(tensor.u32BufSize));
    if (i > 0) {
      const void* data = channel_.output.astArrayTensors[i - 1].ptTensorData[0];
      EXPECT_NE(nullptr, data);
      EXPECT_EQ(0u, reinterpret_cast<std::uintptr_t>(data) % element) << "not aligned: " << data;
    }
  }
}

TEST_F(OLVEX_CONTRACT_SUITE, output_buffers_are_lent_once_and_put_back_once) {
  QV_IPU_TensorVector_t second = {};
  EXPECT_NE(0, QV_IPU_GetOutputTensors(channel_.id, &second));
  QV_IPU_TensorVector_t altered = channel_.output;
  altered.astArrayTensors[0].ptTensorData[0] = channel_.frame.data();
  EXPECT_NE(0, QV_IPU_PutOutputTensors(channel_.id, &altered));
  EXPECT_EQ(0, QV_IPU_PutOutputTensors(channel_.id, &channel_.output));
  EXPECT_NE(0, QV_IPU_PutOutputTensors(channel_.id, &channel_.output));
  EXPECT_EQ(0, QV_IPU_GetOutputTensors(channel_.id, &second));
}

TEST_F(OLVEX_CONTRACT_SUITE, calls_on_a_channel_that_is_not_open_are_refused) {
  EXPECT_EQ(0, QV_IPU_DestroyCHN(channel_.id));
  channel_.expect_refused();
  channel_.id += 1000;
  channel_.expect_refused();
  Channel left_open;
  left_open.open(&model_);
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
  EXPECT_EQ(0, create_device());
  left_open.expect_refused();
}

TEST_F(OLVEX_CONTRACT_SUITE, invocations_replace_the_whole_output_and_channels_do_not_mix) {
  Channel other_frame, other_model;
  other_frame.open(&model_);
  std::string model = contract::make_model(1);
  other_model.open(&model);
  other_frame.frame.assign(channel_.frame.size(), 50);
  EXPECT_NE(channel_.output_over(0), other_model.output_over(0));
  std::vector<std::thread> threads;
  for (Channel* const own : {&channel_, &other_frame, &other_model}) {
    threads.emplace_back([this, own, alone = own->output_over(0)] {
      for (int i = 1; i <= 20; ++i) {
        Channel passing;
        ASSERT_NO_FATAL_FAILURE(passing.open(&model_));
        EXPECT_NE(own->id, passing.id);
        EXPECT_EQ(alone, own->output_over(i));
        EXPECT_EQ(alone, own->output_over(-i));
        EXPECT_EQ(0, QV_IPU_PutOutputTensors(passing.id, &passing.output));
        EXPECT_EQ(0, QV_IPU_DestroyCHN(passing.id));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace
