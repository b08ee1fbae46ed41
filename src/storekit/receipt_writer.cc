#include "zbiap/storekit/receipt_writer.h"

#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <chrono>
#include <cstdio>

#include "storekit/der_writer.h"

namespace zbiap {

namespace {

constexpr uint8_t kUTF8 = der::kUTF8String;
constexpr uint8_t kIA5 = der::kIA5String;

// SEQUENCE { type INTEGER, version INTEGER, value OCTET STRING }, with `value` the DER of
// the attribute's value.
void appendAttribute(Data* set, int64_t type, int64_t version, const Data& value) {
  Data body;
  body.reserve(value.size() + 16);
  der::appendInteger(&body, type);
  der::appendInteger(&body, version);
  der::appendElement(&body, der::kOctetString, value);
  der::appendElement(set, der::kSequence, body);
}

void appendStringAttribute(Data* set, int64_t type, uint8_t stringTag, std::string_view text) {
  Data value;
  der::appendString(&value, stringTag, text);
  appendAttribute(set, type, 1, value);
}

void appendIntegerAttribute(Data* set, int64_t type, int64_t number) {
  Data value;
  der::appendInteger(&value, number);
  appendAttribute(set, type, 1, value);
}

void appendDateAttribute(Data* set, int64_t type, const std::optional<Date>& date,
                         bool writeEmpty) {
  if (date) {
    appendStringAttribute(set, type, kIA5, ReceiptWriter::rfc3339UTC(*date));
  } else if (writeEmpty) {
    appendStringAttribute(set, type, kIA5, "");
  }
}

void appendExtras(Data* set, const std::vector<ReceiptAttribute>& extras) {
  for (const auto& a : extras) appendAttribute(set, a.type, a.version, a.value);
}

Data wrapSet(const Data& body) {
  Data out;
  out.reserve(body.size() + 8);
  der::appendElement(&out, der::kSet, body);
  return out;
}

}  // namespace

struct ReceiptWriter::Keys {
  EVP_PKEY* key = nullptr;
  X509* certificate = nullptr;
  ~Keys() {
    X509_free(certificate);
    EVP_PKEY_free(key);
  }
};

ReceiptWriter::ReceiptWriter(std::unique_ptr<Keys> keys) : keys_(std::move(keys)) {}
ReceiptWriter::~ReceiptWriter() = default;

std::unique_ptr<ReceiptWriter> ReceiptWriter::create() {
  auto keys = std::make_unique<Keys>();
  keys->key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
  if (keys->key == nullptr) return nullptr;
  X509* cert = X509_new();
  if (cert == nullptr) return nullptr;
  keys->certificate = cert;
  X509_NAME* name = X509_NAME_new();
  bool ok = name != nullptr && X509_set_version(cert, X509_VERSION_3) == 1 &&
            ASN1_INTEGER_set(X509_get_serialNumber(cert), 1) == 1 &&
            X509_NAME_add_entry_by_txt(
                name, "CN", MBSTRING_ASC,
                reinterpret_cast<const unsigned char*>("ZBIAP Local StoreKit Receipt Signing"), -1,
                -1, 0) == 1 &&
            X509_set_subject_name(cert, name) == 1 && X509_set_issuer_name(cert, name) == 1 &&
            X509_gmtime_adj(X509_getm_notBefore(cert), -3600) != nullptr &&
            X509_gmtime_adj(X509_getm_notAfter(cert), 10L * 365 * 24 * 3600) != nullptr &&
            X509_set_pubkey(cert, keys->key) == 1 && X509_sign(cert, keys->key, EVP_sha256()) > 0;
  X509_NAME_free(name);
  if (!ok) return nullptr;
  return std::unique_ptr<ReceiptWriter>(new ReceiptWriter(std::move(keys)));
}

std::string ReceiptWriter::rfc3339UTC(const Date& date) {
  using namespace std::chrono;
  int64_t micros = date.microsSince1970();
  int64_t seconds = micros / 1000000 - (micros % 1000000 < 0 ? 1 : 0);
  int64_t days = seconds / 86400 - (seconds % 86400 < 0 ? 1 : 0);
  int64_t secondOfDay = seconds - days * 86400;
  year_month_day ymd{sys_days{std::chrono::days{days}}};
  char text[40];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(ymd.year()),
                static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                static_cast<int>(secondOfDay / 3600), static_cast<int>(secondOfDay / 60 % 60),
                static_cast<int>(secondOfDay % 60));
  return text;
}

