// SPDX-License-Identifier: Apache-2.0
// simplestl_test.cpp - the containers where an allocation fails or a size wraps; containers_fuzz.cpp holds
// them against the standard ones. Replaces operator new[], to count allocations and fail any of them.
#include "utils/olvex_stl/simplestl.h"

#include <malloc.h>
#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace {

int g_live_arrays = 0;
int g_allocations_until_failure = 0;  // 0: none fails

}  // namespace

// Not inlined: a compiler that inlines both reports a mismatch.
__attribute__((noinline)) void* operator new[](size_t size) {
  void* memory = NULL;
  const bool fails = g_allocations_until_failure > 0 && --g_allocations_until_failure == 0;
  if (!fails && size <= size_t{1} << 24) {
    memory = malloc(size > 0 ? size : 1);
  }
  if (memory == NULL) {
    throw std::bad_alloc();
  }
  ++g_live_arrays;
  return memory;
}

__attribute__((noinline)) void operator delete[](void* memory) noexcept {
  if (memory != NULL) {
    --g_live_arrays;
    explicit_bzero(memory, malloc_usable_size(memory));  // what is read after this shows
    free(memory);
  }
}

void operator delete[](void* memory, size_t /*size*/) noexcept {
  operator delete[](memory);
}

namespace {

// An element that records which elements exist. It is identified by an allocation of its own and
// not by its address, since the containers move elements by their bytes.
class Counted {
 public:
  Counted(int value = 0) : value_(value), serial_(new char[1]) { live().insert(serial_); }
  Counted(const Counted& other) : Counted(other.value_) {}
  Counted& operator=(const Counted& other) {
    EXPECT_EQ(live().count(serial_), 1u) << "assigned to an element that does not exist";
    value_ = other.value_;
    return *this;
  }
  ~Counted() {
    EXPECT_EQ(live().erase(serial_), 1u) << "destroyed twice or never constructed";
    delete[] serial_;
  }
  operator int() const {
    EXPECT_EQ(live().count(serial_), 1u) << "read an element that does not exist";
    return value_;
  }
  static std::set<const char*>& live() {
    static std::set<const char*> serials;
    return serials;
  }

 private:
  int value_;
  char* serial_;
};

typedef olvex::vector<Counted> CountedVector;

template <typename T>
std::vector<int> contents(const olvex::vector<T>& v) {
  return std::vector<int>(v.begin(), v.end());
}

TEST(Vector, comes_down_to_its_elements_and_no_further_when_asked_for_less_in_steps) {
  olvex::vector<int> shrunk(10, 7);
  for (size_t n = 10; n > 0; --n) {
    shrunk.try_alloc(n);
  }
  EXPECT_EQ(shrunk.capacity(), 10u);
  EXPECT_EQ(shrunk[9], 7);
}

TEST(Vector, survives_the_failure_of_every_allocation) {
  typedef CountedVector V;
  const std::tuple<const char*, void (*)(V&)> rows[] = {
      {"push_back", [](V& v) { v.push_back(8); }},
      {"push_back of its own", [](V& v) { v.push_back(v[0]); }},
      {"resize", [](V& v) { v.resize(9, 7); }},
      {"insert",
       [](V& v) {
         const Counted four[4];
         v.insert(v.begin(), four, four + 4);
       }},
      {"insert of its own", [](V& v) { v.insert(v.begin(), v.begin(), v.end()); }},
      {"assignment", [](V& v) { v = V(9, 9); }},
      {"copy", [](V& v) { EXPECT_EQ(contents(V(v)), contents(v)); }},
      {"swap", [](V& v) { olvex::swap(v[0], v[2]); }},
  };
  for (const auto& [name, operation] : rows) {
    const int arrays_before = g_live_arrays;
    bool failed = true;
    for (int n = 1; failed; ++n) {
      SCOPED_TRACE(std::string(name) + ", allocation " + std::to_string(n));
      CountedVector v(3, Counted(1));
      g_allocations_until_failure = n;
      try {
        operation(v);
        failed = g_allocations_until_failure == 0;
      } catch (const std::bad_alloc&) {
      }
      g_allocations_until_failure = 0;
      EXPECT_EQ(Counted::live().size(), v.size());
      EXPECT_LE(v.size(), v.capacity());
      v.push_back(Counted(2));
      EXPECT_EQ(v[v.size() - 1], 2);
      ASSERT_LT(n, 100);
    }
    EXPECT_EQ(g_live_arrays, arrays_before) << name;
    EXPECT_TRUE(Counted::live().empty()) << name;
  }
}

TEST(Vector, refuses_more_than_addresses_can_name) {
  // Twice the count wraps to 0, three times the count to 2, the bytes of twice the count to 0.
  for (const size_t n : {SIZE_MAX / 2 + 1, SIZE_MAX / 3 + 1, SIZE_MAX / (2 * sizeof(int)) + 1}) {
    olvex::vector<int> v(3, 4);
    EXPECT_THROW(v.resize(n, 0), std::bad_alloc) << n;
    EXPECT_EQ(contents(v), std::vector<int>({4, 4, 4}));
  }
}

TEST(MinAndMax, return_a_reference_to_the_first_on_a_tie) {
  const float one = 1.0f, same = 1.0f, two = 2.0f, nan = NAN;
  EXPECT_TRUE(&olvex::max(one, same) == &one && &olvex::min(one, same) == &one);
  EXPECT_TRUE(&olvex::max(one, two) == &two && &olvex::min(two, one) == &one);
  EXPECT_TRUE(&olvex::max(nan, one) == &nan && &olvex::min(one, nan) == &one);
}

}  // namespace
