// The store screen of `zbiap demo`: the manager's catalogue as an app would show it (visible
// products that the store sells, by sort key, each with its localized texts, features, price and
// old price in the catalogue's colours), and the same as a "catalog" event for scripts.
#ifndef ZBIAP_TOOLS_DEMO_SCREEN_H_
#define ZBIAP_TOOLS_DEMO_SCREEN_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "demo_output.h"
#include "zbiap/catalog/product_feature.h"
#include "zbiap/catalog/product_info.h"
#include "zbiap/manager/manager.h"

namespace zbiap::cli {

// The products a store screen shows, in order: of the manager's catalogue, or of `infos`.
std::vector<std::shared_ptr<ZBIAPProductInfoV1>> storeScreenProducts(const ZBIAPManager& manager);
std::vector<std::shared_ptr<ZBIAPProductInfoV1>> storeScreenOrder(
    const std::vector<std::shared_ptr<ZBIAPProductInfo>>& infos);

// The titles of the product's features, in `language`: from the metadata the product gives a
// feature, else from the catalogue's (`baseline`), else the feature's identifier.
std::vector<std::string> featureTitles(const ZBIAPProductInfoV1& info,
                                       const std::optional<ProductFeatureSet>& baseline,
                                       const std::string& language);

// Writes the "catalog" event: {"header", "products": [{"identifier", "title", "subtitle",
// "description", "features", "price", "oldPrice", "titleColor", "backgroundColor"}]}.
void showStoreScreen(DemoOutput& out, const ZBIAPManager& manager, const std::string& language);

}  // namespace zbiap::cli

#endif  // ZBIAP_TOOLS_DEMO_SCREEN_H_
