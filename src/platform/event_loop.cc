#include "zbiap/platform/event_loop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <utility>

#include "platform/timer_queue.h"

namespace zbiap {

EventLoop::EventLoop()
    : timers_(std::make_unique<TimerQueue>()), mainThread_(std::this_thread::get_id()) {
  wakeupFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

EventLoop::~EventLoop() {
  if (wakeupFd_ >= 0) ::close(wakeupFd_);
}

int64_t EventLoop::steadyTicks() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void EventLoop::post(Task task) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    timers_->add(steadyTicks(), std::move(task));
  }
  wake();
}

MainQueue::TimerId EventLoop::postAfter(Duration delay, Task task) {
  TimerId id;
  {
    std::lock_guard<std::mutex> lock(mu_);
    int64_t now = steadyTicks();
    int64_t delta = std::max<int64_t>(delay.count(), 0);
    int64_t due = delta > INT64_MAX - now ? INT64_MAX : now + delta;
    id = timers_->add(due, std::move(task));
  }
  wake();
  return id;
}

void EventLoop::cancel(TimerId id) {
  std::lock_guard<std::mutex> lock(mu_);
  timers_->cancel(id);
}

bool EventLoop::isMainThread() const { return mainThread_.load() == std::this_thread::get_id(); }

Date EventLoop::now() const { return Date::fromSysTime(std::chrono::system_clock::now()); }

void EventLoop::wake() {
  std::function<void()> callback;
  {
    std::lock_guard<std::mutex> lock(mu_);
    callback = wakeupCallback_;
  }
  cv_.notify_all();
  if (wakeupFd_ >= 0) {
    uint64_t one = 1;
    ssize_t written = ::write(wakeupFd_, &one, sizeof one);
    (void)written;  // A full counter already means "readable".
  }
  if (callback) callback();
}

void EventLoop::clearWakeupFd() {
  if (wakeupFd_ < 0) return;
  uint64_t value;
  ssize_t got = ::read(wakeupFd_, &value, sizeof value);
  (void)got;  // EAGAIN when nothing was posted.
}

void EventLoop::setWakeupCallback(std::function<void()> callback) {
  std::lock_guard<std::mutex> lock(mu_);
  wakeupCallback_ = std::move(callback);
}

void EventLoop::becomeMainThread() { mainThread_.store(std::this_thread::get_id()); }

void EventLoop::stop() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopRequested_ = true;
  }
  cv_.notify_all();
}

void EventLoop::run() { runLoop(nullptr, std::nullopt); }

void EventLoop::runFor(Duration duration) {
  int64_t now = steadyTicks();
  int64_t delta = std::max<int64_t>(duration.count(), 0);
  runLoop(nullptr, delta > INT64_MAX - now ? INT64_MAX : now + delta);
}

void EventLoop::runUntil(Date deadline) { runFor(deadline - now()); }

bool EventLoop::runUntil(const std::function<bool()>& done, Duration timeout) {
  if (timeout == Duration::max()) return runLoop(done, std::nullopt);
  int64_t now = steadyTicks();
  int64_t delta = std::max<int64_t>(timeout.count(), 0);
  return runLoop(done, delta > INT64_MAX - now ? INT64_MAX : now + delta);
}

bool EventLoop::runLoop(const std::function<bool()>& done, std::optional<int64_t> deadline) {
  becomeMainThread();
  for (;;) {
    if (done && done()) return true;
    clearWakeupFd();
    std::optional<Task> task;
    {
      std::unique_lock<std::mutex> lock(mu_);
      if (stopRequested_) {
        stopRequested_ = false;
        return false;
      }
      int64_t now = steadyTicks();
      task = timers_->popDue(now, TimerQueue::kNoLimit);
      if (!task) {
        if (deadline && now >= *deadline) return false;
        std::optional<int64_t> wakeAt = timers_->nextDue();
        if (deadline && (!wakeAt || *deadline < *wakeAt)) wakeAt = deadline;
        if (wakeAt) {
          cv_.wait_until(lock,
                         std::chrono::steady_clock::time_point(std::chrono::microseconds(*wakeAt)));
        } else {
          cv_.wait(lock);
        }
        continue;
      }
    }
    (*task)();
  }
}

size_t EventLoop::drain() {
  becomeMainThread();
  clearWakeupFd();
  TimerQueue::Id lastId;
  int64_t now = steadyTicks();
  {
    std::lock_guard<std::mutex> lock(mu_);
    lastId = timers_->lastId();
  }
  size_t ran = 0;
  for (;;) {
    std::optional<Task> task;
    {
      std::lock_guard<std::mutex> lock(mu_);
      task = timers_->popDue(now, lastId);
    }
    if (!task) return ran;
    (*task)();
    ++ran;
  }
}

std::optional<Duration> EventLoop::nextDueIn() const {
  std::lock_guard<std::mutex> lock(mu_);
  std::optional<int64_t> due = timers_->nextDue();
  if (!due) return std::nullopt;
  return Duration(std::max<int64_t>(*due - steadyTicks(), 0));
}

size_t EventLoop::pendingCount() const {
  std::lock_guard<std::mutex> lock(mu_);
  return timers_->size();
}

}  // namespace zbiap
