// SPDX-License-Identifier: Apache-2.0
// guarded_buffer.cpp - watched output memory; guarded_buffer.h is its contract.
#include "platform/scripted/guarded_buffer.h"

#include <algorithm>
#include <cstdint>

#include "platform/scripted/qv_scripted.h"

#ifdef QV_SCRIPTED_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace qv_scripted {

namespace {

constexpr std::size_t kAlignment = 64;
constexpr unsigned char kGuard = 0x5a;

void forbid(unsigned char* start, std::size_t size) {
#ifdef QV_SCRIPTED_ASAN
  ASAN_POISON_MEMORY_REGION(start, size);
#else
  (void)start;
  (void)size;
#endif
}

void allow(unsigned char* start, std::size_t size) {
#ifdef QV_SCRIPTED_ASAN
  ASAN_UNPOISON_MEMORY_REGION(start, size);
#else
  (void)start;
  (void)size;
#endif
}

bool restore(unsigned char* area) {
  allow(area, kGuardSize);
  const bool damaged =
      std::any_of(area, area + kGuardSize, [](unsigned char byte) { return byte != kGuard; });
  std::fill_n(area, kGuardSize, kGuard);
  forbid(area, kGuardSize);
  return damaged;
}

}  // namespace

GuardedBuffer::GuardedBuffer(std::size_t size)
    : storage_(kAlignment + kGuardSize + size + kGuardSize, kGuard), data_(nullptr), size_(size) {
  const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(storage_.data());
  const std::size_t skip = (kAlignment - start % kAlignment) % kAlignment;
  data_ = storage_.data() + skip + kGuardSize;
  poison();
  forbid(before(), kGuardSize);
  forbid(after(), kGuardSize);
  shut();
}

GuardedBuffer::~GuardedBuffer() {
  allow(storage_.data(), storage_.size());
}

unsigned char* GuardedBuffer::before() {
  return data_ - kGuardSize;
}
unsigned char* GuardedBuffer::after() {
  return data_ + size_;
}

void GuardedBuffer::open() {
  allow(data_, size_);
}

void GuardedBuffer::shut() {
  forbid(data_, size_);
}

void GuardedBuffer::fill(const unsigned char* bytes, std::size_t count) {
  std::copy_n(bytes, count, data_);
  std::fill(data_ + count, data_ + size_, kPoison);
}

GuardedBuffer::Damage GuardedBuffer::take_damage() {
  Damage damage;
  damage.before = restore(before());
  damage.after = restore(after());
  return damage;
}

bool range_is_forbidden(const void* address, std::size_t size) {
#ifdef QV_SCRIPTED_ASAN
  // The interface of older compilers takes a pointer to non-const; it only looks.
  return __asan_region_is_poisoned(const_cast<void*>(address), size) != nullptr;
#else
  (void)address;
  (void)size;
  return false;
#endif
}

}  // namespace qv_scripted
