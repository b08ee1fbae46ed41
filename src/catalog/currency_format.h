// Currency texts for prices: the store product's price written as its price locale writes money
// ("9,99 €" for "de_DE@currency=EUR", "$9.99" for "en_US@currency=USD").
#ifndef ZBIAP_CATALOG_CURRENCY_FORMAT_H_
#define ZBIAP_CATALOG_CURRENCY_FORMAT_H_

#include <optional>
#include <string>

#include "zbiap/foundation/decimal.h"

namespace zbiap {

// `amount` in the currency style of `localeIdentifier` (an ICU locale name with an optional
// "@currency=" keyword), rounded half-even to the currency's digits, with the locale's own
// spaces (often U+00A0 or U+202F). Not-a-number gives the locale's NaN text. nullopt only when
// ICU cannot build a formatter. Any thread; formatters are kept per thread and locale.
std::optional<std::string> formatCurrency(const Decimal& amount,
                                          const std::string& localeIdentifier);

}  // namespace zbiap

#endif  // ZBIAP_CATALOG_CURRENCY_FORMAT_H_
