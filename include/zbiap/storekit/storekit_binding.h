// zbiap::StoreKitBinding: what stands behind the StoreKit seam in this process: the default
// payment queue, the payment switch and the handling of started requests. On Linux the default
// binding is a StoreKitSimulator with an empty configuration; a host or a test installs its own
// (a simulator with its .storekit file) before creating stores. An Apple build binds the seam to
// StoreKit itself.
//
// Bindings answer on the platform's main queue. current() and install() are thread-safe.
#ifndef ZBIAP_STOREKIT_STOREKIT_BINDING_H_
#define ZBIAP_STOREKIT_STOREKIT_BINDING_H_

#include <memory>

#include "zbiap/export.h"
#include "zbiap/storekit/sk_payment_queue.h"
#include "zbiap/storekit/sk_request.h"

namespace zbiap {

class ZBIAP_EXPORT StoreKitBinding {
 public:
  virtual ~StoreKitBinding() = default;

  // Never null: on first use, the default binding.
  static std::shared_ptr<StoreKitBinding> current();
  // Installs `binding` (null restores the default) and returns the previous one.
  static std::shared_ptr<StoreKitBinding> install(std::shared_ptr<StoreKitBinding> binding);

  virtual std::shared_ptr<SKPaymentQueue> defaultQueue() = 0;
  virtual bool canMakePayments() = 0;
  virtual void startProductsRequest(std::shared_ptr<SKProductsRequest> request) = 0;
  virtual void startReceiptRefreshRequest(std::shared_ptr<SKReceiptRefreshRequest> request) = 0;
};

}  // namespace zbiap

#endif  // ZBIAP_STOREKIT_STOREKIT_BINDING_H_
