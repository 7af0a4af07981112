// SPDX-License-Identifier: Apache-2.0
// recorded_platform.h - what the platform answered in a recording, as qv_replay takes it, and the model file that
// the library reads in its place.
#ifndef TOOLS_REPLAY_RECORDED_PLATFORM_H
#define TOOLS_REPLAY_RECORDED_PLATFORM_H

#include <cstdint>
#include <string>
#include <vector>

#include "platform/replay/qv_replay.h"
#include "tools/recordings/recording.h"

namespace olvex_tools {

// The functions throw ToolError (kInputError) for a recording that contradicts itself.

// The calls that a call of the application made, in order.
std::vector<qv_replay::Call> platform_calls_of(const Recording& recording,
                                               const RecordedCall& call);
// network: of the frame's channel; null when none is known.
std::vector<qv_replay::Call> platform_calls_of(const Recording& recording,
                                               const RecordedFrame& frame,
                                               const RecordedNetwork* network);
// Those of a frame in which the network finds nothing.
std::vector<qv_replay::Call> calls_of_empty_frame(const RecordedNetwork& network,
                                                  std::uint32_t buf_size);

// The network that an initialisation described; null when it described none.
const RecordedNetwork* network_of(const Recording& recording, const RecordedCall& call);

// The model of an initialisation: its key/value pairs, and the start pattern where the library found one. In
// memory, with no name in the file system but path(). Without a model in the recording path() leads nowhere.
class ModelFile {
 public:
  ModelFile(const Recording& recording, const RecordedCall& call);
  ~ModelFile();
  ModelFile(const ModelFile&) = delete;
  ModelFile& operator=(const ModelFile&) = delete;

  const std::string& path() const { return path_; }

 private:
  int descriptor_ = -1;
  std::string path_;
};

// Whether the initialisation asked the platform about the model.
bool had_model(const Recording& recording, const RecordedCall& call);

}  // namespace olvex_tools

#endif  // TOOLS_REPLAY_RECORDED_PLATFORM_H
