#include "zbiap/receipt/receipt_iap.h"

#include <fmt/format.h>

#include <utility>

#include "zbiap/platform/platform.h"

namespace {

// The value under `key`, or null when the key is absent (a nil value counts as absent).
const zbiap::Value* present(const zbiap::Dictionary& dictionary, const char* key) {
  const zbiap::Value* value = dictionary.find(key);
  return (value == nullptr || value->isNil()) ? nullptr : value;
}

void systemLog(const std::string& line) { zbiap::Platform::current().systemLog(line); }

template <typename T>
size_t hashOptional(const std::optional<T>& value) {
  return value ? std::hash<T>()(*value) : 0;
}

}  // namespace

ZBIAPReceiptIAPPtr ZBIAPReceiptIAP::initWithProductIdentifier(std::string productIdentifier, int64_t quantity,
                                           std::string transactionIdentifier,
                                           std::optional<std::string> originalTransactionIdentifier,
                                           zbiap::Date purchaseDate,
                                           std::optional<zbiap::Date> originalPurchaseDate,
                                           std::optional<zbiap::Date> subscriptionExpirationDate,
                                           std::optional<zbiap::Date> cancellationDate,
                                           int64_t webOrderLineItemID, bool upgradable) {
  auto iap = std::make_shared<ZBIAPReceiptIAP>(PrivateKey());
  iap->upgradable_ = upgradable;
  iap->productIdentifier_ = std::move(productIdentifier);
  iap->quantity_ = quantity;
  iap->transactionIdentifier_ = std::move(transactionIdentifier);
  iap->originalTransactionIdentifier_ = std::move(originalTransactionIdentifier);
  iap->purchaseDate_ = purchaseDate;
  iap->originalPurchaseDate_ = originalPurchaseDate;
  iap->subscriptionExpirationDate_ = subscriptionExpirationDate;
  iap->cancellationDate_ = cancellationDate;
  iap->webOrderLineItemID_ = webOrderLineItemID;
  return iap;
}

ZBIAPReceiptIAPPtr ZBIAPReceiptIAP::initWithDictionaryRepresentation(const zbiap::Value& dictionary,
                                                                 bool fromAppleStore) {
  const zbiap::Dictionary* dict = dictionary.asDictionary();
  if (dict == nullptr) return nullptr;
  return initWithDictionaryRepresentation(*dict, fromAppleStore);
}

ZBIAPReceiptIAPPtr ZBIAPReceiptIAP::initWithDictionaryRepresentation(
    const zbiap::Dictionary& dictionary, bool fromAppleStore) {
  int64_t quantity = 0;
  if (const zbiap::Value* value = present(dictionary, ZBIAPReceiptKeyIAPQuantity)) {
    if (!value->isNumber()) {
      systemLog("Quantity is not a number!");
      return nullptr;
    }
    quantity = value->int64Value().value_or(0);
  }

  int64_t webOrderLineItemID = 0;
  if (const zbiap::Value* value = present(dictionary, ZBIAPReceiptKeyIAPWebOrderLineItemID)) {
    if (value->isNumber()) {
      webOrderLineItemID = value->int64Value().value_or(0);
    } else {
      systemLog("Web Order Line Item ID is not a number!");
    }
  }

  const zbiap::Value* productIdentifier = present(dictionary, ZBIAPReceiptKeyIAPProductID);
  const zbiap::Value* transactionIdentifier = present(dictionary, ZBIAPReceiptKeyIAPTransactionID);
  const zbiap::Value* purchaseDate = present(dictionary, ZBIAPReceiptKeyIAPPurchaseDate);
  if (productIdentifier == nullptr || !productIdentifier->isString() ||
      transactionIdentifier == nullptr || !transactionIdentifier->isString() ||
      purchaseDate == nullptr || !purchaseDate->isDate()) {
    systemLog(
        fmt::format("Missing required field for In-App Purchase or field has a wrong type: {}",
                    zbiap::Value(dictionary).description()));
    return nullptr;
  }

  std::optional<zbiap::Date> subscriptionExpirationDate;
  if (const zbiap::Value* value =
          present(dictionary, ZBIAPReceiptKeyIAPSubscriptionExpirationDate)) {
    if (!value->isDate()) {
      systemLog(
          fmt::format("Wrong type for Supscription Expiration Date: '{}'", value->description()));
      return nullptr;
    }
    subscriptionExpirationDate = *value->asDate();
  }

  std::optional<std::string> originalTransactionIdentifier;
  if (const zbiap::Value* value = present(dictionary, ZBIAPReceiptKeyIAPOriginalTransactionID)) {
    if (value->isString()) {
      originalTransactionIdentifier = *value->asString();
    } else {
      systemLog(fmt::format("Wrong type for Original Transaction Identifier: '{}'",
                            value->description()));
    }
  }

  std::optional<zbiap::Date> originalPurchaseDate;
  if (const zbiap::Value* value = present(dictionary, ZBIAPReceiptKeyIAPOriginalPurchaseDate)) {
    if (value->isDate()) {
      originalPurchaseDate = *value->asDate();
    } else {
      systemLog(fmt::format("Wrong type for Original Purchase Date: '{}'", value->description()));
    }
  }

  std::optional<zbiap::Date> cancellationDate;
  if (const zbiap::Value* value = present(dictionary, ZBIAPReceiptKeyIAPCancellationDate)) {
    if (value->isDate()) {
      cancellationDate = *value->asDate();
    } else {
      systemLog(fmt::format("Wrong type for Cancellation Date: '{}'", value->description()));
    }
  }

  return initWithProductIdentifier(*productIdentifier->asString(), quantity, *transactionIdentifier->asString(),
                std::move(originalTransactionIdentifier), *purchaseDate->asDate(),
                originalPurchaseDate, subscriptionExpirationDate, cancellationDate,
                webOrderLineItemID, fromAppleStore);
}

