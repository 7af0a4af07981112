// described_head.cpp - rows of boxes, scores and key points as the description names them.
#include "tools/pack/described_head.h"

#include <string>

namespace olvex_tools {

namespace {

// All values of the rows of an output; no part when their number is not known.
HeadPart part_of(const std::string& output, const NetworkGraph& network) {
  HeadPart part;
  for (const NetworkTensor& tensor : network.outputs()) {
    if (tensor.name == output && elements_of(tensor.shape) > 0) {
      part.count = tensor.shape.back();
      part.tensors = {
          {output, Arrangement::kRows, elements_of(tensor.shape) / part.count, part.count, 1}};
    }
  }
  return part;
}

}  // namespace

Head described_head(const qv_host::Description& description, const NetworkGraph& network) {
  const qv_host::DecodedOutput& decoded = description.decoded;
  Head head;
  if (description.kind != qv_host::OutputKind::kDecoded) {
    return head;
  }
  head.boxes = part_of(decoded.boxes, network);
  head.classes = part_of(decoded.scores, network);
  if (!head.boxes.present() || !head.classes.present() || head.boxes.count != 4 ||
      head.boxes.tensors[0].rows != head.classes.tensors[0].rows) {
    return {};
  }
  const bool corners = decoded.box_order == qv_host::BoxOrder::kCornerPairs;
  head.box_code = corners ? BoxCode::kCorners : BoxCode::kCentreSize;
  head.box_fractions = decoded.box_fractions;
  head.background = decoded.background;
  head.class_count = head.classes.count;
  return head;
}

}  // namespace olvex_tools
