// SPDX-License-Identifier: Apache-2.0
// scratch.h - olvex::scratch<T, n>, memory for the intermediate results of one routine: a list of
// plain values that is neither zeroed nor bound to the growth rule of olvex::vector, which is for
// the lists that a caller sees. The first n values need no memory from the heap.
#ifndef UTILS_OLVEX_STL_SCRATCH_H
#define UTILS_OLVEX_STL_SCRATCH_H

#include <stddef.h>
#include <string.h>

#include <type_traits>

#include "utils/olvex_stl/simplestl.h"

namespace olvex {

// Requires: T is trivially copyable. Must not itself be moved by its bytes. Lack of memory raises the
// runtime's allocation exception and leaves the values as they were.
template <typename T, size_t kOwnCapacity = 0>
class scratch {
 public:
  scratch() : data_(own_data()), size_(0), capacity_(kOwnCapacity) {
    static_assert(std::is_trivially_copyable<T>::value, "values are moved by their bytes");
    static_assert(alignof(T) <= alignof(max_align_t), "memory of new char[] must do");
  }
  ~scratch() { release(); }
  // A copy has separate memory and no values: a routine's intermediate results are not shared.
  scratch(const scratch& /*other*/) : scratch() {}
  scratch& operator=(const scratch& /*other*/) {  // NOLINT(bugprone-unhandled-self-assignment)
    return *this;
  }

  // Appends a value; doubles the memory when it is full.
  void push_back(const T& value) {
    if (size_ == capacity_) {
      const T copy(value);
      reserve(size_ == 0 ? kFirstCapacity : 2 * size_);
      data_[size_++] = copy;
      return;
    }
    data_[size_++] = value;
  }

  // Sets the size. Values beyond the old size are not set.
  void resize(size_t n) {
    if (n > capacity_) {
      reserve(n);
    }
    size_ = n;
  }

  void clear() { size_ = 0; }

  T* data() { return data_; }
  const T* data() const { return data_; }
  size_t size() const { return size_; }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }

 private:
  static const size_t kFirstCapacity = 64;

  T* own_data() { return reinterpret_cast<T*>(own_); }

  // Seldom needed, and not to be repeated at each push_back.
  __attribute__((noinline)) void reserve(size_t n) {
    T* moved = reinterpret_cast<T*>(storage::reserve_unset(n, sizeof(T)));
    if (size_ > 0) {
      memcpy(static_cast<void*>(moved), static_cast<const void*>(data_), size_ * sizeof(T));
    }
    release();
    data_ = moved;
    capacity_ = n;
  }

  void release() {
    if (data_ != own_data()) {
      storage::release(data_);
    }
  }

  T* data_;
  size_t size_;
  size_t capacity_;
  alignas(T) char own_[kOwnCapacity > 0 ? kOwnCapacity * sizeof(T) : 1];
};

}  // namespace olvex

#endif  // UTILS_OLVEX_STL_SCRATCH_H
