// CatalogReport: what an app makes of one catalogue answer, element by element of "products":
// accepted or not, the messages its reading wrote to the system log, and the record's
// properties; then the answer's header, feature groups and features, or its error. Filled by
// the fetcher itself (through its product observer), so that it shows the fetcher's own reading.
// Thread-safe: the fetcher may report from its network thread.
#ifndef ZBIAP_TOOLS_CATALOG_REPORT_H_
#define ZBIAP_TOOLS_CATALOG_REPORT_H_

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "log_capture.h"
#include "zbiap/catalog/product_info.h"
#include "zbiap/catalog/product_info_response.h"
#include "zbiap/catalog/product_info_v1_fetcher.h"
#include "zbiap/foundation/error.h"
#include "zbiap/foundation/value.h"

namespace zbiap::cli {

class CatalogReport {
 public:
  // Observes the products `fetcher` reads, taking their messages from `log`. Both must outlive
  // the report; the report detaches from the fetcher when destroyed.
  CatalogReport(ZBIAPProductInfoV1Fetcher& fetcher, LogCapturingPlatform& log);
  ~CatalogReport();
  CatalogReport(const CatalogReport&) = delete;
  CatalogReport& operator=(const CatalogReport&) = delete;

  // The outcome of the fetch or parse: exactly one of the two is called.
  void succeeded(std::shared_ptr<ZBIAPProductInfoResponse> response);
  void failed(ZBIAPErrorPtr error);
  bool accepted() const;
  // The answer as the app takes it; null unless accepted.
  std::shared_ptr<ZBIAPProductInfoResponse> response() const;

  // {"products": [{"index", "accepted", "messages", "record"}], "htmlStoreHeader",
  //  "featureGroups", "featureSet", "error"}; absent parts are null.
  Value toValue() const;
  // The same as text for a person.
  void print(FILE* out) const;

  // The record's properties by their names; nil properties are left out.
  static Dictionary recordDictionary(const ZBIAPProductInfoV1& info);

 private:
  struct Product {
    size_t index = 0;
    std::shared_ptr<ZBIAPProductInfoV1> info;
    std::vector<std::string> messages;
  };
  void observe(size_t index, const std::shared_ptr<ZBIAPProductInfoV1>& info);

  ZBIAPProductInfoV1Fetcher& fetcher_;
  LogCapturingPlatform& log_;
  mutable std::mutex mutex_;
  std::vector<Product> products_;
  std::shared_ptr<ZBIAPProductInfoResponse> response_;
  ZBIAPErrorPtr error_;
  bool failed_ = false;
};

// A saved answer read as an app reads it: through the fetcher's own parser, on the default
// platform with its system log caught, in the language of ZBIAP_OVERRIDE_LOCALE. The platform is
// installed for the reading's lifetime: one reading at a time, on one thread.
class AnswerReading {
 public:
  explicit AnswerReading(std::string_view answer);
  ~AnswerReading();
  AnswerReading(const AnswerReading&) = delete;
  AnswerReading& operator=(const AnswerReading&) = delete;

  const CatalogReport& report() const { return *report_; }

 private:
  std::shared_ptr<LogCapturingPlatform> platform_;
  std::shared_ptr<ZBIAPProductInfoV1Fetcher> fetcher_;
  std::unique_ptr<CatalogReport> report_;
};

// "products[2] (com.example.x)": the element of the answer's "products" at `index` (a report's
// "index"), named as its author finds it in the file.
std::string productElementName(const Value& answer, const Value& index);

// The text a catalogue author reads for a fetch or parse error: the fetcher's own description
// of what was wrong with the answer when it gave one, else the error's description.
std::string errorText(const ZBIAPErrorPtr& error);

}  // namespace zbiap::cli

#endif  // ZBIAP_TOOLS_CATALOG_REPORT_H_
