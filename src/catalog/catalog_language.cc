#include <optional>
#include <string>
#include <vector>

#include "zbiap/catalog/key_table.h"
#include "zbiap/platform/platform.h"

namespace zbiap {

std::string CatalogLanguage::current() {
  Platform& platform = Platform::current();
  if (std::optional<std::string> override = platform.environmentValue("ZBIAP_OVERRIDE_LOCALE")) {
    return std::move(*override);
  }
  // Two characters of the first preferred language: "en-GB" gives "en". A shorter tag is taken
  // as it is.
  std::vector<std::string> languages = platform.preferredLanguages();
  if (languages.empty()) return std::string();
  return languages.front().substr(0, 2);
}

}  // namespace zbiap
