// The reference decoder: the container is parsed once, its content once, and every purchase
// and attribute value into reused scratch trees, so the work per attribute allocates nothing
// beyond the values it produces.
#include <cmath>

#include "receipt/asn1_utf8.h"
#include "receipt/receipt_decoder.h"
#include "zbiap/receipt/asn1_parser.h"
#include "zbiap/receipt/receipt_parser.h"
#include "zbiap/support/date_tools.h"

namespace zbiap::internal {

namespace {

// PKCS #7 data, 1.2.840.113549.1.7.1.
bool isPKCS7Data(const ZBIAPASN1ObjectID* oid) {
  static constexpr uint64_t kArcs[] = {1, 2, 840, 113549, 1, 7, 1};
  if (oid == nullptr || oid->isRelative() || oid->nodes().size() != 7) return false;
  for (size_t i = 0; i < 7; ++i) {
    if (oid->nodes()[i] != kArcs[i]) return false;
  }
  return true;
}

// The first array, depth first, whose first element is the PKCS #7 data identifier.
ASN1Node findContentInfo(ASN1Node array) {
  if (array.size() > 0 && isPKCS7Data(array[0].objectID())) return array;
  for (size_t i = 0; i < array.size(); ++i) {
    ASN1Node element = array[i];
    ASN1Node inner;
    if (element.isArray()) {
      inner = element;
    } else if (element.isTag() && element.isConstructed()) {
      inner = element.tagValue();
    } else {
      continue;
    }
    ASN1Node found = findContentInfo(inner);
    if (found.valid()) return found;
  }
  return {};
}

// The attribute type as Foundation's integer value of the number would give it.
inline std::optional<int64_t> attributeType(ASN1Node number) {
  switch (number.type()) {
    case ASN1Type::kInteger:
      return number.integerValue();
    case ASN1Type::kReal: {
      double d = number.realValue();
      if (!std::isfinite(d) || std::fabs(d) >= 9.2e18) return std::nullopt;
      return static_cast<int64_t>(d);
    }
    case ASN1Type::kDecimal:
      return number.decimalValue().toInt64();
    default:
      return std::nullopt;
  }
}

class ReceiptDecoder {
 public:
  // False when the receipt is rejected.
  bool decode(std::span<const uint8_t> data, Dictionary* receipt,
              std::vector<ZBIAPReceiptIAPPtr>* records) {
    std::span<const uint8_t> content;
    if (!receiptContent(data, &container_, &content)) return false;
    if (!ZBIAPASN1Parser::parseASN1Data(content, &content_) || content_.empty() ||
        !content_[0].isArray()) {
      return false;
    }
    ASN1Node set = content_[0];
    zbiap::Array purchases;
    purchases.reserve(set.size());
    for (size_t i = 0; i < set.size(); ++i) {
      ASN1Node attribute = set[i];
      std::optional<int64_t> type;
      if (!checkAttribute(attribute, &type)) return false;
      if (type == kPurchaseAttribute) {
        Dictionary purchase;
        if (!decodePurchase(attribute[2], &purchase)) return false;
        // The key takes its place in the dictionary at the first purchase.
        if (purchases.empty()) receipt->set(ZBIAPReceiptKeyIAPs, Value(zbiap::Array()));
        purchases.emplace_back(std::move(purchase));
      } else if (!decodeByRule(receipt, kReceiptIndex, type, attribute[2])) {
        return false;
      }
    }
    // Records are made only from a receipt that is accepted as a whole; purchases that give
    // no record are dropped.
    records->reserve(purchases.size());
    for (const Value& purchase : purchases) {
      if (auto record = ZBIAPReceiptIAP::initWithDictionaryRepresentation(purchase, true)) {
        records->push_back(std::move(record));
      }
    }
    if (!purchases.empty()) receipt->set(ZBIAPReceiptKeyIAPs, Value(std::move(purchases)));
    return true;
  }

 private:
  // An attribute is a SEQUENCE of at least three values whose first two (type and version)
  // are numbers.
  static bool checkAttribute(ASN1Node attribute, std::optional<int64_t>* type) {
    if (!attribute.isArray() || attribute.size() < 3 || !attribute[0].isNumber() ||
        !attribute[1].isNumber()) {
      return false;
    }
    *type = attributeType(attribute[0]);
    return true;
  }

  bool decodePurchase(ASN1Node value, Dictionary* purchase) {
    if (!value.isData() || !ZBIAPASN1Parser::parseASN1Data(value.bytes(), &purchaseTree_) ||
        purchaseTree_.empty() || !purchaseTree_[0].isArray()) {
      return false;
    }
    ASN1Node set = purchaseTree_[0];
    purchase->reserve(set.size() < 9 ? set.size() : 9);
    for (size_t i = 0; i < set.size(); ++i) {
      ASN1Node attribute = set[i];
      std::optional<int64_t> type;
      if (!checkAttribute(attribute, &type) ||
          !decodeByRule(purchase, kPurchaseIndex, type, attribute[2])) {
        return false;
      }
    }
    return true;
  }

  // The attribute value under its rule's key; false when a required value is not of its kind.
  template <size_t N>
  bool decodeByRule(Dictionary* into, const RuleIndex<N>& rules, std::optional<int64_t> type,
                    ASN1Node value) {
    const int row = type ? rules.find(*type) : -1;
    if (row < 0) return true;
    const AttributeRule& rule = rules.rules[row];
    return decodeInto(into, rule.key, value, rule.kind) || !rule.required;
  }

