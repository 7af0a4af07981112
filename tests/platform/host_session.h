// host_session.h - a device of the host accelerator and channels on images made in the test, for
// host_accelerator_test.cpp and host_refusal_test.cpp.
#ifndef TESTS_PLATFORM_HOST_SESSION_H
#define TESTS_PLATFORM_HOST_SESSION_H

#include <string>
#include <vector>

#include "platform/host/host_image.h"
#include "platform/host/qv_host.h"
#include "qv_sys.h"

namespace host_session {

// What the library's read callback does: copies from the context's address without looking.
int copy_from_memory(void* dst, int offset, int size, char* ctx);

// Opens a channel on an image in memory, as the library does.
QV_S32 open_channel(const std::vector<char>& image, QV_U32* channel);

// Flushes and invokes, as the library does: the count of input tensors stays 0.
QV_S32 flush_and_invoke(QV_U32 channel, const void* frame, std::size_t flushed_size,
                        QV_IPU_TensorVector_t* output);

// A device with the library's pitch alignments; gone at the end of its life.
class Device {
 public:
  explicit Device(QV_U32 yuv_height_alignment = 2);
  ~Device();
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;
};

// An open channel with its output buffers.
class Channel {
 public:
  Channel(const qv_host::Description& description, const std::vector<char>& network);

  const QV_IPU_TensorDesc_t& input() const { return tensors_.astQV_InputTensorDescs[0]; }
  const QV_IPU_TensorDesc_t& output(std::size_t i) const;
  std::size_t output_count() const { return tensors_.u32OutputTensorCount; }
  std::string output_shape(std::size_t i) const;  // such as "1x1x5x4"

  QV_S32 run(const std::vector<unsigned char>& frame);
  // One element of the last output as a real value.
  float value(std::size_t tensor, std::size_t index) const;

  QV_U32 id = 0;
  QV_IPU_TensorVector_t buffers = {};

 private:
  QV_IPU_SubNet_InputOutputDesc_t tensors_ = {};
};

}  // namespace host_session

#endif  // TESTS_PLATFORM_HOST_SESSION_H
