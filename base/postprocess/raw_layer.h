// raw_layer.h - which raw layers can be decoded: for raw_decode.cpp, which logs why one cannot, and for
// raw_layer.cpp, which looks at the memory of those that can.
#ifndef BASE_POSTPROCESS_RAW_LAYER_H
#define BASE_POSTPROCESS_RAW_LAYER_H

#include "base/postprocess/det_postprocess.h"

// Whether the network's input is the same whole multiple of the layer, of at least one cell, both ways.
bool is_equal_multiple(int net_w, int net_h, int out_w, int out_h);

const int kKeyPointTriple = 3;  // x, y, visibility
const int kKeyPointPair = 2;    // x, y

// kKeyPointTriple or kKeyPointPair, whichever explains the channel count; 0 when neither does. Negative
// counts describe no cell, whatever the channels add up to.
int values_per_keypoint(const DetDecodeInfo& info, int channels);

#endif  // BASE_POSTPROCESS_RAW_LAYER_H
