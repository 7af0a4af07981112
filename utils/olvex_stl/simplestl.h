// SPDX-License-Identifier: Apache-2.0
// simplestl.h - the library's own containers: olvex::vector, olvex::string, olvex::pair, and the
// helpers olvex::min, olvex::max and olvex::swap. Needs no standard container. The records kept in
// them are in utils/records/det_records.h.
//
// olvex::vector<T> at a glance
//
//   Invariants   size_ <= capacity_; data_ is NULL while nothing was ever reserved and after a
//                clear; the slots after the last element are zero bytes when the storage is new.
//   Growth       Reserving n elements needs 3n/2 <= capacity/2 (integer division), and otherwise
//                makes the capacity exactly 2n. So every push_back onto a full-grown list reserves
//                again, and a resize to fewer elements may reserve again too:
//
//                    operations                              capacity
//                    push_back, 1st to 4th                   2, 4, 6, 8
//                    resize(10)                              20
//                    resize(10), resize(8)                   20, 16
//                    resize(10), resize(8), resize(5)        20, 16, 16
//
//   Elements     T must tolerate being moved by its bytes (no pointer into itself, no registration
//                of its address): storage moves, erase and insert relocate with memmove. T must be
//                default-constructible where a vector is copied.
//   Differences  from std::vector: no bounds checks, no allocator, growth as above, resize always
//                takes a fill value, iterators are plain pointers, clear() frees the storage.
//   Failure      Lack of memory raises the runtime's allocation exception, leaves the vector valid
//                and leaks nothing; nothing is logged. Indexing past the end and erasing from an
//                empty vector are faults of the caller.
#ifndef UTILS_OLVEX_STL_SIMPLESTL_H
#define UTILS_OLVEX_STL_SIMPLESTL_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <new>

namespace olvex {

// The larger of two; the first on a tie, and when they cannot be compared.
template <typename T>
const T& max(const T& a, const T& b) {
  return a < b ? b : a;
}

// The smaller of two; the first on a tie, and when they cannot be compared.
template <typename T>
const T& min(const T& a, const T& b) {
  return a > b ? b : a;
}

// Exchanges two values through a copy.
template <typename T>
void swap(T& a, T& b) {
  const T temporary(a);
  a = b;
  b = temporary;
}

// Two values that belong together.
template <typename A, typename B>
struct pair {
  A first;
  B second;

  pair() : first(), second() {}
  pair(const A& a, const B& b) : first(a), second(b) {}
};

// Raw storage for elements, apart from the typed surface below.
namespace storage {

// Bytes for `count` elements of `element_size`; to be freed with release().
inline char* reserve_unset(size_t count, size_t element_size) {
  // A request that does not fit a size_t becomes one that no allocator grants.
  return new char[count > SIZE_MAX / element_size ? SIZE_MAX : count * element_size];
}

// The same, filled with zeros.
inline char* reserve(size_t count, size_t element_size) {
  char* memory = reserve_unset(count, element_size);
  memset(memory, 0, count * element_size);
  return memory;
}

inline void release(void* memory) {
  delete[] static_cast<char*>(memory);
}

}  // namespace storage

// A growable array; see the top of this file.
template <typename T>
class vector {
 public:
  typedef T* iterator;
  typedef const T* const_iterator;

  vector() : data_(NULL), size_(0), capacity_(0) {}
  vector(size_t n, const T& value);
  vector(const vector& other);
  ~vector() { clear(); }
  vector& operator=(const vector& other);

  // Reserves n elements by the growth rule; the size stays, and the storage never gets too small
  // for it. A string asked for half its length loses its terminator.
  void try_alloc(size_t n);
  // Destroys the elements from n on, or appends copies of value up to n. value may be an element.
  void resize(size_t n, const T& value);
  // Appends a copy. value may be an element of this vector.
  void push_back(const T& value);
  // Inserts copies of [first, last) before pos. The range may lie in this vector.
  void insert(iterator pos, const_iterator first, const_iterator last);
  // Removes one element and returns the place of the next.
  iterator erase(iterator pos);
  // Destroys all elements and frees the storage.
  void clear();

  T* data() { return data_; }
  const T* data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }
  iterator begin() { return data_; }
  iterator end() { return data_ + size_; }
  const_iterator begin() const { return data_; }
  const_iterator end() const { return data_ + size_; }

  // Slots reserved, for tests of the growth rule.
  size_t capacity() const { return capacity_; }

 protected:
  T* data_;
  size_t size_;
  size_t capacity_;

 private:
  bool holds(const T* element) const { return data_ <= element && element < data_ + size_; }
  void append_copies(size_t n, const T& value);
};

template <typename T>
vector<T>::vector(size_t n, const T& value) : vector() {
  resize(n, value);
}

template <typename T>
vector<T>::vector(const vector& other) : vector() {
  if (other.size_ > 0) {
    *this = other;
  }
}

template <typename T>
vector<T>& vector<T>::operator=(const vector& other) {
  // Most boxes have no key points, and are copied often.
  const bool are_empty = size_ == 0 && other.size_ == 0;
  if (this == &other || are_empty) {
    return *this;
  }
  const T blank = T();
  resize(0, blank);
  resize(other.size_, blank);
  for (size_t i = 0; i < other.size_; ++i) {
    data_[i] = other.data_[i];
  }
  return *this;
}

