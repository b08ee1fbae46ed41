#include "zbiap/platform/preferred_languages.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace zbiap {
namespace {

std::vector<std::string> languagesWith(std::map<std::string, std::string, std::less<>> env) {
  return preferredLanguagesFromLocale([&env](std::string_view name) -> std::optional<std::string> {
    auto it = env.find(name);
    if (it == env.end()) return std::nullopt;
    return it->second;
  });
}

using Languages = std::vector<std::string>;

TEST(PreferredLanguagesTest, LocaleNamesBecomeLanguageTags) {
  EXPECT_EQ(languageTagFromLocaleName("de_DE.UTF-8"), "de-DE");
  EXPECT_EQ(languageTagFromLocaleName("en_GB"), "en-GB");
  EXPECT_EQ(languageTagFromLocaleName("fr"), "fr");
  EXPECT_EQ(languageTagFromLocaleName("sr_RS@latin"), "sr-RS");
  EXPECT_EQ(languageTagFromLocaleName("zh_Hant_TW"), "zh-Hant-TW");
  EXPECT_EQ(languageTagFromLocaleName("es_419"), "es-419");
  EXPECT_EQ(languageTagFromLocaleName("PT_br"), "pt-BR");
  EXPECT_EQ(languageTagFromLocaleName("de-AT"), "de-AT");
  for (const char* bad : {"C", "POSIX", "C.UTF-8", "", ".UTF-8", "d", "de_", "_DE", "d3_DE",
                          "de_DEU1", "en_US_", "x y"}) {
    EXPECT_EQ(languageTagFromLocaleName(bad), std::nullopt) << bad;
  }
}

TEST(PreferredLanguagesTest, LanguageListComesFirstThenTheMessagesLocale) {
  EXPECT_EQ(languagesWith({{"LANGUAGE", "de_DE:fr::en"}, {"LANG", "it_IT.UTF-8"}}),
            (Languages{"de-DE", "fr", "en", "it-IT"}));
  EXPECT_EQ(languagesWith({{"LANGUAGE", "en_GB:en_GB"}, {"LANG", "en_GB.UTF-8"}}),
            (Languages{"en-GB"}));
}

TEST(PreferredLanguagesTest, LcAllOverridesLcMessagesWhichOverridesLang) {
  EXPECT_EQ(languagesWith({{"LC_ALL", "ja_JP.UTF-8"}, {"LC_MESSAGES", "ko_KR"}, {"LANG", "de"}}),
            (Languages{"ja-JP"}));
  EXPECT_EQ(languagesWith({{"LC_ALL", ""}, {"LC_MESSAGES", "ko_KR"}, {"LANG", "de"}}),
            (Languages{"ko-KR"}));
  EXPECT_EQ(languagesWith({{"LANG", "nl_BE.ISO-8859-1"}}), (Languages{"nl-BE"}));
}

TEST(PreferredLanguagesTest, NothingUsableMeansEnglish) {
  EXPECT_EQ(languagesWith({}), (Languages{"en"}));
  EXPECT_EQ(languagesWith({{"LANG", "C.UTF-8"}}), (Languages{"en"}));
  EXPECT_EQ(languagesWith({{"LC_ALL", "POSIX"}, {"LANG", "de_DE"}}), (Languages{"en"}));
  EXPECT_EQ(languagesWith({{"LANGUAGE", ":::"}}), (Languages{"en"}));
}

}  // namespace
}  // namespace zbiap
