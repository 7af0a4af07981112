// SPDX-License-Identifier: Apache-2.0
// olvex_log.cpp - the header of a log line and its message. olvex_log_plain.cpp is the plain version, which
// has the text's format.
//
// Every frame logs some hundred lines, and with localtime and printf they would take longer than its
// boxes: so the calendar fields are kept while the second lasts, and the numbers are written by
// decimal_text.h.
#include "utils/log/olvex_log.h"

#include <fenv.h>
#include <langinfo.h>
#include <stdarg.h>
#include <string.h>

#include "utils/log/decimal_text.h"

namespace {

const long kMicrosecondsPerSecond = 1000000;
// What the arguments of a message may take; with more it is left to printf.
const size_t kLongestArguments = 256;

void keep_calendar(OlvexLogClock& clock, time_t seconds) {
  clock.calendar = localtime(&seconds);
  const struct tm& calendar = *clock.calendar;
  clock.calendar_length = static_cast<size_t>(
      snprintf(clock.calendar_text, sizeof(clock.calendar_text), "[%d-%02d-%02d %02d:%02d:%02d ",
               calendar.tm_year + 1900, calendar.tm_mon + 1, calendar.tm_mday, calendar.tm_hour,
               calendar.tm_min, calendar.tm_sec));
  clock.second = seconds;
}

// The calendar, three numbers, a tag and punctuation.
const size_t kLongestHeader =
    sizeof(OlvexLogClock().calendar_text) + 3 * olvex::kLongestDecimal + 32;

// A text whose length is known takes a few moves.
template <size_t kSize>
char* write_literal(char* to, const char (&text)[kSize]) {
  memcpy(to, text, kSize - 1);
  return to + kSize - 1;
}

// The locale's; NULL where numbers are rounded otherwise than to the nearest, which is left to printf.
const char* decimal_point() {
  return fegetround() == FE_TONEAREST ? nl_langinfo(RADIXCHAR) : NULL;
}

// Milliseconds with four decimals, of which microseconds leave the last 0, and with the decimal
// point of the locale, as printf has it.
char* write_fraction(char* to, uint32_t microseconds) {
  const char* const point = decimal_point();
  if (point == NULL) {
    return to + snprintf(to, olvex::kLongestDecimal, "%.04f", microseconds / 1000.0);
  }
  to = olvex::write_unsigned(to, microseconds / 1000);
  to = olvex::write_short(to, point);
  to = olvex::write_digits(to, microseconds % 1000, 3);
  *to++ = '0';
  return to;
}

// This and the writing of a message are not inlined where the size of the buffer is known: the checks of
// _FORTIFY_SOURCE, which follow a pointer through all of this, would take longer than the rest.
__attribute__((noinline)) char* write_header(char* to, const OlvexLogClock& clock, const char* tag,
                                             int line) {
  memcpy(to, clock.calendar_text, sizeof(clock.calendar_text));
  to += clock.calendar_length;
  to =
      write_fraction(to, static_cast<uint32_t>(clock.time_of_day.tv_usec % kMicrosecondsPerSecond));
  to = write_literal(to, "] ");
  to = olvex::write_short(to, tag);
  to = write_literal(to, ", LINE: ");
  to = olvex::write_unsigned(to, static_cast<uint32_t>(line));
  return write_literal(to, ". ");
}

// NULL for no text, and for one that does not fit.
char* write_text(char* to, const char* last, const char* text) {
  if (text == NULL || strlen(text) > static_cast<size_t>(last - to)) {
    return NULL;
  }
  return stpcpy(to, text);
}

char* write_float(char* to, double value, const char* point) {
  return point != NULL ? olvex::write_six_decimals(to, value, point) : NULL;
}

// NOLINTBEGIN(clang-analyzer-valist.Uninitialized): it misses the va_start of the caller
// Writes a message as printf does. False for what it does not cover: other conversions than %d, %f and %s,
// long arguments, numbers that are large or not finite, another rounding than to the nearest.
//   last  where an argument may begin: a number and the rest of the format have space behind it
__attribute__((noinline)) bool write_message(char* to, const char* last, const char* format,
                                             va_list arguments) {
  const char* point = NULL;
  for (;;) {
    const char character = *format++;
    if (character != '%') {
      *to++ = character;
      if (character == 0) {
        return true;
      }
      continue;
    }
    if (to > last) {
      return false;
    }
    const char conversion = *format++;
    if (conversion == 'd') {
      to = olvex::write_signed(to, va_arg(arguments, int));
    } else if (conversion == 'f') {
      point = point != NULL ? point : decimal_point();
      to = write_float(to, va_arg(arguments, double), point);
    } else if (conversion == 's') {
      to = write_text(to, last, va_arg(arguments, const char*));
    } else {
      return false;
    }
    if (to == NULL) {
      return false;
    }
  }
}

}  // namespace

void olvex_log_header(OlvexLogClock& clock, const char* tag, int line) {
  gettimeofday(&clock.time_of_day, NULL);
  const time_t seconds = time(NULL);
  if (seconds != clock.second || clock.calendar_text[0] == 0) {
    keep_calendar(clock, seconds);
  }
  char header[kLongestHeader];
  const char* const end = write_header(header, clock, tag, line);
  fwrite(header, 1, static_cast<size_t>(end - header), stdout);
}

// NOLINTNEXTLINE(cert-dcl50-cpp): the compiler checks the arguments, as it does printf's
void olvex_log_message(const char* format, ...) {
  char message[kLongestArguments + olvex::kLongestDecimal + OLVEX_LOG_LONGEST_FORMAT];
  va_list arguments;
  va_start(arguments, format);
  const bool is_written = write_message(message, message + kLongestArguments, format, arguments);
  va_end(arguments);
  if (is_written) {
    printf("%s", message);
    return;
  }
  va_start(arguments, format);
  vprintf(format, arguments);
  va_end(arguments);
}
// NOLINTEND(clang-analyzer-valist.Uninitialized)
