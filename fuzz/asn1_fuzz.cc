// libFuzzer harness for ZBIAPASN1Parser: any input must parse or fail cleanly, without reading
// outside the buffer, leaking, or nesting past the parser's depth limit. Seeds: fuzz/corpus/asn1
// (run it with the shared receipts as a second corpus directory for real containers).
#include <cstddef>
#include <cstdint>
#include <string>

#include "zbiap/receipt/asn1_parser.h"
#include "zbiap/receipt/asn1_tag.h"

namespace {

// Visits every node the way a caller would read it.
size_t walk(zbiap::ASN1Node node, int depth) {
  size_t count = 1;
  switch (node.type()) {
    case zbiap::ASN1Type::kArray:
      for (size_t i = 0; i < node.size(); ++i) count += walk(node[i], depth + 1);
      break;
    case zbiap::ASN1Type::kTag:
      if (ZBIAPASN1Tag::fromNode(node) == nullptr) __builtin_trap();
      count += walk(node.tagValue(), depth + 1);
      break;
    case zbiap::ASN1Type::kObjectID:
      if (node.objectID()->stringValue().empty()) __builtin_trap();
      break;
    default:
      (void)node.toValue();
      break;
  }
  // A tagged element is two levels of the tree (the tag, then its value) for one level of
  // nesting in the input, so the tree may be twice as deep as the parser's limit, not more.
  if (depth > 2 * (ZBIAPASN1Parser::kMaxDepth + 1)) __builtin_trap();
  return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto tree = ZBIAPASN1Parser::parseASN1Data(zbiap::Data(data, data + size));
  zbiap::ASN1Tree reused;
  bool ok = ZBIAPASN1Parser::parseASN1Data({data, size}, &reused);
  // Both entry points agree.
  if (ok != (tree != nullptr)) __builtin_trap();
  if (tree != nullptr) {
    if (walk(tree->root(), 0) != walk(reused.root(), 0)) __builtin_trap();
    if (size < 4096) (void)tree->root().description();
  }
  return 0;
}
