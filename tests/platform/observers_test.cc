#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "zbiap/platform/notification_center.h"
#include "zbiap/platform/observer_list.h"

namespace zbiap {
namespace {

TEST(NotificationCenterTest, DeliversByNameAndSenderInRegistrationOrder) {
  NotificationCenter center;
  int senderA = 0;
  int senderB = 0;
  std::vector<std::string> heard;
  ObserverToken any = center.addObserver("State", nullptr, [&](const Notification& n) {
    heard.push_back("any:" + std::string(n.name) + (n.object == &senderA ? ":A" : ":B"));
  });
  ObserverToken onlyA =
      center.addObserver("State", &senderA, [&](const Notification&) { heard.push_back("onlyA"); });
  ObserverToken everything = center.addObserver(
      "", nullptr, [&](const Notification& n) { heard.push_back("all:" + std::string(n.name)); });
  center.post("State", &senderA);
  center.post("State", &senderB);
  center.post("Other", &senderA);
  EXPECT_EQ(heard, (std::vector<std::string>{"any:State:A", "onlyA", "all:State", "any:State:B",
                                             "all:State", "all:Other"}));
}

TEST(NotificationCenterTest, CarriesUserInfo) {
  NotificationCenter center;
  Dictionary info{{"country", Value("DE")}};
  std::string country;
  bool sawNull = false;
  ObserverToken token = center.addObserver("N", nullptr, [&](const Notification& n) {
    if (n.userInfo == nullptr) {
      sawNull = true;
    } else {
      country = *(*n.userInfo)["country"].asString();
    }
  });
  center.post("N", nullptr, &info);
  center.post("N", nullptr);
  EXPECT_EQ(country, "DE");
  EXPECT_TRUE(sawNull);
}

TEST(NotificationCenterTest, TokensRemoveTheirObserver) {
  NotificationCenter center;
  int calls = 0;
  {
    ObserverToken token = center.addObserver("N", nullptr, [&](const Notification&) { ++calls; });
    center.post("N", nullptr);
    ObserverToken moved = std::move(token);
    EXPECT_FALSE(token);
    center.post("N", nullptr);
    EXPECT_EQ(center.observerCount(), 1u);
  }
  center.post("N", nullptr);
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(center.observerCount(), 0u);

  ObserverToken token = center.addObserver("N", nullptr, [&](const Notification&) { ++calls; });
  token.reset();
  token.reset();
  center.post("N", nullptr);
  EXPECT_EQ(calls, 2);
}

TEST(NotificationCenterTest, ATokenMayOutliveItsCenter) {
  auto center = std::make_unique<NotificationCenter>();
  ObserverToken token = center->addObserver("N", nullptr, [](const Notification&) {});
  center.reset();
  token.reset();  // Nothing to remove from any more; must not touch freed memory.
}

TEST(NotificationCenterTest, ObserversMayRemoveThemselvesAndOthersDuringAPost) {
  NotificationCenter center;
  std::vector<std::string> heard;
  ObserverToken second;
  ObserverToken added;
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
  EXPECT_EQ(heard, (std::vector<std::string>{"first"}));
  center.post("N", nullptr);
  EXPECT_EQ(heard, (std::vector<std::string>{"first", "added"}));
}

TEST(NotificationCenterTest, DefaultCenterIsOneObject) {
  EXPECT_EQ(&NotificationCenter::defaultCenter(), &NotificationCenter::defaultCenter());
}

TEST(ObserverListTest, NotifiesOldAndNewValuesToEveryObserverInOrder) {
  ObserverList<int> state;
  std::vector<std::string> heard;
  ObserverToken a = state.observe([&](const int& from, const int& to) {
    heard.push_back("a:" + std::to_string(from) + "->" + std::to_string(to));
  });
  ObserverToken b = state.observe([&](const int& from, const int& to) {
    heard.push_back("b:" + std::to_string(from) + "->" + std::to_string(to));
  });
  state.notify(0, 1);
  a.reset();
  state.notify(1, 4);
  EXPECT_EQ(heard, (std::vector<std::string>{"a:0->1", "b:0->1", "b:1->4"}));
  EXPECT_EQ(state.size(), 1u);
}

TEST(ObserverListTest, RemovalDuringNotifyAndTokensOutlivingTheList) {
  auto list = std::make_unique<ObserverList<std::string>>();
  int laterCalls = 0;
  ObserverToken later;
  ObserverToken first =
      list->observe([&](const std::string&, const std::string&) { later.reset(); });
  later = list->observe([&](const std::string&, const std::string&) { ++laterCalls; });
  list->notify("x", "y");
  EXPECT_EQ(laterCalls, 0);
  EXPECT_EQ(list->size(), 1u);
  list.reset();
  first.reset();
}

}  // namespace
}  // namespace zbiap
