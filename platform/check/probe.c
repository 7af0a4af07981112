// SPDX-License-Identifier: Apache-2.0
/* probe.c - the values of the probe network. Readings are tried one after the other, the likely ones first. */
#include "probe.h"

#include <stdint.h>
#include <string.h>

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

/* ---- Readings ---- */

#define PRECISION \
  0.02f /* of a layer's largest value: what 8-bit arithmetic inside the accelerator leaves */
#define INT16_LOW (-32768.0f)
#define INT16_HIGH 32767.0f
#define LARGEST_INTEGER 1e15f /* that is cut to 16 bits */

struct geometry {
  size_t row_alignment; /* bytes; 1: dense */
  size_t cell_alignment;
  int has_planes;
};

static const struct geometry kGeometries[] = {
    {1, 1, 0},   {1, 1, 1},  {1, 4, 0},   {1, 8, 0},   {1, 16, 0},   {1, 32, 0},  {1, 64, 0},
    {1, 128, 0}, {16, 1, 0}, {32, 1, 0},  {64, 1, 0},  {128, 1, 0},  {256, 1, 0}, {16, 1, 1},
    {32, 1, 1},  {64, 1, 1}, {128, 1, 1}, {64, 16, 0}, {128, 32, 0}, {1, 256, 0}};

static size_t align(size_t size, size_t alignment) {
  return (size + alignment - 1) / alignment * alignment;
}

static size_t element_size(int is_int16) {
  return is_int16 ? sizeof(int16_t) : sizeof(float);
}

static float absolute(float value) {
  return value < 0 ? -value : value;
}

static struct reading with_geometry(const struct reading* plain, unsigned rows, unsigned columns,
                                    const struct geometry* geometry) {
  struct reading reading = *plain;
  const size_t element = element_size(plain->is_int16);
  if (geometry->has_planes) {
    reading.cell = element;
    reading.row = align(columns * element, geometry->row_alignment);
    reading.channel = reading.row * rows;
  } else {
    reading.channel = element;
    reading.cell = align(PROBE_CHANNELS * element, geometry->cell_alignment);
    reading.row = align(columns * reading.cell, geometry->row_alignment);
  }
  return reading;
}

struct reading library_reading(const QV_IPU_TensorDesc_t* tensor, unsigned columns) {
  struct reading plain;
  memset(&plain, 0, sizeof plain);
  plain.is_int16 = tensor->eElmFormat == QV_IPU_FORMAT_INT16;
  /* Integers by themselves, where there is no scale to go by. */
  plain.scale = plain.is_int16 && !(tensor->fScalar > 0) ? 1 : tensor->fScalar;
  plain.factor = 1;
  return with_geometry(&plain, 1, columns, &kGeometries[0]);
}

float read_value(const struct reading* reading, const void* data, unsigned row, unsigned column,
                 unsigned channel) {
  const unsigned char* const at = (const unsigned char*)data + row * reading->row +
                                  column * reading->cell + channel * reading->channel;
  if (reading->is_int16) {
    int16_t value = 0;
    memcpy(&value, at, sizeof value);
    return (float)value * reading->scale;
  }
  float value = 0;
  memcpy(&value, at, sizeof value);
  return value;
}

static float activated(enum activation activation, float value) {
  if (activation == ACTIVATION_SIGMOID) {
    /* The probe's values are 0, or far enough from it. */
    return value == 0 ? 0.5f : value < 0 ? 0.0f : 1.0f;
  }
  return activation == ACTIVATION_NOT_NEGATIVE && value < 0 ? 0.0f : value;
}

/* What a reading shows where the network computes value. */
static float expected_value(const struct reading* reading, float value) {
  const float shown = activated(reading->activation, value) * reading->factor + reading->shift;
  if (!reading->is_int16) {
    return shown;
  }
  const float steps = shown / reading->scale;
  if (reading->wraps && absolute(steps) < LARGEST_INTEGER) {
    const int64_t whole = (int64_t)(steps < 0 ? steps - 0.5f : steps + 0.5f) & 0xffff;
    return (float)(whole > INT16_MAX ? whole - 0x10000 : whole) * reading->scale;
  }
  return (steps < INT16_LOW ? INT16_LOW : steps > INT16_HIGH ? INT16_HIGH : steps) * reading->scale;
}

static float tolerance_of(unsigned layer, const struct reading* reading) {
  float largest = reading->activation == ACTIVATION_SIGMOID ? 1.0f : kProbeLayers[layer].largest;
  largest *= absolute(reading->factor);
  if (!reading->is_int16) {
    return PRECISION * largest;
  }
  const float end = INT16_HIGH * reading->scale;
  return PRECISION * (largest < end ? largest : end) + reading->scale;
}

