// The C API's manager: creation from the option struct, state, country, notifications and the
// requests (purchase, restore, refreshes).
#include <cstdlib>
#include <cstring>
#include <string>

#include "capi/handles.h"
#include "zbiap/catalog/product_info.h"
#include "zbiap/manager/manager_configuration.h"
#include "zbiap/platform/notification_center.h"

using zbiap::capi::fail;
using zbiap::capi::guarded;
using zbiap::capi::nullArgument;
using zbiap::capi::Outcome;

namespace zbiap::capi {
namespace {

constexpr std::pair<const char*, int> kNotifications[] = {
    {ZBIAPManagerDidUpdateStateNotification, ZBIAP_NOTIFICATION_STATE},
    {ZBIAPManagerDidBecomeReadyStateNotification, ZBIAP_NOTIFICATION_READY},
    {ZBIAPManagerDidUpdateDynamicProductInfosNotification, ZBIAP_NOTIFICATION_PRODUCTS},
    {ZBIAPManagerStoreDidUpdateNotification, ZBIAP_NOTIFICATION_PURCHASES},
};

// The store product to buy `id` with: the catalogue's, else one the store listed.
int findStoreProduct(const ZBIAPManager& manager, const char* id, ZBIAPStoreProductPtr* out) {
  bool inCatalogue = false;
  for (const auto& info : manager.dynamicProductInfos()) {
    if (info->productIdentifier() != id) continue;
    inCatalogue = true;
    if ((*out = info->product())) return ZBIAP_OK;
  }
  if (!inCatalogue) {
    return fail(ZBIAP_ERROR_NOT_FOUND, std::string("no product '") + id + "' in the catalogue");
  }
  auto products = manager.storeProductMap();
  if (auto it = products.find(id); it != products.end() && it->second) {
    *out = it->second;
    return ZBIAP_OK;
  }
  return fail(ZBIAP_ERROR_WRONG_STATE, std::string("'") + id + "' has no store product yet");
}

// Starts a request through `start`, which is given the Outcome to complete and returns a
// status of its own (non-zero: nothing was started).
template <typename Start>
int request(zbiap_manager* manager, Start start) {
  return guarded([&] {
    if (manager == nullptr) return nullArgument("manager");
    auto outcome = std::make_shared<Outcome>(manager->gate);
    if (int status = start(*manager->manager, outcome)) return status;
    return outcome->returned();
  });
}

// A completion that reports to a zbiap_done_fn.
auto doneCompletion(std::shared_ptr<Outcome> outcome, zbiap_done_fn callback, void* context) {
  return [outcome, callback, context](bool failed, ZBIAPErrorPtr error) {
    outcome->complete(failed, std::move(error), [callback, context](const zbiap_error* e) {
      if (callback != nullptr) callback(context, e);
    });
  };
}

}  // namespace
}  // namespace zbiap::capi

using zbiap::capi::doneCompletion;
using zbiap::capi::request;

