// SPDX-License-Identifier: Apache-2.0
/* probe.h - what the network in probe.onnx computes: three layers of equal channels, over the frame, half and a
 * sixth of it. probe_network.py writes the network. */
#ifndef PLATFORM_CHECK_PROBE_H
#define PLATFORM_CHECK_PROBE_H

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

#endif /* PLATFORM_CHECK_PROBE_H */
