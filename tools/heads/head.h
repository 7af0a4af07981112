// SPDX-License-Identifier: Apache-2.0
// head.h - where the boxes, scores and key points of a network stand in its outputs, how the numbers become
// boxes, and what carries it out: nodes of the network, or plain formulas. conclude_head.h fills a Head in.
#ifndef TOOLS_HEADS_HEAD_H
#define TOOLS_HEADS_HEAD_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/network/network_graph.h"

namespace olvex_tools {

// How the rows of an output, one for each candidate box, lie in memory.
enum class Arrangement {
  kRows,  // row after row, the values of a row side by side: 1 x N x C, 1 x A x H x W x C, 1 x H x W x C
  kColumns,  // 1 x C x N
  kPlanes  // 1 x (A x C) x H x W; the rows go cell by cell, the A anchors of a cell one after the other
};

// One output of the network, read as rows.
struct HeadTensor {
  std::string output;
  Arrangement arrangement = Arrangement::kRows;
  std::int64_t rows = 0;
  std::int64_t channels = 0;  // values of a row
  std::int64_t anchors = 1;   // kPlanes only: A
};

enum class Activation { kNone, kSigmoid, kSoftmax };

// A run of the values of each row. The rows are those of the tensors, one after the other. It is absent when
// it has no tensors.
struct HeadPart {
  std::vector<HeadTensor> tensors;
  std::int64_t first = 0;
  std::int64_t count = 0;
  Activation activation = Activation::kNone;  // yet to be applied

  bool present() const { return !tensors.empty(); }
};

// What the values of a row are relative to, in pixels of the input.
struct ReferenceBox {
  double x = 0;  // from here the centre, the sides and the key points are counted
  double y = 0;
  double step_x = 0;  // unit of their values
  double step_y = 0;
  double width = 0;  // unit of the size
  double height = 0;
};

enum class BoxCode {
  kCorners,     // x1 y1 x2 y2, final
  kCentreSize,  // cx cy w h, final
  kOffsets,   // centre: reference + curve(value) * step; size: curve(value) * size of the reference
  kDistances  // left, top, right and bottom side: value * step away from the reference
};

// v: the value, s: its sigmoid.
enum class CentreCurve {
  kIdentity,
  kSigmoid,
  kTanh,
  kTwice /* 2 v - 0.5 */,
  kTwiceSigmoid /* 2 s - 0.5 */
};
enum class SizeCurve {
  kExponential /* exp(variance v) */,
  kSigmoid,
  kSquare /* (2 v)^2 */,
  kSquareOfSigmoid
};
enum class ScoreCode {
  kPowers,  // objectness ^ objectness_power * class ^ class_power
  kClassId  // the objectness is the score, the class part holds the number of the class
};
enum class PointCode { kFinal, kOffsets /* reference + value * step */ };

struct Head {
  std::string family;

  HeadPart boxes;
  BoxCode box_code = BoxCode::kCorners;
  bool y_first = false;        // final boxes: y1, x1, y2, x2, or cy, cx, h, w
  bool box_fractions = false;  // final boxes and key points: fractions of the input, else pixels
  // kDistances: 1: the values as they are; more: each is the mean of a softmax over 0, 1, ...; 0: the
  // library's own, (4 sigmoid)^2, which is not appended.
  std::int64_t bins = 1;
  CentreCurve centre_curve = CentreCurve::kIdentity;
  SizeCurve size_curve = SizeCurve::kExponential;
  double size_variance = 1;
  std::vector<ReferenceBox> references;  // one for each row; none for final boxes

  HeadPart objectness;  // one value
  HeadPart classes;
  ScoreCode score_code = ScoreCode::kPowers;
  double objectness_power = 1;
  double class_power = 1;
  int background = -1;           // column of the scores that is no class, -1: none
  std::int64_t class_count = 0;  // columns of the scores, with the background

  HeadPart keypoints;
  PointCode point_code = PointCode::kFinal;
  int point_values = 2;                             // 2: x, y; 3: x, y, score
  Activation point_activation = Activation::kNone;  // of the score

  // Layers that the library decodes itself, in the order in which it gets them; nothing else counts then.
  std::vector<std::string> raw_layers;
  bool raw_nchw = true;
  std::string model_out;  // the word for them; empty: it goes by their channels

  std::int64_t rows() const {
    std::int64_t count = 0;
    for (const HeadTensor& tensor : boxes.tensors) {
      count += tensor.rows;
    }
    return count;
  }
};

// Boxes in input pixels, or in fractions where the head has them so.
inline bool has_centre_and_size(const Head& head) {
  return head.box_code == BoxCode::kCentreSize || head.box_code == BoxCode::kOffsets;
}

// ---- The decoding as nodes of standard operators (append_decoding.cpp) --------------------------

// The outputs of the network that now holds its decoding.
struct DecodedOutputs {
  std::string boxes;      // 1 x N x 4, in the order that has_centre_and_size tells
  std::string scores;     // 1 x N x class_count
  std::string keypoints;  // 1 x N x K; empty: none
};

// Makes boxes, scores and key points the only outputs. An output that holds them as they are stays as it is.
// Throws ToolError (kModelError) when the network's version of the operators is too old for the nodes.
// Requires: the head is of this network, and not raw.
DecodedOutputs append_decoding(const Head& head, NetworkGraph* network);

// ---- The decoding by the plain formulas, in double precision (plain_reading.cpp) ----------------

// Shares no arithmetic with append_decoding.cpp, so that each proves the other.

// What a network computed: the elements of its outputs by name.
using OutputValues = std::map<std::string, std::vector<float>>;

// Of one row.
struct PlainRow {
  std::vector<double> box;     // as the head has it: corners, or centre and size
  std::vector<double> scores;  // with the background
  std::vector<double> keypoints;
};

// One value of every row, as the network computes it.
std::vector<float> read_channel(const std::vector<HeadTensor>& tensors, std::int64_t channel,
                                const OutputValues& values);

// Requires: values holds every output that the head names, with as many elements as it says.
std::vector<PlainRow> read_plainly(const Head& head, const OutputValues& values);

// The score of a row's best class.
double best_score(const Head& head, const PlainRow& row);

}  // namespace olvex_tools

#endif  // TOOLS_HEADS_HEAD_H
