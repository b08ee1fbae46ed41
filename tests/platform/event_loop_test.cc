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

TEST(EventLoopTest, RunsTasksAndTimersInOrderUntilStopped) {
  EventLoop loop;
  loop.stop();
  loop.run();  // A stop before the run makes it return at once instead of waiting forever.
  std::vector<int> order;
  loop.postAfter(milliseconds(30), [&] { order.push_back(13); });
  loop.postAfter(milliseconds(10), [&] { order.push_back(11); });
  loop.postAfter(milliseconds(10), [&] { order.push_back(12); });
  loop.cancel(loop.postAfter(milliseconds(20), [&] { order.push_back(-1); }));
  for (int i = 0; i < 3; ++i) loop.post([&order, i] { order.push_back(i); });
  loop.postAfter(milliseconds(40), [&] {
    loop.stop();
    loop.post([&] { order.push_back(99); });  // Still pending after stop().
  });
  loop.run();
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 11, 12, 13}));
  EXPECT_EQ(loop.pendingCount(), 1u);
}

TEST(EventLoopTest, RunForAndRunUntilReturnWhenDone) {
  EventLoop loop;
  int early = 0, late = 0;
  loop.postAfter(milliseconds(1), [&] { ++early; });
  loop.postAfter(seconds(3600), [&] { ++late; });
  loop.runFor(milliseconds(50));
  EXPECT_EQ(early, 1);
  EXPECT_EQ(late, 0);

  int count = 0;
  for (int i = 0; i < 10; ++i) loop.post([&] { ++count; });
  EXPECT_TRUE(loop.runUntil([&] { return count == 3; }));
  EXPECT_EQ(count, 3);
  EXPECT_FALSE(loop.runUntil([] { return false; }, milliseconds(20)));
  EXPECT_EQ(count, 10);
  EXPECT_EQ(late, 0);
}

// A host's own loop drains what is due, learns when the next timer is, and is woken through the
// callback or the file descriptor by posts from other threads.
TEST(EventLoopTest, DrainFromAHostLoop) {
  EventLoop loop;
  EXPECT_EQ(loop.nextDueIn(), std::nullopt);
  std::atomic<int> wakeups{0};
  loop.setWakeupCallback([&] { ++wakeups; });
  std::vector<int> order;
  std::thread([&] {
    loop.post([&] {
      order.push_back(1);
      loop.post([&] { order.push_back(3); });  // Waits for the next drain.
    });
  }).join();
  EXPECT_EQ(wakeups.load(), 1);
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
  const int woken = wakeups.load();
  loop.setWakeupCallback(nullptr);
  std::thread([&] { loop.post([] {}); }).join();
  EXPECT_EQ(wakeups.load(), woken);
}

TEST(EventLoopTest, TheMainThreadIsTheOneRunningTheLoop) {
  EventLoop loop;
  EXPECT_TRUE(loop.isMainThread());  // The creating thread, until another runs it.
  Date before = Date::fromSysTime(std::chrono::system_clock::now());
  EXPECT_LE(before, loop.now());
  EXPECT_LE(loop.now(), Date::fromSysTime(std::chrono::system_clock::now()));
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

}  // namespace
}  // namespace zbiap
