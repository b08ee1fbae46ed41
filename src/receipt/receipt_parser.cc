#include "zbiap/receipt/receipt_parser.h"

#include <fstream>
#include <iterator>

#include "receipt/receipt_decoder.h"

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

std::shared_ptr<ZBIAPReceiptParser> ZBIAPReceiptParser::initWithReceiptURL(
    std::optional<std::filesystem::path> receiptURL) {
  if (!receiptURL) return nullptr;
  std::shared_ptr<ZBIAPReceiptParser> parser(new ZBIAPReceiptParser());
  parser->receiptURL_ = std::move(receiptURL);
  parser->refresh();
  return parser;
}

std::shared_ptr<ZBIAPReceiptParser> ZBIAPReceiptParser::initWithReceiptData(
    std::optional<zbiap::Data> data) {
  if (!data) return nullptr;
  std::shared_ptr<ZBIAPReceiptParser> parser(new ZBIAPReceiptParser());
  parser->receiptData_ = std::make_shared<const zbiap::Data>(std::move(*data));
  parser->refresh();
  return parser;
}

namespace {

using zbiap::internal::DecodedReceipt;

// The receipt in `source`, or null with `error` set when it is rejected.
std::shared_ptr<const DecodedReceipt> decode(std::shared_ptr<const zbiap::Data> source,
                                             ZBIAPErrorPtr* error) {
  *error = nullptr;
  auto contents = std::make_shared<DecodedReceipt>();
  if (zbiap::internal::decodeReceiptDirect(*source, contents.get())) {
    contents->source = std::move(source);  // for the dictionary, when asked for
    return contents;
  }
  contents = std::make_shared<DecodedReceipt>();
  if (!zbiap::internal::decodeReceiptWithTree(*source, contents.get())) {
    *error = ZBIAPError::make(ZBIAPReceiptParserErrorDomain, ZBIAPReceiptParserErrorMalformed);
    return nullptr;
  }
  return contents;
}

}  // namespace

void ZBIAPReceiptParser::refresh() {
  std::optional<std::filesystem::path> url;
  std::shared_ptr<const zbiap::Data> data;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    url = receiptURL_;
    data = receiptData_;
  }
  std::shared_ptr<const DecodedReceipt> contents;
  ZBIAPErrorPtr error;
  bool touchError = true;
  if (url) {
    if (auto bytes = readFile(*url)) {
      contents = decode(std::make_shared<const zbiap::Data>(std::move(*bytes)), &error);
    } else {
      error = ZBIAPError::make(ZBIAPReceiptParserErrorDomain, ZBIAPReceiptParserErrorUnreadable,
                               zbiap::Dictionary{{"URL", zbiap::Value(url->string())}});
    }
  } else if (data) {
    contents = decode(std::move(data), &error);
  } else {
    touchError = false;  // nothing to read: only the results are reset
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    contents_.swap(contents);
    if (touchError) lastError_ = std::move(error);
  }
  // The previous receipt, if this was its last holder, is freed here, outside the lock.
}

std::shared_ptr<const DecodedReceipt> ZBIAPReceiptParser::contents() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return contents_;
}

bool ZBIAPReceiptParser::isLoaded() const { return contents() != nullptr; }

zbiap::Dictionary ZBIAPReceiptParser::dictionaryRepresentation() const {
  auto c = contents();
  return c ? c->dictionary() : zbiap::Dictionary();
}

std::vector<ZBIAPReceiptIAPPtr> ZBIAPReceiptParser::inAppPurchases() const {
  auto c = contents();
  return c ? c->purchases : std::vector<ZBIAPReceiptIAPPtr>();
}

std::optional<zbiap::Date> ZBIAPReceiptParser::originalPurchaseDate() const {
  auto c = contents();
  return c ? c->originalPurchaseDate : std::nullopt;
}

std::optional<std::string> ZBIAPReceiptParser::originalPurchaseVersion() const {
  auto c = contents();
  return c ? c->originalPurchaseVersion : std::nullopt;
}

std::optional<std::string> ZBIAPReceiptParser::bundleIdentifier() const {
  auto c = contents();
  return c ? c->bundleIdentifier : std::nullopt;
}

std::optional<std::string> ZBIAPReceiptParser::appVersion() const {
  auto c = contents();
  return c ? c->appVersion : std::nullopt;
}

std::optional<zbiap::Date> ZBIAPReceiptParser::receiptCreationDate() const {
  auto c = contents();
  return c ? c->creationDate : std::nullopt;
}

std::optional<zbiap::Date> ZBIAPReceiptParser::receiptExpirationDate() const {
  auto c = contents();
  return c ? c->expirationDate : std::nullopt;
}

std::optional<std::string> ZBIAPReceiptParser::environment() const {
  auto c = contents();
  return c ? c->environment : std::nullopt;
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
