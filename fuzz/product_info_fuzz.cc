// Catalogue records from JSON bytes: any input gives records or nothing, never a crash. A record
// rebuilt from its kept dictionary equals the first one (features aside: their sets compare by
// identity), and its texts, prices and description can be read. The bytes are also tried as a
// colour text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "catalog/hex_color.h"
#include "zbiap/catalog/product_feature.h"
#include "zbiap/catalog/product_info.h"
#include "zbiap/foundation/json.h"
#include "zbiap/platform/platform.h"
#include "zbiap/store/store_product.h"

namespace {

// The default platform with a silent system log and a fixed language: rejections are expected
// here by the thousand.
class QuietPlatform final : public zbiap::Platform {
 public:
  explicit QuietPlatform(zbiap::Platform& base) : base_(base) {}
  zbiap::MainQueue& mainQueue() override { return base_.mainQueue(); }
  zbiap::TaskQueue& globalQueue() override { return base_.globalQueue(); }
  zbiap::Date now() override { return base_.now(); }
  std::optional<std::string> environmentValue(std::string_view) override { return std::nullopt; }
  zbiap::UserDefaults& standardUserDefaults() override { return base_.standardUserDefaults(); }
  zbiap::Bundle& mainBundle() override { return base_.mainBundle(); }
  zbiap::DeviceInfo deviceInfo() override { return base_.deviceInfo(); }
  std::vector<std::string> preferredLanguages() override { return {"fr-FR"}; }
  void systemLog(std::string_view) override {}

 private:
  zbiap::Platform& base_;
};

void check(bool condition) {
  if (!condition) std::abort();
}

void exercise(const zbiap::Value& value) {
  if (auto feature = ZBIAPProductFeatureV1::initWithDictionary(value)) {
    auto again = ZBIAPProductFeatureV1::initWithDictionary(feature->dictionaryRepresentation());
    check(again != nullptr && feature->isEqual(*again));
    (void)feature->description();
  }
  auto info = ZBIAPProductInfoV1::initWithDictionary(value);
  if (info == nullptr) return;
  auto again = ZBIAPProductInfoV1::initWithDictionary(info->dictionaryRepresentation());
  check(again != nullptr && again->hash() == info->hash());
  check(info->isEqual(*again) || value.asDictionary()->contains("features_metadata"));
  static const ZBIAPStoreProductPtr product = [] {
    zbiap::StoreProductValues values;
    values.price = zbiap::Decimal::fromString("9.99");
    values.priceLocale = "de_DE@currency=EUR";
    return zbiap::makeStoreProduct(std::move(values));
  }();
  info->setProduct(product);
  check(info->localizedPrice().has_value());
  check(info->localizedOldPrice().has_value() == info->oldPrice().has_value());
  (void)info->description();
  (void)info->metadataForFeatureIdentifier(info->productIdentifier());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool installed = [] {
    zbiap::Platform::install(std::make_shared<QuietPlatform>(zbiap::Platform::current()));
    return true;
  }();
  (void)installed;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  (void)zbiap::colorFromHexString(text);
  std::optional<zbiap::Value> document = zbiap::parseJSON(text);
  if (!document) return 0;
  exercise(*document);
  // A catalogue envelope or a plain list of products.
  const zbiap::Value& products = document->isArray() ? *document : (*document)["products"];
  if (const zbiap::Array* array = products.asArray()) {
    for (const zbiap::Value& element : *array) exercise(element);
  }
  return 0;
}
