// plain_comparison.h - what the comparison of the two libraries stands on: numbers drawn from a
// seed, memory with closed surroundings, clocks, and a record of all that a routine leaves behind.
// plain_comparison_test.cpp has the scenes and plays them with both.
#ifndef TESTS_UNIT_PLAIN_COMPARISON_H
#define TESTS_UNIT_PLAIN_COMPARISON_H

#include <locale.h>
#include <math.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/routines.h"

// ---- Numbers ------------------------------------------------------------------------------------

// S. Vigna's splitmix64: neighbouring seeds give unrelated sequences.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed * 0xd1342543de82ef95u) {}

  uint64_t next() {
    uint64_t z = state_ += 0x9e3779b97f4a7c15u;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    return z ^ (z >> 31);
  }
  int between(int low, int high) {  // both inclusive
    const uint64_t range = static_cast<uint64_t>(int64_t{high} - low + 1);
    return static_cast<int>(low + static_cast<int64_t>(next() % range));
  }
  size_t index(size_t count) { return static_cast<size_t>(next() % count); }
  bool chance(int percent) { return between(1, 100) <= percent; }
  float fraction() { return static_cast<float>(next() >> 40) / 16777216.0f; }
  template <class Value>
  Value pick(std::initializer_list<Value> values) {
    return values.begin()[index(values.size())];
  }

 private:
  uint64_t state_;
};

// NaNs of both signs and with payloads, infinities, zeros, denormals, the ends of ranges.
inline float odd_number(Random& random) {
  uint32_t bits = random.pick<uint32_t>(
      {0x7fc00000, 0x7fc12345, 0x7f800001, 0x7f800000, 0x7f7fffff, 0, 1, 0x007fffff, 0x00800000,
       0x5f000000, 0x4f800000, 0x4f000000, 0x4b800001, static_cast<uint32_t>(random.next())});
  bits ^= random.chance(50) ? 0x80000000u : 0u;
  float value;
  memcpy(&value, &bits, sizeof(value));
  return value;
}

// The value or one of its neighbours.
inline float near(Random& random, float value) {
  return random.pick({value, nextafterf(value, -INFINITY), nextafterf(value, INFINITY)});
}

// How numbers of one kind are drawn in a round: so many per cent odd ones, so many of eight steps
// between low and high, where they tie, the rest from anywhere between.
struct Numbers {
  float low, high;
  int odd, tied;

  Numbers(Random& random, float from, float to)
      : low(from),
        high(to),
        odd(random.pick({0, 0, 0, 3, 20, 100})),
        tied(random.pick({0, 0, 50, 100})) {}

  float draw(Random& random) const {
    if (random.chance(odd)) {
      return odd_number(random);
    }
    const float part = random.fraction();
    return low + (random.chance(tied) ? floorf(part * 8) / 8 : part) * (high - low);
  }
};

// ---- Memory -------------------------------------------------------------------------------------

// Exactly these bytes, aligned to the element only: a heap block, or pages whose end or start
// touches one that nobody may read.
class Fenced {
 public:
  Fenced(Random& random, const std::vector<unsigned char>& bytes, size_t element) {
    const int place = random.between(0, 3);
    if (place < 2) {
      const size_t skip = place == 0 ? 0 : element;
      block_.reset(new unsigned char[bytes.size() + skip]);
      data_ = block_.get() + skip;
    } else {
      const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
      const size_t open = (bytes.size() / page + 1) * page;
      mapped_ = open + 2 * page;
      map_ = mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      data_ = static_cast<unsigned char*>(map_) + page;
      EXPECT_TRUE(map_ != MAP_FAILED && mprotect(data_, open, PROT_READ | PROT_WRITE) == 0);
      data_ += place == 2 ? open - bytes.size() : 0;
    }
    std::copy(bytes.begin(), bytes.end(), data_);
  }
  ~Fenced() {
    if (mapped_ > 0) {
      munmap(map_, mapped_);
    }
  }
  Fenced(const Fenced&) = delete;
  Fenced& operator=(const Fenced&) = delete;

  void* data() { return data_; }

 private:
  std::unique_ptr<unsigned char[]> block_;
  void* map_ = nullptr;
  size_t mapped_ = 0;
  unsigned char* data_;
};

// ---- Clocks -------------------------------------------------------------------------------------

