// Every receipt of the shared test material against its sidecar's independent decoding: the
// reader must give what that decoding implies under the reader's attribute rules (which types
// are kept, skipped or reject the whole receipt), and the direct decoder must answer for every
// App Store receipt and agree with the tree decoder.
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <set>

#include "receipt/receipt_decoder.h"
#include "testing/testdata.h"
#include "tests/receipt/receipt_contents.h"
#include "zbiap/foundation/json.h"

namespace {

using zbiap::Dictionary;
using zbiap::Value;
using zbiap::internal::AttributeKind;
using zbiap::internal::AttributeRule;

// "2020-12-26T08:29:44Z", read here without the library's date code; nullopt for other forms.
std::optional<zbiap::Date> utcDate(const std::string& text) {
  std::tm tm{};
  const char* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &tm);
  if (end == nullptr || *end != '\0') return std::nullopt;
  return zbiap::Date::fromMicrosSince1970(static_cast<int64_t>(timegm(&tm)) * 1000000);
}

// The value an attribute of the sidecar decodes to for `kind`, or nil.
Value decoded(const Value& attribute, AttributeKind kind) {
  static const std::set<std::string> kStrings = {"UTF8String", "PrintableString", "IA5String"};
  const std::string tag = attribute["tag"].asString() ? *attribute["tag"].asString() : "";
  const Value& value = attribute["value"];
  if (kind == AttributeKind::kNumber) return tag == "INTEGER" ? value : Value();
  if (!kStrings.contains(tag)) return Value();
  if (kind == AttributeKind::kString) return value;
  if (!value.asString() || value.asString()->empty()) return Value();
  auto date = utcDate(*value.asString());
  EXPECT_TRUE(date.has_value()) << "unexpected date form " << *value.asString();
  return date ? Value(*date) : Value();
}

// Applies `attributes` by the reader's `rules` into `out`; false when the whole receipt must be
// rejected.
template <size_t N>
bool apply(const Value& attributes, const AttributeRule (&rules)[N], Dictionary* out) {
  for (size_t i = 0; i < attributes.size(); ++i) {
    for (const AttributeRule& rule : rules) {
      if (attributes[i]["type"].int64Value() != rule.type) continue;
      Value value = decoded(attributes[i], rule.kind);
      if (value.isNil() && rule.required) return false;
      if (!value.isNil()) out->set(rule.key, value);
    }
  }
  return true;
}

// The receipt dictionary the reader must give, or nullopt when it must reject the file.
std::optional<Dictionary> expectationFor(const Value& sidecar) {
  if (*sidecar["kind"].asString() != "receipt") return std::nullopt;
  const Value& receipt = sidecar["decoded"];
  // The content OCTET STRING in chunks closed by an end-of-contents marker (Xcode's form) is
  // a chunk mismatch for the parser.
  const std::string* content = receipt["container"]["econtent_octet_string"].asString();
  if (content && content->starts_with("constructed") &&
      content->find("indefinite") != std::string::npos) {
    return std::nullopt;
  }
  Dictionary expected;
  zbiap::Array purchases;
  const Value& attributes = receipt["attributes"];
  for (size_t i = 0; i < attributes.size(); ++i) {
    const Value& attribute = attributes[i];
    if (attribute["type"].int64Value() != zbiap::internal::kPurchaseAttribute) continue;
    const Value& tag = attribute["tag"];
    Dictionary purchase;
    if (!tag.asString() || (*tag.asString() != "SET" && *tag.asString() != "SEQUENCE") ||
        !apply(attribute["value"], zbiap::internal::kPurchaseRules, &purchase)) {
      return std::nullopt;
    }
    purchases.emplace_back(std::move(purchase));
  }
  if (!apply(attributes, zbiap::internal::kReceiptRules, &expected)) return std::nullopt;
  if (!purchases.empty()) expected.set(ZBIAPReceiptKeyIAPs, Value(std::move(purchases)));
  return expected;
}

TEST(ReceiptTestdataTest, EveryReceiptDecodesAsItsSidecarImplies) {
  ZBIAP_REQUIRE_TESTDATA();
  int files = 0, accepted = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(zbiap::testing::testdataDir() / "receipts")) {
    const std::filesystem::path file = entry.path();
    if (file.extension() != ".der" && file.extension() != ".bin") continue;
    ++files;
    SCOPED_TRACE(file.filename().string());
    auto sidecar = zbiap::parseJSON(
        zbiap::testing::readFile(std::filesystem::path(file).replace_extension(".json")));
    ASSERT_TRUE(sidecar.has_value());
    const std::optional<Dictionary> expected = expectationFor(*sidecar);

    auto parser = ZBIAPReceiptParser::initWithReceiptURL(file);
    if (!expected) {
      zbiap::testing::expectRejected(*parser);
      continue;
    }
    ++accepted;
    ASSERT_TRUE(parser->isLoaded()) << parser->lastError()->description();
    EXPECT_EQ(Value(parser->dictionaryRepresentation()), Value(*expected));
    // Records for the purchases that have the three required fields, all from the App Store.
    size_t complete = 0;
    const Value& iaps = (*expected)[ZBIAPReceiptKeyIAPs];
    for (size_t i = 0; i < iaps.size(); ++i) {
      complete += !iaps[i][ZBIAPReceiptKeyIAPProductID].isNil() &&
                  !iaps[i][ZBIAPReceiptKeyIAPTransactionID].isNil() &&
                  !iaps[i][ZBIAPReceiptKeyIAPPurchaseDate].isNil();
    }
    ASSERT_EQ(parser->inAppPurchases().size(), complete);
    for (const auto& record : parser->inAppPurchases()) EXPECT_TRUE(record->upgradable());
    EXPECT_EQ(parser->bundleIdentifier(),
              (*expected)[ZBIAPReceiptKeyBundleID].asString()
                  ? std::optional(*(*expected)[ZBIAPReceiptKeyBundleID].asString())
                  : std::nullopt);

    // App Store receipts are all in the plain form the direct decoder reads.
    const std::string bytes = zbiap::testing::readFile(file);
    zbiap::internal::DecodedReceipt direct, tree;
    const zbiap::Data data(bytes.begin(), bytes.end());
    const bool appStore = file.filename().string().starts_with("production-") ||
                          file.filename().string().starts_with("sandbox-");
    if (appStore) {
      ASSERT_TRUE(zbiap::internal::decodeReceiptDirect(data, &direct));
      ASSERT_TRUE(zbiap::internal::decodeReceiptWithTree(data, &tree));
      EXPECT_TRUE(zbiap::internal::sameContents(direct, tree));
    }
  }
  EXPECT_GE(files, 12);
  EXPECT_EQ(accepted, 8);

  // A few facts read off the files by hand, against a model and a reader wrong in the same way.
  auto mbaasy = ZBIAPReceiptParser::initWithReceiptURL(zbiap::testing::testdataDir() /
                                                       "receipts/sandbox-2015-mbaasy-7iap.der");
  EXPECT_EQ(mbaasy->bundleIdentifier(), "com.mbaasy.ios.demo");
  EXPECT_EQ(mbaasy->receiptCreationDate(), utcDate("2015-08-13T07:50:46Z"));
  ASSERT_EQ(mbaasy->inAppPurchases().size(), 7u);
  EXPECT_EQ(mbaasy->inAppPurchases()[0]->productIdentifier(), "consumable");
  EXPECT_EQ(mbaasy->inAppPurchases()[0]->transactionIdentifier(), "1000000166865231");
}

}  // namespace
