#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "zbiap/platform/notification_center.h"
#include "zbiap/platform/observer_list.h"

namespace zbiap {
namespace {

using Heard = std::vector<std::string>;

TEST(NotificationCenterTest, DeliversByNameAndSenderInRegistrationOrder) {
  NotificationCenter center;
  int senderA = 0, senderB = 0;
  Heard heard;
  ObserverToken any = center.addObserver("State", nullptr, [&](const Notification& n) {
    heard.push_back("any:" + std::string(n.name) + (n.object == &senderA ? ":A" : ":B") +
                    (n.userInfo ? ":" + *(*n.userInfo)["country"].asString() : ""));
  });
  ObserverToken onlyA =
      center.addObserver("State", &senderA, [&](const Notification&) { heard.push_back("onlyA"); });
  ObserverToken everything = center.addObserver(
      "", nullptr, [&](const Notification& n) { heard.push_back("all:" + std::string(n.name)); });
  Dictionary info{{"country", Value("DE")}};
  center.post("State", &senderA, &info);
  center.post("State", &senderB);
  center.post("Other", &senderA);
  EXPECT_EQ(heard, (Heard{"any:State:A:DE", "onlyA", "all:State", "any:State:B", "all:State",
                          "all:Other"}));
}

TEST(NotificationCenterTest, TokensRemoveTheirObserverAndMayOutliveTheCenter) {
  auto center = std::make_unique<NotificationCenter>();
  int calls = 0;
  {
    ObserverToken token = center->addObserver("N", nullptr, [&](const Notification&) { ++calls; });
    center->post("N", nullptr);
    ObserverToken moved = std::move(token);
    EXPECT_FALSE(token);
    center->post("N", nullptr);
    EXPECT_EQ(center->observerCount(), 1u);
  }
  center->post("N", nullptr);
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(center->observerCount(), 0u);
  ObserverToken token = center->addObserver("N", nullptr, [&](const Notification&) { ++calls; });
  token.reset();
  token.reset();
  center->post("N", nullptr);
  EXPECT_EQ(calls, 2);

  token = center->addObserver("N", nullptr, [](const Notification&) {});
  center.reset();
  token.reset();  // Nothing to remove from any more; must not touch freed memory.
}

TEST(NotificationCenterTest, ObserversMayRemoveThemselvesAndOthersDuringAPost) {
  NotificationCenter center;
  Heard heard;
  ObserverToken second, added;
  ObserverToken first = center.addObserver("N", nullptr, [&](const Notification&) {
    heard.push_back("first");
    first.reset();   // Itself, from inside its own callback.
    second.reset();  // A later observer: not called in this post any more.
    added =
        center.addObserver("N", nullptr, [&](const Notification&) { heard.push_back("added"); });
  });
  second =
      center.addObserver("N", nullptr, [&](const Notification&) { heard.push_back("second"); });
  center.post("N", nullptr);
  EXPECT_EQ(heard, (Heard{"first"}));
  center.post("N", nullptr);
  EXPECT_EQ(heard, (Heard{"first", "added"}));
}

TEST(ObserverListTest, OldAndNewValuesInOrderWithRemovalDuringNotify) {
  auto list = std::make_unique<ObserverList<int>>();
  Heard heard;
  ObserverToken b;
  ObserverToken a = list->observe([&](const int& from, const int& to) {
    heard.push_back("a:" + std::to_string(from) + "->" + std::to_string(to));
    if (to == 4) b.reset();
  });
  b = list->observe([&](const int& from, const int& to) {
    heard.push_back("b:" + std::to_string(from) + "->" + std::to_string(to));
  });
  list->notify(0, 1);
  list->notify(1, 4);
  list->notify(4, 5);
  EXPECT_EQ(heard, (Heard{"a:0->1", "b:0->1", "a:1->4", "a:4->5"}));
  EXPECT_EQ(list->size(), 1u);
  list.reset();
  a.reset();
}

}  // namespace
}  // namespace zbiap