  // Decodes an attribute value (the DER of one element inside the OCTET STRING) and sets it
  // under `key`; false, leaving `into` as it was, when it gives no value of the kind.
  bool decodeInto(Dictionary* into, const char* key, ASN1Node octets, AttributeKind kind) {
    if (!octets.isData()) return false;
    FirstValue first;
    Value number;
    if (!readSimpleValue(octets.bytes(), &first)) {
      if (!ZBIAPASN1Parser::parseASN1Data(octets.bytes(), &valueTree_) || valueTree_.empty()) {
        return false;
      }
      ASN1Node element = valueTree_[0];
      if (element.isString()) {
        first.kind = FirstValue::kString;
        first.text = element.stringValue();
      } else if (element.isNumber()) {
        number = element.toValue();
      }
    } else if (first.kind == FirstValue::kInteger) {
      number = Value(first.integer);
    }
    switch (kind) {
      case AttributeKind::kString:
        if (first.kind != FirstValue::kString) return false;
        into->set(key, Value(first.text));
        return true;
      case AttributeKind::kNumber:
        if (number.isNil()) return false;
        into->set(key, std::move(number));
        return true;
      case AttributeKind::kDate: {
        if (first.kind != FirstValue::kString || first.text.empty()) return false;
        auto date = ZBIAPDateTools::dateTools().dateFromRFC3339String(first.text);
        if (!date) return false;
        into->set(key, Value(*date));
        return true;
      }
    }
    return false;
  }

  ASN1Tree container_;
  ASN1Tree content_;
  ASN1Tree purchaseTree_;
  ASN1Tree valueTree_;
};

template <typename T>
std::optional<T> typed(const Dictionary& d, const char* key);

template <>
std::optional<std::string> typed(const Dictionary& d, const char* key) {
  const Value* v = d.find(key);
  if (v == nullptr || !v->isString()) return std::nullopt;
  return *v->asString();
}

template <>
std::optional<Date> typed(const Dictionary& d, const char* key) {
  const Value* v = d.find(key);
  if (v == nullptr || !v->isDate()) return std::nullopt;
  return *v->asDate();
}

}  // namespace

bool receiptContent(std::span<const uint8_t> data, ASN1Tree* container,
                    std::span<const uint8_t>* content) {
  if (data.empty() || !ZBIAPASN1Parser::parseASN1Data(data, container)) return false;
  ASN1Node info = findContentInfo(container->root());
  if (!info.valid() || info.size() < 2) return false;
  ASN1Node wrapper = info[1];
  if (!wrapper.isTag() || !wrapper.tagValue().isArray() || wrapper.tagValue().size() == 0) {
    return false;
  }
  ASN1Node octets = wrapper.tagValue()[0];
  if (!octets.isData()) return false;
  *content = octets.bytes();
  return true;
}

bool readSimpleValue(std::span<const uint8_t> b, FirstValue* out) {
  if (b.size() < 2) return false;
  uint8_t id = b[0];
  if ((id & 0xE0) != 0 || (id & 0x1F) == 0x1F) return false;  // not universal primitive
  size_t header = 2;
  size_t length = b[1];
  if (length == 0x81 && b.size() >= 3) {
    header = 3;
    length = b[2];
  } else if (length == 0x82 && b.size() >= 4) {
    header = 4;
    length = static_cast<size_t>(b[2]) << 8 | b[3];
  } else if (length >= 0x80) {
    return false;
  }
  if (header + length != b.size()) return false;
  const uint8_t* content = b.data() + header;
  switch (id) {
    case 0x02: {
      if (length == 0) {  // an empty INTEGER fails the parse
        out->kind = FirstValue::kNone;
        return true;
      }
      if (length > 8) return false;
      uint64_t v = 0;
      for (size_t i = 0; i < length; ++i) v = v << 8 | content[i];
      out->kind = FirstValue::kInteger;
      out->integer = static_cast<int64_t>(v);
      return true;
    }
    case 0x0C:
    case 0x13:
    case 0x16: {
      bool ok = id == 0x0C ? zbiap::isValidUTF8(content, length) : zbiap::isASCII(content, length);
      out->kind = ok ? FirstValue::kString : FirstValue::kNone;
      out->text = std::string_view(reinterpret_cast<const char*>(content), length);
      return true;
    }
    default:
      return false;
  }
}

bool decodeReceiptWithTree(std::span<const uint8_t> data, DecodedReceipt* out) {
  ReceiptDecoder decoder;
  Dictionary& d = out->dictionary_;
  if (!decoder.decode(data, &d, &out->purchases)) return false;
  out->originalPurchaseDate = typed<Date>(d, ZBIAPReceiptKeyOriginalPurchaseDate);
  out->originalPurchaseVersion = typed<std::string>(d, ZBIAPReceiptKeyOriginalAppVersion);
  out->bundleIdentifier = typed<std::string>(d, ZBIAPReceiptKeyBundleID);
  out->appVersion = typed<std::string>(d, ZBIAPReceiptKeyAppVersion);
  out->creationDate = typed<Date>(d, ZBIAPReceiptKeyCreationDate);
  out->expirationDate = typed<Date>(d, ZBIAPReceiptKeyExpirationDate);
  out->environment = typed<std::string>(d, ZBIAPReceiptKeyEnvironment);
  return true;
}

const Dictionary& DecodedReceipt::dictionary() const {
  std::call_once(dictionaryOnce_, [this] {
    if (source == nullptr) return;  // the tree decoder made it
    DecodedReceipt decoded;
    if (decodeReceiptWithTree(*source, &decoded)) dictionary_ = std::move(decoded.dictionary_);
  });
  return dictionary_;
}

}  // namespace zbiap::internal
