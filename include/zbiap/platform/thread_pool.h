// zbiap::ThreadPool: a small fixed set of worker threads, the stand-in for the high-priority
// global concurrent queue. post() may be called from any thread, including a worker; tasks start
// in posting order but run concurrently. The destructor runs what is queued, then joins.
#ifndef ZBIAP_PLATFORM_THREAD_POOL_H_
#define ZBIAP_PLATFORM_THREAD_POOL_H_

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/platform/main_queue.h"

namespace zbiap {

class ZBIAP_EXPORT ThreadPool final : public TaskQueue {
 public:
  explicit ThreadPool(size_t threads = 2);
  ~ThreadPool() override;
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  void post(Task task) override;

  // Blocks until no task is queued or running (tasks posted meanwhile included). Must not be
  // called from a worker. Returns whether any task ran since the last call.
  bool waitIdle();
  // Whether the calling thread is one of this pool's workers.
  bool isWorkerThread() const;

 private:
  void work();

  mutable std::mutex mu_;
  std::condition_variable workAvailable_;
  std::condition_variable idle_;
  std::deque<Task> queue_;
  size_t running_ = 0;
  size_t completed_ = 0;
  size_t completedAtLastWait_ = 0;
  bool shuttingDown_ = false;
  std::vector<std::thread> workers_;
};

}  // namespace zbiap

#endif  // ZBIAP_PLATFORM_THREAD_POOL_H_
