// The direct walk of a receipt's DER (see receipt_decoder.h). It accepts only the plain form
// every App Store receipt uses: definite, non-zero lengths, a SET (or SEQUENCE) of attribute
// SEQUENCEs of exactly INTEGER type, INTEGER version and a primitive OCTET STRING, each purchase
// one such SET filling its OCTET STRING, and values that readSimpleValue() reads. On anything
// else, and on every outcome that the reference decoder would log or reject, it gives up.
#include <cstdint>

#include "receipt/receipt_decoder.h"
#include "zbiap/receipt/receipt_iap.h"
#include "zbiap/support/date_tools.h"

namespace zbiap::internal {

namespace {

constexpr uint8_t kInteger = 0x02;
constexpr uint8_t kOctetString = 0x04;
constexpr uint8_t kSequence = 0x30;
constexpr uint8_t kSet = 0x31;

// One element of a level: its identifier octet (low-tag-number form only) and contents.
struct Element {
  uint8_t id = 0;
  std::span<const uint8_t> content;
};

// Reads the element at `*at` (before `end`) and steps over it; false for the high tag number
// form, the indefinite or a zero length, and a length past `end`. The length rules are those
// of ZBIAPASN1Parser::readLength, inline: this runs a few dozen times per purchase.
inline bool next(const uint8_t** at, const uint8_t* end, Element* e) {
  const uint8_t* p = *at;
  if (end - p < 2 || (p[0] & 0x1F) == 0x1F) return false;
  const uint8_t* content = p + 2;
  uint64_t length = p[1];
  if (length >= 0x80) {
    const size_t octets = length & 0x7F;
    if (octets == 0 || octets > 8 || octets > static_cast<size_t>(end - content)) return false;
    length = 0;
    for (size_t i = 0; i < octets; ++i) length = length << 8 | content[i];
    content += octets;
  }
  if (length == 0 || length > static_cast<uint64_t>(end - content)) return false;
  e->id = p[0];
  e->content = {content, static_cast<size_t>(length)};
  *at = content + length;
  return true;
}

// The one SET or SEQUENCE that fills `bytes` exactly.
bool wholeArray(std::span<const uint8_t> bytes, std::span<const uint8_t>* content) {
  const uint8_t* at = bytes.data();
  const uint8_t* end = at + bytes.size();
  Element e;
  if (!next(&at, end, &e) || at != end || (e.id != kSet && e.id != kSequence)) return false;
  *content = e.content;
  return true;
}

// INTEGER contents as the parser reads them: one to seven octets unsigned, eight as two's
// complement. Longer ones become decimals there; not handled here.
inline bool readInteger(const Element& e, int64_t* value) {
  if (e.id != kInteger || e.content.size() > 8) return false;
  uint64_t v = 0;
  for (uint8_t b : e.content) v = v << 8 | b;
  *value = static_cast<int64_t>(v);
  return true;
}

// The next attribute of a SET: SEQUENCE { INTEGER type, INTEGER version, OCTET STRING value }.
inline bool nextAttribute(const uint8_t** at, const uint8_t* end, int64_t* type,
                          std::span<const uint8_t>* value) {
  Element attribute, typeElement, version, octets;
  if (!next(at, end, &attribute) || attribute.id != kSequence) return false;
  const uint8_t* p = attribute.content.data();
  const uint8_t* last = p + attribute.content.size();
  int64_t ignored;
  if (!next(&p, last, &typeElement) || !readInteger(typeElement, type) ||
      !next(&p, last, &version) || !readInteger(version, &ignored) || !next(&p, last, &octets) ||
      octets.id != kOctetString || p != last) {
    return false;
  }
  *value = octets.content;
  return true;
}

// One attribute value as its rule reads it.
struct ReadValue {
  bool present = false;
  std::string_view text;  // kString
  int64_t number = 0;     // kNumber
  Date date;              // kDate

