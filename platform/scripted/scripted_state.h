// SPDX-License-Identifier: Apache-2.0
// scripted_state.h - everything that the scripted accelerator remembers, behind one mutex.
// scripted_state.cpp holds the control functions over it, scripted_setup.cpp and scripted_frames.cpp the QV_
// calls.
#ifndef PLATFORM_SCRIPTED_SCRIPTED_STATE_H
#define PLATFORM_SCRIPTED_SCRIPTED_STATE_H

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/scripted/guarded_buffer.h"
#include "platform/scripted/qv_scripted.h"

namespace qv_scripted {

// One set of output buffers, as GetOutputTensors hands out.
struct OutputSet {
  std::vector<std::unique_ptr<GuardedBuffer>> buffers;
  bool out = false;
  const Frame* shown = nullptr;  // the frame that the buffers hold; null: none
};

struct Channel {
  QV_U32 id = 0;
  Network network;
  std::size_t next_frame = 0;
  QV_U32 output_depth = 0;
  std::vector<OutputSet> sets;  // made when first needed, never more than output_depth
  bool busy = false;            // an invocation is running
};

struct Fault {
  bool overall = false;  // counts the calls of all functions
  Function function = Function::kCreateDevice;
  int call = 0;  // the one to fail, from 1
  QV_S32 code = 0;
};

// The last cache flush of one thread.
struct Flush {
  const void* address = nullptr;
  QV_U32 size = 0;
  bool pending = false;  // no invocation has followed yet
  int resets = 0;        // resets before it; a flush from before the last one counts no more
};

struct State {
  std::mutex mutex;
  bool device_up = false;
  std::vector<Network> networks;
  std::size_t next_network = 0;
  QV_U32 next_channel = kFirstChannel;
  std::map<QV_U32, std::shared_ptr<Channel>> channels;  // the open ones
  std::vector<Fault> faults;
  std::array<int, kFunctionCount> counts = {};
  int count = 0;
  bool record_events = true;
  std::vector<Event> events;
  std::vector<std::string> violations;
  int resets = 0;

  // The network of the next channel; null: none was added.
  const Network* upcoming_network() const;
  void take_network();
  void report(const std::string& violation) { violations.push_back(violation); }
  void check_guards(Channel& channel);
  void close_channel(QV_U32 id);
  // Counts a call. Returns the code with which it is to fail, 0: it is not.
  QV_S32 count_call(Function function);
};

State& state();

}  // namespace qv_scripted

#endif  // PLATFORM_SCRIPTED_SCRIPTED_STATE_H
