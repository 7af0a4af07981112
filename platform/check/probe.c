// SPDX-License-Identifier: Apache-2.0
/* probe.c - the values of the probe network. */
#include "probe.h"

const struct probe_layer kProbeLayers[PROBE_LAYERS] = {
    {18, 42, 255.0f}, {9, 21, 240.0f}, {3, 7, 100000.0f}};

/* The last two channels of each layer rise with the row and with the column. */
static const float kRowSteps[PROBE_LAYERS] = {13, 26, 20000};
static const float kColumnSteps[PROBE_LAYERS] = {6, 12, 12000};

int probe_value(unsigned layer, unsigned row, unsigned column, unsigned channel, float* value) {
  static const float kConstants[PROBE_CHANNELS - 2] = {0, 0, 0, -120, 0, 40, 80, 160, 240};
  const float k = (float)channel;
  if (channel == PROBE_CHANNELS - 2) {
    *value = kRowSteps[layer] * (float)row;
  } else if (channel == PROBE_CHANNELS - 1) {
    *value = kColumnSteps[layer] * (float)column;
  } else if (layer == 0) {
    *value = kConstants[channel];
  } else {
    /* Those of the last layer are more than 16 bits hold at any scale that is fine enough for the others. */
    *value = layer == 1 ? 25 * k - 75 : 25000 * k - 100000;
  }
  return layer != 0 || channel >= PROBE_PLANES;
}
