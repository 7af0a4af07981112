// SPDX-License-Identifier: Apache-2.0
// player.cpp - calls and frames one after the other, each on its thread.
#include "tools/replay/player.h"

#include <cstdlib>
#include <utility>

namespace olvex_tools {

// ---- CallingThread: one piece of work at a time ----

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

// ---- Player ----

namespace {

constexpr unsigned kMostThreads = 64;  // recorded threads beyond share them

// "argument 3" and "argument 4" are of one kind.
std::string without_numbers(const std::string& text) {
  std::string kind;
  for (const char letter : text) {
    if (letter < '0' || letter > '9') {
      kind += letter;
    }
  }
  return kind.substr(0, kind.find_last_not_of(' ') + 1);
}

}  // namespace

Player::Player(const Recording& recording, const PlayOptions& options)
    : recording_(recording),
      options_(options),
      changes_options_(options.changes.threshold || options.changes.change_tracking()) {
  // No frame is dumped: there are no pictures.
  unsetenv("QK_ALGO_S");
  for (std::size_t k = 0; k < recording.frames.size(); ++k) {
    frame_numbers_[recording.frame(k).number] = true;
  }
}

Player::~Player() {
  const std::vector<qv_replay::Call> none;
  for (auto& [number, played] : handles_) {
    if (played.handle != nullptr) {
      run(0, number, none, [handle = played.handle] { ALGO_DET_DeinitHandle(handle); });
      qv_replay::release(number);
    }
  }
}

PlayResult Player::play() {
  for (const RecordedStep& step : recording_.steps) {
    play_step(step);
  }
  return result_;
}

void Player::play_step(const RecordedStep& step) {
  if (!step.is_frame) {
    play_call(recording_.calls[step.index]);
    return;
  }
  const RecordedFrame frame = recording_.frame(step.index);
  // Frames are numbered as they end, and stand in the order in which they began.
  if (frame.number <= options_.to) {
    play_frame(frame);
  }
}

std::vector<qv_replay::Difference> Player::run(std::uint16_t thread, std::uint32_t handle,
                                               const std::vector<qv_replay::Call>& answers,
                                               const std::function<void()>& work) {
  std::unique_ptr<CallingThread>& calling = threads_[thread % kMostThreads];
  if (calling == nullptr) {
    calling = std::make_unique<CallingThread>();
  }
  std::vector<qv_replay::Difference> differences;
  calling->run([&] {
    qv_replay::begin(answers, handle);
    work();
    differences = qv_replay::end();
  });
  return differences;
}

void Player::differ(const ReplayDifference& where, const std::string& kind,
                    const std::string& field, const std::string& recorded,
                    const std::string& played) {
  if (changes_options_) {
    return;
  }
  ++result_.kinds[kind];
  if (!result_.first) {
    result_.first = where;
    result_.first->kind = kind;
    result_.first->field = field;
    result_.first->recorded = recorded;
    result_.first->played = played;
  }
}

void Player::differ(const ReplayDifference& where,
                    const std::vector<qv_replay::Difference>& differences) {
  for (const qv_replay::Difference& difference : differences) {
    differ(where, without_numbers(difference.field), difference.field, difference.recorded,
           difference.played);
  }
}

PlayedHandle* Player::find(std::uint32_t number) {
  const auto found = handles_.find(number);
  return found == handles_.end() || found->second.handle == nullptr ? nullptr : &found->second;
}

PlayResult play(const Recording& recording, const PlayOptions& options) {
  return Player(recording, options).play();
}

}  // namespace olvex_tools
