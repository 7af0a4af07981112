// SPDX-License-Identifier: Apache-2.0
// det_postprocess.h - from output tensors to boxes, and operations on boxes: the public header of this
// folder.
//
//   activations.cpp   fast_exp and softmax_
//   box_sort.cpp      boxes by descending score; score_order.cpp finds the order
//   suppression.cpp   non-maximum suppression; kept_boxes.cpp compares the boxes
//   raw_decode.cpp    raw output layers, decoded on the CPU; cell_candidates.cpp finds their cells
//   raw_layer.cpp     which raw layers can be decoded and read
//   ipu_decode.cpp    box lists that the accelerator has already decoded; ipu_layout.cpp has the layout
//                     of their tensors
//   stable_box.cpp    OLVEX_StableBox
//   double_check.cpp  the double check of tracks against other classes
//
// Overlap is measured differently in each place, on purpose: nms and nms_sorted_bboxes count pixels
// inclusively (x2 - x1 + 1), OLVEX_StableBox does not, the tracker (iout.h) has a class switch, the
// double check divides by the confirming box's area, and iou_ratio (det_schedule.h) works on
// truncated integers. They are not to be unified.
#ifndef BASE_POSTPROCESS_DET_POSTPROCESS_H
#define BASE_POSTPROCESS_DET_POSTPROCESS_H

#include <math.h>

#include "qv_ipu.h"

#include "utils/olvex_stl/simplestl.h"
#include "utils/records/det_records.h"

class OlvexIouTracker;

// ---- Box operations -----------------------------------------------------------------------------

// Sorts the elements from index left to index right, both inclusive, by descending score: Hoare's
// partition (C. A. R. Hoare, "Quicksort", The Computer Journal 5, 1962) around the middle element.
// Not stable: the order that it gives among equal scores decides which box survives suppression.
void qsort_descent_inplace(olvex::vector<BoxInfo>& boxes, int left, int right);
// Sorts the whole vector; an empty one stays as it is.
void qsort_descent_inplace(olvex::vector<BoxInfo>& boxes);

// e^x within a few per cent, by writing a scaled x into a float's exponent (N. N. Schraudolph, "A
// Fast, Compact Approximation of the Exponential Function", Neural Computation 11, 1999).
float fast_exp(float x);

// 1 / (1 + e^-x), in single precision.
inline float sigmoid(float x) {
  return 1.0f / (expf(-x) + 1.0f);
}

// dst[k] = e^src[k] / sum over length values. The largest value is not taken off first: a value
// above about 88 overflows and yields NaN. src and dst must be distinct or the same buffer.
void softmax_(const float* src, float* dst, int length);

// Sorts, then erases every box that overlaps a better one by NMS_THRESH or more (greedy non-maximum
// suppression). With class_specific non-zero, boxes of different labels have overlap 0.
void nms(olvex::vector<BoxInfo>& input_boxes, float NMS_THRESH, unsigned char class_specific);

// The same suppression as indices: sorts bboxes and fills picked with the indices kept. Decides
// like nms for boxes without NaN corners.
void nms_sorted_bboxes(olvex::vector<BoxInfo>& bboxes, olvex::vector<int>& picked,
                       float nms_threshold, unsigned char class_specific);

// ---- Decoding -----------------------------------------------------------------------------------
//
// The lists are sized before they are filled: when memory runs out on the way, the boxes that were
// to be appended may be blank.

// What is known of one output tensor's memory. Elements are of the type that the decoders read.
struct OutputMemory {
  size_t
      rows;  // rows of a list: width times height, which counts as 1 where the shape leaves it out
  size_t elements;  // of the whole shape
  size_t
      readable;  // elements that may be read: as many as the platform says that the buffer holds, those
                 // of the shape where it does not say, none at a null address
};

// Decode parameters of one frame. Owns nothing: the caller keeps the arrays for the call.
struct DetDecodeInfo {
  void** data;                       // start of each output tensor
  float* scalar;                     // per tensor: real value of 1; read for INT16 only
  QV_IPU_ELEMENT_FORMAT out_format;  // element type of all outputs: FP32 or INT16
  int net_in_w;                      // network input, pixels
  int net_in_h;
  int* net_out_w;  // per tensor: width, height and channels
  int* net_out_h;
  int* net_out_c;  // at least four entries for accelerator-decoded outputs
  int num_out_layers;
  int num_classes;             // class logits per cell; -1: not known
  float conf_threshold;        // score that a box needs, 0..1
  float nms_threshold;         // overlap from which nms erases
  int reg_max;                 // bins per box side; 1: a single value
  int num_keypoints;           // key points per box
  QV_BOOL class_specific_nms;  // non-zero: suppression among boxes of one label only
  const OutputMemory* memory;  // per tensor; NULL: not known, every read is trusted

