#include "catalog/record_reader.h"

#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include "catalog/hex_color.h"
#include "zbiap/platform/platform.h"

using zbiap::CatalogLanguage;
using zbiap::RecordReader;
using zbiap::RequirementLevel;
using zbiap::Value;
using FeatureField = ZBIAPProductFeatureV1::Field;
using InfoField = ZBIAPProductInfoV1::Field;

const std::array<zbiap::KeyTableEntry<ZBIAPProductFeatureV1>, 2> gFeatureEntries = {{
    {&RecordReader::parseString<ZBIAPProductFeatureV1>, "identifier", FeatureField::kIdentifier,
     RequirementLevel::kImmediate},
    {&RecordReader::parseDictionary<ZBIAPProductFeatureV1>, "metadata", FeatureField::kMetadata,
     RequirementLevel::kOptional},
}};

const std::array<zbiap::KeyTableEntry<ZBIAPProductInfoV1>, 25> gEntries = {{
    {&RecordReader::parseColor, "background_color", InfoField::kBackgroundColor,
     RequirementLevel::kOptional},
    {&RecordReader::parseLocalizedString, "description", InfoField::kLocalizedDescription,
     RequirementLevel::kOptional},
    {&RecordReader::parseLocalizedString, "free_trial_title", InfoField::kLocalizedFreeTrialTitle,
     RequirementLevel::kOptional},
    {&RecordReader::parseLocalizedString, "free_trial_description",
     InfoField::kLocalizedFreeTrialDescription, RequirementLevel::kOptional},
    {&RecordReader::parseLocalizedString, "icon_text", InfoField::kIconText,
     RequirementLevel::kOptional},
    {&RecordReader::parseString<ZBIAPProductInfoV1>, "identifier", InfoField::kProductIdentifier,
     RequirementLevel::kImmediate},
    {&RecordReader::parseNumber, "inactive", InfoField::kInactive, RequirementLevel::kImmediate},
    {&RecordReader::parseDecimalNumber, "old_price", InfoField::kOldPrice,
     RequirementLevel::kOptional},
    {&RecordReader::parseLocalizedString, "pre_buy_title", InfoField::kLocalizedPreBuyDialogTitle,
     RequirementLevel::kOptional},
    {&RecordReader::parseLocalizedString, "pre_buy_message",
     InfoField::kLocalizedPreBuyDialogMessage, RequirementLevel::kOptional},
    {&RecordReader::parseLocalizedString, "pre_buy_action_title",
     InfoField::kLocalizedPreBuyDialogActionTitle, RequirementLevel::kOptional},
    {&RecordReader::parseLocalizedString, "subtitle", InfoField::kLocalizedSubtitle,
     RequirementLevel::kOptional},
    {&RecordReader::parseLocalizedString, "header", InfoField::kLocalizedHeader,
     RequirementLevel::kOptional},
    {&RecordReader::parseLocalizedString, "title", InfoField::kLocalizedTitle,
     RequirementLevel::kCollected},
    {&RecordReader::parseColor, "title_color", InfoField::kTitleColor, RequirementLevel::kOptional},
    {&RecordReader::parseNumber, "default_visible", InfoField::kDefaultVisible,
     RequirementLevel::kOptional},
    {&RecordReader::parseNumber, "new_customers_visible",
     InfoField::kIgnoreSubscriptionGroupForNewCustomers, RequirementLevel::kOptional},
    {&RecordReader::parseNumber, "requires_account", InfoField::kRequiresAccount,
     RequirementLevel::kOptional},
    {&RecordReader::parseString<ZBIAPProductInfoV1>, "feature_group_id", InfoField::kFeatureGroupID,
     RequirementLevel::kOptional},
    {&RecordReader::parseDictionary<ZBIAPProductInfoV1>, "feature_group", InfoField::kFeatureGroup,
     RequirementLevel::kOptional},
    {&RecordReader::parseArraySet, "features", InfoField::kFeatureSet, RequirementLevel::kOptional},
    {&RecordReader::parseFeatureMetadataSet, "features_metadata", InfoField::kFeatureMetadata,
     RequirementLevel::kOptional},
    {&RecordReader::parseDictionary<ZBIAPProductInfoV1>, "metadata", InfoField::kMetadata,
     RequirementLevel::kOptional},
    {&RecordReader::parseString<ZBIAPProductInfoV1>, "iap_group", InfoField::kSubscriptionGroupID,
     RequirementLevel::kOptional},
    {&RecordReader::parseNumber, "sort_key", InfoField::kSortKey, RequirementLevel::kCollected},
}};

