#include "zbiap/catalog/product_feature.h"

#include <fmt/format.h>

#include <functional>
#include <mutex>

#include "catalog/record_reader.h"

std::shared_ptr<ZBIAPProductFeatureV1> ZBIAPProductFeatureV1::initWithDictionary(
    const zbiap::Value& dictionary) {
  return zbiap::RecordReader::readFeature(dictionary);
}

const std::string& ZBIAPProductFeatureV1::identifier() const {
  // Always a string once the reader has accepted the feature.
  static const std::string kEmpty;
  const std::string* text = identifier_.asString();
  return text != nullptr ? *text : kEmpty;
}

zbiap::Value ZBIAPProductFeatureV1::metadata() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return metadata_;
}

void ZBIAPProductFeatureV1::setMetadata(zbiap::Value metadata) {
  zbiap::Value old;  // Released outside the lock.
  std::lock_guard<std::mutex> lock(mutex_);
  old = std::exchange(metadata_, std::move(metadata));
}

bool ZBIAPProductFeatureV1::isEqual(const ZBIAPProductFeature& other) const {
  if (this == &other) return true;
  const auto* feature = dynamic_cast<const ZBIAPProductFeatureV1*>(&other);
  if (feature == nullptr) return false;
  return identifier_ == feature->identifier_ && metadata() == feature->metadata();
}

size_t ZBIAPProductFeatureV1::hash() const { return std::hash<const void*>()(this); }

std::string ZBIAPProductFeatureV1::description() const {
  const zbiap::Value metadataNow = metadata();
  return fmt::format("<ZBIAPProductFeatureV1:{} '{}' - {}>", static_cast<const void*>(this),
                     identifier(), metadataNow.isNil() ? "(null)" : metadataNow.description());
}
