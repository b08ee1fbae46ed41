#include "bench/openssl_receipt_decoder.h"

#include <openssl/asn1.h>
#include <openssl/objects.h>
#include <openssl/pkcs7.h>

#include <functional>

namespace zbiap::bench {
namespace {

// The content of a string element (UTF8String, IA5String) inside an attribute's OCTET STRING.
std::string text(const unsigned char* p, long length) {
  long inner = 0;
  int tag = 0, cls = 0;
  const unsigned char* q = p;
  if (ASN1_get_object(&q, &inner, &tag, &cls, length) & 0x80) return {};
  return std::string(reinterpret_cast<const char*>(q), static_cast<size_t>(inner));
}

int64_t integer(const unsigned char* p, long length) {
  const unsigned char* q = p;
  ASN1_INTEGER* value = d2i_ASN1_INTEGER(nullptr, &q, length);
  if (value == nullptr) return 0;
  int64_t out = 0;
  ASN1_INTEGER_get_int64(&out, value);
  ASN1_INTEGER_free(value);
  return out;
}

// Calls `visit(type, value, length)` for each SEQUENCE {INTEGER type, INTEGER version,
// OCTET STRING value} of the SET at `p`. False on malformed input.
bool forEachAttribute(const unsigned char* p, long length,
                      const std::function<void(int64_t, const unsigned char*, long)>& visit) {
  const unsigned char* end = p + length;
  long setLength = 0;
  int tag = 0, cls = 0;
  if ((ASN1_get_object(&p, &setLength, &tag, &cls, end - p) & 0x80) || tag != V_ASN1_SET) {
    return false;
  }
  end = p + setLength;
  while (p < end) {
    long sequenceLength = 0;
    if ((ASN1_get_object(&p, &sequenceLength, &tag, &cls, end - p) & 0x80) ||
        tag != V_ASN1_SEQUENCE) {
      return false;
    }
    const unsigned char* next = p + sequenceLength;
    ASN1_INTEGER* type = d2i_ASN1_INTEGER(nullptr, &p, next - p);
    ASN1_INTEGER* version = d2i_ASN1_INTEGER(nullptr, &p, next - p);
    ASN1_OCTET_STRING* value = d2i_ASN1_OCTET_STRING(nullptr, &p, next - p);
    bool ok = type != nullptr && version != nullptr && value != nullptr;
    if (ok) {
      int64_t typeNumber = 0;
      ASN1_INTEGER_get_int64(&typeNumber, type);
      visit(typeNumber, ASN1_STRING_get0_data(value), ASN1_STRING_length(value));
    }
    ASN1_INTEGER_free(type);
    ASN1_INTEGER_free(version);
    ASN1_OCTET_STRING_free(value);
    if (!ok) return false;
    p = next;
  }
  return true;
}

bool decodePurchase(const unsigned char* p, long length, OpenSSLPurchase* purchase) {
  return forEachAttribute(p, length, [&](int64_t type, const unsigned char* v, long n) {
    switch (type) {
      case 1701:
        purchase->quantity = integer(v, n);
        break;
      case 1702:
        purchase->productIdentifier = text(v, n);
        break;
      case 1703:
        purchase->transactionIdentifier = text(v, n);
        break;
      case 1704:
        purchase->purchaseDate = text(v, n);
        break;
      case 1705:
        purchase->originalTransactionIdentifier = text(v, n);
        break;
      case 1706:
        purchase->originalPurchaseDate = text(v, n);
        break;
      case 1708:
        purchase->subscriptionExpirationDate = text(v, n);
        break;
      case 1711:
        purchase->webOrderLineItemID = integer(v, n);
        break;
      case 1712:
        purchase->cancellationDate = text(v, n);
        break;
      default:
        break;
    }
  });
}

}  // namespace

bool decodeReceiptWithOpenSSL(const Data& der, OpenSSLReceipt* receipt) {
  const unsigned char* p = der.data();
  PKCS7* container = d2i_PKCS7(nullptr, &p, static_cast<long>(der.size()));
  if (container == nullptr) return false;
  bool ok = false;
  if (PKCS7_type_is_signed(container) && container->d.sign->contents != nullptr &&
      PKCS7_type_is_data(container->d.sign->contents)) {
    const ASN1_OCTET_STRING* content = container->d.sign->contents->d.data;
    ok = forEachAttribute(ASN1_STRING_get0_data(content), ASN1_STRING_length(content),
                          [&](int64_t type, const unsigned char* v, long n) {
                            switch (type) {
                              case 2:
                                receipt->bundleIdentifier = text(v, n);
                                break;
                              case 3:
                                receipt->appVersion = text(v, n);
                                break;
                              case 12:
                                receipt->creationDate = text(v, n);
                                break;
                              case 19:
                                receipt->originalAppVersion = text(v, n);
                                break;
                              case 21:
                                receipt->expirationDate = text(v, n);
                                break;
                              case 17: {
                                receipt->purchases.emplace_back();
                                if (!decodePurchase(v, n, &receipt->purchases.back()))
                                  receipt->purchases.pop_back();
                                break;
                              }
                              default:
                                break;
                            }
                          });
  }
  PKCS7_free(container);
  return ok;
}

}  // namespace zbiap::bench
