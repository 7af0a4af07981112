// SPDX-License-Identifier: Apache-2.0
// olvex_log_plain.cpp - the header of a log line as it is defined: by localtime and printf.
#include "utils/log/olvex_log.h"

void olvex_log_header(OlvexLogClock& clock, const char* tag, int line) {
  gettimeofday(&clock.time_of_day, NULL);
  const time_t seconds = time(NULL);
  clock.calendar = localtime(&seconds);
  const struct tm& calendar = *clock.calendar;
  printf("[%d-%02d-%02d %02d:%02d:%02d %.04f] %s, LINE: %d. ", calendar.tm_year + 1900,
         calendar.tm_mon + 1, calendar.tm_mday, calendar.tm_hour, calendar.tm_min, calendar.tm_sec,
         static_cast<double>(clock.time_of_day.tv_usec) / 1000.0, tag, line);
}
