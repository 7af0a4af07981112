// SPDX-License-Identifier: Apache-2.0
// decimal_text.h - numbers as printf's %d and %f write them, without printf. olvex_log.cpp writes the log's
// numbers with it.
#ifndef UTILS_LOG_DECIMAL_TEXT_H
#define UTILS_LOG_DECIMAL_TEXT_H

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace olvex {

// A sign, ten digits before the decimal point, the point and six digits after it.
const size_t kLongestDecimal = 1 + 10 + MB_LEN_MAX + 6;

// All of these write at `to`, without an end of text, and return the place after.

// A text of a few characters, for which a call takes longer.
inline char* write_short(char* to, const char* text) {
  while (*text != 0) {
    *to++ = *text++;
  }
  return to;
}

// The last `count` digits of a number, zeros in front. Two at a time, since most of the time goes into
// divisions.
inline char* write_digits(char* to, uint32_t number, size_t count) {
  static const char kPairs[] =
      "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
      "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
      "8081828384858687888990919293949596979899";
  size_t left = count;
  while (left >= 2) {
    left -= 2;
    const size_t pair = number % 100;
    memcpy(to + left, kPairs + 2 * pair, 2);
    number /= 100;
  }
  if (left == 1) {
    *to = static_cast<char>('0' + number % 10);
  }
  return to + count;
}

inline char* write_unsigned(char* to, uint32_t number) {
  if (number < 1000) {
    if (number >= 100) {
      return write_digits(to, number, 3);
    }
    return number >= 10 ? write_digits(to, number, 2) : write_digits(to, number, 1);
  }
  size_t count = 4;
  for (uint32_t rest = number / 10000; rest > 0; rest /= 10) {
    ++count;
  }
  return write_digits(to, number, count);
}

inline char* write_signed(char* to, int32_t number) {
  const uint32_t bits = static_cast<uint32_t>(number);
  if (number >= 0) {
    return write_unsigned(to, bits);
  }
  *to++ = '-';
  return write_unsigned(to, 0u - bits);
}

// A number from 0 up to 2^32: its whole part, and 64 bits after the binary point.
struct FixedPoint {
  uint32_t whole;
  uint64_t fraction;
};

// False where bits that count are further behind the point.
// Requires: the bits of a double from 0 up to 2^32.
inline bool to_fixed_point(uint64_t bits, FixedPoint& number) {
  const int kMantissaBits = 52;
  const int kBias = 1023;
  const int exponent = static_cast<int>(bits >> kMantissaBits) - kBias;
  // The leading bit at the top. Zero and denormal numbers have none, and are too small for it to count.
  const uint64_t top = UINT64_C(1) << 63;
  const uint64_t mantissa = (bits << (63 - kMantissaBits)) | top;
  if (exponent >= 0) {
    number.whole = static_cast<uint32_t>(mantissa >> 32) >> (31 - exponent);
    number.fraction = (mantissa << exponent) << 1;
    return true;
  }
  number.whole = 0;
  number.fraction = 0;
  const int shift = -exponent - 1;
  if (shift > 40) {
    return true;  // a small part of the last decimal
  }
  number.fraction = mantissa >> shift;
  return (number.fraction << shift) == mantissa;
}

// What printf's %f writes where numbers are rounded to the nearest, halves to the even digit; `point` is the
// locale's decimal point. NULL, without writing, for what it does not cover: NaN, magnitudes from 2^32 - 1 on,
// and from 2^-41 to 2^-12 those of more than 24 bits. So it covers all floats below 2^32.
inline char* write_six_decimals(char* to, double value, const char* point) {
  const uint32_t kMillion = 1000000;
  uint64_t bits;
  static_assert(sizeof(bits) == sizeof(value), "the bits of a double");
  memcpy(&bits, &value, sizeof(bits));
  const uint64_t magnitude = bits & (UINT64_MAX >> 1);
  FixedPoint number;
  // The first number is 2^32 - 1.
  if (magnitude >= UINT64_C(0x41efffffffe00000) || !to_fixed_point(magnitude, number)) {
    return NULL;
  }
  // The product of the fraction and a million, in two halves.
  const uint64_t low = (number.fraction & UINT32_MAX) * kMillion;
  const uint64_t high = (number.fraction >> 32) * kMillion + (low >> 32);
  uint32_t decimals = static_cast<uint32_t>(high >> 32);
  const uint32_t rest = static_cast<uint32_t>(high);
  const uint32_t kHalf = UINT32_C(1) << 31;
  const bool is_half = rest == kHalf && static_cast<uint32_t>(low) == 0;
  if (rest >= kHalf && !(is_half && decimals % 2 == 0)) {
    ++decimals;
  }
  if (decimals == kMillion) {
    decimals = 0;
    ++number.whole;
  }
  if (bits != magnitude) {
    *to++ = '-';
  }
  to = write_unsigned(to, number.whole);
  to = write_short(to, point);
  return write_digits(to, decimals, 6);
}

}  // namespace olvex

#endif  // UTILS_LOG_DECIMAL_TEXT_H
