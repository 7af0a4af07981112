// SPDX-License-Identifier: Apache-2.0
/* check_values.c - the probe network's values: layout, padding, types, scales, zero points and activations. */
#include "checks.h"
#include "report.h"

static const void* data_of(const struct session* session, unsigned layer) {
  return session->channel.outputs.astArrayTensors[layer].ptTensorData[0];
}

static void report_geometry(unsigned layer, const struct reading* right,
                            const struct reading* found) {
  if (found->channel != right->channel) {
    finding(FAULT_LAYOUT, "output %u: channels are %zu bytes apart, one plane after the other",
            layer, found->channel);
  } else if (found->cell != right->cell) {
    finding(FAULT_PADDED, "output %u: cells of %zu bytes are %zu bytes apart", layer, right->cell,
            found->cell);
  } else if (found->row != right->row) {
    finding(FAULT_PADDED, "output %u: rows of %zu bytes are %zu bytes apart", layer, right->row,
            found->row);
  }
}

static void report_change(unsigned layer, const struct reading* found) {
  if (found->wraps) {
    finding(FAULT_WRAPS, "output %u: values beyond the ends of INT16 come out at the other end",
            layer);
  }
  if (found->activation != ACTIVATION_NONE) {
    finding(FAULT_ACTIVATION, "output %u: %s", layer,
            found->activation == ACTIVATION_SIGMOID ? "all values are in 0..1, as after a sigmoid"
                                                    : "no value is negative, as after a rectifier");
  }
  if (found->shift < 0 || found->shift > 0) {
    finding(FAULT_ZERO_POINT, "output %u: 0 comes out as %g", layer, (double)found->shift);
  }
  if (found->factor < 1 || found->factor > 1) {
    finding(FAULT_SCALE, "output %u: values are %g times the network's; fScalar is %g", layer,
            (double)found->factor, (double)found->scale);
  }
}

static void report_values(unsigned layer, const struct reading* right, const void* data) {
  const struct wrong_cell wrong = first_wrong_cell(layer, right, data);
  finding(
      FAULT_VALUES,
      "output %u: %u values differ, the first in row %u, column %u, channel %u: %g instead of %g",
      layer, wrong.count, wrong.row, wrong.column, wrong.channel, (double)wrong.seen,
      (double)wrong.expected);
}

static void check_layer(struct session* session, unsigned layer) {
  const QV_IPU_TensorDesc_t* const tensor =
      &session->channel.description.astQV_OutputTensorDescs[layer];
  const void* const data = data_of(session, layer);
  const struct reading right = library_reading(tensor, kProbeLayers[layer].columns);
  struct reading* const found = &session->readings[layer];
  session->is_read[layer] = find_reading(layer, tensor, data, found);
  if (!session->is_read[layer]) {
    report_values(layer, &right, data);
    return;
  }
  if (found->is_int16 != right.is_int16) {
    finding(FAULT_ELEMENT_TYPE, "output %u is described as %s and holds %s", layer,
            right.is_int16 ? "INT16" : "FP32", found->is_int16 ? "INT16" : "FP32");
    return;
  }
  report_geometry(layer, &right, found);
  report_change(layer, found);
}

void check_values(struct session* session) {
  const unsigned before = report_findings();
  report_stage(FAULT_BUFFER_SIZE, "the outputs are read over their size");
  for (unsigned layer = 0; layer < PROBE_LAYERS; ++layer) {
    check_layer(session, layer);
  }
  if (report_findings() == before) {
    proven(
        "outputs hold the network's values: channels innermost, without padding, zero point, "
        "activation");
  }
}
