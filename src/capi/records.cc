// The C API's snapshots of the catalogue and of the purchases: plain copies made at once, so
// that the host reads them at leisure, from any thread, without locks.
#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <vector>

#include "capi/handles.h"
#include "zbiap/catalog/product_info.h"
#include "zbiap/support/date_tools.h"

using zbiap::capi::fail;
using zbiap::capi::guarded;
using zbiap::capi::nullArgument;

namespace zbiap::capi {
namespace {

using Text = std::optional<std::string>;

Text text(const std::string* value) { return value ? Text(*value) : std::nullopt; }

Text text(const std::optional<Decimal>& value) {
  return value ? Text(value->toString()) : std::nullopt;
}

}  // namespace

struct Product {
  std::array<Text, 8> texts;  // by ZBIAP_PRODUCT_IDENTIFIER ... ZBIAP_PRODUCT_OLD_PRICE
  std::array<std::optional<ZBIAPColor>, 2> colors;
  std::array<bool, 4> flags;
  std::vector<std::string> features;
};

struct Purchase {
  std::array<Text, 7> texts;  // by ZBIAP_PURCHASE_PRODUCT_ID ... ZBIAP_PURCHASE_CANCELLATION_DATE
  int64_t quantity;
};

// Checks the list and the index of a snapshot accessor.
template <typename List>
int checkRow(const List* list, size_t index, const char* what) {
  if (list == nullptr) return nullArgument(what);
  if (index >= list->rows.size()) {
    return fail(ZBIAP_ERROR_INVALID_ARGUMENT, "index " + std::to_string(index) +
                                                  " is past the end (" +
                                                  std::to_string(list->rows.size()) + ")");
  }
  return ZBIAP_OK;
}

int checkField(int field, size_t count, const char* what) {
  if (field >= 0 && static_cast<size_t>(field) < count) return ZBIAP_OK;
  return fail(ZBIAP_ERROR_INVALID_ARGUMENT,
              "unknown " + std::string(what) + " " + std::to_string(field));
}

// The count and the text accessors, alike for both snapshots.
template <typename List>
int countOf(const List* list, size_t* count, const char* what) {
  if (list == nullptr) return nullArgument(what);
  if (count == nullptr) return nullArgument("count");
  *count = list->rows.size();
  return ZBIAP_OK;
}

template <typename List>
int textOf(const List* list, size_t index, int field, const char** text, const char* what) {
  return guarded([&] {
    if (int status = checkRow(list, index, what)) return status;
    const auto& texts = list->rows[index].texts;
    if (int status = checkField(field, texts.size(), "field")) return status;
    if (text == nullptr) return nullArgument("text");
    *text = texts[field] ? texts[field]->c_str() : nullptr;
    return int{ZBIAP_OK};
  });
}

}  // namespace zbiap::capi

struct zbiap_products {
  std::vector<zbiap::capi::Product> rows;
};

struct zbiap_purchases {
  std::vector<zbiap::capi::Purchase> rows;
};

using zbiap::capi::checkField;
using zbiap::capi::checkRow;

