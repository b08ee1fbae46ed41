// ZBIAPASN1ObjectID: an ASN.1 OBJECT IDENTIFIER or RELATIVE-OID, an immutable value.
//
// Built from DER content octets or from dotted text; both factories give null for an invalid
// identifier (an absolute one has at least two arcs, a relative one at least one). Safe to
// share between threads.
#ifndef ZBIAP_RECEIPT_ASN1_OBJECT_ID_H_
#define ZBIAP_RECEIPT_ASN1_OBJECT_ID_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zbiap/export.h"

class ZBIAP_EXPORT ZBIAPASN1ObjectID {
 public:
  // From content octets. Absolute identifiers take their first two arcs from the first octet
  // (b / 40 and b % 40); every other arc is a base-128 sub-identifier, and one with a zero
  // group (0, 128, ...) cannot be read, so the whole identifier is null. The parameter is
  // spelled "isRelativ", as the interface has always spelled it.
  static std::shared_ptr<ZBIAPASN1ObjectID> initWithASN1Data(const uint8_t* data, size_t length,
                                                         bool isRelativ);
  // From dotted decimal text ("1.2.840"); empty pieces are skipped, a piece that is not a
  // non-negative decimal number that fits 64 bits gives null.
  static std::shared_ptr<ZBIAPASN1ObjectID> initWithStringValue(std::string_view text, bool isRelativ);

  // The same as the factories, as a plain value.
  static std::optional<ZBIAPASN1ObjectID> parse(const uint8_t* data, size_t length, bool isRelativ);

  bool isRelative() const { return relative_; }
  // Part of the interface for hosts that read it; the parser never sets it, so always nullopt.
  const std::optional<std::string>& asn1StringValue() const { return asn1StringValue_; }
  const std::vector<uint64_t>& nodes() const { return nodes_; }
  // The arcs joined by "." ("1.2.840"), without a leading dot for relative identifiers.
  std::string stringValue() const;

  // Same relativity and equal arcs.
  bool isEqual(const ZBIAPASN1ObjectID& other) const;
  friend bool operator==(const ZBIAPASN1ObjectID& a, const ZBIAPASN1ObjectID& b) {
    return a.isEqual(b);
  }
  // The hash of the arcs.
  size_t hash() const;
  // "OID:1.2.840"
  std::string description() const;

 private:
  ZBIAPASN1ObjectID(bool relative, std::vector<uint64_t> nodes)
      : relative_(relative), nodes_(std::move(nodes)) {}

  bool relative_;
  std::vector<uint64_t> nodes_;
  std::optional<std::string> asn1StringValue_;
};

template <>
struct std::hash<ZBIAPASN1ObjectID> {
  size_t operator()(const ZBIAPASN1ObjectID& oid) const { return oid.hash(); }
};

#endif  // ZBIAP_RECEIPT_ASN1_OBJECT_ID_H_
