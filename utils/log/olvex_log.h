// SPDX-License-Identifier: Apache-2.0
// olvex_log.h - the library's log lines on standard output.
//
// A line is a header "[2024-03-07 14:05:09 42.0000] DLA_INFO:, LINE: 17. " and the message. A
// source that logs writes OLVEX_LOG_CLOCK; once at file level, and then
//
//   OLVEX_INFO("a text");                      the text and a newline
//   OLVEX_INFO_FORMAT("count %d\n", count);    a format with its own newline and its arguments
//
// and the same with ERROR and DEBUG. The FORMAT macros do not compile without an argument. A
// function with its own clock names it: OLVEX_LOG_FORMAT(clock, OLVEX_TAG_INFO, "%d\n",
// count).
//
// Lines are printed whatever the level: LOG_LEVEL (utils/debug/debug.cpp) gates the dump's line
// only.
#ifndef UTILS_LOG_OLVEX_LOG_H
#define UTILS_LOG_OLVEX_LOG_H

#include <stdio.h>
#include <sys/time.h>
#include <time.h>

// The clock readings of one source file's log lines, and the text of the calendar fields, which is
// made when the second changes.
//
// Deliberate: a file-level static without a lock, and localtime's shared buffer. Two threads that
// log in the same moment may print each other's time, and the calendar fields of one for the rest
// of that second; the log is diagnostic only, and a lock around it would couple handles that are
// otherwise independent. A change of the time zone shows from the next second on.
struct OlvexLogClock {
  struct timeval time_of_day;
  struct tm* calendar;
  time_t second;           // that calendar_text shows
  size_t calendar_length;  // of calendar_text
  char calendar_text[48];  // "[2024-03-07 14:05:09 "; empty at first
};

#define OLVEX_LOG_CLOCK static OlvexLogClock olvex_log_clock

// The header of one line and the message behind it, each with one call of stdio. olvex_log_plain.cpp
// says what they print; olvex_log.cpp prints the same faster and ships.

// The fraction comes from gettimeofday and the calendar fields from time, two readings one after the
// other.
void olvex_log_header(OlvexLogClock& clock, const char* tag, int line);

// Like printf. Requires: a format of less than OLVEX_LOG_LONGEST_FORMAT bytes.
#define OLVEX_LOG_LONGEST_FORMAT 192
__attribute__((format(printf, 1, 2))) void olvex_log_message(const char* format, ...);

#define OLVEX_LOG_TEXT(clock, tag, text)      \
  do {                                        \
    olvex_log_header((clock), tag, __LINE__); \
    puts(text);                               \
  } while (0)

#define OLVEX_LOG_FORMAT(clock, tag, format, ...)             \
  do {                                                        \
    static_assert(sizeof(format) <= OLVEX_LOG_LONGEST_FORMAT, \
                  "the message's buffer has its size");       \
    olvex_log_header((clock), tag, __LINE__);                 \
    olvex_log_message(format, __VA_ARGS__);                   \
  } while (0)

#define OLVEX_TAG_ERROR "DLA_ERROR:"
#define OLVEX_TAG_INFO "DLA_INFO:"
#define OLVEX_TAG_DEBUG "DLA_DEBUG:"

#define OLVEX_ERROR(text) OLVEX_LOG_TEXT(olvex_log_clock, OLVEX_TAG_ERROR, text)
#define OLVEX_INFO(text) OLVEX_LOG_TEXT(olvex_log_clock, OLVEX_TAG_INFO, text)
#define OLVEX_DEBUG(text) OLVEX_LOG_TEXT(olvex_log_clock, OLVEX_TAG_DEBUG, text)

#define OLVEX_ERROR_FORMAT(format, ...) \
  OLVEX_LOG_FORMAT(olvex_log_clock, OLVEX_TAG_ERROR, format, __VA_ARGS__)
#define OLVEX_INFO_FORMAT(format, ...) \
  OLVEX_LOG_FORMAT(olvex_log_clock, OLVEX_TAG_INFO, format, __VA_ARGS__)
#define OLVEX_DEBUG_FORMAT(format, ...) \
  OLVEX_LOG_FORMAT(olvex_log_clock, OLVEX_TAG_DEBUG, format, __VA_ARGS__)

#endif  // UTILS_LOG_OLVEX_LOG_H
