// ZBIAPASN1Parser: turns a buffer of ASN.1 encodings (DER, with the indefinite-length forms of
// BER where they are accepted) into a zbiap::ASN1Tree of plain values: arrays for SEQUENCE and
// SET, numbers, strings, byte data, object identifiers and tags for every non-universal
// element. It checks structure only.
//
// Class operations only; all are thread-safe. Failure is a null result, never an exception.
// Whatever the input, the parser reads nothing outside its buffer and nests at most
// kMaxDepth levels (deeper input fails like any malformed input).
#ifndef ZBIAP_RECEIPT_ASN1_PARSER_H_
#define ZBIAP_RECEIPT_ASN1_PARSER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "zbiap/export.h"
#include "zbiap/foundation/value.h"
#include "zbiap/receipt/asn1_tree.h"

class ZBIAP_EXPORT ZBIAPASN1Parser {
 public:
  static constexpr int kMaxDepth = 64;

  ZBIAPASN1Parser() = delete;

  // The top-level values, or null when parsing fails (an empty buffer fails too). The tree
  // keeps `data`.
  static std::shared_ptr<const zbiap::ASN1Tree> parseASN1Data(zbiap::Data data);
  // The same into `tree` (cleared first, its capacity reused), with strings and data as views
  // into `data`, which must outlive the tree. False on failure, leaving `tree` empty.
  static bool parseASN1Data(std::span<const uint8_t> data, zbiap::ASN1Tree* tree);

  // A base-128 number (7 bits an octet, high bit set on all but the last octet) into
  // `value`; returns the octets used, 0 on failure. An octet whose low 7 bits are zero fails
  // the read wherever it stands, and at most min(length - 1, 8) + 1 octets are read.
  static size_t readBase128(uint64_t* value, const uint8_t* data, size_t length);
  // A DER length into `value` (0 for the indefinite form); returns the octets used, 0 on
  // failure (no input, or a long form of more than 8 octets or longer than the input).
  static size_t readLength(uint64_t* value, const uint8_t* data, size_t length);
  // "Universal", "Application", "Context" or "Private" for 0 to 3, nullopt above.
  static std::optional<std::string> asn1ClassToString(uint64_t asn1Class);
};

#endif  // ZBIAP_RECEIPT_ASN1_PARSER_H_
