// simplestl_test.cpp - the containers and the records' defaults. This program replaces operator
// new[], so that it can count the containers' allocations and fail any of them.
#include "utils/olvex_stl/simplestl.h"

#include <malloc.h>
#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "utils/records/det_records.h"

namespace {

int g_live_arrays = 0;
int g_allocations_until_failure = 0;  // 0: none fails

const size_t kLargestArray = size_t{1} << 24;

}  // namespace

// Not inlined: a compiler that sees through both sides takes them for a mismatch.
__attribute__((noinline)) void* operator new[](size_t size) {
  void* memory = NULL;
  const bool fails = g_allocations_until_failure > 0 && --g_allocations_until_failure == 0;
  if (!fails && size <= kLargestArray) {
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

// An element with a ledger of who lives. It is known by a number on the heap and not by its
// address, since the containers move elements by their bytes.
class Counted {
 public:
  Counted(int value = 0) : value_(value), serial_(new char[1]) { live().insert(serial_); }
  Counted(const Counted& other) : Counted(other.value_) {}
  Counted& operator=(const Counted& other) {
    EXPECT_EQ(live().count(serial_), 1u) << "assigned to an element that does not live";
    value_ = other.value_;
    return *this;
  }
  ~Counted() {
    EXPECT_EQ(live().erase(serial_), 1u) << "destroyed twice or never constructed";
    delete[] serial_;
  }
  operator int() const {
    EXPECT_EQ(live().count(serial_), 1u) << "read an element that does not live";
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

class Vector : public testing::Test {
 protected:
  typedef std::function<void(CountedVector&)> Operation;

  static Operation push() {
    return [](CountedVector& v) { v.push_back(Counted(8)); };
  }
  static Operation resize(size_t n) {
    return [n](CountedVector& v) { v.resize(n, Counted(7)); };
  }
  static Operation insert(size_t n) {
    return [n](CountedVector& v) {
      const std::vector<Counted> source(n);
      v.insert(v.begin(), source.data(), source.data() + n);
    };
  }
  static Operation erase() {
    return [](CountedVector& v) { v.erase(v.begin()); };
  }
  static Operation clear() {
    return [](CountedVector& v) { v.clear(); };
  }
  static Operation assign(size_t n) {
    return [n](CountedVector& v) { v = CountedVector(n, Counted(9)); };
  }
};

TEST_F(Vector, ReservesByItsOwnRule) {
  struct Row {
    const char* name;
    std::vector<Operation> before;
    Operation last;
    size_t size, capacity;
    bool moved;
  };
  const Row rows[] = {
      {"first push_back", {}, push(), 1, 2, true},
      {"second push_back", {push()}, push(), 2, 4, true},
      {"third push_back", {push(), push()}, push(), 3, 6, true},
      {"fourth push_back", {push(), push(), push()}, push(), 4, 8, true},
      {"push_back with room left", {resize(10), resize(4)}, push(), 5, 20, false},
      {"resize of an empty one", {}, resize(10), 10, 20, true},
      {"resize to nothing", {}, resize(0), 0, 0, false},
      {"resize to fewer that reserves", {resize(10)}, resize(8), 8, 16, true},
      {"resize to fewer that does not", {resize(10), resize(8)}, resize(5), 5, 16, false},
      {"resize to one third", {resize(9)}, resize(6), 6, 18, false},
      {"resize above one third", {resize(9)}, resize(7), 7, 14, true},
      {"erase", {resize(3)}, erase(), 2, 6, false},
      {"clear", {resize(3)}, clear(), 0, 0, true},
      {"push_back after clear", {resize(9), clear()}, push(), 1, 2, true},
      {"insert", {resize(2)}, insert(3), 5, 10, true},
      {"insert with room left", {resize(10), resize(2)}, insert(3), 5, 20, false},
      {"insert of nothing follows the rule too", {resize(10), erase()}, insert(0), 9, 18, true},
      {"assignment of fewer", {resize(10)}, assign(6), 6, 20, false},
      {"assignment of more", {resize(10)}, assign(8), 8, 16, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    CountedVector v;
    for (const Operation& operation : row.before) {
      operation(v);
    }
    const Counted* const storage = v.data();
    row.last(v);
    EXPECT_EQ(v.size(), row.size);
    EXPECT_EQ(v.capacity(), row.capacity);
    EXPECT_EQ(v.data() != storage, row.moved);
    EXPECT_EQ(v.data() == NULL, row.capacity == 0);
    EXPECT_EQ(Counted::live().size(), row.size);
  }
}

// std::vector for the contents, and the growth rule for the capacity.
struct Model {
  std::vector<int> values;
  size_t capacity = 0;

  void reserve(size_t n) {
    if (n + n / 2 > capacity / 2) {
      capacity = 2 * n;
    }
  }
};

void step(std::mt19937& random, CountedVector& v, Model& model) {
  const auto below = [&random](size_t n) { return n == 0 ? 0 : random() % n; };
  const size_t size = v.size();
  const size_t at = below(size);
  const size_t n = below(24);
  Counted five(5);  // named, so that the choice between it and an element makes no copy
  const auto offset = [](size_t i) { return static_cast<std::ptrdiff_t>(i); };
  const std::vector<int> fresh(n, static_cast<int>(below(1000)));
  switch (random() % 8) {
    case 0:  // may be an element of the vector itself
      model.reserve(size + 1);
      model.values.push_back(at < size ? int{model.values[at]} : 5);
      v.push_back(at < size ? v[at] : five);
      break;
    case 1:
      model.reserve(n);
      model.values.resize(n, at < size ? int{model.values[at]} : 5);
      v.resize(n, at < size ? v[at] : five);
      break;
    case 2:
      if (size > 0) {
        model.values.erase(model.values.begin() + offset(at));
        EXPECT_EQ(v.erase(v.begin() + at), v.begin() + at);
      }
      break;
    case 3: {
      const std::vector<Counted> source(fresh.begin(), fresh.end());
      model.reserve(size + n);
      model.values.insert(model.values.begin() + offset(at), fresh.begin(), fresh.end());
      v.insert(v.begin() + at, source.data(), source.data() + n);
      break;
    }
    case 4: {  // a range of its own
      const size_t first = below(size + 1);
      const size_t count = size < 60 ? below(size - first + 1) : 0;
      const std::vector<int> copy(model.values);
      model.reserve(size + count);
      model.values.insert(model.values.begin() + offset(at), copy.begin() + offset(first),
                          copy.begin() + offset(first + count));
      v.insert(v.begin() + at, v.begin() + first, v.begin() + first + count);
      break;
    }
    case 5:
      model = Model();
      v.clear();
      break;
    case 6: {
      const CountedVector copy(v);
      EXPECT_EQ(copy.capacity(), 2 * size);
      model.reserve(size);
      v.resize(0, Counted());
      v = copy;
      break;
    }
    default:
      v = *&v;
      break;
  }
}

TEST_F(Vector, KeepsStepWithTheStandardVector) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    CountedVector v;
    Model model;
    for (int i = 0; i < 300 && !testing::Test::HasFailure(); ++i) {
      step(random, v, model);
      ASSERT_EQ(contents(v), model.values) << "step " << i;
      ASSERT_EQ(v.capacity(), model.capacity) << "step " << i;
      ASSERT_EQ(Counted::live().size(), v.size()) << "step " << i;
    }
  }
  EXPECT_TRUE(Counted::live().empty());
}

TEST_F(Vector, SurvivesTheFailureOfEveryAllocation) {
  struct Row {
    const char* name;
    Operation operation;
  };
  const Row rows[] = {
      {"push_back", push()},
      {"push_back of its own", [](CountedVector& v) { v.push_back(v[0]); }},
      {"resize", resize(9)},
      {"insert", insert(4)},
      {"insert of its own", [](CountedVector& v) { v.insert(v.begin(), v.begin(), v.end()); }},
      {"assignment", assign(9)},
      {"copy", [](CountedVector& v) { EXPECT_EQ(contents(CountedVector(v)), contents(v)); }},
      {"swap", [](CountedVector& v) { olvex::swap(v[0], v[2]); }},
  };
  for (const Row& row : rows) {
    const int arrays_before = g_live_arrays;
    bool failed = true;
    for (int n = 1; failed; ++n) {
      SCOPED_TRACE(std::string(row.name) + ", allocation " + std::to_string(n));
      CountedVector v(3, Counted(1));
      g_allocations_until_failure = n;
      try {
        row.operation(v);
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
    EXPECT_EQ(g_live_arrays, arrays_before) << row.name;
    EXPECT_TRUE(Counted::live().empty()) << row.name;
  }
}

TEST_F(Vector, RefusesMoreThanAddressesCanName) {
  const size_t too_many[] = {
      SIZE_MAX / sizeof(int),  // the bytes do not fit
      SIZE_MAX / 2 + 1,        // nor does twice the count, which wraps to 0
      SIZE_MAX / 3 * 2 + 1,    // nor three times the count, which wraps to 1
  };
  for (const size_t n : too_many) {
    olvex::vector<int> v(3, 4);
    EXPECT_THROW(v.resize(n, 0), std::bad_alloc) << n;
    EXPECT_EQ(contents(v), std::vector<int>({4, 4, 4}));
  }
}

TEST(String, KeepsItsTextTerminated) {
  typedef olvex::string S;
  struct Row {
    const char* name;
    std::function<void(S&)> change;
    const char* text;  // NULL: no storage
    size_t capacity;
  };
  const Row rows[] = {
      {"default", [](S& s) { s = S(); }, NULL, 0},
      {"from an empty text", [](S& s) { s = S(""); }, NULL, 0},
      {"from a text", [](S& s) { s = S("abc"); }, "abc", 6},
      {"shorter over longer", [](S& s) { s = S("abcdef"), s = S("xy"); }, "xy", 12},
      {"empty over longer", [](S& s) { s = S("abcdef"), s = S(""); }, "", 12},
      {"append a text", [](S& s) { s = S("ab"), s += "cde"; }, "abcde", 10},
      {"append a string", [](S& s) { s = S("ab"), s += S("c"); }, "abc", 6},
      {"append itself", [](S& s) { s = S("ab"), s += *&s; }, "abab", 8},
      {"append over a longer remainder", [](S& s) { s = S("abcdef"), s = S("x"), s += "y"; }, "xy",
       12},
      {"append nothing to nothing", [](S& s) { s += "", s += S(), s += *&s; }, NULL, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    S s;
    row.change(s);
    EXPECT_STREQ(s.c_str(), row.text);
    EXPECT_EQ(s.capacity(), row.capacity);
    EXPECT_EQ(s.size(), row.text == NULL ? 0 : strlen(row.text));
    EXPECT_TRUE(s == S(s) && s == (row.text == NULL ? "" : row.text));
  }
}

TEST(String, ComparesByContents) {
  const olvex::string abc("abc");
  EXPECT_TRUE(abc == olvex::string("abc") && !(abc != "abc"));
  EXPECT_TRUE(abc != "ab" && abc != "abd" && abc != "abcd" && abc != olvex::string());
  EXPECT_TRUE(olvex::string() == olvex::string("") && olvex::string() == "");
}

TEST(MinAndMax, ReturnAReferenceToTheFirstOnATie) {
  const float one = 1.0f, same = 1.0f, two = 2.0f, nan = NAN;
  EXPECT_EQ(&olvex::max(one, same), &one);
  EXPECT_EQ(&olvex::min(one, same), &one);
  EXPECT_EQ(&olvex::max(one, two), &two);
  EXPECT_EQ(&olvex::min(two, one), &one);
  EXPECT_EQ(&olvex::max(nan, one), &nan);
  EXPECT_EQ(&olvex::min(one, nan), &one);
}

TEST(Records, HaveTheirDefaults) {
  const KeyPt_t point;
  EXPECT_TRUE(point.x == 0.0f && point.y == 0.0f && point.score == -1.0f);
  const DetStableBboxParams_t stable;
  EXPECT_TRUE(stable.stable_bbox == 0 && stable.stable_sensitive == 0.63f);
  const IoutStaticParams_t still;
  EXPECT_TRUE(still.ignore_static_objects == 0 && still.static_sensitive == 0.85f);
  EXPECT_EQ(still.ref_frame, 5);
  const IouTrackerParams_t tracker;
  EXPECT_EQ(tracker.enable, 0);
  EXPECT_TRUE(tracker.ignore_frame_number == 1 && tracker.max_lost_times == 10);
  const DetDoubleCheckParams_t check;
  EXPECT_TRUE(check.enable == 0 && check.check_target_class == -1);
  EXPECT_TRUE(check.check_with_classes.empty());
  EXPECT_TRUE(check.overlap_threshold == 0.5f && check.check_class_conf_threshold == 0.5f);
  const DetInfo_t info;
  EXPECT_TRUE(info.model_buffer == NULL && info.model_buffer_len == 0);
}

}  // namespace
