// fuzz_input.h - the bytes of one fuzzer input as a stream of values. Behind the end every value is
// 0, so that any input means something and a shorter one means the same with less.
#ifndef FUZZ_FUZZ_INPUT_H
#define FUZZ_FUZZ_INPUT_H

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, std::size_t size) : next_(data), end_(data + size) {}

  std::size_t remaining() const { return static_cast<std::size_t>(end_ - next_); }
  bool empty() const { return next_ == end_; }

  // A value by its bytes, least significant first.
  template <class Value>
  Value raw() {
    unsigned char bytes[sizeof(Value)] = {};
    const std::size_t count = std::min(remaining(), sizeof bytes);
    std::copy_n(next_, count, bytes);
    next_ += count;
    Value value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
  }

  uint8_t byte() { return raw<uint8_t>(); }
  bool flag() { return (byte() & 1) != 0; }

  // 0..count-1; one byte up to 256, else four.
  uint32_t below(uint32_t count) { return count <= 256 ? byte() % count : raw<uint32_t>() % count; }

  // One of the values that break arithmetic, a small fraction, or any bit pattern: one byte chooses.
  float number() {
    static const float kEdges[] = {0,       -0.f,    1,        -1,       0.5f,      1e-45f,
                                   FLT_MIN, FLT_MAX, -FLT_MAX, INFINITY, -INFINITY, NAN,
                                   0x1p31f, 0x1p32f, 1e-6f,    255};
    const uint8_t choice = byte();
    if (choice < 16) {
      return kEdges[choice];
    }
    return choice < 32 ? raw<float>() : static_cast<float>(choice) / 256.f;
  }

  // Up to max_size bytes; the length is one byte, or two for a larger limit.
  std::string text(std::size_t max_size) {
    const std::size_t wanted = max_size < 256 ? byte() : raw<uint16_t>();
    const std::size_t size = std::min({wanted, max_size, remaining()});
    const std::string result(reinterpret_cast<const char*>(next_), size);
    next_ += size;
    return result;
  }

  std::string rest() {
    const std::string result(reinterpret_cast<const char*>(next_), remaining());
    next_ = end_;
    return result;
  }

 private:
  const uint8_t* next_;
  const uint8_t* end_;
};

#endif  // FUZZ_FUZZ_INPUT_H
