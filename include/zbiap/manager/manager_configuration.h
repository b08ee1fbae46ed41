// ZBIAPManagerConfiguration: what a ZBIAPManager is built from: the store it drives, the product
// identifier with which the store learns the App Store country, and the catalogue fetcher.
//
// Immutable once made and safe to read from any thread. It owns the store and the fetcher.
// create() refuses missing parts with a message in the system log and returns null.
#ifndef ZBIAP_MANAGER_MANAGER_CONFIGURATION_H_
#define ZBIAP_MANAGER_MANAGER_CONFIGURATION_H_

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zbiap/export.h"

class ZBIAPStore;
class ZBIAPProductInfoFetcher;

class ZBIAP_EXPORT ZBIAPManagerConfiguration {
 public:
  // Refuses, in this order, a null store, an empty country product identifier, an empty
  // fallback country code and a null fetcher.
  static std::shared_ptr<ZBIAPManagerConfiguration> initWithStore(
      std::shared_ptr<ZBIAPStore> store, std::string_view countryProduct,
      std::string_view fallbackCountryCode, std::shared_ptr<ZBIAPProductInfoFetcher> fetcher);

  ZBIAPManagerConfiguration(const ZBIAPManagerConfiguration&) = delete;
  ZBIAPManagerConfiguration& operator=(const ZBIAPManagerConfiguration&) = delete;

  const std::shared_ptr<ZBIAPStore>& store() const { return store_; }
  const std::string& appStoreCountryProduct() const { return appStoreCountryProduct_; }
  // Always nullopt: the fallback code is checked but deliberately not kept, so that the fetcher
  // falls back to its own default while no country is known.
  std::optional<std::string> appStoreFallbackCountryCode() const { return std::nullopt; }
  const std::shared_ptr<ZBIAPProductInfoFetcher>& fetcher() const { return fetcher_; }

 private:
  ZBIAPManagerConfiguration(std::shared_ptr<ZBIAPStore> store, std::string countryProduct,
                            std::shared_ptr<ZBIAPProductInfoFetcher> fetcher);

  const std::shared_ptr<ZBIAPStore> store_;
  const std::string appStoreCountryProduct_;
  const std::shared_ptr<ZBIAPProductInfoFetcher> fetcher_;
};

#endif  // ZBIAP_MANAGER_MANAGER_CONFIGURATION_H_
