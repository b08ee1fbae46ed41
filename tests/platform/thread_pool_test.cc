#include "zbiap/platform/thread_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

namespace zbiap {
namespace {

TEST(ThreadPoolTest, RunsEveryTaskOnWorkersAndWaitIdleCoversTasksPostedByTasks) {
  ThreadPool pool(3);
  std::atomic<int> count{0};
  std::atomic<bool> onCaller{false};
  const std::thread::id caller = std::this_thread::get_id();
  for (int i = 0; i < 100; ++i) {
    pool.post([&] {
      if (std::this_thread::get_id() == caller || !pool.isWorkerThread()) onCaller = true;
      pool.post([&] { ++count; });
      ++count;
    });
  }
  EXPECT_TRUE(pool.waitIdle());
  EXPECT_EQ(count.load(), 200);
  EXPECT_FALSE(onCaller.load());
  EXPECT_FALSE(pool.isWorkerThread());
  EXPECT_FALSE(pool.waitIdle());  // Nothing ran since.
}

TEST(ThreadPoolTest, DestructionRunsWhatIsQueued) {
  std::atomic<int> count{0};
  {
    ThreadPool pool(1);
    for (int i = 0; i < 50; ++i) pool.post([&] { ++count; });
  }
  EXPECT_EQ(count.load(), 50);
}

}  // namespace
}  // namespace zbiap
