// ZBIAPReceiptParser: reads the App Store receipt (a PKCS #7 container whose content is a DER
// SET of receipt attributes) into the receipt dictionary and a list of ZBIAPReceiptIAP records.
// It only decodes: no signature, certificate or hash is checked.
//
// Every property is read and written atomically (under the reader's own mutex); refresh()
// replaces them all at once, so a reader never holds a mix of two receipts. The owner calls
// refresh() when the receipt may have changed, from any thread. The dictionary form is made
// on first request, from the receipt bytes the reader keeps for it.
#ifndef ZBIAP_RECEIPT_RECEIPT_PARSER_H_
#define ZBIAP_RECEIPT_RECEIPT_PARSER_H_

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/date.h"
#include "zbiap/foundation/error.h"
#include "zbiap/foundation/value.h"
#include "zbiap/receipt/receipt_iap.h"

inline constexpr char ZBIAPReceiptParserErrorDomain[] = "ZBIAPReceiptParserErrorDomain";
// Codes of ZBIAPReceiptParserErrorDomain.
inline constexpr int64_t ZBIAPReceiptParserErrorUnreadable = 1;  // user info "URL": the path
inline constexpr int64_t ZBIAPReceiptParserErrorMalformed = 2;   // no user info

namespace zbiap::internal {
struct DecodedReceipt;
}  // namespace zbiap::internal

class ZBIAP_EXPORT ZBIAPReceiptParser : public ZBIAPReceiptProvider {
 public:
  // Readers of a file or of bytes; null for a missing argument. The new reader has already
  // run refresh(), so it is loaded or holds its lastError().
  static std::shared_ptr<ZBIAPReceiptParser> initWithReceiptURL(
      std::optional<std::filesystem::path> receiptURL);
  static std::shared_ptr<ZBIAPReceiptParser> initWithReceiptData(std::optional<zbiap::Data> data);

  ZBIAPReceiptParser(const ZBIAPReceiptParser&) = delete;
  ZBIAPReceiptParser& operator=(const ZBIAPReceiptParser&) = delete;

  // Reads and decodes the source again (the URL when set, else the data) and replaces every
  // property. Without any source it only resets the results.
  void refresh();

  bool isLoaded() const;
  // The decoded receipt ("BundleID", "AppVer", ..., "IAPs"); empty after a failure.
  zbiap::Dictionary dictionaryRepresentation() const;
  // Empty after a failure or when the receipt holds none. Every record is upgradable.
  std::vector<ZBIAPReceiptIAPPtr> inAppPurchases() const override;
  std::optional<zbiap::Date> originalPurchaseDate() const;
  std::optional<std::string> originalPurchaseVersion() const;
  std::optional<std::string> bundleIdentifier() const;
  std::optional<std::string> appVersion() const;
  std::optional<zbiap::Date> receiptCreationDate() const;
  std::optional<zbiap::Date> receiptExpirationDate() const;
  std::optional<std::string> environment() const;
  // Why the last refresh failed; null after a success.
  ZBIAPErrorPtr lastError() const;

  std::optional<std::filesystem::path> receiptURL() const;
  void setReceiptURL(std::optional<std::filesystem::path> receiptURL);
  std::optional<zbiap::Data> receiptData() const;
  void setReceiptData(std::optional<zbiap::Data> data);

 private:
  ZBIAPReceiptParser() = default;
  std::shared_ptr<const zbiap::internal::DecodedReceipt> contents() const;

  mutable std::mutex mutex_;
  // The last decoded receipt; null when none is loaded. Replaced whole, never changed.
  std::shared_ptr<const zbiap::internal::DecodedReceipt> contents_;
  ZBIAPErrorPtr lastError_;
  std::optional<std::filesystem::path> receiptURL_;
  std::shared_ptr<const zbiap::Data> receiptData_;
};

#endif  // ZBIAP_RECEIPT_RECEIPT_PARSER_H_
