// SPDX-License-Identifier: Apache-2.0
// sequence_queue.h - what goes from one stage to the next: a bounded queue that hands items out in the order of
// their numbers, in whatever order they come. stages.h connects stages by it.
#ifndef TOOLS_RUN_SEQUENCE_QUEUE_H
#define TOOLS_RUN_SEQUENCE_QUEUE_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace olvex_tools {

template <typename Item>
class SequenceQueue {
 public:
  explicit SequenceQueue(std::size_t capacity) : slots_(capacity) {}

  // Numbers count from 0, and each comes once. Waits while the item is too far from the next one to be taken;
  // drops it after close().
  void push(std::size_t number, Item item) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return is_closed_ || number < next_ + slots_.size(); });
    if (!is_closed_) {
      slots_[number % slots_.size()] = std::move(item);
      changed_.notify_all();
    }
  }

  // The next item and its number. Nothing after close(), and when gives_up, which is asked again and again, says
  // so.
  std::optional<std::pair<std::size_t, Item>> pop(const std::function<bool()>& gives_up = {}) {
    constexpr std::chrono::milliseconds kInterval(50);
    std::unique_lock<std::mutex> lock(mutex_);
    const auto is_ready = [this] {
      return is_closed_ || slots_[next_ % slots_.size()].has_value();
    };
    while (gives_up && !is_ready()) {
      if (gives_up()) {
        return std::nullopt;
      }
      changed_.wait_for(lock, kInterval);
    }
    changed_.wait(lock, is_ready);
    if (is_closed_) {
      return std::nullopt;
    }
    std::optional<Item>& slot = slots_[next_ % slots_.size()];
    std::pair<std::size_t, Item> taken(next_++, std::move(*slot));
    slot.reset();
    changed_.notify_all();
    return taken;
  }

  void close() {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_closed_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::optional<Item>> slots_;  // an item lies at its number modulo their count
  std::size_t next_ = 0;                    // number of the item to be taken next
  bool is_closed_ = false;
};

}  // namespace olvex_tools

#endif  // TOOLS_RUN_SEQUENCE_QUEUE_H
