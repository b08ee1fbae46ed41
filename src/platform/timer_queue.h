// zbiap::TimerQueue: the ordered store of pending tasks behind both main queues (the event
// loop and the tests' manual queue). Tasks are kept by due time, equal times by posting order;
// a plain task is a timer due at the moment it was posted. Not thread-safe: the owning queue
// guards it with its own mutex.
#ifndef ZBIAP_PLATFORM_TIMER_QUEUE_H_
#define ZBIAP_PLATFORM_TIMER_QUEUE_H_

#include <cstdint>
#include <map>
#include <optional>
#include <unordered_map>
#include <utility>

#include "zbiap/platform/main_queue.h"

namespace zbiap {

class TimerQueue {
 public:
  // Ticks are microseconds on the owner's clock.
  using Ticks = int64_t;
  using Id = uint64_t;

  TimerQueue() = default;
  TimerQueue(const TimerQueue&) = delete;
  TimerQueue& operator=(const TimerQueue&) = delete;

  // Returns the task's id: ids increase with posting order and are never 0.
  Id add(Ticks due, Task task) {
    Id id = ++lastId_;
    tasks_.emplace(Key{due, id}, std::move(task));
    dueById_.emplace(id, due);
    return id;
  }

  // Whether a pending task was removed.
  bool cancel(Id id) {
    auto found = dueById_.find(id);
    if (found == dueById_.end()) return false;
    tasks_.erase(Key{found->second, id});
    dueById_.erase(found);
    return true;
  }

  bool empty() const { return tasks_.empty(); }
  size_t size() const { return tasks_.size(); }
  Id lastId() const { return lastId_; }

  // The earliest due time, nullopt when nothing is pending.
  std::optional<Ticks> nextDue() const {
    if (tasks_.empty()) return std::nullopt;
    return tasks_.begin()->first.first;
  }

  // Removes and returns the first task due at or before `now` whose id is at most `maxId`.
  // `due` receives its due time.
  std::optional<Task> popDue(Ticks now, Id maxId, Ticks* due = nullptr) {
    if (tasks_.empty()) return std::nullopt;
    auto first = tasks_.begin();
    if (first->first.first > now) return std::nullopt;
    // Tasks with a larger id may be due earlier (posted later with a shorter delay), so an id
    // limit needs a scan over what is due; drains are short, and without a limit this is O(1).
    auto it = first;
    if (maxId != kNoLimit) {
      while (it != tasks_.end() && it->first.first <= now && it->first.second > maxId) ++it;
      if (it == tasks_.end() || it->first.first > now) return std::nullopt;
    }
    if (due) *due = it->first.first;
    Task task = std::move(it->second);
    dueById_.erase(it->first.second);
    tasks_.erase(it);
    return task;
  }

  static constexpr Id kNoLimit = UINT64_MAX;

 private:
  using Key = std::pair<Ticks, Id>;
  std::map<Key, Task> tasks_;
  std::unordered_map<Id, Ticks> dueById_;
  Id lastId_ = 0;
};

}  // namespace zbiap

#endif  // ZBIAP_PLATFORM_TIMER_QUEUE_H_