extern "C" {

int zbiap_manager_copy_products(zbiap_manager* manager, zbiap_products** out) {
  return guarded([&] {
    if (manager == nullptr) return nullArgument("manager");
    if (out == nullptr) return nullArgument("out");
    auto list = std::make_unique<zbiap_products>();
    for (const auto& info : manager->manager->dynamicProductInfos()) {
      auto v1 = std::dynamic_pointer_cast<ZBIAPProductInfoV1>(info);
      if (!v1) continue;
      zbiap::capi::Product& row = list->rows.emplace_back();
      row.texts = {v1->productIdentifier(),
                   zbiap::capi::text(v1->localizedTitle()),
                   zbiap::capi::text(v1->localizedSubtitle()),
                   zbiap::capi::text(v1->localizedDescription()),
                   v1->localizedPrice(),
                   v1->localizedOldPrice(),
                   zbiap::capi::text(v1->price()),
                   zbiap::capi::text(v1->oldPrice())};
      row.colors = {v1->titleColor(), v1->backgroundColor()};
      row.flags = {v1->active(), v1->defaultVisible(), v1->requiresAccount(),
                   v1->product() != nullptr};
      if (auto features = v1->featureSet()) {
        for (const zbiap::Value& feature : *features) {
          if (const std::string* id = feature.asString()) row.features.push_back(*id);
        }
        std::sort(row.features.begin(), row.features.end());
      }
    }
    *out = list.release();
    return int{ZBIAP_OK};
  });
}

int zbiap_products_count(const zbiap_products* products, size_t* count) {
  return zbiap::capi::countOf(products, count, "products");
}

int zbiap_products_text(const zbiap_products* products, size_t index, int field,
                        const char** text) {
  return zbiap::capi::textOf(products, index, field, text, "products");
}

int zbiap_products_color(const zbiap_products* products, size_t index, int which, double rgba[4],
                         int* present) {
  return guarded([&] {
    if (int status = checkRow(products, index, "products")) return status;
    if (int status = checkField(which, 2, "product colour")) return status;
    if (rgba == nullptr) return nullArgument("rgba");
    if (present == nullptr) return nullArgument("present");
    const auto& color = products->rows[index].colors[which];
    *present = color.has_value();
    if (color) {
      rgba[0] = color->red;
      rgba[1] = color->green;
      rgba[2] = color->blue;
      rgba[3] = color->alpha;
    }
    return int{ZBIAP_OK};
  });
}

int zbiap_products_flag(const zbiap_products* products, size_t index, int flag, int* value) {
  return guarded([&] {
    if (int status = checkRow(products, index, "products")) return status;
    if (int status = checkField(flag, 4, "product flag")) return status;
    if (value == nullptr) return nullArgument("value");
    *value = products->rows[index].flags[flag] ? 1 : 0;
    return int{ZBIAP_OK};
  });
}

int zbiap_products_feature_count(const zbiap_products* products, size_t index, size_t* count) {
  return guarded([&] {
    if (int status = checkRow(products, index, "products")) return status;
    if (count == nullptr) return nullArgument("count");
    *count = products->rows[index].features.size();
    return int{ZBIAP_OK};
  });
}

int zbiap_products_feature(const zbiap_products* products, size_t index, size_t feature,
                           const char** identifier) {
  return guarded([&] {
    if (int status = checkRow(products, index, "products")) return status;
    const auto& features = products->rows[index].features;
    if (feature >= features.size()) {
      return fail(ZBIAP_ERROR_INVALID_ARGUMENT,
                  "feature " + std::to_string(feature) + " is past the end");
    }
    if (identifier == nullptr) return nullArgument("identifier");
    *identifier = features[feature].c_str();
    return int{ZBIAP_OK};
  });
}

void zbiap_products_free(zbiap_products* products) { delete products; }

int zbiap_manager_copy_purchases(zbiap_manager* manager, zbiap_purchases** out) {
  return guarded([&] {
    if (manager == nullptr) return nullArgument("manager");
    if (out == nullptr) return nullArgument("out");
    auto list = std::make_unique<zbiap_purchases>();
    ZBIAPDateTools& dates = ZBIAPDateTools::dateTools();
    for (const auto& iap : manager->manager->inAppPurchases()) {
      list->rows.push_back(
          {{iap->productIdentifier(), iap->transactionIdentifier(),
            iap->originalTransactionIdentifier(), dates.rfc3339StringFromDate(iap->purchaseDate()),
            dates.rfc3339StringFromDate(iap->originalPurchaseDate()),
            dates.rfc3339StringFromDate(iap->subscriptionExpirationDate()),
            dates.rfc3339StringFromDate(iap->cancellationDate())},
           iap->quantity()});
    }
    *out = list.release();
    return int{ZBIAP_OK};
  });
}

int zbiap_purchases_count(const zbiap_purchases* purchases, size_t* count) {
  return zbiap::capi::countOf(purchases, count, "purchases");
}

int zbiap_purchases_text(const zbiap_purchases* purchases, size_t index, int field,
                         const char** text) {
  return zbiap::capi::textOf(purchases, index, field, text, "purchases");
}

int zbiap_purchases_quantity(const zbiap_purchases* purchases, size_t index, int64_t* quantity) {
  return guarded([&] {
    if (int status = checkRow(purchases, index, "purchases")) return status;
    if (quantity == nullptr) return nullArgument("quantity");
    *quantity = purchases->rows[index].quantity;
    return int{ZBIAP_OK};
  });
}

void zbiap_purchases_free(zbiap_purchases* purchases) { delete purchases; }

}  // extern "C"