template <typename T>
void vector<T>::try_alloc(size_t n) {
  // Deliberate: the rule compares 3n/2 with half the capacity and reserves exactly 2n, so that
  // lists grown one by one reserve on every step. Capacities are part of the contract: a string's
  // terminator relies on the zero-filled slack.
  const size_t need = 3 * n / 2;
  const size_t have = capacity_ / 2;
  // A count whose multiple wraps around must not pass for a small one.
  const bool wraps = n > SIZE_MAX / 3;
  const size_t wanted = wraps ? SIZE_MAX : 2 * n;
  // Asked repeatedly for less, the rule would come down to storage that the elements do not fit.
  if ((need <= have && !wraps) || wanted < size_) {
    return;
  }
  T* moved = reinterpret_cast<T*>(storage::reserve(wanted, sizeof(T)));
  if (data_ != NULL) {
    memmove(static_cast<void*>(moved), static_cast<const void*>(data_), size_ * sizeof(T));
    storage::release(data_);
  }
  data_ = moved;
  capacity_ = wanted;
}

template <typename T>
void vector<T>::append_copies(size_t n, const T& value) {
  while (size_ < n) {
    new (static_cast<void*>(data_ + size_)) T(value);
    ++size_;
  }
}

template <typename T>
void vector<T>::resize(size_t n, const T& value) {
  if (holds(&value)) {
    const T copy(value);  // NOLINT(performance-unnecessary-copy-initialization): value moves
    resize(n, copy);
    return;
  }
  try_alloc(n);
  for (size_t i = n; i < size_; ++i) {
    data_[i].~T();
  }
  if (n < size_) {
    size_ = n;
  }
  append_copies(n, value);
}

template <typename T>
void vector<T>::push_back(const T& value) {
  if (holds(&value)) {
    const T copy(value);  // NOLINT(performance-unnecessary-copy-initialization): value moves
    push_back(copy);
    return;
  }
  try_alloc(size_ + 1);
  append_copies(size_ + 1, value);
}

template <typename T>
void vector<T>::insert(iterator pos, const_iterator first, const_iterator last) {
  const size_t offset = static_cast<size_t>(pos - begin());
  if (begin() <= first && first < end()) {
    const vector copy(*this);
    const_iterator source = copy.begin() + (first - begin());
    insert(pos, source, source + (last - first));
    return;
  }
  const size_t count = static_cast<size_t>(last - first);
  try_alloc(size_ + count);
  // The copies are constructed after the last element and then rotated into place by their bytes:
  // no element is assigned over storage that another one still owns, and when a copy fails the
  // vector is whole.
  const size_t old_size = size_;
  for (const_iterator source = first; source != last; ++source) {
    append_copies(size_ + 1, *source);
  }
  if (count == 0 || offset == old_size) {
    return;  // in place already
  }
  const size_t bytes = count * sizeof(T);
  char* inserted = storage::reserve(count, sizeof(T));
  char* gap = reinterpret_cast<char*>(data_ + offset);
  memcpy(inserted, static_cast<const void*>(data_ + old_size), bytes);
  memmove(gap + bytes, gap, (old_size - offset) * sizeof(T));
  memcpy(gap, inserted, bytes);
  storage::release(inserted);
}

template <typename T>
typename vector<T>::iterator vector<T>::erase(iterator pos) {
  pos->~T();
  const size_t following = static_cast<size_t>(end() - pos) - 1;
  memmove(static_cast<void*>(pos), static_cast<const void*>(pos + 1), following * sizeof(T));
  --size_;
  return pos;
}

template <typename T>
void vector<T>::clear() {
  for (size_t i = 0; i < size_; ++i) {
    data_[i].~T();
  }
  storage::release(data_);
  data_ = NULL;
  size_ = 0;
  capacity_ = 0;
}

// A character string. size() counts the characters only; a string that ever held one is followed by
// a zero byte, and c_str() of one that never did is NULL.
class string : public vector<char> {
 public:
  string() {}
  string(const char* text) {  // NOLINT(google-explicit-constructor): texts are strings
    assign(text, strlen(text));
  }
  string(const string& other) : vector<char>(other) {}
  string& operator=(const string& other) {
    vector<char>::operator=(other);
    terminate();
    return *this;
  }

  const char* c_str() const { return data_; }

  string& operator+=(const string& other) {
    append(other.data_, other.size_);
    return *this;
  }
  string& operator+=(const char* text) {
    append(text, strlen(text));
    return *this;
  }

  bool operator==(const string& other) const { return equals(other.data_, other.size_); }
  bool operator==(const char* text) const { return equals(text, strlen(text)); }
  bool operator!=(const string& other) const { return !(*this == other); }
  bool operator!=(const char* text) const { return !(*this == text); }

 private:
  void assign(const char* text, size_t length) {
    resize(length, 0);
    if (length > 0) {
      memcpy(data_, text, length);
    }
  }
  void append(const char* text, size_t length) {
    insert(end(), text, text + length);
    terminate();
  }
  // A shorter text may reuse storage that still holds the end of a longer one.
  void terminate() {
    if (data_ != NULL) {
      data_[size_] = 0;
    }
  }
  bool equals(const char* text, size_t length) const {
    return size_ == length && (length == 0 || memcmp(data_, text, length) == 0);
  }
};

}  // namespace olvex

#endif  // UTILS_OLVEX_STL_SIMPLESTL_H
