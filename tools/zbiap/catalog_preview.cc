// zbiap catalog preview [--lang CODE] [--storefront ABC] [--storekit FILE] FILE
//
// Writes to standard output the store screen FILE makes in the language CODE (default: the
// platform's, as an app's), read as an app reads it: the products an app shows, in its order,
// with prices from the .storekit file as the storefront shows them (default: the file's own
// storefront); apart from them the products an app rejects or does not show, with the reason.
// Exit 0 when apps accept the answer, 1 when they reject it as a whole (the page says why) or
// the StoreKit file cannot be read, 2 on bad usage.
#include "catalog_preview.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "catalog_report.h"
#include "demo_screen.h"
#include "input.h"
#include "options.h"
#include "zbiap/catalog/key_table.h"
#include "zbiap/foundation/json.h"
#include "zbiap/store/store_apple.h"
#include "zbiap/storekit/storekit_configuration.h"
#include "zbiap/storekit/storekit_simulator.h"

namespace zbiap::cli {
namespace {

constexpr char kUsage[] =
    "usage: zbiap catalog preview [--lang CODE] [--storefront ABC] [--storekit FILE] FILE\n";

// A catalogue text: the entry in `language`, else the German one every app falls back to, else
// the text itself when it has no translations.
std::optional<std::string> localized(const Value& value, const std::string& language) {
  if (const std::string* text = value[language].asString()) return *text;
  if (const std::string* text = value["de"].asString()) return *text;
  if (const std::string* text = value.asString()) return *text;
  return std::nullopt;
}

std::string joined(const Value& messages) {
  std::string text;
  for (const Value& message : *messages.asArray()) {
    if (!text.empty()) text += " ";
    text += message.asString() ? *message.asString() : toJSON(message);
  }
  return text.empty() ? "rejected" : text;
}

// The store products of the StoreKit file as `storefront` shows them in `language`, by
// identifier; nullopt, with the reason printed, when the file or the storefront is unusable.
std::optional<std::map<std::string, ZBIAPStoreProductPtr>> storeProducts(
    const std::string& file, const std::string& language, std::string* storefront) {
  std::string error;
  auto configuration = StoreKitConfiguration::fromFile(file, &error);
  auto simulator = configuration ? StoreKitSimulator::create(*configuration) : nullptr;
  if (!simulator) {
    std::fprintf(stderr, "zbiap catalog preview: %s: %s\n", file.c_str(),
                 error.empty() ? "cannot be used" : error.c_str());
    return std::nullopt;
  }
  if (!storefront->empty()) simulator->setStorefront(*storefront);
  *storefront = simulator->storefront();
  simulator->setLocale(language);
  std::map<std::string, ZBIAPStoreProductPtr> products;
  for (const SKProductPtr& product : simulator->products()) {
    // A storefront the simulator does not know gives prices without a currency.
    if (product->priceLocale().find("@currency=") == std::string::npos) {
      std::fprintf(stderr, "zbiap catalog preview: unknown storefront '%s'\n", storefront->c_str());
      return std::nullopt;
    }
    products[product->productIdentifier()] = ZBIAPStoreApple::storeProductFor(product);
  }
  return products;
}

}  // namespace

int catalogPreview(const Args& args) {
  OptionParser parser("zbiap catalog preview", kUsage);
  std::string lang, storefront, storekit;
  parser.value("--lang", &lang);
  parser.value("--storefront", &storefront);
  parser.value("--storekit", &storekit);
  std::vector<std::string> files;
  if (!parser.parse(args, &files, 1, 1)) return parser.exitCode();
  if (!storefront.empty() && storekit.empty()) {
    return parser.fail("--storefront needs --storekit: the prices come from the StoreKit file");
  }
  const std::optional<std::string> bytes = readInput("zbiap catalog preview", files[0]);
  if (!bytes) return 1;
  // The catalogue's language is read from the environment, as an app's override would be.
  if (!lang.empty()) setenv("ZBIAP_OVERRIDE_LOCALE", lang.c_str(), 1);

  AnswerReading reading(*bytes);
  Preview preview;
  preview.language = CatalogLanguage::current();
  std::optional<std::map<std::string, ZBIAPStoreProductPtr>> sold;
  if (!storekit.empty()) {
    preview.storefront = storefront;
    sold = storeProducts(storekit, preview.language, &preview.storefront);
    if (!sold) return 1;
  }

  const Value report = reading.report().toValue();
  const Value answer = parseJSON(*bytes).value_or(Value());
  for (const Value& product : *report["products"].asArray()) {
    if (product["accepted"] != Value(true)) {
      preview.rejected.push_back(
          {productElementName(answer, product["index"]), joined(product["messages"])});
    }
  }
  const auto response = reading.report().response();
  if (!response) preview.error = *report["error"].asString();
  const ZBIAPProductInfoResponse::ProductInfos infos =
      response ? response->productInfos().value_or(ZBIAPProductInfoResponse::ProductInfos())
               : ZBIAPProductInfoResponse::ProductInfos();
  if (response) preview.header = response->htmlStoreHeader();

  for (const auto& info : infos) {
    auto v1 = std::dynamic_pointer_cast<ZBIAPProductInfoV1>(info);
    if (!v1 || !sold) continue;
    // An app shows only what its store sells, at the store's price.
    auto product = sold->find(v1->productIdentifier());
    if (product != sold->end()) v1->setProduct(product->second);
  }
  const auto shown = storeScreenOrder(infos);
  for (const auto& info : infos) {
    auto v1 = std::dynamic_pointer_cast<ZBIAPProductInfoV1>(info);
    if (!v1) continue;
    const char* reason = !v1->active()            ? "inactive"
                         : !v1->defaultVisible()  ? "not visible by default"
                         : sold && !v1->product() ? "the store does not sell it"
                                                  : nullptr;
    if (reason) preview.hidden.push_back({v1->productIdentifier(), reason});
  }
  for (const auto& info : shown) {
    if (sold && !info->product()) continue;
    Preview::Product product{info, std::nullopt,
                             featureTitles(*info, response->featureSet(), preview.language)};
    if (const std::string* group = info->featureGroupID(); group && response->featureGroups()) {
      product.featureGroupTitle =
          localized((*response->featureGroups())[*group]["title"], preview.language);
    }
    preview.shown.push_back(std::move(product));
  }
  const std::string page = previewPage(preview);
  std::fwrite(page.data(), 1, page.size(), stdout);
  return preview.error ? 1 : 0;
}

}  // namespace zbiap::cli
