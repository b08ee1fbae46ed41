#include "zbiap/platform/thread_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace zbiap {
namespace {

// Tasks run on the workers; waitIdle() also covers the tasks that tasks post, and destruction
// runs what is still queued.
TEST(ThreadPoolTest, RunsEveryTaskOnAWorker) {
  std::atomic<int> count{0}, offWorker{0};
  {
    ThreadPool pool(3);
    for (int i = 0; i < 100; ++i) {
      pool.post([&] {
        if (!pool.isWorkerThread()) ++offWorker;
        pool.post([&] { ++count; });
        ++count;
      });
    }
    EXPECT_TRUE(pool.waitIdle());
    EXPECT_EQ(count.load(), 200);
    EXPECT_FALSE(pool.isWorkerThread());
    EXPECT_FALSE(pool.waitIdle());  // Nothing ran since.
    for (int i = 0; i < 50; ++i) pool.post([&] { ++count; });
  }
  EXPECT_EQ(count.load(), 250);
  EXPECT_EQ(offWorker.load(), 0);
}

}  // namespace
}  // namespace zbiap
