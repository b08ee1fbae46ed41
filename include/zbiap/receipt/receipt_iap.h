// ZBIAPReceiptIAP: one purchase a store knows of, an immutable record that can be built from
// and turned into a dictionary with fixed keys. Shared freely between threads
// (ZBIAPReceiptIAPPtr); the receipt- and record-level dictionary keys are declared here.
#ifndef ZBIAP_RECEIPT_RECEIPT_IAP_H_
#define ZBIAP_RECEIPT_RECEIPT_IAP_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "zbiap/export.h"
#include "zbiap/foundation/date.h"
#include "zbiap/foundation/value.h"

// Keys of a purchase record's dictionary.
inline constexpr char ZBIAPReceiptKeyIAPProductID[] = "ProductID";
inline constexpr char ZBIAPReceiptKeyIAPQuantity[] = "Quantity";
inline constexpr char ZBIAPReceiptKeyIAPTransactionID[] = "TransactionID";
inline constexpr char ZBIAPReceiptKeyIAPOriginalTransactionID[] = "OrigTransactionID";
inline constexpr char ZBIAPReceiptKeyIAPPurchaseDate[] = "PurchaseDate";
inline constexpr char ZBIAPReceiptKeyIAPOriginalPurchaseDate[] = "OrigPurchaseDate";
inline constexpr char ZBIAPReceiptKeyIAPSubscriptionExpirationDate[] = "SubscripExpDate";
inline constexpr char ZBIAPReceiptKeyIAPCancellationDate[] = "CancelDate";
inline constexpr char ZBIAPReceiptKeyIAPWebOrderLineItemID[] = "WebOrderLineItemID";

// Keys of the whole receipt's dictionary. The receipt's original purchase date shares its
// text with the record's on purpose.
inline constexpr char ZBIAPReceiptKeyBundleID[] = "BundleID";
inline constexpr char ZBIAPReceiptKeyAppVersion[] = "AppVer";
inline constexpr char ZBIAPReceiptKeyOriginalAppVersion[] = "OrigAppVer";
inline constexpr char ZBIAPReceiptKeyOriginalPurchaseDate[] = "OrigPurchaseDate";
inline constexpr char ZBIAPReceiptKeyCreationDate[] = "CreationDate";
inline constexpr char ZBIAPReceiptKeyEnvironment[] = "Environment";
inline constexpr char ZBIAPReceiptKeyExpirationDate[] = "ExpirationDate";
inline constexpr char ZBIAPReceiptKeyIAPs[] = "IAPs";

class ZBIAPReceiptIAP;
using ZBIAPReceiptIAPPtr = std::shared_ptr<const ZBIAPReceiptIAP>;

class ZBIAP_EXPORT ZBIAPReceiptIAP final {
  struct PrivateKey {
    explicit PrivateKey() = default;
  };

 public:
  // Only for create(): records come from the factories. Public so that one allocation can hold
  // the record and its reference count.
  explicit ZBIAPReceiptIAP(PrivateKey) {}

  // Stores the ten values as given, without any check. Never null.
  static ZBIAPReceiptIAPPtr initWithProductIdentifier(std::string productIdentifier, int64_t quantity,
                                   std::string transactionIdentifier,
                                   std::optional<std::string> originalTransactionIdentifier,
                                   zbiap::Date purchaseDate,
                                   std::optional<zbiap::Date> originalPurchaseDate,
                                   std::optional<zbiap::Date> subscriptionExpirationDate,
                                   std::optional<zbiap::Date> cancellationDate,
                                   int64_t webOrderLineItemID, bool upgradable);

  // A record from its dictionary form, or null when a required field is missing or of the
  // wrong type (the reason goes to the system log). `fromAppleStore` becomes `upgradable`.
  static ZBIAPReceiptIAPPtr initWithDictionaryRepresentation(const zbiap::Dictionary& dictionary,
                                                         bool fromAppleStore);
  // Null for a nil value or one that is not a dictionary.
  static ZBIAPReceiptIAPPtr initWithDictionaryRepresentation(const zbiap::Value& dictionary,
                                                         bool fromAppleStore);

  ZBIAPReceiptIAP(const ZBIAPReceiptIAP&) = delete;
  ZBIAPReceiptIAP& operator=(const ZBIAPReceiptIAP&) = delete;

  bool upgradable() const { return upgradable_; }
  const std::string& productIdentifier() const { return productIdentifier_; }
  int64_t quantity() const { return quantity_; }
  const std::string& transactionIdentifier() const { return transactionIdentifier_; }
  const std::optional<std::string>& originalTransactionIdentifier() const {
    return originalTransactionIdentifier_;
  }
  zbiap::Date purchaseDate() const { return purchaseDate_; }
  const std::optional<zbiap::Date>& originalPurchaseDate() const { return originalPurchaseDate_; }
  const std::optional<zbiap::Date>& subscriptionExpirationDate() const {
    return subscriptionExpirationDate_;
  }
  const std::optional<zbiap::Date>& cancellationDate() const { return cancellationDate_; }
  int64_t webOrderLineItemID() const { return webOrderLineItemID_; }

  // The five required keys always (numbers for "Quantity" and "WebOrderLineItemID"), the
  // optional ones when present; `upgradable` is not written.
  zbiap::Dictionary dictionaryRepresentation() const;

  // Equal when product identifier, the four dates, quantity, web order line item ID and
  // upgradable agree; the transaction identifiers take no part.
  bool isEqual(const ZBIAPReceiptIAP& other) const;
  friend bool operator==(const ZBIAPReceiptIAP& a, const ZBIAPReceiptIAP& b) {
    return a.isEqual(b);
  }
  // Includes originalTransactionIdentifier although equality does not.
  size_t hash() const;
  // "<ZBIAPReceiptIAP: 0x… product 2024-03-05 10:20:30 +0000 - 2024-04-05 10:20:30 +0000>"
  // with an expiration date, "<ZBIAPReceiptIAP: 0x… product>" without.
  std::string description() const;

 private:
  bool upgradable_ = false;
  std::string productIdentifier_;
  int64_t quantity_ = 0;
  std::string transactionIdentifier_;
  std::optional<std::string> originalTransactionIdentifier_;
  zbiap::Date purchaseDate_;
  std::optional<zbiap::Date> originalPurchaseDate_;
  std::optional<zbiap::Date> subscriptionExpirationDate_;
  std::optional<zbiap::Date> cancellationDate_;
  int64_t webOrderLineItemID_ = 0;
};

template <>
struct std::hash<ZBIAPReceiptIAP> {
  size_t operator()(const ZBIAPReceiptIAP& iap) const { return iap.hash(); }
};

// Whatever can list purchase records.
class ZBIAP_EXPORT ZBIAPReceiptProvider {
 public:
  virtual ~ZBIAPReceiptProvider() = default;
  virtual std::vector<ZBIAPReceiptIAPPtr> inAppPurchases() const = 0;
};

#endif  // ZBIAP_RECEIPT_RECEIPT_IAP_H_
