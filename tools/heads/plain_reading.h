// plain_reading.h - decodes the outputs of a network by the plain formulas, in double precision. It shares
// no arithmetic with append_decoding.cpp, so that each proves the other.
#ifndef TOOLS_HEADS_PLAIN_READING_H
#define TOOLS_HEADS_PLAIN_READING_H

#include <map>
#include <string>
#include <vector>

#include "tools/heads/head.h"

namespace olvex_tools {

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

#endif  // TOOLS_HEADS_PLAIN_READING_H
