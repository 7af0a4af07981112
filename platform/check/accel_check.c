// SPDX-License-Identifier: Apache-2.0
/* accel_check.c - the program: proves call by call that a platform supplies what the detection library relies on.
 *
 * C99, libc alone, for the maker of a platform: one line compiles it for the camera, with platform/include or the
 * chip maker's own headers. docs/platform.md is its manual. report.h is how it speaks, checks.h what it checks. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "checks.h"
#include "report.h"
#include "watched_calls.h"

#define USAGE_ERROR 2
#define USUAL_CYCLES 10000u

static const char kHelp[] =
    "Usage: accel-check [OPTIONS] IMAGE\n"
    "Proves, call by call, that the platform it is linked with supplies what libolvex_det relies "
    "on.\n"
    "\n"
    "  IMAGE             the probe network (platform/check/probe.onnx), compiled for the platform "
    "with\n"
    "                    mean 0 and scale 1\n"
    "  --other-model     IMAGE is another model: values, layout, colours and pitches stay "
    "unproven\n"
    "  --second IMAGE    another model for the second one of two channels (usually the same)\n"
    "  --cycles N        channels to open and close, 0 to 1000000, usually 10000\n"
    "  --firmware PATH   for QV_IPU_CreateDevice\n"
    "  --faults          list what can be found, what the library does with it, and the remedy\n"
    "  --help            this text\n"
    "\n"
    "Each line is proven, a FINDING or not proven. Exit code: 0 nothing found, 1 findings, 2 "
    "usage.\n";

static int usage_error(const char* what, const char* word) {
  fprintf(stderr, "accel-check: %s%s; see accel-check --help\n", what, word);
  return USAGE_ERROR;
}

static void check_channel(struct session* session) {
  report_stage(FAULT_MODEL_KEPT, "the model was unmapped after QV_IPU_CreateCHN");
  if (open_channel(session->path, &session->channel) != 0) {
    not_proven("all that needs a channel");
    return;
  }
  const int is_readable = check_description(session);
  check_lending(session);
  if (is_readable && check_first_invocation(session)) {
    if (session->is_probe) {
      check_values(session);
    } else {
      not_proven("values, layout, scale, zero point and activation: not the probe network");
    }
    check_frames(session);
    check_two_channels(session);
  } else {
    not_proven("values and frames: the outputs cannot be looked at");
  }
  check_teardown(session);
  check_cycles(session);
}

static void check_all(struct session* session) {
  if (check_model(session) && check_device(session)) {
    check_refused_models(session);
    check_channel(session);
  }
  check_reads();
  check_codes();
  print_times();
}

/* In a process of its own, which the platform may end. */
static int run_checks(struct session* session) {
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    check_all(session);
    alarm(0);
    fflush(stdout);
    _exit(0);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) {
    perror("accel-check: no process for the checks");
    return 1;
  }
  return report_end(status);
}

/* Returns 0 where it is no whole number within the bounds. */
static int parse_cycles(const char* text, unsigned* cycles) {
  char* end = NULL;
  const unsigned long value = strtoul(text, &end, 10);
  *cycles = (unsigned)value;
  return *text >= '0' && *text <= '9' && *end == 0 && value <= 1000000;
}

/* Returns -1 where the program goes on, else its exit code. */
static int parse_options(int count, char** words, struct session* session) {
  for (int k = 1; k < count; ++k) {
    char* const word = words[k];
    const int has_value = strcmp(word, "--cycles") == 0 || strcmp(word, "--firmware") == 0 ||
                          strcmp(word, "--second") == 0;
    if (has_value && k + 1 == count) {
      return usage_error("no value for ", word);
    }
    if (strcmp(word, "--help") == 0) {
      fputs(kHelp, stdout);
      return 0;
    } else if (strcmp(word, "--faults") == 0) {
      report_fault_table();
      return 0;
    } else if (strcmp(word, "--other-model") == 0) {
      session->is_probe = 0;
    } else if (strcmp(word, "--cycles") == 0) {
      if (!parse_cycles(words[++k], &session->cycles)) {
        return usage_error("--cycles takes a number of 0 to 1000000, not ", words[k]);
      }
    } else if (strcmp(word, "--firmware") == 0) {
      session->firmware = words[++k];
    } else if (strcmp(word, "--second") == 0) {
      session->second_path = words[++k];
    } else if (word[0] == '-') {
      return usage_error("unknown option ", word);
    } else if (session->path != NULL) {
      return usage_error("more than one image: ", word);
    } else {
      session->path = word;
    }
  }
  return session->path != NULL ? -1 : usage_error("no image", "");
}

/* Returns 0 where the file is no model; why is said. */
static int show_model(const char* path) {
  struct model_image image;
  const char* const fault = map_model(path, &image);
  if (fault != NULL) {
    fprintf(stderr, "accel-check: %s: %s\n", path, fault);
    return 0;
  }
  printf("accel-check: %s, a model of %zu bytes\n", path, image.size);
  unmap_model(&image);
  return 1;
}

int main(int count, char** words) {
  /* Two channel descriptions are more than a small stack holds. */
  static struct session session;
  static char usual_firmware[] = "/config/dla/ipu_firmware.bin";
  session.firmware = usual_firmware;
  session.cycles = USUAL_CYCLES;
  session.is_probe = 1;
  const int code = parse_options(count, words, &session);
  if (code >= 0) {
    return code;
  }
  if (session.second_path == NULL) {
    session.second_path = session.path;
  }
  if (!show_model(session.path) ||
      (session.second_path != session.path && !show_model(session.second_path))) {
    return USAGE_ERROR;
  }
  if (report_start() != 0) {
    perror("accel-check: no memory for notes");
    return USAGE_ERROR;
  }
  setvbuf(stdout, NULL, _IOLBF, BUFSIZ);
  return run_checks(&session);
}
