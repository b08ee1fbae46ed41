#include "testing/manual_main_queue.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace zbiap::testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(ManualMainQueueTest, NothingRunsUntilTheTestRunsIt) {
  ManualMainQueue queue;
  bool ran = false;
  queue.post([&] { ran = true; });
  EXPECT_FALSE(ran);
  EXPECT_EQ(queue.pendingCount(), 1u);
  EXPECT_EQ(queue.runUntilIdle(), 1u);
  EXPECT_TRUE(ran);
  EXPECT_EQ(queue.now(), ManualMainQueue::kDefaultStart);
}

TEST(ManualMainQueueTest, TimersFireInDueOrderAndEqualTimesInPostingOrder) {
  ManualMainQueue queue;
  std::vector<std::string> order;
  queue.postAfter(seconds(10), [&] { order.push_back("10a"); });
  queue.postAfter(seconds(5), [&] { order.push_back("5"); });
  queue.postAfter(seconds(10), [&] { order.push_back("10b"); });
  queue.post([&] { order.push_back("now"); });
  queue.postAfter(seconds(10), [&] { order.push_back("10c"); });

  EXPECT_EQ(queue.advanceBy(seconds(9)), 2u);
  EXPECT_EQ(order, (std::vector<std::string>{"now", "5"}));
  EXPECT_EQ(queue.now(), ManualMainQueue::kDefaultStart + seconds(9));
  EXPECT_EQ(queue.nextDueIn(), Duration(seconds(1)));

  queue.advanceBy(seconds(1));
  EXPECT_EQ(order, (std::vector<std::string>{"now", "5", "10a", "10b", "10c"}));
  EXPECT_EQ(queue.nextDueIn(), std::nullopt);
}

TEST(ManualMainQueueTest, EachTimerSeesItsOwnDueTimeAndTimersPostedFromTimersRunOnTheWay) {
  ManualMainQueue queue;
  const Date start = queue.now();
  std::vector<std::pair<std::string, Duration>> seen;
  auto record = [&](std::string name) { seen.emplace_back(name, queue.now() - start); };
  queue.postAfter(seconds(1), [&] {
    record("a");
    queue.post([&] { record("a-now"); });
    queue.postAfter(seconds(2), [&] { record("a+2"); });  // due at 3 s
  });
  queue.postAfter(seconds(4), [&] { record("b"); });
  queue.postAfter(seconds(3), [&] { record("c"); });  // due at 3 s, posted before "a+2"

  queue.advanceBy(seconds(60));
  std::vector<std::pair<std::string, Duration>> expected = {{"a", seconds(1)},
                                                            {"a-now", seconds(1)},
                                                            {"c", seconds(3)},
                                                            {"a+2", seconds(3)},
                                                            {"b", seconds(4)}};
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(queue.now(), start + seconds(60));
}

TEST(ManualMainQueueTest, TimersDueAfterTheTargetWait) {
  ManualMainQueue queue;
  int fired = 0;
  queue.postAfter(milliseconds(200), [&] { ++fired; });
  queue.advanceBy(milliseconds(199));
  EXPECT_EQ(fired, 0);
  EXPECT_EQ(queue.runUntilIdle(), 0u);
  queue.advanceBy(milliseconds(1));
  EXPECT_EQ(fired, 1);
}

TEST(ManualMainQueueTest, CancelledTimersNeverRunAndCancellingTwiceIsHarmless) {
  ManualMainQueue queue;
  std::vector<int> fired;
  MainQueue::TimerId first = queue.postAfter(seconds(1), [&] { fired.push_back(1); });
  MainQueue::TimerId second = queue.postAfter(seconds(2), [&] { fired.push_back(2); });
  queue.postAfter(milliseconds(1500), [&] { queue.cancel(second); });
  queue.cancel(first);
  queue.cancel(first);
  queue.cancel(12345);
  queue.advanceBy(seconds(5));
  EXPECT_TRUE(fired.empty());
  EXPECT_EQ(queue.pendingCount(), 0u);
  queue.cancel(second);  // Already gone.
}

TEST(ManualMainQueueTest, AdvanceToNextTimerJumpsToTheTimer) {
  ManualMainQueue queue(Date::fromMicrosSince1970(0));
  EXPECT_FALSE(queue.advanceToNextTimer());
  bool fired = false;
  queue.postAfter(seconds(3600), [&] { fired = true; });
  EXPECT_TRUE(queue.advanceToNextTimer());
  EXPECT_TRUE(fired);
  EXPECT_EQ(queue.now(), Date::fromMicrosSince1970(3600LL * 1000000));
}

TEST(ManualMainQueueTest, PostsFromOtherThreadsRunOnTheMainThread) {
  ManualMainQueue queue;
  EXPECT_TRUE(queue.isMainThread());
  std::vector<int> order;
  bool otherThreadIsMain = true;
  std::thread poster([&] {
    otherThreadIsMain = queue.isMainThread();
    for (int i = 0; i < 100; ++i) queue.post([&order, i] { order.push_back(i); });
  });
  poster.join();
  EXPECT_FALSE(otherThreadIsMain);
  bool allOnMain = true;
  queue.post([&] { allOnMain = queue.isMainThread(); });
  queue.runUntilIdle();
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
  EXPECT_TRUE(allOnMain);
}

TEST(ManualMainQueueTest, AHugeDelayDoesNotOverflow) {
  ManualMainQueue queue;
  bool fired = false;
  queue.postAfter(Duration::max(), [&] { fired = true; });
  queue.postAfter(Duration(-5), [] {});  // A negative delay means now.
  EXPECT_EQ(queue.runUntilIdle(), 1u);
  queue.advanceBy(seconds(86400LL * 365 * 100));
  EXPECT_FALSE(fired);
}

}  // namespace
}  // namespace zbiap::testing