namespace zbiap {
namespace {

// Maps a JSON key to its row of a key table, so each key of a dictionary is looked up once.
// Rows are bucketed by key length; a bucket holds at most a handful of rows.
template <typename Record, size_t N>
class KeyIndex {
 public:
  explicit KeyIndex(const std::array<KeyTableEntry<Record>, N>& table) : table_(table) {
    for (size_t row = 0; row < N; ++row) {
      const size_t length = table[row].key.size();
      buckets_[length][counts_[length]++] = static_cast<uint8_t>(row);
    }
  }

  // The row of `key`, or -1.
  int find(std::string_view key) const {
    if (key.size() >= kMaxLength) return -1;
    const uint8_t count = counts_[key.size()];
    for (uint8_t i = 0; i < count; ++i) {
      const uint8_t row = buckets_[key.size()][i];
      if (sameBytes(table_[row].key.data(), key.data(), key.size())) return row;
    }
    return -1;
  }

 private:
  static constexpr size_t kMaxLength = 32;
  // Equal-length keys compared inline, a word at a time: these keys are short, and a library
  // memcmp call per dictionary entry costs more than the comparison itself.
  static bool sameBytes(const char* a, const char* b, size_t n) {
    for (; n >= 8; a += 8, b += 8, n -= 8) {
      uint64_t x, y;
      std::memcpy(&x, a, 8);
      std::memcpy(&y, b, 8);
      if (x != y) return false;
    }
    for (; n > 0; ++a, ++b, --n) {
      if (*a != *b) return false;
    }
    return true;
  }
  const std::array<KeyTableEntry<Record>, N>& table_;
  std::array<uint8_t, kMaxLength> counts_{};
  std::array<std::array<uint8_t, N>, kMaxLength> buckets_{};
};

struct Messages {
  const char* missing;
  const char* parsingFailed;
};

constexpr Messages kInfoMessages = {"Dynamic IAP: Required key '{}' is missing!",
                                    "Dynamic IAP: Parsing the required key '{}' failed!"};
constexpr Messages kFeatureMessages = {
    "Dynamic IAP Feature: Required key '{}' is missing!",
    "Dynamic IAP Feature: Parsing the required key '{}' failed!"};

// Fills a slot: a plain copy, cheaper than the variant's assignment (which must
// first find out what it replaces).
void store(Value* slot, const Value& value) {
  std::destroy_at(slot);
  std::construct_at(slot, value);
}

void logKey(const char* format, std::string_view key) {
  Platform::current().systemLog(fmt::format(fmt::runtime(format), key));
}

// Walks `table` over `dictionary`, filling `record`. Returns false (after the messages) when the
// record is rejected; `excused` tells whether missing collected keys are forgiven.
template <typename Record, size_t N, typename Excused>
bool readTable(Record& record, const std::array<KeyTableEntry<Record>, N>& table,
               const KeyIndex<Record, N>& index, const Dictionary& dictionary,
               CatalogLanguage& language, const Messages& messages, Excused excused) {
  std::array<const Value*, N> found{};
  for (const Dictionary::Entry& entry : dictionary) {
    const int row = index.find(entry.first);
    if (row >= 0) found[static_cast<size_t>(row)] = &entry.second;
  }
  std::array<uint8_t, N> missing;
  size_t missingCount = 0;
  for (size_t row = 0; row < N; ++row) {
    const KeyTableEntry<Record>& entry = table[row];
    const Value* value = found[row];
    if (value == nullptr) {
      if (entry.level == RequirementLevel::kCollected) {
        missing[missingCount++] = static_cast<uint8_t>(row);
      } else if (entry.level == RequirementLevel::kImmediate) {
        logKey(messages.missing, entry.key);
        return false;
      }
      continue;
    }
    if (!entry.parse(record, entry.field, *value, language) &&
        entry.level != RequirementLevel::kOptional) {
      logKey(messages.parsingFailed, entry.key);
      return false;
    }
  }
  if (missingCount == 0 || excused(record)) return true;
  for (size_t i = 0; i < missingCount; ++i) logKey(messages.missing, table[missing[i]].key);
  return false;
}

}  // namespace

std::shared_ptr<ZBIAPProductFeatureV1> RecordReader::readFeature(const Value& dictionary) {
  const Dictionary* entries = dictionary.asDictionary();
  if (entries == nullptr) return nullptr;
  static const KeyIndex<ZBIAPProductFeatureV1, 2> index(gFeatureEntries);
  auto feature = std::make_shared<ZBIAPProductFeatureV1>(ZBIAPProductFeatureV1::Key());
  CatalogLanguage unusedLanguage{std::string()};
  if (!readTable(*feature, gFeatureEntries, index, *entries, unusedLanguage, kFeatureMessages,
                 [](const ZBIAPProductFeatureV1&) { return false; })) {
    return nullptr;
  }
  store(&feature->dictionaryRepresentation_, dictionary);
  return feature;
}

std::shared_ptr<ZBIAPProductInfoV1> RecordReader::readProductInfo(const Value& dictionary,
                                                                  CatalogLanguage& language) {
  const Dictionary* entries = dictionary.asDictionary();
  if (entries == nullptr) return nullptr;
  static const KeyIndex<ZBIAPProductInfoV1, 25> index(gEntries);
  auto info = std::make_shared<ZBIAPProductInfoV1>(ZBIAPProductInfoV1::Key());
  // An inactive product is kept whatever collected keys it lacks.
  if (!readTable(*info, gEntries, index, *entries, language, kInfoMessages,
                 [](const ZBIAPProductInfoV1& record) { return record.inactive_; })) {
    return nullptr;
  }
  store(&info->dictionaryRepresentation_, dictionary);
  return info;
}

// Slots.

Value* RecordReader::valueSlot(ZBIAPProductFeatureV1& record, ZBIAPProductFeatureV1::Field field) {
  switch (field) {
    case FeatureField::kIdentifier:
      return &record.identifier_;
    case FeatureField::kMetadata:
      return &record.metadata_;
  }
  return nullptr;
}

Value* RecordReader::valueSlot(ZBIAPProductInfoV1& r, ZBIAPProductInfoV1::Field field) {
  switch (field) {
    case InfoField::kLocalizedDescription:
      return &r.localizedDescription_;
    case InfoField::kLocalizedFreeTrialTitle:
      return &r.localizedFreeTrialTitle_;
    case InfoField::kLocalizedFreeTrialDescription:
      return &r.localizedFreeTrialDescription_;
    case InfoField::kIconText:
      return &r.iconText_;
    case InfoField::kProductIdentifier:
      return &r.productIdentifier_;
    case InfoField::kLocalizedPreBuyDialogTitle:
      return &r.localizedPreBuyDialogTitle_;
    case InfoField::kLocalizedPreBuyDialogMessage:
      return &r.localizedPreBuyDialogMessage_;
    case InfoField::kLocalizedPreBuyDialogActionTitle:
      return &r.localizedPreBuyDialogActionTitle_;
    case InfoField::kLocalizedSubtitle:
      return &r.localizedSubtitle_;
    case InfoField::kLocalizedHeader:
      return &r.localizedHeader_;
    case InfoField::kLocalizedTitle:
      return &r.localizedTitle_;
    case InfoField::kFeatureGroupID:
      return &r.featureGroupID_;
    case InfoField::kFeatureGroup:
      return &r.featureGroup_;
    case InfoField::kMetadata:
      return &r.metadata_;
    case InfoField::kSubscriptionGroupID:
      return &r.subscriptionGroupID_;
    case InfoField::kSortKey:
      return &r.sortKey_;
    default:
      return nullptr;
  }
}

bool* RecordReader::boolSlot(ZBIAPProductInfoV1& r, ZBIAPProductInfoV1::Field field) {
  switch (field) {
    case InfoField::kInactive:
      return &r.inactive_;
    case InfoField::kDefaultVisible:
      return &r.defaultVisible_;
    case InfoField::kIgnoreSubscriptionGroupForNewCustomers:
      return &r.ignoreSubscriptionGroupForNewCustomers_;
    case InfoField::kRequiresAccount:
      return &r.requiresAccount_;
    default:
      return nullptr;
  }
}

std::optional<ZBIAPColor>* RecordReader::colorSlot(ZBIAPProductInfoV1& r,
                                                   ZBIAPProductInfoV1::Field field) {
  switch (field) {
    case InfoField::kBackgroundColor:
      return &r.backgroundColor_;
    case InfoField::kTitleColor:
      return &r.titleColor_;
    default:
      return nullptr;
  }
}

// Parse functions.

template <typename Record>
bool RecordReader::parseString(Record& record, typename Record::Field field, const Value& value,
                               CatalogLanguage&) {
  Value* slot = valueSlot(record, field);
  if (slot == nullptr) return false;
  if (value.isString()) {
    store(slot, value);  // Shares the text.
    return true;
  }
  std::optional<std::string> text = value.numberStringValue();
  if (!text) return false;
  *slot = Value(std::move(*text));
  return true;
}

template <typename Record>
bool RecordReader::parseDictionary(Record& record, typename Record::Field field, const Value& value,
                                   CatalogLanguage&) {
  Value* slot = valueSlot(record, field);
  if (slot == nullptr || !value.isDictionary()) return false;
  store(slot, value);
  return true;
}

bool RecordReader::parseNumber(ZBIAPProductInfoV1& record, ZBIAPProductInfoV1::Field field,
                               const Value& value, CatalogLanguage&) {
  if (!value.isNumber()) return false;
  if (bool* flag = boolSlot(record, field)) {
    *flag = value.boolValue().value_or(false);
    return true;
  }
  Value* slot = valueSlot(record, field);
  if (slot == nullptr) return false;
  store(slot, value);
  return true;
}

bool RecordReader::parseDecimalNumber(ZBIAPProductInfoV1& record, ZBIAPProductInfoV1::Field field,
                                      const Value& value, CatalogLanguage&) {
  if (field != InfoField::kOldPrice) return false;
  if (const std::string* text = value.asString()) {
    // Text that is no number gives not-a-number, which still counts as a value.
    record.oldPrice_ = Decimal::fromString(*text);
    return true;
  }
  std::optional<Decimal> number = value.decimalValue();
  if (!number) return false;
  record.oldPrice_ = *number;
  return true;
}

bool RecordReader::parseArraySet(ZBIAPProductInfoV1& record, ZBIAPProductInfoV1::Field field,
                                 const Value& value, CatalogLanguage&) {
  const Array* array = value.asArray();
  if (field != InfoField::kFeatureSet || array == nullptr) return false;
  auto set = std::make_shared<ValueSet>();
  set->reserve(array->size());
  for (const Value& element : *array) set->insert(element);
  record.featureSet_ = std::move(set);
  return true;
}

bool RecordReader::parseFeatureMetadataSet(ZBIAPProductInfoV1& record,
                                           ZBIAPProductInfoV1::Field field, const Value& value,
                                           CatalogLanguage&) {
  const Array* array = value.asArray();
  if (field != InfoField::kFeatureMetadata || array == nullptr) return false;
  auto features = std::make_shared<ProductFeatureSet>();
  features->reserve(array->size());
  for (const Value& element : *array) {
    if (!element.isDictionary()) continue;
    if (ProductFeaturePtr feature = readFeature(element)) features->insert(std::move(feature));
  }
  record.featureMetadata_ = std::move(features);
  return true;
}

bool RecordReader::parseLocalizedString(ZBIAPProductInfoV1& record, ZBIAPProductInfoV1::Field field,
                                        const Value& value, CatalogLanguage& language) {
  Value* slot = valueSlot(record, field);
  if (slot == nullptr) return false;
  if (const Dictionary* texts = value.asDictionary()) {
    const Value* text = texts->find(language.get());
    if (text == nullptr || !text->isString()) {
      // German is the catalogue's fallback, whatever the user's language.
      text = texts->find("de");
      if (text == nullptr || !text->isString()) return false;
    }
    store(slot, *text);
    return true;
  }
  if (!value.isString()) return false;
  store(slot, value);
  return true;
}

bool RecordReader::parseColor(ZBIAPProductInfoV1& record, ZBIAPProductInfoV1::Field field,
                              const Value& value, CatalogLanguage&) {
  std::optional<ZBIAPColor>* slot = colorSlot(record, field);
  const std::string* text = value.asString();
  if (slot == nullptr || text == nullptr) return false;
  std::optional<ZBIAPColor> color = colorFromHexString(*text);
  if (!color) return false;
  *slot = color;
  return true;
}

}  // namespace zbiap
