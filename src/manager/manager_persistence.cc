// Saving the catalogue and the baseline features in the standard user defaults, and reading
// them back at commit. Each is kept as the JSON text of the array of the records' dictionaries.
#include <string>
#include <utility>

#include "manager/manager_internal.h"
#include "zbiap/foundation/json.h"
#include "zbiap/manager/manager.h"
#include "zbiap/platform/platform.h"
#include "zbiap/support/logger.h"

namespace {

using zbiap::manager_internal::kBaselineFeatureMetadataKey;
using zbiap::manager_internal::kProductInfosKey;

// Writes the JSON text of `array` under `key` unless `lastSaved` shows it is there already.
void saveArray(std::string_view key, zbiap::Array array, std::string& lastSaved) {
  std::string text = zbiap::toJSON(zbiap::Value(std::move(array)));
  if (text == lastSaved) return;
  // A failed write is reported by the defaults themselves; the saved copy is only a cache.
  if (zbiap::Platform::current().standardUserDefaults().setData(
          key, zbiap::Data(text.begin(), text.end()))) {
    lastSaved = std::move(text);
  }
}

// The elements of the saved array, or none when the data does not hold one.
zbiap::Array readArray(const zbiap::Data& data) {
  std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
  std::optional<zbiap::Value> root = zbiap::parseJSON(text);
  if (!root || !root->isArray()) return {};
  return *root->asArray();
}

}  // namespace

void ZBIAPManager::locked_saveProductInfos() {
  zbiap::Array array;
  if (dynamicProductInfos_) {
    array.reserve(dynamicProductInfos_->size());
    for (const ProductInfoPtr& dpi : *dynamicProductInfos_) {
      if (dpi) array.push_back(dpi->dictionaryRepresentation());
    }
  }
  saveArray(kProductInfosKey, std::move(array), savedProductInfosText_);
}

void ZBIAPManager::locked_saveBaselineFeatures() {
  zbiap::Array array;
  if (baselineFeatureMetadata_) {
    array.reserve(baselineFeatureMetadata_->size());
    for (const zbiap::ProductFeaturePtr& feature : *baselineFeatureMetadata_) {
      if (feature) array.push_back(feature->dictionaryRepresentation());
    }
  }
  saveArray(kBaselineFeatureMetadataKey, std::move(array), savedBaselineFeaturesText_);
}

bool ZBIAPManager::locked_restoreProductInfosAndBaselineFeatures() {
  zbiap::UserDefaults& defaults = zbiap::Platform::current().standardUserDefaults();
  std::optional<zbiap::Data> infosData = defaults.dataForKey(kProductInfosKey);
  if (!infosData) {
    ZBIAP_LOG(logger_, "Failed to load Dynamic Product Infos!");
    return false;
  }
  std::optional<zbiap::Data> featuresData = defaults.dataForKey(kBaselineFeatureMetadataKey);
  if (!featuresData) {
    ZBIAP_LOG(logger_, "Failed to load baseline features!");
    return false;
  }

  savedProductInfosText_.assign(infosData->begin(), infosData->end());
  savedBaselineFeaturesText_.assign(featuresData->begin(), featuresData->end());

  // One language choice for the whole catalogue, as when it was fetched.
  zbiap::CatalogLanguage language;
  ProductInfos infos;
  zbiap::Array dictionaries = readArray(*infosData);
  infos.reserve(dictionaries.size());
  for (const zbiap::Value& dictionary : dictionaries) {
    if (auto dpi = ZBIAPProductInfoV1::initWithDictionary(dictionary, language)) infos.push_back(dpi);
  }
  dynamicProductInfos_ = std::move(infos);

  FeatureSet features;
  for (const zbiap::Value& dictionary : readArray(*featuresData)) {
    if (auto feature = ZBIAPProductFeatureV1::initWithDictionary(dictionary)) features.insert(feature);
  }
  baselineFeatureMetadata_ = std::move(features);
  return true;
}
