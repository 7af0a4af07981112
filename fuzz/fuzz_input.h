// SPDX-License-Identifier: Apache-2.0
// fuzz_input.h - what the fuzzers share: a check that ends the program, the bytes of one input as a stream of
// values, and files of such bytes in memory.
#ifndef FUZZ_FUZZ_INPUT_H
#define FUZZ_FUZZ_INPUT_H

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// Ends the program when the condition does not hold; the fuzzer keeps the input then.
#define FUZZ_CHECK(condition) \
  ((condition) ? static_cast<void>(0) : fuzz_check_failed(__FILE__, __LINE__, #condition))

[[noreturn]] inline void fuzz_check_failed(const char* file, int line, const char* condition) {
  std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
  std::abort();
}

// The library prints some hundred lines for each input. The fuzzer's own go to standard error. With a
// time zone set, the lines' clock need not look for the system's.
inline void discard_standard_output() {
  setenv("TZ", "UTC", 1);
  FUZZ_CHECK(std::freopen("/dev/null", "w", stdout) != nullptr);
}

// The bytes of an input. Behind the end every value is 0, so that any input means something and a
// shorter one means the same with less.
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

// ---- For fuzzers of file readers ----------------------------------------------------------------

// count parts, separated by zero bytes; the last may contain zero bytes.
inline std::vector<std::string> parts_of(const std::string& bytes, std::size_t count) {
  std::vector<std::string> parts(count);
  std::size_t start = 0;
  for (std::size_t i = 0; i < count && start <= bytes.size(); ++i) {
    const std::size_t end = i + 1 == count ? bytes.size() : bytes.find('\0', start);
    parts[i] = bytes.substr(start, end - start);
    start = std::min(end, bytes.size()) + 1;
  }
  return parts;
}

// A file without a place on a disk, with a path that any reader can open.
class MemoryFile {
 public:
  MemoryFile()
      : descriptor_(memfd_create("fuzz", MFD_CLOEXEC)),
        path_("/proc/self/fd/" + std::to_string(descriptor_)) {}
  ~MemoryFile() { close(descriptor_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  const std::string& path() const { return path_; }

  // The path, with these contents.
  const std::string& holding(const std::string& bytes) {
    FUZZ_CHECK(ftruncate(descriptor_, 0) == 0);
    const ssize_t written = pwrite(descriptor_, bytes.data(), bytes.size(), 0);
    FUZZ_CHECK(written == static_cast<ssize_t>(bytes.size()));
    return path_;
  }

 private:
  int descriptor_;
  std::string path_;
};

#endif  // FUZZ_FUZZ_INPUT_H
