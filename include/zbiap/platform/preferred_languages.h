// zbiap::preferredLanguagesFromLocale: the user's preferred languages as POSIX locale variables
// give them, as BCP 47 tags, most preferred first.
//
// LANGUAGE (a colon list) comes first, then the one locale in effect for messages: LC_ALL, else
// LC_MESSAGES, else LANG. "de_DE.UTF-8" gives "de-DE", "sr_RS@latin" gives "sr-RS"; "C",
// "POSIX" and malformed entries are skipped, duplicates dropped. Nothing usable gives {"en"}.
#ifndef ZBIAP_PLATFORM_PREFERRED_LANGUAGES_H_
#define ZBIAP_PLATFORM_PREFERRED_LANGUAGES_H_

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zbiap/export.h"

namespace zbiap {

using EnvironmentLookup = std::function<std::optional<std::string>(std::string_view name)>;

ZBIAP_EXPORT std::vector<std::string> preferredLanguagesFromLocale(const EnvironmentLookup& getenv);

// One POSIX locale name as a BCP 47 tag; nullopt for "C", "POSIX" and malformed names.
ZBIAP_EXPORT std::optional<std::string> languageTagFromLocaleName(std::string_view locale);

}  // namespace zbiap

#endif  // ZBIAP_PLATFORM_PREFERRED_LANGUAGES_H_
