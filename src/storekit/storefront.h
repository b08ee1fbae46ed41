// Storefront helpers of the StoreKit simulator: ISO 3166-1 alpha-3 storefronts ("DEU") to the
// alpha-2 country ("DE") and its currency ("EUR"), and the price locale built from them.
#ifndef ZBIAP_SRC_STOREKIT_STOREFRONT_H_
#define ZBIAP_SRC_STOREKIT_STOREFRONT_H_

#include <string>
#include <string_view>

namespace zbiap::storekit {

// "DEU" -> "DE"; empty when unknown. Two-letter codes are passed through (upper-cased).
std::string countryOfStorefront(std::string_view storefront);
// "DE" -> "EUR"; empty when the country has no currency.
std::string currencyOfCountry(std::string_view country);
// "en_US" and "DEU" -> "en_DE@currency=EUR".
std::string priceLocaleFor(std::string_view locale, std::string_view storefront);

}  // namespace zbiap::storekit

#endif  // ZBIAP_SRC_STOREKIT_STOREFRONT_H_
