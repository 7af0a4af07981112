// preprocessing_trial.h - whether a network sees more with another mean, scale or order of colours.
#ifndef TOOLS_PACK_PREPROCESSING_TRIAL_H
#define TOOLS_PACK_PREPROCESSING_TRIAL_H

#include <vector>

#include "tools/heads/head.h"
#include "tools/inside/engine_run.h"
#include "tools/pack/proof.h"

namespace olvex_tools {

constexpr double kSure = .5;  // a score from which on a row counts as a box

// Adds to the faults what cannot be right, and to the notes with what the network is sure of more rows.
//   network  with outputs that the head describes
void try_preprocessing(const Head& head, const qv_host::InputDescription& input,
                       const std::vector<ProofPicture>& pictures, EngineRun* network,
                       ProofResult* result);

}  // namespace olvex_tools

#endif  // TOOLS_PACK_PREPROCESSING_TRIAL_H
