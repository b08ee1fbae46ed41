// zbiap::ObserverList<T>: the observers of one observable property, the stand-in for key-value
// observing. The property's setter calls notify(old, new), which calls each observer
// synchronously on the setter's thread, in registration order. Observers added during a notify
// hear the next one; an observer removed (its token reset) is not called again on that thread.
// Tokens may outlive the list. Thread-safe; copying makes no sense and is deleted.
#ifndef ZBIAP_PLATFORM_OBSERVER_LIST_H_
#define ZBIAP_PLATFORM_OBSERVER_LIST_H_

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "zbiap/platform/observer_token.h"

namespace zbiap {

template <typename T>
class ObserverList {
 public:
  using Callback = std::function<void(const T& oldValue, const T& newValue)>;

  ObserverList() : state_(std::make_shared<State>()) {}
  ObserverList(const ObserverList&) = delete;
  ObserverList& operator=(const ObserverList&) = delete;

  ObserverToken observe(Callback callback) {
    auto entry = std::make_shared<Entry>();
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
      std::shared_ptr<Entry> removed;  // Released outside the lock.
      std::lock_guard<std::mutex> lock(state->mu);
      auto it = std::find(state->entries.begin(), state->entries.end(), live);
      if (it != state->entries.end()) {
        removed = std::move(*it);
        state->entries.erase(it);
      }
    });
  }

  void notify(const T& oldValue, const T& newValue) const {
    std::vector<std::shared_ptr<Entry>> snapshot;
    {
      std::lock_guard<std::mutex> lock(state_->mu);
      if (state_->entries.empty()) return;
      snapshot = state_->entries;
    }
    for (const std::shared_ptr<Entry>& entry : snapshot) {
      if (entry->active.load()) entry->callback(oldValue, newValue);
    }
  }

  bool empty() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return state_->entries.empty();
  }
  size_t size() const {
    std::lock_guard<std::mutex> lock(state_->mu);
    return state_->entries.size();
  }

 private:
  struct Entry {
    Callback callback;
    std::atomic<bool> active{true};
  };
  struct State {
    std::mutex mu;
    std::vector<std::shared_ptr<Entry>> entries;
  };
  std::shared_ptr<State> state_;
};

}  // namespace zbiap

#endif  // ZBIAP_PLATFORM_OBSERVER_LIST_H_
