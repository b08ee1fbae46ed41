// The table-driven reader's vocabulary: a catalogue record class has one fixed key table (rows of
// parse function, JSON key, field, requirement level), and its factory walks the table in order.
//
// Tables are constant data, safe to read from any thread. CatalogLanguage is one build's choice of
// language for localized texts; it is not thread-safe (one per build or per catalogue).
#ifndef ZBIAP_CATALOG_KEY_TABLE_H_
#define ZBIAP_CATALOG_KEY_TABLE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "zbiap/export.h"
#include "zbiap/foundation/value.h"

namespace zbiap {

// How a key table treats a row whose key is absent or whose value has the wrong shape.
enum class RequirementLevel : uint8_t {
  // Absent or malformed: the field keeps its initial value, nothing is logged.
  kOptional = 0,
  // Absent: reported with every other absent one after the last row, and excused for an
  // inactive product. Malformed: the record is rejected at once.
  kCollected = 1,
  // Absent or malformed: the record is rejected at once.
  kImmediate = 2,
};

// The language in which localized texts of the catalogue are picked: the environment variable
// "ZBIAP_OVERRIDE_LOCALE" when it is set (whole, as given), else the first two characters of the
// platform's first preferred language ("en-GB" gives "en"; a shorter tag is taken whole; no
// preferred language gives the empty text). Looked up on first use, then kept, so a catalogue
// built with one CatalogLanguage has all its texts in one language.
class ZBIAP_EXPORT CatalogLanguage {
 public:
  // Looks the language up when first asked for it.
  CatalogLanguage() = default;
  // Uses `language` as given.
  explicit CatalogLanguage(std::string language) : language_(std::move(language)) {}

  const std::string& get() {
    if (!language_) language_ = current();
    return *language_;
  }

  // The language as the platform gives it now.
  static std::string current();

 private:
  std::optional<std::string> language_;
};

// One row of a record class's key table. `parse` stores the value into `field` of the record and
// returns true, or returns false and stores nothing when the value has the wrong shape.
template <typename Record>
struct KeyTableEntry {
  using Field = typename Record::Field;
  using ParseFunction = bool (*)(Record& record, Field field, const Value& value,
                                 CatalogLanguage& language);

  ParseFunction parse;
  std::string_view key;
  Field field;
  RequirementLevel level;
};

// The record readers' internals; befriended by the record classes.
class RecordReader;

}  // namespace zbiap

#endif  // ZBIAP_CATALOG_KEY_TABLE_H_
