// SPDX-License-Identifier: Apache-2.0
// olvex_log.cpp - the header of a log line. olvex_log_plain.cpp is the plain version, which
// has the text's format.
//
// Every frame logs some hundred lines, and with localtime and printf they would take longer than its
// boxes: so the calendar fields are kept while the second lasts, and the numbers are written by hand.
#include "utils/log/olvex_log.h"

#include <langinfo.h>
#include <limits.h>
#include <string.h>

namespace {

const long kMicrosecondsPerSecond = 1000000;
const size_t kLongestNumber = 24;

void keep_calendar(OlvexLogClock& clock, time_t seconds) {
  clock.calendar = localtime(&seconds);
  const struct tm& calendar = *clock.calendar;
  snprintf(clock.calendar_text, sizeof(clock.calendar_text), "[%d-%02d-%02d %02d:%02d:%02d ",
           calendar.tm_year + 1900, calendar.tm_mon + 1, calendar.tm_mday, calendar.tm_hour,
           calendar.tm_min, calendar.tm_sec);
  clock.second = seconds;
}

// Like stpcpy, writes at `to` and returns the place after. Requires: not negative.
char* write_number(char* to, long number) {
  char digits[kLongestNumber];
  char* first = digits + kLongestNumber;
  do {
    *--first = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number > 0);
  const size_t length = static_cast<size_t>(digits + kLongestNumber - first);
  memcpy(to, first, length);
  return to + length;
}

// Milliseconds with four decimals, of which microseconds leave the last 0, and with the decimal
// point of the locale, as printf has it.
char* write_fraction(char* to, long microseconds) {
  to = write_number(to, microseconds / 1000);
  to = stpcpy(to, nl_langinfo(RADIXCHAR));
  const long thousandths = microseconds % 1000;
  *to++ = static_cast<char>('0' + thousandths / 100);
  *to++ = static_cast<char>('0' + thousandths / 10 % 10);
  *to++ = static_cast<char>('0' + thousandths % 10);
  *to++ = '0';
  return to;
}

}  // namespace

void olvex_log_header(OlvexLogClock& clock, const char* tag, int line) {
  gettimeofday(&clock.time_of_day, NULL);
  const time_t seconds = time(NULL);
  if (seconds != clock.second || clock.calendar_text[0] == 0) {
    keep_calendar(clock, seconds);
  }
  // The calendar, three numbers, the decimal point, a tag and punctuation.
  char header[sizeof(clock.calendar_text) + 3 * kLongestNumber + MB_LEN_MAX + 32];
  char* end = stpcpy(header, clock.calendar_text);
  end = write_fraction(end, static_cast<long>(clock.time_of_day.tv_usec) % kMicrosecondsPerSecond);
  end = stpcpy(end, "] ");
  end = stpcpy(end, tag);
  end = stpcpy(end, ", LINE: ");
  end = write_number(end, line);
  end = stpcpy(end, ". ");
  fwrite(header, 1, static_cast<size_t>(end - header), stdout);
}
