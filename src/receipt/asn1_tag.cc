#include "zbiap/receipt/asn1_tag.h"

#include <fmt/format.h>

#include "zbiap/receipt/asn1_parser.h"

std::shared_ptr<ZBIAPASN1Tag> ZBIAPASN1Tag::initWithTag(uint64_t tag, uint8_t asn1Class,
                                                        bool constructed, zbiap::ASN1Node value) {
  if (!value.valid()) return nullptr;
  if (constructed ? !value.isArray() : !value.isData()) return nullptr;
  return std::shared_ptr<ZBIAPASN1Tag>(new ZBIAPASN1Tag(tag, asn1Class, constructed, value));
}

std::shared_ptr<ZBIAPASN1Tag> ZBIAPASN1Tag::fromNode(zbiap::ASN1Node node) {
  if (!node.isTag()) return nullptr;
  return initWithTag(node.tagNumber(), node.asn1Class(), node.isConstructed(), node.tagValue());
}

std::string ZBIAPASN1Tag::description() const {
  return fmt::format("<ASN.1 Tag [{} {}] ({})> (\n{}\n)",
                     ZBIAPASN1Parser::asn1ClassToString(asn1Class_).value_or("(null)"), tag_,
                     constructed_ ? "constructed" : "primitive", value_.description());
}
