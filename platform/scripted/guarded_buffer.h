// SPDX-License-Identifier: Apache-2.0
// guarded_buffer.h - memory of one output tensor between two watched areas.
// Under the address sanitizer the areas cannot be touched, nor can the tensor while it is shut;
// without it a changed byte is found afterwards. Used by scripted_state.h.
#ifndef PLATFORM_SCRIPTED_GUARDED_BUFFER_H
#define PLATFORM_SCRIPTED_GUARDED_BUFFER_H

#include <cstddef>
#include <vector>

// Defined when the compiler builds for the address sanitizer.
#if defined(__SANITIZE_ADDRESS__)
#define QV_SCRIPTED_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QV_SCRIPTED_ASAN 1
#endif
#endif

namespace qv_scripted {

class GuardedBuffer {
 public:
  // Shut, and filled with kPoison.
  explicit GuardedBuffer(std::size_t size);
  ~GuardedBuffer();
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;

  unsigned char* data() { return data_; }  // aligned to 64 bytes
  std::size_t size() const { return size_; }

  void open();
  void shut();
  // Replaces the contents: count bytes, then kPoison to the end. Requires: open, count <= size().
  void fill(const unsigned char* bytes, std::size_t count);
  void poison() { fill(nullptr, 0); }

  struct Damage {
    bool before = false;
    bool after = false;
  };
  // Which watched areas were written to since the last call; restores them.
  Damage take_damage();

 private:
  unsigned char* before();
  unsigned char* after();

  std::vector<unsigned char> storage_;
  unsigned char* data_;
  std::size_t size_;
};

// Whether the address sanitizer knows of bytes in the range that must not be accessed; false
// without it.
bool range_is_forbidden(const void* address, std::size_t size);

}  // namespace qv_scripted

#endif  // PLATFORM_SCRIPTED_GUARDED_BUFFER_H