Data ReceiptWriter::encodePurchase(const ReceiptPurchase& p, const Options& options) {
  Data body;
  body.reserve(320);
  if (p.quantity) appendIntegerAttribute(&body, 1701, *p.quantity);
  if (p.productIdentifier) appendStringAttribute(&body, 1702, kUTF8, *p.productIdentifier);
  if (p.transactionIdentifier) {
    appendStringAttribute(&body, 1703, kUTF8, *p.transactionIdentifier);
  }
  if (p.purchaseDate) appendDateAttribute(&body, 1704, p.purchaseDate, false);
  if (p.originalTransactionIdentifier) {
    appendStringAttribute(&body, 1705, kUTF8, *p.originalTransactionIdentifier);
  }
  if (p.originalPurchaseDate) appendDateAttribute(&body, 1706, p.originalPurchaseDate, false);
  appendDateAttribute(&body, 1708, p.subscriptionExpirationDate, options.emptyAbsentDates);
  if (p.webOrderLineItemID) appendIntegerAttribute(&body, 1711, *p.webOrderLineItemID);
  appendDateAttribute(&body, 1712, p.cancellationDate, options.emptyAbsentDates);
  appendExtras(&body, p.extraAttributes);
  return wrapSet(body);
}

Data ReceiptWriter::encodePayload(const ReceiptContents& c, const Options& options) {
  Data body;
  body.reserve(256 + c.purchases.size() * 300);
  if (c.environment) appendStringAttribute(&body, 0, kUTF8, *c.environment);
  if (c.bundleIdentifier) appendStringAttribute(&body, 2, kUTF8, *c.bundleIdentifier);
  if (c.appVersion) appendStringAttribute(&body, 3, kUTF8, *c.appVersion);
  if (c.creationDate) appendDateAttribute(&body, 12, c.creationDate, false);
  for (const auto& purchase : c.purchases) {
    appendAttribute(&body, 17, 1, encodePurchase(purchase, options));
  }
  if (c.originalPurchaseDate) appendDateAttribute(&body, 18, c.originalPurchaseDate, false);
  if (c.originalAppVersion) appendStringAttribute(&body, 19, kUTF8, *c.originalAppVersion);
  if (c.expirationDate) appendDateAttribute(&body, 21, c.expirationDate, false);
  appendExtras(&body, c.extraAttributes);
  return wrapSet(body);
}

std::optional<Data> ReceiptWriter::write(const ReceiptContents& contents,
                                         const Options& options) const {
  return wrap(encodePayload(contents, options), options);
}

std::optional<Data> ReceiptWriter::wrap(const Data& content, const Options& options) const {
  BIO* in = BIO_new_mem_buf(content.data(), static_cast<int>(content.size()));
  if (in == nullptr) return std::nullopt;
  // Not streamed, so the content OCTET STRING is written whole (primitive).
  PKCS7* p7 = PKCS7_sign(keys_->certificate, keys_->key, nullptr, in, PKCS7_BINARY);
  BIO_free(in);
  if (p7 == nullptr) return std::nullopt;
  unsigned char* der = nullptr;
  int size = i2d_PKCS7(p7, &der);
  PKCS7_free(p7);
  if (size <= 0) return std::nullopt;
  Data out(der, der + size);
  OPENSSL_free(der);
  if (options.indefiniteLayers > 0)
    return der::withIndefiniteOuterLayers(out, options.indefiniteLayers);
  return out;
}

}  // namespace zbiap
