// SPDX-License-Identifier: Apache-2.0
// stages.cpp - the plain loop, and the threads. Declared in stages.h.
#include "tools/run/stages.h"

#include <atomic>
#include <csignal>
#include <limits>
#include <memory>
#include <thread>
#include <utility>

#include "tools/common/interruption.h"
#include "tools/run/sequence_queue.h"

namespace olvex_tools {

namespace {

void do_work(const Work& work, int thread, FrameJob* job) {
  try {
    work(job, thread);
  } catch (...) {
    job->error = std::current_exception();
    job->state = FrameJob::State::kFailed;
  }
}

// Signals go to other threads while an object exists, and to threads that are started meanwhile never.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
      sigaddset(&signals, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, &former_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t former_;
};

using JobQueue = SequenceQueue<std::unique_ptr<FrameJob>>;

class Threads {
 public:
  explicit Threads(const Stages& stages) : stages_(stages) {
    constexpr std::size_t kMore = 2;
    for (const Stage& stage : stages.middle) {
      queues_.push_back(
          std::make_unique<JobQueue>(static_cast<std::size_t>(stage.threads) + kMore));
    }
    queues_.push_back(std::make_unique<JobQueue>(1 + kMore));
  }

  ~Threads() {
    for (const auto& queue : queues_) {
      queue->close();
    }
    is_stopped_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }
  Threads(const Threads&) = delete;
  Threads& operator=(const Threads&) = delete;

  void start() {
    const SignalsBlocked blocked;
    threads_.emplace_back([this] { read(); });
    for (std::size_t stage = 0; stage < stages_.middle.size(); ++stage) {
      for (int thread = 0; thread < stages_.middle[stage].threads; ++thread) {
        threads_.emplace_back([this, stage, thread] { work(stage, thread); });
      }
    }
  }

  // In the calling thread.
  void write() {
    while (!interruption_requested()) {
      auto taken = queues_.back()->pop(interruption_requested);
      if (!taken || !stages_.write(taken->second.get()) ||
          taken->second->state != FrameJob::State::kFrame) {
        return;
      }
    }
  }

 private:
  void read() {
    for (std::size_t number = 0; !is_stopped_; ++number) {
      auto job = std::make_unique<FrameJob>();
      stages_.read(job.get());
      const bool is_last = job->state != FrameJob::State::kFrame;
      queues_.front()->push(number, std::move(job));
      if (is_last) {
        return;
      }
    }
  }

  void work(std::size_t stage, int thread) {
    while (auto taken = queues_[stage]->pop()) {
      FrameJob* const job = taken->second.get();
      // What comes behind a failure is not written.
      if (job->state == FrameJob::State::kFrame && taken->first < first_failed_) {
        do_work(stages_.middle[stage].work, thread, job);
      }
      if (job->state == FrameJob::State::kFailed) {
        remember_failed(taken->first);
      }
      queues_[stage + 1]->push(taken->first, std::move(taken->second));
    }
  }

  void remember_failed(std::size_t number) {
    std::size_t first = first_failed_;
    while (number < first && !first_failed_.compare_exchange_weak(first, number)) {
    }
  }

  const Stages& stages_;
  std::vector<std::unique_ptr<JobQueue>> queues_;  // in front of each stage, and of writing
  std::atomic<std::size_t> first_failed_{std::numeric_limits<std::size_t>::max()};  // job
  std::atomic<bool> is_stopped_{false};
  std::vector<std::thread> threads_;
};

}  // namespace

void run_in_turn(const Stages& stages) {
  bool goes_on = !interruption_requested();
  while (goes_on) {
    FrameJob job;
    stages.read(&job);
    for (const Stage& stage : stages.middle) {
      if (job.state == FrameJob::State::kFrame) {
        do_work(stage.work, 0, &job);
      }
    }
    goes_on = stages.write(&job) && job.state == FrameJob::State::kFrame;
  }
}

void run_side_by_side(const Stages& stages) {
  Threads threads(stages);
  threads.start();
  threads.write();
}

}  // namespace olvex_tools
