// network_trial.h - tries a model's network before this process hands it to the network engine,
// which crashes on some networks and does not end on others.
// Read limited_child.h for the process that it is tried in.
#ifndef TOOLS_INSIDE_NETWORK_TRIAL_H
#define TOOLS_INSIDE_NETWORK_TRIAL_H

#include <string>

namespace olvex_tools {

// Loads the model file and runs a black frame and a gradient in a limited child process. Returns
// when the network did no harm, also when the model was refused in an orderly way: loading it here
// says why. Throws ToolError: kModelError when the engine crashed, took too long or too much memory,
// kInterrupted, kUsageError when OLVEX_DET_LIMITS, a factor of all limits, is no such number.
//   name  what messages call the model (the file that it is to become)
// Requires: this process has run no network yet, as the engine's threads do not survive a fork.
void require_harmless_network(const std::string& path, const std::string& name);

}  // namespace olvex_tools

#endif  // TOOLS_INSIDE_NETWORK_TRIAL_H
