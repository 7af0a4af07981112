// network_preparation.h - from the network's file to the network that goes into the image: made static, its
// head concluded, the decoding appended, fitted to the engine.
#ifndef TOOLS_PACK_NETWORK_PREPARATION_H
#define TOOLS_PACK_NETWORK_PREPARATION_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "tools/heads/append_decoding.h"
#include "tools/heads/conclude_head.h"
#include "tools/network/network_graph.h"
#include "tools/pack/pack.h"

namespace olvex_tools {

// A head that was concluded, and what proves its decoding.
struct ConcludedHead {
  HeadReading reading;
  std::string command;               // that says the same
  std::vector<char> uncut;           // the network with its own outputs
  std::vector<std::string> outputs;  // their names
};

struct PreparedNetwork {
  NetworkGraph graph;  // as the engine gets it
  std::vector<char> bytes;
  std::vector<char> portable;              // for --save-network
  std::vector<std::string> rewrites;       // one line for each kind
  std::vector<std::string> notes;          // what is probably not as meant
  std::optional<ConcludedHead> head;       // when nothing was said about the outputs
  PackOptions options;                     // with what was concluded filled in
  Selection selection = Selection::kNone;  // that was cut off
};

// Reads the network, makes it static, and, where the options say nothing about its outputs, concludes the
// head and appends the decoding. Throws ToolError: kModelError when the network cannot be packed, kUsageError
// when an option does not fit it or two heads do.
//   start    the size in it, where there is one, is that of an input that the network leaves open
//   picture  whose outputs are looked at; called when they are
// Requires: this process has run no network yet.
PreparedNetwork prepare_network(const PackOptions& options, const qv_host::Description& start,
                                const std::function<cv::Mat()>& picture);

// Fits it to the engine. Afterwards its graph is for looking only.
void finish_network(PreparedNetwork* prepared);

}  // namespace olvex_tools

#endif  // TOOLS_PACK_NETWORK_PREPARATION_H
