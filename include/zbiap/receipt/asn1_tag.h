// ZBIAPASN1Tag: an element of the Application, Context or Private class as the parser gives
// it: class, constructed flag, tag number and value (the children for a constructed element,
// the content octets for a primitive one).
//
// A light view: its value lives in the zbiap::ASN1Tree it came from, so a tag is valid while
// that tree lives. Immutable.
#ifndef ZBIAP_RECEIPT_ASN1_TAG_H_
#define ZBIAP_RECEIPT_ASN1_TAG_H_

#include <cstdint>
#include <memory>
#include <string>

#include "zbiap/export.h"
#include "zbiap/receipt/asn1_tree.h"

class ZBIAP_EXPORT ZBIAPASN1Tag {
 public:
  // Null when the value is missing, or the tag is constructed and the value is not an array,
  // or primitive and the value is not byte data.
  static std::shared_ptr<ZBIAPASN1Tag> initWithTag(uint64_t tag, uint8_t asn1Class,
                                                   bool constructed, zbiap::ASN1Node value);
  // The tag a kTag node stands for; null for any other node.
  static std::shared_ptr<ZBIAPASN1Tag> fromNode(zbiap::ASN1Node node);

  uint8_t asn1Class() const { return asn1Class_; }
  bool isConstructed() const { return constructed_; }
  uint64_t tag() const { return tag_; }
  zbiap::ASN1Node value() const { return value_; }

  // "<ASN.1 Tag [Context 0] (constructed)> (\n<value>\n)"
  std::string description() const;

 private:
  ZBIAPASN1Tag(uint64_t tag, uint8_t asn1Class, bool constructed, zbiap::ASN1Node value)
      : tag_(tag), asn1Class_(asn1Class), constructed_(constructed), value_(value) {}

  uint64_t tag_;
  uint8_t asn1Class_;
  bool constructed_;
  zbiap::ASN1Node value_;
};

#endif  // ZBIAP_RECEIPT_ASN1_TAG_H_
