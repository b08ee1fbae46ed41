#include "zbiap/manager/manager_configuration.h"

#include <utility>

#include "zbiap/catalog/product_info_fetcher.h"
#include "zbiap/platform/platform.h"
#include "zbiap/store/store.h"

std::shared_ptr<ZBIAPManagerConfiguration> ZBIAPManagerConfiguration::initWithStore(
    std::shared_ptr<ZBIAPStore> store, std::string_view countryProduct,
    std::string_view fallbackCountryCode, std::shared_ptr<ZBIAPProductInfoFetcher> fetcher) {
  zbiap::Platform& platform = zbiap::Platform::current();
  if (!store) {
    platform.systemLog("[ZBIAPManagerConfiguration] No store provided!");
    return nullptr;
  }
  if (countryProduct.empty()) {
    platform.systemLog(
        "[ZBIAPManagerConfiguration] No app store country product identifier provided!");
    return nullptr;
  }
  if (fallbackCountryCode.empty()) {
    platform.systemLog("[ZBIAPManagerConfiguration] No fallback country code provided!");
    return nullptr;
  }
  if (!fetcher) {
    platform.systemLog("[ZBIAPManagerConfiguration] No product info fetcher provided!");
    return nullptr;
  }
  return std::shared_ptr<ZBIAPManagerConfiguration>(new ZBIAPManagerConfiguration(
      std::move(store), std::string(countryProduct), std::move(fetcher)));
}

ZBIAPManagerConfiguration::ZBIAPManagerConfiguration(
    std::shared_ptr<ZBIAPStore> store, std::string countryProduct,
    std::shared_ptr<ZBIAPProductInfoFetcher> fetcher)
    : store_(std::move(store)),
      appStoreCountryProduct_(std::move(countryProduct)),
      fetcher_(std::move(fetcher)) {}
