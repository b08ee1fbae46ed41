// zbiap::testing::FakeFetcher: a scriptable ZBIAPProductInfoFetcher for tests of what drives a
// fetcher (the manager above all). Server fetches take the queued outcomes first, then the
// default one; each outcome answers at once, from another thread, or is held until the test
// answers it (or never). Bundle loads always answer inside the call, as the real fetcher's do.
//
// Thread-safe; callbacks never run with the fake's lock held. Held callbacks keep whatever they
// captured alive until they are answered or dropped (dropPending()).
#ifndef ZBIAP_TESTING_FAKE_FETCHER_H_
#define ZBIAP_TESTING_FAKE_FETCHER_H_

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "testing/fake_store.h"
#include "zbiap/catalog/product_info_fetcher.h"
#include "zbiap/catalog/product_info_response.h"
#include "zbiap/foundation/error.h"
#include "zbiap/foundation/value.h"

namespace zbiap::testing {

class FakeFetcher final : public ZBIAPProductInfoFetcher {
 public:
  using ZBIAPProductInfoFetcher::fetchWithSuccess;

  // One scripted answer: a response (success) or an error (failure, which may be null).
  struct Outcome {
    std::shared_ptr<ZBIAPProductInfoResponse> response;
    ZBIAPErrorPtr error;
    bool succeeds = true;
    Answer answer = Answer::kAtOnce;
  };
  static Outcome succeed(std::shared_ptr<ZBIAPProductInfoResponse> response,
                         Answer answer = Answer::kAtOnce) {
    return Outcome{std::move(response), nullptr, true, answer};
  }
  static Outcome fail(ZBIAPErrorPtr error, Answer answer = Answer::kAtOnce) {
    return Outcome{nullptr, std::move(error), false, answer};
  }
  static Outcome hold() { return Outcome{nullptr, nullptr, false, Answer::kLater}; }

  static std::shared_ptr<FakeFetcher> create() {
    return std::shared_ptr<FakeFetcher>(new FakeFetcher);
  }
  FakeFetcher(const FakeFetcher&) = delete;
  FakeFetcher& operator=(const FakeFetcher&) = delete;

  // Used when no queued outcome is left; held by default.
  void setDefault(Outcome outcome);
  // Used by the next server fetch, in queueing order.
  void enqueue(Outcome outcome);
  // Bundle loads answer with this at once (the answer kind is ignored); fails by default.
  void setBundle(Outcome outcome);

  size_t fetchCount() const;
  size_t bundleFetchCount() const;
  size_t pendingCount() const;
  // Answers every held fetch with `outcome` (its answer kind is ignored).
  void answerPending(const Outcome& outcome);
  void dropPending();

  void fetchWithSuccess(SuccessBlock success, FailureBlock failure, bool tryBundleData) override;
  std::weak_ptr<zbiap::ProductInfoFetcherOwner> owner() const override;
  void setOwner(std::weak_ptr<zbiap::ProductInfoFetcherOwner> owner) override;

 private:
  struct Caller {
    SuccessBlock success;
    FailureBlock failure;
  };
  FakeFetcher() = default;
  static void deliver(const Caller& caller, const Outcome& outcome);

  mutable std::mutex mutex_;
  Outcome default_ = hold();
  std::deque<Outcome> queued_;
  Outcome bundle_ = fail(nullptr);
  size_t fetchCount_ = 0;
  size_t bundleFetchCount_ = 0;
  std::vector<Caller> pending_;
  std::weak_ptr<zbiap::ProductInfoFetcherOwner> owner_;
};

// A catalogue product's JSON object: "identifier", "inactive", "title", "sort_key".
Dictionary productDictionary(const std::string& identifier, const std::string& title = "Title",
                             bool inactive = false, int64_t sortKey = 1);
// A response with DPIs built from `products` (those that do not build are left out), and the
// other parts as given.
std::shared_ptr<ZBIAPProductInfoResponse> makeResponse(
    const std::vector<Dictionary>& products, std::optional<std::string> htmlStoreHeader = {},
    std::optional<Dictionary> featureGroups = {}, const std::vector<Dictionary>& features = {});

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTING_FAKE_FETCHER_H_
