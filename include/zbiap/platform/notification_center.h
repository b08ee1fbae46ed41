// zbiap::NotificationCenter: named notifications delivered synchronously, Foundation's
// notification centre.
//
// post() calls every matching observer on the posting thread, in registration order, before it
// returns. An observer registered with a null object hears every sender, one with a non-null
// object only posts from that sender; an empty name hears every name. Observers added or removed
// during a post take effect for later posts, except that a removed observer is never called
// after its removal on the removing thread. Thread-safe.
#ifndef ZBIAP_PLATFORM_NOTIFICATION_CENTER_H_
#define ZBIAP_PLATFORM_NOTIFICATION_CENTER_H_

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "zbiap/export.h"
#include "zbiap/foundation/value.h"
#include "zbiap/platform/observer_token.h"

namespace zbiap {

struct ZBIAP_EXPORT Notification {
  std::string_view name;
  const void* object = nullptr;          // The sender, or null.
  const Dictionary* userInfo = nullptr;  // Null when the post carried none.
};

class ZBIAP_EXPORT NotificationCenter {
 public:
  using Callback = std::function<void(const Notification&)>;

  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  // The process's centre; it lives for the whole process.
  static NotificationCenter& defaultCenter();

  // Keep the token for as long as the observer should hear notifications.
  ObserverToken addObserver(std::string name, const void* object, Callback callback);
  void post(std::string_view name, const void* object, const Dictionary* userInfo = nullptr);

  // Number of registered observers (for tests and diagnostics).
  size_t observerCount() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace zbiap

#endif  // ZBIAP_PLATFORM_NOTIFICATION_CENTER_H_
