// zbiap::RecordReader: the table-driven reader behind ZBIAPProductFeatureV1::create and
// ZBIAPProductInfoV1::create, and the parse functions their key tables name.
//
// Stateless; callable from any thread. Rejections are written to the platform's system log
// directly (never through a switchable logger), so they always show.
#ifndef ZBIAP_CATALOG_RECORD_READER_H_
#define ZBIAP_CATALOG_RECORD_READER_H_

#include <memory>

#include "zbiap/catalog/key_table.h"
#include "zbiap/catalog/product_feature.h"
#include "zbiap/catalog/product_info.h"
#include "zbiap/foundation/value.h"

namespace zbiap {

class RecordReader {
 public:
  static std::shared_ptr<ZBIAPProductFeatureV1> readFeature(const Value& dictionary);
  static std::shared_ptr<ZBIAPProductInfoV1> readProductInfo(const Value& dictionary,
                                                             CatalogLanguage& language);

  // The parse functions. Each stores into `field` and returns true, or returns false and stores
  // nothing when the value has the wrong shape (see the key tables).
  template <typename Record>
  static bool parseString(Record& record, typename Record::Field field, const Value& value,
                          CatalogLanguage& language);
  template <typename Record>
  static bool parseDictionary(Record& record, typename Record::Field field, const Value& value,
                              CatalogLanguage& language);
  static bool parseNumber(ZBIAPProductInfoV1& record, ZBIAPProductInfoV1::Field field,
                          const Value& value, CatalogLanguage& language);
  static bool parseDecimalNumber(ZBIAPProductInfoV1& record, ZBIAPProductInfoV1::Field field,
                                 const Value& value, CatalogLanguage& language);
  static bool parseArraySet(ZBIAPProductInfoV1& record, ZBIAPProductInfoV1::Field field,
                            const Value& value, CatalogLanguage& language);
  static bool parseFeatureMetadataSet(ZBIAPProductInfoV1& record, ZBIAPProductInfoV1::Field field,
                                      const Value& value, CatalogLanguage& language);
  static bool parseLocalizedString(ZBIAPProductInfoV1& record, ZBIAPProductInfoV1::Field field,
                                   const Value& value, CatalogLanguage& language);
  static bool parseColor(ZBIAPProductInfoV1& record, ZBIAPProductInfoV1::Field field,
                         const Value& value, CatalogLanguage& language);

 private:
  // The storage of a field, or null when the field has another type.
  static Value* valueSlot(ZBIAPProductFeatureV1& record, ZBIAPProductFeatureV1::Field field);
  static Value* valueSlot(ZBIAPProductInfoV1& record, ZBIAPProductInfoV1::Field field);
  static bool* boolSlot(ZBIAPProductInfoV1& record, ZBIAPProductInfoV1::Field field);
  static std::optional<ZBIAPColor>* colorSlot(ZBIAPProductInfoV1& record,
                                              ZBIAPProductInfoV1::Field field);
};

}  // namespace zbiap

#endif  // ZBIAP_CATALOG_RECORD_READER_H_
