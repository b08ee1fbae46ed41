#include "storekit/storefront.h"

#include <unicode/ucurr.h>
#include <unicode/uloc.h>

#include <cctype>
#include <string>

namespace zbiap::storekit {

namespace {

std::string upper(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

}  // namespace

std::string countryOfStorefront(std::string_view storefront) {
  const std::string code = upper(storefront);
  if (code.size() == 2) return code;
  if (code.size() != 3) return {};
  for (const char* const* country = uloc_getISOCountries(); *country; ++country) {
    const std::string locale = std::string("und_") + *country;
    if (code == uloc_getISO3Country(locale.c_str())) return *country;
  }
  return {};
}

std::string currencyOfCountry(std::string_view country) {
  if (country.empty()) return {};
  const std::string locale = "und_" + std::string(country);
  UChar buffer[8] = {};
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = ucurr_forLocale(locale.c_str(), buffer, 8, &status);
  if (U_FAILURE(status) || length <= 0 || length > 7) return {};
  std::string out;
  for (int32_t i = 0; i < length; ++i) out += static_cast<char>(buffer[i]);
  return out;
}

std::string priceLocaleFor(std::string_view locale, std::string_view storefront) {
  std::string language(locale.substr(0, locale.find_first_of("_-@")));
  if (language.empty()) language = "en";
  const std::string country = countryOfStorefront(storefront);
  std::string out = language;
  if (!country.empty()) out += "_" + country;
  const std::string currency = currencyOfCountry(country);
  if (!currency.empty()) out += "@currency=" + currency;
  return out;
}

}  // namespace zbiap::storekit
