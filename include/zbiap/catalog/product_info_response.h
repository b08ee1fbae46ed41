// ZBIAPProductInfoResponse: the result of one catalogue fetch: the DPIs in catalogue order, the
// HTML header of the store screen, the feature groups and the catalogue's feature descriptions.
//
// Immutable once made, safe to read from any thread; every part may be absent (nullopt). It
// shares the DPIs and features it was given (they stay shared objects).
#ifndef ZBIAP_CATALOG_PRODUCT_INFO_RESPONSE_H_
#define ZBIAP_CATALOG_PRODUCT_INFO_RESPONSE_H_

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "zbiap/catalog/product_feature.h"
#include "zbiap/catalog/product_info.h"
#include "zbiap/export.h"
#include "zbiap/foundation/value.h"

class ZBIAP_EXPORT ZBIAPProductInfoResponse {
 public:
  using ProductInfos = std::vector<std::shared_ptr<ZBIAPProductInfo>>;
  using FeatureSet = zbiap::ProductFeatureSet;

  static std::shared_ptr<ZBIAPProductInfoResponse> initWithProductInfos(
      std::optional<ProductInfos> productInfos, std::optional<std::string> htmlStoreHeader,
      std::optional<zbiap::Dictionary> featureGroups, std::optional<FeatureSet> featureSet);

  ZBIAPProductInfoResponse(const ZBIAPProductInfoResponse&) = delete;
  ZBIAPProductInfoResponse& operator=(const ZBIAPProductInfoResponse&) = delete;

  // From the envelope's "products", failed entries left out.
  const std::optional<ProductInfos>& productInfos() const { return productInfos_; }
  // From "gold_description".
  const std::optional<std::string>& htmlStoreHeader() const { return htmlStoreHeader_; }
  // From "feature_groups", as received.
  const std::optional<zbiap::Dictionary>& featureGroups() const { return featureGroups_; }
  // From "features_metadata".
  const std::optional<FeatureSet>& featureSet() const { return featureSet_; }

 private:
  ZBIAPProductInfoResponse(std::optional<ProductInfos> productInfos,
                           std::optional<std::string> htmlStoreHeader,
                           std::optional<zbiap::Dictionary> featureGroups,
                           std::optional<FeatureSet> featureSet)
      : productInfos_(std::move(productInfos)),
        htmlStoreHeader_(std::move(htmlStoreHeader)),
        featureGroups_(std::move(featureGroups)),
        featureSet_(std::move(featureSet)) {}

  const std::optional<ProductInfos> productInfos_;
  const std::optional<std::string> htmlStoreHeader_;
  const std::optional<zbiap::Dictionary> featureGroups_;
  const std::optional<FeatureSet> featureSet_;
};

inline std::shared_ptr<ZBIAPProductInfoResponse> ZBIAPProductInfoResponse::initWithProductInfos(
    std::optional<ProductInfos> productInfos, std::optional<std::string> htmlStoreHeader,
    std::optional<zbiap::Dictionary> featureGroups, std::optional<FeatureSet> featureSet) {
  return std::shared_ptr<ZBIAPProductInfoResponse>(
      new ZBIAPProductInfoResponse(std::move(productInfos), std::move(htmlStoreHeader),
                                   std::move(featureGroups), std::move(featureSet)));
}

#endif  // ZBIAP_CATALOG_PRODUCT_INFO_RESPONSE_H_