// What time and gettimeofday answer in this program. Each walks on its own with every reading, so
// that a reading too many or too few shows.
class Clocks {
 public:
  void start(uint64_t seed) {
    seconds_ = Random(seed);
    fractions_ = Random(~seed);
    readings_ = 0;
    change_zone();
    last_ = next_ = seconds_.between(INT32_MIN, INT32_MAX);
  }
  // The next second is another one: a library may keep the calendar of the last.
  void change_zone() {
    const char* zone = seconds_.pick<const char*>(
        {nullptr, "UTC", "CET-1CEST,M3.5.0,M10.5.0/3", "NZST-12NZDT,M9.5.0,M4.1.0/3", "XYZ+3:30"});
    zone == nullptr ? unsetenv("TZ") : setenv("TZ", zone, 1);
    // The epoch, both ends of Berlin's summer time, a leap day, the years 9999 and 0, 32 bits.
    const int64_t edge = seconds_.pick<int64_t>(
        {0, 1711846799, 1729990799, 1709251199, 253402300799, -62135596801, INT32_MAX, INT32_MIN});
    next_ = as_time(seconds_.pick<int64_t>({last_ - 1, last_ + 1, last_ + 60, last_ + 3600, edge}));
    next_ += next_ == last_ ? 1 : 0;
  }
  time_t second() {
    last_ = next_;
    const int64_t jump = seconds_.between(0, INT32_MAX);
    next_ = as_time(seconds_.pick({last_, last_, last_, last_, last_ + 1, last_ - 1, jump}));
    return as_time(last_);
  }
  struct timeval time_of_day() {
    struct timeval now = {};
    now.tv_sec = ++readings_;
    now.tv_usec = fractions_.pick({0, 1, 50, 999, 1000, 999999, fractions_.between(0, 999999)});
    return now;
  }

 private:
  // Wraps where time_t has 32 bits.
  static time_t as_time(int64_t second) { return static_cast<time_t>(second); }

  Random seconds_{0}, fractions_{0};
  int64_t last_ = 0, next_ = 0;  // within time_t
  int readings_ = 0;
};

inline Clocks& clocks() {
  static Clocks instance;
  return instance;
}

// ---- Records ------------------------------------------------------------------------------------

// All that a scene leaves behind with one library: a line of hexadecimal numbers for each record.
class Record {
 public:
  std::string text;

  template <class... Values>
  void line(const char* name, Values... values) {
    text += name;
    (append(values), ...);
    text += '\n';
  }
  void boxes(const olvex::vector<BoxInfo>& boxes) {
    line("boxes", boxes.size());
    for (const BoxInfo& b : boxes) {
      line(" box", b.x1, b.y1, b.x2, b.y2, b.score, b.label, b.pts, b.track_id, b.keypts.size());
      for (const KeyPt_t& point : b.keypts) {
        line("  key point", point.x, point.y, point.score);
      }
    }
  }
  void tracks(const char* name, const olvex::vector<Track>& tracks) {
    line(name, tracks.size());
    for (const Track& t : tracks) {
      line(" track", t.id, t.max_score, t.start_frame, t.status_pre, t.status_now, t.alert,
           t.lost_times, t.moved, t.moving, t.double_check, t.pass_double_check, t.boxes.size());
      for (const TrackBBox& b : t.boxes) {
        line("  box", b.x, b.y, b.w, b.h, b.score, b.lm1_x, b.lm1_y, b.lm2_x, b.lm2_y, b.lm3_x,
             b.lm3_y, b.lm4_x, b.lm4_y, b.lm5_x, b.lm5_y, b.class_id, b.pts);
      }
    }
  }
  // With an n for each line number, and without the sign of a NaN: like its bits, it depends on the
  // order in which a compiler hands the operands to the processor.
  void log(const std::string& log) {
    for (size_t at = 0; at < log.size();) {
      at += log.compare(at, 4, "-nan") == 0 ? 1 : 0;
      text += log[at++];
      if (text.size() > 6 && text.compare(text.size() - 6, 6, "LINE: ") == 0) {
        text += 'n';
        at = std::min(log.find_first_not_of("0123456789", at), log.size());
      }
    }
  }
  // "" when both are the same, else the first lines that differ.
  static std::string difference(const Record& plain, const Record& shipped) {
    const std::string &a = plain.text, &b = shipped.text;
    const size_t common = std::min(a.size(), b.size());
    size_t at = 0;
    while (at < common && a[at] == b[at]) {
      ++at;
    }
    if (a == b) {
      return "";
    }
    const size_t start = at == 0 ? 0 : a.rfind('\n', at - 1) + 1;
    const auto line = std::count(a.begin(), a.begin() + static_cast<ptrdiff_t>(start), '\n') + 1;
    return "line " + std::to_string(line) +
           " of the record\nplain:   " + a.substr(start, a.find('\n', at) - start) +
           "\nshipped: " + b.substr(start, b.find('\n', at) - start);
  }

 private:
  void append(uint64_t value) {
    char digits[17] = " ";
    int count = 1;
    for (int shift = 60; shift >= 0; shift -= 4) {
      if (value >> shift != 0 || shift == 0) {
        digits[count++] = "0123456789abcdef"[value >> shift & 15];
      }
    }
    text.append(digits, static_cast<size_t>(count));
  }
  template <class Value>
  void append(Value value) {
    append(static_cast<uint64_t>(value));
  }
  void append(float value) {
    uint32_t bits;
    memcpy(&bits, &value, sizeof(bits));
    append(value != value ? uint64_t{0x7fc00000} : uint64_t{bits});
  }
};

// ---- Scenes -------------------------------------------------------------------------------------

// A scene draws its own input, so that the second library gets what the first one got.
typedef void (*Scene)(const Routines& library, Random& random, Record& record);

#endif  // TESTS_UNIT_PLAIN_COMPARISON_H
