#include "store/store_morvane_body.h"

#include <utility>

#include "zbiap/foundation/json.h"
#include "zbiap/foundation/value.h"
#include "zbiap/platform/http_client.h"
#include "zbiap/support/date_tools.h"

namespace zbiap {
namespace {

// NSJSONSerialization's error for text that is not JSON.
constexpr int64_t kJSONReadingErrorCode = 3840;

constexpr char kFieldMissing[] = "Required product field missing or wrong type.";

std::optional<AccountProductsBody> refuse(AccountBodyFailure* failure, std::string message,
                                          ZBIAPErrorPtr underlying = nullptr) {
  if (failure != nullptr) {
    failure->message = std::move(message);
    failure->underlying = std::move(underlying);
  }
  return std::nullopt;
}

}  // namespace

std::optional<AccountProductsBody> parseAccountProductsBody(std::string_view body,
                                                            AccountBodyFailure* failure) {
  std::string reason;
  std::optional<Value> parsed = parseJSONDocument(body, &reason);
  if (!parsed) {
    Dictionary info{{kNSDebugDescriptionKey, Value(reason)}};
    ZBIAPErrorPtr error =
        ZBIAPError::make(kNSCocoaErrorDomain, kJSONReadingErrorCode, std::move(info));
    std::string message = "Failed to decode JSON: " + error->description();
    return refuse(failure, std::move(message), std::move(error));
  }
  const Dictionary* top = parsed->asDictionary();
  if (top == nullptr) return refuse(failure, "Top-level JSON object is not a dictionary.");
  const Array* products = (*top)["products"].asArray();
  if (products == nullptr) {
    return refuse(failure, "Server response does not contains a products list.");
  }

  ZBIAPDateTools& dateTools = ZBIAPDateTools::dateTools();
  AccountProductsBody result;
  result.inAppPurchases.reserve(products->size());
  for (const Value& element : *products) {
    const Dictionary* product = element.asDictionary();
    if (product == nullptr) return refuse(failure, "Product is not a dictionary.");
    const std::string* identifier = (*product)["product_identifier"].asString();
    const std::string* purchasedAt = (*product)["purchased_at"].asString();
    // A JSON null under "valid_until" is present, and not a string.
    const Value* validUntilValue = product->find("valid_until");
    const std::string* validUntil = nullptr;
    if (validUntilValue != nullptr) {
      validUntil = validUntilValue->asString();
      if (validUntil == nullptr) return refuse(failure, kFieldMissing);
    }
    if (identifier == nullptr || purchasedAt == nullptr) return refuse(failure, kFieldMissing);

    std::optional<Date> purchaseDate = dateTools.dateFromRFC3339String(*purchasedAt);
    if (!purchaseDate) return refuse(failure, kFieldMissing);
    // An unreadable expiry is no expiry.
    std::optional<Date> expirationDate;
    if (validUntil != nullptr) expirationDate = dateTools.dateFromRFC3339String(*validUntil);

    Dictionary representation{
        {ZBIAPReceiptKeyIAPProductID, Value(*identifier)},
        {ZBIAPReceiptKeyIAPPurchaseDate, Value(*purchaseDate)},
        {ZBIAPReceiptKeyIAPOriginalPurchaseDate, Value(*purchaseDate)},
        {ZBIAPReceiptKeyIAPTransactionID, Value(kAccountDummyTransactionID)},
        {ZBIAPReceiptKeyIAPOriginalTransactionID, Value(kAccountDummyTransactionID)},
    };
    if (expirationDate) {
      representation.set(ZBIAPReceiptKeyIAPSubscriptionExpirationDate, Value(*expirationDate));
    }
    ZBIAPReceiptIAPPtr iap =
        ZBIAPReceiptIAP::initWithDictionaryRepresentation(representation, /*fromAppleStore=*/false);
    if (!iap) return refuse(failure, "Product conversion failed.");
    result.inAppPurchases.push_back(std::move(iap));
  }

  if (const Value* flag = top->find("is_existing_customer")) {
    std::optional<bool> value = flag->boolValue();
    if (!value) return refuse(failure, "Existing customer flag is not a boolean.");
    result.isExistingCustomer = *value;
  }
  return result;
}

}  // namespace zbiap
