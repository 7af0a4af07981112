// SPDX-License-Identifier: Apache-2.0
// calling_thread.cpp - one piece of work at a time.
#include "tools/replay/calling_thread.h"

#include <utility>

namespace olvex_tools {

CallingThread::CallingThread() : thread_([this] { serve(); }) {}

CallingThread::~CallingThread() {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    is_ended_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void CallingThread::run(const std::function<void()>& work) {
  std::unique_lock<std::mutex> guard(lock_);
  work_ = &work;
  changed_.notify_all();
  changed_.wait(guard, [this] { return work_ == nullptr; });
  if (error_ != nullptr) {
    std::rethrow_exception(std::exchange(error_, nullptr));
  }
}

void CallingThread::serve() {
  std::unique_lock<std::mutex> guard(lock_);
  while (true) {
    changed_.wait(guard, [this] { return work_ != nullptr || is_ended_; });
    if (work_ == nullptr) {
      return;
    }
    try {
      (*work_)();
    } catch (...) {
      error_ = std::current_exception();
    }
    work_ = nullptr;
    changed_.notify_all();
  }
}

}  // namespace olvex_tools
