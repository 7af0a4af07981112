// SPDX-License-Identifier: Apache-2.0
// network_trial.h - tries a model's network before this process hands it to the network engine,
// which crashes on some networks and does not end on others.
// Used before a model is opened for the first time.
#ifndef TOOLS_INSIDE_NETWORK_TRIAL_H
#define TOOLS_INSIDE_NETWORK_TRIAL_H

#include <cstddef>
#include <functional>
#include <string>

namespace olvex_tools {

// Runs what reads and rewrites a network in a limited child process first, as the library for its records
// crashes on some damaged ones. bytes: size of the network. Returns when the work did no harm, also when
// it threw: doing it here says why. Throws ToolError as require_harmless_network does.
// Requires: as there.
void require_harmless_reading(const std::string& name, std::size_t bytes,
                              const std::function<void()>& work);

// Loads the model file and runs a black frame and a gradient in a limited child process. Returns
// when the network did no harm, also when the model was refused in an orderly way: loading it here
// says why. Throws ToolError: kModelError when the engine crashed, took too long or too much memory,
// kInterrupted, kUsageError when OLVEX_DET_LIMITS, a factor of all limits, is no such number.
//   name  what messages call the model (the file that it is to become)
// Does nothing on a foreign platform. Requires: this process has run no network yet, as the engine's threads do not survive a fork.
void require_harmless_network(const std::string& path, const std::string& name);

// The same for other work with a network of so many bytes, which throws what it likes.
void require_harmless_work(const std::string& name, std::size_t bytes,
                           const std::function<void()>& work);

}  // namespace olvex_tools

#endif  // TOOLS_INSIDE_NETWORK_TRIAL_H
