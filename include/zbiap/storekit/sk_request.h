// SKRequest and its kinds (SKProductsRequest, SKReceiptRefreshRequest), SKProductsResponse and
// the delegates, as the StoreKit seam declares them.
//
// A request holds its delegate weakly; whoever starts it keeps it alive (the binding holds it
// too until it has answered). start() hands the request to the current StoreKit binding, which
// calls the delegate later on the main queue: productsRequest() with the response, then
// requestDidFinish(), or request() with an error. Associated objects let the starter hang its
// own data on a request (keyed by an address of its own). Thread-safe.
#ifndef ZBIAP_STOREKIT_SK_REQUEST_H_
#define ZBIAP_STOREKIT_SK_REQUEST_H_

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/error.h"
#include "zbiap/foundation/value.h"
#include "zbiap/storekit/sk_product.h"

class SKRequest;
class SKProductsRequest;

class ZBIAP_EXPORT SKRequestDelegate {
 public:
  virtual ~SKRequestDelegate() = default;
  virtual void requestDidFinish(const std::shared_ptr<SKRequest>& request) { (void)request; }
  // request:didFailWithError:
  virtual void request(const std::shared_ptr<SKRequest>& request, ZBIAPErrorPtr error) {
    (void)request;
    (void)error;
  }
};

class ZBIAP_EXPORT SKProductsResponse {
 public:
  SKProductsResponse(std::vector<SKProductPtr> products,
                     std::vector<std::string> invalidProductIdentifiers)
      : products_(std::move(products)), invalid_(std::move(invalidProductIdentifiers)) {}
  const std::vector<SKProductPtr>& products() const { return products_; }
  const std::vector<std::string>& invalidProductIdentifiers() const { return invalid_; }
  std::string description() const;

 private:
  const std::vector<SKProductPtr> products_;
  const std::vector<std::string> invalid_;
};

class ZBIAP_EXPORT SKProductsRequestDelegate : public SKRequestDelegate {
 public:
  // productsRequest:didReceiveResponse:
  virtual void productsRequest(const std::shared_ptr<SKProductsRequest>& request,
                               const std::shared_ptr<const SKProductsResponse>& response) = 0;
};

class ZBIAP_EXPORT SKRequest : public std::enable_shared_from_this<SKRequest> {
 public:
  virtual ~SKRequest() = default;
  SKRequest(const SKRequest&) = delete;
  SKRequest& operator=(const SKRequest&) = delete;

  std::shared_ptr<SKRequestDelegate> delegate() const;
  void setDelegate(std::weak_ptr<SKRequestDelegate> delegate);
  // Sends the request through the current StoreKit binding.
  virtual void start() = 0;
  // The delegate hears nothing more from this request.
  void cancel();
  bool isCancelled() const;

  void setAssociatedObject(const void* key, std::shared_ptr<void> value);
  std::shared_ptr<void> associatedObject(const void* key) const;

  // "<SKProductsRequest: 0x...>"
  virtual std::string description() const = 0;

 protected:
  SKRequest() = default;

 private:
  mutable std::mutex mu_;
  std::weak_ptr<SKRequestDelegate> delegate_;
  std::map<const void*, std::shared_ptr<void>> associated_;
  bool cancelled_ = false;
};

class ZBIAP_EXPORT SKProductsRequest final : public SKRequest {
 public:
  static std::shared_ptr<SKProductsRequest> initWithProductIdentifiers(
      std::set<std::string> productIdentifiers);
  const std::set<std::string>& productIdentifiers() const { return productIdentifiers_; }
  void start() override;
  std::string description() const override;

 private:
  explicit SKProductsRequest(std::set<std::string> ids) : productIdentifiers_(std::move(ids)) {}
  const std::set<std::string> productIdentifiers_;
};

class ZBIAP_EXPORT SKReceiptRefreshRequest final : public SKRequest {
 public:
  // `receiptProperties` may be null (nullopt).
  static std::shared_ptr<SKReceiptRefreshRequest> initWithReceiptProperties(
      std::optional<zbiap::Dictionary> receiptProperties);
  const std::optional<zbiap::Dictionary>& receiptProperties() const { return properties_; }
  void start() override;
  std::string description() const override;

 private:
  explicit SKReceiptRefreshRequest(std::optional<zbiap::Dictionary> properties)
      : properties_(std::move(properties)) {}
  const std::optional<zbiap::Dictionary> properties_;
};

#endif  // ZBIAP_STOREKIT_SK_REQUEST_H_
