// SPDX-License-Identifier: Apache-2.0
/* report.h - what was proven and found, one line each, and the notes of the running process that outlive it.
 *
 * The checks run in a process of their own. The one that started it says what a crash or an endless call means. */
#ifndef PLATFORM_CHECK_REPORT_H
#define PLATFORM_CHECK_REPORT_H

#include "faults.h"

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
