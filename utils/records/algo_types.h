// SPDX-License-Identifier: Apache-2.0
/* algo_types.h - what the public interface and the library's sources share: error codes and the
 * stabiliser's options.
 *
 * C99 and C++11. Installed next to olvex_det.h, which is the manual of the public interface. */
#ifndef ALGO_TYPES_H
#define ALGO_TYPES_H

#include "olvex_layout.h"
#include "qv_types.h"

/* Results of every public function, returned as QV_S32. A failing call of the chip's interface is
 * passed on with the platform's own code, which may be any other value. */
typedef enum E_ALGO_ERRORCODE_E {
  E_ALGO_SUCCESS = 0,
  E_ALGO_HANDLE_NULL = 1,        /* the handle is NULL, where the function checks it */
  E_ALGO_INVALID_PARAM = 2,      /* an argument or a combination of options is not valid */
  E_ALGO_DEVICE_FAULT = 3,       /* the model could not be initialised on the accelerator */
  E_ALGO_LOADMODEL_FAIL = 4,     /* the model has a single output; inside: it could not be loaded */
  E_ALGO_INIT_FAIL = 5,          /* reserved for initialisation faults */
  E_ALGO_NOT_INIT = 6,           /* the handle is not initialised */
  E_ALGO_INPUT_DATA_NULL = 7,    /* the init record or the frame is NULL */
  E_ALGO_INVALID_INPUT_SIZE = 8, /* reserved for input-size faults */
  /* Deliberate: 9 is not assigned, so that 10 to 13 keep the values that applications know. */
  E_ALGO_MEMORY_OUT = 10,          /* reserved for allocation faults */
  E_ALGO_FILEIO_ERROR = 11,        /* a frame dump could not be written */
  E_ALGO_INVALID_OUTPUT_SIZE = 12, /* the output tensors have a shape that no decoder takes */
  E_ALGO_INVALID_DECODE_MODE = 13  /* accelerator-decoded outputs of an unknown element type */
} E_ALGO_ERRORCODE_E;

/* Options of box stabilisation: a new box that overlaps a box of the previous frame's output by
 * more than the sensitivity is replaced by that box. */
typedef struct DetStableBboxParams_t {
  QV_BOOL stable_bbox;       /* 1: on. Default 0 */
  QV_FLOAT stable_sensitive; /* overlap ratio above which the old box stays; 0..1. Default 0.63 */
#ifdef __cplusplus
  DetStableBboxParams_t() : stable_bbox(0), stable_sensitive(0.63f) {}
#endif
} DetStableBboxParams_t;

OLVEX_LAYOUT_ASSERT(sizeof(E_ALGO_ERRORCODE_E) == 4, "E_ALGO_ERRORCODE_E");
OLVEX_LAYOUT_ASSERT(offsetof(DetStableBboxParams_t, stable_sensitive) == 4, "stable_sensitive");
OLVEX_LAYOUT_ASSERT(sizeof(DetStableBboxParams_t) == 8, "DetStableBboxParams_t");

#endif /* ALGO_TYPES_H */
