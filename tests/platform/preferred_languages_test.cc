#include "zbiap/platform/preferred_languages.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace zbiap {
namespace {

using Languages = std::vector<std::string>;

TEST(PreferredLanguagesTest, LocaleNamesBecomeLanguageTags) {
  const std::pair<const char*, const char*> rows[] = {
      {"de_DE.UTF-8", "de-DE"}, {"en_GB", "en-GB"},           {"fr", "fr"},
      {"sr_RS@latin", "sr-RS"}, {"zh_Hant_TW", "zh-Hant-TW"}, {"es_419", "es-419"},
      {"PT_br", "pt-BR"},       {"de-AT", "de-AT"},
  };
  for (const auto& [name, tag] : rows) EXPECT_EQ(languageTagFromLocaleName(name), tag) << name;
  for (const char* bad : {"C", "POSIX", "C.UTF-8", "", ".UTF-8", "d", "de_", "_DE", "d3_DE",
                          "de_DEU1", "en_US_", "x y"}) {
    EXPECT_EQ(languageTagFromLocaleName(bad), std::nullopt) << bad;
  }
}

// LANGUAGE's list first, then the messages locale: LC_ALL over LC_MESSAGES over LANG; English
// when nothing is usable.
TEST(PreferredLanguagesTest, FromTheEnvironment) {
  const std::pair<std::map<std::string, std::string, std::less<>>, Languages> rows[] = {
      {{{"LANGUAGE", "de_DE:fr::en"}, {"LANG", "it_IT.UTF-8"}}, {"de-DE", "fr", "en", "it-IT"}},
      {{{"LANGUAGE", "en_GB:en_GB"}, {"LANG", "en_GB.UTF-8"}}, {"en-GB"}},
      {{{"LC_ALL", "ja_JP.UTF-8"}, {"LC_MESSAGES", "ko_KR"}, {"LANG", "de"}}, {"ja-JP"}},
      {{{"LC_ALL", ""}, {"LC_MESSAGES", "ko_KR"}, {"LANG", "de"}}, {"ko-KR"}},
      {{{"LANG", "nl_BE.ISO-8859-1"}}, {"nl-BE"}},
      {{}, {"en"}},
      {{{"LANG", "C.UTF-8"}}, {"en"}},
      {{{"LC_ALL", "POSIX"}, {"LANG", "de_DE"}}, {"en"}},
      {{{"LANGUAGE", ":::"}}, {"en"}},
  };
  for (const auto& [variables, languages] : rows) {
    // A lambda may not capture a structured binding (clang before 16).
    const auto& env = variables;
    EXPECT_EQ(preferredLanguagesFromLocale([&env](std::string_view name) {
                auto it = env.find(name);
                return it == env.end() ? std::nullopt : std::optional<std::string>(it->second);
              }),
              languages);
  }
}

}  // namespace
}  // namespace zbiap
