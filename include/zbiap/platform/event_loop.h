// zbiap::EventLoop: the default main queue, an event loop that the host runs.
//
// A host either gives a thread to the loop (run() until stop(), runFor(), runUntil()) or calls
// drain() from its own loop, waking up when wakeupFd() turns readable or the wakeup callback
// fires, and when nextDueIn() says the next timer is due. The main thread is the thread that
// created the loop until run*() or drain() is first called from another one; from then on it is
// the thread that last ran the loop. post(), postAfter(), cancel() and stop() may be called from
// any thread; tasks run on the main thread only, one at a time.
#ifndef ZBIAP_PLATFORM_EVENT_LOOP_H_
#define ZBIAP_PLATFORM_EVENT_LOOP_H_

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "zbiap/export.h"
#include "zbiap/platform/main_queue.h"

namespace zbiap {

class TimerQueue;

class ZBIAP_EXPORT EventLoop final : public MainQueue {
 public:
  EventLoop();
  ~EventLoop() override;
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // MainQueue.
  void post(Task task) override;
  TimerId postAfter(Duration delay, Task task) override;
  void cancel(TimerId id) override;
  bool isMainThread() const override;
  Date now() const override;

  // Runs tasks as they become due until stop() is called.
  void run();
  // Makes the current or next run*() return after the task it is running. Any thread.
  void stop();
  // Runs tasks until `duration` has passed or stop() is called.
  void runFor(Duration duration);
  // Runs tasks until `deadline` (wall clock) or stop().
  void runUntil(Date deadline);
  // Runs tasks until `done()` holds (checked before waiting and after each task), `timeout`
  // passes or stop() is called. Returns whether `done()` held.
  bool runUntil(const std::function<bool()>& done, Duration timeout = Duration::max());
  // Runs the tasks that are due now, without waiting; tasks they post wait for the next call.
  // Returns the number of tasks run.
  size_t drain();

  // Time until the next task is due: zero when one is due now, nullopt when nothing is pending.
  std::optional<Duration> nextDueIn() const;
  // An eventfd that turns readable when a task is posted from any thread; drain() and the
  // run*() functions clear it. -1 if the system could not create one.
  int wakeupFd() const { return wakeupFd_; }
  // Called on the posting thread after each post (or timer) is added; keep it short and do not
  // post from it. Replaces any previous callback; an empty function removes it.
  void setWakeupCallback(std::function<void()> callback);

  // Number of pending tasks and timers.
  size_t pendingCount() const;

 private:
  bool runLoop(const std::function<bool()>& done, std::optional<int64_t> deadlineTicks);
  static int64_t steadyTicks();
  void wake();
  void clearWakeupFd();
  void becomeMainThread();

  mutable std::mutex mu_;
  std::condition_variable cv_;
  std::unique_ptr<TimerQueue> timers_;
  bool stopRequested_ = false;
  std::function<void()> wakeupCallback_;
  std::atomic<std::thread::id> mainThread_;
  int wakeupFd_ = -1;
};

}  // namespace zbiap

#endif  // ZBIAP_PLATFORM_EVENT_LOOP_H_
