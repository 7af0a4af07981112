// SPDX-License-Identifier: Apache-2.0
// olvex_log.h - the log lines of a library that prints none, for measuring what the log costs. It
// stands in for utils/log/olvex_log.h, which documents the macros.
//
// A line is compiled and never reached: its arguments count as used and its format is checked.
#ifndef BENCH_WITHOUT_LOG_UTILS_LOG_OLVEX_LOG_H
#define BENCH_WITHOUT_LOG_UTILS_LOG_OLVEX_LOG_H

#include <stdio.h>
#include <sys/time.h>
#include <time.h>

struct OlvexLogClock {
  struct timeval time_of_day;
  struct tm* calendar;
};

// A declaration, so that the semicolon after it ends something.
#define OLVEX_LOG_CLOCK struct OlvexLogClock

#define OLVEX_LOG_NOTHING(...) \
  do {                         \
    if (false) {               \
      printf(__VA_ARGS__);     \
    }                          \
  } while (0)

#define OLVEX_LOG_TEXT(clock, tag, text) OLVEX_LOG_NOTHING("%s%s", tag, text)
#define OLVEX_LOG_FORMAT(clock, tag, format, ...) \
  do {                                            \
    (void)(clock);                                \
    OLVEX_LOG_NOTHING(format, __VA_ARGS__);       \
  } while (0)

#define OLVEX_TAG_ERROR ""
#define OLVEX_TAG_INFO ""
#define OLVEX_TAG_DEBUG ""

#define OLVEX_ERROR(text) OLVEX_LOG_NOTHING("%s", text)
#define OLVEX_INFO(text) OLVEX_LOG_NOTHING("%s", text)
#define OLVEX_DEBUG(text) OLVEX_LOG_NOTHING("%s", text)

#define OLVEX_ERROR_FORMAT(format, ...) OLVEX_LOG_NOTHING(format, __VA_ARGS__)
#define OLVEX_INFO_FORMAT(format, ...) OLVEX_LOG_NOTHING(format, __VA_ARGS__)
#define OLVEX_DEBUG_FORMAT(format, ...) OLVEX_LOG_NOTHING(format, __VA_ARGS__)

#endif  // BENCH_WITHOUT_LOG_UTILS_LOG_OLVEX_LOG_H