extern "C" {

int zbiap_manager_create(const zbiap_manager_options* options, zbiap_manager** out) {
  return guarded([&] {
    if (out == nullptr) return nullArgument("out");
    *out = nullptr;
    if (options == nullptr) return nullArgument("options");
    if (options->store == nullptr) return nullArgument("options->store");
    if (options->fetcher == nullptr) return nullArgument("options->fetcher");
    if (options->country_product == nullptr || *options->country_product == '\0') {
      return nullArgument("options->country_product");
    }
    if (options->fallback_country == nullptr || *options->fallback_country == '\0') {
      return nullArgument("options->fallback_country");
    }
    if (int status = zbiap::capi::requirePlatform()) return status;
    auto manager = ZBIAPManager::initWithConfiguration(
        ZBIAPManagerConfiguration::initWithStore(options->store->store, options->country_product,
                                          options->fallback_country, options->fetcher->fetcher));
    if (!manager) return fail(ZBIAP_ERROR_FAILED, "cannot configure the manager");
    auto handle = std::make_unique<zbiap_manager>();
    handle->manager = std::move(manager);
    handle->keep = options->store->keep;
    *out = handle.release();
    ++zbiap::capi::liveObjects();
    return int{ZBIAP_OK};
  });
}

int zbiap_manager_destroy(zbiap_manager* manager) {
  if (manager == nullptr) return nullArgument("manager");
  {
    std::lock_guard lock(manager->gate->mutex);
    manager->gate->open = false;
  }
  delete manager;
  --zbiap::capi::liveObjects();
  return ZBIAP_OK;
}

int zbiap_manager_commit(zbiap_manager* manager) {
  return guarded([&] {
    if (manager == nullptr) return nullArgument("manager");
    if (manager->manager->state() != ZBIAPManagerStateNotConfigured) {
      return fail(ZBIAP_ERROR_WRONG_STATE, "the manager was committed already");
    }
    manager->manager->commitConfiguration();
    return int{ZBIAP_OK};
  });
}

int zbiap_manager_set_observer(zbiap_manager* manager, zbiap_notification_fn callback,
                               void* context) {
  return guarded([&] {
    if (manager == nullptr) return nullArgument("manager");
    manager->observer.reset();
    if (callback == nullptr) return int{ZBIAP_OK};
    manager->observer = zbiap::NotificationCenter::defaultCenter().addObserver(
        "", manager->manager.get(),
        [gate = manager->gate, callback, context](const zbiap::Notification& notification) {
          for (const auto& [name, kind] : zbiap::capi::kNotifications) {
            if (notification.name != name) continue;
            std::lock_guard lock(gate->mutex);
            if (gate->open) callback(context, kind);
          }
        });
    return int{ZBIAP_OK};
  });
}

int zbiap_manager_state(zbiap_manager* manager, int* state) {
  if (manager == nullptr) return nullArgument("manager");
  if (state == nullptr) return nullArgument("state");
  *state = static_cast<int>(manager->manager->state());
  return ZBIAP_OK;
}

int zbiap_manager_country(zbiap_manager* manager, char** country) {
  return guarded([&] {
    if (manager == nullptr) return nullArgument("manager");
    if (country == nullptr) return nullArgument("country");
    std::optional<std::string> code = manager->manager->appStoreCountry();
    *country = code ? strdup(code->c_str()) : nullptr;
    return int{ZBIAP_OK};
  });
}

int zbiap_manager_purchase(zbiap_manager* manager, const char* product_id, zbiap_done_fn callback,
                           void* context) {
  return request(manager, [&](ZBIAPManager& m, std::shared_ptr<Outcome> outcome) {
    if (product_id == nullptr) return nullArgument("product_id");
    ZBIAPStoreProductPtr product;
    if (int status = zbiap::capi::findStoreProduct(m, product_id, &product)) return status;
    m.configuration()->store()->purchaseProduct(
        product, [done = doneCompletion(outcome, callback, context)](bool ok, ZBIAPErrorPtr e) {
          done(!ok, std::move(e));
        });
    return int{ZBIAP_OK};
  });
}

int zbiap_manager_restore(zbiap_manager* manager, zbiap_restore_fn callback, void* context) {
  return request(manager, [&](ZBIAPManager& m, std::shared_ptr<Outcome> outcome) {
    m.configuration()->store()->restorePurchasesWithCompletion(
        [outcome, callback, context](ZBIAPStoreRestoreResult result, ZBIAPErrorPtr error) {
          outcome->complete(result == ZBIAPStoreRestoreResultFailed, std::move(error),
                            [callback, context, result](const zbiap_error* e) {
                              if (callback != nullptr) {
                                callback(context, static_cast<int>(result), e);
                              }
                            });
        });
    return int{ZBIAP_OK};
  });
}

int zbiap_manager_refresh_receipt(zbiap_manager* manager, zbiap_done_fn callback, void* context) {
  return request(manager, [&](ZBIAPManager& m, std::shared_ptr<Outcome> outcome) {
    m.configuration()->store()->refreshReceiptWithCompletion(
        [done = doneCompletion(outcome, callback, context)](bool ok, ZBIAPErrorPtr e) {
          done(!ok, std::move(e));
        });
    return int{ZBIAP_OK};
  });
}

int zbiap_manager_refresh_products(zbiap_manager* manager, zbiap_done_fn callback, void* context) {
  return request(manager, [&](ZBIAPManager& m, std::shared_ptr<Outcome> outcome) {
    if (!m.isReady()) return fail(ZBIAP_ERROR_WRONG_STATE, "the manager is not ready");
    m.refreshDynamicProductInfosWithCompletion(
        [done = doneCompletion(outcome, callback, context)](ZBIAPErrorPtr e) {
          const bool failed = e != nullptr;
          done(failed, std::move(e));
        });
    return int{ZBIAP_OK};
  });
}

}  // extern "C"