/* Whether a value is close to what is expected; NaN is not. */
static int is_close(float seen, float expected, float tolerance) {
  return absolute(seen - expected) <= tolerance;
}

struct wrong_cell first_wrong_cell(unsigned layer, const struct reading* reading,
                                   const void* data) {
  struct wrong_cell wrong;
  const float tolerance = tolerance_of(layer, reading);
  memset(&wrong, 0, sizeof wrong);
  for (unsigned row = 0; row < kProbeLayers[layer].rows; ++row) {
    for (unsigned column = 0; column < kProbeLayers[layer].columns; ++column) {
      for (unsigned channel = 0; channel < PROBE_CHANNELS; ++channel) {
        float value = 0;
        if (!probe_value(layer, row, column, channel, &value)) {
          continue;
        }
        const float expected = expected_value(reading, value);
        const float seen = read_value(reading, data, row, column, channel);
        if (is_close(seen, expected, tolerance)) {
          continue;
        }
        if (wrong.count++ == 0) {
          wrong.row = row;
          wrong.column = column;
          wrong.channel = channel;
          wrong.seen = seen;
          wrong.expected = expected;
        }
      }
    }
  }
  return wrong;
}

/* Cheap for readings that are wrong from the start. */
static int matches(unsigned layer, const struct reading* reading, const void* data) {
  const float tolerance = tolerance_of(layer, reading);
  for (unsigned channel = 0; channel < PROBE_CHANNELS; ++channel) {
    float value = 0;
    if (probe_value(layer, 0, 0, channel, &value) &&
        !is_close(read_value(reading, data, 0, 0, channel), expected_value(reading, value),
                  tolerance)) {
      return 0;
    }
  }
  return first_wrong_cell(layer, reading, data).count == 0;
}

/* Sets shift or factor by two cells of the layer that no integer saturates at. */
static void learn(unsigned layer, const void* data, struct reading* shifted,
                  struct reading* scaled) {
  /* Channels of the first cell with a zero, and with the largest value that is not shown by the input. */
  static const unsigned kZero[PROBE_LAYERS] = {4, 3, 4};
  static const unsigned kLarge[PROBE_LAYERS] = {8, 8, 5};
  float large = 1;
  probe_value(layer, 0, 0, kLarge[layer], &large);
  shifted->shift = read_value(shifted, data, 0, 0, kZero[layer]);
  scaled->factor = read_value(scaled, data, 0, 0, kLarge[layer]) / large;
}

/* Tries what could have been done to the values, with one geometry and type. */
static int find_change(unsigned layer, const void* data, const struct reading* plain,
                       struct reading* found) {
  enum { PLAIN, WRAPPED, SIGMOID, NOT_NEGATIVE, SHIFTED, SCALED, CHANGES };
  struct reading changed[CHANGES];
  for (int k = 0; k < CHANGES; ++k) {
    changed[k] = *plain;
  }
  changed[WRAPPED].wraps = 1;
  changed[SIGMOID].activation = ACTIVATION_SIGMOID;
  changed[NOT_NEGATIVE].activation = ACTIVATION_NOT_NEGATIVE;
  learn(layer, data, &changed[SHIFTED], &changed[SCALED]);
  for (int k = 0; k < CHANGES; ++k) {
    if (matches(layer, &changed[k], data)) {
      *found = changed[k];
      return 1;
    }
  }
  return 0;
}

static size_t bytes_needed(unsigned layer, const struct reading* reading) {
  return (kProbeLayers[layer].rows - 1) * reading->row +
         (kProbeLayers[layer].columns - 1) * reading->cell +
         (PROBE_CHANNELS - 1) * reading->channel + element_size(reading->is_int16);
}

int find_reading(unsigned layer, const QV_IPU_TensorDesc_t* tensor, const void* data,
                 struct reading* found) {
  const size_t aligned = tensor->s32AlignedBufSize > 0 ? (size_t)tensor->s32AlignedBufSize : 0;
  const size_t size = tensor->u32BufSize > aligned ? tensor->u32BufSize : aligned;
  struct reading plain = library_reading(tensor, kProbeLayers[layer].columns);
  for (int type = 0; type < 2; ++type) {
    for (size_t k = 0; k < sizeof kGeometries / sizeof kGeometries[0]; ++k) {
      const struct reading reading = with_geometry(&plain, kProbeLayers[layer].rows,
                                                   kProbeLayers[layer].columns, &kGeometries[k]);
      if (bytes_needed(layer, &reading) <= size && find_change(layer, data, &reading, found)) {
        return 1;
      }
    }
    plain.is_int16 = !plain.is_int16;
    plain.scale = plain.is_int16 && !(plain.scale > 0) ? 1 : plain.scale;
  }
  return 0;
}
