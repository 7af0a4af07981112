// SPDX-License-Identifier: Apache-2.0
// scripted_state.h - everything that the scripted accelerator remembers, behind one mutex, and a QV_ call in progress.
// scripted_state.cpp holds the control functions over it, scripted_setup.cpp and scripted_frames.cpp the QV_
// calls.
#ifndef PLATFORM_SCRIPTED_SCRIPTED_STATE_H
#define PLATFORM_SCRIPTED_SCRIPTED_STATE_H

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
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

// One QV_ call in progress: each of those functions makes one. Holds the mutex from construction to destruction and
// leaves its event when it goes.
class Call {
 public:
  explicit Call(Function function) : lock_(state().mutex) {
    event.function = function;
    injected_ = state().count_call(function);
  }
  Call(Function function, QV_U32 channel) : Call(function) { event.channel = channel; }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // The code of the fault that is set for the call; 0: none.
  QV_S32 injected() const { return injected_; }
  std::unique_lock<std::mutex>& lock() { return lock_; }

  QV_S32 end(QV_S32 result) {
    event.result = result;
    if (state().record_events) {
      state().events.push_back(std::move(event));
    }
    return result;
  }

  // Ends the call as one that the caller should not have made.
  QV_S32 refuse(const std::string& violation, QV_S32 code) {
    report(violation);
    return end(code);
  }

  void report(const std::string& violation) {
    state().report(std::string(function_name(event.function)) + ": " + violation);
  }
  void report_channel(const std::string& violation) { report(channel_name() + ": " + violation); }
  QV_S32 refuse_channel(const std::string& violation, QV_S32 code) {
    return refuse(channel_name() + ": " + violation, code);
  }

  // The call's channel, open and idle; else null, and the call has ended with *result.
  std::shared_ptr<Channel> channel(QV_S32* result) {
    const auto found = state().channels.find(event.channel);
    if (found != state().channels.end() && !found->second->busy) {
      return found->second;
    }
    if (!state().device_up) {
      *result = refuse("no device is up", kNoDevice);
    } else if (found != state().channels.end()) {
      *result = refuse_channel("another call on it is running", kOutOfOrder);
    } else if (event.channel >= kFirstChannel && event.channel < state().next_channel) {
      *result = refuse(channel_name() + " is closed", kNoChannel);
    } else {
      *result = refuse(channel_name() + " was never opened", kNoChannel);
    }
    return nullptr;
  }

  // The channel of a call about one record of the caller's, unless a fault is set or there is no record;
  // else null, and the call has ended with *result.
  std::shared_ptr<Channel> channel_with(const void* record, const char* missing, QV_S32* result) {
    if (injected_ != 0) {
      *result = end(injected_);
      return nullptr;
    }
    const std::shared_ptr<Channel> open = channel(result);
    if (open == nullptr || record != nullptr) {
      return open;
    }
    *result = refuse_channel(missing, kBadArgument);
    return nullptr;
  }

  Event event;

 private:
  std::string channel_name() const { return "channel " + std::to_string(event.channel); }

  std::unique_lock<std::mutex> lock_;
  QV_S32 injected_ = 0;
};

}  // namespace qv_scripted

#endif  // PLATFORM_SCRIPTED_SCRIPTED_STATE_H
