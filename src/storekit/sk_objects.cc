// The StoreKit seam's plain objects: products, requests, payments and the default queue's entry
// points, which all defer to the current binding.
#include <fmt/format.h>

#include <utility>

#include "zbiap/storekit/sk_payment_queue.h"
#include "zbiap/storekit/sk_product.h"
#include "zbiap/storekit/sk_request.h"
#include "zbiap/storekit/storekit_binding.h"

std::string SKProduct::description() const {
  return fmt::format("<SKProduct: {} {}>", fmt::ptr(this), v_.productIdentifier);
}

std::string SKProductsResponse::description() const {
  return fmt::format("<SKProductsResponse: {} products={} invalid={}>", fmt::ptr(this),
                     products_.size(), invalid_.size());
}

std::shared_ptr<SKRequestDelegate> SKRequest::delegate() const {
  std::lock_guard<std::mutex> lock(mu_);
  return cancelled_ ? nullptr : delegate_.lock();
}

void SKRequest::setDelegate(std::weak_ptr<SKRequestDelegate> delegate) {
  std::lock_guard<std::mutex> lock(mu_);
  delegate_ = std::move(delegate);
}

void SKRequest::cancel() {
  std::lock_guard<std::mutex> lock(mu_);
  cancelled_ = true;
}

bool SKRequest::isCancelled() const {
  std::lock_guard<std::mutex> lock(mu_);
  return cancelled_;
}

void SKRequest::setAssociatedObject(const void* key, std::shared_ptr<void> value) {
  std::lock_guard<std::mutex> lock(mu_);
  if (value) {
    associated_[key] = std::move(value);
  } else {
    associated_.erase(key);
  }
}

std::shared_ptr<void> SKRequest::associatedObject(const void* key) const {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = associated_.find(key);
  return it == associated_.end() ? nullptr : it->second;
}

std::shared_ptr<SKProductsRequest> SKProductsRequest::initWithProductIdentifiers(
    std::set<std::string> productIdentifiers) {
  return std::shared_ptr<SKProductsRequest>(new SKProductsRequest(std::move(productIdentifiers)));
}

void SKProductsRequest::start() {
  zbiap::StoreKitBinding::current()->startProductsRequest(
      std::static_pointer_cast<SKProductsRequest>(shared_from_this()));
}

std::string SKProductsRequest::description() const {
  return fmt::format("<SKProductsRequest: {}>", fmt::ptr(this));
}

std::shared_ptr<SKReceiptRefreshRequest> SKReceiptRefreshRequest::initWithReceiptProperties(
    std::optional<zbiap::Dictionary> receiptProperties) {
  return std::shared_ptr<SKReceiptRefreshRequest>(
      new SKReceiptRefreshRequest(std::move(receiptProperties)));
}

void SKReceiptRefreshRequest::start() {
  zbiap::StoreKitBinding::current()->startReceiptRefreshRequest(
      std::static_pointer_cast<SKReceiptRefreshRequest>(shared_from_this()));
}

std::string SKReceiptRefreshRequest::description() const {
  return fmt::format("<SKReceiptRefreshRequest: {}>", fmt::ptr(this));
}

std::shared_ptr<const SKPayment> SKPayment::paymentWithProduct(const SKProductPtr& product) {
  if (!product) return nullptr;
  return std::shared_ptr<const SKPayment>(new SKPayment(product->productIdentifier(), 1));
}

std::shared_ptr<SKPaymentQueue> SKPaymentQueue::defaultQueue() {
  return zbiap::StoreKitBinding::current()->defaultQueue();
}

bool SKPaymentQueue::canMakePayments() {
  return zbiap::StoreKitBinding::current()->canMakePayments();
}
