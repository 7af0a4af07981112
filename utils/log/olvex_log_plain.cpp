// SPDX-License-Identifier: Apache-2.0
// olvex_log_plain.cpp - a log line as it is defined: by localtime and printf.
#include "utils/log/olvex_log.h"

#include <stdarg.h>

void olvex_log_header(OlvexLogClock& clock, const char* tag, int line) {
  gettimeofday(&clock.time_of_day, NULL);
  const time_t seconds = time(NULL);
  clock.calendar = localtime(&seconds);
  const struct tm& calendar = *clock.calendar;
  printf("[%d-%02d-%02d %02d:%02d:%02d %.04f] %s, LINE: %d. ", calendar.tm_year + 1900,
         calendar.tm_mon + 1, calendar.tm_mday, calendar.tm_hour, calendar.tm_min, calendar.tm_sec,
         static_cast<double>(clock.time_of_day.tv_usec) / 1000.0, tag, line);
}

// NOLINTNEXTLINE(cert-dcl50-cpp): the compiler checks the arguments, as it does printf's
void olvex_log_message(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vprintf(format, arguments);  // NOLINT(clang-analyzer-valist.Uninitialized): va_start is above
  va_end(arguments);
}
