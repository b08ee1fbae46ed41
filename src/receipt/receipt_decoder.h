// The two ways ZBIAPReceiptParser decodes a receipt, and what a decode gives.
//
// decodeReceiptWithTree() is the reference: it parses the content and every purchase into ASN.1
// trees, builds the receipt dictionary and makes the records from its purchase dictionaries. It
// is exact for every input. decodeReceiptDirect() walks the DER of a well-formed receipt once,
// straight into records and fields, without trees or dictionaries; whenever it meets anything
// it does not handle (another encoding, a value it cannot read itself, a rejection, a purchase
// that gives no record) it gives up and the caller falls back to the reference, so it never
// decides anything differently. The dictionary of a directly decoded receipt is made from
// the kept receipt bytes by the reference when it is first asked for.
#ifndef ZBIAP_SRC_STORE_RECEIPT_DECODER_H_
#define ZBIAP_SRC_STORE_RECEIPT_DECODER_H_

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "zbiap/foundation/date.h"
#include "zbiap/foundation/value.h"
#include "zbiap/receipt/asn1_tree.h"
#include "zbiap/receipt/receipt_iap.h"

namespace zbiap::internal {

// The attributes a receipt's SET and a purchase's SET are read for; every other type is
// skipped. Both decoders follow these tables, so they cannot differ on what is kept.
enum class AttributeKind { kString, kNumber, kDate };
struct AttributeRule {
  int64_t type;
  const char* key;  // in the receipt's or the purchase's dictionary
  AttributeKind kind;
  bool required;  // a value not of the kind rejects the whole receipt; else it is left out
};

// The in-app purchase attribute: its value is a purchase SET.
inline constexpr int64_t kPurchaseAttribute = 17;

inline constexpr AttributeRule kReceiptRules[] = {
    {0, ZBIAPReceiptKeyEnvironment, AttributeKind::kString, false},
    {2, ZBIAPReceiptKeyBundleID, AttributeKind::kString, true},
    {3, ZBIAPReceiptKeyAppVersion, AttributeKind::kString, true},
    {12, ZBIAPReceiptKeyCreationDate, AttributeKind::kDate, true},
    {18, ZBIAPReceiptKeyOriginalPurchaseDate, AttributeKind::kDate, false},
    {19, ZBIAPReceiptKeyOriginalAppVersion, AttributeKind::kString, true},
    {21, ZBIAPReceiptKeyExpirationDate, AttributeKind::kDate, true},
};

inline constexpr AttributeRule kPurchaseRules[] = {
    {1701, ZBIAPReceiptKeyIAPQuantity, AttributeKind::kNumber, true},
    {1702, ZBIAPReceiptKeyIAPProductID, AttributeKind::kString, true},
    {1703, ZBIAPReceiptKeyIAPTransactionID, AttributeKind::kString, true},
    {1704, ZBIAPReceiptKeyIAPPurchaseDate, AttributeKind::kDate, true},
    {1705, ZBIAPReceiptKeyIAPOriginalTransactionID, AttributeKind::kString, true},
    {1706, ZBIAPReceiptKeyIAPOriginalPurchaseDate, AttributeKind::kDate, true},
    {1708, ZBIAPReceiptKeyIAPSubscriptionExpirationDate, AttributeKind::kDate, false},
    {1711, ZBIAPReceiptKeyIAPWebOrderLineItemID, AttributeKind::kNumber, true},
    {1712, ZBIAPReceiptKeyIAPCancellationDate, AttributeKind::kDate, false},
};

// Rule rows by attribute type, a lookup instead of a search per attribute. The types of a
// table lie within 32 of each other.
template <size_t N>
struct RuleIndex {
  const AttributeRule (&rules)[N];
  uint64_t base = UINT64_MAX;
  int8_t rows[32] = {};

  constexpr explicit RuleIndex(const AttributeRule (&table)[N]) : rules(table) {
    for (const AttributeRule& r : table) base = std::min(base, static_cast<uint64_t>(r.type));
    for (int8_t& row : rows) row = -1;
    for (size_t i = 0; i < N; ++i) {
      const uint64_t at = static_cast<uint64_t>(table[i].type) - base;
      if (at >= 32) throw "attribute types too far apart for the index";
      rows[at] = static_cast<int8_t>(i);
    }
  }
  int find(int64_t type) const {
    const uint64_t at = static_cast<uint64_t>(type) - base;
    return at < 32 ? rows[at] : -1;
  }
  // The row of a type that has a rule; a type without one does not compile.
  consteval int operator[](int64_t type) const {
    const int row = rows[static_cast<uint64_t>(type) - base];
    return row < 0 ? throw "no rule for this attribute type" : row;
  }
};

inline constexpr RuleIndex kReceiptIndex(kReceiptRules);
inline constexpr RuleIndex kPurchaseIndex(kPurchaseRules);

// A decoded receipt. Immutable once published, but for the dictionary, which is made once on
// first use (thread-safe).
struct DecodedReceipt {
  std::vector<ZBIAPReceiptIAPPtr> purchases;
  std::optional<Date> originalPurchaseDate;
  std::optional<std::string> originalPurchaseVersion;
  std::optional<std::string> bundleIdentifier;
  std::optional<std::string> appVersion;
  std::optional<Date> creationDate;
  std::optional<Date> expirationDate;
  std::optional<std::string> environment;

  // The receipt bytes, kept for the dictionary when it has not been made yet.
  std::shared_ptr<const Data> source;
  // The receipt dictionary: the tree decoder's own, or made from `source` on first use.
  const Dictionary& dictionary() const;
  mutable Dictionary dictionary_;
  mutable std::once_flag dictionaryOnce_;
};

// The reference decoder; false when the receipt is rejected (`out` is then unspecified).
bool decodeReceiptWithTree(std::span<const uint8_t> data, DecodedReceipt* out);

// The direct walk; false when it cannot decide (`out` is then unspecified), true when `out`
// holds exactly the records and fields the reference would give (without the dictionary).
bool decodeReceiptDirect(std::span<const uint8_t> data, DecodedReceipt* out);

// Whether two decodes give the same fields and records (transaction identifiers included);
// the dictionaries are not compared. For the checks that hold the two decoders together.
bool sameContents(const DecodedReceipt& a, const DecodedReceipt& b);

// The content octets of the PKCS #7 container, parsed into `container`; false when the
// container is rejected.
bool receiptContent(std::span<const uint8_t> data, ASN1Tree* container,
                    std::span<const uint8_t>* content);

// What the parser gives as the first value of an attribute's octets.
struct FirstValue {
  enum { kNone, kString, kInteger } kind = kNone;  // kNone: no parse, or another type
  std::string_view text;
  int64_t integer = 0;
};

// The common case without a tree: the octets hold exactly one primitive universal INTEGER (up
// to 8 octets) or text string of definite length; the parser would read that one element and
// nothing else, so the outcome is the same. False when the octets need the parser.
bool readSimpleValue(std::span<const uint8_t> octets, FirstValue* out);

}  // namespace zbiap::internal

#endif  // ZBIAP_SRC_STORE_RECEIPT_DECODER_H_
