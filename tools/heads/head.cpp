// head.cpp - what follows from the parts of a head.
#include "tools/heads/head.h"

namespace olvex_tools {

std::int64_t Head::rows() const {
  std::int64_t count = 0;
  for (const HeadTensor& tensor : boxes.tensors) {
    count += tensor.rows;
  }
  return count;
}

bool has_centre_and_size(const Head& head) {
  return head.box_code == BoxCode::kCentreSize || head.box_code == BoxCode::kOffsets;
}

}  // namespace olvex_tools
