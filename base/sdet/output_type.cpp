// SPDX-License-Identifier: Apache-2.0
// output_type.cpp - what a model outputs: classes and key points by its word or its channels, and which
// decoder its tensors need. model_words.h has the words.
#include "base/sdet/sdet_model.h"

#include <string.h>

#include "utils/log/olvex_log.h"
#include "utils/records/algo_types.h"
#include "base/sdet/model_words.h"

OLVEX_LOG_CLOCK;

namespace {

struct ChannelGuess {
  int channels;
  int num_classes;
  int num_keypoints;
};

// Deliberate: no entry for 9 channels; such a model has to name its type.
const ChannelGuess kChannelGuesses[] = {
    {5, 1, 0},  {6, 2, 0},   {7, 3, 0},  {8, 4, 0},  {10, 6, 0},  {11, 7, 0},  {12, 8, 0},
    {13, 1, 4}, {14, 10, 0}, {15, 1, 5}, {20, 1, 5}, {56, 1, 17}, {68, 1, 21},
};

// Value of the first pair with that key; "" when there is none.
const char* first_value(const olvex::vector<ModelKeyValue_t>& kvs, const char* key) {
  for (size_t k = 0; k < kvs.size(); ++k) {
    if (strcmp(kvs[k].key, key) == 0) {
      return kvs[k].value;
    }
  }
  return "";
}

// A tensor's shape is unsigned; the decoders' records are not.
unsigned long channel_count(int channels) {
  return static_cast<unsigned int>(channels);
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is fixed
int set_det_class_keypoint(olvex::vector<ModelKeyValue_t> kvs, int& num_classes,
                           int& num_keypoints) {
  const char* name = first_value(kvs, kModelOutKey);
  if (name[0] == 0) {
    OLVEX_DEBUG("empty model_out type");
    return E_ALGO_INVALID_PARAM;
  }
  const ModelWord* const word = find_model_word(name);
  if (word != NULL) {
    num_classes = word->num_classes;
    num_keypoints = word->num_keypoints;
    return E_ALGO_SUCCESS;
  }
  OLVEX_DEBUG_FORMAT("unknown model_out type %s\n", name);
  return E_ALGO_INVALID_PARAM;
}

int det_class_keypoint_guess(int channels, int& num_classes, int& num_keypoints) {
  for (const ChannelGuess& guess : kChannelGuesses) {
    if (guess.channels == channels) {
      num_classes = guess.num_classes;
      num_keypoints = guess.num_keypoints;
      return E_ALGO_SUCCESS;
    }
  }
  return E_ALGO_INVALID_OUTPUT_SIZE;
}

OutputDecoder choose_output_decoder(const DetDecodeInfo& info) {
  const int n = info.num_out_layers;
  const int* w = info.net_out_w;
  const int* h = info.net_out_h;
  const int* c = info.net_out_c;
  if ((n == 4 && w[0] == w[1] && w[0] == h[2]) ||
      (n == 5 && w[0] == w[1] && w[0] == w[2] && w[0] == h[3])) {
    OLVEX_DEBUG("decode in ipu");
    return kDecoderIpu;
  }
  if (n == 3) {
    OLVEX_DEBUG("decode in cpu");
    if (c[0] == c[1] && c[0] == c[2]) {
      return kDecoderCpu;
    }
    OLVEX_DEBUG_FORMAT(
        "channels of out layers should be the same, however %lu(layer%d), %lu(layer%d), "
        "%lu(layer%d)\n",
        channel_count(c[0]), 0, channel_count(c[1]), 1, channel_count(c[2]), 2);
  }
  return kDecoderNone;
}