  std::optional<std::string> string() const {
    return present ? std::optional<std::string>(text) : std::nullopt;
  }
  std::optional<Date> optionalDate() const {
    return present ? std::optional<Date>(date) : std::nullopt;
  }
};

// Reads `octets` as `kind` into `out`: true when the value is of the kind, false when it is not;
// `*known` turns false when the octets need the reference decoder to tell.
bool readValue(std::span<const uint8_t> octets, AttributeKind kind, ReadValue* out, bool* known) {
  FirstValue first;
  if (!readSimpleValue(octets, &first)) {
    *known = false;
    return false;
  }
  switch (kind) {
    case AttributeKind::kString:
      if (first.kind != FirstValue::kString) return false;
      out->text = first.text;
      break;
    case AttributeKind::kNumber:
      if (first.kind != FirstValue::kInteger) return false;
      out->number = first.integer;
      break;
    case AttributeKind::kDate: {
      if (first.kind != FirstValue::kString || first.text.empty()) return false;
      auto date = ZBIAPDateTools::dateTools().dateFromRFC3339String(first.text);
      if (!date) return false;
      out->date = *date;
      break;
    }
  }
  out->present = true;
  return true;
}

// Reads an attribute SET by `rules` into `values` (one per rule; a later value of a type
// replaces an earlier one). Types without a rule go to `other`, which returns false to give up.
// False when the reference decoder is needed or would reject the receipt.
template <size_t N, typename Other>
bool readAttributes(std::span<const uint8_t> set, const RuleIndex<N>& rules, ReadValue (&values)[N],
                    Other&& other) {
  const uint8_t* at = set.data();
  const uint8_t* end = at + set.size();
  bool known = true;
  while (at != end) {
    int64_t type;
    std::span<const uint8_t> value;
    if (!nextAttribute(&at, end, &type, &value)) return false;
    const int row = rules.find(type);
    if (row < 0) {
      if (!other(type, value)) return false;
      continue;
    }
    ReadValue read;
    if (readValue(value, rules.rules[row].kind, &read, &known)) {
      values[row] = read;
    } else if (!known || rules.rules[row].required) {
      return false;
    }
  }
  return true;
}

// One purchase SET into a record; false when the reference is needed (or would reject the
// receipt, or make no record of the purchase, which it logs).
bool decodePurchase(std::span<const uint8_t> octets, ZBIAPReceiptIAPPtr* record) {
  std::span<const uint8_t> set;
  ReadValue v[std::size(kPurchaseRules)];
  if (!wholeArray(octets, &set) ||
      !readAttributes(set, kPurchaseIndex, v,
                      [](int64_t, std::span<const uint8_t>) { return true; })) {
    return false;
  }
  const ReadValue& productIdentifier = v[kPurchaseIndex[1702]];
  const ReadValue& transactionIdentifier = v[kPurchaseIndex[1703]];
  const ReadValue& purchaseDate = v[kPurchaseIndex[1704]];
  if (!productIdentifier.present || !transactionIdentifier.present || !purchaseDate.present) {
    return false;
  }
  *record = ZBIAPReceiptIAP::initWithProductIdentifier(
      std::string(productIdentifier.text), v[kPurchaseIndex[1701]].number,
      std::string(transactionIdentifier.text), v[kPurchaseIndex[1705]].string(), purchaseDate.date,
      v[kPurchaseIndex[1706]].optionalDate(), v[kPurchaseIndex[1708]].optionalDate(),
      v[kPurchaseIndex[1712]].optionalDate(), v[kPurchaseIndex[1711]].number, true);
  return true;
}

}  // namespace

bool decodeReceiptDirect(std::span<const uint8_t> data, DecodedReceipt* out) {
  ASN1Tree container;
  std::span<const uint8_t> content, set;
  ReadValue v[std::size(kReceiptRules)];
  auto purchase = [out](int64_t type, std::span<const uint8_t> value) {
    if (type != kPurchaseAttribute) return true;
    ZBIAPReceiptIAPPtr record;
    if (!decodePurchase(value, &record)) return false;
    out->purchases.push_back(std::move(record));
    return true;
  };
  if (!receiptContent(data, &container, &content) || !wholeArray(content, &set) ||
      !readAttributes(set, kReceiptIndex, v, purchase)) {
    return false;
  }
  out->environment = v[kReceiptIndex[0]].string();
  out->bundleIdentifier = v[kReceiptIndex[2]].string();
  out->appVersion = v[kReceiptIndex[3]].string();
  out->creationDate = v[kReceiptIndex[12]].optionalDate();
  out->originalPurchaseDate = v[kReceiptIndex[18]].optionalDate();
  out->originalPurchaseVersion = v[kReceiptIndex[19]].string();
  out->expirationDate = v[kReceiptIndex[21]].optionalDate();
  return true;
}

bool sameContents(const DecodedReceipt& a, const DecodedReceipt& b) {
  if (a.bundleIdentifier != b.bundleIdentifier || a.appVersion != b.appVersion ||
      a.originalPurchaseVersion != b.originalPurchaseVersion || a.environment != b.environment ||
      a.creationDate != b.creationDate || a.expirationDate != b.expirationDate ||
      a.originalPurchaseDate != b.originalPurchaseDate ||
      a.purchases.size() != b.purchases.size()) {
    return false;
  }
  for (size_t i = 0; i < a.purchases.size(); ++i) {
    const ZBIAPReceiptIAP& x = *a.purchases[i];
    const ZBIAPReceiptIAP& y = *b.purchases[i];
    if (!x.isEqual(y) || x.transactionIdentifier() != y.transactionIdentifier() ||
        x.originalTransactionIdentifier() != y.originalTransactionIdentifier()) {
      return false;
    }
  }
  return true;
}

}  // namespace zbiap::internal
