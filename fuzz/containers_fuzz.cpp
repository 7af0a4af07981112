// SPDX-License-Identifier: Apache-2.0
// containers_fuzz.cpp - the library's vector and string against the standard ones: contents, the
// capacity by the growth rule, and elements that show when they are lost or destroyed twice.
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "utils/olvex_stl/simplestl.h"

namespace {

const size_t kMostElements = 60;  // made by one step

int live_elements = 0;

// Its value lies on the heap, which the sanitizer watches.
class Owned {
 public:
  explicit Owned(int value = 0) : value_(new int(value)) { ++live_elements; }
  Owned(const Owned& other) : Owned(*other.value_) {}
  Owned& operator=(const Owned& other) {
    *value_ = *other.value_;
    return *this;
  }
  ~Owned() {
    delete value_;
    --live_elements;
  }
  bool operator==(int value) const { return *value_ == value; }

 private:
  int* value_;
};

// One of the library's containers beside a standard one.
template <class Made, class Contents>
struct Pair {
  Made made;
  Contents contents;
  size_t capacity = 0;

  void reserve(size_t n) {
    const bool stays = 3 * n / 2 <= capacity / 2 || 2 * n < contents.size();
    capacity = stays ? capacity : 2 * n;
  }

  void assign(const Pair& other) {
    if (&other != this) {
      contents = other.contents;
      reserve(contents.size());
    }
    made = other.made;
  }

  void check() const {
    FUZZ_CHECK(made.size() == contents.size() && made.empty() == contents.empty());
    FUZZ_CHECK(made.capacity() == capacity && (made.data() == nullptr) == (capacity == 0));
    for (size_t i = 0; i < made.size(); ++i) {
      FUZZ_CHECK(made[i] == contents[i] && made.begin() + i == &made[i]);
    }
  }
};

// ---- olvex::vector ------------------------------------------------------------------------------

typedef Pair<olvex::vector<Owned>, std::vector<int>> Vectors;

// A range of the same or another vector.
void insert(FuzzInput& input, Vectors& to, const Vectors& from) {
  const size_t at = input.byte() % (to.made.size() + 1);
  const size_t first = input.byte() % (from.made.size() + 1);
  const size_t count = input.byte() % std::min(kMostElements, from.made.size() - first + 1);
  const int* const source = from.contents.data() + first;
  const std::vector<int> values(source, source + count);
  to.reserve(to.made.size() + count);
  to.contents.insert(to.contents.begin() + static_cast<ptrdiff_t>(at), values.begin(),
                     values.end());
  const auto* const place = from.made.begin() + first;
  to.made.insert(to.made.begin() + at, place, place + count);
}

void step(FuzzInput& input, Vectors& vectors, const Vectors& others) {
  olvex::vector<Owned>& made = vectors.made;
  const uint8_t operation = input.byte();
  const size_t n = input.byte() % kMostElements;
  const Owned fresh(static_cast<int>(n));
  // The value may be an element of the vector itself.
  const bool own = operation >= 128 && !made.empty();
  const size_t at = made.empty() ? 0 : input.byte() % made.size();
  const Owned& value = own ? made[at] : fresh;
  const int number = own ? vectors.contents[at] : static_cast<int>(n);
  switch (operation % 8) {
    case 0:
      return insert(input, vectors, own ? vectors : others);
    case 1:
      vectors.reserve(n);
      vectors.contents.resize(n, number);
      return made.resize(n, value);
    case 2:
      if (!made.empty()) {
        vectors.contents.erase(vectors.contents.begin() + static_cast<ptrdiff_t>(at));
        FUZZ_CHECK(made.erase(made.begin() + at) == made.begin() + at);
      }
      return;
    case 3:
      return vectors.assign(own ? vectors : others);
    case 4:
      vectors.reserve(n);
      return made.try_alloc(n);
    case 5: {
      const Vectors copy(others);
      FUZZ_CHECK(copy.made.capacity() == 2 * copy.made.size());
      return vectors.assign(copy);
    }
    case 6:
      vectors.contents.clear();
      vectors.capacity = 0;
      return made.clear();
    default:
      vectors.reserve(made.size() + 1);
      vectors.contents.push_back(number);
      return made.push_back(value);
  }
}

// ---- olvex::string ------------------------------------------------------------------------------

typedef Pair<olvex::string, std::string> Strings;

void step(FuzzInput& input, Strings& strings, const Strings& others) {
  const uint8_t operation = input.byte();
  const bool own = operation >= 128 && strings.contents.size() < kMostElements;
  const Strings& source = own ? strings : others;
  const std::string text = input.text(kMostElements).c_str();  // up to its first zero
  const bool by_text = operation / 2 % 2 == 0;
  const std::string added = by_text ? text : source.contents;
  if (operation % 4 == 3) {
    strings.assign(source);
  } else if (operation % 2 == 0) {
    strings.reserve(strings.contents.size() + added.size());
    strings.contents += added;
    by_text ? strings.made += text.c_str() : strings.made += source.made;
  } else {
    strings.reserve(text.size());
    strings.contents = text;
    strings.made = text.c_str();
  }
  const char* const made = strings.made.c_str();
  FUZZ_CHECK(strings.contents == (made == nullptr ? "" : made));
  FUZZ_CHECK((strings.made == text.c_str()) == (strings.contents == text));
  FUZZ_CHECK((strings.made != others.made) == (strings.contents != others.contents));
}

template <class Tested>
void fuzz(FuzzInput& input) {
  Tested tested[2];
  while (!input.empty() && tested[0].made.size() < 1000) {
    const bool second = input.flag();
    step(input, tested[second], tested[!second]);
    tested[0].check();
    tested[1].check();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, std::min<size_t>(size, 300));  // all contents are compared at every step
  input.flag() ? fuzz<Vectors>(input) : fuzz<Strings>(input);
  FUZZ_CHECK(live_elements == 0);
  return 0;
}
