#include "zbiap/platform/notification_center.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

namespace zbiap {

namespace {

struct Entry {
  std::string name;
  const void* object;
  NotificationCenter::Callback callback;
  std::atomic<bool> active{true};
};

}  // namespace

struct NotificationCenter::State {
  mutable std::mutex mu;
  std::vector<std::shared_ptr<Entry>> entries;  // Registration order.
};

NotificationCenter::NotificationCenter() : state_(std::make_shared<State>()) {}

NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
  // Never destroyed: observers may be removed during static destruction.
  static NotificationCenter* center = new NotificationCenter();
  return *center;
}

ObserverToken NotificationCenter::addObserver(std::string name, const void* object,
                                              Callback callback) {
  auto entry = std::make_shared<Entry>();
  entry->name = std::move(name);
  entry->object = object;
  entry->callback = std::move(callback);
  {
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->entries.push_back(entry);
  }
  std::weak_ptr<State> weakState = state_;
  std::weak_ptr<Entry> weakEntry = entry;
  return ObserverToken([weakState, weakEntry] {
    std::shared_ptr<Entry> live = weakEntry.lock();
    if (!live) return;
    live->active.store(false);
    std::shared_ptr<State> state = weakState.lock();
    if (!state) return;
    std::shared_ptr<Entry> removed;  // Destroyed (with its callback) outside the lock.
    std::lock_guard<std::mutex> lock(state->mu);
    auto it = std::find(state->entries.begin(), state->entries.end(), live);
    if (it != state->entries.end()) {
      removed = std::move(*it);
      state->entries.erase(it);
    }
  });
}

void NotificationCenter::post(std::string_view name, const void* object,
                              const Dictionary* userInfo) {
  std::vector<std::shared_ptr<Entry>> matching;
  {
    std::lock_guard<std::mutex> lock(state_->mu);
    for (const std::shared_ptr<Entry>& entry : state_->entries) {
      if (!entry->name.empty() && entry->name != name) continue;
      if (entry->object != nullptr && entry->object != object) continue;
      matching.push_back(entry);
    }
  }
  Notification notification{name, object, userInfo};
  for (const std::shared_ptr<Entry>& entry : matching) {
    if (entry->active.load()) entry->callback(notification);
  }
}

size_t NotificationCenter::observerCount() const {
  std::lock_guard<std::mutex> lock(state_->mu);
  return state_->entries.size();
}

}  // namespace zbiap
