#include "zbiap/platform/thread_pool.h"

#include <algorithm>
#include <utility>

namespace zbiap {

ThreadPool::ThreadPool(size_t threads) {
  threads = std::max<size_t>(threads, 1);
  workers_.reserve(threads);
  for (size_t i = 0; i < threads; ++i) workers_.emplace_back([this] { work(); });
}

ThreadPool::~ThreadPool() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    shuttingDown_ = true;
  }
  workAvailable_.notify_all();
  for (std::thread& worker : workers_) {
    if (worker.get_id() == std::this_thread::get_id()) {
      worker.detach();  // The last owner let go from inside a task.
    } else {
      worker.join();
    }
  }
}

void ThreadPool::post(Task task) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    queue_.push_back(std::move(task));
  }
  workAvailable_.notify_one();
}

bool ThreadPool::waitIdle() {
  std::unique_lock<std::mutex> lock(mu_);
  idle_.wait(lock, [this] { return queue_.empty() && running_ == 0; });
  bool ran = completed_ != completedAtLastWait_;
  completedAtLastWait_ = completed_;
  return ran;
}

bool ThreadPool::isWorkerThread() const {
  for (const std::thread& worker : workers_) {
    if (worker.get_id() == std::this_thread::get_id()) return true;
  }
  return false;
}

void ThreadPool::work() {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    workAvailable_.wait(lock, [this] { return shuttingDown_ || !queue_.empty(); });
    if (queue_.empty()) return;  // Shutting down with nothing left.
    Task task = std::move(queue_.front());
    queue_.pop_front();
    ++running_;
    lock.unlock();
    task();
    task = nullptr;  // Destroy captures outside the lock, before reporting idle.
    lock.lock();
    --running_;
    ++completed_;
    if (queue_.empty() && running_ == 0) idle_.notify_all();
  }
}

}  // namespace zbiap
