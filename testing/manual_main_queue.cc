#include "testing/manual_main_queue.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "platform/timer_queue.h"

namespace zbiap::testing {

ManualMainQueue::ManualMainQueue(Date start)
    : mainThread_(std::this_thread::get_id()),
      timers_(std::make_unique<TimerQueue>()),
      nowMicros_(start.microsSince1970()) {}

ManualMainQueue::~ManualMainQueue() = default;

void ManualMainQueue::post(Task task) {
  std::lock_guard<std::mutex> lock(mu_);
  timers_->add(nowMicros_, std::move(task));
}

MainQueue::TimerId ManualMainQueue::postAfter(Duration delay, Task task) {
  std::lock_guard<std::mutex> lock(mu_);
  int64_t delta = std::max<int64_t>(delay.count(), 0);
  int64_t due = delta > INT64_MAX - nowMicros_ ? INT64_MAX : nowMicros_ + delta;
  return timers_->add(due, std::move(task));
}

void ManualMainQueue::cancel(TimerId id) {
  std::lock_guard<std::mutex> lock(mu_);
  timers_->cancel(id);
}

bool ManualMainQueue::isMainThread() const { return std::this_thread::get_id() == mainThread_; }

Date ManualMainQueue::now() const {
  std::lock_guard<std::mutex> lock(mu_);
  return Date::fromMicrosSince1970(nowMicros_);
}

size_t ManualMainQueue::runDueUpTo(int64_t target) {
  size_t ran = 0;
  while (ran < kMaxTasksPerRun) {
    std::optional<Task> task;
    {
      std::lock_guard<std::mutex> lock(mu_);
      int64_t due = 0;
      task = timers_->popDue(target, TimerQueue::kNoLimit, &due);
      if (!task) {
        nowMicros_ = std::max(nowMicros_, target);
        return ran;
      }
      nowMicros_ = std::max(nowMicros_, due);
    }
    (*task)();
    ++ran;
  }
  std::fprintf(stderr, "ManualMainQueue: stopped after %zu tasks; a task keeps reposting itself\n",
               ran);
  return ran;
}

size_t ManualMainQueue::runUntilIdle() {
  int64_t now;
  {
    std::lock_guard<std::mutex> lock(mu_);
    now = nowMicros_;
  }
  return runDueUpTo(now);
}

size_t ManualMainQueue::advanceBy(Duration delta) {
  int64_t target;
  {
    std::lock_guard<std::mutex> lock(mu_);
    int64_t d = std::max<int64_t>(delta.count(), 0);
    target = d > INT64_MAX - nowMicros_ ? INT64_MAX : nowMicros_ + d;
  }
  return runDueUpTo(target);
}

bool ManualMainQueue::advanceToNextTimer() {
  std::optional<int64_t> due;
  {
    std::lock_guard<std::mutex> lock(mu_);
    due = timers_->nextDue();
  }
  if (!due) return false;
  runDueUpTo(*due);
  return true;
}

std::optional<Duration> ManualMainQueue::nextDueIn() const {
  std::lock_guard<std::mutex> lock(mu_);
  std::optional<int64_t> due = timers_->nextDue();
  if (!due) return std::nullopt;
  return Duration(std::max<int64_t>(*due - nowMicros_, 0));
}

size_t ManualMainQueue::pendingCount() const {
  std::lock_guard<std::mutex> lock(mu_);
  return timers_->size();
}

}  // namespace zbiap::testing
