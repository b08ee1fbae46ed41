// Localized texts (the language choice and the German fallback) and colour texts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "catalog/hex_color.h"
#include "tests/catalog/record_test_fixture.h"
#include "zbiap/catalog/product_info.h"

namespace zbiap {
namespace {

using ::testing::IsEmpty;

class ProductInfoTextTest : public testing::RecordTest {
 protected:
  // The title read from `title` (JSON), or nullopt when the product is rejected.
  std::optional<std::string> title(const std::string& titleJSON) {
    auto dpi = ZBIAPProductInfoV1::initWithDictionary(
        json(R"({"identifier":"a","inactive":false,"sort_key":1,"title":)" + titleJSON + "}"));
    if (dpi == nullptr) return std::nullopt;
    return *dpi->localizedTitle();
  }
};

constexpr char kFrenchAndGerman[] = R"({"fr":"Bonjour","de":"Hallo"})";

TEST_F(ProductInfoTextTest, FirstPreferredLanguageElseGerman) {
  // A plain text is taken whatever the language; an entry that is not a text counts as absent.
  const struct {
    std::vector<std::string> languages;
    const char* titleJSON;
    const char* title;
  } rows[] = {
      {{"fr-FR", "en-US"}, kFrenchAndGerman, "Bonjour"},
      {{"en-GB", "fr-FR"}, kFrenchAndGerman, "Hallo"},
      {{"ja"}, kFrenchAndGerman, "Hallo"},
      {{}, kFrenchAndGerman, "Hallo"},
      {{"ja"}, R"("Plain")", "Plain"},
      {{"fr"}, R"({"fr":7,"de":"Hallo"})", "Hallo"},
      {{"f"}, R"({"f":"Eff","de":"Hallo"})", "Eff"},
  };
  for (const auto& row : rows) {
    platform().setPreferredLanguages(row.languages);
    EXPECT_EQ(title(row.titleJSON), row.title) << row.titleJSON;
  }
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ProductInfoTextTest, OverrideIsUsedWholeWhateverTheUser) {
  platform().setPreferredLanguages({"de-DE"});
  platform().setEnv("ZBIAP_OVERRIDE_LOCALE", "fr");
  EXPECT_EQ(title(kFrenchAndGerman), "Bonjour");
  platform().setEnv("ZBIAP_OVERRIDE_LOCALE", "fr-CA");
  EXPECT_EQ(title(kFrenchAndGerman), "Hallo");
  EXPECT_EQ(title(R"({"fr-CA":"Allo","fr":"Bonjour"})"), "Allo");
}

TEST_F(ProductInfoTextTest, NoMatchAndNoGermanRejectsTheTitle) {
  platform().setPreferredLanguages({"fr-FR"});
  EXPECT_EQ(title(R"({"en":"Hello"})"), std::nullopt);
  EXPECT_EQ(title(R"({})"), std::nullopt);
  EXPECT_EQ(title(R"(["Hello"])"), std::nullopt);
  EXPECT_EQ(log().size(), 3u);
  EXPECT_EQ(log()[0], "Dynamic IAP: Parsing the required key 'title' failed!");
  // An optional text without a match stays empty, silently.
  platform().clearLog();
  auto dpi = ZBIAPProductInfoV1::initWithDictionary(
      json(R"({"identifier":"a","inactive":true,"subtitle":{"en":"Hi"},"header":{"de":"Kopf"}})"));
  ASSERT_NE(dpi, nullptr);
  EXPECT_EQ(dpi->localizedSubtitle(), nullptr);
  EXPECT_EQ(*dpi->localizedHeader(), "Kopf");
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ProductInfoTextTest, OneLanguageChoiceServesAWholeCatalogue) {
  platform().setPreferredLanguages({"de"});
  CatalogLanguage french("fr");
  auto dpi = ZBIAPProductInfoV1::initWithDictionary(
      json(R"({"identifier":"a","inactive":false,"sort_key":1,"title":{"fr":"Bonjour","de":"H"},)"
           R"("subtitle":{"fr":"Salut","de":"Hallo"}})"),
      french);
  ASSERT_NE(dpi, nullptr);
  EXPECT_EQ(*dpi->localizedTitle(), "Bonjour");
  EXPECT_EQ(*dpi->localizedSubtitle(), "Salut");
}

// Colours.

TEST_F(ProductInfoTextTest, ColoursInEveryAcceptedForm) {
  auto color = [&](const std::string& text) -> std::optional<ZBIAPColor> {
    auto dpi = ZBIAPProductInfoV1::initWithDictionary(
        json(R"({"identifier":"a","inactive":true,"background_color":")" + text + "\"}"));
    EXPECT_NE(dpi, nullptr) << text;
    return dpi ? dpi->backgroundColor() : std::nullopt;
  };
  const ZBIAPColor expected = ZBIAPColor::fromRGBA(0x1a / 255.0, 0x2b / 255.0, 0x3c / 255.0, 1);
  EXPECT_EQ(color("#1a2B3c"), expected);
  EXPECT_EQ(color("1a2B3c"), expected);
  EXPECT_EQ(color("#abc"), ZBIAPColor::fromRGBA(0xaa / 255.0, 0xbb / 255.0, 0xcc / 255.0, 1));
  EXPECT_EQ(color("ABC"), color("#aabbcc"));
  EXPECT_EQ(color("#fzz"), ZBIAPColor::fromRGBA(1, 0, 0, 1));
  for (const char* bad : {"#1a2B3", "1a2B3c4", "#1g2b3c", "zab", "", "#", "##ab", "#12345678"}) {
    EXPECT_EQ(color(bad), std::nullopt) << bad;
  }
  EXPECT_THAT(log(), IsEmpty());
}

TEST(HexColorTest, FollowsTheCLibraryConversion) {
  // strtoul skips blanks and takes a sign, and each pair must be consumed whole.
  EXPECT_EQ(colorFromHexString(" f0000"), ZBIAPColor::fromRGBA(15 / 255.0, 0, 0, 1));
  EXPECT_EQ(colorFromHexString("0x0000"), std::nullopt);
  EXPECT_EQ(colorFromHexString("f 0000"), std::nullopt);
  // Lengths count UTF-16 units: "é" is one, so "#fé" + "é" is four and reads as red.
  EXPECT_EQ(colorFromHexString("#f\xc3\xa9\xc3\xa9"), ZBIAPColor::fromRGBA(1, 0, 0, 1));
  EXPECT_EQ(colorFromHexString("\xc3\xa9"
                               "ab"),
            std::nullopt);
  EXPECT_EQ(colorFromHexString("ab\xc3\xa9"
                               "def"),
            std::nullopt);
  // An astral character is two units.
  EXPECT_EQ(colorFromHexString("a\xf0\x9f\x98\x80"), ZBIAPColor::fromRGBA(170 / 255.0, 0, 0, 1));
  // Bytes that are no UTF-8 are defined too.
  EXPECT_EQ(colorFromHexString("\xff\xfe\xfd"), std::nullopt);
}

}  // namespace
}  // namespace zbiap
