// zbiap::testing::ManualMainQueue: a main queue that runs only when the test says so, on a
// virtual clock. Nothing runs by itself: runUntilIdle() runs what is due now, advanceBy() moves
// the clock forward and runs every timer that falls due on the way, each at its own due time
// (now() inside a timer reads its due time). The main thread is the thread that created the
// queue. post(), postAfter() and cancel() are safe from any thread; the run functions belong to
// the main thread.
#ifndef ZBIAP_TESTING_MANUAL_MAIN_QUEUE_H_
#define ZBIAP_TESTING_MANUAL_MAIN_QUEUE_H_

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "zbiap/platform/main_queue.h"

namespace zbiap {
class TimerQueue;
}

namespace zbiap::testing {

class ManualMainQueue final : public MainQueue {
 public:
  // The virtual clock starts at 2025-01-01 00:00:00 UTC unless told otherwise.
  static constexpr Date kDefaultStart = Date::fromMicrosSince1970(1735689600LL * 1000000);
  // A run function stops after this many tasks, so a task that reposts itself forever fails
  // the test instead of hanging it.
  static constexpr size_t kMaxTasksPerRun = 1000000;

  explicit ManualMainQueue(Date start = kDefaultStart);
  ~ManualMainQueue() override;
  ManualMainQueue(const ManualMainQueue&) = delete;
  ManualMainQueue& operator=(const ManualMainQueue&) = delete;

  void post(Task task) override;
  TimerId postAfter(Duration delay, Task task) override;
  void cancel(TimerId id) override;
  bool isMainThread() const override;
  Date now() const override;

  // Runs everything due at the current virtual time, including what those tasks post for now.
  // Returns the number of tasks run.
  size_t runUntilIdle();
  // Moves the clock forward by `delta`, running due tasks in order on the way; ends with the
  // clock at start + delta and nothing due. Returns the number of tasks run.
  size_t advanceBy(Duration delta);
  // Moves the clock to the next pending timer and runs what is due then. Returns false when
  // nothing is pending.
  bool advanceToNextTimer();

  // Time until the next task is due: zero when one is due now, nullopt when nothing is pending.
  std::optional<Duration> nextDueIn() const;
  size_t pendingCount() const;

 private:
  size_t runDueUpTo(int64_t target);

  const std::thread::id mainThread_;
  mutable std::mutex mu_;
  std::unique_ptr<TimerQueue> timers_;
  int64_t nowMicros_;
};

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTING_MANUAL_MAIN_QUEUE_H_
