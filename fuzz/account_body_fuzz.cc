// The account server's products answer: any bytes give either records or one clean refusal.
// Records always carry the fixed transaction identifiers and their purchase date as original
// purchase date, and survive their dictionary form; only a body that is no JSON carries the
// decoder's error.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "store/store_morvane_body.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  zbiap::AccountBodyFailure failure;
  const auto parsed = zbiap::parseAccountProductsBody(body, &failure);
  if (!parsed) {
    if (failure.message.empty()) std::abort();
    const bool decoding = failure.message.rfind("Failed to decode JSON: ", 0) == 0;
    if (decoding != (failure.underlying != nullptr)) std::abort();
    return 0;
  }
  for (const ZBIAPReceiptIAPPtr& iap : parsed->inAppPurchases) {
    if (!iap || iap->upgradable()) std::abort();
    if (iap->transactionIdentifier() != zbiap::kAccountDummyTransactionID) std::abort();
    if (iap->originalPurchaseDate() != iap->purchaseDate()) std::abort();
    const auto again = ZBIAPReceiptIAP::initWithDictionaryRepresentation(
        iap->dictionaryRepresentation(), /*fromAppleStore=*/false);
    if (!again || !again->isEqual(*iap)) std::abort();
  }
  return 0;
}
