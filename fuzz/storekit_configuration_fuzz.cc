// StoreKit configuration files from any bytes: the reader accepts them or says why, never
// crashes. What it accepts has an identifier for every product, free trials at no price, and
// warnings that can be built.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "zbiap/storekit/storekit_configuration.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error;
  const auto configuration = zbiap::StoreKitConfiguration::fromJSON(text, &error);
  if (!configuration) {
    if (error.empty()) std::abort();
    return 0;
  }
  for (const auto& product : configuration->products) {
    if (product.productID.empty()) std::abort();
    const auto& trial = product.introductoryOffer;
    if (trial && trial->paymentMode == SKProductDiscountPaymentModeFreeTrial &&
        !trial->displayPrice.isZero()) {
      std::abort();
    }
  }
  (void)configuration->warnings();
  return 0;
}
