// Reading product infos and features from their JSON objects: requirement levels, the inactive
// rule, the messages, what each field accepts, the language choice and colours.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "catalog/hex_color.h"
#include "testing/test_platform.h"
#include "zbiap/catalog/product_feature.h"
#include "zbiap/catalog/product_info.h"
#include "zbiap/foundation/json.h"

namespace zbiap {
namespace {

Value json(std::string_view text) { return parseJSON(text).value(); }

// The fields a record has, in a line; empty ones are left out. "-" for no record.
std::string fields(const std::shared_ptr<ZBIAPProductInfoV1>& dpi) {
  if (!dpi) return "-";
  std::string out = dpi->productIdentifier() + (dpi->active() ? "" : " inactive");
  auto add = [&out](const char* name, const std::string* text) {
    if (text) out += std::string(" ") + name + "=" + *text;
  };
  add("title", dpi->localizedTitle());
  add("subtitle", dpi->localizedSubtitle());
  add("description", dpi->localizedDescription());
  add("header", dpi->localizedHeader());
  add("trial", dpi->localizedFreeTrialTitle());
  add("icon", dpi->iconText());
  add("group", dpi->subscriptionGroupID());
  add("featureGroupID", dpi->featureGroupID());
  if (!dpi->sortKey().isNil()) out += " sort=" + dpi->sortKey().description();
  if (dpi->oldPrice()) out += " old=" + dpi->oldPrice()->toString();
  if (dpi->titleColor()) out += " titleColor=" + dpi->titleColor()->hexString();
  if (dpi->backgroundColor()) out += " background=" + dpi->backgroundColor()->hexString();
  if (dpi->defaultVisible()) out += " visible";
  if (dpi->requiresAccount()) out += " account";
  if (dpi->ignoreSubscriptionGroupForNewCustomers()) out += " newCustomers";
  if (!dpi->featureGroup().isNil()) out += " featureGroup";
  if (!dpi->metadata().isNil()) out += " metadata";
  if (dpi->featureSet()) out += " features=" + std::to_string(dpi->featureSet()->size());
  if (dpi->featureMetadata()) {
    out += " featureMetadata=" + std::to_string(dpi->featureMetadata()->size());
  }
  return out;
}

class ProductInfoReaderTest : public ::testing::Test {
 protected:
  // The messages logged since the last call, short: "missing:title", "feature failed:identifier".
  std::string messages() {
    std::string out;
    for (std::string line : platform_.logLines()) {
      for (const auto& [from, to] : {std::pair{"Dynamic IAP Feature: ", "feature "},
                                     {"Dynamic IAP: ", ""},
                                     {"Required key '", "missing:"},
                                     {"Parsing the required key '", "failed:"}}) {
        if (size_t at = line.find(from); at != std::string::npos) {
          line.replace(at, std::strlen(from), to);
        }
      }
      out += (out.empty() ? "" : " ") + line.substr(0, line.find('\''));
    }
    platform_.clearLog();
    return out;
  }
  // An inactive product "a" with `extra` keys.
  std::string read(const std::string& extra) {
    return fields(ZBIAPProductInfoV1::initWithDictionary(
        json(R"({"identifier":"a","inactive":true)" + extra + "}")));
  }

