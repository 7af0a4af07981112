// SPDX-License-Identifier: Apache-2.0
/* report.h - what was proven and found, one line each, and the notes of the running process that outlive it; and what can be
 * wrong with a platform.
 *
 * The checks run in a process of their own. The one that started it says what a crash or an endless call means. */
#ifndef PLATFORM_CHECK_REPORT_H
#define PLATFORM_CHECK_REPORT_H

/* What can be wrong with a platform. kFaultTexts says of each what the library does with it, and the remedy. */
enum fault {
  FAULT_CALL_FAILS,
  FAULT_SMALL_CODE,
  FAULT_NOT_REFUSED,
  FAULT_SECOND_DEVICE,
  FAULT_STATIC_INFO,
  FAULT_READS_OUTSIDE,
  FAULT_CONTEXT,
  FAULT_MODEL_KEPT,
  FAULT_DESCRIPTION,
  FAULT_OTHER_MODEL,
  FAULT_LAYOUT,
  FAULT_PADDED,
  FAULT_BUFFER_SIZE,
  FAULT_ELEMENT_TYPE,
  FAULT_MIXED_TYPES,
  FAULT_SCALE,
  FAULT_ZERO_POINT,
  FAULT_ACTIVATION,
  FAULT_WRAPS,
  FAULT_VALUES,
  FAULT_ALIGNMENT,
  FAULT_LENDING,
  FAULT_OTHER_ADDRESS,
  FAULT_INCOMPLETE,
  FAULT_LATE,
  FAULT_CACHED_OUTPUT,
  FAULT_NOT_REPEATABLE,
  FAULT_STALE_INPUT,
  FAULT_FLUSH,
  FAULT_READS_BEYOND_FRAME,
  FAULT_INPUT_VALUES,
  FAULT_INPUT_PITCH,
  FAULT_COLOUR_ORDER,
  FAULT_SECOND_PLANE,
  FAULT_CHANNELS_MIX,
  FAULT_TEARDOWN,
  FAULT_GROWTH,
  FAULT_COUNT
};

struct fault_text {
  const char* name;
  const char* library; /* what the library does with it */
  const char* remedy;
};

extern const struct fault_text kFaultTexts[FAULT_COUNT];

#if defined(__GNUC__)
#define PRINTF_LIKE(text, values) __attribute__((format(printf, text, values)))
#else
#define PRINTF_LIKE(text, values)
#endif

/* Returns 0, or -1 when there is no memory that two processes share. */
int report_start(void);

void proven(const char* format, ...) PRINTF_LIKE(1, 2);
/* format: what was seen. */
void finding(enum fault fault, const char* format, ...) PRINTF_LIKE(2, 3);
void not_proven(const char* format, ...) PRINTF_LIKE(1, 2);

/* Until the next call of it: what is being done, and which fault a crash of the platform would be. */
void report_stage(enum fault fault, const char* stage);
/* The call that is running; NULL: none. */
void report_call(const char* name);

/* How many findings there are; for a check that has several parts. */
unsigned report_findings(void);

/* For the process that waits: a finding when the other one was ended by a signal, the sums, and the exit code. */
int report_end(int wait_status);

/* The table of faults. */
void report_fault_table(void);

#endif /* PLATFORM_CHECK_REPORT_H */
