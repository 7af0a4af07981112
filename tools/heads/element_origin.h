// element_origin.h - from which element of which value one element of an output was moved to its place: the way
// back through what only moves elements or computes each by itself.
#ifndef TOOLS_HEADS_ELEMENT_ORIGIN_H
#define TOOLS_HEADS_ELEMENT_ORIGIN_H

#include <cstdint>
#include <string>

#include "tools/network/network_graph.h"

namespace olvex_tools {

struct ElementOrigin {
  std::string value;
  Shape shape;             // of value; empty when it is not known
  std::int64_t place = 0;  // of the element in the memory of value
};

// Stops at the first node that is none of these.
ElementOrigin origin_of(const NetworkGraph& network, const std::string& value, std::int64_t place);

}  // namespace olvex_tools

#endif  // TOOLS_HEADS_ELEMENT_ORIGIN_H
