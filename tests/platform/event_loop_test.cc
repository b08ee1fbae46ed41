#include "zbiap/platform/event_loop.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <thread>
#include <vector>

namespace zbiap {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

bool fdReadable(int fd) {
  struct pollfd p = {fd, POLLIN, 0};
  return ::poll(&p, 1, 0) == 1 && (p.revents & POLLIN);
}

TEST(EventLoopTest, RunsTasksInPostingOrderUntilStopped) {
  EventLoop loop;
  std::vector<int> order;
  for (int i = 0; i < 5; ++i) loop.post([&order, i] { order.push_back(i); });
  loop.post([&] { loop.stop(); });
  loop.post([&] { order.push_back(99); });  // Still pending after stop().
  loop.run();
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_EQ(loop.pendingCount(), 1u);
}

TEST(EventLoopTest, StopBeforeRunMakesTheNextRunReturn) {
  EventLoop loop;
  loop.stop();
  loop.run();  // Returns at once instead of waiting forever.
  bool ran = false;
  loop.post([&] { ran = true; });
  loop.post([&] { loop.stop(); });
  loop.run();
  EXPECT_TRUE(ran);
}

TEST(EventLoopTest, TimersFireInDueOrderAndEqualDelaysInPostingOrder) {
  EventLoop loop;
  std::vector<int> order;
  loop.postAfter(milliseconds(30), [&] { order.push_back(3); });
  loop.postAfter(milliseconds(10), [&] { order.push_back(1); });
  loop.postAfter(milliseconds(10), [&] { order.push_back(2); });
  MainQueue::TimerId cancelled = loop.postAfter(milliseconds(20), [&] { order.push_back(-1); });
  loop.cancel(cancelled);
  loop.postAfter(milliseconds(40), [&] { loop.stop(); });
  loop.run();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(EventLoopTest, RunForReturnsWhenTheTimeIsUpAndLeavesLaterTimers) {
  EventLoop loop;
  int early = 0;
  int late = 0;
  loop.postAfter(milliseconds(1), [&] { ++early; });
  loop.postAfter(seconds(3600), [&] { ++late; });
  loop.runFor(milliseconds(50));
  EXPECT_EQ(early, 1);
  EXPECT_EQ(late, 0);
  EXPECT_EQ(loop.pendingCount(), 1u);
}

TEST(EventLoopTest, RunUntilAPredicateHoldsOrTimesOut) {
  EventLoop loop;
  int count = 0;
  for (int i = 0; i < 10; ++i) loop.post([&] { ++count; });
  EXPECT_TRUE(loop.runUntil([&] { return count == 3; }));
  EXPECT_EQ(count, 3);
  EXPECT_FALSE(loop.runUntil([] { return false; }, milliseconds(20)));
  EXPECT_EQ(count, 10);
}

TEST(EventLoopTest, DrainRunsOnlyWhatIsDueNowAndReportsTheNextTimer) {
  EventLoop loop;
  EXPECT_EQ(loop.nextDueIn(), std::nullopt);
  std::vector<int> order;
  loop.post([&] {
    order.push_back(1);
    loop.post([&] { order.push_back(3); });  // Waits for the next drain.
  });
  loop.post([&] { order.push_back(2); });
  loop.postAfter(seconds(3600), [&] { order.push_back(4); });
  EXPECT_TRUE(fdReadable(loop.wakeupFd()));
  EXPECT_EQ(loop.drain(), 2u);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  EXPECT_EQ(loop.nextDueIn(), Duration::zero());
  EXPECT_EQ(loop.drain(), 1u);
  EXPECT_FALSE(fdReadable(loop.wakeupFd()));
  std::optional<Duration> next = loop.nextDueIn();
  ASSERT_TRUE(next.has_value());
  EXPECT_GT(*next, seconds(3590));
  EXPECT_LE(*next, seconds(3600));
  EXPECT_EQ(loop.drain(), 0u);
}

TEST(EventLoopTest, WakeupCallbackAndFdTellAHostLoopAboutPostsFromOtherThreads) {
  EventLoop loop;
  std::atomic<int> wakeups{0};
  loop.setWakeupCallback([&] { ++wakeups; });
  std::thread([&] { loop.post([] {}); }).join();
  EXPECT_EQ(wakeups.load(), 1);
  EXPECT_TRUE(fdReadable(loop.wakeupFd()));
  loop.drain();
  EXPECT_FALSE(fdReadable(loop.wakeupFd()));
  loop.setWakeupCallback(nullptr);
  loop.post([] {});
  EXPECT_EQ(wakeups.load(), 1);
}

TEST(EventLoopTest, PostsFromManyThreadsAllRunOnTheLoopThreadInPerThreadOrder) {
  EventLoop loop;
  constexpr int kThreads = 4;
  constexpr int kPerThread = 500;
  std::vector<std::vector<int>> seen(kThreads);
  std::atomic<bool> offMain{false};
  std::atomic<int> done{0};
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        loop.post([&, t, i] {
          if (!loop.isMainThread()) offMain = true;
          seen[t].push_back(i);
          ++done;
        });
      }
    });
  }
  // The loop waits for posts that arrive while it sleeps.
  EXPECT_TRUE(loop.runUntil([&] { return done.load() == kThreads * kPerThread; }, seconds(30)));
  for (std::thread& poster : posters) poster.join();
  EXPECT_FALSE(offMain.load());
  for (int t = 0; t < kThreads; ++t) {
    ASSERT_EQ(seen[t].size(), static_cast<size_t>(kPerThread));
    for (int i = 0; i < kPerThread; ++i) EXPECT_EQ(seen[t][i], i);
  }
}

TEST(EventLoopTest, TheMainThreadIsTheOneRunningTheLoop) {
  EventLoop loop;
  EXPECT_TRUE(loop.isMainThread());  // The creating thread, until another runs it.
  std::atomic<bool> mainInside{false};
  std::thread runner([&] {
    loop.post([&] {
      mainInside = loop.isMainThread();
      loop.stop();
    });
    loop.run();
  });
  runner.join();
  EXPECT_TRUE(mainInside.load());
  EXPECT_FALSE(loop.isMainThread());
}

TEST(EventLoopTest, StopFromAnotherThreadWakesASleepingLoop) {
  EventLoop loop;
  loop.postAfter(seconds(3600), [] {});
  std::thread stopper;
  // Started from inside the loop, so stop() arrives while it runs or sleeps on the timer.
  loop.post([&] { stopper = std::thread([&] { loop.stop(); }); });
  loop.run();  // Would sleep an hour without the wake-up.
  stopper.join();
  EXPECT_EQ(loop.pendingCount(), 1u);
}

TEST(EventLoopTest, NowIsWallClockTime) {
  EventLoop loop;
  Date before = Date::fromSysTime(std::chrono::system_clock::now());
  Date now = loop.now();
  Date after = Date::fromSysTime(std::chrono::system_clock::now());
  EXPECT_LE(before, now);
  EXPECT_LE(now, after);
}

}  // namespace
}  // namespace zbiap
