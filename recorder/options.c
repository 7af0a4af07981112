// SPDX-License-Identifier: Apache-2.0
/* options.c - one row per number; everything else by itself. */
#include "recorder/options.h"

#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#define PREFIX "OLVEX_RECORDER_"
#define MOST_PIXELS 65535u
#define MEMBER(name) offsetof(struct recorder_options, name)

const char* const kept_variables[] = {PREFIX "FILE",
                                      PREFIX "MODE",
                                      PREFIX "RING_MB",
                                      PREFIX "BEFORE_S",
                                      PREFIX "AFTER_S",
                                      PREFIX "FILE_MB",
                                      PREFIX "FILES",
                                      PREFIX "FLOOR",
                                      PREFIX "WHOLE",
                                      PREFIX "SIGNAL",
                                      PREFIX "TRIGGER_FILE",
                                      PREFIX "ON_ERROR",
                                      PREFIX "MANY_BOXES",
                                      PREFIX "NO_BOXES",
                                      PREFIX "LATENCY_MS",
                                      PREFIX "PICTURES",
                                      PREFIX "PICTURES_AFTER",
                                      PREFIX "PICTURES_GREY",
                                      PREFIX "PICTURES_CROP",
                                      PREFIX "INPUT_CRC",
                                      PREFIX "MODEL_HASH",
                                      PREFIX "ANNOTATIONS",
                                      "ALGO_DEBUG",
                                      "QK_ALGO_S",
                                      "TZ",
                                      "GLIBC_TUNABLES",
                                      NULL};

struct number_option {
  const char* name;
  size_t member;
  uint32_t low;
  uint32_t high;
  uint32_t usual;
};

static const struct number_option kNumbers[] = {
    {PREFIX "RING_MB", MEMBER(ring_mb), 2, 8, 4},
    {PREFIX "BEFORE_S", MEMBER(before_s), 0, 86400, 60},
    {PREFIX "AFTER_S", MEMBER(after_s), 0, 86400, 20},
    {PREFIX "FILE_MB", MEMBER(file_mb), 1, 4000, 64},
    {PREFIX "FILES", MEMBER(files), 1, 100, 4},
    {PREFIX "WHOLE", MEMBER(whole_every), 0, 1000000, 0},
    {PREFIX "NO_BOXES", MEMBER(none_frames), 1, 1000000, 0},
    {PREFIX "LATENCY_MS", MEMBER(latency_ms), 1, 1000000, 0},
    {PREFIX "PICTURES", MEMBER(picture_every), 0, 1000000, 0},
    {PREFIX "PICTURES_AFTER", MEMBER(picture_after), 0, 1000000, 0},
    {PREFIX "PICTURES_GREY", MEMBER(picture_grey), 0, 1, 0},
    {PREFIX "INPUT_CRC", MEMBER(input_crc), 0, 1, 0},
    {PREFIX "MODEL_HASH", MEMBER(model_hash), 0, 1, 1},
    {PREFIX "ANNOTATIONS", MEMBER(annotations), 0, 1, 1},
};

const char* environment_value(const char* name) {
  return secure_getenv(name);
}

/* A whole number up to stop, which follows it. Returns 0 when there is none within the bounds. */
static int parse_number(const char* text, char stop, uint32_t low, uint32_t high, uint32_t* number,
                        const char** rest) {
  char* end = NULL;
  const unsigned long value = strtoul(text, &end, 10);
  if (*text < '0' || *text > '9' || *end != stop || value < low || value > high) {
    return 0;
  }
  *number = (uint32_t)value;
  *rest = end;
  return 1;
}

static const char* read_numbers(struct recorder_options* options) {
  for (size_t k = 0; k < sizeof kNumbers / sizeof kNumbers[0]; ++k) {
    const struct number_option* const option = &kNumbers[k];
    uint32_t* const member = (uint32_t*)(void*)((char*)options + option->member);
    const char* const text = environment_value(option->name);
    const char* rest = NULL;
    *member = option->usual;
    if (text != NULL && !parse_number(text, 0, option->low, option->high, member, &rest)) {
      return option->name;
    }
  }
  /* The ring's size is a power of two. */
  return (options->ring_mb & (options->ring_mb - 1)) == 0 ? NULL : PREFIX "RING_MB";
}

static int copy_text(char* to, size_t size, const char* text) {
  const size_t length = strlen(text);
  if (length == 0 || length >= size) {
    return 0;
  }
  memcpy(to, text, length + 1);
  return 1;
}