zbiap::Dictionary ZBIAPReceiptIAP::dictionaryRepresentation() const {
  zbiap::Dictionary dictionary;
  dictionary.reserve(9);
  dictionary.set(ZBIAPReceiptKeyIAPProductID, productIdentifier_);
  dictionary.set(ZBIAPReceiptKeyIAPTransactionID, transactionIdentifier_);
  dictionary.set(ZBIAPReceiptKeyIAPQuantity, quantity_);
  dictionary.set(ZBIAPReceiptKeyIAPPurchaseDate, purchaseDate_);
  dictionary.set(ZBIAPReceiptKeyIAPWebOrderLineItemID, webOrderLineItemID_);
  if (originalTransactionIdentifier_) {
    dictionary.set(ZBIAPReceiptKeyIAPOriginalTransactionID, *originalTransactionIdentifier_);
  }
  if (originalPurchaseDate_) {
    dictionary.set(ZBIAPReceiptKeyIAPOriginalPurchaseDate, *originalPurchaseDate_);
  }
  if (subscriptionExpirationDate_) {
    dictionary.set(ZBIAPReceiptKeyIAPSubscriptionExpirationDate, *subscriptionExpirationDate_);
  }
  if (cancellationDate_) dictionary.set(ZBIAPReceiptKeyIAPCancellationDate, *cancellationDate_);
  return dictionary;
}

bool ZBIAPReceiptIAP::isEqual(const ZBIAPReceiptIAP& other) const {
  if (this == &other) return true;
  return productIdentifier_ == other.productIdentifier_ && purchaseDate_ == other.purchaseDate_ &&
         originalPurchaseDate_ == other.originalPurchaseDate_ &&
         subscriptionExpirationDate_ == other.subscriptionExpirationDate_ &&
         cancellationDate_ == other.cancellationDate_ && quantity_ == other.quantity_ &&
         webOrderLineItemID_ == other.webOrderLineItemID_ && upgradable_ == other.upgradable_;
}

size_t ZBIAPReceiptIAP::hash() const {
  return std::hash<std::string>()(productIdentifier_) ^
         hashOptional(originalTransactionIdentifier_) ^ purchaseDate_.hash() ^
         hashOptional(originalPurchaseDate_) ^ hashOptional(subscriptionExpirationDate_) ^
         hashOptional(cancellationDate_) ^ std::hash<int64_t>()(quantity_) ^
         std::hash<int64_t>()(webOrderLineItemID_) ^ (upgradable_ ? 1u : 0u);
}

std::string ZBIAPReceiptIAP::description() const {
  if (subscriptionExpirationDate_) {
    return fmt::format("<ZBIAPReceiptIAP: {} {} {} - {}>", fmt::ptr(this), productIdentifier_,
                       purchaseDate_.description(), subscriptionExpirationDate_->description());
  }
  return fmt::format("<ZBIAPReceiptIAP: {} {}>", fmt::ptr(this), productIdentifier_);
}
