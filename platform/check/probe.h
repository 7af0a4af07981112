// SPDX-License-Identifier: Apache-2.0
/* probe.h - what the network in probe.onnx computes, three layers of equal channels, over the frame, half and a
 * sixth of it, and the ways in which a layer could lie in its buffer. probe_network.py writes the network. */
#ifndef PLATFORM_CHECK_PROBE_H
#define PLATFORM_CHECK_PROBE_H

#include <stddef.h>

#include "qv_ipu.h"

#define PROBE_WIDTH 42  /* no multiple of 16, for planes nor for 4-byte pixels */
#define PROBE_HEIGHT 18 /* even, and no multiple of 4 */
#define PROBE_LAYERS 3
#define PROBE_CHANNELS 11
#define PROBE_PLANES 3 /* the first channels of layer 0 are the input: red, green, blue */

struct probe_layer {
  unsigned rows;
  unsigned columns;
  float largest; /* absolute value */
};

extern const struct probe_layer kProbeLayers[PROBE_LAYERS];

/* Returns 0 for the channels that show the input. */
int probe_value(unsigned layer, unsigned row, unsigned column, unsigned channel, float* value);

/* ---- Readings: ways in which a layer could lie in its buffer ---- */

enum activation { ACTIVATION_NONE, ACTIVATION_SIGMOID, ACTIVATION_NOT_NEGATIVE };

struct reading {
  int is_int16; /* else FP32 */
  float scale;  /* real value of 1 */
  size_t row;   /* bytes from row to row */
  size_t cell;
  size_t channel;
  enum activation activation;
  float shift;  /* real value that stands for 0 */
  float factor; /* real value that stands for 1 */
  int wraps;    /* integers are cut to 16 bits instead of saturated */
};

/* The reading that the detection library makes of a tensor. */
struct reading library_reading(const QV_IPU_TensorDesc_t* tensor, unsigned columns);

float read_value(const struct reading* reading, const void* data, unsigned row, unsigned column,
                 unsigned channel);

/* Looks for a reading that gives the values of a layer, the library's first. Returns 0 when none does. */
int find_reading(unsigned layer, const QV_IPU_TensorDesc_t* tensor, const void* data,
                 struct reading* found);

/* A cell of the library's reading that has another value. */
struct wrong_cell {
  unsigned row;
  unsigned column;
  unsigned channel;
  float seen;
  float expected;
  unsigned count; /* how many there are */
};
struct wrong_cell first_wrong_cell(unsigned layer, const struct reading* reading, const void* data);

#endif /* PLATFORM_CHECK_PROBE_H */