  DetDecodeInfo()
      : data(NULL),
        scalar(NULL),
        out_format(QV_IPU_FORMAT_UNKNOWN),
        net_in_w(0),
        net_in_h(0),
        net_out_w(NULL),
        net_out_h(NULL),
        net_out_c(NULL),
        num_out_layers(0),
        num_classes(-1),
        conf_threshold(0.0f),
        nms_threshold(0.0f),
        reg_max(1),
        num_keypoints(0),
        class_specific_nms(1),
        memory(NULL) {}
};

// Decodes one raw layer and appends its boxes, in network-input pixels, to out.
//
// A layer is net_out_h x net_out_w cells, row by row, of net_out_c values each: 4 x reg_max box
// distances (left, top, right, bottom), num_classes logits, and num_keypoints triples (x, y,
// visibility) or pairs (x, y). With reg_max above 1 a distance is the mean of a distribution over
// the bins (X. Li et al., "Generalized Focal Loss", NeurIPS 2020).
//
// Returns E_ALGO_SUCCESS; E_ALGO_INVALID_PARAM for a layer that does not exist or an element type
// other than FP32 and INT16; E_ALGO_INVALID_OUTPUT_SIZE when the input size is no equal multiple of
// the layer's, the channels do not fit, a count is negative or there are no bins. Each failure is logged.
int det_decode_one_layer(DetDecodeInfo& info, int layer, olvex::vector<BoxInfo>& out);

// Decodes all layers in order and appends their boxes to out, which is sized once. A layer that
// fails contributes nothing.
void det_decode_layers(DetDecodeInfo& info, olvex::vector<BoxInfo>& out);

// Whether each layer that can be decoded has the memory that its shape asks for.
bool raw_layers_are_readable(const DetDecodeInfo& info);

// Clears out, decodes all layers into it and suppresses.
void det_postprocess(DetDecodeInfo& info, olvex::vector<BoxInfo>& out);

// Clears boxes and fills it from tensors that the accelerator has decoded, then suppresses among
// boxes of one label. Sets info.num_classes to -1 and info.num_keypoints to what the tensors hold.
//
// Of the count, no more is followed than the index tensor has elements. An index outside the rows of a
// tensor is passed over. A box row has four values whatever the tensor's channels are: with fewer, they
// reach into the next row, and beyond the last one read as 0.
//
// Returns E_ALGO_SUCCESS; E_ALGO_INVALID_DECODE_MODE for an element type other than FP32 and INT16;
// E_ALGO_INVALID_OUTPUT_SIZE when the tensors match no layout, or when a row, an index or the count lies
// beyond the end of its buffer. Each failure is logged.
int ipu_decode(DetDecodeInfo& info, olvex::vector<BoxInfo>& boxes);
// The two it chooses from; they append to boxes and do not suppress.
int ipu_decode_fp32(DetDecodeInfo& info, olvex::vector<BoxInfo>& boxes);
int ipu_decode_int16(DetDecodeInfo& info, olvex::vector<BoxInfo>& boxes);

// ---- Refinement ---------------------------------------------------------------------------------

// Confirms tracks of the target class by this frame's boxes of other classes: sets double_check and
// pass_double_check on the tracker's finished and live tracks.
//
//   boxes, count  this frame's detections, before tracking
//   tracker       NULL is logged and ends the call
//   params        classes and thresholds
void do_double_check(BoxInfo* boxes, int count, OlvexIouTracker* tracker,
                     const DetDoubleCheckParams_t& params);

// A self-contained stabiliser: holds a box's corners at the previous call's while the two overlap by
// more than 0.63. One instance serves one stream. The detection handle has another one, which
// replaces whole boxes at a sensitivity of the caller's choice.
class OLVEX_StableBox {
 public:
  // Returns the boxes, held where they overlap enough, and remembers them for the next call.
  olvex::vector<BoxInfo> stable_box(olvex::vector<BoxInfo> boxes);

  olvex::vector<BoxInfo> cache_box;  // what the previous call returned
};

#endif  // BASE_POSTPROCESS_DET_POSTPROCESS_H
