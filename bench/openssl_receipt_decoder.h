// A receipt decoder written on OpenSSL alone, to compare ours with: d2i_PKCS7 for the signed
// container, then ASN1_get_object and the d2i_ functions over the attribute SETs, into plain
// structs of the same fields our reader keeps. Dates stay text (ours parses them), so it does
// less work than ours; no signature is checked by either.
#ifndef ZBIAP_BENCH_OPENSSL_RECEIPT_DECODER_H_
#define ZBIAP_BENCH_OPENSSL_RECEIPT_DECODER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "zbiap/foundation/value.h"

namespace zbiap::bench {

struct OpenSSLPurchase {
  int64_t quantity = 0;
  std::string productIdentifier;
  std::string transactionIdentifier;
  std::string originalTransactionIdentifier;
  std::string purchaseDate;
  std::string originalPurchaseDate;
  std::string subscriptionExpirationDate;
  std::string cancellationDate;
  int64_t webOrderLineItemID = 0;
};

struct OpenSSLReceipt {
  std::string bundleIdentifier;
  std::string appVersion;
  std::string originalAppVersion;
  std::string creationDate;
  std::string expirationDate;
  std::vector<OpenSSLPurchase> purchases;
};

// False when the bytes are no signed receipt.
bool decodeReceiptWithOpenSSL(const Data& der, OpenSSLReceipt* receipt);

}  // namespace zbiap::bench

#endif  // ZBIAP_BENCH_OPENSSL_RECEIPT_DECODER_H_
