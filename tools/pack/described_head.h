// described_head.h - the head that a description of decoded outputs amounts to.
#ifndef TOOLS_PACK_DESCRIBED_HEAD_H
#define TOOLS_PACK_DESCRIBED_HEAD_H

#include "platform/host/host_image.h"

#include "tools/heads/head.h"
#include "tools/network/network_graph.h"

namespace olvex_tools {

// Without any part for raw layers, and for outputs of sizes that the network leaves open.
Head described_head(const qv_host::Description& description, const NetworkGraph& network);

}  // namespace olvex_tools

#endif  // TOOLS_PACK_DESCRIBED_HEAD_H
