// ZBIAPProductInfoFetcher: what the manager asks of whatever obtains the catalogue of dynamic
// product infos, and zbiap::ProductInfoFetcherOwner, what such a fetcher reads back from the
// manager that owns it when it builds a request.
//
// Contracts: fetchWithSuccess() may be called from any thread; exactly one of the two callbacks
// runs once per call, on a thread the fetcher chooses (a bundle load calls back on the caller's
// thread before the call returns). The failure callback may receive a null error. The fetcher
// holds its owner weakly; the owner (the manager) holds the fetcher through its configuration.
#ifndef ZBIAP_CATALOG_PRODUCT_INFO_FETCHER_H_
#define ZBIAP_CATALOG_PRODUCT_INFO_FETCHER_H_

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "zbiap/export.h"
#include "zbiap/foundation/error.h"

class ZBIAPProductInfoResponse;
class ZBIAPStore;

namespace zbiap {

// The side of the manager a fetcher sees. The manager implements it; tests and tools may supply
// their own. Every member may be called from any thread.
class ZBIAP_EXPORT ProductInfoFetcherOwner {
 public:
  virtual ~ProductInfoFetcherOwner() = default;
  // The App Store country once it is known, else nullopt.
  virtual std::optional<std::string> appStoreCountry() const = 0;
  // The configuration's fallback country code; nullopt by design (the fetcher then uses its own
  // fixed default).
  virtual std::optional<std::string> appStoreFallbackCountryCode() const = 0;
  // The store whose purchases describe the user in a request; may be null.
  virtual std::shared_ptr<ZBIAPStore> storeForRequests() const = 0;
};

}  // namespace zbiap

class ZBIAP_EXPORT ZBIAPProductInfoFetcher {
 public:
  using SuccessBlock = std::function<void(std::shared_ptr<ZBIAPProductInfoResponse> response)>;
  using FailureBlock = std::function<void(ZBIAPErrorPtr error)>;

  virtual ~ZBIAPProductInfoFetcher() = default;

  // Fetches the catalogue from the server. Implementations that override the three-argument
  // form bring this one back into scope with `using ZBIAPProductInfoFetcher::fetchWithSuccess;`.
  void fetchWithSuccess(SuccessBlock success, FailureBlock failure) {
    fetchWithSuccess(std::move(success), std::move(failure), false);
  }
  // Starts or joins a fetch; with `tryBundleData` the catalogue copy in the application bundle
  // is read instead of the server, and the callback runs before the call returns.
  virtual void fetchWithSuccess(SuccessBlock success, FailureBlock failure, bool tryBundleData) = 0;

  virtual std::weak_ptr<zbiap::ProductInfoFetcherOwner> owner() const = 0;
  virtual void setOwner(std::weak_ptr<zbiap::ProductInfoFetcherOwner> owner) = 0;
};

#endif  // ZBIAP_CATALOG_PRODUCT_INFO_FETCHER_H_
