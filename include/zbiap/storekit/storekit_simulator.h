// zbiap::StoreKitSimulator: the local StoreKit, the default binding of the StoreKit seam on
// Linux. It sells the products of a StoreKitConfiguration: it answers products requests (prices
// in the storefront's currency, texts in the configured locale), runs payments through their
// states (purchasing, then purchased, failed or deferred) with outcomes scripted per product,
// restores completed transactions and refreshes the receipt. After every completed transaction
// it writes the App Store receipt (a real PKCS #7 file, through zbiap::ReceiptWriter) atomically
// (temporary file, then rename) at the receipt URL, by default the main bundle's.
//
// Every callback (transaction observers, request delegates) runs on the platform's main queue,
// as StoreKit's do, never with the simulator's lock held. Subscriptions expire after their
// period, shortened by the configuration's time rate, counted on the platform's clock. All
// members are thread-safe.
#ifndef ZBIAP_STOREKIT_STOREKIT_SIMULATOR_H_
#define ZBIAP_STOREKIT_STOREKIT_SIMULATOR_H_

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/error.h"
#include "zbiap/storekit/receipt_writer.h"
#include "zbiap/storekit/storekit_binding.h"
#include "zbiap/storekit/storekit_configuration.h"

namespace zbiap {

class ZBIAP_EXPORT StoreKitSimulator final
    : public StoreKitBinding,
      public SKPaymentQueue,
      public std::enable_shared_from_this<StoreKitSimulator> {
 public:
  // What a payment of one product does.
  struct Outcome {
    enum class Kind {
      kSucceed,            // purchased
      kFail,               // failed with `error` (SKErrorDomain code 0 when null)
      kCancel,             // failed with SKErrorDomain code 2 (the user cancelled)
      kDefer,              // deferred (ask to buy) until approveDeferred() or declineDeferred()
      kAlreadySubscribed,  // failed with SSServerErrorDomain code 3532
    };
    Kind kind = Kind::kSucceed;
    ZBIAPErrorPtr error;
  };

  // Null if the receipt writer cannot be made (OpenSSL failure).
  static std::shared_ptr<StoreKitSimulator> create(StoreKitConfiguration configuration);
  ~StoreKitSimulator() override;
  StoreKitSimulator(const StoreKitSimulator&) = delete;
  StoreKitSimulator& operator=(const StoreKitSimulator&) = delete;

  // Settings.
  void setStorefront(std::string alpha3);  // "DEU"
  std::string storefront() const;
  void setLocale(std::string locale);  // "de_DE"
  void setCanMakePayments(bool canMakePayments);
  void setTimeRate(int64_t timeRate);  // as StoreKitConfiguration::timeRate
  // Where receipts are written; nullopt (the default) means the main bundle's receipt URL.
  void setReceiptURL(std::optional<std::filesystem::path> url);
  std::filesystem::path receiptURL() const;

  // Scripting. An outcome set for a product applies to each of its payments until cleared; the
  // default follows the configuration's fail-transactions and ask-to-buy switches.
  void setOutcome(const std::string& productID, Outcome outcome);
  void clearOutcome(const std::string& productID);
  // Ends the oldest deferred payment of the product: purchased, or failed as cancelled.
  // Returns false when none is deferred.
  bool approveDeferred(const std::string& productID);
  bool declineDeferred(const std::string& productID);
  // Non-null: products requests, restores or receipt refreshes fail with this error.
  void setProductsRequestError(ZBIAPErrorPtr error);
  void setRestoreError(ZBIAPErrorPtr error);
  void setReceiptRefreshError(ZBIAPErrorPtr error);

  // Inspection and control of the purchase history that receipts are written from.
  std::vector<ReceiptPurchase> purchaseHistory() const;
  // Drops the history (as a new account would) without writing a receipt.
  void clearPurchaseHistory();
  // Writes the receipt now; false (with a system log line) when it cannot be written.
  bool writeReceipt();
  size_t receiptWriteCount() const;
  // The products of the configuration as the current storefront and locale show them.
  std::vector<SKProductPtr> products() const;

  // StoreKitBinding.
  std::shared_ptr<SKPaymentQueue> defaultQueue() override;
  bool canMakePayments() override;
  void startProductsRequest(std::shared_ptr<SKProductsRequest> request) override;
  void startReceiptRefreshRequest(std::shared_ptr<SKReceiptRefreshRequest> request) override;

  // SKPaymentQueue.
  void addTransactionObserver(std::weak_ptr<SKPaymentTransactionObserver> observer) override;
  void removeTransactionObserver(const SKPaymentTransactionObserver* observer) override;
  void addPayment(SKPaymentPtr payment) override;
  void finishTransaction(const SKPaymentTransactionPtr& transaction) override;
  void restoreCompletedTransactions() override;
  std::vector<SKPaymentTransactionPtr> transactions() const override;

 private:
  struct Observer {
    const SKPaymentTransactionObserver* address;
    std::weak_ptr<SKPaymentTransactionObserver> observer;
  };
  struct HistoryEntry {
    ReceiptPurchase purchase;
    StoreKitConfiguration::ProductType type;
    std::optional<std::string> groupID;
    bool consumed = false;  // a finished consumable: no longer in receipts
  };

  StoreKitSimulator(StoreKitConfiguration configuration, std::unique_ptr<ReceiptWriter> writer);

  SKProductPtr locked_product(const StoreKitConfiguration::Product& product) const;
  Outcome locked_outcomeFor(const std::string& productID) const;
  std::string locked_nextTransactionIdentifier();
  SKPaymentPtr paymentFor(const ReceiptPurchase& purchase) const;
  SKPaymentTransactionPtr locked_update(const SKPaymentTransactionPtr& transaction,
                                        SKPaymentTransactionState state, ZBIAPErrorPtr error);
  // Records the purchase in the history and returns the purchased transaction.
  SKPaymentTransactionPtr locked_purchase(const SKPaymentTransactionPtr& transaction);
  bool locked_writeReceipt();
  bool endDeferred(const std::string& productID, Outcome outcome);
  // Main queue: ends a payment as scripted and tells the observers.
  void settle(const SKPaymentTransactionPtr& transaction, Outcome outcome);
  void deliver(std::vector<SKPaymentTransactionPtr> batch);
  std::vector<std::shared_ptr<SKPaymentTransactionObserver>> liveObservers();
  void post(std::function<void()> task);

  mutable std::mutex mu_;
  StoreKitConfiguration configuration_;
  const std::unique_ptr<ReceiptWriter> writer_;
  bool canMakePayments_ = true;
  std::optional<std::filesystem::path> receiptURL_;
  std::map<std::string, Outcome> outcomes_;
  ZBIAPErrorPtr productsRequestError_;
  ZBIAPErrorPtr restoreError_;
  ZBIAPErrorPtr receiptRefreshError_;
  std::vector<Observer> observers_;
  std::map<uint64_t, SKPaymentTransactionPtr> unfinished_;  // by queue handle
  std::vector<SKPaymentTransactionPtr> deferred_;
  std::vector<HistoryEntry> history_;
  std::optional<Date> installDate_;
  std::optional<std::string> originalAppVersion_;
  uint64_t nextHandle_ = 0;
  uint64_t nextTransaction_ = 0;
  size_t receiptWrites_ = 0;
};

}  // namespace zbiap

#endif  // ZBIAP_STOREKIT_STOREKIT_SIMULATOR_H_
