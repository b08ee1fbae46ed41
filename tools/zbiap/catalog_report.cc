#include "catalog_report.h"

#include <algorithm>
#include <utility>

#include "zbiap/catalog/product_feature.h"
#include "zbiap/foundation/json.h"
#include "zbiap/platform/linux_platform.h"

namespace zbiap::cli {
namespace {

// Consumer key of the fetcher that only parses: a fetcher needs one, a reading sends nothing.
constexpr char kOfflineConsumerKey[] = "zbiap-catalog-check";

void setText(Dictionary& record, const char* name, const std::string* text) {
  if (text != nullptr) record.set(name, Value(*text));
}

void setValue(Dictionary& record, const char* name, const Value& value) {
  if (!value.isNil()) record.set(name, value);
}

Value featureList(const ProductFeatureSet& features) {
  Array list;
  for (const ProductFeaturePtr& feature : features) {
    Dictionary entry;
    entry.set("identifier", Value(feature->identifier()));
    setValue(entry, "metadata", feature->metadata());
    list.emplace_back(std::move(entry));
  }
  return Value(std::move(list));
}

// Strings as they are, everything else as JSON.
std::string plain(const Value& value) {
  if (const std::string* text = value.asString()) return *text;
  return toJSON(value);
}

}  // namespace

AnswerReading::AnswerReading(std::string_view answer)
    : platform_(std::make_shared<LogCapturingPlatform>(std::make_shared<LinuxPlatform>())) {
  Platform::install(platform_);
  fetcher_ =
      ZBIAPProductInfoV1Fetcher::initWithBaseURL("http://127.0.0.1/", "", kOfflineConsumerKey, "");
  report_ = std::make_unique<CatalogReport>(*fetcher_, *platform_);
  auto blocks = std::make_shared<ZBIAPProductInfoV1FetcherBlocks>();
  blocks->success = [this](std::shared_ptr<ZBIAPProductInfoResponse> response) {
    report_->succeeded(std::move(response));
  };
  blocks->failure = [this](ZBIAPErrorPtr error) { report_->failed(std::move(error)); };
  fetcher_->processResponse(answer, {blocks});
}

AnswerReading::~AnswerReading() {
  report_.reset();
  Platform::install(nullptr);
}

std::string productElementName(const Value& answer, const Value& index) {
  std::string name = "products[" + toJSON(index) + "]";
  if (std::optional<int64_t> at = index.int64Value(); at && *at >= 0) {
    const Value& identifier = answer["products"][static_cast<size_t>(*at)]["identifier"];
    if (identifier.isString()) name += " (" + *identifier.asString() + ")";
  }
  return name;
}

std::string errorText(const ZBIAPErrorPtr& error) {
  if (!error) return "unknown error";
  if (const std::string* text = error->userInfo()[ZBIAPErrorInternalDescriptionKey].asString()) {
    return *text;
  }
  return error->description();
}

CatalogReport::CatalogReport(ZBIAPProductInfoV1Fetcher& fetcher, LogCapturingPlatform& log)
    : fetcher_(fetcher), log_(log) {
  log_.takeLines();
  fetcher_.setProductObserver(
      [this](size_t index, const std::shared_ptr<ZBIAPProductInfoV1>& info) {
        observe(index, info);
      });
}

CatalogReport::~CatalogReport() { fetcher_.setProductObserver(nullptr); }

void CatalogReport::observe(size_t index, const std::shared_ptr<ZBIAPProductInfoV1>& info) {
  // Whatever was logged since the previous element was written while reading this one.
  std::vector<std::string> messages = log_.takeLines();
  std::lock_guard lock(mutex_);
  products_.push_back(Product{index, info, std::move(messages)});
}

void CatalogReport::succeeded(std::shared_ptr<ZBIAPProductInfoResponse> response) {
  std::lock_guard lock(mutex_);
  response_ = std::move(response);
}

void CatalogReport::failed(ZBIAPErrorPtr error) {
  std::lock_guard lock(mutex_);
  failed_ = true;
  error_ = std::move(error);
}

bool CatalogReport::accepted() const {
  std::lock_guard lock(mutex_);
  return response_ != nullptr && !failed_;
}

std::shared_ptr<ZBIAPProductInfoResponse> CatalogReport::response() const {
  std::lock_guard lock(mutex_);
  return failed_ ? nullptr : response_;
}

Dictionary CatalogReport::recordDictionary(const ZBIAPProductInfoV1& info) {
  Dictionary record;
  record.set("productIdentifier", Value(info.productIdentifier()));
  record.set("inactive", Value(info.inactive()));
  record.set("defaultVisible", Value(info.defaultVisible()));
  record.set("ignoreSubscriptionGroupForNewCustomers",
             Value(info.ignoreSubscriptionGroupForNewCustomers()));
  record.set("requiresAccount", Value(info.requiresAccount()));
  setText(record, "localizedTitle", info.localizedTitle());
  setText(record, "localizedSubtitle", info.localizedSubtitle());
  setText(record, "localizedDescription", info.localizedDescription());
  setText(record, "localizedHeader", info.localizedHeader());
  setText(record, "localizedFreeTrialTitle", info.localizedFreeTrialTitle());
  setText(record, "localizedFreeTrialDescription", info.localizedFreeTrialDescription());
  setText(record, "iconText", info.iconText());
  setText(record, "localizedPreBuyDialogTitle", info.localizedPreBuyDialogTitle());
  setText(record, "localizedPreBuyDialogMessage", info.localizedPreBuyDialogMessage());
  setText(record, "localizedPreBuyDialogActionTitle", info.localizedPreBuyDialogActionTitle());
  if (info.titleColor()) record.set("titleColor", Value(info.titleColor()->hexString()));
  if (info.backgroundColor()) {
    record.set("backgroundColor", Value(info.backgroundColor()->hexString()));
  }
  if (info.oldPrice()) record.set("oldPrice", Value(info.oldPrice()->toString()));
  setValue(record, "sortKey", info.sortKey());
  setText(record, "featureGroupID", info.featureGroupID());
  setText(record, "subscriptionGroupID", info.subscriptionGroupID());
  setValue(record, "featureGroup", info.featureGroup());
  if (auto features = info.featureSet()) {
    std::vector<std::pair<std::string, Value>> sorted;
    for (const Value& feature : *features) sorted.emplace_back(toJSON(feature), feature);
    std::sort(sorted.begin(), sorted.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    Array list;
    for (auto& entry : sorted) list.push_back(std::move(entry.second));
    record.set("featureSet", Value(std::move(list)));
  }
  if (auto metadata = info.featureMetadata()) record.set("featureMetadata", featureList(*metadata));
  setValue(record, "metadata", info.metadata());
  return record;
}

Value CatalogReport::toValue() const {
  std::lock_guard lock(mutex_);
  Array products;
  for (const Product& product : products_) {
    Array messages;
    for (const std::string& message : product.messages) messages.emplace_back(message);
    Dictionary entry;
    entry.set("index", Value(static_cast<int64_t>(product.index)));
    entry.set("accepted", Value(product.info != nullptr));
    entry.set("messages", Value(std::move(messages)));
    entry.set("record", product.info ? Value(recordDictionary(*product.info)) : Value::null());
    products.emplace_back(std::move(entry));
  }
  Dictionary report;
  report.set("products", Value(std::move(products)));
  const bool ok = response_ != nullptr && !failed_;
  Value header = Value::null(), groups = Value::null(), features = Value::null();
  if (ok && response_->htmlStoreHeader()) header = Value(*response_->htmlStoreHeader());
  if (ok && response_->featureGroups()) groups = Value(*response_->featureGroups());
  if (ok && response_->featureSet()) features = featureList(*response_->featureSet());
  report.set("htmlStoreHeader", std::move(header));
  report.set("featureGroups", std::move(groups));
  report.set("featureSet", std::move(features));
  report.set("error", ok ? Value::null() : Value(errorText(error_)));
  return Value(std::move(report));
}

void CatalogReport::print(FILE* out) const {
  const Value report = toValue();
  size_t accepted = 0;
  const Array& products = *report["products"].asArray();
  for (const Value& product : products) {
    const bool ok = product["accepted"] == Value(true);
    accepted += ok ? 1 : 0;
    std::fprintf(out, "products[%s]: %s\n", toJSON(product["index"]).c_str(),
                 ok ? "accepted" : "rejected");
    for (const Value& message : *product["messages"].asArray()) {
      std::fprintf(out, "  ! %s\n", plain(message).c_str());
    }
    if (const Dictionary* record = product["record"].asDictionary()) {
      for (const auto& [name, value] : *record) {
        std::fprintf(out, "  %s: %s\n", name.c_str(), plain(value).c_str());
      }
    }
  }
  if (const Value& error = report["error"]; !error.isNull()) {
    std::fprintf(out, "rejected: %s\n", plain(error).c_str());
    return;
  }
  std::fprintf(
      out, "htmlStoreHeader: %s\n",
      report["htmlStoreHeader"].isNull() ? "(none)" : plain(report["htmlStoreHeader"]).c_str());
  std::fprintf(
      out, "featureGroups: %s\n",
      report["featureGroups"].isNull() ? "(none)" : plain(report["featureGroups"]).c_str());
  if (const Array* features = report["featureSet"].asArray()) {
    std::fprintf(out, "featureSet:\n");
    for (const Value& feature : *features) {
      const Value& metadata = feature["metadata"];
      std::fprintf(out, "  %s%s%s\n", plain(feature["identifier"]).c_str(),
                   metadata.isNil() ? "" : ": ", metadata.isNil() ? "" : plain(metadata).c_str());
    }
  } else {
    std::fprintf(out, "featureSet: (none)\n");
  }
  std::fprintf(out, "accepted: %zu of %zu products\n", accepted, products.size());
}

}  // namespace zbiap::cli
