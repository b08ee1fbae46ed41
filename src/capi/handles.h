// The C API's handles and the helpers every part of it shares: the calling thread's last error,
// the count of live objects that keeps the platform from going away under them, and the
// delivery of request outcomes to the host's callbacks.
#ifndef ZBIAP_CAPI_HANDLES_H_
#define ZBIAP_CAPI_HANDLES_H_

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "zbiap/catalog/product_info_v1_fetcher.h"
#include "zbiap/foundation/error.h"
#include "zbiap/manager/manager.h"
#include "zbiap/platform/observer_token.h"
#include "zbiap/store/store.h"
#include "zbiap/zbiap_c.h"

// An error as the C API shows it: texts kept beside the error so that the pointers handed out
// stay valid as long as the zbiap_error does.
struct zbiap_error {
  explicit zbiap_error(ZBIAPErrorPtr error);
  ZBIAPErrorPtr error;
  std::string description;
  std::unique_ptr<zbiap_error> underlying;
};

struct zbiap_store {
  std::shared_ptr<ZBIAPStore> store;
  // What the store needs alive but does not own itself (the account store's host delegate,
  // those of a compound store's members).
  std::vector<std::shared_ptr<void>> keep;
};

struct zbiap_fetcher {
  std::shared_ptr<ZBIAPProductInfoV1Fetcher> fetcher;
};

namespace zbiap::capi {

inline constexpr char kErrorDomain[] = "ZBIAPCErrorDomain";

// Closed when the handle that issued callbacks is destroyed, so that later outcomes are dropped.
// Callbacks run under the lock, so destroying waits for a running one (the same thread may
// destroy from inside one).
struct CallbackGate {
  std::recursive_mutex mutex;
  bool open = true;
};

// Sets the calling thread's last error and returns `status`.
int fail(int status, const std::string& message);
// ZBIAP_ERROR_FAILED with the library's `error` (a generic one when null).
int failWith(const ZBIAPErrorPtr& error);
// ZBIAP_ERROR_INVALID_ARGUMENT naming the null argument.
int nullArgument(const char* name);

// The number of live stores, fetchers and managers; the simulator and the platform refuse to
// go while there are any.
std::atomic<int>& liveObjects();
// WRONG_STATE unless a platform has been made through the C API.
int requirePlatform();

// Runs `body`, turning an exception (none is expected; memory may run out) into a failure, so
// that nothing is thrown across the C boundary.
template <typename Body>
int guarded(Body body) noexcept {
  try {
    return body();
  } catch (const std::exception& e) {
    return fail(ZBIAP_ERROR_FAILED, e.what());
  } catch (...) {
    return fail(ZBIAP_ERROR_FAILED, "unexpected failure");
  }
}

// Calls `deliver` on the main queue unless `gate` has closed by then.
void deliverOnMainQueue(std::shared_ptr<CallbackGate> gate, std::function<void()> deliver);

// A request's outcome: a failure that arrives while the call that started it is still running
// is returned by that call; anything else goes to the host's callback on the main queue.
class Outcome {
 public:
  explicit Outcome(std::shared_ptr<CallbackGate> gate) : gate_(std::move(gate)) {}
  // Called by the C++ completion, on any thread. `failed` with `error`: the request failed.
  void complete(bool failed, ZBIAPErrorPtr error, std::function<void(const zbiap_error*)> deliver);
  // Called once the C++ call returned: ZBIAP_OK, or the early failure.
  int returned();

 private:
  std::shared_ptr<CallbackGate> gate_;
  std::mutex mutex_;
  bool returned_ = false;
  bool failedEarly_ = false;
  ZBIAPErrorPtr error_;
};

}  // namespace zbiap::capi

struct zbiap_manager {
  std::shared_ptr<ZBIAPManager> manager;
  std::vector<std::shared_ptr<void>> keep;
  std::shared_ptr<zbiap::capi::CallbackGate> gate = std::make_shared<zbiap::capi::CallbackGate>();
  zbiap::ObserverToken observer;
};

#endif  // ZBIAP_CAPI_HANDLES_H_
