// zbiap::ReceiptWriter: writes App Store style receipts, a PKCS #7 signed-data container
// (OpenSSL, with a key and self-signed certificate the writer generates) whose content is the
// DER SET of receipt attributes. The local StoreKit simulator writes its receipts with it;
// tests, fuzz seeds and benchmarks use it to make receipts of any shape.
//
// A writer is immutable once made and may be used from several threads. It signs but makes no
// claim of trust: the receipt reader verifies nothing.
#ifndef ZBIAP_STOREKIT_RECEIPT_WRITER_H_
#define ZBIAP_STOREKIT_RECEIPT_WRITER_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/date.h"
#include "zbiap/foundation/value.h"

namespace zbiap {

// An attribute written as given: the value octets are the DER encoding the OCTET STRING holds.
struct ZBIAP_EXPORT ReceiptAttribute {
  int64_t type = 0;
  int64_t version = 1;
  Data value;
};

// One purchase. Absent fields are not written, except the expiration and cancellation dates,
// which the App Store writes as empty strings (see ReceiptWriter::Options).
struct ZBIAP_EXPORT ReceiptPurchase {
  std::optional<int64_t> quantity = 1;                       // 1701
  std::optional<std::string> productIdentifier;              // 1702
  std::optional<std::string> transactionIdentifier;          // 1703
  std::optional<Date> purchaseDate;                          // 1704
  std::optional<std::string> originalTransactionIdentifier;  // 1705
  std::optional<Date> originalPurchaseDate;                  // 1706
  std::optional<Date> subscriptionExpirationDate;            // 1708
  std::optional<int64_t> webOrderLineItemID;                 // 1711
  std::optional<Date> cancellationDate;                      // 1712
  // Written after the fields above, in order.
  std::vector<ReceiptAttribute> extraAttributes;
};

struct ZBIAP_EXPORT ReceiptContents {
  std::optional<std::string> environment = "ProductionSandbox";  // 0
  std::optional<std::string> bundleIdentifier;                   // 2
  std::optional<std::string> appVersion;                         // 3
  std::optional<Date> creationDate;                              // 12
  std::optional<Date> originalPurchaseDate;                      // 18
  std::optional<std::string> originalAppVersion;                 // 19
  std::optional<Date> expirationDate;                            // 21
  std::vector<ReceiptPurchase> purchases;                        // 17 each
  std::vector<ReceiptAttribute> extraAttributes;
};

class ZBIAP_EXPORT ReceiptWriter {
 public:
  struct Options {
    // Write the outer constructed layers of the container (content info, signed data,
    // encapsulated content and the layers beside them, down to this depth) with indefinite
    // lengths, as Xcode does. 0 keeps DER throughout. The content OCTET STRING always stays
    // primitive.
    int indefiniteLayers = 0;
    // Write absent expiration and cancellation dates as empty strings, as the App Store does.
    bool emptyAbsentDates = true;
  };

  // Generates a P-256 key and a self-signed certificate; null if OpenSSL fails.
  static std::unique_ptr<ReceiptWriter> create();
  ~ReceiptWriter();
  ReceiptWriter(const ReceiptWriter&) = delete;
  ReceiptWriter& operator=(const ReceiptWriter&) = delete;

  // The DER SET of receipt attributes (the signed content), without the container.
  static Data encodePayload(const ReceiptContents& contents, const Options& options);
  static Data encodePayload(const ReceiptContents& contents) { return encodePayload(contents, {}); }
  // The DER SET of one purchase's attributes (the value of a type-17 attribute).
  static Data encodePurchase(const ReceiptPurchase& purchase, const Options& options);
  // "2024-03-05T10:20:30Z": how dates are written.
  static std::string rfc3339UTC(const Date& date);

  // The whole receipt file; nullopt if OpenSSL fails.
  std::optional<Data> write(const ReceiptContents& contents, const Options& options) const;
  std::optional<Data> write(const ReceiptContents& contents) const { return write(contents, {}); }
  // Wraps ready content octets (any bytes) in the signed container.
  std::optional<Data> wrap(const Data& content, const Options& options) const;

 private:
  struct Keys;
  explicit ReceiptWriter(std::unique_ptr<Keys> keys);
  std::unique_ptr<Keys> keys_;
};

}  // namespace zbiap

#endif  // ZBIAP_STOREKIT_RECEIPT_WRITER_H_
