// SPDX-License-Identifier: Apache-2.0
// calling_thread.h - a thread that makes calls for another one, which waits for each of them.
#ifndef TOOLS_REPLAY_CALLING_THREAD_H
#define TOOLS_REPLAY_CALLING_THREAD_H

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>

namespace olvex_tools {

class CallingThread {
 public:
  CallingThread();
  ~CallingThread();
  CallingThread(const CallingThread&) = delete;
  CallingThread& operator=(const CallingThread&) = delete;

  // Runs work on the thread and waits for its end; throws what it throws.
  void run(const std::function<void()>& work);

 private:
  void serve();

  std::mutex lock_;
  std::condition_variable changed_;
  const std::function<void()>* work_ = nullptr;
  bool is_ended_ = false;
  std::exception_ptr error_;
  std::thread thread_;  // last: it uses all the others
};

}  // namespace olvex_tools

#endif  // TOOLS_REPLAY_CALLING_THREAD_H
