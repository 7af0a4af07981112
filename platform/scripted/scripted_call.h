// SPDX-License-Identifier: Apache-2.0
// scripted_call.h - one QV_ call of the scripted accelerator in progress. scripted_setup.cpp and
// scripted_frames.cpp make one in each of their functions.
#ifndef PLATFORM_SCRIPTED_SCRIPTED_CALL_H
#define PLATFORM_SCRIPTED_SCRIPTED_CALL_H

#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "platform/scripted/scripted_state.h"

namespace qv_scripted {

// Holds the mutex from construction to destruction and leaves its event
// when it goes.
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

#endif  // PLATFORM_SCRIPTED_SCRIPTED_CALL_H
