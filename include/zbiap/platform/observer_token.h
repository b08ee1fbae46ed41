// zbiap::ObserverToken: the handle of one registered observer (notification centre, observer
// lists). Destroying or reset()ting it removes the observer; it is safe to do so from any thread,
// from inside the observer's own callback, and after the observed object is gone. Move-only.
#ifndef ZBIAP_PLATFORM_OBSERVER_TOKEN_H_
#define ZBIAP_PLATFORM_OBSERVER_TOKEN_H_

#include <functional>
#include <utility>

namespace zbiap {

class [[nodiscard]] ObserverToken {
 public:
  ObserverToken() = default;
  explicit ObserverToken(std::function<void()> remove) : remove_(std::move(remove)) {}
  ~ObserverToken() { reset(); }
  ObserverToken(ObserverToken&& other) noexcept : remove_(std::exchange(other.remove_, nullptr)) {}
  ObserverToken& operator=(ObserverToken&& other) noexcept {
    if (this != &other) {
      reset();
      remove_ = std::exchange(other.remove_, nullptr);
    }
    return *this;
  }
  ObserverToken(const ObserverToken&) = delete;
  ObserverToken& operator=(const ObserverToken&) = delete;

  // Removes the observer now; later calls do nothing.
  void reset() {
    if (auto remove = std::exchange(remove_, nullptr)) remove();
  }
  // Whether the token still holds a registration.
  explicit operator bool() const { return static_cast<bool>(remove_); }

 private:
  std::function<void()> remove_;
};

}  // namespace zbiap

#endif  // ZBIAP_PLATFORM_OBSERVER_TOKEN_H_
