// The direct walk of a receipt's DER (see receipt_decoder.h). It accepts only the plain form
// every App Store receipt uses: definite, non-zero lengths, a SET (or SEQUENCE) of attribute
// SEQUENCEs of exactly INTEGER type, INTEGER version and a primitive OCTET STRING, each purchase
// one such SET filling its OCTET STRING, and values that readSimpleValue() reads. On anything
// else, and on every outcome that the reference decoder would log or reject, it gives up.
#include "store/receipt_decoder.h"
#include "zbiap/store/receipt_iap.h"
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

// Attribute values. Each returns false when the value is not of the kind; `known` is false
// when the octets need the reference decoder to tell.
struct ValueReader {
  bool known = true;

  std::optional<std::string_view> text(std::span<const uint8_t> octets) {
    FirstValue first;
    if (!readSimpleValue(octets, &first)) {
      known = false;
      return std::nullopt;
    }
    if (first.kind != FirstValue::kString) return std::nullopt;
    return first.text;
  }

  std::optional<int64_t> number(std::span<const uint8_t> octets) {
    FirstValue first;
    if (!readSimpleValue(octets, &first)) {
      known = false;
      return std::nullopt;
    }
    if (first.kind != FirstValue::kInteger) return std::nullopt;
    return first.integer;
  }

  std::optional<Date> date(std::span<const uint8_t> octets) {
    std::optional<std::string_view> t = text(octets);
    if (!t || t->empty()) return std::nullopt;
    return ZBIAPDateTools::dateTools().dateFromRFC3339String(*t);
  }
};

// One purchase SET into a record; false when the reference is needed (or would reject the
// receipt, or make no record of the purchase, which it logs).
bool decodePurchase(std::span<const uint8_t> octets, ZBIAPReceiptIAPPtr* record) {
  std::span<const uint8_t> set;
  if (!wholeArray(octets, &set)) return false;
  ValueReader read;
  std::optional<std::string_view> productIdentifier, transactionIdentifier;
  std::optional<std::string_view> originalTransactionIdentifier;
  std::optional<Date> purchaseDate, originalPurchaseDate, expirationDate, cancellationDate;
  int64_t quantity = 0;
  int64_t webOrderLineItemID = 0;
  const uint8_t* at = set.data();
  const uint8_t* end = at + set.size();
  while (at != end) {
    int64_t type;
    std::span<const uint8_t> value;
    if (!nextAttribute(&at, end, &type, &value)) return false;
    // Fields the reference requires fail the receipt when unreadable; the others keep their
    // previous value.
    switch (type) {
      case 1701: {
        auto n = read.number(value);
        if (!n) return false;
        quantity = *n;
        break;
      }
      case 1702:
        if (!(productIdentifier = read.text(value))) return false;
        break;
      case 1703:
        if (!(transactionIdentifier = read.text(value))) return false;
        break;
      case 1704:
        if (!(purchaseDate = read.date(value))) return false;
        break;
      case 1705:
        if (!(originalTransactionIdentifier = read.text(value))) return false;
        break;
      case 1706:
        if (!(originalPurchaseDate = read.date(value))) return false;
        break;
      case 1708:
        if (auto d = read.date(value)) expirationDate = d;
        break;
      case 1711: {
        auto n = read.number(value);
        if (!n) return false;
        webOrderLineItemID = *n;
        break;
      }
      case 1712:
        if (auto d = read.date(value)) cancellationDate = d;
        break;
      default:
        break;
    }
    if (!read.known) return false;
  }
  if (!productIdentifier || !transactionIdentifier || !purchaseDate) return false;
  std::optional<std::string> original;
  if (originalTransactionIdentifier) original.emplace(*originalTransactionIdentifier);
  *record = ZBIAPReceiptIAP::create(std::string(*productIdentifier), quantity,
                                    std::string(*transactionIdentifier), std::move(original),
                                    *purchaseDate, originalPurchaseDate, expirationDate,
                                    cancellationDate, webOrderLineItemID, true);
  return true;
}

}  // namespace

bool decodeReceiptDirect(std::span<const uint8_t> data, DecodedReceipt* out) {
  ASN1Tree container;
  std::span<const uint8_t> content, set;
  if (!receiptContent(data, &container, &content) || !wholeArray(content, &set)) return false;
  ValueReader read;
  const uint8_t* at = set.data();
  const uint8_t* end = at + set.size();
  while (at != end) {
    int64_t type;
    std::span<const uint8_t> value;
    if (!nextAttribute(&at, end, &type, &value)) return false;
    switch (type) {
      case 0:
        if (auto t = read.text(value)) out->environment.emplace(*t);
        break;
      case 2: {
        auto t = read.text(value);
        if (!t) return false;
        out->bundleIdentifier.emplace(*t);
        break;
      }
      case 3: {
        auto t = read.text(value);
        if (!t) return false;
        out->appVersion.emplace(*t);
        break;
      }
      case 12:
        if (!(out->creationDate = read.date(value))) return false;
        break;
      case 17: {
        ZBIAPReceiptIAPPtr record;
        if (!decodePurchase(value, &record)) return false;
        out->purchases.push_back(std::move(record));
        break;
      }
      case 18:
        if (auto d = read.date(value)) out->originalPurchaseDate = d;
        break;
      case 19: {
        auto t = read.text(value);
        if (!t) return false;
        out->originalPurchaseVersion.emplace(*t);
        break;
      }
      case 21:
        if (!(out->expirationDate = read.date(value))) return false;
        break;
      default:
        break;
    }
    if (!read.known) return false;
  }
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
