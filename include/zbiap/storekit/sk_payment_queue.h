// SKPayment, SKPaymentTransaction, SKPaymentTransactionObserver and SKPaymentQueue, as the
// StoreKit seam declares them.
//
// The default queue is the current StoreKit binding's. It holds its observers weakly (an
// observer removes itself when it goes) and tells them of transactions on the main queue, in
// batches; every batch names each transaction's state at that moment. A transaction stays in
// the queue until finishTransaction(). Thread-safe.
#ifndef ZBIAP_STOREKIT_SK_PAYMENT_QUEUE_H_
#define ZBIAP_STOREKIT_SK_PAYMENT_QUEUE_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/date.h"
#include "zbiap/foundation/error.h"
#include "zbiap/storekit/sk_product.h"

class SKPaymentQueue;

class ZBIAP_EXPORT SKPayment {
 public:
  static std::shared_ptr<const SKPayment> paymentWithProduct(const SKProductPtr& product);
  const std::string& productIdentifier() const { return productIdentifier_; }
  int64_t quantity() const { return quantity_; }

 private:
  SKPayment(std::string productIdentifier, int64_t quantity)
      : productIdentifier_(std::move(productIdentifier)), quantity_(quantity) {}
  const std::string productIdentifier_;
  const int64_t quantity_;
};

using SKPaymentPtr = std::shared_ptr<const SKPayment>;

enum SKPaymentTransactionState : int64_t {
  SKPaymentTransactionStatePurchasing = 0,
  SKPaymentTransactionStatePurchased = 1,
  SKPaymentTransactionStateFailed = 2,
  SKPaymentTransactionStateRestored = 3,
  SKPaymentTransactionStateDeferred = 4,
};

class SKPaymentTransaction;
using SKPaymentTransactionPtr = std::shared_ptr<const SKPaymentTransaction>;

// One transaction as its queue reported it at one moment.
class ZBIAP_EXPORT SKPaymentTransaction {
 public:
  struct Values {
    SKPaymentPtr payment;
    SKPaymentTransactionState transactionState = SKPaymentTransactionStatePurchasing;
    std::optional<std::string> transactionIdentifier;  // set once purchased or restored
    std::optional<zbiap::Date> transactionDate;
    ZBIAPErrorPtr error;                          // set when failed
    SKPaymentTransactionPtr originalTransaction;  // set when restored
    // The queue's own handle of the transaction, the same in every state reported.
    uint64_t queueHandle = 0;
  };
  explicit SKPaymentTransaction(Values values) : v_(std::move(values)) {}

  const SKPaymentPtr& payment() const { return v_.payment; }
  SKPaymentTransactionState transactionState() const { return v_.transactionState; }
  const std::optional<std::string>& transactionIdentifier() const {
    return v_.transactionIdentifier;
  }
  const std::optional<zbiap::Date>& transactionDate() const { return v_.transactionDate; }
  const ZBIAPErrorPtr& error() const { return v_.error; }
  const SKPaymentTransactionPtr& originalTransaction() const { return v_.originalTransaction; }
  uint64_t queueHandle() const { return v_.queueHandle; }

 private:
  const Values v_;
};

class ZBIAP_EXPORT SKPaymentTransactionObserver {
 public:
  virtual ~SKPaymentTransactionObserver() = default;
  // paymentQueue:updatedTransactions:
  virtual void paymentQueue(SKPaymentQueue& queue,
                            const std::vector<SKPaymentTransactionPtr>& transactions) = 0;
  virtual void paymentQueueRestoreCompletedTransactionsFinished(SKPaymentQueue& queue) {
    (void)queue;
  }
  // paymentQueue:restoreCompletedTransactionsFailedWithError:
  virtual void paymentQueue(SKPaymentQueue& queue, ZBIAPErrorPtr error) {
    (void)queue;
    (void)error;
  }
};

class ZBIAP_EXPORT SKPaymentQueue {
 public:
  virtual ~SKPaymentQueue() = default;

  // The current StoreKit binding's queue; never null.
  static std::shared_ptr<SKPaymentQueue> defaultQueue();
  // Whether the user may make payments on this device.
  static bool canMakePayments();

  virtual void addTransactionObserver(std::weak_ptr<SKPaymentTransactionObserver> observer) = 0;
  // By address, so that an observer can remove itself while it is being destroyed.
  virtual void removeTransactionObserver(const SKPaymentTransactionObserver* observer) = 0;
  virtual void addPayment(SKPaymentPtr payment) = 0;
  virtual void finishTransaction(const SKPaymentTransactionPtr& transaction) = 0;
  virtual void restoreCompletedTransactions() = 0;
  // The transactions not yet finished, in their latest state.
  virtual std::vector<SKPaymentTransactionPtr> transactions() const = 0;
};

#endif  // ZBIAP_STOREKIT_SK_PAYMENT_QUEUE_H_
