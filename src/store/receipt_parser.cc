#include "zbiap/store/receipt_parser.h"

#include <fstream>
#include <iterator>

namespace {

// The whole file, or nullopt when it cannot be read.
std::optional<zbiap::Data> readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  in.seekg(0, std::ios::end);
  std::streamoff size = in.tellg();
  if (size < 0) return std::nullopt;
  in.seekg(0, std::ios::beg);
  zbiap::Data data(static_cast<size_t>(size));
  if (size > 0 && !in.read(reinterpret_cast<char*>(data.data()), size)) return std::nullopt;
  // A file that grew meanwhile: take the rest too.
  data.insert(data.end(), std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return data;
}

}  // namespace

std::shared_ptr<ZBIAPReceiptParser> ZBIAPReceiptParser::fromReceiptURL(
    std::optional<std::filesystem::path> receiptURL) {
  if (!receiptURL) return nullptr;
  std::shared_ptr<ZBIAPReceiptParser> parser(new ZBIAPReceiptParser());
  parser->receiptURL_ = std::move(receiptURL);
  parser->refresh();
  return parser;
}

std::shared_ptr<ZBIAPReceiptParser> ZBIAPReceiptParser::fromReceiptData(
    std::optional<zbiap::Data> data) {
  if (!data) return nullptr;
  std::shared_ptr<ZBIAPReceiptParser> parser(new ZBIAPReceiptParser());
  parser->receiptData_ = std::make_shared<const zbiap::Data>(std::move(*data));
  parser->refresh();
  return parser;
}

void ZBIAPReceiptParser::refresh() {
  std::optional<std::filesystem::path> url;
  std::shared_ptr<const zbiap::Data> data;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    url = receiptURL_;
    data = receiptData_;
  }
  Results results;
  ZBIAPErrorPtr error;
  bool touchError = true;
  if (url) {
    if (auto bytes = readFile(*url)) {
      results = decode(*bytes, &error);
    } else {
      error = ZBIAPError::make(ZBIAPReceiptParserErrorDomain, ZBIAPReceiptParserErrorUnreadable,
                               zbiap::Dictionary{{"URL", zbiap::Value(url->string())}});
    }
  } else if (data) {
    results = decode(*data, &error);
  } else {
    touchError = false;  // nothing to read: only the results are reset
  }
  std::lock_guard<std::mutex> lock(mutex_);
  results_ = std::move(results);
  if (touchError) lastError_ = std::move(error);
}

bool ZBIAPReceiptParser::isLoaded() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return results_.loaded;
}

zbiap::Dictionary ZBIAPReceiptParser::dictionaryRepresentation() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return results_.dictionary;
}

std::vector<ZBIAPReceiptIAPPtr> ZBIAPReceiptParser::inAppPurchases() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return results_.purchases;
}

std::optional<zbiap::Date> ZBIAPReceiptParser::originalPurchaseDate() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return results_.originalPurchaseDate;
}

std::optional<std::string> ZBIAPReceiptParser::originalPurchaseVersion() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return results_.originalPurchaseVersion;
}

std::optional<std::string> ZBIAPReceiptParser::bundleIdentifier() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return results_.bundleIdentifier;
}

std::optional<std::string> ZBIAPReceiptParser::appVersion() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return results_.appVersion;
}

std::optional<zbiap::Date> ZBIAPReceiptParser::receiptCreationDate() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return results_.creationDate;
}

std::optional<zbiap::Date> ZBIAPReceiptParser::receiptExpirationDate() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return results_.expirationDate;
}

std::optional<std::string> ZBIAPReceiptParser::environment() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return results_.environment;
}

ZBIAPErrorPtr ZBIAPReceiptParser::lastError() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lastError_;
}

std::optional<std::filesystem::path> ZBIAPReceiptParser::receiptURL() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return receiptURL_;
}

void ZBIAPReceiptParser::setReceiptURL(std::optional<std::filesystem::path> receiptURL) {
  std::lock_guard<std::mutex> lock(mutex_);
  receiptURL_ = std::move(receiptURL);
}

std::optional<zbiap::Data> ZBIAPReceiptParser::receiptData() const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!receiptData_) return std::nullopt;
  return *receiptData_;
}

void ZBIAPReceiptParser::setReceiptData(std::optional<zbiap::Data> data) {
  std::lock_guard<std::mutex> lock(mutex_);
  receiptData_ = data ? std::make_shared<const zbiap::Data>(std::move(*data)) : nullptr;
}
