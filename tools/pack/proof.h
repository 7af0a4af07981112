// proof.h - shows that a packed network decodes as it should: against a plain reading of the network's own
// outputs, with and without the engine's fusion, and by what boxes and scores must look like.
#ifndef TOOLS_PACK_PROOF_H
#define TOOLS_PACK_PROOF_H

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "platform/host/host_image.h"

#include "tools/pack/network_preparation.h"

namespace olvex_tools {

struct ProofPicture {
  std::string name;
  cv::Mat picture;  // 8-bit BGR
};

struct ProofResult {
  bool fusion = true;               // it changes nothing
  std::vector<std::string> shown;   // what was found right, one line each
  std::vector<std::string> notes;   // what is probably not as meant
  std::vector<std::string> faults;  // what is wrong; the proof failed when there is one
};

// Requires: prepared has a head; the network has been tried and does no harm.
ProofResult prove(const PreparedNetwork& prepared, const qv_host::Description& description,
                  const std::vector<ProofPicture>& pictures);

// Of outputs that the options describe: whether fusion changes them, and as notes what is not plausible.
// Requires: the network has been tried and does no harm.
ProofResult try_described_outputs(const PreparedNetwork& prepared,
                                  const qv_host::Description& description,
                                  const std::vector<ProofPicture>& pictures);

}  // namespace olvex_tools

#endif  // TOOLS_PACK_PROOF_H
