// SPDX-License-Identifier: Apache-2.0
/* options.h - the settings of the recorder, from environment variables. docs/recordings.md lists them. */
#ifndef RECORDER_OPTIONS_H
#define RECORDER_OPTIONS_H

#include <stdint.h>

struct picture_area {
  uint32_t x; /* pixels */
  uint32_t y;
  uint32_t width;
  uint32_t height;
};

struct recorder_options {
  char file[240];    /* path, or path of a FIFO; "" with a descriptor */
  int descriptor;    /* -1: none was given */
  uint32_t always;   /* 1: everything is written */
  uint32_t ring_mb;  /* 2, 4 or 8 */
  uint32_t before_s; /* seconds before a trigger */
  uint32_t after_s;  /* and after */
  uint32_t file_mb;
  uint32_t files;
  float floor;            /* score */
  uint32_t whole_every;   /* frames; 0: none */
  int signal;             /* 0: none */
  char trigger_file[240]; /* "": none */
  int on_error;           /* 1: on_error_code counts; 2: every code but 0 */
  int32_t on_error_code;
  uint32_t many_boxes;    /* more than these */
  uint32_t many_frames;   /* in so many frames in a row; 0: no trigger */
  uint32_t none_frames;   /* frames without a box in a row; 0: no trigger */
  uint32_t latency_ms;    /* 0: no trigger */
  uint32_t picture_every; /* frames; 0: none */
  uint32_t picture_after; /* the same, once a trigger has come */
  uint32_t picture_grey;
  struct picture_area picture_crop; /* without width: all */
  uint32_t input_crc;
  uint32_t model_hash;
  uint32_t annotations;
};

/* Returns NULL, or the name of the variable that cannot be understood; OLVEX_RECORDER_FILE also when it is
 * missing. */
const char* read_options(struct recorder_options* options);

/* Variables that a recording keeps, ended by NULL. */
extern const char* const kept_variables[];

/* NULL in a process with raised rights, whose environment is not its own. */
const char* environment_value(const char* name);

#endif /* RECORDER_OPTIONS_H */
