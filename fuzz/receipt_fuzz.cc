// libFuzzer harness for ZBIAPReceiptParser: each input is read as a whole receipt file and, to
// reach the attribute rules without a container, as the content of a minimal PKCS #7 data
// container. No input may crash, leak, read out of bounds or overflow the stack; a rejected
// receipt must leave no results behind, and the two decoders behind the reader must agree. Seeds:
// fuzz/corpus/receipt (run it with the shared receipts as a second corpus directory).
#include <cstddef>
#include <cstdint>

#include "receipt/receipt_decoder.h"
#include "zbiap/receipt/receipt_parser.h"

namespace {

// The reader's direct decoder may only answer where the tree decoder gives the same.
void compareDecoders(const zbiap::Data& data) {
  zbiap::internal::DecodedReceipt direct, tree;
  if (!zbiap::internal::decodeReceiptDirect(data, &direct)) return;
  if (!zbiap::internal::decodeReceiptWithTree(data, &tree) ||
      !zbiap::internal::sameContents(direct, tree)) {
    __builtin_trap();
  }
}

void check(const zbiap::Data& data) {
  compareDecoders(data);
  auto parser = ZBIAPReceiptParser::initWithReceiptData(data);
  if (parser == nullptr) __builtin_trap();
  if (parser->isLoaded()) {
    if (parser->lastError() != nullptr) __builtin_trap();
    for (const auto& iap : parser->inAppPurchases()) {
      if (!iap->upgradable()) __builtin_trap();
      (void)iap->dictionaryRepresentation();
    }
  } else {
    if (parser->lastError() == nullptr || parser->lastError()->code() != 2) __builtin_trap();
    if (!parser->dictionaryRepresentation().empty() || !parser->inAppPurchases().empty() ||
        parser->bundleIdentifier() || parser->receiptCreationDate()) {
      __builtin_trap();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  check(zbiap::Data(data, data + size));
  // ContentInfo { data, [0] { OCTET STRING input } } with indefinite outer lengths.
  zbiap::Data wrapped = {0x30, 0x80, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7,
                         0x0D, 0x01, 0x07, 0x01, 0xA0, 0x80, 0x04, 0x84};
  for (int shift = 24; shift >= 0; shift -= 8)
    wrapped.push_back(static_cast<uint8_t>(size >> shift));
  wrapped.insert(wrapped.end(), data, data + size);
  wrapped.insert(wrapped.end(), {0x00, 0x00, 0x00, 0x00});
  check(wrapped);
  return 0;
}