  testing::TestPlatform platform_;
};

struct Row {
  std::string json;
  const char* read;
  const char* messages;
};

TEST_F(ProductInfoReaderTest, RequirementLevelsAndMessages) {
  const Row rows[] = {
      {R"({"identifier":"pro","inactive":false,"title":"Pro","sort_key":3,"unknown":[1,2]})",
       "pro title=Pro sort=3", ""},
      // Inactive excuses missing collected keys, never malformed ones; a key of the same length
      // is another key.
      {R"({"identifier":"old","inactive":true})", "old inactive", ""},
      {R"({"identifier":"old","inactive":false,"titlf":"T"})", "-",
       "missing:title missing:sort_key"},
      {R"({"identifier":"x","inactive":1,"title":null})", "-", "failed:title"},
      {R"({"identifier":"x","inactive":1,"title":"t","sort_key":null})", "-", "failed:sort_key"},
      {R"({"identifier":"x","inactive":1,"sort_key":"5"})", "-", "failed:sort_key"},
      // Immediate keys stop the reader at the first fault, in the table's order; so does a
      // malformed title, before the missing sort key would be reported.
      {R"({"title":[],"sort_key":1})", "-", "missing:identifier"},
      {R"({"identifier":["a"],"inactive":false})", "-", "failed:identifier"},
      {R"({"identifier":"a"})", "-", "missing:inactive"},
      {R"({"identifier":"a","inactive":"true","title":"t","sort_key":1})", "-", "failed:inactive"},
      {R"({"identifier":null,"inactive":false,"title":"t","sort_key":1})", "-",
       "failed:identifier"},
      {R"({"identifier":"a","inactive":null,"title":"t","sort_key":1})", "-", "failed:inactive"},
      {R"({"identifier":"a","inactive":false,"title":{"fr":"seul"}})", "-", "failed:title"},
      // Strings take numbers as their text; a boolean is a number.
      {R"({"identifier":42,"inactive":false,"title":"t","sort_key":1})", "42 title=t sort=1", ""},
      {R"({"identifier":true,"inactive":0,"title":"t","sort_key":true})", "1 title=t sort=1", ""},
      {R"({"identifier":9.99,"inactive":false,"title":"t","sort_key":1})", "9.99 title=t sort=1",
       ""},
      {"null", "-", ""},
      {"[{}]", "-", ""},
      {R"("pro")", "-", ""},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(fields(ZBIAPProductInfoV1::initWithDictionary(json(row.json))), row.read) << row.json;
    EXPECT_EQ(messages(), row.messages) << row.json;
  }
  const Row features[] = {
      {R"({"identifier":"sync","extra":1})", "sync", ""},
      {R"({"identifier":{}})", "-", "feature failed:identifier"},
      {R"({"identifier":null})", "-", "feature failed:identifier"},
      {R"({"metadata":{}})", "-", "feature missing:identifier"},
      {"42", "-", ""},
  };
  for (const Row& row : features) {
    auto feature = ZBIAPProductFeatureV1::initWithDictionary(json(row.json));
    EXPECT_EQ(feature ? feature->identifier() : "-", row.read) << row.json;
    EXPECT_EQ(messages(), row.messages) << row.json;
  }
}

TEST_F(ProductInfoReaderTest, OptionalFieldsIgnoreWhatTheyCannotRead) {
  const Row rows[] = {
      {R"(,"title":"T","subtitle":null,"description":7,"metadata":[],"feature_group":"g",)"
       R"("features":{},"features_metadata":"x","old_price":[1],"title_color":5,)"
       R"("default_visible":"yes","requires_account":null,"feature_group_id":{"x":1})",
       "a inactive title=T", ""},
      {R"(,"default_visible":1,"requires_account":true,"new_customers_visible":2,"iap_group":7,)"
       R"("icon_text":"I","free_trial_title":"F","metadata":{"a":1},"feature_group":{"g":1})",
       "a inactive trial=F icon=I group=7 visible account newCustomers featureGroup metadata", ""},
      // Old prices are exact decimals; text that is no number is not-a-number.
      {R"(,"old_price":"9.99")", "a inactive old=9.99", ""},
      {R"(,"old_price":0.1)", "a inactive old=0.1", ""},
      {R"(,"old_price":"12345678901234567890.5")", "a inactive old=12345678901234567890.5", ""},
      {R"(,"old_price":"nine")", "a inactive old=NaN", ""},
      {R"(,"old_price":true)", "a inactive old=1", ""},
      {R"(,"old_price":null)", "a inactive", ""},
      // "sync" once; 1, true and 1.0 are one number; the text "1" is not; equal objects once.
      {R"(,"features":["sync","sync",1,true,"1",1.0,{"k":[1]},{"k":[1]}])", "a inactive features=4",
       ""},
      // The set keeps the features that read; the rejected one reports itself.
      {R"(,"features_metadata":[{"identifier":"sync","metadata":{"limit":3}},42,)"
       R"({"metadata":{}},"x",{"identifier":7,"metadata":"ignored"}])",
       "a inactive featureMetadata=2", "feature missing:identifier"},
      {R"(,"features_metadata":[1,[]])", "a inactive featureMetadata=0", ""},
      // Colours: "#rgb" or "#rrggbb", the "#" optional, any case; else none.
      {R"(,"background_color":"#1a2B3c","title_color":"fff")",
       "a inactive titleColor=#ffffff background=#1a2b3c", ""},
      {R"(,"background_color":"1a2B3c")", "a inactive background=#1a2b3c", ""},
      {R"(,"background_color":"#abc")", "a inactive background=#aabbcc", ""},
      {R"(,"background_color":"ABC")", "a inactive background=#aabbcc", ""},
      {R"(,"background_color":"#fzz")", "a inactive background=#ff0000", ""},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(read(row.json), row.read) << row.json;
    EXPECT_EQ(messages(), row.messages) << row.json;
  }
  for (const char* bad : {"#1a2B3", "1a2B3c4", "#1g2b3c", "zab", "", "#", "##ab", "#12345678"}) {
    EXPECT_EQ(read(std::string(R"(,"background_color":")") + bad + "\""), "a inactive") << bad;
  }
  auto dpi = ZBIAPProductInfoV1::initWithDictionary(
      json(R"({"identifier":"a","inactive":true,"features_metadata":[{"identifier":"sync",)"
           R"("metadata":{"limit":3}},{"identifier":7,"metadata":"ignored"}]})"));
  EXPECT_EQ(dpi->metadataForFeatureIdentifier("sync")->metadata(), json(R"({"limit":3})"));
  EXPECT_TRUE(dpi->metadataForFeatureIdentifier("7")->metadata().isNil());
  EXPECT_EQ(dpi->metadataForFeatureIdentifier("export"), nullptr);
  // The very dictionary, unknown keys included, is kept rather than copied.
  const Value dictionary = json(R"({"identifier":"sync","extra":1})");
  auto feature = ZBIAPProductFeatureV1::initWithDictionary(dictionary);
  EXPECT_EQ(feature->dictionaryRepresentation().asDictionary(), dictionary.asDictionary());
  EXPECT_EQ(ZBIAPProductInfoV1::initWithDictionary(dpi->dictionaryRepresentation())
                ->dictionaryRepresentation()
                .asDictionary(),
            dpi->dictionaryRepresentation().asDictionary());
}

TEST_F(ProductInfoReaderTest, TextsInTheFirstPreferredLanguageElseGerman) {
  constexpr char kFrenchAndGerman[] = R"({"fr":"Bonjour","de":"Hallo"})";
  // A plain text is taken whatever the language; an entry that is not a text counts as absent;
  // a required title without a match is a fault, an optional text stays empty.
  const struct {
    std::vector<std::string> languages;
    std::string extra;
    const char* read;
  } rows[] = {
      {{"fr-FR", "en-US"}, kFrenchAndGerman, "a inactive title=Bonjour"},
      {{"en-GB", "fr-FR"}, kFrenchAndGerman, "a inactive title=Hallo"},
      {{}, kFrenchAndGerman, "a inactive title=Hallo"},
      {{"ja"}, R"("Plain")", "a inactive title=Plain"},
      {{"fr"}, R"({"fr":7,"de":"Hallo"})", "a inactive title=Hallo"},
      {{"f"}, R"({"f":"Eff","de":"Hallo"})", "a inactive title=Eff"},
      {{"fr-FR"}, R"({"en":"Hello"})", "-"},
      {{"fr-FR"}, R"({})", "-"},
      {{"fr-FR"}, R"(["Hello"])", "-"},
      {{"en"},
       R"("T","subtitle":{"fr":"Salut"},"header":{"de":"Kopf"})",
       "a inactive title=T header=Kopf"},
  };
  for (const auto& row : rows) {
    platform_.setPreferredLanguages(row.languages);
    EXPECT_EQ(read(R"(,"title":)" + row.extra), row.read) << row.extra;
    EXPECT_EQ(messages(), std::string(row.read) == "-" ? "failed:title" : "") << row.extra;
  }
  // An override is used whole, whatever the user's languages.
  platform_.setEnv("ZBIAP_OVERRIDE_LOCALE", "fr");
  EXPECT_EQ(read(R"(,"title":{"fr-CA":"Allo","fr":"Bonjour"})"), "a inactive title=Bonjour");
  platform_.setEnv("ZBIAP_OVERRIDE_LOCALE", "fr-CA");
  EXPECT_EQ(read(R"(,"title":{"fr-CA":"Allo","fr":"Bonjour"})"), "a inactive title=Allo");
  // One language choice serves a whole catalogue.
  CatalogLanguage french("fr");
  EXPECT_EQ(fields(ZBIAPProductInfoV1::initWithDictionary(
                json(R"({"identifier":"a","inactive":true,"title":{"fr":"Bonjour","de":"H"},)"
                     R"("subtitle":{"fr":"Salut","de":"Hallo"}})"),
                french)),
            "a inactive title=Bonjour subtitle=Salut");
}

TEST(HexColorTest, FollowsTheCLibraryConversion) {
  const std::pair<const char*, const char*> rows[] = {
      // strtoul skips blanks and takes a sign, and each pair must be consumed whole.
      {" f0000", "#0f0000"},
      {"0x0000", "-"},
      {"f 0000", "-"},
      // Lengths count UTF-16 units: "é" is one, so "#fé" + "é" is four and reads as red; an
      // astral character is two units.
      {"#f\xc3\xa9\xc3\xa9", "#ff0000"},
      {"\xc3\xa9"
       "ab",
       "-"},
      {"ab\xc3\xa9"
       "def",
       "-"},
      {"a\xf0\x9f\x98\x80", "#aa0000"},
      {"\xff\xfe\xfd", "-"},
  };
  for (const auto& [text, hex] : rows) {
    auto color = colorFromHexString(text);
    EXPECT_EQ(color ? color->hexString() : "-", hex) << text;
  }
}

}  // namespace
}  // namespace zbiap
