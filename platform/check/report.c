// SPDX-License-Identifier: Apache-2.0
/* report.c - lines to standard output, and notes in memory that both processes share. */
#define _DEFAULT_SOURCE
#include "report.h"

#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/wait.h>

/* Texts are in the program itself, which both processes are copies of. */
struct notes {
  volatile unsigned proven;
  volatile unsigned findings;
  volatile unsigned not_proven;
  volatile enum fault fault;
  const char* volatile stage;
  const char* volatile call;
};

static struct notes* notes;

int report_start(void) {
  void* const memory =
      mmap(NULL, sizeof(struct notes), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    return -1;
  }
  notes = memory;
  notes->stage = "start";
  return 0;
}

static void print_line(const char* word, const char* format, va_list values) {
  printf("%-12s", word);
  vprintf(format, values);
  printf("\n");
}

void proven(const char* format, ...) {
  va_list values;
  va_start(values, format);
  print_line("proven", format, values);
  va_end(values);
  ++notes->proven;
}

void finding(enum fault fault, const char* format, ...) {
  va_list values;
  const struct fault_text* const text = &kFaultTexts[fault];
  printf("%-12s%s\n", "FINDING", text->name);
  va_start(values, format);
  print_line("  seen", format, values);
  va_end(values);
  printf("%-12s%s\n%-12s%s\n", "  library", text->library, "  remedy", text->remedy);
  ++notes->findings;
}

void not_proven(const char* format, ...) {
  va_list values;
  va_start(values, format);
  print_line("not proven", format, values);
  va_end(values);
  ++notes->not_proven;
}

void report_stage(enum fault fault, const char* stage) {
  notes->fault = fault;
  notes->stage = stage;
}

void report_call(const char* name) {
  notes->call = name;
}

unsigned report_findings(void) {
  return notes->findings;
}

int report_end(int wait_status) {
  if (WIFSIGNALED(wait_status)) {
    const int number = WTERMSIG(wait_status);
    const char* const call = notes->call != NULL ? notes->call : "no call";
    if (number == SIGALRM) {
      finding(FAULT_CALL_FAILS, "%s did not return for a minute; %s", call, notes->stage);
    } else {
      finding(notes->fault, "signal %d ended the process in %s; %s", number, call, notes->stage);
    }
    not_proven("what comes after that; put it right and run this again");
  } else if (WEXITSTATUS(wait_status) != 0) {
    finding(FAULT_CALL_FAILS, "the platform ended the process with exit code %d; %s",
            WEXITSTATUS(wait_status), notes->stage);
  }
  printf("%u proven, %u findings, %u not proven\n", notes->proven, notes->findings,
         notes->not_proven);
  return notes->findings == 0 ? 0 : 1;
}

void report_fault_table(void) {
  for (int k = 0; k < FAULT_COUNT; ++k) {
    printf("%s\n  library   %s\n  remedy    %s\n", kFaultTexts[k].name, kFaultTexts[k].library,
           kFaultTexts[k].remedy);
  }
}
