// zbiap::MainQueue and zbiap::TaskQueue: the serial main queue on which the library does its
// work and posts its notifications, and the concurrent global queue.
//
// Tasks run in posting order; timers run in due-time order, equal times in posting order.
// post() and postAfter() may be called from any thread. The default main queue is an event
// loop that the host runs (EventLoop, platform/event_loop.h); tests use ManualMainQueue
// (testing/manual_main_queue.h), whose timers run in virtual time.
#ifndef ZBIAP_PLATFORM_MAIN_QUEUE_H_
#define ZBIAP_PLATFORM_MAIN_QUEUE_H_

#include <chrono>
#include <cstdint>
#include <functional>

#include "zbiap/export.h"
#include "zbiap/foundation/date.h"

namespace zbiap {

using Task = std::function<void()>;
using Duration = std::chrono::microseconds;

class ZBIAP_EXPORT TaskQueue {
 public:
  virtual ~TaskQueue() = default;
  virtual void post(Task task) = 0;
};

class ZBIAP_EXPORT MainQueue : public TaskQueue {
 public:
  using TimerId = uint64_t;
  // Runs `task` on the main thread once `delay` has passed on this queue's clock.
  virtual TimerId postAfter(Duration delay, Task task) = 0;
  // Cancels a timer that has not run yet; no-op otherwise.
  virtual void cancel(TimerId id) = 0;
  // Whether the calling thread is the one that runs this queue's tasks.
  virtual bool isMainThread() const = 0;
  // The queue's clock: wall time for the event loop, virtual time in tests.
  virtual Date now() const = 0;
};

}  // namespace zbiap

#endif  // ZBIAP_PLATFORM_MAIN_QUEUE_H_
