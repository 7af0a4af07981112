// contract_test.cpp - what every platform must supply, checked through platform/include alone.
// Built once per platform; contract_platform.h is what the platform contributes.
#include "tests/platform/contract_platform.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "qv_ipu.h"
#include "qv_sys.h"

namespace {

// The offline model as its read callback sees it.
struct Model {
  std::string bytes;
  int reads_left = 1 << 20;  // then the callback fails
  bool strayed = false;      // a read outside the model
};

int read_model(void* dst, int offset, int size, char* ctx) {
  Model& model = *reinterpret_cast<Model*>(ctx);
  const long long end = static_cast<long long>(offset) + size;
  if (offset < 0 || size < 0 || end > static_cast<long long>(model.bytes.size())) {
    model.strayed = true;
    return -1;
  }
  if (model.reads_left-- <= 0) {
    return -1;
  }
  std::memcpy(dst, model.bytes.data() + offset, static_cast<std::size_t>(size));
  return 0;
}

char* context(Model* model) {
  return reinterpret_cast<char*>(model);
}

std::size_t element_size(const QV_IPU_TensorDesc_t& tensor) {
  return tensor.eElmFormat == QV_IPU_FORMAT_FP32 ? 4 : 2;
}

// Bytes of a picture of the input's size without row padding.
std::size_t picture_size(const QV_IPU_TensorDesc_t& input) {
  const std::size_t pixels = std::size_t{input.u32TensorShape[1]} * input.u32TensorShape[2];
  switch (input.eElmFormat) {
    case QV_IPU_FORMAT_NV12:
      return pixels * 3 / 2;
    case QV_IPU_FORMAT_ARGB8888:
    case QV_IPU_FORMAT_ABGR8888:
      return pixels * 4;
    default:
      return pixels;
  }
}

// One channel as the library uses it: opened, described, its output buffers held.
struct OpenChannel {
  QV_U32 id = 0;
  QV_IPU_SubNet_InputOutputDesc_t description = {};
  QV_IPU_TensorVector_t output = {};
  std::vector<char> frame;
};

class OLVEX_CONTRACT_SUITE : public testing::Test {
 protected:
  void SetUp() override {
    contract::set_up();
    std::ifstream file(contract::model_path(), std::ios::binary);
    model_.bytes.assign((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const std::size_t start = model_.bytes.find("QTNX");
    ASSERT_NE(start, std::string::npos);
    model_.bytes.erase(0, start);
  }

  void TearDown() override {
    EXPECT_FALSE(model_.strayed) << "the platform read outside the model";
    contract::tear_down();
  }

  static QV_S32 create_device() {
    QV_IPU_DevAttr_s attributes = {};
    attributes.u32MaxVariableBufSize = 1 << 20;
    attributes.u32YUV420_W_Pitch_Alignment = 16;
    attributes.u32YUV420_H_Pitch_Alignment = 2;
    attributes.u32XRGB_W_Pitch_Alignment = 16;
    std::string firmware = contract::firmware_path();
    return QV_IPU_CreateDevice(&attributes, nullptr, &firmware[0], 0);
  }

  static QV_S32 create_channel(QV_U32* id, QV_IPU_ReadFunc read, char* path_or_context) {
    QV_IPUChnAttr_s attributes = {};
    attributes.u32OutputBufDepth = 1;
    return QV_IPU_CreateCHN(id, &attributes, read, path_or_context);
  }

  void open(OpenChannel* channel) {
    ASSERT_EQ(0, create_channel(&channel->id, read_model, context(&model_)));
    ASSERT_EQ(0, QV_IPU_GetInOutTensorDesc(channel->id, &channel->description));
    ASSERT_EQ(0, QV_IPU_GetOutputTensors(channel->id, &channel->output));
    const QV_IPU_TensorDesc_t& input = channel->description.astQV_InputTensorDescs[0];
    channel->frame.assign(static_cast<std::size_t>(input.s32AlignedBufSize), 100);
  }

  static QV_S32 invoke(OpenChannel* channel) {
    QV_IPU_TensorVector_t input = {};
    input.astArrayTensors[0].ptTensorData[0] = channel->frame.data();
    EXPECT_EQ(
        0, QV_SYS_FlushInvCache(channel->frame.data(), static_cast<QV_U32>(channel->frame.size())));
    return QV_IPU_Invoke(channel->id, &input, &channel->output);
  }

  // All output bytes one after the other.
  static std::string output_bytes(const OpenChannel& channel) {
    std::string bytes;
    for (QV_U32 i = 0; i < channel.output.u32TensorCount; ++i) {
      bytes.append(static_cast<const char*>(channel.output.astArrayTensors[i].ptTensorData[0]),
                   channel.description.astQV_OutputTensorDescs[i].u32BufSize);
    }
    return bytes;
  }

  static void overwrite_output(OpenChannel* channel, int value) {
    for (QV_U32 i = 0; i < channel->output.u32TensorCount; ++i) {
      std::memset(channel->output.astArrayTensors[i].ptTensorData[0], value,
                  channel->description.astQV_OutputTensorDescs[i].u32BufSize);
    }
  }

  Model model_;
};

TEST_F(OLVEX_CONTRACT_SUITE, one_device_at_a_time) {
  EXPECT_NE(0, QV_IPU_DestroyDevice());
  QV_U32 channel = 0;
  EXPECT_NE(0, create_channel(&channel, read_model, context(&model_)));
  EXPECT_EQ(0, create_device());
  EXPECT_NE(0, create_device());
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
  EXPECT_NE(0, QV_IPU_DestroyDevice());
  EXPECT_EQ(0, create_device());
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
}

TEST_F(OLVEX_CONTRACT_SUITE, static_info_by_path_and_by_callback_agree_and_need_no_device) {
  std::string path = contract::model_path();
  QV_IPU_OfflineModelStaticInfo_s by_path = {};
  QV_IPU_OfflineModelStaticInfo_s by_callback = {};
  ASSERT_EQ(0, QV_IPU_GetOfflineModeStaticInfo(nullptr, &path[0], &by_path));
  ASSERT_EQ(0, QV_IPU_GetOfflineModeStaticInfo(read_model, context(&model_), &by_callback));
  EXPECT_EQ(model_.bytes.size(), by_path.u32OfflineModelSize);
  EXPECT_EQ(by_path.u32VariableBufferSize, by_callback.u32VariableBufferSize);
  EXPECT_EQ(by_path.u32OfflineModelSize, by_callback.u32OfflineModelSize);
}

TEST_F(OLVEX_CONTRACT_SUITE, a_model_that_cannot_be_read_is_refused) {
  ASSERT_EQ(0, create_device());
  std::string missing = contract::model_path() + ".missing";
  Model unreadable = model_;
  unreadable.reads_left = 0;
  Model foreign = model_;
  foreign.bytes[0] = 'X';
  const struct {
    const char* name;
    QV_IPU_ReadFunc read;
    char* path_or_context;
  } kRows[] = {{"missing file", nullptr, &missing[0]},
               {"failing callback", read_model, context(&unreadable)},
               {"no start pattern", read_model, context(&foreign)}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    QV_IPU_OfflineModelStaticInfo_s info = {};
    QV_U32 channel = 0;
    EXPECT_NE(0, QV_IPU_GetOfflineModeStaticInfo(row.read, row.path_or_context, &info));
    EXPECT_NE(0, create_channel(&channel, row.read, row.path_or_context));
  }
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
}

TEST_F(OLVEX_CONTRACT_SUITE, the_description_is_consistent) {
  ASSERT_EQ(0, create_device());
  OpenChannel channel;
  ASSERT_NO_FATAL_FAILURE(open(&channel));
  ASSERT_EQ(1u, channel.description.u32InputTensorCount);
  const QV_IPU_TensorDesc_t& input = channel.description.astQV_InputTensorDescs[0];
  EXPECT_EQ(QV_IPU_LAYOUT_NHWC, input.eLayoutType);
  EXPECT_EQ(1u, input.u32TensorShape[0]);
  EXPECT_GT(picture_size(input), 0u);
  EXPECT_GE(input.u32BufSize, picture_size(input));
  EXPECT_GE(input.s32AlignedBufSize, static_cast<QV_S32>(input.u32BufSize));

  const QV_U32 outputs = channel.description.u32OutputTensorCount;
  ASSERT_TRUE(outputs >= 1 && outputs <= QV_IPU_MAX_TENSORS);
  EXPECT_EQ(outputs, channel.output.u32TensorCount);
  for (QV_U32 i = 0; i < outputs; ++i) {
    SCOPED_TRACE(i);
    const QV_IPU_TensorDesc_t& output = channel.description.astQV_OutputTensorDescs[i];
    EXPECT_EQ(QV_IPU_LAYOUT_NHWC, output.eLayoutType);
    ASSERT_TRUE(output.u32TensorDim >= 1 && output.u32TensorDim <= QV_IPU_MAX_DIMENSIONS);
    std::size_t size = element_size(output);
    for (QV_U32 k = 0; k < output.u32TensorDim; ++k) {
      size *= output.u32TensorShape[k];
    }
    EXPECT_GT(size, 0u);
    EXPECT_GE(output.u32BufSize, size);
    EXPECT_GE(output.s32AlignedBufSize, static_cast<QV_S32>(output.u32BufSize));
    EXPECT_NE(nullptr, channel.output.astArrayTensors[i].ptTensorData[0]);
  }
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
}

TEST_F(OLVEX_CONTRACT_SUITE, output_buffers_are_lent_once_and_put_back_once) {
  ASSERT_EQ(0, create_device());
  OpenChannel channel;
  ASSERT_NO_FATAL_FAILURE(open(&channel));
  QV_IPU_TensorVector_t second = {};
  EXPECT_NE(0, QV_IPU_GetOutputTensors(channel.id, &second));
  QV_IPU_TensorVector_t altered = channel.output;
  altered.astArrayTensors[0].ptTensorData[0] = channel.frame.data();
  EXPECT_NE(0, QV_IPU_PutOutputTensors(channel.id, &altered));
  EXPECT_EQ(0, QV_IPU_PutOutputTensors(channel.id, &channel.output));
  EXPECT_NE(0, QV_IPU_PutOutputTensors(channel.id, &channel.output));
  EXPECT_EQ(0, QV_IPU_GetOutputTensors(channel.id, &second));
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
}

TEST_F(OLVEX_CONTRACT_SUITE, every_invocation_replaces_the_whole_output) {
  ASSERT_EQ(0, create_device());
  OpenChannel channel;
  ASSERT_NO_FATAL_FAILURE(open(&channel));
  overwrite_output(&channel, 0x11);
  ASSERT_EQ(0, invoke(&channel));
  const std::string first = output_bytes(channel);
  overwrite_output(&channel, 0x22);
  ASSERT_EQ(0, invoke(&channel));
  EXPECT_EQ(first, output_bytes(channel));
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
}

TEST_F(OLVEX_CONTRACT_SUITE, calls_on_a_channel_that_is_not_open_are_refused) {
  ASSERT_EQ(0, create_device());
  OpenChannel channel;
  ASSERT_NO_FATAL_FAILURE(open(&channel));
  EXPECT_EQ(0, QV_IPU_DestroyCHN(channel.id));
  const QV_U32 unknown = channel.id + 1000;
  for (const QV_U32 id : {channel.id, unknown}) {
    SCOPED_TRACE(id);
    channel.id = id;
    EXPECT_NE(0, invoke(&channel));
    EXPECT_NE(0, QV_IPU_GetInOutTensorDesc(id, &channel.description));
    QV_IPU_TensorVector_t tensors = {};
    EXPECT_NE(0, QV_IPU_GetOutputTensors(id, &tensors));
    EXPECT_NE(0, QV_IPU_PutOutputTensors(id, &channel.output));
    EXPECT_NE(0, QV_IPU_DestroyCHN(id));
  }
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
}

TEST_F(OLVEX_CONTRACT_SUITE, the_device_takes_its_open_channels_down) {
  ASSERT_EQ(0, create_device());
  OpenChannel channel;
  ASSERT_NO_FATAL_FAILURE(open(&channel));
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
  EXPECT_NE(0, invoke(&channel));
  ASSERT_EQ(0, create_device());
  EXPECT_NE(0, invoke(&channel));
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
}

TEST_F(OLVEX_CONTRACT_SUITE, two_channels_run_at_once) {
  ASSERT_EQ(0, create_device());
  OpenChannel channels[2];
  ASSERT_NO_FATAL_FAILURE(open(&channels[0]));
  ASSERT_NO_FATAL_FAILURE(open(&channels[1]));
  ASSERT_NE(channels[0].id, channels[1].id);
  std::vector<std::thread> threads;
  for (OpenChannel& channel : channels) {
    threads.emplace_back([&channel] {
      for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(0, invoke(&channel));
      }
      EXPECT_EQ(0, QV_IPU_PutOutputTensors(channel.id, &channel.output));
      EXPECT_EQ(0, QV_IPU_DestroyCHN(channel.id));
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(0, QV_IPU_DestroyDevice());
}

}  // namespace