static int read_file(struct recorder_options* options, const char* text) {
  uint32_t number = 0;
  const char* rest = NULL;
  options->descriptor = -1;
  if (text == NULL) {
    return 0;
  }
  if (strncmp(text, "fd:", 3) == 0) {
    if (!parse_number(text + 3, 0, 0, 1000000, &number, &rest)) {
      return 0;
    }
    options->descriptor = (int)number;
    return 1;
  }
  return copy_text(options->file, sizeof options->file, text);
}

/* The C library would read it by the application's locale. */
static int parse_decimal(const char* text, float* number) {
  double value = 0.0;
  double unit = 1.0;
  int has_point = 0;
  for (; *text != 0; ++text) {
    if (*text == '.' && !has_point) {
      has_point = 1;
    } else if (*text >= '0' && *text <= '9') {
      value = 10.0 * value + (*text - '0');
      unit *= has_point ? 10.0 : 1.0;
    } else {
      return 0;
    }
  }
  *number = (float)(value / unit);
  return 1;
}

static int read_floor(struct recorder_options* options, const char* text) {
  options->floor = 0.05f;
  return text == NULL ||
         (parse_decimal(text, &options->floor) && options->floor > 0.0f && options->floor <= 0.5f);
}

/* After these a handler that returns runs into the same instruction again. */
static int is_fault(int number) {
  return number == SIGSEGV || number == SIGBUS || number == SIGILL || number == SIGFPE ||
         number == SIGTRAP || number == SIGABRT || number == SIGSYS;
}

static int read_signal(struct recorder_options* options, const char* text) {
  uint32_t number = 0;
  const char* rest = NULL;
  if (text == NULL) {
    return 1;
  }
  if (strcmp(text, "USR1") == 0 || strcmp(text, "USR2") == 0) {
    options->signal = text[3] == '1' ? SIGUSR1 : SIGUSR2;
    return 1;
  }
  if (!parse_number(text, 0, 1, 64, &number, &rest)) {
    return 0;
  }
  options->signal = (int)number;
  return !is_fault(options->signal);
}

static int read_on_error(struct recorder_options* options, const char* text) {
  char* end = NULL;
  if (text == NULL) {
    return 1;
  }
  if (strcmp(text, "any") == 0) {
    options->on_error = 2;
    return 1;
  }
  options->on_error = 1;
  const long long code = strtoll(text, &end, 0);
  options->on_error_code = (int32_t)(uint32_t)code;
  return end != text && *end == 0 && code >= INT32_MIN && code <= (long long)UINT32_MAX;
}

static int read_many_boxes(struct recorder_options* options, const char* text) {
  const char* rest = NULL;
  return text == NULL || (parse_number(text, ',', 0, 200, &options->many_boxes, &rest) &&
                          parse_number(rest + 1, 0, 1, 1000000, &options->many_frames, &rest));
}

static int read_crop(struct recorder_options* options, const char* text) {
  struct picture_area* const area = &options->picture_crop;
  const char* rest = NULL;
  return text == NULL || (parse_number(text, ',', 0, MOST_PIXELS, &area->x, &rest) &&
                          parse_number(rest + 1, ',', 0, MOST_PIXELS, &area->y, &rest) &&
                          parse_number(rest + 1, ',', 1, MOST_PIXELS, &area->width, &rest) &&
                          parse_number(rest + 1, 0, 1, MOST_PIXELS, &area->height, &rest));
}

static int read_mode(struct recorder_options* options, const char* text) {
  options->always = text != NULL && strcmp(text, "always") == 0;
  return text == NULL || options->always || strcmp(text, "trigger") == 0;
}

static int read_trigger_file(struct recorder_options* options, const char* text) {
  return text == NULL || copy_text(options->trigger_file, sizeof options->trigger_file, text);
}

const char* read_options(struct recorder_options* options) {
  static const struct {
    const char* name;
    int (*read)(struct recorder_options* options, const char* text);
  } kTexts[] = {{PREFIX "FILE", read_file},
                {PREFIX "MODE", read_mode},
                {PREFIX "FLOOR", read_floor},
                {PREFIX "SIGNAL", read_signal},
                {PREFIX "TRIGGER_FILE", read_trigger_file},
                {PREFIX "ON_ERROR", read_on_error},
                {PREFIX "MANY_BOXES", read_many_boxes},
                {PREFIX "PICTURES_CROP", read_crop}};
  memset(options, 0, sizeof *options);
  for (size_t k = 0; k < sizeof kTexts / sizeof kTexts[0]; ++k) {
    if (!kTexts[k].read(options, environment_value(kTexts[k].name))) {
      return kTexts[k].name;
    }
  }
  return read_numbers(options);
}
